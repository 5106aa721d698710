/*
 * The network proxy's own side: the socket table and its lookups, the link
 * service and its notification records (through the host stand-in's FIFO),
 * connect and its completion, reading and writing a socket, and closing.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_BpMsg.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_tls.h"
#include "NetTestHarness.h"
#include "ServerFixture.h"
#include "TcpPeer.h"
#include "ToolCommon.h"
#include "zelnapi.h"

namespace {

using lapitest::StderrCapture;
using lapitest::TcpPeer;
using nettest::Bp;
using nettest::Bytes;
using nettest::DataInd;
using nettest::kLoopback;
using nettest::NapiRecord;
using nettest::NetHarness;
using nettest::OpenReqFqdn;
using nettest::OpenReqIpv4;
using nettest::SocketRes;

size_t Count(const std::vector<std::string> &lines, const std::string &text) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), text));
}

class NetLink : public ::testing::Test {
  protected:
    /* Connects the link service as the first open does. */
    Fdops *ConnectNapi() {
        if (Connect2Napi() < 0) {
            return nullptr;
        }
        return NetHarness::NapiFdops();
    }
    /* Writes one record and lets the server read it. */
    void Deliver(const Bytes &record) {
        ASSERT_TRUE(h.WriteNapi(record));
        LAPI_SRV_ReadNapiMsg(NetHarness::NapiFdops());
    }
    /* Opens socket linkId to the peer as the BP does and waits until the
     * peer has accepted it; its entry, or null. */
    SocketInfo *OpenTo(const TcpPeer &peer, uint32_t linkId) {
        Bp(OpenReqIpv4(1, 1, linkId, kLoopback, peer.Port()));
        if (!h.PumpForBp(OPEN_SOCKET_APBP_RES) || !peer.WaitAccepted(1, 3000)) {
            return nullptr;
        }
        return GetSocketInfoByLinkId(linkId);
    }

    NetHarness h;
};

/* ---- table and lookups --------------------------------------------------- */

TEST_F(NetLink, InitGlobalsZeroesTheSocketTable) {
    socketInfoTable[3].fd = 12;
    socketInfoTable[15].linkId = 4;
    Fdops *pMux = LAPI_SRV_pMuxFdops; /* the harness's channel outlives the reset */
    LAPI_SRV_InitGlobals();
    LAPI_SRV_pMuxFdops = pMux;
    for (const SocketInfo &info : socketInfoTable) {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(&info);
        EXPECT_TRUE(std::all_of(p, p + sizeof(info), [](uint8_t b) { return b == 0; }));
    }
}

TEST_F(NetLink, LookupByLinkId0ReturnsNullWithoutScanning) {
    socketInfoTable[0].linkId = 0;
    StderrCapture cap;
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(0));
    EXPECT_TRUE(cap.Traces().empty());
}

TEST_F(NetLink, LookupByLinkIdTracesEveryEntryScannedAndTheHit) {
    socketInfoTable[2].linkId = 7;
    StderrCapture cap;
    EXPECT_EQ(&socketInfoTable[2], GetSocketInfoByLinkId(7));
    EXPECT_EQ((std::vector<std::string>{"LINK ID:7", "i:0 LINK ID:0", "i:1 LINK ID:0",
                                        "i:2 LINK ID:7", "return &socketInfoTable[i];"}),
              cap.Traces());
}

TEST_F(NetLink, LookupByLinkIdOfAMissingLinkScansAllSixteenEntries) {
    StderrCapture cap;
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(9));
    EXPECT_EQ(17u, cap.Traces().size());
    EXPECT_EQ("i:15 LINK ID:0", cap.Traces().back());
}

TEST_F(NetLink, LookupByNegativeNapiLinkReturnsNull) {
    socketInfoTable[0].napiLink = -1;
    EXPECT_EQ(nullptr, GetSocketInfoByNapiLink(-1));
    socketInfoTable[4].napiLink = 3;
    EXPECT_EQ(&socketInfoTable[4], GetSocketInfoByNapiLink(3));
}

TEST_F(NetLink, LookupByFd0ReturnsNull) {
    EXPECT_EQ(nullptr, GetSocketInfoByFd(0)) << "every free entry has fd 0";
    socketInfoTable[5].fd = 33;
    EXPECT_EQ(&socketInfoTable[5], GetSocketInfoByFd(33));
}

TEST_F(NetLink, FreeEntryIsTheFirstWithFd0EvenWhileItIsDialling) {
    socketInfoTable[0].fd = 30;
    socketInfoTable[1].linkId = 5; /* dialling: fd still 0 */
    socketInfoTable[1].napiLink = 2;
    EXPECT_EQ(&socketInfoTable[1], GetFreeSocketInfo());
    for (SocketInfo &info : socketInfoTable) {
        info.fd = 30;
    }
    EXPECT_EQ(nullptr, GetFreeSocketInfo());
    memset(socketInfoTable, 0, sizeof(socketInfoTable));
}

/* ---- link service and records -------------------------------------------- */

TEST_F(NetLink, Connect2NapiWatchesTheFifoWithAOneRecordBuffer) {
    StderrCapture cap;
    Fdops *pNapi = ConnectNapi();
    ASSERT_NE(nullptr, pNapi);
    EXPECT_TRUE(cap.HasTrace("Enter Connect2Napi"));
    EXPECT_EQ(1, LAPI_SRV_napiConnected);
    EXPECT_EQ(NAPI_NOTIFY_MSG_LEN, pNapi->rbuf.len);
    EXPECT_EQ(0, pNapi->wbuf.len);
    EXPECT_EQ(nullptr, pNapi->writeProc);
    EXPECT_EQ(LAPI_SRV_CloseFdops, pNapi->closeProc);
    EXPECT_TRUE(h.root_.Exists("/run/napi.fifo"));
    EXPECT_NE(0, fcntl(pNapi->fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(NetLink, ProfileNameIsReadAfreshForEveryDial) {
    ASSERT_NE(nullptr, ConnectNapi());
    ASSERT_TRUE(h.SetProfile("ONE"));
    StderrCapture cap;
    int first = OpenNapiLink();
    ASSERT_TRUE(h.SetProfile("TWO"));
    int second = OpenNapiLink();
    EXPECT_EQ(1, first);
    EXPECT_EQ(2, second) << "the lowest free handle";
    std::vector<std::string> t = cap.Traces();
    EXPECT_EQ(1u, Count(t, "AGPSProfileName = ONE"));
    EXPECT_EQ(1u, Count(t, "AGPSProfileName = TWO"));
    EXPECT_EQ(1u, Count(t, "napiLink is 1"));
    EXPECT_EQ(1u, Count(t, "napiLink is 2"));
}

TEST_F(NetLink, DefaultProfileAGPSIsDialledWhenTheKeyIsAbsent) {
    Fdops *pNapi = ConnectNapi();
    ASSERT_NE(nullptr, pNapi);
    socketInfoTable[0].napiLink = OpenNapiLink();
    socketInfoTable[0].linkId = 3;
    socketInfoTable[0].addrType = 7; /* unresolvable: the record is only traced */
    StderrCapture cap;
    LAPI_SRV_ReadNapiMsg(pNapi);
    EXPECT_TRUE(cap.HasTrace("name is AGPS"));
    EXPECT_TRUE(cap.HasTrace("msg id is 16"));
}

TEST_F(NetLink, RecordTracesItsFieldsInOrder) {
    Fdops *pNapi = ConnectNapi();
    ASSERT_NE(nullptr, pNapi);
    socketInfoTable[0].napiLink = 6;
    socketInfoTable[0].linkId = 3;
    NAPI_NOTIFY_MSG_S rec;
    memset(&rec, 0, sizeof(rec));
    rec.msgId = 99;
    rec.linkId = 6;
    strcpy(rec.name, "PROF");
    rec.maincode = 0x1234;
    rec.subcode = 7;
    StderrCapture cap;
    Deliver(Bytes(reinterpret_cast<uint8_t *>(&rec), reinterpret_cast<uint8_t *>(&rec + 1)));
    std::vector<std::string> t = cap.Traces();
    ASSERT_EQ(6u, t.size());
    EXPECT_EQ("Enter LAPI_SRV_GeneralRead", t[0]);
    EXPECT_EQ((std::vector<std::string>{"msg id is 99", "name is PROF", "linkId is 6",
                                        "maincode is 4660", "subcode is 7"}),
              std::vector<std::string>(t.begin() + 1, t.end()));
    EXPECT_TRUE(cap.Errors().empty()) << "an unknown msg id is ignored";
    EXPECT_EQ(3u, socketInfoTable[0].linkId);
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(NetLink, RecordNameWithoutTerminatorIsCutAtTheField) {
    Fdops *pNapi = ConnectNapi();
    ASSERT_NE(nullptr, pNapi);
    Bytes rec = NapiRecord(99, 9, "");
    std::fill(rec.begin() + 4, rec.begin() + 108, 'N');
    StderrCapture cap;
    Deliver(rec);
    EXPECT_TRUE(cap.HasTrace("name is " + std::string(NAPI_NOTIFY_NAME_LEN, 'N')));
}

TEST_F(NetLink, RecordOfAnyLengthOtherThan112IsDiscarded) {
    Fdops *pNapi = ConnectNapi();
    ASSERT_NE(nullptr, pNapi);
    for (size_t len : {1u, 111u}) {
        StderrCapture cap;
        Deliver(NapiRecord(NAPI_LINK_LOST_MSGID, 1, "AGPS", len));
        EXPECT_EQ((std::vector<std::string>{"msg len is not sizeof NAPI_NOTIFY_MSG_S",
                                            "Fail to process message for pFdops!"}),
                  cap.Errors())
            << len;
        EXPECT_EQ(0, pNapi->rbuf.idx) << "a partial record is not kept";
    }
}

TEST_F(NetLink, RecordForAnUnknownLinkIsIgnored) {
    Fdops *pNapi = ConnectNapi();
    ASSERT_NE(nullptr, pNapi);
    StderrCapture cap;
    Deliver(NapiRecord(NAPI_LINK_LOST_MSGID, 9));
    EXPECT_TRUE(cap.HasTrace("ParseNapiMsg: NO available pSocketInfo found!"));
    EXPECT_EQ(std::vector<std::string>{"Fail to process message for pFdops!"}, cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(NetLink, ReadNapiMsgRefusesAnFdopsWithoutReadBuffer) {
    StderrCapture cap;
    LAPI_SRV_ReadNapiMsg(nullptr);
    Fdops noBuf{};
    noBuf.fd = -1;
    LAPI_SRV_ReadNapiMsg(&noBuf);
    EXPECT_EQ((std::vector<std::string>{"Invalid pFdops!", "Invalid pFdops!"}), cap.Errors());
}

TEST_F(NetLink, FourthFailNotificationClosesTheEntryAndTheFirstThreeRedial) {
    ASSERT_TRUE(h.SetProfile("FAIL_GPRS"));
    StderrCapture cap;
    Bp(OpenReqIpv4(4, 5, 8, kLoopback, 80));
    ASSERT_TRUE(h.PumpForBp(OPEN_SOCKET_APBP_RES));
    std::vector<std::string> t = cap.Traces();
    EXPECT_EQ(4u, Count(t, "NAPI_RESULT_FAIL_MSGID received"));
    EXPECT_EQ(4u, Count(t, "AGPSProfileName = FAIL_GPRS")) << "four dials in all";
    EXPECT_EQ(1u, Count(t, "retry dial gprs 1 time"));
    EXPECT_EQ(1u, Count(t, "retry dial gprs 2 time"));
    EXPECT_EQ(1u, Count(t, "retry dial gprs 3 time"));
    EXPECT_EQ(1u, Count(t, "has tried to dial gprs four times totally"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(OPEN_SOCKET_APBP_RES, 4, 5, 8, -1)}, h.Seen());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(8));
    EXPECT_EQ(1, NAPI_OpenLink("x")) << "every handle of the four dials was released";
}

TEST_F(NetLink, LinkLostRecordSendsADataIndicationWithMinus1AndClosesTheSocket) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    SocketInfo *p = OpenTo(peer, 7);
    ASSERT_NE(nullptr, p);
    h.Seen().clear();
    ASSERT_TRUE(h.WriteNapi(NapiRecord(NAPI_LINK_LOST_MSGID, static_cast<uint8_t>(p->napiLink))));
    ASSERT_TRUE(h.PumpForBp(SOCKET_DATA_APBP_IND));
    EXPECT_EQ(std::vector<Bytes>{DataInd(7, {}, -1)}, h.Seen());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
    EXPECT_TRUE(peer.WaitAllClosed(3000));
}

TEST_F(NetLink, StaleLinkUpRecordForAnOpenSocketIsIgnored) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    SocketInfo *p = OpenTo(peer, 7);
    ASSERT_NE(nullptr, p);
    Fdops *pBefore = p->pFdops;
    int fdBefore = p->fd;
    h.Seen().clear();

    StderrCapture cap;
    int fdsBefore = toolcommon::CountOpenFds(getpid());
    Deliver(NapiRecord(NAPI_RESULT_SUCCESS_MSGID, static_cast<uint8_t>(p->napiLink)));
    int fdsAfter = toolcommon::CountOpenFds(getpid());
    cap.Restore();
    /* No second socket, no second answer: the open socket stays as it was. */
    EXPECT_EQ(pBefore, p->pFdops);
    EXPECT_EQ(fdBefore, p->fd);
    EXPECT_EQ(fdsBefore, fdsAfter);
    EXPECT_TRUE(h.Seen().empty());
    EXPECT_EQ(1u, peer.Accepted());
    std::vector<std::string> t = cap.Traces();
    EXPECT_EQ(0u, Count(t, "NAPI_RESULT_SUCCESS_MSGID received"));
    EXPECT_EQ(1u, Count(t, "ParseNapiMsg: linkId 7 has its socket already, msg id 16 ignored"));
}

TEST_F(NetLink, StaleLinkFailRecordForAnOpenSocketDoesNotRedial) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    SocketInfo *p = OpenTo(peer, 7);
    ASSERT_NE(nullptr, p);
    int napiLink = p->napiLink;
    h.Seen().clear();

    StderrCapture cap;
    Deliver(NapiRecord(NAPI_RESULT_FAIL_MSGID, static_cast<uint8_t>(napiLink)));
    cap.Restore();
    EXPECT_EQ(napiLink, p->napiLink) << "the link under the open socket was not dialled again";
    EXPECT_EQ(0, p->dialCount);
    EXPECT_TRUE(h.Seen().empty());
    EXPECT_EQ(0u, Count(cap.Traces(), "NAPI_RESULT_FAIL_MSGID received"));
}

/* ---- resolution, connect and completion ----------------------------------- */

TEST_F(NetLink, GetHostInfoOfAnIpv4EntryGivesItsBytesAndPort) {
    SocketInfo info{};
    info.addrType = LAPI_SRV_ADDR_IPV4;
    memcpy(info.address, "\x0a\x01\x02\x03", 4);
    info.port = 8080;
    uint8_t ip[4] = {};
    uint16_t port = 0;
    StderrCapture cap;
    EXPECT_EQ(1, GetHostInfo(&info, 5, ip, &port));
    EXPECT_EQ((Bytes{10, 1, 2, 3}), Bytes(ip, ip + 4));
    EXPECT_EQ(8080, port);
    EXPECT_EQ(std::vector<std::string>{"Enter GetHostInfo:5"}, cap.Traces());
}

TEST_F(NetLink, GetHostInfoOfAnUnknownAddrTypeFails) {
    SocketInfo info{};
    info.addrType = 2;
    uint8_t ip[4] = {};
    uint16_t port = 0;
    EXPECT_EQ(-1, GetHostInfo(&info, 5, ip, &port));
}

TEST_F(NetLink, UnresolvableOpenIsAnsweredMinus1) {
    StderrCapture cap;
    Bp(OpenReqIpv4(1, 1, 7, kLoopback, 80));
    SocketInfo *p = GetSocketInfoByLinkId(7);
    ASSERT_NE(nullptr, p);
    p->addrType = 5; /* no address to resolve */
    ASSERT_TRUE(h.PumpForBp(OPEN_SOCKET_APBP_RES));
    EXPECT_TRUE(cap.HasError("GetHostInfo() error!"));
    EXPECT_TRUE(cap.HasError("GetHostInfo or Connnect2Server fail"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(OPEN_SOCKET_APBP_RES, 1, 1, 7, -1)}, h.Seen());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
}

TEST_F(NetLink, ConnectToARefusedPortTracesTheErrno) {
    uint16_t port = lapitest::RefusedPort();
    SocketInfo *p = &socketInfoTable[0];
    p->linkId = 4;
    StderrCapture cap;
    int fd = Connect2Server(kLoopback, port, p);
    if (fd < 0) {
        EXPECT_TRUE(cap.HasTrace("Failed to connect to the server"));
        EXPECT_TRUE(cap.HasTrace("errno is 111, reason is Connection refused"));
    } else {
        /* Refused later: the completion reports it. */
        EXPECT_TRUE(cap.HasTrace("connect to server in background"));
        ASSERT_TRUE(h.PumpForBp(OPEN_SOCKET_APBP_RES));
        EXPECT_TRUE(cap.HasTrace("Non-block socket, failed to connect to the network!"));
    }
    EXPECT_TRUE(cap.HasTrace("Connect to server, ip: 127.0.0.1, port: " + std::to_string(port)));
}

TEST_F(NetLink, ConnectingSocketWaitsOnBothListsAndConnectedOneOnlyReads) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    SocketInfo *p = &socketInfoTable[0];
    p->linkId = 4;
    int fd = Connect2Server(kLoopback, peer.Port(), p);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(fd, p->fd);
    ASSERT_NE(nullptr, p->pFdops);
    EXPECT_EQ(LAPI_SRV_SOCK_RBUF_SIZE, p->pFdops->rbuf.len);
    EXPECT_EQ(LAPI_SRV_SOCK_WBUF_SIZE, p->pFdops->wbuf.len);
    EXPECT_TRUE(FD_ISSET(fd, &readFdSet));
    if (p->fdStatus == LAPI_SRV_SOCK_CONNECTING) {
        EXPECT_EQ(LAPI_SRV_WaitConnectRes, p->pFdops->readProc);
        EXPECT_TRUE(FD_ISSET(fd, &writeFdSet));
        ASSERT_TRUE(h.PumpForBp(OPEN_SOCKET_APBP_RES));
    }
    EXPECT_EQ(LAPI_SRV_SOCK_CONNECTED, p->fdStatus);
    EXPECT_EQ(LAPI_SRV_ReadNetworkMsg, p->pFdops->readProc);
    EXPECT_EQ(LAPI_SRV_WriteNetworkMsg, p->pFdops->writeProc);
    EXPECT_EQ(LAPI_SRV_CloseSocketFdops, p->pFdops->closeProc);
    EXPECT_FALSE(FD_ISSET(fd, &writeFdSet));
    EXPECT_EQ(SocketRes(OPEN_SOCKET_APBP_RES, 0, 0, 4, 0), h.Seen().back());
}

TEST_F(NetLink, DescriptorIsClosedWhenItsFdopsCannotBeMade) {
    /* Every descriptor below FD_SETSIZE taken: the socket gets one that
     * select cannot watch, so its Fdops is refused. */
    /* Nobody accepts: no descriptor of the far end appears in this process. */
    uint16_t port = 0;
    int listenFd = lapitest::ListenLoopback(&port);
    ASSERT_GE(listenFd, 0);
    struct rlimit rl;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &rl));
    if (rl.rlim_max <= FD_SETSIZE + 8) {
        GTEST_SKIP() << "descriptor limit too low";
    }
    struct rlimit raised = rl;
    raised.rlim_cur = FD_SETSIZE + 8;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &raised));
    std::vector<int> fillers;
    for (;;) {
        int fd = open("/dev/null", O_RDONLY);
        if (fd < 0) {
            break;
        }
        if (fd >= FD_SETSIZE) {
            close(fd);
            break;
        }
        fillers.push_back(fd);
    }
    SocketInfo *p = &socketInfoTable[0];
    p->linkId = 4;
    p->napiLink = 3;
    StderrCapture cap;
    size_t before = lapitest::OpenFdCount();
    int ret = Connect2Server(kLoopback, port, p);
    size_t after = lapitest::OpenFdCount();
    close(listenFd);
    for (int fd : fillers) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &rl);
    EXPECT_EQ(-1, ret);
    EXPECT_TRUE(cap.HasTrace("Aha, CreateFdops failed"));
    EXPECT_TRUE(cap.HasTrace("CrateFdops fail!"));
    EXPECT_EQ(before, after) << "the descriptor was closed, not leaked";
    EXPECT_EQ(0u, p->linkId) << "the entry was zeroed";
}

TEST_F(NetLink, WaitConnectResRefusalsEndWithoutAction) {
    StderrCapture cap;
    LAPI_SRV_WaitConnectRes(nullptr);
    Fdops f{};
    f.fd = 77;
    LAPI_SRV_WaitConnectRes(&f);
    socketInfoTable[0].fd = 77;
    socketInfoTable[0].fdStatus = LAPI_SRV_SOCK_CONNECTED;
    LAPI_SRV_WaitConnectRes(&f);
    EXPECT_EQ((std::vector<std::string>{"pFdops is NULL!", "pSocketInfo is NULL!",
                                        "pSocketInfo->fdStatus is not connecting"}),
              cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
    memset(socketInfoTable, 0, sizeof(socketInfoTable));
}

TEST_F(NetLink, SendBeforeTheConnectCompletesIsWrittenOnceConnected) {
    /* A connecting socket, as Connect2Server leaves it (a socket pair stands
     * in for the network: its connect has long completed). */
    int s[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, s));
    SocketInfo *p = &socketInfoTable[0];
    p->linkId = 9;
    p->fd = s[0];
    p->fdStatus = LAPI_SRV_SOCK_CONNECTING;
    Fdops *pFdops = CreateFdops(s[0], LAPI_SRV_SOCK_RBUF_SIZE, LAPI_SRV_SOCK_WBUF_SIZE);
    ASSERT_NE(nullptr, pFdops);
    pFdops->readProc = LAPI_SRV_WaitConnectRes;
    pFdops->writeProc = LAPI_SRV_WaitConnectRes;
    pFdops->closeProc = LAPI_SRV_CloseSocketFdops;
    p->pFdops = pFdops;
    LAPI_SRV_AddFdopsReadList(pFdops);
    LAPI_SRV_AddFdopsWriteList(pFdops);

    /* The BP sends before it has the open answer: the data waits in wbuf. */
    Bp(nettest::SendReq(2, 3, 9, {'h', 'i'}));
    EXPECT_TRUE(h.Seen().empty()) << "no send answer while unconnected";

    LAPI_SRV_WaitConnectRes(pFdops);
    EXPECT_EQ(LAPI_SRV_SOCK_CONNECTED, p->fdStatus);
    EXPECT_TRUE(FD_ISSET(s[0], &writeFdSet)) << "still on the write list: wbuf holds data";

    ASSERT_TRUE(h.PumpForBp(SEND_DATA_APBP_RES));
    char got[8] = {0};
    EXPECT_EQ(2, read(s[1], got, sizeof(got)));
    EXPECT_EQ(std::string("hi"), std::string(got, 2));
    EXPECT_EQ(SocketRes(SEND_DATA_APBP_RES, 2, 3, 9, 0), h.Seen().back());
    EXPECT_FALSE(FD_ISSET(s[0], &writeFdSet)) << "off the write list once written";
    LAPI_SRV_CloseSocket(p);
    close(s[1]);
}

/* ---- read and write refusals ---------------------------------------------- */

TEST_F(NetLink, WriteNetworkMsgRefusalsEndWithoutAction) {
    StderrCapture cap;
    LAPI_SRV_WriteNetworkMsg(nullptr);
    Fdops f{};
    f.fd = 77;
    LAPI_SRV_WriteNetworkMsg(&f); /* no wbuf */
    uint8_t buf[4];
    f.wbuf.buf = buf;
    f.wbuf.len = 4;
    LAPI_SRV_WriteNetworkMsg(&f); /* no entry */
    socketInfoTable[0].fd = 77;
    socketInfoTable[0].fdStatus = LAPI_SRV_SOCK_CONNECTING;
    LAPI_SRV_WriteNetworkMsg(&f);
    EXPECT_EQ((std::vector<std::string>{"pFdops == NULL!", "Invalid pFdops!",
                                        "Failed to get socket information",
                                        "socket status wrong, still unconnected"}),
              cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
    memset(socketInfoTable, 0, sizeof(socketInfoTable));
}

TEST_F(NetLink, ReadNetworkMsgRefusalsEndWithoutAction) {
    StderrCapture cap;
    LAPI_SRV_ReadNetworkMsg(nullptr);
    Fdops f{};
    f.fd = 77;
    socketInfoTable[0].fd = 77;
    LAPI_SRV_ReadNetworkMsg(&f); /* no rbuf */
    uint8_t buf[4];
    f.rbuf.buf = buf;
    f.rbuf.len = 4;
    LAPI_SRV_ReadNetworkMsg(&f); /* status 0 */
    EXPECT_EQ((std::vector<std::string>{"Invalid pSocketInfo!", "Invalid pFdops!",
                                        "the socket fd is not attached to the network"}),
              cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
    memset(socketInfoTable, 0, sizeof(socketInfoTable));
}

/* ---- close ------------------------------------------------------------------ */

TEST_F(NetLink, CloseSocketOfANullEntryOnlyTraces) {
    StderrCapture cap;
    LAPI_SRV_CloseSocket(nullptr);
    EXPECT_EQ((std::vector<std::string>{"Enter LAPI_SRV_CloseSocket", "pSocketInfo == NULL"}),
              cap.Traces());
}

TEST_F(NetLink, CloseSocketFdopsWithoutEntryReportsIt) {
    Fdops f{};
    f.fd = 91;
    StderrCapture cap;
    LAPI_SRV_CloseSocketFdops(&f);
    EXPECT_EQ(std::vector<std::string>{"Failed to find suitable socket info"}, cap.Errors());
}

TEST_F(NetLink, CloseSocketLingersClosesAndZeroesTheEntryWithItsQueue) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    SocketInfo *p = &socketInfoTable[0];
    p->linkId = 4;
    int fd = Connect2Server(kLoopback, peer.Port(), p);
    ASSERT_GT(fd, 0);
    ASSERT_TRUE(peer.WaitAccepted(1, 3000));
    ASSERT_EQ(0, LAPI_SRV_AddSendDataList(&p->sendDataList, "abc", 3, 1, 1));
    StderrCapture cap;
    LAPI_SRV_CloseSocket(p);
    std::vector<std::string> t = cap.Traces();
    EXPECT_EQ(1u, Count(t, "close return 0"));
    EXPECT_EQ(1u, Count(t, "Enter ReleaseSockInfoEle"));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the socket is closed";
    const uint8_t *raw = reinterpret_cast<const uint8_t *>(p);
    EXPECT_TRUE(std::all_of(raw, raw + sizeof(*p), [](uint8_t b) { return b == 0; }));
    EXPECT_TRUE(peer.WaitAllClosed(3000));
}

TEST_F(NetLink, NapiLinksOf16OrMoreAreNotClosed) {
    for (int i = 1; i <= 16; ++i) {
        ASSERT_EQ(i, NAPI_OpenLink("P"));
    }
    socketInfoTable[0].napiLink = 16;
    LAPI_SRV_CloseSocket(&socketInfoTable[0]);
    EXPECT_EQ(17, NAPI_OpenLink("P")) << "handle 16 still open";
    socketInfoTable[0].napiLink = 15;
    LAPI_SRV_CloseSocket(&socketInfoTable[0]);
    EXPECT_EQ(15, NAPI_OpenLink("P")) << "handle 15 was closed";
}

TEST_F(NetLink, NapiLink0IsNotClosed) {
    /* 0 is never handed out; an entry that holds it must not close anything. */
    socketInfoTable[0].napiLink = 0;
    socketInfoTable[0].linkId = 3;
    LAPI_SRV_CloseSocket(&socketInfoTable[0]);
    EXPECT_EQ(-1, NAPI_CloseLink(0));
    EXPECT_EQ(0u, socketInfoTable[0].linkId);
}

}  // namespace
