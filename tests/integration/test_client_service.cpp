/*
 * The client service through the host server: real sockets on
 * ROOT/tmp/lapisock, the BP channel on a pseudo-terminal. Covers the
 * two-connection handshake, the identifiers handed out, every refusal of a
 * first message, refused requests, the asynchronous connection, unregister,
 * the single MT-LR client, and clients that vanish at any point.
 */
#include <gtest/gtest.h>

#include <dirent.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "LAPI_Msg.h"
#include "ServerFixture.h"
#include "TestClient.h"
#include "ToolCommon.h"

namespace {

using lapitest::Bytes;
using lapitest::Connection;
using lapitest::MakeMsg;
using lapitest::TestClient;
using lapitest::U32Body;

constexpr int kWaitMs = 5000;
constexpr uint32_t kPid = 5150;

std::string Num(long v) {
    return std::to_string(v);
}

/* Open descriptors of a process (its /proc/PID/fd entries). */
constexpr auto &OpenFdCount = toolcommon::CountOpenFds;

class ClientServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(root_.ok());
        ASSERT_TRUE(mux_.ok());
        ASSERT_TRUE(srv_.StartAndWaitReady());
    }

    void TearDown() override {
        int code = srv_.Stop();
        EXPECT_EQ(0, code);
        for (const auto &line : srv_.StderrLines()) {
            EXPECT_EQ(std::string::npos, line.find("LeakSanitizer")) << line;
            EXPECT_EQ(std::string::npos, line.find("AddressSanitizer")) << line;
            EXPECT_EQ(std::string::npos, line.find("runtime error")) << line;
        }
    }

    std::string Dir() const { return root_.Dir(); }

    /* The descriptors of an idle server settle at this count. */
    bool WaitFdCount(int expected, int timeoutMs = kWaitMs) {
        return toolcommon::PollUntil([&]() { return OpenFdCount(srv_.Pid()) == expected; },
                                     timeoutMs, 10);
    }

    /* The descriptor count of the server once every earlier connection
     * (the readiness probe included) has been served: a whole client life
     * goes through the loop after them. */
    int SettledIdleFdCount() {
        TestClient c(Dir(), kPid);
        if (!c.Handshake(4) || !c.SendMsg(LAPI_UNREGISTER_REQ, {}) ||
            !c.Sync().RecvMsg(kWaitMs).has_value() || !c.Sync().IsClosedByPeer(kWaitMs) ||
            !c.Async().IsClosedByPeer(kWaitMs)) {
            return -1;
        }
        return OpenFdCount(srv_.Pid());
    }

    lapitest::TempRoot root_;
    lapitest::MuxPty mux_{root_};
    lapitest::ServerProcess srv_{root_};
};

/* ------------------------------------------------------------------------ */
/* Handshake                                                                 */
/* ------------------------------------------------------------------------ */

TEST_F(ClientServiceTest, TwoConnectionHandshake) {
    Connection sync;
    ASSERT_TRUE(sync.Connect(Dir()));
    ASSERT_TRUE(sync.SendMsg(LAPI_REGISTER_REQ, U32Body(4), kPid));
    auto reg = sync.RecvMsg(kWaitMs);
    ASSERT_TRUE(reg.has_value());
    EXPECT_EQ(0u, reg->pid);
    EXPECT_EQ(LAPI_REGISTER_RSP, reg->msgId);
    EXPECT_EQ(LAPI_REGISTER_RSP_LEN, reg->msgLen);
    uint32_t globalId = *reg->BodyField<uint32_t>(0);

    Connection async;
    ASSERT_TRUE(async.Connect(Dir()));
    ASSERT_TRUE(async.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), kPid));
    auto att = async.RecvMsg(kWaitMs);
    ASSERT_TRUE(att.has_value());
    EXPECT_EQ(0u, att->pid);
    EXPECT_EQ(LAPI_GET_ASYNC_FD_RSP, att->msgId);
    EXPECT_EQ(0, att->msgLen);

    /* Both answers are traced as the server wrote them. */
    char hex[16];
    snprintf(hex, sizeof(hex), "%02x%02x%02x%02x", globalId & 0xff, (globalId >> 8) & 0xff,
             (globalId >> 16) & 0xff, globalId >> 24);
    EXPECT_TRUE(srv_.WaitForTrace("S->C registerRsp pid: 0, msgId: 101, msgLen: 4, globalId: " +
                                  Num(static_cast<int>(globalId)) + ", 0x" + hex + ", "));
    EXPECT_TRUE(srv_.WaitForTrace("S->C getAsyncFdRsp pid: 0, msgId: 103, msgLen: 0, "));

    /* The client is registered for good: unregister is answered. */
    ASSERT_TRUE(sync.SendMsg(LAPI_UNREGISTER_REQ, {}, kPid));
    auto unreg = sync.RecvMsg(kWaitMs);
    ASSERT_TRUE(unreg.has_value());
    EXPECT_EQ(LAPI_UNREGISTER_RSP, unreg->msgId);
}

TEST_F(ClientServiceTest, ServerMessagesCarryPidZero) {
    TestClient c(Dir(), kPid);
    auto id = c.Register(4);
    ASSERT_TRUE(id.has_value());
    ASSERT_TRUE(c.AttachAsync(*id));
    ASSERT_TRUE(c.SendMsg(LAPI_UNREGISTER_REQ, {}));
    auto unreg = c.Sync().RecvMsg(kWaitMs);
    ASSERT_TRUE(unreg.has_value());
    EXPECT_EQ(0u, unreg->pid);
    /* registerRsp and getAsyncFdRsp: the trace shows what went out. */
    EXPECT_TRUE(srv_.WaitForTraceContaining("S->C registerRsp pid: 0, "));
    EXPECT_TRUE(srv_.WaitForTraceContaining("S->C getAsyncFdRsp pid: 0, "));
    EXPECT_TRUE(srv_.WaitForTraceContaining("S->C unregisterRsp pid: 0, "));
}

TEST_F(ClientServiceTest, GlobalIdsFollowUnseededRandSequence) {
    /* An unseeded generator behaves as if seeded with 1. */
    srand(1);
    std::set<uint32_t> live;
    std::vector<TestClient> clients;
    clients.reserve(5);
    for (int i = 0; i < 5; i++) {
        uint32_t expected;
        do {
            expected = static_cast<uint32_t>(rand());
        } while (live.count(expected) != 0); /* the server draws again on a collision */
        clients.emplace_back(Dir(), kPid + i);
        auto id = clients.back().Register(4);
        ASSERT_TRUE(id.has_value()) << "client " << i;
        EXPECT_EQ(expected, *id) << "client " << i;
        live.insert(*id);
    }
    /* A client that leaves does not give its draw back. */
    ASSERT_TRUE(clients[0].SendMsg(LAPI_UNREGISTER_REQ, {}));
    ASSERT_TRUE(clients[0].Sync().IsClosedByPeer(kWaitMs));
    live.erase(*clients[0].GlobalId());
    uint32_t expected;
    do {
        expected = static_cast<uint32_t>(rand());
    } while (live.count(expected) != 0);
    TestClient next(Dir(), kPid + 9);
    auto id = next.Register(4);
    ASSERT_TRUE(id.has_value());
    EXPECT_EQ(expected, *id);
}

TEST_F(ClientServiceTest, SecondMtlrClientRefused) {
    TestClient first(Dir(), kPid);
    ASSERT_TRUE(first.Handshake(2));
    Connection second;
    ASSERT_TRUE(second.Connect(Dir()));
    ASSERT_TRUE(second.SendMsg(LAPI_REGISTER_REQ, U32Body(6), kPid + 1));
    EXPECT_TRUE(second.IsClosedByPeer(kWaitMs));
    EXPECT_FALSE(second.RecvMsg(0).has_value());
    EXPECT_TRUE(srv_.WaitForError("Can not register more than one client to process MT_LR!"));

    /* A status-only client is still welcome, and the first one stays. */
    TestClient third(Dir(), kPid + 2);
    EXPECT_TRUE(third.Handshake(4));
    EXPECT_FALSE(first.Sync().IsClosedByPeer(0));

    /* Once the MT-LR client leaves, another may take its place. */
    ASSERT_TRUE(first.SendMsg(LAPI_UNREGISTER_REQ, {}));
    ASSERT_TRUE(first.Sync().RecvMsg(kWaitMs).has_value());
    TestClient fourth(Dir(), kPid + 3);
    EXPECT_TRUE(fourth.Handshake(2));
}

/* ------------------------------------------------------------------------ */
/* Refused first messages                                                    */
/* ------------------------------------------------------------------------ */

struct FirstMessageCase {
    const char *name;
    Bytes bytes;
    std::string error;
};

class RefusedFirstMessageTest : public ClientServiceTest,
                                public ::testing::WithParamInterface<int> {};

std::vector<FirstMessageCase> FirstMessageCases() {
    Bytes regPlus = MakeMsg(LAPI_REGISTER_REQ, U32Body(4), kPid);
    Bytes extra = MakeMsg(LAPI_UNREGISTER_REQ, {}, kPid);
    regPlus.insert(regPlus.end(), extra.begin(), extra.end());
    Bytes asyncPlus = MakeMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(1), kPid);
    asyncPlus.push_back(0);
    return {
        {"ServiceEight", MakeMsg(LAPI_REGISTER_REQ, U32Body(8), kPid),
         "Invalid register service: 0!"},
        {"RegisterMsgLen5", MakeMsg(LAPI_REGISTER_REQ, Bytes(5, 1), kPid),
         "Invalid register msgLen: 5!"},
        {"RegisterMsgLen0", MakeMsg(LAPI_REGISTER_REQ, {}, kPid), "Invalid register msgLen: 0!"},
        {"RegisterPlusMore", regPlus, "Receive register message with more bytes than expected!"},
        {"AsyncMsgLen3", MakeMsg(LAPI_GET_ASYNC_FD_REQ, Bytes(3, 1), kPid),
         "Invalid get async fd msgLen: 3!"},
        {"AsyncPlusMore", asyncPlus, "Receive get async fd message with more bytes than expected!"},
        {"AsyncUnknownGlobalId", MakeMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(7), kPid),
         "Fail to find Client globalId: 7, pid is : " + Num(kPid) + "!"},
        {"GetLocationFirst", MakeMsg(LAPI_GET_LOCATION_REQ, Bytes(33, 0), kPid),
         "Not expected msgId: 106!"},
        {"UnregisterFirst", MakeMsg(LAPI_UNREGISTER_REQ, {}, kPid), "Not expected msgId: 104!"},
        {"ServerMsgIdFirst", MakeMsg(LAPI_REGISTER_RSP, U32Body(1), kPid),
         "Not expected msgId: 101!"},
    };
}

TEST_P(RefusedFirstMessageTest, ClosesWithItsDiagnostic) {
    FirstMessageCase c = FirstMessageCases()[static_cast<size_t>(GetParam())];
    Connection conn;
    ASSERT_TRUE(conn.Connect(Dir()));
    ASSERT_TRUE(conn.SendRaw(c.bytes));
    EXPECT_TRUE(conn.IsClosedByPeer(kWaitMs)) << c.name;
    EXPECT_FALSE(conn.RecvMsg(0).has_value()) << c.name << ": answered";
    EXPECT_TRUE(srv_.WaitForError(c.error)) << c.name;
    EXPECT_TRUE(srv_.WaitForError("Fail to process message for pFdops!")) << c.name;

    /* The server goes on serving. */
    TestClient after(Dir(), kPid);
    EXPECT_TRUE(after.Handshake(4)) << c.name;
}

INSTANTIATE_TEST_SUITE_P(All, RefusedFirstMessageTest,
                         ::testing::Range(0, static_cast<int>(FirstMessageCases().size())),
                         [](const ::testing::TestParamInfo<int> &info) {
                             return std::string(
                                 FirstMessageCases()[static_cast<size_t>(info.param)].name);
                         });

TEST_F(ClientServiceTest, GetAsyncFdWithUnknownGlobalIdLeavesClientToRetry) {
    TestClient c(Dir(), kPid);
    auto id = c.Register(4);
    ASSERT_TRUE(id.has_value());
    Connection wrong;
    ASSERT_TRUE(wrong.Connect(Dir()));
    ASSERT_TRUE(wrong.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(*id + 1), kPid));
    EXPECT_TRUE(wrong.IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(srv_.WaitForErrorContaining("Fail to find Client globalId: "));
    EXPECT_FALSE(c.Sync().IsClosedByPeer(0));
    EXPECT_TRUE(c.AttachAsync(*id));
}

/* ------------------------------------------------------------------------ */
/* Registered clients                                                        */
/* ------------------------------------------------------------------------ */

TEST_F(ClientServiceTest, RefusedRequestRemovesClientWithBothConnections) {
    TestClient c(Dir(), kPid);
    ASSERT_TRUE(c.Handshake(6));
    ASSERT_TRUE(c.SendMsg(LAPI_REGISTER_REQ, U32Body(4)));
    EXPECT_TRUE(c.Sync().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(c.Async().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(srv_.WaitForError("No procedure for msgId: 100, pid is: " + Num(kPid) + "!"));
    EXPECT_TRUE(srv_.WaitForTrace("enter LAPI_SRV_ProcClientCrash function"));

    /* Its globalId is gone, and so is its MT-LR place. */
    Connection late;
    ASSERT_TRUE(late.Connect(Dir()));
    ASSERT_TRUE(late.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(*c.GlobalId()), kPid));
    EXPECT_TRUE(late.IsClosedByPeer(kWaitMs));
    TestClient next(Dir(), kPid + 1);
    EXPECT_TRUE(next.Handshake(2));
}

TEST_F(ClientServiceTest, UnknownAndOversizedRequestsRemoveClient) {
    TestClient a(Dir(), kPid);
    ASSERT_TRUE(a.Handshake(4));
    ASSERT_TRUE(a.SendMsg(117, {}));
    EXPECT_TRUE(a.Sync().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(a.Async().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(srv_.WaitForError("Unknown msgId: 117, pid is: " + Num(kPid) + "!"));

    TestClient b(Dir(), kPid + 1);
    ASSERT_TRUE(b.Handshake(4));
    /* The header alone announces more than the read buffer holds. */
    ASSERT_TRUE(b.Sync().SendRaw(MakeMsg(LAPI_SET_GPS_DB_DATA_REQ, {}, kPid + 1, 2000)));
    EXPECT_TRUE(b.Sync().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(b.Async().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(srv_.WaitForError(
        "msgLen: 2008 > pFdBuf->len: 1024, msgId: 111, pid is: " + Num(kPid + 1) + "!"));
}

TEST_F(ClientServiceTest, AsyncDataDiscardedClientStays) {
    TestClient c(Dir(), kPid);
    ASSERT_TRUE(c.Handshake(4));
    ASSERT_TRUE(c.Async().SendMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid));
    EXPECT_TRUE(srv_.WaitForError("Invalid write to async fd, pid is: " + Num(kPid) + "!"));
    EXPECT_FALSE(c.Sync().IsClosedByPeer(0));
    EXPECT_FALSE(c.Async().IsClosedByPeer(0));
    /* Still a client: unregister is answered. */
    ASSERT_TRUE(c.SendMsg(LAPI_UNREGISTER_REQ, {}));
    auto rsp = c.Sync().RecvMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(LAPI_UNREGISTER_RSP, rsp->msgId);
}

TEST_F(ClientServiceTest, UnregisterAnsweredThenClientGone) {
    TestClient c(Dir(), kPid);
    ASSERT_TRUE(c.Handshake(6));
    Bytes all = MakeMsg(LAPI_UNREGISTER_REQ, {}, kPid);
    Bytes more = MakeMsg(117, {}, kPid); /* would remove the client: ignored */
    all.insert(all.end(), more.begin(), more.end());
    ASSERT_TRUE(c.Sync().SendRaw(all));
    auto rsp = c.Sync().RecvMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(0u, rsp->pid);
    EXPECT_EQ(LAPI_UNREGISTER_RSP, rsp->msgId);
    EXPECT_EQ(0, rsp->msgLen);
    EXPECT_TRUE(c.Sync().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(c.Async().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(srv_.WaitForTrace("remove client, pid = " + Num(kPid)));
    EXPECT_EQ(0u, srv_.CountErrors("Unknown msgId: 117, pid is: " + Num(kPid) + "!"));

    /* The globalId no longer names a client. */
    Connection late;
    ASSERT_TRUE(late.Connect(Dir()));
    ASSERT_TRUE(late.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(*c.GlobalId()), kPid));
    EXPECT_TRUE(late.IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(
        srv_.WaitForError("Fail to find Client globalId: " + Num(static_cast<int>(*c.GlobalId())) +
                          ", pid is : " + Num(kPid) + "!"));
}

/* ------------------------------------------------------------------------ */
/* Clients that vanish                                                       */
/* ------------------------------------------------------------------------ */

TEST_F(ClientServiceTest, NoLeakWhenClientsVanishAtAnyPointOfHandshake) {
    int idle = SettledIdleFdCount();
    ASSERT_GT(idle, 0);
    for (int round = 0; round < 3; round++) {
        /* Connected, then gone. */
        {
            Connection c;
            ASSERT_TRUE(c.Connect(Dir()));
        }
        /* Half a registerReq. */
        {
            Connection c;
            ASSERT_TRUE(c.Connect(Dir()));
            Bytes reg = MakeMsg(LAPI_REGISTER_REQ, U32Body(2), kPid);
            ASSERT_TRUE(c.SendRaw(reg.data(), 6));
        }
        /* Registered, never attached. */
        {
            TestClient c(Dir(), kPid);
            ASSERT_TRUE(c.Register(2).has_value());
        }
        /* Registered, second connection opened but silent. */
        {
            TestClient c(Dir(), kPid);
            ASSERT_TRUE(c.Register(2).has_value());
            ASSERT_TRUE(c.Async().Connect(Dir()));
        }
        /* Registered, half a getAsyncFdReq. */
        {
            TestClient c(Dir(), kPid);
            auto id = c.Register(2);
            ASSERT_TRUE(id.has_value());
            ASSERT_TRUE(c.Async().Connect(Dir()));
            Bytes att = MakeMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(*id), kPid);
            ASSERT_TRUE(c.Async().SendRaw(att.data(), 10));
        }
        /* Fully attached, then the asynchronous connection alone goes. */
        {
            TestClient c(Dir(), kPid);
            ASSERT_TRUE(c.Handshake(2));
            c.Async().Close();
            EXPECT_TRUE(c.Sync().IsClosedByPeer(kWaitMs));
        }
        /* Fully attached, then the synchronous connection alone goes. */
        {
            TestClient c(Dir(), kPid);
            ASSERT_TRUE(c.Handshake(2));
            c.Sync().Close();
            EXPECT_TRUE(c.Async().IsClosedByPeer(kWaitMs));
        }
        /* Fully attached, half a request, then both go. */
        {
            TestClient c(Dir(), kPid);
            ASSERT_TRUE(c.Handshake(2));
            Bytes req = MakeMsg(LAPI_GET_STATUS_REQ, {1, 0, 1, 1}, kPid);
            ASSERT_TRUE(c.Sync().SendRaw(req.data(), 9));
        }
        EXPECT_TRUE(WaitFdCount(idle)) << "round " << round << ": " << OpenFdCount(srv_.Pid())
                                       << " open, " << idle << " when idle";
    }
    /* Every MT-LR client above is gone: a new one is accepted. */
    ASSERT_TRUE(srv_.Running());
    TestClient last(Dir(), kPid);
    EXPECT_TRUE(last.Handshake(2));
    ASSERT_TRUE(last.SendMsg(LAPI_UNREGISTER_REQ, {}));
    EXPECT_TRUE(last.Sync().RecvMsg(kWaitMs).has_value());
    EXPECT_TRUE(WaitFdCount(idle));
}

/* ------------------------------------------------------------------------ */
/* The BP channel and the handshake                                          */
/* ------------------------------------------------------------------------ */

class NoMuxAtStartTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(0, srv_.Stop()); }
    lapitest::TempRoot root_;
    std::optional<lapitest::MuxPty> mux_; /* created late, outlives the server */
    lapitest::ServerProcess srv_{root_};
};

TEST_F(NoMuxAtStartTest, HandshakeFailsWhileChannelCannotOpen) {
    ASSERT_TRUE(srv_.StartAndWaitReady());
    TestClient c(root_.Dir(), kPid);
    auto id = c.Register(4);
    ASSERT_TRUE(id.has_value());
    EXPECT_FALSE(c.AttachAsync(*id));
    EXPECT_TRUE(srv_.WaitForTrace("Trying to connect mux channel..."));
    EXPECT_TRUE(srv_.WaitForError("Fail to connect mux channel!"));
    EXPECT_TRUE(c.Async().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(c.Sync().IsClosedByPeer(kWaitMs));
}

TEST_F(NoMuxAtStartTest, HandshakeOpensChannelOnceItExists) {
    ASSERT_TRUE(srv_.StartAndWaitReady());
    mux_.emplace(root_);
    ASSERT_TRUE(mux_->ok());
    TestClient a(root_.Dir(), kPid);
    ASSERT_TRUE(a.Handshake(4));
    EXPECT_TRUE(srv_.WaitForTrace("Trying to connect mux channel..."));
    EXPECT_TRUE(srv_.WaitForTrace("Success to connect mux channel."));
    /* Opened once: the next handshake does not try again. */
    size_t tries = srv_.CountTraces("Trying to connect mux channel...");
    TestClient b(root_.Dir(), kPid + 1);
    ASSERT_TRUE(b.Handshake(4));
    EXPECT_EQ(tries, srv_.CountTraces("Trying to connect mux channel..."));
}

}  // namespace
