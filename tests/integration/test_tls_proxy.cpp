/*
 * TLS on the BP's connections end to end: lapi_srv_host with bpsim on its
 * channel, openssl s_server on 127.0.0.1 speaking TLS 1.0 with leaf
 * certificates made at run time, and the test CA in ROOT/etc/certs.
 *
 * The engine connects to 127.0.0.1 and asks for TLS with a host name of its
 * own (serverName): the name checked against the certificate is never the
 * one used to connect, so no resolver entry is needed.
 */
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <optional>
#include <string>
#include <vector>

#include "BpSim.h"
#include "BpSimNet.h"
#include "LAPI_BpMsg.h"
#include "LocSvcEnv.h"
#include "TcpPeer.h"
#include "TlsPeer.h"

namespace {

using bpsim::Bytes;
using bpsim::SocketMsg;
using lapitest::LeafSpec;
using lapitest::TcpPeer;
using lapitest::TestPki;
using lapitest::TlsServer;
using locsvc::kWaitMs;

TestPki &Pki() {
    static TestPki pki;
    return pki;
}

constexpr uint32_t kLink = 5;

class TlsProxy : public locsvc::LocSvcTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Pki().ok());
        locsvc::LocSvcTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(Pki().InstallCa(root_.Path("/etc/certs")));
        for (uint8_t id : {OPEN_SOCKET_APBP_RES, SEND_DATA_APBP_RES, SOCKET_DATA_APBP_IND,
                           CLOSE_SOCKET_APBP_RES, TLS_SESSION_APBP_RES}) {
            Silent(id);
        }
    }

    std::optional<SocketMsg> NextSock(uint8_t subCmdId, int timeoutMs = kWaitMs) {
        auto m = sim_.WaitFor(
            [&](const bpsim::Message &msg) {
                auto s = bpsim::ParseSocketMsg(msg);
                return s && s->subCmdId == subCmdId;
            },
            timeoutMs);
        return m ? bpsim::ParseSocketMsg(*m) : std::nullopt;
    }

    bool Open(uint16_t port) {
        auto req = bpsim::BuildOpenSocketReq(1, 1, kLink, "127.0.0.1", port);
        if (!req || !sim_.Send(*req)) {
            return false;
        }
        auto rsp = NextSock(OPEN_SOCKET_APBP_RES);
        return rsp && rsp->result == 0;
    }

    /* The TLS answer's result; -1 when none came in time. */
    int Tls(const std::string &serverName, uint32_t linkId = kLink, int timeoutMs = kWaitMs) {
        auto req = bpsim::BuildTlsSessionReq(7, 8, linkId, serverName);
        if (!req || !sim_.Send(*req)) {
            return -1;
        }
        auto rsp = NextSock(TLS_SESSION_APBP_RES, timeoutMs);
        if (!rsp) {
            return -1;
        }
        EXPECT_EQ(7, rsp->sessionId);
        EXPECT_EQ(8, rsp->transactionId);
        EXPECT_EQ(linkId, rsp->linkId);
        return rsp->result;
    }

    /* A TLS server with this certificate, and the socket to it open. */
    bool Serve(const LeafSpec &spec) {
        server_ = std::make_unique<TlsServer>(Pki().Leaf(spec));
        return server_->Start() && Open(static_cast<uint16_t>(server_->Port()));
    }

    /* Data of the indications until n bytes or a failure result. */
    Bytes Received(size_t n) {
        Bytes got;
        while (got.size() < n) {
            auto ind = NextSock(SOCKET_DATA_APBP_IND);
            if (!ind) {
                break;
            }
            got.insert(got.end(), ind->data.begin(), ind->data.end());
            if (ind->result != 0) {
                break;
            }
        }
        return got;
    }

    std::unique_ptr<TlsServer> server_;
};

/* ---- host-name checks: one row per rule ----------------------------------- */

struct NameCase {
    const char *legend;
    std::vector<std::string> commonNames;
    std::vector<std::string> dnsNames;
    bool bmpString;
    bool critical;
    const char *serverName;
    int result;
};

/* ctest shows the legend, not the bytes of the row. */
void PrintTo(const NameCase &c, std::ostream *os) {
    *os << c.legend;
}

LeafSpec SpecOf(const NameCase &c) {
    LeafSpec s;
    s.commonNames = c.commonNames;
    s.dnsNames = c.dnsNames;
    s.bmpString = c.bmpString;
    s.sanCritical = c.critical;
    return s;
}

const NameCase kNameCases[] = {
    {"CommonNameExact", {"supl.example.test"}, {}, false, false, "supl.example.test", 0},
    {"CommonNameWildcard", {"*.example.test"}, {}, false, false, "supl.example.test", 0},
    {"CommonNameFirstLabelIgnored",
     {"other.example.test"},
     {},
     false,
     false,
     "supl.example.test",
     0},
    {"CommonNameParentDomainRefused", {"example.test"}, {}, false, false, "supl.example.test", 2},
    {"CommonNameCaseDiffersRefused",
     {"supl.Example.test"},
     {},
     false,
     false,
     "supl.example.test",
     2},
    {"CommonNameServerNameWithoutDotRefused", {"supl"}, {}, false, false, "supl", 2},
    {"CommonNameBmpString", {"supl.example.test"}, {}, true, false, "supl.example.test", 0},
    {"SubjectAltNameExact",
     {"nobody"},
     {"supl.example.test"},
     false,
     false,
     "supl.example.test",
     0},
    {"SubjectAltNameCaseDiffersRefused",
     {"nobody"},
     {"SUPL.example.test"},
     false,
     false,
     "supl.example.test",
     2},
    {"SubjectAltNameWildcardNotExpanded",
     {"nobody"},
     {"*.example.test"},
     false,
     false,
     "supl.example.test",
     2},
    {"SubjectAltNameCritical",
     {"nobody"},
     {"supl.example.test"},
     false,
     true,
     "supl.example.test",
     0},
    {"SubjectAltNameLastOfSeveral",
     {"nobody"},
     {"a.example.test", "b.example.test", "supl.example.test"},
     false,
     false,
     "supl.example.test",
     0},
    {"SubjectAltNameForADotlessName", {"nobody"}, {"supl"}, false, false, "supl", 0},
};

class TlsNameCheck : public TlsProxy, public ::testing::WithParamInterface<NameCase> {};

TEST_P(TlsNameCheck, HandshakeAnswer) {
    const NameCase &c = GetParam();
    ASSERT_TRUE(Serve(SpecOf(c)));
    EXPECT_EQ(c.result, Tls(c.serverName));
    if (c.result == 2) {
        EXPECT_TRUE(srv_->WaitForTrace("TLShandshake -- Failure", kWaitMs));
    } else {
        EXPECT_TRUE(server_->WaitOutput("Protocol version: TLSv1"));
    }
}

INSTANTIATE_TEST_SUITE_P(Rules, TlsNameCheck, ::testing::ValuesIn(kNameCases),
                         [](const ::testing::TestParamInfo<NameCase> &i) {
                             return std::string(i.param.legend);
                         });

TEST_F(TlsProxy, CertificateWithoutExtensionsAndWrongCommonNameIsRefused) {
    LeafSpec spec;
    spec.commonNames = {"nobody"};
    spec.extensions = false;
    ASSERT_TRUE(Serve(spec));
    EXPECT_EQ(2, Tls("supl.example.test"));
    EXPECT_TRUE(srv_->WaitForError("certificate have no extensions!", kWaitMs));
}

TEST_F(TlsProxy, UntrustedChainIsRefused) {
    LeafSpec spec;
    spec.commonNames = {"supl.example.test"};
    spec.untrusted = true;
    ASSERT_TRUE(Serve(spec));
    EXPECT_EQ(2, Tls("supl.example.test"));
    EXPECT_TRUE(srv_->WaitForTraceContaining("chainTrusted:0", kWaitMs));
}

/* ---- requests ----------------------------------------------------------------- */

TEST_F(TlsProxy, RequestForAnUnknownLinkIsAnswered1) {
    EXPECT_EQ(1, Tls("supl.example.test", 77));
    EXPECT_TRUE(srv_->WaitForError("pSocketInfo == NULL", kWaitMs));
}

TEST_F(TlsProxy, RequestWithNoNameIsAnsweredNotAtAll) {
    ASSERT_TRUE(Serve(LeafSpec{}));
    auto req = bpsim::BuildTlsSessionReq(7, 8, kLink, "");
    ASSERT_TRUE(req && sim_.Send(*req));
    EXPECT_FALSE(NextSock(TLS_SESSION_APBP_RES, 500));
    /* The socket is still there, plain: data goes through unencrypted. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(2, 3, kLink, {'x'})));
    auto sent = NextSock(SEND_DATA_APBP_RES);
    ASSERT_TRUE(sent);
    EXPECT_EQ(0, sent->result);
}

TEST_F(TlsProxy, RequestShorterThan8BytesIsIgnored) {
    ASSERT_TRUE(Serve(LeafSpec{}));
    Bytes shortReq{TLS_SESSION_BPAP_REQ, 7, 8, 0, 0, 0, kLink};
    ASSERT_TRUE(sim_.Send(shortReq));
    EXPECT_TRUE(
        srv_->WaitForError("Received tls session BP Msg length: 7 is not expected: 8!", kWaitMs));
    EXPECT_FALSE(NextSock(TLS_SESSION_APBP_RES, 300));
}

/* ---- the session -------------------------------------------------------------- */

TEST_F(TlsProxy, PeerThatClosesDuringTheHandshakeIsAnswered2) {
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_TRUE(Open(peer.Port()));
    auto req = bpsim::BuildTlsSessionReq(7, 8, kLink, "supl.example.test");
    ASSERT_TRUE(req && sim_.Send(*req));
    ASSERT_TRUE(peer.WaitReceived(1, kWaitMs)) << "the client hello went out";
    peer.CloseConnections();
    auto rsp = NextSock(TLS_SESSION_APBP_RES);
    ASSERT_TRUE(rsp);
    EXPECT_EQ(2, rsp->result);
    EXPECT_TRUE(srv_->WaitForError("ret == 0, Read 0 byte!", kWaitMs));
}

TEST_F(TlsProxy, DataGoesBothWaysOverTls) {
    LeafSpec spec;
    spec.commonNames = {"*.example.test"};
    ASSERT_TRUE(Serve(spec));
    ASSERT_EQ(0, Tls("supl.example.test"));
    std::string text = "GET /supl HTTP/1.0\n";
    ASSERT_TRUE(sim_.Send(bpsim::BuildSendDataReq(2, 3, kLink, Bytes(text.begin(), text.end()))));
    auto sent = NextSock(SEND_DATA_APBP_RES);
    ASSERT_TRUE(sent);
    EXPECT_EQ(0, sent->result);
    std::string back(text.rbegin() + 1, text.rend());
    back += "\n";
    Bytes got = Received(back.size());
    EXPECT_EQ(back, std::string(got.begin(), got.end()));
    /* The bytes on the wire were TLS records, not the text. */
    EXPECT_TRUE(server_->WaitOutput("Ciphersuite: AES128-SHA"));
}

TEST_F(TlsProxy, CloseOfATlsSocketEndsTheSessionAndTheConnection) {
    LeafSpec spec;
    spec.commonNames = {"*.example.test"};
    ASSERT_TRUE(Serve(spec));
    ASSERT_EQ(0, Tls("supl.example.test"));
    ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(4, 5, kLink)));
    auto rsp = NextSock(CLOSE_SOCKET_APBP_RES);
    ASSERT_TRUE(rsp);
    EXPECT_EQ(0, rsp->result);
    EXPECT_TRUE(srv_->WaitForTrace("Enter LAPI_SRV_CloseTlsSession", kWaitMs));
    EXPECT_TRUE(server_->WaitOutput("CONNECTION CLOSED"));
}

TEST_F(TlsProxy, OpenSslIsLoadedByTheFirstTlsRequestNotBefore) {
    /* Up and answering, a socket open: still no OpenSSL. */
    LeafSpec spec;
    spec.commonNames = {"*.example.test"};
    ASSERT_TRUE(Serve(spec));
    ASSERT_TRUE(srv_->Pid() > 0);
    EXPECT_TRUE(lapitest::ProcessMaps(srv_->Pid(), "lapi_srv_host"));
    EXPECT_FALSE(lapitest::ProcessMaps(srv_->Pid(), "libcrypto"));
    EXPECT_FALSE(lapitest::ProcessMaps(srv_->Pid(), "libssl"));
    ASSERT_EQ(0, Tls("supl.example.test"));
    EXPECT_TRUE(lapitest::ProcessMaps(srv_->Pid(), "libcrypto"));
    EXPECT_TRUE(lapitest::ProcessMaps(srv_->Pid(), "libssl"));
}

TEST_F(TlsProxy, HandshakeNeverBlocksTheLoop) {
    /* A peer that takes the client hello and never answers. */
    TcpPeer peer(TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    ASSERT_TRUE(Open(peer.Port()));
    auto req = bpsim::BuildTlsSessionReq(7, 8, kLink, "supl.example.test");
    ASSERT_TRUE(req && sim_.Send(*req));
    ASSERT_TRUE(peer.WaitReceived(1, kWaitMs));
    /* Meanwhile a client's location request is answered. */
    auto c = NewClient();
    GetLocationReq r = locsvc::MakeGetLocation(1, 1, 1);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, locsvc::BodyOf(r)));
    EXPECT_EQ(locsvc::ExpectedLocationRsp(1, 1, locsvc::SampleFix()), Next(c->Sync()));
    EXPECT_FALSE(NextSock(TLS_SESSION_APBP_RES, 100)) << "the handshake is still waiting";
    /* The engine gives up: the half-made session goes with the socket. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildCloseSocketReq(4, 5, kLink)));
    EXPECT_TRUE(NextSock(CLOSE_SOCKET_APBP_RES));
}

}  // namespace
