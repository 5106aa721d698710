/*
 * How the host TLS stand-in loads OpenSSL: not before the first call that
 * needs it, and when it cannot, one line on standard error and a failure
 * from every call that needs it, without trying again.
 *
 * This executable has its own build of the stand-in, which takes the
 * libraries' names from LAPI_TEST_LIBCRYPTO / LAPI_TEST_LIBSSL when they are
 * set, and links no OpenSSL. The load happens once per process, so every
 * case runs in a child process of its own.
 */
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "zelcm.h"
#include "zelssl.h"

namespace {

struct ChildRun {
    int exitCode = -1;
    std::string err; /* everything the child wrote on standard error */
};

/* Runs body in a child whose standard error is captured; the child exits 1
 * when an expectation failed in it. */
ChildRun InChild(const std::function<void()> &body) {
    ChildRun run;
    int fds[2];
    if (pipe(fds) != 0) {
        ADD_FAILURE() << "pipe";
        return run;
    }
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDERR_FILENO);
        close(fds[1]);
        body();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(fds[1]);
    char buf[512];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) {
        run.err.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        run.exitCode = WEXITSTATUS(status);
    }
    return run;
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/* Whether a library whose file name contains this text is mapped here. */
bool Mapped(const std::string &name) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find(name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

/* A context with every callback set, as the server leaves it before the
 * handshake; the setters need no OpenSSL. */
struct Context {
    Context() : mem(static_cast<TLSContext *>(CD_malloc(TLSContextSize(), 0))) {
        EXPECT_EQ(0, TLSInitContext(mem, TLSContextSize(), 0));
        EXPECT_EQ(0, TLSEnableNonBlocking(mem));
        EXPECT_EQ(0, TLSSetReadFunc(mem, [](TLSBuffer *, uint32_t *, void *) { return 4; }));
        EXPECT_EQ(0, TLSSetWriteFunc(mem, [](TLSBuffer *, uint32_t *, void *) { return 4; }));
        EXPECT_EQ(0, TLSSetProtocolVersion(mem, TLS_VERSION_1_0));
    }
    ~Context() {
        EXPECT_EQ(0, TLSDeleteContext(mem));
        CD_free(mem, 0);
    }
    TLSContext *mem;
};

/* Every call that needs OpenSSL, each expected to fail. */
void EveryOpenSslCallFails() {
    Context c;
    CM_CONTEXT_T cm = 0;
    EXPECT_NE(0, TLSInitCMContext(c.mem, &cm));
    EXPECT_EQ(0u, cm);
    EXPECT_NE(0, TLSAddRootCertificates(c.mem, &cm));
    EXPECT_EQ(0, TLSDeleteCMContext(c.mem, &cm));
    const uint8_t suites[] = {0x2F, 0x00};
    TLSBuffer suiteBuffer{sizeof(suites), const_cast<uint8_t *>(suites)};
    EXPECT_NE(0, TLSSetCipherSuites(c.mem, &suiteBuffer));
    EXPECT_NE(0, TLSHandshake(c.mem));
    EXPECT_NE(0, TLSHandshake(c.mem));
    EXPECT_EQ(0, TLSGetNegotiatedCipher(c.mem));
    EXPECT_EQ(0, TLSGetProtocolVersion(c.mem));
    EXPECT_EQ(0, TLSClose(c.mem));
    uint8_t random[16] = {};
    TLSBuffer randomBuffer{sizeof(random), random};
    EXPECT_NE(0, TLSGenerateRandom(nullptr, &randomBuffer, 0));
    uint8_t der[] = {0x30, 0x03, 0x30, 0x01, 0x00};
    uint8_t name[80];
    TLSBuffer cert{sizeof(der), der};
    TLSBuffer nameBuffer{sizeof(name), name};
    EXPECT_NE(0, TLSExtractCertificateNameItem(&cert, 0, &nameBuffer));
    CERT_PARSED_S parsed{};
    EXPECT_NE(0, cert_ParseCertificate(der, sizeof(der), &parsed));
}

TEST(ZelsslLoad, NothingIsLoadedBeforeTheFirstCallThatNeedsOpenSsl) {
    ChildRun run = InChild([] {
        EXPECT_FALSE(Mapped("libcrypto"));
        { Context c; /* context, setters, delete: no OpenSSL yet */ }
        EXPECT_FALSE(Mapped("libcrypto"));
        EXPECT_FALSE(Mapped("libssl"));
        uint8_t random[16] = {};
        TLSBuffer randomBuffer{sizeof(random), random};
        EXPECT_EQ(0, TLSGenerateRandom(nullptr, &randomBuffer, 0));
        EXPECT_TRUE(Mapped("libcrypto"));
        EXPECT_TRUE(Mapped("libssl"));
    });
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ("", run.err);
}

/* A library that cannot be used: every call that needs OpenSSL fails, and
 * standard error gets exactly one line, whatever the number of calls. */
struct LoadFailure {
    const char *legend;
    const char *variable;
    const char *library;
    const char *line; /* the line's beginning; dlerror()'s text follows */
};

void PrintTo(const LoadFailure &f, std::ostream *os) {
    *os << f.legend;
}

const LoadFailure kLoadFailures[] = {
    {"MissingLibcrypto", "LAPI_TEST_LIBCRYPTO", "/nonexistent/libcrypto.so.3",
     "zelssl: cannot load OpenSSL's libcrypto: /nonexistent/libcrypto.so.3: "},
    {"MissingLibssl", "LAPI_TEST_LIBSSL", "/nonexistent/libssl.so.3",
     "zelssl: cannot load OpenSSL's libssl: /nonexistent/libssl.so.3: "},
    {"LibraryWithoutOpenSslsNames", "LAPI_TEST_LIBCRYPTO", "libc.so.6",
     "zelssl: OpenSSL's libcrypto has no ASN1_STRING_get0_data: "},
};

class ZelsslLoadFailure : public ::testing::TestWithParam<LoadFailure> {};

TEST_P(ZelsslLoadFailure, EveryCallThatNeedsOpenSslFailsAndOneLineSaysWhy) {
    const LoadFailure &f = GetParam();
    ChildRun run = InChild([&f] {
        setenv(f.variable, f.library, 1);
        EveryOpenSslCallFails();
        EveryOpenSslCallFails(); /* not tried again */
    });
    EXPECT_EQ(0, run.exitCode);
    std::vector<std::string> lines = Lines(run.err);
    ASSERT_EQ(1u, lines.size()) << run.err;
    EXPECT_EQ(0u, lines[0].find(f.line)) << lines[0];
}

INSTANTIATE_TEST_SUITE_P(Libraries, ZelsslLoadFailure, ::testing::ValuesIn(kLoadFailures),
                         [](const ::testing::TestParamInfo<LoadFailure> &info) {
                             return std::string(info.param.legend);
                         });

TEST(ZelsslLoad, CallsThatNeedNoOpenSslWorkWithoutIt) {
    ChildRun run = InChild([] {
        setenv("LAPI_TEST_LIBCRYPTO", "/nonexistent/libcrypto.so.3", 1);
        EXPECT_EQ(20480u, TLSContextSize());
        Context c;
        EXPECT_EQ(0, TLSSetOption(c.mem, TLS_OPTION_NO_ENFORCE_BASIC_CONSTRAINTS));
        CM_CONTEXT_T cm = 0;
        EXPECT_EQ(0, TLSDeleteCMContext(c.mem, &cm));
    });
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ("", run.err) << "no load was tried";
}

}  // namespace
