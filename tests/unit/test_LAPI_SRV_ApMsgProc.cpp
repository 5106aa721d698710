/*
 * The handshake and the dispatch of client requests, driven over socket
 * pairs: the server's end is an Fdops made as the accept procedure makes
 * it, the test holds the other end, and a small copy of the event loop
 * serves whatever is readable.
 */
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LAPI_Msg.h"
#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SrvCli.h"
#include "ServerFixture.h"
#include "TestClient.h"
#include "ToolCommon.h"

namespace {

using lapitest::Bytes;
using lapitest::Connection;
using lapitest::MakeMsg;
using lapitest::StderrCapture;
using lapitest::U32Body;

constexpr uint32_t kPid = 4242;

/* An error line of the server with exactly this message. */
constexpr auto &HasError = toolcommon::HasErrorLine;
constexpr auto &HasTrace = toolcommon::HasTraceLine;

/* ------------------------------------------------------------------------ */
/* A recording request handler                                               */
/* ------------------------------------------------------------------------ */

std::vector<Bytes> gCalls;
int gHandlerResult = 0;

int RecordingHandler(uint8_t *pMsg, Fdops *) {
    MsgHeader h;
    std::memcpy(&h, pMsg, sizeof(h));
    gCalls.emplace_back(pMsg, pMsg + sizeof(h) + h.msgLen);
    return gHandlerResult;
}

/* ------------------------------------------------------------------------ */
/* Fixture                                                                   */
/* ------------------------------------------------------------------------ */

class ApMsgProcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        LAPI_SRV_InitGlobals();
        LAPI_SRV_InitApMsgProc();
        LAPI_InitApMsgLogProc();
        /* The BP channel counts as opened once: no reconnection attempts. */
        LAPI_SRV_muxConnected = 1;
        savedMuxDevice_ = LAPI_SRV_muxDevice;
        gCalls.clear();
        gHandlerResult = 0;
    }

    void TearDown() override {
        while (LAPI_SRV_allClientList.head != nullptr) {
            LAPI_SRV_RemoveClient(static_cast<Client *>(LAPI_SRV_allClientList.head->data));
        }
        if (LAPI_SRV_pMuxFdops != nullptr) {
            DestroyFdops(LAPI_SRV_pMuxFdops);
            LAPI_SRV_pMuxFdops = nullptr;
        }
        while (LAPI_SRV_readFdopsList.head != nullptr) {
            DestroyFdops(static_cast<Fdops *>(LAPI_SRV_readFdopsList.head->data));
        }
        while (LAPI_SRV_writeFdopsList.head != nullptr) {
            DestroyFdops(static_cast<Fdops *>(LAPI_SRV_writeFdopsList.head->data));
        }
        LAPI_SRV_muxDevice = savedMuxDevice_;
        LAPI_SRV_InitApMsgProc();
        if (!tmpDir_.empty()) {
            unlink((tmpDir_ + "/mux").c_str());
            rmdir(tmpDir_.c_str());
        }
    }

    /* A new connection as the accept procedure sets it up; the test gets
     * the client's end. */
    Connection Accept(Fdops **ppFdops = nullptr) {
        int sv[2];
        Connection peer;
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
            ADD_FAILURE() << "socketpair";
            return peer;
        }
        SetFdBlocking(sv[0], false);
        Fdops *pFdops = CreateFdops(sv[0], LAPI_SRV_CLIENT_RBUF_SIZE, LAPI_SRV_CLIENT_WBUF_SIZE);
        pFdops->readProc = LAPI_SRV_SockReadProcAfterConnect;
        pFdops->writeProc = LAPI_SRV_GeneralWriteProc;
        pFdops->closeProc = LAPI_SRV_CloseFdops;
        LAPI_SRV_AddFdopsReadList(pFdops);
        if (ppFdops != nullptr) {
            *ppFdops = pFdops;
        }
        peer.Adopt(sv[1]);
        return peer;
    }

    /* Turns of the event loop, without waiting, until nothing is ready;
     * the diagnostics are dropped (ServeCaptured returns them). */
    void Serve() {
        StderrCapture quiet;
        RunLoop();
    }

    std::string ServeCaptured() {
        StderrCapture cap;
        RunLoop();
        return cap.Stop();
    }

    void RunLoop() {
        for (int turn = 0; turn < 50; turn++) {
            fd_set r = readFdSet;
            fd_set w = writeFdSet;
            struct timeval tv = {0, 0};
            int n = select(LAPI_SRV_GetMaxFd() + 1, &r, &w, nullptr, &tv);
            if (n <= 0) {
                return;
            }
            ServeList(&LAPI_SRV_readFdopsList, &r, &n, true);
            ServeList(&LAPI_SRV_writeFdopsList, &w, &n, false);
        }
        ADD_FAILURE() << "descriptors stay ready";
    }

    /* registerReq on a new connection; the registerRsp's globalId. */
    uint32_t Register(Connection *pSync, uint32_t service, Fdops **ppFdops = nullptr) {
        *pSync = Accept(ppFdops);
        pSync->SendMsg(LAPI_REGISTER_REQ, U32Body(service), kPid);
        Serve();
        auto rsp = pSync->RecvMsg(0);
        if (!rsp || rsp->msgId != LAPI_REGISTER_RSP) {
            ADD_FAILURE() << "no registerRsp";
            return 0;
        }
        return *rsp->BodyField<uint32_t>(0);
    }

    /* Both connections of a registered client. */
    void Handshake(Connection *pSync, Connection *pAsync, uint32_t service = 4,
                   uint32_t asyncPid = kPid) {
        uint32_t globalId = Register(pSync, service);
        *pAsync = Accept();
        pAsync->SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), asyncPid);
        Serve();
        auto rsp = pAsync->RecvMsg(0);
        ASSERT_TRUE(rsp.has_value());
        ASSERT_EQ(LAPI_GET_ASYNC_FD_RSP, rsp->msgId);
    }

    /* Defined with the dispatch tests below. */
    void ExpectRemovedAfterHandshake(uint16_t msgId, const Bytes &body,
                                     const std::string &error = "");

    Client *OnlyClient() {
        if (LAPI_SRV_allClientList.count != 1) {
            return nullptr;
        }
        return static_cast<Client *>(LAPI_SRV_allClientList.head->data);
    }

    /* A FIFO to stand for the BP channel device. */
    std::string MakeMuxFifo() {
        char tmpl[] = "/tmp/lapiuXXXXXX";
        char *dir = mkdtemp(tmpl);
        if (dir == nullptr) {
            ADD_FAILURE() << "mkdtemp";
            return "";
        }
        tmpDir_ = dir;
        muxPath_ = tmpDir_ + "/mux";
        if (mkfifo(muxPath_.c_str(), 0600) != 0) {
            ADD_FAILURE() << "mkfifo";
        }
        return muxPath_;
    }

  private:
    void ServeList(List *pList, fd_set *pSet, int *pN, bool isRead) {
        ListNode *pPos = List_GetHeadPos(pList);
        while (pPos != nullptr && *pN > 0) {
            Fdops *pFdops = static_cast<Fdops *>(List_GetNext(pList, &pPos));
            if (pFdops == nullptr || !FD_ISSET(pFdops->fd, pSet)) {
                continue;
            }
            FD_CLR(pFdops->fd, pSet);
            (*pN)--;
            FdopsProc proc = isRead ? pFdops->readProc : pFdops->writeProc;
            if (proc == nullptr) {
                continue;
            }
            if (isRead) {
                LAPI_SRV_ClearReadListChanged();
                proc(pFdops);
                if (LAPI_SRV_IsReadListChanged()) {
                    pPos = List_GetHeadPos(pList);
                }
            } else {
                LAPI_SRV_ClearWriteListChanged();
                proc(pFdops);
                if (LAPI_SRV_IsWriteListChanged()) {
                    pPos = List_GetHeadPos(pList);
                }
            }
        }
    }

    const char *savedMuxDevice_ = nullptr;
    std::string tmpDir_;
    std::string muxPath_;
};

Bytes GetLocationBody(uint16_t len) {
    Bytes body(len, 0);
    if (len >= 4) {
        uint16_t mode = 1;
        std::memcpy(body.data(), &mode, 2);
        body[2] = 1;
        body[3] = 1;
    }
    return body;
}

/* ------------------------------------------------------------------------ */
/* The dispatch table                                                        */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcTest, DispatchTableHoldsHandlerEntries) {
    LAPI_SRV_ApMsgProcFn *t = LAPI_SRV_apMsgProcTable;
    EXPECT_EQ(nullptr, t[0]); /* 100 registerReq */
    EXPECT_EQ(nullptr, t[1]); /* 101 registerRsp */
    EXPECT_EQ(nullptr, t[2]); /* 102 getAsyncFdReq */
    EXPECT_EQ(nullptr, t[3]); /* 103 getAsyncFdRsp */
    EXPECT_EQ(&LAPI_SRV_ProcUnregisterMsg, t[4]);
    EXPECT_EQ(nullptr, t[5]); /* 105 unregisterRsp */
    EXPECT_EQ(&LAPI_SRV_ProcGetLocationMsg, t[6]);
    EXPECT_EQ(&LAPI_SRV_ProcAbortLocationMsg, t[7]);
    EXPECT_EQ(&LAPI_SRV_ProcAbortAllLocationMsg, t[8]);
    EXPECT_EQ(&LAPI_SRV_ProcLastKnownLocationMsg, t[9]);
    EXPECT_EQ(&LAPI_SRV_ProcGetGpsDbDataMsg, t[10]);
    EXPECT_EQ(&LAPI_SRV_ProcSetGpsDbDataMsg, t[11]);
    EXPECT_EQ(&LAPI_SRV_ProcGetStatusMsg, t[12]);
    EXPECT_EQ(&LAPI_SRV_ProcLocationNotificationCfmMsg, t[13]);
    EXPECT_EQ(&LAPI_SRV_ProcDistanceAzimuthMsg, t[14]);
    EXPECT_EQ(&LAPI_SRV_ProcAddProximityMsg, t[15]);
    EXPECT_EQ(&LAPI_SRV_ProcRemoveProximityMsg, t[16]);
}

TEST_F(ApMsgProcTest, InitClearsEntriesSetBefore) {
    LAPI_SRV_apMsgProcTable[0] = RecordingHandler;
    LAPI_SRV_InitApMsgProc();
    EXPECT_EQ(nullptr, LAPI_SRV_apMsgProcTable[0]);
}

/* ------------------------------------------------------------------------ */
/* registerReq                                                               */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcTest, RegisterServiceEightRefusedAsInvalidService) {
    Connection peer = Accept();
    peer.SendMsg(LAPI_REGISTER_REQ, U32Body(8), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcRegisterMsg", "Invalid register service: 0!")) << err;
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockReadProcAfterConnect", "Fail to process message for pFdops!"));
    EXPECT_TRUE(peer.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, RegisterKeepsOnlyLowThreeServiceBits) {
    Connection sync;
    Register(&sync, 0xfffffff6u);
    Client *pClient = OnlyClient();
    ASSERT_NE(nullptr, pClient);
    EXPECT_EQ(6u, pClient->service);
    EXPECT_EQ(1u, LAPI_SRV_statusClientList.count);
    EXPECT_EQ(1u, LAPI_SRV_mtlrClientList.count);
    EXPECT_EQ(kPid, pClient->pid);
}

TEST_F(ApMsgProcTest, RegisterClearsHighServiceBitsInTheMessage) {
    Connection peer = Accept();
    Fdops *pFdops = static_cast<Fdops *>(LAPI_SRV_readFdopsList.head->data);
    Bytes msg = MakeMsg(LAPI_REGISTER_REQ, U32Body(0x80000005u), kPid);
    StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_ProcRegisterMsg(msg.data(), pFdops));
    cap.Stop();
    uint32_t service;
    std::memcpy(&service, msg.data() + 8, 4);
    EXPECT_EQ(5u, service);
}

TEST_F(ApMsgProcTest, RegisterServiceOneJoinsNoBroadcastList) {
    Connection sync;
    Register(&sync, 1);
    EXPECT_EQ(1u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_statusClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_mtlrClientList.count);
}

TEST_F(ApMsgProcTest, RegisterRspCarriesPidZeroAndGlobalId) {
    Connection sync = Accept();
    sync.SendMsg(LAPI_REGISTER_REQ, U32Body(4), kPid);
    std::string err = ServeCaptured();
    auto rsp = sync.RecvMsg(0);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(0u, rsp->pid);
    EXPECT_EQ(LAPI_REGISTER_RSP, rsp->msgId);
    EXPECT_EQ(4, rsp->msgLen);
    Client *pClient = OnlyClient();
    ASSERT_NE(nullptr, pClient);
    EXPECT_EQ(pClient->globalId, *rsp->BodyField<uint32_t>(0));
    /* The answer of a registered connection is traced. */
    EXPECT_NE(std::string::npos,
              err.find("LAPI SRV : S->C registerRsp pid: 0, msgId: 101, msgLen: 4, globalId: "));
    /* Still waiting for its asynchronous connection. */
    EXPECT_EQ(&LAPI_SRV_SockReadProcAfterConnect, pClient->pSyncFdops->readProc);
    EXPECT_EQ(nullptr, pClient->pAsyncFdops);
}

TEST_F(ApMsgProcTest, RegisterReqWrongMsgLenRefused) {
    Connection peer = Accept();
    peer.SendRaw(MakeMsg(LAPI_REGISTER_REQ, Bytes(5, 0), kPid));
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockMsgProcAfterConnect", "Invalid register msgLen: 5!"))
        << err;
    EXPECT_TRUE(peer.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, RegisterReqArrivingByteByByteAccepted) {
    Connection peer = Accept();
    Bytes msg = MakeMsg(LAPI_REGISTER_REQ, U32Body(4), kPid);
    for (size_t i = 0; i + 1 < msg.size(); i++) {
        peer.SendRaw(&msg[i], 1);
        Serve();
        EXPECT_EQ(0u, LAPI_SRV_allClientList.count) << "after byte " << i;
    }
    peer.SendRaw(&msg.back(), 1);
    Serve();
    EXPECT_EQ(1u, LAPI_SRV_allClientList.count);
    EXPECT_TRUE(peer.RecvMsg(0).has_value());
}

TEST_F(ApMsgProcTest, RegisterPlusAnotherMessageInOneWriteClosed) {
    Connection peer = Accept();
    Bytes both = MakeMsg(LAPI_REGISTER_REQ, U32Body(4), kPid);
    Bytes more = MakeMsg(LAPI_GET_STATUS_REQ, GetLocationBody(4), kPid);
    both.insert(both.end(), more.begin(), more.end());
    peer.SendRaw(both);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockMsgProcAfterConnect",
                         "Receive register message with more bytes than expected!"))
        << err;
    EXPECT_TRUE(peer.IsClosedByPeer(1000));
    EXPECT_FALSE(peer.RecvMsg(0).has_value()); /* no registerRsp */
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, FirstMessageThatIsNotHandshakeRefused) {
    Connection peer = Accept();
    peer.SendMsg(LAPI_GET_STATUS_REQ, GetLocationBody(4), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockMsgProcAfterConnect", "Not expected msgId: 112!"))
        << err;
    EXPECT_TRUE(peer.IsClosedByPeer(1000));
}

TEST_F(ApMsgProcTest, ShortHeaderWaits) {
    Connection peer = Accept();
    Bytes msg = MakeMsg(LAPI_GET_STATUS_REQ, {}, kPid);
    peer.SendRaw(msg.data(), 7);
    std::string err = ServeCaptured();
    EXPECT_FALSE(peer.IsClosedByPeer(0));
    EXPECT_EQ(std::string::npos, err.find("LAPI Error SRV")) << err;
}

TEST_F(ApMsgProcTest, SecondRegisterOnSameConnectionRemovesClient) {
    Connection sync;
    Register(&sync, 4);
    sync.SendMsg(LAPI_REGISTER_REQ, U32Body(4), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcRegisterMsg",
                         "pFdops->pFdInfo != NULL, pid is : " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, SecondMtlrClientRefusedWhileFirstRegistered) {
    Connection first;
    Register(&first, 2);
    Connection second = Accept();
    second.SendMsg(LAPI_REGISTER_REQ, U32Body(6), kPid + 1);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcRegisterMsg",
                         "Can not register more than one client to process MT_LR!"))
        << err;
    EXPECT_TRUE(second.IsClosedByPeer(1000));
    EXPECT_EQ(1u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_statusClientList.count);

    /* Once the first one is gone the place is free again. */
    first.Close();
    Serve();
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    Connection third;
    Register(&third, 2);
    EXPECT_EQ(1u, LAPI_SRV_mtlrClientList.count);
}

/* ------------------------------------------------------------------------ */
/* getAsyncFdReq                                                             */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcTest, HandshakeSwitchesProceduresAndTakesPidOfAsyncRequest) {
    Connection sync;
    Fdops *pSyncFdops = nullptr;
    uint32_t globalId = Register(&sync, 4, &pSyncFdops);
    Fdops *pAsyncFdops = nullptr;
    Connection async = Accept(&pAsyncFdops);
    async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid + 7);
    Serve();
    auto rsp = async.RecvMsg(0);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(0u, rsp->pid);
    EXPECT_EQ(LAPI_GET_ASYNC_FD_RSP, rsp->msgId);
    EXPECT_EQ(0, rsp->msgLen);
    EXPECT_FALSE(sync.RecvMsg(0).has_value());

    Client *pClient = OnlyClient();
    ASSERT_NE(nullptr, pClient);
    EXPECT_EQ(pSyncFdops, pClient->pSyncFdops);
    EXPECT_EQ(pAsyncFdops, pClient->pAsyncFdops);
    EXPECT_EQ(pClient, pAsyncFdops->pFdInfo);
    EXPECT_EQ(kPid + 7, pClient->pid);
    EXPECT_EQ(&LAPI_SRV_SockReadProcAfterRegister, pSyncFdops->readProc);
    EXPECT_EQ(&LAPI_SRV_ProcClientCrash, pSyncFdops->closeProc);
    EXPECT_EQ(&LAPI_SRV_SockReadProcNull, pAsyncFdops->readProc);
}

TEST_F(ApMsgProcTest, ServerMessagesCarryPidZero) {
    Connection sync = Accept();
    sync.SendMsg(LAPI_REGISTER_REQ, U32Body(4), kPid);
    Serve();
    auto reg = sync.RecvMsg(0);
    ASSERT_TRUE(reg.has_value());
    Connection async = Accept();
    async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(*reg->BodyField<uint32_t>(0)), kPid);
    Serve();
    auto att = async.RecvMsg(0);
    ASSERT_TRUE(att.has_value());
    sync.SendMsg(LAPI_UNREGISTER_REQ, {}, kPid);
    Serve();
    auto unreg = sync.RecvMsg(0);
    ASSERT_TRUE(unreg.has_value());
    EXPECT_EQ(LAPI_UNREGISTER_RSP, unreg->msgId);
    for (const auto &m : {*reg, *att, *unreg}) {
        EXPECT_EQ(0u, m.pid) << "msgId " << m.msgId;
    }
}

TEST_F(ApMsgProcTest, GetAsyncFdUnknownGlobalIdClosesConnectionClientStays) {
    Connection sync;
    uint32_t globalId = Register(&sync, 4);
    Connection wrong = Accept();
    wrong.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId + 1), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_ProcGetAsyncFdMsg",
                 "Fail to find Client globalId: " + std::to_string(static_cast<int>(globalId + 1)) +
                     ", pid is : " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_TRUE(wrong.IsClosedByPeer(1000));
    EXPECT_FALSE(sync.IsClosedByPeer(0));
    ASSERT_NE(nullptr, OnlyClient());

    /* The client may try again on a new connection. */
    Connection async = Accept();
    async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    Serve();
    auto rsp = async.RecvMsg(0);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(LAPI_GET_ASYNC_FD_RSP, rsp->msgId);
}

TEST_F(ApMsgProcTest, GetAsyncFdReqWrongMsgLenRefused) {
    Connection peer = Accept();
    peer.SendRaw(MakeMsg(LAPI_GET_ASYNC_FD_REQ, Bytes(3, 0), kPid));
    std::string err = ServeCaptured();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockMsgProcAfterConnect", "Invalid get async fd msgLen: 3!"))
        << err;
    EXPECT_TRUE(peer.IsClosedByPeer(1000));
}

TEST_F(ApMsgProcTest, GetAsyncFdPlusMoreBytesRefused) {
    Connection sync;
    uint32_t globalId = Register(&sync, 4);
    Connection async = Accept();
    Bytes msg = MakeMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    msg.push_back(0);
    async.SendRaw(msg);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockMsgProcAfterConnect",
                         "Receive get async fd message with more bytes than expected!"))
        << err;
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    Client *pClient = OnlyClient();
    ASSERT_NE(nullptr, pClient);
    EXPECT_EQ(nullptr, pClient->pAsyncFdops);
}

TEST_F(ApMsgProcTest, GetAsyncFdOnTheRegisteredConnectionRemovesClient) {
    Connection sync;
    uint32_t globalId = Register(&sync, 4);
    sync.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcGetAsyncFdMsg",
                         "pFdops->pFdInfo != NULL, pid is : " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, SecondAsyncConnectionForSameClientRefused) {
    Connection sync, async;
    Handshake(&sync, &async);
    uint32_t globalId = OnlyClient()->globalId;
    Connection extra = Accept();
    extra.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(
        err, "LAPI_SRV_ProcGetAsyncFdMsg",
        "pClient->pAsyncFdops != NULL, globalId: " + std::to_string(static_cast<int>(globalId)) +
            ", pid is : " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_TRUE(extra.IsClosedByPeer(1000));
    EXPECT_FALSE(sync.IsClosedByPeer(0));
    EXPECT_FALSE(async.IsClosedByPeer(0));
    EXPECT_NE(nullptr, OnlyClient());
}

TEST_F(ApMsgProcTest, HandshakeConnectsMuxWhileNeverConnected) {
    LAPI_SRV_muxConnected = 0;
    std::string path = MakeMuxFifo();
    LAPI_SRV_muxDevice = path.c_str();
    Connection sync;
    uint32_t globalId = Register(&sync, 4);
    Connection async = Accept();
    async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasTrace(err, "LAPI_SRV_ProcGetAsyncFdMsg", "Trying to connect mux channel..."))
        << err;
    EXPECT_NE(nullptr, LAPI_SRV_pMuxFdops);
    EXPECT_EQ(1, LAPI_SRV_IsMuxConnected());
    auto rsp = async.RecvMsg(0);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(LAPI_GET_ASYNC_FD_RSP, rsp->msgId);
}

TEST_F(ApMsgProcTest, HandshakeMuxFailureEndsClient) {
    LAPI_SRV_muxConnected = 0;
    LAPI_SRV_muxDevice = "/nonexistent-lapi-test/mux18";
    Connection sync;
    uint32_t globalId = Register(&sync, 4);
    Connection async = Accept();
    async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasTrace(err, "LAPI_SRV_ProcGetAsyncFdMsg", "Trying to connect mux channel..."));
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcGetAsyncFdMsg", "Fail to connect mux channel!")) << err;
    /* The attached asynchronous connection is closed, and with it the client. */
    EXPECT_FALSE(async.RecvMsg(0).has_value());
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, HandshakeDoesNotRetryMuxOnceConnected) {
    LAPI_SRV_muxConnected = 1;
    LAPI_SRV_pMuxFdops = nullptr; /* opened once, lost since */
    LAPI_SRV_muxDevice = "/nonexistent-lapi-test/mux18";
    Connection sync;
    uint32_t globalId = Register(&sync, 4);
    Connection async = Accept();
    async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid);
    std::string err = ServeCaptured();
    EXPECT_EQ(std::string::npos, err.find("Trying to connect mux channel...")) << err;
    EXPECT_TRUE(async.RecvMsg(0).has_value());
    EXPECT_NE(nullptr, OnlyClient());
}

/* ------------------------------------------------------------------------ */
/* unregisterReq                                                             */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcTest, UnregisterAnsweredThenClientGone) {
    Connection sync, async;
    Handshake(&sync, &async);
    sync.SendMsg(LAPI_UNREGISTER_REQ, {}, kPid);
    std::string err = ServeCaptured();
    auto rsp = sync.RecvMsg(0);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(0u, rsp->pid);
    EXPECT_EQ(LAPI_UNREGISTER_RSP, rsp->msgId);
    EXPECT_EQ(0, rsp->msgLen);
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_statusClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
    EXPECT_EQ(std::string::npos, err.find("LAPI Error SRV")) << err;
}

TEST_F(ApMsgProcTest, UnregisterFollowedByMoreRequestsInSameWriteIgnored) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    Bytes all = MakeMsg(LAPI_UNREGISTER_REQ, {}, kPid);
    for (int i = 0; i < 3; i++) {
        Bytes more = MakeMsg(LAPI_GET_STATUS_REQ, GetLocationBody(4), kPid);
        all.insert(all.end(), more.begin(), more.end());
    }
    sync.SendRaw(all);
    std::string err = ServeCaptured();
    auto rsp = sync.RecvMsg(0);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(LAPI_UNREGISTER_RSP, rsp->msgId);
    EXPECT_FALSE(sync.RecvMsg(0).has_value());
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_TRUE(gCalls.empty());
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(std::string::npos, err.find("LAPI Error SRV")) << err;
}

TEST_F(ApMsgProcTest, UnregisterWithBodyRefusedAndClientRemoved) {
    Connection sync, async;
    Handshake(&sync, &async);
    sync.SendMsg(LAPI_UNREGISTER_REQ, U32Body(0), kPid);
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcUnregisterMsg",
                         "Wrong unregister msg length: 4, pid is: " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_FALSE(sync.RecvMsg(0).has_value());
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, UnregisterResponseIncompleteRemovesClient) {
    Connection sync, async;
    Handshake(&sync, &async);
    /* Something is still pending for the client: the answer queues behind it. */
    Fdops *pSync = OnlyClient()->pSyncFdops;
    pSync->wbuf.idx = 3;
    std::memset(pSync->wbuf.buf, 0, 3);
    LAPI_SRV_AddFdopsWriteList(pSync);
    sync.SendMsg(LAPI_UNREGISTER_REQ, {}, kPid);
    StderrCapture cap;
    LAPI_SRV_SockReadProcAfterRegister(pSync);
    std::string err = cap.Stop();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_ProcUnregisterMsg",
                 "Send incomplete unregister response to pid : " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_TRUE(
        HasTrace(err, "LAPI_SRV_ProcClientCrash", "enter LAPI_SRV_ProcClientCrash function"));
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, ProcUnregisterMsgRefusesAnotherMsgId) {
    Connection sync, async;
    Handshake(&sync, &async);
    Bytes msg = MakeMsg(LAPI_GET_STATUS_REQ, {}, kPid);
    StderrCapture cap;
    /* Reached through its row, as the dispatcher reaches it. */
    EXPECT_EQ(-1,
              LAPI_SRV_RunApMsgRow(&LAPI_SRV_unregisterRow, msg.data(), OnlyClient()->pSyncFdops));
    std::string err = cap.Stop();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_ProcUnregisterMsg",
                 "pMsgHeader->msgId : 112 is not expected, pid : " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_NE(nullptr, OnlyClient());
}

/* ------------------------------------------------------------------------ */
/* Dispatch after the handshake                                              */
/* ------------------------------------------------------------------------ */

void ExpectClientRemovedFor(const std::string &err, Connection &sync, Connection &async) {
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockMsgProcAfterRegister",
                         "Fail to process ap message for pFdops!"))
        << err;
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockReadProcAfterRegister", "Fail to process message for pFdops!"));
    EXPECT_TRUE(
        HasTrace(err, "LAPI_SRV_ProcClientCrash", "enter LAPI_SRV_ProcClientCrash function"));
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

/* After the handshake the client sends this message: it is refused (with
 * this error line of the dispatcher, when one is given) and the client is
 * removed. */
void ApMsgProcTest::ExpectRemovedAfterHandshake(uint16_t msgId, const Bytes &body,
                                                const std::string &error) {
    Connection sync, async;
    Handshake(&sync, &async);
    sync.SendMsg(msgId, body, kPid);
    std::string err = ServeCaptured();
    if (!error.empty()) {
        EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcessApMsg", error)) << err;
    }
    ExpectClientRemovedFor(err, sync, async);
}

TEST_F(ApMsgProcTest, MsgId100AfterHandshakeHasNoProcedureAndClientRemoved) {
    ExpectRemovedAfterHandshake(
        LAPI_REGISTER_REQ, U32Body(4),
        "No procedure for msgId: 100, pid is: " + std::to_string(kPid) + "!");
}

TEST_F(ApMsgProcTest, MsgId105AfterHandshakeHasNoProcedureAndClientRemoved) {
    ExpectRemovedAfterHandshake(
        LAPI_UNREGISTER_RSP, {},
        "No procedure for msgId: 105, pid is: " + std::to_string(kPid) + "!");
}

TEST_F(ApMsgProcTest, MsgId117AfterHandshakeUnknownAndClientRemoved) {
    ExpectRemovedAfterHandshake(117, {},
                                "Unknown msgId: 117, pid is: " + std::to_string(kPid) + "!");
}

TEST_F(ApMsgProcTest, ServerMsgIdFromClientUnknownAndClientRemoved) {
    ExpectRemovedAfterHandshake(LAPI_TIME_OUT_RSP, {1, 2},
                                "Unknown msgId: 2, pid is: " + std::to_string(kPid) + "!");
}

TEST_F(ApMsgProcTest, GetLocationReqMsgLen32RefusedAndClientRemoved) {
    ExpectRemovedAfterHandshake(LAPI_GET_LOCATION_REQ, GetLocationBody(32));
}

TEST_F(ApMsgProcTest, GetLocationReqMsgLen34RefusedAndClientRemoved) {
    ExpectRemovedAfterHandshake(LAPI_GET_LOCATION_REQ, GetLocationBody(34));
}

TEST_F(ApMsgProcTest, OversizedMsgLenClosesBeforeWholeMessageArrives) {
    Connection sync, async;
    Handshake(&sync, &async);
    /* Only the header of a message of 1025 bytes: never waited for. */
    sync.SendRaw(MakeMsg(LAPI_GET_LOCATION_REQ, {}, kPid, 1017));
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(
        err, "LAPI_SRV_SockMsgProcAfterRegister",
        "msgLen: 1025 > pFdBuf->len: 1024, msgId: 106, pid is: " + std::to_string(kPid) + "!"))
        << err;
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockReadProcAfterRegister", "Fail to process message for pFdops!"));
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, MessageFillingWholeReadBufferIsAwaited) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_SET_GPS_DB_DATA_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    Bytes msg = MakeMsg(LAPI_SET_GPS_DB_DATA_REQ, Bytes(1016, 0x5a), kPid);
    ASSERT_EQ(1024u, msg.size());
    sync.SendRaw(msg.data(), 500);
    std::string err = ServeCaptured();
    EXPECT_FALSE(sync.IsClosedByPeer(0));
    EXPECT_TRUE(gCalls.empty());
    EXPECT_EQ(500, OnlyClient()->pSyncFdops->rbuf.idx);
    sync.SendRaw(msg.data() + 500, msg.size() - 500);
    Serve();
    ASSERT_EQ(1u, gCalls.size());
    EXPECT_EQ(msg, gCalls[0]);
    EXPECT_EQ(0, OnlyClient()->pSyncFdops->rbuf.idx);
}

TEST_F(ApMsgProcTest, SeveralRequestsInOneWriteDispatchedInOrder) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    LAPI_SRV_apMsgProcTable[LAPI_ABORT_ALL_LOCATION_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    Bytes a = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 7, 8}, kPid);
    Bytes b = MakeMsg(LAPI_ABORT_ALL_LOCATION_REQ, {}, kPid);
    Bytes c = MakeMsg(LAPI_GET_STATUS_REQ, {2, 0, 9, 9}, kPid);
    Bytes all = a;
    all.insert(all.end(), b.begin(), b.end());
    all.insert(all.end(), c.begin(), c.end());
    sync.SendRaw(all);
    Serve();
    ASSERT_EQ(3u, gCalls.size());
    EXPECT_EQ(a, gCalls[0]);
    EXPECT_EQ(b, gCalls[1]);
    EXPECT_EQ(c, gCalls[2]);
    EXPECT_EQ(0, OnlyClient()->pSyncFdops->rbuf.idx);
}

TEST_F(ApMsgProcTest, PartialRequestKeptAtBufferStart) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    Bytes a = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid);
    Bytes b = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 2, 2}, kPid);
    Bytes first = a;
    first.insert(first.end(), b.begin(), b.begin() + 5);
    sync.SendRaw(first);
    Serve();
    ASSERT_EQ(1u, gCalls.size());
    Fdops *pSync = OnlyClient()->pSyncFdops;
    ASSERT_EQ(5, pSync->rbuf.idx);
    EXPECT_EQ(0, std::memcmp(pSync->rbuf.buf, b.data(), 5));
    sync.SendRaw(b.data() + 5, b.size() - 5);
    Serve();
    ASSERT_EQ(2u, gCalls.size());
    EXPECT_EQ(b, gCalls[1]);
}

TEST_F(ApMsgProcTest, RequestSplitByteByByteDispatchedOnce) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    Bytes a = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 3, 4}, kPid);
    for (uint8_t byte : a) {
        sync.SendRaw(&byte, 1);
        Serve();
    }
    ASSERT_EQ(1u, gCalls.size());
    EXPECT_EQ(a, gCalls[0]);
}

TEST_F(ApMsgProcTest, HandlerSeesMessageAtUnalignedPosition) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    LAPI_SRV_apMsgProcTable[LAPI_LOCATION_NOTIFICATION_CFM - LAPI_CLI_MSG_BASE] = RecordingHandler;
    /* 14 bytes first, so the second message starts at an odd offset. */
    Bytes a = MakeMsg(LAPI_LOCATION_NOTIFICATION_CFM, {1, 2, 3, 0, 0, 0}, kPid);
    Bytes b = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 5, 6}, kPid + 1);
    Bytes all = a;
    all.insert(all.end(), b.begin(), b.end());
    all.insert(all.end(), b.begin(), b.end());
    sync.SendRaw(all.data() + 0, 15); /* a and one byte of b */
    Serve();
    sync.SendRaw(all.data() + 15, all.size() - 15);
    Serve();
    ASSERT_EQ(3u, gCalls.size());
    EXPECT_EQ(b, gCalls[1]);
    EXPECT_EQ(b, gCalls[2]);
    EXPECT_EQ(kPid + 1, OnlyClient()->pid);
}

TEST_F(ApMsgProcTest, ProcessApMsgRefreshesClientPid) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    sync.SendMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, 999);
    Serve();
    EXPECT_EQ(999u, OnlyClient()->pid);
}

TEST_F(ApMsgProcTest, HandlerFailureLogsBothLinesAndRemovesClient) {
    Connection sync, async;
    Handshake(&sync, &async);
    LAPI_SRV_apMsgProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = RecordingHandler;
    gHandlerResult = -1;
    sync.SendMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid);
    std::string err = ServeCaptured();
    EXPECT_EQ(1u, gCalls.size());
    ExpectClientRemovedFor(err, sync, async);
}

TEST_F(ApMsgProcTest, ProcessApMsgWithoutClientRefused) {
    Fdops *pFdops = nullptr;
    Connection peer = Accept(&pFdops);
    Bytes msg = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid);
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_ProcessApMsg(msg.data(), pFdops));
    std::string err = cap.Stop();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcessApMsg",
                         "pFdops->pFdInfo == NULL, pid is : " + std::to_string(kPid) + "!"))
        << err;
}

TEST_F(ApMsgProcTest, ProcessApMsgOnAsyncConnectionRefused) {
    Connection sync, async;
    Handshake(&sync, &async);
    Bytes msg = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid);
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_ProcessApMsg(msg.data(), OnlyClient()->pAsyncFdops));
    std::string err = cap.Stop();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_ProcessApMsg",
                         "pClient->pSyncFdops != pFdops, pid is : " + std::to_string(kPid) + "!"))
        << err;
}

/* ------------------------------------------------------------------------ */
/* The asynchronous connection and vanishing clients                         */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcTest, AsyncDataDiscardedClientStays) {
    Connection sync, async;
    Handshake(&sync, &async, 4, 321);
    async.SendMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, 321);
    std::string err = ServeCaptured();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockReadProcNull", "Invalid write to async fd, pid is: 321!"))
        << err;
    Client *pClient = OnlyClient();
    ASSERT_NE(nullptr, pClient);
    EXPECT_EQ(0, pClient->pAsyncFdops->rbuf.idx);
    EXPECT_FALSE(sync.IsClosedByPeer(0));
    EXPECT_FALSE(async.IsClosedByPeer(0));
    EXPECT_FALSE(async.RecvMsg(0).has_value());
}

TEST_F(ApMsgProcTest, AsyncDataBeyondBufferSizeAllDiscarded) {
    Connection sync, async;
    Handshake(&sync, &async);
    Bytes junk(5000, 0x33);
    async.SendRaw(junk);
    Serve();
    Client *pClient = OnlyClient();
    ASSERT_NE(nullptr, pClient);
    EXPECT_EQ(0, pClient->pAsyncFdops->rbuf.idx);
    EXPECT_FALSE(async.IsClosedByPeer(0));
}

TEST_F(ApMsgProcTest, ReadProcNullWithoutClientReportsNullClient) {
    Fdops *pFdops = nullptr;
    Connection peer = Accept(&pFdops);
    pFdops->readProc = LAPI_SRV_SockReadProcNull;
    peer.SendRaw(Bytes{1, 2, 3});
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockReadProcNull", "pClient == NULL!")) << err;
    EXPECT_EQ(0, pFdops->rbuf.idx);
}

TEST_F(ApMsgProcTest, AsyncConnectionClosedByPeerEndsClient) {
    Connection sync, async;
    Handshake(&sync, &async);
    async.Close();
    std::string err = ServeCaptured();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockReadProcNull", "Fail to general read for pFdops!"))
        << err;
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, SyncConnectionClosedAfterHandshakeEndsClient) {
    Connection sync, async;
    Handshake(&sync, &async);
    sync.Close();
    std::string err = ServeCaptured();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockReadProcAfterRegister", "Fail to general read for pFdops!"))
        << err;
    EXPECT_TRUE(
        HasTrace(err, "LAPI_SRV_ProcClientCrash", "enter LAPI_SRV_ProcClientCrash function"));
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, ConnectionClosedBeforeRegisterFreed) {
    Connection peer = Accept();
    peer.Close();
    std::string err = ServeCaptured();
    EXPECT_TRUE(
        HasError(err, "LAPI_SRV_SockReadProcAfterConnect", "Fail to general read for pFdops!"))
        << err;
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, RegisteredClientClosedBeforeAsyncRemoved) {
    Connection sync;
    Register(&sync, 6);
    sync.Close();
    Serve();
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_statusClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_mtlrClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, ClosedMidMessageAfterHandshakeEndsClient) {
    Connection sync, async;
    Handshake(&sync, &async);
    Bytes a = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid);
    sync.SendRaw(a.data(), 6);
    sync.Close();
    Serve();
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
}

TEST_F(ApMsgProcTest, ReadProcsRefuseInvalidFdops) {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    Fdops *pNoRbuf = CreateFdops(sv[0], 0, 1024);
    StderrCapture cap;
    LAPI_SRV_SockReadProcAfterConnect(nullptr);
    LAPI_SRV_SockReadProcAfterRegister(nullptr);
    LAPI_SRV_SockReadProcNull(nullptr);
    LAPI_SRV_SockReadProcAfterConnect(pNoRbuf);
    LAPI_SRV_SockReadProcAfterRegister(pNoRbuf);
    LAPI_SRV_SockReadProcNull(pNoRbuf);
    std::string err = cap.Stop();
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockReadProcAfterConnect", "Invalid pFdops!"));
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockReadProcAfterRegister", "Invalid pFdops!"));
    EXPECT_TRUE(HasError(err, "LAPI_SRV_SockReadProcNull", "Invalid pFdops!"));
    size_t count = 0;
    for (size_t pos = err.find("Invalid pFdops!"); pos != std::string::npos;
         pos = err.find("Invalid pFdops!", pos + 1)) {
        count++;
    }
    EXPECT_EQ(6u, count);
    DestroyFdops(pNoRbuf);
    close(sv[1]);
}

TEST_F(ApMsgProcTest, ClientCrashWithoutClientEndsConnection) {
    Fdops *pFdops = nullptr;
    Connection peer = Accept(&pFdops);
    StderrCapture cap;
    LAPI_SRV_ProcClientCrash(pFdops);
    LAPI_SRV_ProcClientCrash(nullptr);
    std::string err = cap.Stop();
    EXPECT_TRUE(
        HasTrace(err, "LAPI_SRV_ProcClientCrash", "enter LAPI_SRV_ProcClientCrash function"));
    EXPECT_TRUE(peer.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_readFdopsList.count);
}

TEST_F(ApMsgProcTest, ClientCrashRemovesClientAndBothConnections) {
    Connection sync, async;
    Handshake(&sync, &async, 6);
    StderrCapture cap;
    LAPI_SRV_ProcClientCrash(OnlyClient()->pSyncFdops);
    std::string err = cap.Stop();
    EXPECT_NE(std::string::npos, err.find("remove client, pid = "));
    EXPECT_TRUE(sync.IsClosedByPeer(1000));
    EXPECT_TRUE(async.IsClosedByPeer(1000));
    EXPECT_EQ(0u, LAPI_SRV_allClientList.count);
    EXPECT_EQ(0u, LAPI_SRV_mtlrClientList.count);
}

}  // namespace
