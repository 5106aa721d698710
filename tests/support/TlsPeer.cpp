#include "TlsPeer.h"
#include "TcpPeer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "ServerFixture.h"

namespace lapitest {

namespace {

std::string Quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

bool WriteText(const std::string &path, const std::string &text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
    return static_cast<bool>(f);
}

std::string ReadText(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

/* Subject "/CN=a/CN=b" with '/' and '\' escaped inside names. */
std::string Subject(const std::vector<std::string> &commonNames) {
    std::string s;
    for (const std::string &cn : commonNames) {
        s += "/CN=";
        for (char c : cn) {
            if (c == '/' || c == '\\') {
                s += '\\';
            }
            s += c;
        }
    }
    return s.empty() ? "/O=LAPI Test" : s;
}

}  // namespace

bool RunQuiet(const std::string &commandLine) {
    std::string line = "(" + commandLine + ") >/dev/null 2>&1";
    return system(line.c_str()) == 0;
}

TestPki::TestPki() {
    char tmpl[] = "/tmp/lapipkiXXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return;
    }
    dir_ = tmpl;
    caPem_ = dir_ + "/ca.pem";
    /* 1024-bit RSA keeps generation quick; security level 0 accepts it. */
    const std::string req = "openssl req -x509 -newkey rsa:1024 -nodes -days 30 -sha256 ";
    ok_ = RunQuiet(req + "-keyout " + Quote(dir_ + "/ca.key") + " -out " + Quote(caPem_) +
                   " -subj '/CN=LAPI Test CA'") &&
          RunQuiet(req + "-keyout " + Quote(dir_ + "/rogue.key") + " -out " +
                   Quote(dir_ + "/rogue.pem") + " -subj '/CN=LAPI Rogue CA'") &&
          RunQuiet("openssl genrsa -out " + Quote(dir_ + "/leaf.key") + " 1024") &&
          WriteText(dir_ + "/bmp.cnf",
                    "[req]\ndistinguished_name=dn\nstring_mask=MASK:0x800\n[dn]\n") &&
          WriteText(dir_ + "/plain.cnf", "[req]\ndistinguished_name=dn\n[dn]\n");
}

TestPki::~TestPki() {
    if (!dir_.empty()) {
        RemoveTree(dir_);
    }
}

bool TestPki::InstallCa(const std::string &certsDir) const {
    return RunQuiet("mkdir -p " + Quote(certsDir) + " && cp " + Quote(caPem_) + " " +
                    Quote(certsDir + "/lapi-test-ca.pem"));
}

LeafFiles TestPki::Leaf(const LeafSpec &spec) {
    if (!ok_) {
        return {};
    }
    std::string base = dir_ + "/leaf" + std::to_string(++serial_);
    std::string csr = base + ".csr";
    std::string ext = base + ".ext";
    LeafFiles out{base + ".pem", dir_ + "/leaf.key", base + ".der"};
    if (!RunQuiet("openssl req -new -key " + Quote(out.keyPem) + " -out " + Quote(csr) +
                  " -config " + Quote(dir_ + (spec.bmpString ? "/bmp.cnf" : "/plain.cnf")) +
                  " -subj " + Quote(Subject(spec.commonNames)))) {
        return {};
    }
    std::string extText = "basicConstraints=CA:FALSE\n";
    if (!spec.dnsNames.empty()) {
        extText += "subjectAltName=";
        extText += spec.sanCritical ? "critical," : "";
        for (size_t i = 0; i < spec.dnsNames.size(); ++i) {
            extText += (i ? ",DNS:" : "DNS:") + spec.dnsNames[i];
        }
        extText += "\n";
    }
    std::string ca = dir_ + (spec.untrusted ? "/rogue" : "/ca");
    std::string sign = "openssl x509 -req -days 30 -sha256 -in " + Quote(csr) + " -CA " +
                       Quote(ca + ".pem") + " -CAkey " + Quote(ca + ".key") + " -set_serial " +
                       std::to_string(1000 + serial_) + " -out " + Quote(out.certPem);
    if (spec.extensions) {
        if (!WriteText(ext, extText)) {
            return {};
        }
        sign += " -extfile " + Quote(ext);
    }
    if (!RunQuiet(sign) || !RunQuiet("openssl x509 -in " + Quote(out.certPem) +
                                     " -outform DER -out " + Quote(out.certDer))) {
        return {};
    }
    return out;
}

std::vector<uint8_t> TestPki::ReadDer(const LeafFiles &leaf) {
    std::string s = ReadText(leaf.certDer);
    return std::vector<uint8_t>(s.begin(), s.end());
}

int PickFreeTcpPort() {
    /* A loopback port that nothing listens on, for the server to take. */
    return RefusedPort();
}

TlsServer::TlsServer(const LeafFiles &leaf) : leaf_(leaf) {}

TlsServer::~TlsServer() {
    Stop();
    if (!outPath_.empty()) {
        unlink(outPath_.c_str());
    }
}

bool TlsServer::Start(int timeoutMs) {
    char tmpl[] = "/tmp/lapitlsXXXXXX";
    int outFd = mkstemp(tmpl);
    if (outFd < 0) {
        return false;
    }
    outPath_ = tmpl;
    for (int attempt = 0; attempt < 5; ++attempt) {
        port_ = PickFreeTcpPort();
        if (port_ == 0) {
            break;
        }
        if (ftruncate(outFd, 0) != 0) {
            break;
        }
        std::string accept = "127.0.0.1:" + std::to_string(port_);
        pid_ = fork();
        if (pid_ == 0) {
            /* A test that dies does not leave its peer behind. */
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            int in = open("/dev/null", O_RDONLY);
            dup2(in, 0);
            dup2(outFd, 1);
            dup2(outFd, 2);
            execlp("openssl", "openssl", "s_server", "-accept", accept.c_str(), "-tls1", "-cipher",
                   "AES128-SHA:@SECLEVEL=0", "-cert", leaf_.certPem.c_str(), "-key",
                   leaf_.keyPem.c_str(), "-rev", static_cast<char *>(nullptr));
            _exit(127);
        }
        if (pid_ < 0) {
            break;
        }
        int64_t deadline = NowMs() + timeoutMs;
        while (NowMs() < deadline) {
            std::string out = Output();
            if (out.find("ACCEPT") != std::string::npos) {
                close(outFd);
                return true;
            }
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                break; /* the port was taken meanwhile: try another */
            }
            usleep(10000);
        }
        Stop();
    }
    close(outFd);
    return false;
}

void TlsServer::Stop() {
    if (pid_ > 0) {
        kill(pid_, SIGCONT);
        kill(pid_, SIGTERM);
        int status;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
}

void TlsServer::Pause(bool paused) {
    if (pid_ > 0) {
        kill(pid_, paused ? SIGSTOP : SIGCONT);
    }
}

std::string TlsServer::Output() const {
    return outPath_.empty() ? "" : ReadText(outPath_);
}

bool TlsServer::WaitOutput(const std::string &text, int timeoutMs) const {
    int64_t deadline = NowMs() + timeoutMs;
    do {
        if (Output().find(text) != std::string::npos) {
            return true;
        }
        usleep(10000);
    } while (NowMs() < deadline);
    return false;
}

}  // namespace lapitest
