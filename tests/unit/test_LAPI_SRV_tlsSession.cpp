/*
 * The TLS session on a BP socket, in process: the BP's TLS request on a
 * socket connected to openssl s_server (or to a TCP peer that misbehaves),
 * the handshake driven by turns of the loop, data over TLS, close; and the
 * I/O callbacks on their own over socket pairs.
 */
#include <errno.h>
#include <signal.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LAPI_BpMsg.h"
#include "LAPI_SRV_tls.h"
#include "NetTestHarness.h"
#include "ServerFixture.h"
#include "TcpPeer.h"
#include "TlsPeer.h"

namespace {

using lapitest::LeafSpec;
using lapitest::StderrCapture;
using lapitest::TcpPeer;
using lapitest::TestPki;
using lapitest::TlsServer;
using nettest::Bp;
using nettest::Bytes;
using nettest::kLoopback;
using nettest::NetHarness;

TestPki &Pki() {
    static TestPki pki;
    return pki;
}

Bytes TlsRes(uint8_t sid, uint8_t tid, uint32_t linkId, uint8_t result) {
    Bytes m{TLS_SESSION_APBP_RES, sid, tid};
    nettest::PutBe(m, linkId, 4);
    m.push_back(result);
    return m;
}

class TlsSession : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Pki().ok());
        ASSERT_TRUE(Pki().InstallCa(h.root_.Path("/etc/certs")));
    }

    /* Opens linkId to 127.0.0.1:port; true when the open is answered 0. */
    bool Open(uint32_t linkId, uint16_t port) {
        Bp(nettest::OpenReqIpv4(1, 1, linkId, kLoopback, port));
        if (!h.PumpForBp(OPEN_SOCKET_APBP_RES)) {
            return false;
        }
        Bytes m = h.SeenOf(OPEN_SOCKET_APBP_RES).back();
        return LAPI_BpGetU32(m.data() + 7) == 0;
    }

    /* The TLS answers of the BP so far. */
    std::vector<Bytes> TlsAnswers() { return h.SeenOf(TLS_SESSION_APBP_RES); }

    /* Sends the TLS request and pumps until it is answered; the answer's
     * result, or -1 when none came. */
    int RequestTls(uint32_t linkId, const std::string &name, uint8_t sid = 3, uint8_t tid = 4) {
        size_t before = TlsAnswers().size();
        Bp(nettest::TlsReq(sid, tid, linkId, name));
        if (!NetHarness::PumpUntil([&] { return TlsAnswers().size() > before; }, 10000)) {
            return -1;
        }
        return TlsAnswers().back().back();
    }

    /* A server with this leaf, connected on linkId 7. */
    bool Connect(const LeafSpec &spec) {
        server_ = std::make_unique<TlsServer>(Pki().Leaf(spec));
        return server_->Start() && Open(7, static_cast<uint16_t>(server_->Port()));
    }

    NetHarness h;
    std::unique_ptr<TlsServer> server_;
};

LeafSpec Cn(const std::string &cn) {
    LeafSpec s;
    s.commonNames = {cn};
    return s;
}

/* ---- set-up and handshake ------------------------------------------------- */

TEST_F(TlsSession, HandshakeRunsInTheLoopAndAnswersResult0Once) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    StderrCapture cap;
    /* The peer cannot answer before the request returns. */
    server_->Pause(true);
    Bp(nettest::TlsReq(3, 4, 7, "supl.example.test"));
    /* No answer from the request itself: the handshake waits for the peer. */
    EXPECT_TRUE(TlsAnswers().empty());
    server_->Pause(false);
    SocketInfo *p = GetSocketInfoByLinkId(7);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(LAPI_SRV_SOCK_TLS_HANDSHAKE, p->fdStatus);
    EXPECT_EQ(&LAPI_SRV_DoTlsHandshake, p->pFdops->readProc);
    EXPECT_EQ(&LAPI_SRV_DoTlsHandshake, p->pFdops->writeProc);
    ASSERT_TRUE(NetHarness::PumpUntil([&] { return !TlsAnswers().empty(); }, 10000));
    EXPECT_EQ((std::vector<Bytes>{TlsRes(3, 4, 7, 0)}), TlsAnswers());
    EXPECT_EQ(LAPI_SRV_SOCK_CONNECTED, p->fdStatus);
    EXPECT_EQ(1, p->bIsTlsSession);
    EXPECT_EQ(&LAPI_SRV_ReadNetworkMsg, p->pFdops->readProc);
    EXPECT_EQ(&LAPI_SRV_WriteNetworkMsg, p->pFdops->writeProc);
    EXPECT_STREQ("supl.example.test", p->serverName);
    EXPECT_TRUE(cap.HasTrace("TLShandshake -- Successfull"));
    EXPECT_TRUE(cap.HasTrace("Negotiated cipher is : 47."));
    EXPECT_TRUE(cap.HasTrace("Negotiated protocol version is : 769."));
    EXPECT_TRUE(cap.HasTrace("chainResult:0,  chainTrusted:1"));
}

TEST_F(TlsSession, SetUpTracesComeInTheDesignedOrder) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    StderrCapture cap;
    Bp(nettest::TlsReq(3, 4, 7, "supl.example.test"));
    std::vector<std::string> want = {"Entering SSLOpen ",
                                     "TLSInitContext & TLSInitCMContext completed ",
                                     "TLSEnableNonBlocking completed ",
                                     "TLSSetOption certificates completed",
                                     "TLSAddRootCertificates completed",
                                     "Starting TLShandshake"};
    std::vector<std::string> traces = cap.Traces();
    size_t at = 0;
    for (const std::string &t : traces) {
        if (at < want.size() && t == want[at]) {
            ++at;
        }
    }
    EXPECT_EQ(want.size(), at) << cap.Text();
    /* No set-up step failed. */
    for (const std::string &e : cap.Errors()) {
        EXPECT_NE(0u, e.rfind("Could not", 0)) << e;
        EXPECT_NE(0u, e.rfind("fail to load", 0)) << e;
    }
}

TEST_F(TlsSession, ParentDomainCommonNameFailsTheHandshakeWithResult2AndCloses) {
    ASSERT_TRUE(Connect(Cn("example.test")));
    StderrCapture cap;
    EXPECT_EQ(2, RequestTls(7, "supl.example.test"));
    EXPECT_EQ(TlsRes(3, 4, 7, 2), TlsAnswers().back());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7)) << "the socket is closed";
    EXPECT_TRUE(cap.HasTrace("TLShandshake -- Failure"));
}

/* The whole line of the capture that holds this text, or "". */
std::string LineWith(const std::string &text, const std::string &needle) {
    size_t at = text.find(needle);
    if (at == std::string::npos) {
        return "";
    }
    size_t from = text.rfind('\n', at);
    size_t to = text.find('\n', at);
    from = from == std::string::npos ? 0 : from + 1;
    return text.substr(from, to == std::string::npos ? std::string::npos : to - from);
}

/* Whether a trace line is written in the name of one of the two procedures
 * that run a handshake. */
bool NamesAHandshakeProcedure(const std::string &line) {
    return line.find(", LAPI_SRV_DoTlsHandshake()\t") != std::string::npos ||
           line.find(", LAPI_SRV_CreateTlsSession()\t") != std::string::npos;
}

TEST_F(TlsSession, HandshakeLinesNameTheProcedureThatRanTheHandshake) {
    ASSERT_TRUE(Connect(Cn("example.test")));
    StderrCapture cap;
    EXPECT_EQ(2, RequestTls(7, "supl.example.test"));
    std::string text = cap.Text();
    for (const char *needle : {"TLShandshake -- Failure",
                               "Negotiated cipher is : ", "Negotiated protocol version is : "}) {
        std::string line = LineWith(text, needle);
        ASSERT_FALSE(line.empty()) << needle << " missing in:\n" << text;
        EXPECT_TRUE(NamesAHandshakeProcedure(line)) << line;
    }
}

TEST_F(TlsSession, SubjectAltNameAcceptsWhenTheCommonNameFails) {
    LeafSpec spec = Cn("nobody");
    spec.dnsNames = {"supl.example.test"};
    ASSERT_TRUE(Connect(spec));
    EXPECT_EQ(0, RequestTls(7, "supl.example.test"));
}

TEST_F(TlsSession, UntrustedChainFailsTheHandshake) {
    LeafSpec spec = Cn("*.example.test");
    spec.untrusted = true;
    ASSERT_TRUE(Connect(spec));
    StderrCapture cap;
    EXPECT_EQ(2, RequestTls(7, "supl.example.test"));
    EXPECT_FALSE(cap.HasTrace("Enter LAPI_SRV_CheckCertChainFunc"));
}

TEST_F(TlsSession, RequestForAnUnknownLinkIsAnswered1) {
    StderrCapture cap;
    EXPECT_EQ(1, RequestTls(9, "supl.example.test"));
    EXPECT_TRUE(cap.HasError("pSocketInfo == NULL"));
}

TEST_F(TlsSession, RequestWithNoNameIsAnsweredNotAtAll) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    Bp(nettest::TlsReq(3, 4, 7, ""));
    NetHarness::PumpUntil([] { return false; }, 200);
    EXPECT_TRUE(TlsAnswers().empty());
    EXPECT_EQ(LAPI_SRV_SOCK_CONNECTED, GetSocketInfoByLinkId(7)->fdStatus);
}

TEST_F(TlsSession, RequestOnASocketStillDiallingIsRefusedWith1) {
    Bp(nettest::OpenReqIpv4(1, 1, 7, kLoopback, 80)); /* not pumped: no socket yet */
    StderrCapture cap;
    Bp(nettest::TlsReq(3, 4, 7, "supl.example.test"));
    EXPECT_EQ((std::vector<Bytes>{TlsRes(3, 4, 7, 1)}), TlsAnswers());
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7)->pTlsContext);
}

TEST_F(TlsSession, SecondRequestOnASessionIsRefusedWith1AndKeepsTheSession) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    ASSERT_EQ(0, RequestTls(7, "supl.example.test"));
    SocketInfo *p = GetSocketInfoByLinkId(7);
    TLSContext *pCtx = p->pTlsContext;
    EXPECT_EQ(1, RequestTls(7, "supl.example.test"));
    EXPECT_EQ(pCtx, p->pTlsContext);
    EXPECT_EQ(1, p->bIsTlsSession);
    EXPECT_EQ(LAPI_SRV_SOCK_CONNECTED, p->fdStatus) << "the socket stays open";
}

TEST_F(TlsSession, PeerThatClosesDuringTheHandshakeFailsItWith2) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_TRUE(Open(7, peer.Port()));
    StderrCapture cap;
    Bp(nettest::TlsReq(3, 4, 7, "supl.example.test"));
    ASSERT_TRUE(peer.WaitReceived(1, 3000)) << "the client hello went out";
    peer.CloseConnections();
    ASSERT_TRUE(NetHarness::PumpUntil([&] { return !TlsAnswers().empty(); }, 5000));
    EXPECT_EQ(TlsRes(3, 4, 7, 2), TlsAnswers().back());
    EXPECT_TRUE(cap.HasError("ret == 0, Read 0 byte!"));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
}

TEST_F(TlsSession, StalledHandshakeWaitsWithoutAnswerAndTheLoopGoesOn) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_TRUE(Open(7, peer.Port()));
    Bp(nettest::TlsReq(3, 4, 7, "supl.example.test"));
    NetHarness::PumpUntil([] { return false; }, 300);
    EXPECT_TRUE(TlsAnswers().empty());
    EXPECT_EQ(LAPI_SRV_SOCK_TLS_HANDSHAKE, GetSocketInfoByLinkId(7)->fdStatus);
    /* A close of the socket meanwhile releases the half-made session. */
    Bp(nettest::CloseReq(5, 6, 7));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
}

/* ---- data and close --------------------------------------------------------- */

TEST_F(TlsSession, DataGoesBothWaysOverTls) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    ASSERT_EQ(0, RequestTls(7, "supl.example.test"));
    Bp(nettest::SendReq(5, 6, 7, {'p', 'i', 'n', 'g', '\n'}));
    ASSERT_TRUE(h.PumpForBp(SOCKET_DATA_APBP_IND, 5000));
    EXPECT_EQ(nettest::SocketRes(SEND_DATA_APBP_RES, 5, 6, 7, 0),
              h.SeenOf(SEND_DATA_APBP_RES).at(0));
    Bytes got;
    ASSERT_TRUE(NetHarness::PumpUntil([&] {
        got.clear();
        for (const Bytes &m : h.SeenOf(SOCKET_DATA_APBP_IND)) {
            uint32_t n = LAPI_BpGetU32(m.data() + 7);
            got.insert(got.end(), m.begin() + 11, m.begin() + 11 + n);
        }
        return got.size() >= 5;
    }));
    EXPECT_EQ((Bytes{'g', 'n', 'i', 'p', '\n'}), got);
    EXPECT_TRUE(server_->WaitOutput("Protocol version: TLSv1"));
}

TEST_F(TlsSession, CloseOfATlsSocketEndsTheSessionFirst) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    ASSERT_EQ(0, RequestTls(7, "supl.example.test"));
    StderrCapture cap;
    Bp(nettest::CloseReq(5, 6, 7));
    EXPECT_EQ(nettest::SocketRes(CLOSE_SOCKET_APBP_RES, 5, 6, 7, 0),
              h.SeenOf(CLOSE_SOCKET_APBP_RES).at(0));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
    std::vector<std::string> traces = cap.Traces();
    auto close = std::find(traces.begin(), traces.end(), "Enter LAPI_SRV_CloseTlsSession");
    auto sock = std::find(traces.begin(), traces.end(), "Enter LAPI_SRV_CloseSocket");
    ASSERT_NE(traces.end(), close);
    EXPECT_LT(sock - traces.begin(), close - traces.begin());
    EXPECT_TRUE(server_->WaitOutput("CONNECTION CLOSED"));
}

TEST_F(TlsSession, PeerCloseOfATlsSocketIsReportedWithMinus1) {
    ASSERT_TRUE(Connect(Cn("*.example.test")));
    ASSERT_EQ(0, RequestTls(7, "supl.example.test"));
    server_->Stop();
    ASSERT_TRUE(h.PumpForBp(SOCKET_DATA_APBP_IND, 5000));
    Bytes ind = h.SeenOf(SOCKET_DATA_APBP_IND).back();
    EXPECT_EQ(0xFFFFFFFFu, LAPI_BpGetU32(ind.data() + ind.size() - 4));
    EXPECT_EQ(nullptr, GetSocketInfoByLinkId(7));
}

TEST(TlsSessionClose, NullEntryIsRefused) {
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_CloseTlsSession(nullptr));
    EXPECT_TRUE(cap.HasError("pSocketInfo NULL"));
}

/* ---- the I/O callbacks over a socket pair ----------------------------------- */

class TlsCallbacks : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds_));
        fcntl(fds_[0], F_SETFL, O_NONBLOCK);
        info_.fd = fds_[0];
    }
    void TearDown() override {
        close(fds_[0]);
        if (fds_[1] >= 0) {
            close(fds_[1]);
        }
    }
    int Read(uint8_t *buf, uint32_t n, uint32_t *count) {
        TLSBuffer b{n, buf};
        return LAPI_SRV_TLSRead(&b, count, &info_);
    }
    void Peer(const std::string &s) {
        ASSERT_EQ(static_cast<ssize_t>(s.size()), write(fds_[1], s.data(), s.size()));
    }
    void ClosePeer() {
        close(fds_[1]);
        fds_[1] = -1;
    }

    int fds_[2] = {-1, -1};
    SocketInfo info_{};
};

TEST_F(TlsCallbacks, ReadOfTheWholeLengthReturns0) {
    Peer("abcdef");
    uint8_t buf[4];
    uint32_t count = 0;
    StderrCapture cap;
    EXPECT_EQ(0, Read(buf, 4, &count));
    EXPECT_EQ(4u, count);
    EXPECT_TRUE(cap.HasTrace("buffer.length = 4"));
    EXPECT_TRUE(cap.HasTrace("ret > 0, count = 4, ret = 4"));
    EXPECT_TRUE(cap.HasTrace("return no err 4, 4"));
}

TEST_F(TlsCallbacks, ReadWithNothingThereWouldBlock) {
    uint8_t buf[4];
    uint32_t count = 9;
    StderrCapture cap;
    EXPECT_EQ(4, Read(buf, 4, &count));
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(cap.HasError("ret < 0, errno is 11, Resource temporarily unavailable"));
}

TEST_F(TlsCallbacks, ReadOfLessThanAskedIsASuccessWithItsCount) {
    Peer("ab");
    uint8_t buf[8];
    uint32_t count = 0;
    EXPECT_EQ(0, Read(buf, 8, &count));
    EXPECT_EQ(2u, count);
}

TEST_F(TlsCallbacks, PeerClosedWithNothingReadReturns2) {
    ClosePeer();
    uint8_t buf[8];
    uint32_t count = 9;
    StderrCapture cap;
    EXPECT_EQ(2, Read(buf, 8, &count));
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(cap.HasError("ret == 0, Read 0 byte!"));
}

TEST_F(TlsCallbacks, PeerClosedAfterSomeBytesReturns3WithThem) {
    Peer("ab");
    ClosePeer();
    uint8_t buf[8];
    uint32_t count = 0;
    StderrCapture cap;
    EXPECT_EQ(3, Read(buf, 8, &count));
    EXPECT_EQ(2u, count);
    EXPECT_TRUE(cap.HasError("ret == 0, Read 2 byte!"));
}

TEST_F(TlsCallbacks, ReadErrorReturns3) {
    info_.fd = 1000; /* not open */
    uint8_t buf[8];
    uint32_t count = 0;
    StderrCapture cap;
    EXPECT_EQ(3, Read(buf, 8, &count));
    EXPECT_TRUE(cap.HasError("Fail to read, errno is: 9, Bad file descriptor"));
}

TEST_F(TlsCallbacks, WriteOfEverythingReturns0WithTheCount) {
    uint8_t data[] = {1, 2, 3};
    TLSBuffer b{3, data};
    uint32_t count = 0;
    EXPECT_EQ(0, LAPI_SRV_TLSWrite(&b, &count, &info_));
    EXPECT_EQ(3u, count);
}

TEST_F(TlsCallbacks, WriteThatWouldBlockIsAShortSuccessNot4) {
    std::vector<uint8_t> big(1 << 20, 0x55);
    TLSBuffer b{static_cast<uint32_t>(big.size()), big.data()};
    uint32_t count = 0;
    EXPECT_EQ(0, LAPI_SRV_TLSWrite(&b, &count, &info_));
    EXPECT_LT(count, big.size());
}

TEST_F(TlsCallbacks, WriteErrorUsesTheReadWordingAndReturns3) {
    ClosePeer();
    uint8_t data[] = {1, 2, 3};
    TLSBuffer b{3, data};
    uint32_t count = 0;
    StderrCapture cap;
    EXPECT_EQ(3, LAPI_SRV_TLSWrite(&b, &count, &info_));
    EXPECT_TRUE(cap.HasError("Fail to read, errno is: 32, Broken pipe"));
}

TEST_F(TlsCallbacks, RandomCallbackFillsTheBufferAndAlertsAreIgnored) {
    uint8_t a[16] = {}, z[16] = {};
    TLSBuffer b{sizeof(a), a};
    EXPECT_EQ(0, LAPI_SRV_TLSRandomCallback(&b, &info_));
    EXPECT_NE(0, memcmp(a, z, sizeof(a)));
    EXPECT_EQ(0, LAPI_SRV_AlertFunc(2, 40, &info_));
}

TEST_F(TlsCallbacks, WaitBufReadyReportsTheBytesWaiting) {
    Peer("hello");
    StderrCapture cap;
    EXPECT_EQ(1, LAPI_SRV_WaitBufReady(fds_[0]));
    EXPECT_TRUE(cap.HasTrace("NUM : 1"));
    EXPECT_TRUE(cap.HasTrace("nbytes:5"));
    EXPECT_EQ(-1, LAPI_SRV_WaitBufReady(-1));
}

}  // namespace
