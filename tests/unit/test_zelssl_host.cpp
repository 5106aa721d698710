/*
 * The host stand-in of the TLS and certificate libraries on its own: a
 * client context driven over a non-blocking TCP connection to openssl
 * s_server through I/O callbacks of the test's own, and the certificate
 * helpers on certificates made at run time.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "HOST_Root.h"
#include "ServerFixture.h"
#include "TcpPeer.h"
#include "TlsPeer.h"
#include "zelcm.h"
#include "zelssl.h"

using lapitest::LeafFiles;
using lapitest::LeafSpec;
using lapitest::TestPki;
using lapitest::TlsServer;

namespace {

/* The handset's suite list, as the server offers it. */
const uint16_t kHandsetSuites[9] = {0x0048, 0xFF85, 0x0004, 0x0003, 0x0047,
                                    0x0001, 0x002F, 0x0002, 0x000A};

TestPki &Pki() {
    static TestPki pki;
    return pki;
}

struct ChainSeen {
    int calls = 0;
    std::vector<uint8_t> der;
    int32_t chainResult = -1;
    uint8_t chainTrusted = 0xFF;
    int verdict = 0;
};

/* One client session of the stand-in over a TCP socket of the test. */
class Session {
  public:
    Session() : mem_(static_cast<uint8_t *>(CD_malloc(TLSContextSize(), 0))) {}
    ~Session() {
        if (ctx() != nullptr) {
            TLSDeleteContext(ctx());
        }
        if (cm_ != 0) {
            TLSDeleteCMContext(ctx(), &cm_);
        }
        CD_free(mem_, 0);
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    TLSContext *ctx() { return reinterpret_cast<TLSContext *>(mem_); }

    bool Connect(int port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
            return false;
        }
        return fcntl(fd_, F_SETFL, O_NONBLOCK) == 0;
    }

    /* The server's set-up sequence, with the test's callbacks. */
    bool Setup(const uint16_t *suites, size_t nSuites) {
        if (TLSInitContext(ctx(), TLSContextSize(), 0) != 0 || TLSInitCMContext(ctx(), &cm_) != 0 ||
            TLSEnableNonBlocking(ctx()) != 0 || TLSSetReadFunc(ctx(), Read) != 0 ||
            TLSSetIORef(ctx(), this) != 0 || TLSSetWriteFunc(ctx(), Write) != 0 ||
            TLSSetAlertFunc(ctx(), Alert) != 0 || TLSSetAlertRef(ctx(), this) != 0 ||
            TLSSetRandomFunc(ctx(), Random) != 0 || TLSSetRandomRef(ctx(), this) != 0 ||
            TLSSetCheckCertificateChainFunc(ctx(), Chain) != 0 ||
            TLSSetCheckCertificateChainRef(ctx(), this) != 0) {
            return false;
        }
        TLSBuffer list{static_cast<uint32_t>(nSuites * 2),
                       reinterpret_cast<uint8_t *>(const_cast<uint16_t *>(suites))};
        return TLSSetCipherSuites(ctx(), &list) == 0 &&
               TLSSetProtocolVersion(ctx(), TLS_VERSION_1_0) == 0 &&
               TLSSetOption(ctx(), TLS_OPTION_NO_ENFORCE_BASIC_CONSTRAINTS) == 0 &&
               TLSAddRootCertificates(ctx(), &cm_) == 0;
    }
    bool Setup() { return Setup(kHandsetSuites, 9); }

    /* Handshake calls until the result is not "would block"; the count of
     * would-block results in *pWaits. */
    int Handshake(int *pWaits = nullptr) {
        int waits = 0;
        int r;
        int64_t deadline = lapitest::NowMs() + 10000;
        while ((r = TLSHandshake(ctx())) == TLS_RESULT_WOULD_BLOCK &&
               lapitest::NowMs() < deadline) {
            ++waits;
            pollfd p{fd_, POLLIN, 0};
            poll(&p, 1, 100);
        }
        if (pWaits != nullptr) {
            *pWaits = waits;
        }
        return r;
    }

    /* Reads until n bytes came or the time is up. */
    std::string ReadN(size_t n) {
        std::string got;
        int64_t deadline = lapitest::NowMs() + 5000;
        while (got.size() < n && lapitest::NowMs() < deadline) {
            uint8_t buf[256];
            TLSBuffer b{sizeof(buf), buf};
            uint32_t count = 0;
            int r = TLSRead(ctx(), &b, &count);
            got.append(reinterpret_cast<char *>(buf), count);
            if (r == TLS_RESULT_WOULD_BLOCK) {
                pollfd p{fd_, POLLIN, 0};
                poll(&p, 1, 100);
            } else if (r != 0) {
                break;
            }
        }
        return got;
    }

    int fd_ = -1;
    CM_CONTEXT_T cm_ = 0;
    ChainSeen chain;
    int alerts = 0;
    int randomCalls = 0;
    bool closeOnFirstRead = false;

  private:
    static int Read(TLSBuffer *b, uint32_t *count, void *ref) {
        auto *s = static_cast<Session *>(ref);
        *count = 0;
        if (s->closeOnFirstRead) {
            return TLS_RESULT_CLOSED;
        }
        ssize_t n = read(s->fd_, b->data, b->length);
        if (n > 0) {
            *count = static_cast<uint32_t>(n);
            return 0;
        }
        if (n == 0) {
            return TLS_RESULT_CLOSED;
        }
        return errno == EAGAIN ? TLS_RESULT_WOULD_BLOCK : TLS_RESULT_IO_ERROR;
    }
    static int Write(TLSBuffer *b, uint32_t *count, void *ref) {
        auto *s = static_cast<Session *>(ref);
        ssize_t n = write(s->fd_, b->data, b->length);
        *count = n > 0 ? static_cast<uint32_t>(n) : 0;
        return (n >= 0 || errno == EAGAIN) ? 0 : TLS_RESULT_IO_ERROR;
    }
    static int Alert(uint8_t, uint8_t, void *ref) {
        ++static_cast<Session *>(ref)->alerts;
        return 0;
    }
    static int Random(TLSBuffer *b, void *ref) {
        ++static_cast<Session *>(ref)->randomCalls;
        return TLSGenerateRandom(nullptr, b, 0);
    }
    static int Chain(TLSContext *, const TLSBuffer *cert, uint32_t, int32_t result, uint8_t trusted,
                     void *ref) {
        auto *s = static_cast<Session *>(ref);
        ++s->chain.calls;
        s->chain.der.assign(cert->data, cert->data + cert->length);
        s->chain.chainResult = result;
        s->chain.chainTrusted = trusted;
        return s->chain.verdict;
    }

    uint8_t *mem_;
};

/* A root with the test CA among its trusted roots. */
class ZelSslHost : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Pki().ok());
        ASSERT_TRUE(Pki().InstallCa(root_.Path("/etc/certs")));
        ASSERT_EQ(0, HOST_SetRoot(root_.Dir().c_str()));
    }
    void TearDown() override { HOST_SetRoot(""); }

    /* openssl s_server with this leaf, and s_ connected to it and set up. */
    bool Begin(const LeafFiles &leaf) {
        server_ = std::make_unique<TlsServer>(leaf);
        return server_->Start() && s_.Connect(server_->Port()) && s_.Setup();
    }

    lapitest::TempRoot root_;
    std::unique_ptr<TlsServer> server_;
    Session s_;
};

std::string Bytes(const TLSBuffer &b) {
    return std::string(reinterpret_cast<const char *>(b.data), b.length);
}

std::string ExtractCn(const std::vector<uint8_t> &der, uint32_t capacity, int *pResult) {
    std::vector<uint8_t> out(capacity + 1, 0xEE);
    TLSBuffer cert{static_cast<uint32_t>(der.size()), const_cast<uint8_t *>(der.data())};
    TLSBuffer name{capacity, out.data()};
    *pResult = TLSExtractCertificateNameItem(&cert, 0, &name);
    EXPECT_EQ(0xEE, out[capacity]) << "wrote past the capacity";
    return *pResult == 0 ? Bytes(name) : std::string();
}

}  // namespace

TEST(ZelSslHostContext, ContextSizeIs20480AndSmallerMemoryIsRefused) {
    EXPECT_EQ(20480u, TLSContextSize());
    std::vector<uint8_t> mem(64);
    EXPECT_NE(0, TLSInitContext(reinterpret_cast<TLSContext *>(mem.data()), 64, 0));
    EXPECT_NE(0, TLSInitContext(nullptr, TLSContextSize(), 0));
}

TEST(ZelSslHostContext, SettersRefuseAContextThatWasNeverInitialised) {
    std::vector<uint8_t> mem(TLSContextSize(), 0);
    auto *ctx = reinterpret_cast<TLSContext *>(mem.data());
    EXPECT_NE(0, TLSEnableNonBlocking(ctx));
    EXPECT_NE(0, TLSSetProtocolVersion(ctx, TLS_VERSION_1_0));
    EXPECT_NE(0, TLSHandshake(ctx));
}

TEST(ZelSslHostContext, SuitesOpenSslNoLongerKnowsAloneAreRefused) {
    Session s;
    ASSERT_EQ(0, TLSInitContext(s.ctx(), TLSContextSize(), 0));
    const uint16_t unknown[3] = {0x0048, 0xFF85, 0x0047};
    TLSBuffer list{sizeof(unknown), reinterpret_cast<uint8_t *>(const_cast<uint16_t *>(unknown))};
    EXPECT_NE(0, TLSSetCipherSuites(s.ctx(), &list));
    TLSBuffer odd{3, list.data};
    EXPECT_NE(0, TLSSetCipherSuites(s.ctx(), &odd));
}

TEST(ZelSslHostContext, UnknownOptionIsRefused) {
    Session s;
    ASSERT_EQ(0, TLSInitContext(s.ctx(), TLSContextSize(), 0));
    EXPECT_EQ(0, TLSSetOption(s.ctx(), TLS_OPTION_NO_ENFORCE_BASIC_CONSTRAINTS));
    EXPECT_NE(0, TLSSetOption(s.ctx(), 77));
}

TEST(ZelSslHostContext, GenerateRandomFillsTheBuffer) {
    uint8_t a[32] = {}, b[32] = {};
    TLSBuffer ra{sizeof(a), a}, rb{sizeof(b), b};
    TLSBuffer seed{0, nullptr};
    ASSERT_EQ(0, TLSGenerateRandom(&seed, &ra, 0));
    ASSERT_EQ(0, TLSGenerateRandom(&seed, &rb, 0));
    EXPECT_NE(0, memcmp(a, b, sizeof(a)));
}

TEST_F(ZelSslHost, HandshakeAtTls10WithAes128ShaThroughTheCallbacks) {
    LeafFiles leaf = Pki().Leaf(LeafSpec{});
    ASSERT_TRUE(Begin(leaf));
    Session &s = s_;
    ASSERT_EQ(0, s.Handshake());
    EXPECT_EQ(0x002F, TLSGetNegotiatedCipher(s.ctx()));
    EXPECT_EQ(0x0301, TLSGetProtocolVersion(s.ctx()));
    EXPECT_EQ(1, s.randomCalls);
    EXPECT_TRUE(server_->WaitOutput("Protocol version: TLSv1"));
}

TEST_F(ZelSslHost, HandshakeWithASilentPeerWouldBlockInsteadOfWaiting) {
    lapitest::TcpPeer peer(lapitest::TcpPeer::Mode::Sink);
    ASSERT_TRUE(peer.ok());
    Session s;
    ASSERT_TRUE(s.Connect(peer.Port()));
    ASSERT_TRUE(s.Setup());
    int64_t start = lapitest::NowMs();
    EXPECT_EQ(TLS_RESULT_WOULD_BLOCK, TLSHandshake(s.ctx()));
    EXPECT_EQ(TLS_RESULT_WOULD_BLOCK, TLSHandshake(s.ctx()));
    EXPECT_LT(lapitest::NowMs() - start, 2000);
    EXPECT_TRUE(peer.WaitReceived(1, 3000)) << "the client hello went out";
}

TEST_F(ZelSslHost, ChainCallbackGetsThePeerCertificateInDerWithATrustedVerdict) {
    LeafFiles leaf = Pki().Leaf(LeafSpec{});
    ASSERT_TRUE(Begin(leaf));
    Session &s = s_;
    ASSERT_EQ(0, s.Handshake());
    EXPECT_EQ(1, s.chain.calls);
    EXPECT_EQ(TestPki::ReadDer(leaf), s.chain.der);
    EXPECT_EQ(0, s.chain.chainResult);
    EXPECT_EQ(1, s.chain.chainTrusted);
}

TEST_F(ZelSslHost, UntrustedChainIsReportedAsNotTrusted) {
    LeafSpec spec;
    spec.untrusted = true;
    ASSERT_TRUE(Begin(Pki().Leaf(spec)));
    Session &s = s_;
    s.chain.verdict = 4;
    int r = s.Handshake();
    EXPECT_NE(0, r);
    EXPECT_NE(TLS_RESULT_WOULD_BLOCK, r);
    EXPECT_EQ(1, s.chain.calls);
    EXPECT_NE(0, s.chain.chainResult);
    EXPECT_EQ(0, s.chain.chainTrusted);
}

TEST_F(ZelSslHost, NoRootsInTheFolderMeansNothingIsTrusted) {
    ASSERT_TRUE(lapitest::RemoveTree(root_.Path("/etc/certs")));
    ASSERT_TRUE(Begin(Pki().Leaf(LeafSpec{})));
    Session &s = s_;
    s.chain.verdict = 4;
    EXPECT_NE(0, s.Handshake());
    EXPECT_EQ(0, s.chain.chainTrusted);
}

TEST_F(ZelSslHost, ChainCallbackThatRejectsFailsTheHandshakeWithAnAlert) {
    ASSERT_TRUE(Begin(Pki().Leaf(LeafSpec{})));
    Session &s = s_;
    s.chain.verdict = 4;
    int r = s.Handshake();
    EXPECT_NE(0, r);
    EXPECT_NE(TLS_RESULT_WOULD_BLOCK, r);
    EXPECT_EQ(1, s.chain.chainTrusted);
    EXPECT_GE(s.alerts, 1);
}

TEST_F(ZelSslHost, DataGoesBothWaysAfterTheHandshake) {
    ASSERT_TRUE(Begin(Pki().Leaf(LeafSpec{})));
    Session &s = s_;
    ASSERT_EQ(0, s.Handshake());
    const char text[] = "hello tls\n";
    TLSBuffer out{sizeof(text) - 1, reinterpret_cast<uint8_t *>(const_cast<char *>(text))};
    uint32_t count = 0;
    ASSERT_EQ(0, TLSWrite(s.ctx(), &out, &count));
    EXPECT_EQ(out.length, count);
    EXPECT_EQ("slt olleh\n", s.ReadN(10));
    EXPECT_EQ(0, TLSClose(s.ctx()));
}

TEST_F(ZelSslHost, ReadWithNothingArrivedWouldBlock) {
    ASSERT_TRUE(Begin(Pki().Leaf(LeafSpec{})));
    Session &s = s_;
    ASSERT_EQ(0, s.Handshake());
    uint8_t buf[16];
    TLSBuffer b{sizeof(buf), buf};
    uint32_t count = 99;
    EXPECT_EQ(TLS_RESULT_WOULD_BLOCK, TLSRead(s.ctx(), &b, &count));
    EXPECT_EQ(0u, count);
}

TEST_F(ZelSslHost, PeerThatClosesDuringTheHandshakeFailsIt) {
    ASSERT_TRUE(Begin(Pki().Leaf(LeafSpec{})));
    Session &s = s_;
    s.closeOnFirstRead = true;
    int r = s.Handshake();
    EXPECT_NE(0, r);
    EXPECT_NE(TLS_RESULT_WOULD_BLOCK, r);
    EXPECT_EQ(0, s.chain.calls);
}

TEST_F(ZelSslHost, ReadAndWriteBeforeTheHandshakeAreRefused) {
    Session s;
    ASSERT_TRUE(s.Setup());
    uint8_t buf[4] = {};
    TLSBuffer b{sizeof(buf), buf};
    uint32_t count = 0;
    EXPECT_NE(0, TLSRead(s.ctx(), &b, &count));
    EXPECT_NE(0, TLSWrite(s.ctx(), &b, &count));
}

TEST(ZelSslHostCert, CommonNameItemIsTheBytesOfItsEncoding) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.commonNames = {"*.example.test"};
    int r;
    EXPECT_EQ("*.example.test", ExtractCn(TestPki::ReadDer(Pki().Leaf(spec)), 80, &r));
    EXPECT_EQ(0, r);
}

TEST(ZelSslHostCert, BmpStringCommonNameComesAsBigEndianTwoByteCharacters) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.commonNames = {"a.b"};
    spec.bmpString = true;
    int r;
    EXPECT_EQ(std::string("\0a\0.\0b", 6), ExtractCn(TestPki::ReadDer(Pki().Leaf(spec)), 80, &r));
    EXPECT_EQ(0, r);
}

TEST(ZelSslHostCert, ItemZeroOfSeveralCommonNamesIsTheFirstInEncodingOrder) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.commonNames = {"first.example.test", "second.example.test"};
    int r;
    EXPECT_EQ("first.example.test", ExtractCn(TestPki::ReadDer(Pki().Leaf(spec)), 80, &r));
}

TEST(ZelSslHostCert, CommonNameLongerThanTheBufferIsRefusedWithNothingCopied) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.commonNames = {std::string(20, 'x') + ".example.test"}; /* 33 bytes */
    std::vector<uint8_t> der = TestPki::ReadDer(Pki().Leaf(spec));
    int r;
    ExtractCn(der, 32, &r);
    EXPECT_EQ(TLS_RESULT_READ_OVERFLOW, r);
    EXPECT_EQ(33u, ExtractCn(der, 33, &r).size());
    EXPECT_EQ(0, r);
}

TEST(ZelSslHostCert, SubjectWithoutCommonNameHasNoItemZero) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.commonNames = {};
    int r;
    ExtractCn(TestPki::ReadDer(Pki().Leaf(spec)), 80, &r);
    EXPECT_NE(0, r);
}

TEST(ZelSslHostCert, GarbageIsNotACertificate) {
    std::vector<uint8_t> junk = {0x30, 0x03, 0x02, 0x01, 0x00};
    int r;
    ExtractCn(junk, 80, &r);
    EXPECT_NE(0, r);
    CERT_PARSED_S parsed{};
    EXPECT_NE(0, cert_ParseCertificate(junk.data(), static_cast<uint32_t>(junk.size()), &parsed));
}

TEST(ZelSslHostCert, ParseCertificateLocatesTheExtensionsWrapper) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.dnsNames = {"www.example.test"};
    std::vector<uint8_t> der = TestPki::ReadDer(Pki().Leaf(spec));
    CERT_PARSED_S parsed{};
    ASSERT_EQ(0, cert_ParseCertificate(der.data(), static_cast<uint32_t>(der.size()), &parsed));
    EXPECT_EQ(der.data(), parsed.pBase);
    ASSERT_NE(0, parsed.extensionsOffset);
    ASSERT_LT(parsed.extensionsOffset + 2u, der.size());
    EXPECT_EQ(0xA3, der[parsed.extensionsOffset]);
    /* The wrapper's own header plus its content. */
    uint8_t l = der[parsed.extensionsOffset + 1];
    size_t content = l < 0x80 ? l : (l == 0x81 ? der[parsed.extensionsOffset + 2] : 0);
    size_t header = l < 0x80 ? 2 : 3;
    EXPECT_EQ(header + content, parsed.extensionsLength);
    EXPECT_LE(parsed.extensionsOffset + parsed.extensionsLength, der.size());
}

TEST(ZelSslHostCert, ParseCertificateWithoutExtensionsReportsOffsetZero) {
    ASSERT_TRUE(Pki().ok());
    LeafSpec spec;
    spec.extensions = false;
    std::vector<uint8_t> der = TestPki::ReadDer(Pki().Leaf(spec));
    CERT_PARSED_S parsed{};
    parsed.extensionsOffset = 7;
    ASSERT_EQ(0, cert_ParseCertificate(der.data(), static_cast<uint32_t>(der.size()), &parsed));
    EXPECT_EQ(0, parsed.extensionsOffset);
    EXPECT_EQ(0, parsed.extensionsLength);
}
