/*
 * Certificates and TLS peers for the tests, made at run time with the
 * system's `openssl` command (no key is kept in the repository).
 *
 *   lapitest::TestPki pki;                     // a CA and one leaf key
 *   auto leaf = pki.Leaf({.commonName = "*.example.test"});
 *   lapitest::TlsServer server(leaf);          // openssl s_server, TLS 1.0
 *   ASSERT_TRUE(server.Start());               // on 127.0.0.1:server.Port()
 *
 * The server reverses every line it receives ("-rev"), so data goes both
 * ways: "hello\n" comes back as "olleh\n".
 */
#ifndef LAPI_TEST_TLSPEER_H
#define LAPI_TEST_TLSPEER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace lapitest {

/* What a leaf certificate says. */
struct LeafSpec {
    /* Subject common names, in encoding order (empty: none). */
    std::vector<std::string> commonNames = {"www.example.test"};
    /* The common names as BMPString (two bytes a character). */
    bool bmpString = false;
    /* subjectAltName dNSNames; empty with extensions set: no subjectAltName. */
    std::vector<std::string> dnsNames;
    bool sanCritical = false;
    /* false: a version 1 certificate without any extension. */
    bool extensions = true;
    /* Signed by a CA that is not among the trusted roots. */
    bool untrusted = false;
};

struct LeafFiles {
    std::string certPem; /* the leaf certificate */
    std::string keyPem;  /* its private key */
    std::string certDer; /* the same certificate in DER */
};

class TestPki {
  public:
    /* Makes a folder with the trusted CA, an untrusted CA and a leaf key. */
    TestPki();
    ~TestPki();
    TestPki(const TestPki &) = delete;
    TestPki &operator=(const TestPki &) = delete;

    bool ok() const { return ok_; }
    /* The trusted CA certificate (PEM), to copy into ROOT/etc/certs/. */
    const std::string &CaPem() const { return caPem_; }
    /* A new leaf certificate; empty paths on failure. */
    LeafFiles Leaf(const LeafSpec &spec);
    /* The DER bytes of a leaf (read from certDer). */
    static std::vector<uint8_t> ReadDer(const LeafFiles &leaf);
    /* Copies the trusted CA into dir/name.pem. */
    bool InstallCa(const std::string &certsDir) const;

  private:
    std::string dir_;
    std::string caPem_;
    bool ok_ = false;
    int serial_ = 0;
};

/* Runs a shell command line quietly; true when it exits 0. */
bool RunQuiet(const std::string &commandLine);

/* `openssl s_server` on 127.0.0.1, TLS 1.0 only, suite AES128-SHA. */
class TlsServer {
  public:
    explicit TlsServer(const LeafFiles &leaf);
    ~TlsServer();
    TlsServer(const TlsServer &) = delete;
    TlsServer &operator=(const TlsServer &) = delete;

    /* Starts it and waits until it accepts; false on failure. */
    bool Start(int timeoutMs = 10000);
    void Stop();
    /* Stops (SIGSTOP) or resumes (SIGCONT) the server process: while it is
     * stopped the kernel still takes the client's bytes but nothing answers. */
    void Pause(bool paused);
    int Port() const { return port_; }
    /* Everything the server printed so far (its log of the session). */
    std::string Output() const;
    /* Waits until its output contains text. */
    bool WaitOutput(const std::string &text, int timeoutMs = 5000) const;

  private:
    LeafFiles leaf_;
    std::string outPath_;
    pid_t pid_ = -1;
    int port_ = 0;
};

/* A TCP port on 127.0.0.1 that is free now (0 when none was found). */
int PickFreeTcpPort();

}  // namespace lapitest

#endif /* LAPI_TEST_TLSPEER_H */
