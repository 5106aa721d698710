/*
 * The BP socket service: open, send, receive, close and the TLS session
 * request as the BP sees them, against real TCP peers on 127.0.0.1, with
 * the link stand-in behind the open. Requests go through the BP dispatch
 * in exact-size copies; answers are read from the far end of the channel.
 */
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

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

namespace {

using lapitest::StderrCapture;
using lapitest::TcpPeer;
using nettest::Bp;
using nettest::Bytes;
using nettest::CloseReq;
using nettest::DataInd;
using nettest::kLoopback;
using nettest::OpenReqFqdn;
using nettest::OpenReqIpv4;
using nettest::SendReq;
using nettest::SocketRes;
using nettest::TlsReq;

Bytes Pattern(size_t n, uint8_t seed = 0) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>('a' + (i + seed) % 26);
    }
    return b;
}

class BpSock : public ::testing::Test {
  protected:
    /* Opens linkId to 127.0.0.1:port and waits for the open answer;
     * its result. */
    int32_t Open(uint32_t linkId, uint16_t port, uint8_t sid = 1, uint8_t tid = 1) {
        size_t before = h.SeenOf(OPEN_SOCKET_APBP_RES).size();
        Bp(OpenReqIpv4(sid, tid, linkId, kLoopback, port));
        if (!nettest::NetHarness::PumpUntil(
                [&] { return h.SeenOf(OPEN_SOCKET_APBP_RES).size() > before; })) {
            return 99;
        }
        Bytes m = h.SeenOf(OPEN_SOCKET_APBP_RES).back();
        return static_cast<int32_t>(LAPI_BpGetU32(m.data() + 7));
    }

    /* Received-data indications of linkId collected so far. */
    std::vector<Bytes> DataInds(uint32_t linkId) {
        std::vector<Bytes> out;
        for (const Bytes &m : h.SeenOf(SOCKET_DATA_APBP_IND)) {
            if (LAPI_BpGetU32(m.data() + 3) == linkId) {
                out.push_back(m);
            }
        }
        return out;
    }
    static Bytes IndData(const Bytes &ind) {
        uint32_t n = LAPI_BpGetU32(ind.data() + 7);
        return Bytes(ind.begin() + 11, ind.begin() + 11 + n);
    }
    static int32_t IndResult(const Bytes &ind) {
        return static_cast<int32_t>(LAPI_BpGetU32(ind.data() + ind.size() - 4));
    }

    /* Fills the socket of linkId (its peer paused) until a send stays in
     * wbuf; every send up to then is answered at once. */
    bool FillUntilBusy(uint32_t linkId) {
        SocketInfo *p = GetSocketInfoByLinkId(linkId);
        for (int i = 0; i < 20000 && p != nullptr; ++i) {
            Bp(SendReq(1, 1, linkId, Pattern(1000, static_cast<uint8_t>(i))));
            h.BpMsgs(); /* keep the channel drained */
            if (p->pFdops != nullptr && p->pFdops->wbuf.idx != 0) {
                return true;
            }
        }
        return false;
    }

    nettest::NetHarness h;
};

/* ---- length and identifier checks -------------------------------------- */

TEST_F(BpSock, OpenRequestOf17BytesIsRefusedWithoutAnswer) {
    Bytes msg = OpenReqIpv4(1, 2, 5, kLoopback, 80);
    msg.pop_back();
    StderrCapture cap;
    Bp(msg);
    EXPECT_EQ(
        std::vector<std::string>{"Received openSocket BP Msg length: 17 is not expected: 18!"},
        cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
    EXPECT_EQ(0u, socketInfoTable[0].linkId);
    EXPECT_EQ(0, LAPI_SRV_napiConnected);
}

TEST_F(BpSock, OpenRequestOf18BytesWithFqdnLength0IsAccepted) {
    Bytes msg = OpenReqFqdn(1, 2, 5, "", 80);
    ASSERT_EQ(18u, msg.size());
    StderrCapture cap;
    Bp(msg);
    EXPECT_TRUE(cap.HasTrace("linkId:5"));
    EXPECT_TRUE(h.BpMsgs().empty()) << "answered only once the link has an outcome";
    EXPECT_EQ(5u, socketInfoTable[0].linkId);
    EXPECT_EQ(static_cast<uint32_t>(LAPI_SRV_ADDR_FQDN), socketInfoTable[0].addrType);
    EXPECT_EQ('\0', socketInfoTable[0].address[0]);
    EXPECT_GT(socketInfoTable[0].napiLink, 0);
    EXPECT_EQ(80, socketInfoTable[0].port);
}

TEST_F(BpSock, SendRequestOf10BytesIsRefusedInTheOpenSocketWording) {
    Bytes msg = SendReq(1, 2, 5, {});
    msg.pop_back();
    StderrCapture cap;
    Bp(msg);
    EXPECT_EQ(
        std::vector<std::string>{"Received openSocket BP Msg length: 10 is not expected: 11!"},
        cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(BpSock, CloseRequestOf6Or8BytesIsRefusedInTheOpenSocketWording) {
    Bytes shorter = CloseReq(1, 2, 5);
    shorter.pop_back();
    Bytes longer = CloseReq(1, 2, 5);
    longer.push_back(0);
    StderrCapture cap;
    Bp(shorter);
    Bp(longer);
    EXPECT_EQ(
        (std::vector<std::string>{"Received openSocket BP Msg length: 6 is not expected: 7!",
                                  "Received openSocket BP Msg length: 8 is not expected: 7!"}),
        cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(BpSock, TlsSessionRequestOf7BytesIsRefusedWithoutAnswer) {
    Bytes msg = TlsReq(1, 2, 5, "");
    msg.pop_back();
    StderrCapture cap;
    Bp(msg);
    EXPECT_EQ(std::vector<std::string>{"Received tls session BP Msg length: 7 is not expected: 8!"},
              cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(BpSock, HandlersRefuseAForeignSubCmdIdWithoutAnswer) {
    StderrCapture cap;
    locsvc::CallBp(LAPI_SRV_ProcBpOpenSocketReqMsg, CloseReq(1, 2, 5));
    locsvc::CallBp(LAPI_SRV_ProcBpSendDataReqMsg, CloseReq(1, 2, 5));
    locsvc::CallBp(LAPI_SRV_ProcBpCloseSocketReqMsg, SendReq(1, 2, 5, {1}));
    locsvc::CallBp(LAPI_SRV_ProcBpTlsSessionReqMsg, CloseReq(1, 2, 5));
    EXPECT_EQ((std::vector<std::string>{
                  "pBpMsgHeader->subCmdId : 0x0e is not expected, msgLen : 7!",
                  "pBpMsgHeader->subCmdId : 0x0e is not expected, msgLen : 7!",
                  "pBpMsgHeader->subCmdId : 0x0b is not expected, msgLen : 12!",
                  "pBpMsgHeader->subCmdId : 0x0e is not expected, msgLen : 7!",
              }),
              cap.Errors());
    EXPECT_TRUE(h.BpMsgs().empty());
}

/* ---- answers on the wire -------------------------------------------------- */

TEST_F(BpSock, SocketResponseIs11BytesWithBigEndianLinkIdAndResult) {
    StderrCapture cap;
    LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, 1, 2, 0x01020304, -1);
    EXPECT_EQ((Bytes{0x50, 0x00, 0x10, 0x0A, 0x01, 0x02, 0x01, 0x02, 0x03, 0x04, 0xFF, 0xFF, 0xFF,
                     0xFF, 0xCF, 0xB0}),
              h.BpRaw());
    EXPECT_TRUE(cap.HasTrace("SOCKET_MSG_RES_T size is 11"));
    EXPECT_TRUE(cap.HasError("No log procedure for BP Msg ID: 0x0a!"))
        << "socket messages have no logger";
}

TEST_F(BpSock, TlsResponseIs8Bytes) {
    StderrCapture cap;
    LAPI_SRV_SendTLSRes(3, 4, 0x0A0B0C0D, 2);
    EXPECT_EQ((Bytes{0x50, 0x00, 0x0D, 0x1F, 0x03, 0x04, 0x0A, 0x0B, 0x0C, 0x0D, 0x02, 0xCF, 0xB0}),
              h.BpRaw());
    EXPECT_TRUE(cap.HasTrace("TLS_MSG_RES_T size is 8"));
}

TEST_F(BpSock, DataIndicationCarriesLengthDataAndResultWithItsTraces) {
    StderrCapture cap;
    const uint8_t data[] = {'a', 'b', 'c'};
    LAPI_SRV_SendSocketDataInd(0, 0, 5, 3, data, 0);
    EXPECT_EQ((Bytes{0x50, 0x00, 0x17, 0x0D, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00,
                     0x00, 0x03, 'a',  'b',  'c',  0x00, 0x00, 0x00, 0x00, 0xCF, 0xB0}),
              h.BpRaw());
    std::vector<std::string> t = cap.Traces();
    auto at = [&](const std::string &s) { return std::find(t.begin(), t.end(), s) - t.begin(); };
    EXPECT_LT(at("LEN:3"), at("recv data ind link id:5"));
    EXPECT_LT(at("recv data ind link id:5"), at("SIZEOF + LEN:18"));
    EXPECT_LT(at("SIZEOF + LEN:18"), at("frameLen:23"));
    EXPECT_LT(at("frameLen:23"), static_cast<long>(t.size()));
}

TEST_F(BpSock, DataIndicationLongerThanOneFrameIsDiscarded) {
    Bytes data(1005, 'd');
    StderrCapture cap;
    LAPI_SRV_SendSocketDataInd(0, 0, 5, 1005, data.data(), 0);
    EXPECT_EQ(std::vector<std::string>{"Data length: 1005 > 1004, discard!"}, cap.Errors());
    EXPECT_TRUE(h.BpRaw().empty());
    LAPI_SRV_SendSocketDataInd(0, 0, 5, 1004, data.data(), 0);
    EXPECT_EQ(LAPI_BP_FRAME_MAX_LEN, h.BpRaw().size()) << "1004 bytes fill a whole frame";
}

/* ---- open --------------------------------------------------------------- */

TEST_F(BpSock, OpenByIpv4ConnectsAndAnswersResult0) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    EXPECT_EQ(0, Open(7, peer.Port(), 3, 4));
    EXPECT_EQ(SocketRes(OPEN_SOCKET_APBP_RES, 3, 4, 7, 0), h.SeenOf(OPEN_SOCKET_APBP_RES).back());
    SocketInfo *p = GetSocketInfoByLinkId(7);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(LAPI_SRV_SOCK_CONNECTED, p->fdStatus);
    EXPECT_NE(nullptr, p->pFdops);
    EXPECT_EQ(nullptr, p->pFdops->pFdInfo) << "a network socket is found by its descriptor";
    EXPECT_TRUE(peer.WaitAccepted(1, 3000));
}

TEST_F(BpSock, OpenToARefusedPortAnswersMinus1AndFreesTheEntry) {
    uint16_t port = lapitest::RefusedPort();
    ASSERT_NE(0, port);
    EXPECT_EQ(-1, Open(7, port));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
    EXPECT_EQ(0, socketInfoTable[0].fd);
}

TEST_F(BpSock, OpenWithFqdnLengthPastTheEndIsAnsweredMinus1) {
    Bytes msg = OpenReqFqdn(1, 2, 5, "abc", 80, 10);
    StderrCapture cap;
    Bp(msg);
    EXPECT_TRUE(cap.HasError("fqdnLength: 10 runs past the message end: 21, refuse!"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(OPEN_SOCKET_APBP_RES, 1, 2, 5, -1)}, h.BpMsgs());
    EXPECT_EQ(0u, socketInfoTable[0].linkId);
    EXPECT_EQ(0, LAPI_SRV_napiConnected) << "refused before the link is touched";
}

TEST_F(BpSock, OpenWhenTheLinkServiceIsUnreachableAnswersMinus1) {
    /* A file where the FIFO's folder should be: the link service cannot start. */
    ASSERT_TRUE(h.root_.WriteFile("/run", "not a folder"));
    StderrCapture cap;
    Bp(OpenReqIpv4(1, 2, 5, kLoopback, 80));
    EXPECT_TRUE(cap.HasTrace("Failed to connect to NAPI"));
    EXPECT_TRUE(cap.HasError("not connect to napi"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(OPEN_SOCKET_APBP_RES, 1, 2, 5, -1)}, h.BpMsgs());
    EXPECT_EQ(0, LAPI_SRV_napiConnected);
}

TEST_F(BpSock, SixteenSocketsAtMostAndTheSeventeenthIsRefused) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    for (uint32_t link = 1; link <= LAPI_SRV_MAX_SOCKET_NUM; ++link) {
        ASSERT_EQ(0, Open(link, peer.Port())) << "link " << link;
    }
    StderrCapture cap;
    Bp(OpenReqIpv4(9, 9, 17, kLoopback, peer.Port()));
    EXPECT_TRUE(cap.HasTrace("No available resource for new socket"));
    EXPECT_EQ(SocketRes(OPEN_SOCKET_APBP_RES, 9, 9, 17, -1), h.Seen().back());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(17));
}

TEST_F(BpSock, TwoOpensBeforeTheFirstConnectTakeTheSameEntry) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    StderrCapture cap;
    Bp(OpenReqIpv4(1, 1, 21, kLoopback, peer.Port()));
    Bp(OpenReqIpv4(2, 2, 22, kLoopback, peer.Port()));
    /* The first entry is still dialling (fd 0), so it was free again. */
    EXPECT_EQ(22u, socketInfoTable[0].linkId);
    EXPECT_EQ(0u, socketInfoTable[1].linkId);
    ASSERT_TRUE(h.PumpForBp(OPEN_SOCKET_APBP_RES));
    EXPECT_EQ(SocketRes(OPEN_SOCKET_APBP_RES, 2, 2, 22, 0), h.SeenOf(OPEN_SOCKET_APBP_RES).at(0));
    EXPECT_TRUE(nettest::NetHarness::PumpUntil([&] {
        return cap.HasTrace("ParseNapiMsg: NO available pSocketInfo found!");
    })) << "the first dial's notification finds no entry";
    EXPECT_EQ(1u, h.SeenOf(OPEN_SOCKET_APBP_RES).size()) << "the first open is never answered";
}

/* ---- data both ways ---------------------------------------------------- */

TEST_F(BpSock, DataGoesBothWaysWithASendResponseAndADataIndication) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    Bp(SendReq(5, 6, 7, {'h', 'e', 'l', 'l', 'o'}));
    ASSERT_TRUE(h.PumpForBp(SOCKET_DATA_APBP_IND));
    EXPECT_EQ(SocketRes(SEND_DATA_APBP_RES, 5, 6, 7, 0), h.SeenOf(SEND_DATA_APBP_RES).at(0));
    EXPECT_EQ(DataInd(7, {'h', 'e', 'l', 'l', 'o'}, 0), h.SeenOf(SOCKET_DATA_APBP_IND).at(0));
    EXPECT_EQ((Bytes{'h', 'e', 'l', 'l', 'o'}), peer.Received());
}

TEST_F(BpSock, ReceivedDataComesInPiecesOfAtMost235Bytes) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    ASSERT_TRUE(peer.WaitAccepted(1, 3000));
    Bytes sent = Pattern(1000);
    ASSERT_TRUE(peer.Send(sent));
    Bytes got;
    ASSERT_TRUE(nettest::NetHarness::PumpUntil([&] {
        got.clear();
        for (const Bytes &ind : DataInds(7)) {
            Bytes d = IndData(ind);
            got.insert(got.end(), d.begin(), d.end());
        }
        return got.size() >= sent.size();
    }));
    EXPECT_EQ(sent, got);
    std::vector<Bytes> inds = DataInds(7);
    EXPECT_GE(inds.size(), 5u);
    for (const Bytes &ind : inds) {
        EXPECT_LE(IndData(ind).size(), 235u);
        EXPECT_EQ(0, IndResult(ind));
        EXPECT_EQ(0, ind[1]) << "sessionId is always 0";
        EXPECT_EQ(0, ind[2]) << "transactionId is always 0";
    }
}

TEST_F(BpSock, PeerCloseIsReportedWithMinus1AndTheEntryIsFreed) {
    TcpPeer peer(TcpPeer::Mode::CloseAtOnce);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    ASSERT_TRUE(h.PumpForBp(SOCKET_DATA_APBP_IND));
    EXPECT_EQ(DataInd(7, {}, -1), DataInds(7).at(0));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
    EXPECT_EQ(0, socketInfoTable[0].fd);
}

/* ---- send ---------------------------------------------------------------- */

TEST_F(BpSock, SendWhileTheWriteBufferIsBusyIsQueuedAndAnsweredWhenItsBytesAreWritten) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    peer.Pause(true);
    ASSERT_EQ(0, Open(7, peer.Port()));
    ASSERT_TRUE(FillUntilBusy(7));
    h.Seen().clear();
    Bp(SendReq(2, 2, 7, Pattern(10)));
    Bp(SendReq(3, 3, 7, Pattern(10)));
    SocketInfo *p = GetSocketInfoByLinkId(7);
    EXPECT_EQ(2u, p->sendDataList.count);
    EXPECT_TRUE(h.SeenOf(SEND_DATA_APBP_RES).empty()) << "queued sends are not answered yet";
    peer.Pause(false);
    ASSERT_TRUE(nettest::NetHarness::PumpUntil(
        [&] { return h.SeenOf(SEND_DATA_APBP_RES).size() >= 3; }, 10000));
    std::vector<Bytes> rsp = h.SeenOf(SEND_DATA_APBP_RES);
    EXPECT_EQ(SocketRes(SEND_DATA_APBP_RES, 1, 1, 7, 0), rsp[0]) << "the busy one first";
    EXPECT_EQ(SocketRes(SEND_DATA_APBP_RES, 2, 2, 7, 0), rsp[1]);
    EXPECT_EQ(SocketRes(SEND_DATA_APBP_RES, 3, 3, 7, 0), rsp[2]);
}

TEST_F(BpSock, CloseWhileDataIsBeingWrittenAnswersWithZeroIdsAfterTheLastQueuedSend) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    peer.Pause(true);
    ASSERT_EQ(0, Open(7, peer.Port()));
    ASSERT_TRUE(FillUntilBusy(7));
    Bp(SendReq(2, 2, 7, Pattern(10)));
    h.Seen().clear();
    Bp(CloseReq(8, 9, 7));
    SocketInfo *p = GetSocketInfoByLinkId(7);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(1, p->bClosePending);
    EXPECT_TRUE(h.SeenOf(CLOSE_SOCKET_APBP_RES).empty()) << "deferred";
    peer.Pause(false);
    ASSERT_TRUE(h.PumpForBp(CLOSE_SOCKET_APBP_RES, 10000));
    std::vector<Bytes> seen = h.Seen();
    EXPECT_EQ(SocketRes(CLOSE_SOCKET_APBP_RES, 0, 0, 0, 0), seen.back())
        << "the close has zeroed the entry before the answer is built";
    EXPECT_EQ(SocketRes(SEND_DATA_APBP_RES, 2, 2, 7, 0), seen.at(seen.size() - 2));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
}

TEST_F(BpSock, SendLengthBeyondTheBytesReceivedIsAnsweredMinus1AndNothingIsWritten) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    StderrCapture cap;
    Bp(SendReq(2, 3, 7, Pattern(10), 11));
    EXPECT_TRUE(cap.HasError("Send data length: 11 > bytes received: 10, refuse!"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(SEND_DATA_APBP_RES, 2, 3, 7, -1)}, h.BpMsgs());
    Bp(SendReq(4, 4, 7, {'o', 'k'}));
    ASSERT_TRUE(peer.WaitReceived(2, 3000));
    EXPECT_EQ((Bytes{'o', 'k'}), peer.Received()) << "only the good send reached the peer";
}

TEST_F(BpSock, SendLengthBeyondTheWriteBufferIsAnsweredMinus1AndNothingIsWritten) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    StderrCapture cap;
    Bp(SendReq(2, 3, 7, Pattern(1025)));
    EXPECT_TRUE(cap.HasError("Send data length: 1025 > wbuf size: 1024, refuse!"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(SEND_DATA_APBP_RES, 2, 3, 7, -1)}, h.BpMsgs());
    Bp(SendReq(4, 4, 7, {'o', 'k'}));
    ASSERT_TRUE(peer.WaitReceived(2, 3000));
    EXPECT_EQ((Bytes{'o', 'k'}), peer.Received());
}

TEST_F(BpSock, SendForAnUnknownLinkIsAnsweredMinus1) {
    StderrCapture cap;
    Bp(SendReq(2, 3, 99, {'x'}));
    EXPECT_TRUE(cap.HasError("Enter LAPI_SRV_SendData, pSocketInfo == NULL!"));
    EXPECT_TRUE(cap.HasTrace("AFTER LAPI_SRV_SENDDATA"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(SEND_DATA_APBP_RES, 2, 3, 99, -1)}, h.BpMsgs());
}

TEST_F(BpSock, SendOfZeroBytesIsAnsweredMinus1) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    StderrCapture cap;
    Bp(SendReq(2, 3, 7, {}));
    EXPECT_TRUE(cap.HasError("(buf == NULL) || (length <= 0)!"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(SEND_DATA_APBP_RES, 2, 3, 7, -1)}, h.BpMsgs());
}

TEST_F(BpSock, SendWhileTheLinkIsStillDiallingIsAnsweredMinus1) {
    Bp(OpenReqIpv4(1, 1, 7, kLoopback, 80)); /* not pumped: no socket yet */
    StderrCapture cap;
    Bp(SendReq(2, 3, 7, {'x'}));
    EXPECT_TRUE(cap.HasError("Enter LAPI_SRV_SendData, pSocketInfo == NULL!"));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(SEND_DATA_APBP_RES, 2, 3, 7, -1)}, h.BpMsgs());
}

/* ---- close ---------------------------------------------------------------- */

TEST_F(BpSock, CloseForAnUnknownLinkIdIsAnsweredWithResult0) {
    StderrCapture cap;
    Bp(CloseReq(4, 5, 42));
    EXPECT_EQ((std::vector<std::string>{"Failed to match the linkId",
                                        "No log procedure for BP Msg ID: 0x0f!"}),
              cap.Errors());
    EXPECT_EQ(std::vector<Bytes>{SocketRes(CLOSE_SOCKET_APBP_RES, 4, 5, 42, 0)}, h.BpMsgs());
}

TEST_F(BpSock, CloseOfAConnectedSocketAnswersAndThePeerSeesTheClose) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(7, peer.Port()));
    ASSERT_TRUE(peer.WaitAccepted(1, 3000));
    h.Seen().clear();
    Bp(CloseReq(4, 5, 7));
    EXPECT_EQ(std::vector<Bytes>{SocketRes(CLOSE_SOCKET_APBP_RES, 4, 5, 7, 0)}, h.Seen());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
    EXPECT_TRUE(peer.WaitAllClosed(3000));
}

/* ---- TLS session request ------------------------------------------------ */

TEST_F(BpSock, TlsSessionRequestWithFqdnLength0GetsNoAnswer) {
    Bp(TlsReq(1, 2, 7, ""));
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(BpSock, TlsSessionRequestForAnUnknownLinkIsAnsweredWithSetUpFailure) {
    StderrCapture cap;
    Bp(TlsReq(1, 2, 7, "example.org"));
    EXPECT_TRUE(cap.HasTrace("pMsg->fqdnLength is 11, FQDN is example.org"));
    EXPECT_EQ((std::vector<Bytes>{Bytes{TLS_SESSION_APBP_RES, 1, 2, 0, 0, 0, 7, 1}}), h.BpMsgs());
}

TEST_F(BpSock, TlsSessionRequestWithFqdnLengthPastTheEndIsAnsweredWithSetUpFailure) {
    StderrCapture cap;
    Bp(TlsReq(1, 2, 7, "abc", 200));
    EXPECT_TRUE(cap.HasError("fqdnLength: 200 runs past the message end: 11, refuse!"));
    EXPECT_EQ((std::vector<Bytes>{Bytes{TLS_SESSION_APBP_RES, 1, 2, 0, 0, 0, 7, 1}}), h.BpMsgs());
}

}  // namespace
