/*
 * The network proxy end to end: lapi_srv_host with bpsim on its channel, the
 * link stand-in's FIFO under the root, and real TCP peers on 127.0.0.1 that
 * each test starts and stops.
 */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "BpSim.h"
#include "BpSimNet.h"
#include "BpSimProgram.h"
#include "LAPI_BpMsg.h"
#include "LAPI_SRV_Paths.h"
#include "NapiFifo.h"
#include "ServerFixture.h"
#include "SimServerTest.h"
#include "TcpPeer.h"
#include "zelnapi.h"

namespace {

using bpsim::Bytes;
using bpsim::SocketMsg;
using lapitest::TcpPeer;

constexpr int kWaitMs = 5000;

Bytes Text(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

class NetworkProxy : public lapitest::SimServerTest<> {
  protected:
    void SetUp() override {
        lapitest::SimServerTest<>::SetUp();
        /* Socket answers are answers: the simulator never answers them. */
        for (uint8_t id : {OPEN_SOCKET_APBP_RES, SEND_DATA_APBP_RES, SOCKET_DATA_APBP_IND,
                           CLOSE_SOCKET_APBP_RES, TLS_SESSION_APBP_RES}) {
            Silent(id);
        }
    }

    /* Restarts the server with its diagnostics discarded: for runs whose
     * diagnostics are far too many to keep. */
    void RestartQuiet() {
        srv_->Stop();
        lapitest::ServerOptions options;
        options.discardStderr = true;
        srv_ = std::make_unique<lapitest::ServerProcess>(root_, options);
        ASSERT_TRUE(srv_->StartAndWaitReady());
    }

    bool SetProfile(const std::string &name) {
        return root_.WriteFile(LAPI_SRV_CFG_FILE, "AGPSProfileName=" + name + "\n");
    }

    /* The next socket message of this kind (and link, unless 0). */
    std::optional<SocketMsg> Next(uint8_t subCmdId, uint32_t linkId = 0, int timeoutMs = kWaitMs) {
        auto m = sim_.WaitFor(
            [&](const bpsim::Message &msg) {
                auto s = bpsim::ParseSocketMsg(msg);
                return s && s->subCmdId == subCmdId && (linkId == 0 || s->linkId == linkId);
            },
            timeoutMs);
        if (!m) {
            return std::nullopt;
        }
        return bpsim::ParseSocketMsg(*m);
    }

    /* Opens linkId to host:port; the open answer's result (99: none). */
    int32_t Open(uint32_t linkId, const std::string &host, uint16_t port, uint8_t tid = 1) {
        auto req = bpsim::BuildOpenSocketReq(1, tid, linkId, host, port);
        if (!req || !sim_.Send(*req)) {
            return 99;
        }
        auto rsp = Next(OPEN_SOCKET_APBP_RES, linkId);
        return rsp ? rsp->result : 99;
    }

    /* Data of the indications of linkId until n bytes or a result -1. */
    std::vector<SocketMsg> CollectData(uint32_t linkId, size_t n) {
        std::vector<SocketMsg> inds;
        size_t got = 0;
        while (got < n) {
            auto ind = Next(SOCKET_DATA_APBP_IND, linkId);
            if (!ind) {
                break;
            }
            got += ind->data.size();
            inds.push_back(*ind);
            if (ind->result != 0) {
                break;
            }
        }
        return inds;
    }

    bool WriteNapi(const Bytes &bytes) { return lapitest::WriteNapiFifo(root_, bytes); }
    static Bytes NapiRecord(uint16_t msgId, uint8_t napiLink, size_t length = NAPI_NOTIFY_MSG_LEN) {
        return lapitest::NapiRecord(msgId, napiLink, "AGPS", length);
    }
};

/* ---- open, data both ways, close ------------------------------------------ */

TEST_F(NetworkProxy, OpenByIpv4AddressCarriesDataBothWaysAndCloses) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port(), 3));
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(2, 4, 5, Text("hello, server"))));
    auto sent = Next(SEND_DATA_APBP_RES, 5);
    ASSERT_TRUE(sent);
    EXPECT_EQ(2, sent->sessionId);
    EXPECT_EQ(4, sent->transactionId);
    EXPECT_EQ(0, sent->result);
    std::vector<SocketMsg> inds = CollectData(5, 13);
    Bytes echoed;
    for (const SocketMsg &m : inds) {
        echoed.insert(echoed.end(), m.data.begin(), m.data.end());
        EXPECT_EQ(0, m.result);
    }
    EXPECT_EQ(Text("hello, server"), echoed);
    EXPECT_EQ(Text("hello, server"), peer.Received());

    ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(6, 7, 5)));
    auto closed = Next(CLOSE_SOCKET_APBP_RES, 5);
    ASSERT_TRUE(closed);
    EXPECT_EQ(6, closed->sessionId);
    EXPECT_EQ(7, closed->transactionId);
    EXPECT_EQ(0, closed->result);
    EXPECT_TRUE(peer.WaitAllClosed(kWaitMs));
}

TEST_F(NetworkProxy, OpenByTheNameLocalhost) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(8, "localhost", peer.Port()));
    EXPECT_TRUE(srv_->WaitForTrace("DNS Name : localhost"));
    EXPECT_TRUE(peer.WaitAccepted(1, kWaitMs));
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, 2, 8, Text("x"))));
    std::vector<SocketMsg> inds = CollectData(8, 1);
    ASSERT_EQ(1u, inds.size());
    EXPECT_EQ(Text("x"), inds[0].data);
}

TEST_F(NetworkProxy, ReceivedDataArrivesInPiecesOfAtMost235Bytes) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port()));
    ASSERT_TRUE(peer.WaitAccepted(1, kWaitMs));
    Bytes sent(1000);
    for (size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<uint8_t>(i * 7);
    }
    ASSERT_TRUE(peer.Send(sent));
    std::vector<SocketMsg> inds = CollectData(5, sent.size());
    Bytes got;
    for (const SocketMsg &m : inds) {
        EXPECT_LE(m.data.size(), 235u);
        EXPECT_EQ(0, m.sessionId);
        EXPECT_EQ(0, m.transactionId);
        got.insert(got.end(), m.data.begin(), m.data.end());
    }
    EXPECT_EQ(sent, got);
    EXPECT_GE(inds.size(), 5u);
}

TEST_F(NetworkProxy, PeerThatClosesAtOnceIsReportedWithMinus1) {
    TcpPeer peer(TcpPeer::Mode::CloseAtOnce);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port()));
    auto ind = Next(SOCKET_DATA_APBP_IND, 5);
    ASSERT_TRUE(ind);
    EXPECT_EQ(-1, ind->result);
    EXPECT_TRUE(ind->data.empty());
    /* The entry is gone: a send to it fails. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, 9, 5, Text("late"))));
    auto rsp = Next(SEND_DATA_APBP_RES, 5);
    ASSERT_TRUE(rsp);
    EXPECT_EQ(-1, rsp->result);
}

TEST_F(NetworkProxy, RefusedPortIsAnsweredMinus1) {
    uint16_t port = lapitest::RefusedPort();
    ASSERT_NE(0, port);
    EXPECT_EQ(-1, Open(5, "127.0.0.1", port));
}

TEST_F(NetworkProxy, SixteenSocketsAtMostAndTheSeventeenthIsRefused) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    for (uint32_t link = 1; link <= 16; ++link) {
        ASSERT_EQ(0, Open(link, "127.0.0.1", peer.Port())) << link;
    }
    EXPECT_EQ(-1, Open(17, "127.0.0.1", peer.Port()));
    EXPECT_TRUE(srv_->WaitForTrace("No available resource for new socket"));
    /* Closing one makes room again. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(1, 1, 3)));
    ASSERT_TRUE(Next(CLOSE_SOCKET_APBP_RES, 3));
    EXPECT_EQ(0, Open(18, "127.0.0.1", peer.Port()));
}

TEST_F(NetworkProxy, CloseIsDeferredUntilTheQueuedDataIsWritten) {
    ASSERT_NO_FATAL_FAILURE(RestartQuiet());
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    peer.Pause(true);
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port()));
    /* Send until a send stays unanswered behind a busy write buffer. A
     * close of an unknown link after each batch is answered at once, in
     * order: by then every send that could be written was answered. */
    const Bytes chunk(1000, 'q');
    size_t sends = 0;
    size_t answered = 0;
    bool bQueued = false;
    for (int batch = 0; batch < 400 && !bQueued; ++batch) {
        for (int i = 0; i < 20; ++i, ++sends) {
            ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, 1, 5, chunk)));
        }
        ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(1, 1, 999)));
        ASSERT_TRUE(Next(CLOSE_SOCKET_APBP_RES, 999));
        while (Next(SEND_DATA_APBP_RES, 5, 0)) {
            ++answered;
        }
        bQueued = answered < sends;
    }
    ASSERT_TRUE(bQueued);
    for (int i = 0; i < 5; ++i, ++sends) {
        ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, 1, 5, chunk)));
    }
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(2, 2, 5, Text("last"))));
    ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(8, 9, 5)));
    ++sends;
    peer.Pause(false);
    auto closed = Next(CLOSE_SOCKET_APBP_RES, 0, 20000);
    ASSERT_TRUE(closed);
    EXPECT_EQ(0, closed->sessionId) << "answered with the ids of the zeroed entry";
    EXPECT_EQ(0, closed->transactionId);
    EXPECT_EQ(0u, closed->linkId);
    EXPECT_EQ(0, closed->result);
    /* Every send was answered before the close, the last one last. */
    std::vector<bpsim::Message> history = sim_.History();
    std::vector<SocketMsg> rsps;
    for (const bpsim::Message &m : history) {
        auto s = bpsim::ParseSocketMsg(m);
        if (s && s->linkId != 999 &&
            (s->subCmdId == SEND_DATA_APBP_RES || s->subCmdId == CLOSE_SOCKET_APBP_RES)) {
            rsps.push_back(*s);
        }
    }
    ASSERT_EQ(sends + 1, rsps.size());
    EXPECT_EQ(CLOSE_SOCKET_APBP_RES, rsps.back().subCmdId);
    EXPECT_EQ(2, rsps[rsps.size() - 2].sessionId);
    EXPECT_TRUE(std::all_of(rsps.begin(), rsps.end() - 1,
                            [](const SocketMsg &m) { return m.result == 0; }));
    const size_t total = (sends - 1) * chunk.size() + 4;
    ASSERT_TRUE(peer.WaitReceived(total, kWaitMs));
    Bytes received = peer.Received();
    ASSERT_EQ(total, received.size());
    EXPECT_EQ(Text("last"), Bytes(received.end() - 4, received.end()))
        << "the queued data was written before the close";
    EXPECT_TRUE(peer.WaitAllClosed(kWaitMs));
}

TEST_F(NetworkProxy, TlsSessionRequestForAnUnknownLinkIsAnsweredWithSetUpFailure) {
    auto req = bpsim::BuildTlsSessionReq(1, 2, 44, "supl.example");
    ASSERT_TRUE(req);
    ASSERT_TRUE(sim_.Send(*req));
    auto rsp = Next(TLS_SESSION_APBP_RES, 44);
    ASSERT_TRUE(rsp);
    EXPECT_EQ(1, rsp->result);
}

/* ---- the link stand-in ------------------------------------------------------ */

TEST_F(NetworkProxy, FailProfileIsDialledFourTimesThenRefused) {
    ASSERT_TRUE(SetProfile("FAIL_NET"));
    EXPECT_EQ(-1, Open(5, "127.0.0.1", 9));
    ASSERT_TRUE(srv_->WaitForTrace("has tried to dial gprs four times totally"));
    EXPECT_EQ(4u, srv_->CountTraces("NAPI_RESULT_FAIL_MSGID received"));
    EXPECT_EQ(4u, srv_->CountTraces("AGPSProfileName = FAIL_NET"));
    EXPECT_EQ(1u, srv_->CountTraces("has tried to dial gprs four times totally"));
}

TEST_F(NetworkProxy, ProfileChangedInTheConfigurationFileWithoutRestart) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    ASSERT_TRUE(SetProfile("FAIL_NET"));
    EXPECT_EQ(-1, Open(5, "127.0.0.1", peer.Port()));
    ASSERT_TRUE(SetProfile("INTERNET"));
    EXPECT_EQ(0, Open(6, "127.0.0.1", peer.Port()));
    EXPECT_TRUE(srv_->WaitForTrace("AGPSProfileName = INTERNET"));
    EXPECT_TRUE(srv_->WaitForTrace("name is INTERNET"));
}

TEST_F(NetworkProxy, LinkLostRecordReportsMinus1AndClosesTheSocket) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port()));
    ASSERT_TRUE(peer.WaitAccepted(1, kWaitMs));
    /* The first link handle of the stand-in is 1. */
    ASSERT_TRUE(WriteNapi(NapiRecord(NAPI_LINK_LOST_MSGID, 1)));
    auto ind = Next(SOCKET_DATA_APBP_IND, 5);
    ASSERT_TRUE(ind);
    EXPECT_EQ(-1, ind->result);
    EXPECT_TRUE(ind->data.empty());
    EXPECT_TRUE(peer.WaitAllClosed(kWaitMs));
}

TEST_F(NetworkProxy, RecordsOfTheWrongLengthAreDiscarded) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port())); /* the FIFO exists from now on */
    ASSERT_TRUE(WriteNapi(NapiRecord(NAPI_LINK_LOST_MSGID, 1, 50)));
    EXPECT_TRUE(srv_->WaitForError("msg len is not sizeof NAPI_NOTIFY_MSG_S"));
    EXPECT_TRUE(srv_->WaitForError("Fail to process message for pFdops!"));
    /* The socket still works. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, 2, 5, Text("ok"))));
    EXPECT_EQ(1u, CollectData(5, 2).size());
}

TEST_F(NetworkProxy, RecordsForUnknownLinksAreIgnored) {
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    ASSERT_EQ(0, Open(5, "127.0.0.1", peer.Port()));
    ASSERT_TRUE(WriteNapi(NapiRecord(NAPI_LINK_LOST_MSGID, 200)));
    EXPECT_TRUE(srv_->WaitForTrace("ParseNapiMsg: NO available pSocketInfo found!"));
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, 2, 5, Text("ok"))));
    std::vector<SocketMsg> inds = CollectData(5, 2);
    ASSERT_EQ(1u, inds.size());
    EXPECT_EQ(0, inds[0].result) << "the link of socket 5 was not touched";
}

/* ---- bpsim's network commands --------------------------------------------- */

TEST(BpSimNetworkCommands, OpenSendReceiveAndCloseThroughTheCommandLine) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    lapitest::BpSimProgram bp(root.Dir(), {"--quiet"});
    ASSERT_FALSE(bp.WaitLine("bpsim: ready").empty());
    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());

    ASSERT_TRUE(bp.Command("sockopen 5 127.0.0.1 " + std::to_string(peer.Port())));
    EXPECT_EQ("bpsim: socket open-rsp sid 1 tid 1 link 5 result 0",
              bp.WaitLine("bpsim: socket open-rsp"));
    ASSERT_TRUE(bp.Command("socktext 5 hi"));
    EXPECT_EQ("bpsim: socket send-rsp sid 1 tid 2 link 5 result 0",
              bp.WaitLine("bpsim: socket send-rsp"));
    EXPECT_EQ("bpsim: socket data link 5 len 2 result 0 data 68 69",
              bp.WaitLine("bpsim: socket data"));
    ASSERT_TRUE(bp.Command("socksend 5 0a0b"));
    EXPECT_EQ("bpsim: socket data link 5 len 2 result 0 data 0a 0b",
              bp.WaitLine("bpsim: socket data"));
    ASSERT_TRUE(bp.Command("socktls 9 supl.example"));
    EXPECT_EQ("bpsim: socket tls-rsp sid 1 tid 4 link 9 result 1",
              bp.WaitLine("bpsim: socket tls-rsp"));
    ASSERT_TRUE(bp.Command("sockclose 5"));
    EXPECT_EQ("bpsim: socket close-rsp sid 1 tid 5 link 5 result 0",
              bp.WaitLine("bpsim: socket close-rsp"));
    ASSERT_TRUE(bp.Command("sockopen 6 localhost " + std::to_string(lapitest::RefusedPort())));
    EXPECT_EQ("bpsim: socket open-rsp sid 1 tid 6 link 6 result -1",
              bp.WaitLine("bpsim: socket open-rsp"));
    EXPECT_TRUE(peer.WaitAllClosed(kWaitMs));
    srv.Stop();
    EXPECT_EQ(0, bp.Stop());
}

/* ---- soak ---------------------------------------------------------------------- */

/* 10 000 open, send, receive, close cycles against one echo server: the
 * server's descriptor count stays where it was after the first cycle. */
TEST_F(NetworkProxy, SoakOf10000CyclesKeepsTheDescriptorCount) {
    ASSERT_NO_FATAL_FAILURE(RestartQuiet());
    TcpPeer peer(TcpPeer::Mode::Echo);
    ASSERT_TRUE(peer.ok());
    const Bytes payload = Text("soak payload");
    size_t fdsAfterFirst = 0;
    const int kCycles = 10000;
    for (int i = 0; i < kCycles; ++i) {
        const uint32_t link = 1000 + static_cast<uint32_t>(i);
        const uint8_t tid = static_cast<uint8_t>(i);
        ASSERT_EQ(0, Open(link, "127.0.0.1", peer.Port(), tid)) << i;
        ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(1, tid, link, payload)));
        auto sent = Next(SEND_DATA_APBP_RES, link);
        ASSERT_TRUE(sent) << i;
        ASSERT_TRUE(CollectData(link, payload.size()).size() >= 1) << i;
        ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(1, tid, link)));
        ASSERT_TRUE(Next(CLOSE_SOCKET_APBP_RES, link)) << i;
        sim_.ClearHistory();
        if (i == 0) {
            fdsAfterFirst = lapitest::OpenFdCountOf(srv_->Pid());
        }
    }
    EXPECT_EQ(fdsAfterFirst, lapitest::OpenFdCountOf(srv_->Pid()));
    EXPECT_GE(peer.Accepted(), static_cast<size_t>(kCycles));
    printf("soak: %d cycles, %zu descriptors in the server after the first and the last\n", kCycles,
           fdsAfterFirst);
}

}  // namespace
