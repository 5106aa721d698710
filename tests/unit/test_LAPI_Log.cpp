/*
 * The diagnostics funnel: lines written whole, the chunk buffer (when it
 * writes, how big a chunk may be, the signal handler and exit), the line
 * prefix built by hand, and the number formatting that replaces printf,
 * compared with printf itself over large samples.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "LAPI_Log.h"
#include "LAPI_LogFmt.h"
#include "LAPI_SrvCli.h"
#include "ServerFixture.h"

namespace {

/* Every test leaves the funnel as the client library has it: unbuffered. */
class LogTest : public ::testing::Test {
  protected:
    void TearDown() override { LAPI_LogSetBuffered(0); }
};

/* Standard error replaced by one end of a SOCK_SEQPACKET pair: every
 * write(2) arrives as one record, so the test sees the chunks themselves. A
 * thread takes the records as they come (the socket queues only a few). */
class ChunkCapture {
  public:
    ChunkCapture() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) != 0) {
            return;
        }
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        dup2(sv[0], STDERR_FILENO);
        close(sv[0]);
        peer_ = sv[1];
        reader_ = std::thread([this] {
            std::vector<char> buf(1 << 17);
            for (;;) {
                ssize_t n = recv(peer_, buf.data(), buf.size(), 0);
                if (n <= 0) {
                    break;
                }
                std::lock_guard<std::mutex> lock(mu_);
                chunks_.emplace_back(buf.data(), static_cast<size_t>(n));
                cv_.notify_all();
            }
        });
    }
    ~ChunkCapture() {
        Restore();
        if (reader_.joinable()) {
            reader_.join();
        }
        if (peer_ >= 0) {
            close(peer_);
        }
    }
    bool ok() const { return peer_ >= 0; }
    /* Puts standard error back; the reader ends with the socket. */
    void Restore() {
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
        }
    }
    /* The records not taken yet, once the writer has stopped: a sentinel
     * record written now arrives after every earlier one. */
    std::vector<std::string> Chunks() {
        static const char kMark[] = "\x01mark";
        if (write(STDERR_FILENO, kMark, sizeof(kMark) - 1) < 0) {
            return {};
        }
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait_for(lock, std::chrono::seconds(10), [this] {
            return !chunks_.empty() && chunks_.back() == std::string(kMark, sizeof(kMark) - 1);
        });
        std::vector<std::string> out;
        for (std::string &c : chunks_) {
            if (c != std::string(kMark, sizeof(kMark) - 1)) {
                out.push_back(std::move(c));
            }
        }
        chunks_.clear();
        return out;
    }

  private:
    int saved_ = -1;
    int peer_ = -1;
    std::thread reader_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::string> chunks_;
};

std::string Joined(const std::vector<std::string> &chunks) {
    std::string all;
    for (const std::string &c : chunks) {
        all += c;
    }
    return all;
}

std::string Trace(const std::string &func, int line, const std::string &text) {
    return "{5} test_LAPI_Log.cpp:" + std::to_string(line) + ", " + func +
           "()\tLAPI SRV : " + text + "\n";
}

/* printf's text of a format, for comparisons. */
__attribute__((format(printf, 1, 2))) std::string Printf(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

/* The message text of the one line a call wrote. */
std::string BodyOf(const std::string &line) {
    size_t at = line.find(" : ");
    return at == std::string::npos ? line : line.substr(at + 3, line.size() - at - 4);
}

/* ------------------------------------------------------------------------ */
/* Writing                                                                   */
/* ------------------------------------------------------------------------ */

TEST_F(LogTest, UnbufferedLineGoesOutAtOnceInOneWrite) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogLine(1, 0, "dir/test_LAPI_Log.cpp", 7, "Fn", "hello %d", 5);
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(1u, chunks.size());
    EXPECT_EQ(Trace("Fn", 7, "hello 5"), chunks[0]);
}

TEST_F(LogTest, BufferedLinesWaitForTheFlush) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "one");
    LAPI_LogLine(1, 1, "test_LAPI_Log.cpp", 2, "Fn", "two %s", "x");
    EXPECT_TRUE(cap.Chunks().empty());
    LAPI_LogFlush();
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(1u, chunks.size());
    EXPECT_EQ(Trace("Fn", 1, "one") + "{1} test_LAPI_Log.cpp:2\tLAPI Error SRV Fn: two x\n",
              chunks[0]);
}

TEST_F(LogTest, FlushWithNothingGatheredWritesNothing) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    LAPI_LogFlush();
    LAPI_LogFlush();
    EXPECT_TRUE(cap.Chunks().empty());
}

TEST_F(LogTest, ChunkOnASocketStaysWithinPipeBufAndNeverSplitsALine) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    std::string want;
    for (int i = 0; i < 300; ++i) {
        std::string text(static_cast<size_t>(10 + (i * 37) % 700), static_cast<char>('a' + i % 26));
        LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", i, "Fn", "%s", text.c_str());
        want += Trace("Fn", i, text);
    }
    LAPI_LogFlush();
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_GT(chunks.size(), 10u);
    for (const std::string &c : chunks) {
        EXPECT_LE(c.size(), static_cast<size_t>(PIPE_BUF));
        EXPECT_EQ('\n', c.back());
        EXPECT_EQ('{', c.front());
    }
    EXPECT_EQ(want, Joined(chunks));
}

TEST_F(LogTest, LineLongerThanAChunkGoesOutAloneAndWhole) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    std::string big(3 * PIPE_BUF, 'z');
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "small");
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 2, "Fn", "%s", big.c_str());
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 3, "Fn", "after");
    LAPI_LogFlush();
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(3u, chunks.size());
    EXPECT_EQ(Trace("Fn", 1, "small"), chunks[0]);
    EXPECT_EQ(Trace("Fn", 2, big), chunks[1]);
    EXPECT_EQ(Trace("Fn", 3, "after"), chunks[2]);
}

TEST_F(LogTest, LineLongerThanTheStackBlockIsWrittenWhole) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    std::string big(20000, 'q');
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 9, "Fn", "%s", big.c_str());
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(1u, chunks.size());
    EXPECT_EQ(Trace("Fn", 9, big), chunks[0]);
}

TEST_F(LogTest, SignalHandlerWritesGatheredLinesBeforeItsOwn) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "before");
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = [](int) {
        LAPI_LogSignalEnter();
        LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 2, "Handler", "in the handler");
        LAPI_LogSignalLeave();
    };
    struct sigaction old;
    ASSERT_EQ(0, sigaction(SIGUSR1, &sa, &old));
    raise(SIGUSR1);
    sigaction(SIGUSR1, &old, nullptr);
    /* The handler's line went out at once, after what was gathered. */
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(2u, chunks.size());
    EXPECT_EQ(Trace("Fn", 1, "before"), chunks[0]);
    EXPECT_EQ(Trace("Handler", 2, "in the handler"), chunks[1]);
    /* Back in the loop, buffering goes on and nothing is written twice. */
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 3, "Fn", "after");
    EXPECT_TRUE(cap.Chunks().empty());
    LAPI_LogFlush();
    chunks = cap.Chunks();
    ASSERT_EQ(1u, chunks.size());
    EXPECT_EQ(Trace("Fn", 3, "after"), chunks[0]);
}

TEST_F(LogTest, ExitWritesGatheredLines) {
    int p[2];
    ASSERT_EQ(0, pipe(p));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(p[1], STDERR_FILENO);
        close(p[0]);
        close(p[1]);
        LAPI_LogSetBuffered(1);
        LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 4, "Child", "gathered %d", 1);
        exit(0);
    }
    close(p[1]);
    std::string got;
    char buf[512];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof(buf))) > 0) {
        got.append(buf, static_cast<size_t>(n));
    }
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(Trace("Child", 4, "gathered 1"), got);
}

TEST_F(LogTest, StandardOutputLineKeepsItsPlaceInAFileSharedWithStandardError) {
    /* getLocationRsp's tracer prints a line on standard output before its
     * trace: in one file both must stand where they were written. */
    char path[] = "/tmp/lapi_logXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    fflush(stdout);
    fflush(stderr);
    int savedOut = dup(STDOUT_FILENO);
    int savedErr = dup(STDERR_FILENO);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    LAPI_LogSetBuffered(1);
    LAPI_InitApMsgLogProc();
    GetLocationRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    rsp.header.msgId = LAPI_GET_LOCATION_RSP;
    rsp.header.msgLen = LAPI_GET_LOCATION_RSP_LEN;
    rsp.nmeaDataLength = 3;
    memcpy(rsp.nmeaData, "$GP", 3);
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "first");
    LAPI_LogApMsg(&rsp, static_cast<int>(sizeof(rsp)), 1);
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 2, "Fn", "last");
    LAPI_LogSetBuffered(0);
    fflush(stdout);
    dup2(savedOut, STDOUT_FILENO);
    dup2(savedErr, STDERR_FILENO);
    close(savedOut);
    close(savedErr);
    std::string all;
    char buf[4096];
    ssize_t n;
    lseek(fd, 0, SEEK_SET);
    while ((n = read(fd, buf, sizeof(buf))) > 0) {
        all.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    size_t first = all.find("LAPI SRV : first\n");
    size_t plain = all.find(", pMsg->nmeaDataLength:3\n");
    size_t trace = all.find("S->C getLocationRsp ");
    size_t last = all.find("LAPI SRV : last\n");
    ASSERT_NE(std::string::npos, first);
    ASSERT_NE(std::string::npos, plain);
    ASSERT_NE(std::string::npos, trace);
    ASSERT_NE(std::string::npos, last);
    EXPECT_LT(first, plain);
    EXPECT_LT(plain, trace);
    EXPECT_LT(trace, last);
}

TEST_F(LogTest, TracesOffWritesNoTraceButErrors) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_traceEnabled = 0;
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "trace");
    LAPI_LogText(1, 0, "test_LAPI_Log.cpp", 2, "Fn", "text", 4);
    LAPI_LogLine(1, 1, "test_LAPI_Log.cpp", 3, "Fn", "error");
    LAPI_traceEnabled = 1;
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(1u, chunks.size());
    EXPECT_EQ("{1} test_LAPI_Log.cpp:3\tLAPI Error SRV Fn: error\n", chunks[0]);
}

TEST_F(LogTest, ErrnoIsKeptAcrossALine) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    errno = EAGAIN;
    LAPI_LogLine(1, 1, "test_LAPI_Log.cpp", 1, "Fn", "errno %d", errno);
    EXPECT_EQ(EAGAIN, errno);
}

/* ------------------------------------------------------------------------ */
/* The prefix                                                                */
/* ------------------------------------------------------------------------ */

TEST_F(LogTest, PrefixNamesTheBaseNameAndTheSide) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogLine(0, 1, "/a/b/c/File.cpp", 12, "Func", "e");
    LAPI_LogLine(0, 0, "File.cpp", 13, "Func", "t");
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(2u, chunks.size());
    EXPECT_EQ("{1} File.cpp:12\tLAPI Error CLI Func: e\n", chunks[0]);
    EXPECT_EQ("{5} File.cpp:13, Func()\tLAPI CLI : t\n", chunks[1]);
}

TEST_F(LogTest, ManyCallSitesEachKeepTheirOwnPrefix) {
    /* More sites than kept prefixes, visited twice in turn. */
    static const char *const kFuncs[] = {"A", "Bb", "Ccc", "Dddd", "Eeeee"};
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    std::string want;
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < 300; ++i) {
            const char *func = kFuncs[i % 5];
            int isError = (i / 5) % 2;
            int side = (i / 10) % 2;
            LAPI_LogLine(side, isError, "test_LAPI_Log.cpp", 1000 + i, func, "m");
            std::string who = side ? "SRV" : "CLI";
            want += isError ? "{1} test_LAPI_Log.cpp:" + std::to_string(1000 + i) +
                                  "\tLAPI Error " + who + " " + func + ": m\n"
                            : "{5} test_LAPI_Log.cpp:" + std::to_string(1000 + i) + ", " + func +
                                  "()\tLAPI " + who + " : m\n";
        }
    }
    LAPI_LogFlush();
    EXPECT_EQ(want, Joined(cap.Chunks()));
}

TEST_F(LogTest, LongFunctionNameStillGetsItsWholePrefix) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogSetBuffered(1);
    std::string func(150, 'F');
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 5, func.c_str(), "x");
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 5, func.c_str(), "y");
    LAPI_LogFlush();
    EXPECT_EQ(Trace(func, 5, "x") + Trace(func, 5, "y"), Joined(cap.Chunks()));
}

/* ------------------------------------------------------------------------ */
/* Message text without printf                                               */
/* ------------------------------------------------------------------------ */

TEST_F(LogTest, FixedTextIsCopiedAsItIs) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "\n\nLAPI SRV received signal: SIGTERM!\n\n");
    EXPECT_EQ(Trace("Fn", 1, "\n\nLAPI SRV received signal: SIGTERM!\n\n"), Joined(cap.Chunks()));
}

TEST_F(LogTest, PercentSNullPrintsNullAsPrintfDoes) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    /* Through a volatile, so that the compiler cannot see the null. */
    const char *volatile nothing = nullptr;
    const char *none = nothing;
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", "%s", none);
    LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 2, "Fn", "a %s b", none);
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(2u, chunks.size());
    EXPECT_EQ("(null)", BodyOf(chunks[0]));
    EXPECT_EQ("a (null) b", BodyOf(chunks[1]));
}

TEST_F(LogTest, SimpleConversionsMatchPrintf) {
    ChunkCapture cap;
    ASSERT_TRUE(cap.ok());
    std::vector<std::string> want;
#define CHECK_FMT(...)                                                 \
    do {                                                               \
        LAPI_LogLine(1, 0, "test_LAPI_Log.cpp", 1, "Fn", __VA_ARGS__); \
        want.push_back(Printf(__VA_ARGS__));                           \
    } while (0)
    for (int v : {0, 1, -1, 9, 10, -10, 255, 4096, INT_MAX, INT_MIN, 123456789, -987654321}) {
        CHECK_FMT("%d", v);
        CHECK_FMT("v=%i, %d!", v, v / -3);
        CHECK_FMT("%u", static_cast<unsigned>(v));
        CHECK_FMT("%x", static_cast<unsigned>(v));
        CHECK_FMT("%02x", static_cast<unsigned>(v));
        CHECK_FMT("0x%02x, %d", static_cast<unsigned>(v) & 0xffu, v);
        CHECK_FMT("%5d|%05d|%3u|%08x", v, v, static_cast<unsigned>(v), static_cast<unsigned>(v));
        CHECK_FMT("%2d", v);
    }
    int local = 0;
    CHECK_FMT("list:%p", static_cast<void *>(&local));
    CHECK_FMT("pData:%p, length:%d", static_cast<void *>(nullptr), 4);
    CHECK_FMT("100%% of %s", "it");
    CHECK_FMT("%s is %u bytes, expected %u!", "Fdops", 12u, 16u);
    /* Left to vsnprintf: the output is the same all the same. */
    CHECK_FMT("%ld %lu %.3f %-4d| %c %5s %.*s", 5L, 6UL, 1.5, 7, 'c', "ab", 2, "xyz");
    CHECK_FMT("%+d % d %#x", 3, 4, 255u);
#undef CHECK_FMT
    std::vector<std::string> chunks = cap.Chunks();
    ASSERT_EQ(want.size(), chunks.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(want[i], BodyOf(chunks[i])) << i;
    }
}

/* ------------------------------------------------------------------------ */
/* Numbers: identical to printf                                              */
/* ------------------------------------------------------------------------ */

std::string Sci30(double v) {
    char buf[64];
    char *end = lapi_fmt::Sci30(buf, v);
    return std::string(buf, static_cast<size_t>(end - buf));
}

TEST(LogFmt, Sci30MatchesPrintfOnEdgeValues) {
    const double kInf = std::numeric_limits<double>::infinity();
    const double kNan = std::numeric_limits<double>::quiet_NaN();
    for (double v : {0.0,
                     -0.0,
                     1.0,
                     -1.0,
                     0.5,
                     0.1,
                     1.0 / 3.0,
                     9.5,
                     99.5,
                     1e22,
                     1e23,
                     1e-5,
                     123456789012345678.0,
                     5e-324,
                     -5e-324,
                     2.2250738585072014e-308,
                     2.2250738585072009e-308,
                     1.7976931348623157e308,
                     -1.7976931348623157e308,
                     kInf,
                     -kInf,
                     kNan,
                     -kNan,
                     0.5 / 8388608.0,
                     -0.5 / 8388608.0,
                     (2147483647.0 + 0.5) / 8388608.0,
                     std::ldexp(1.0, 74),
                     std::ldexp(1.0, 75),
                     std::ldexp(1.0, -27),
                     std::ldexp(3.0, -28),
                     1e30,
                     9.999999999999999e30}) {
        EXPECT_EQ(Printf("%.30e", v), Sci30(v)) << std::hexfloat << v;
    }
}

TEST(LogFmt, Sci30MatchesPrintfOverAMillionRandomBitPatterns) {
    std::mt19937_64 rng(20261123);
    int bad = 0;
    for (int i = 0; i < 1000000 && bad < 10; ++i) {
        uint64_t bits = rng();
        double v;
        memcpy(&v, &bits, sizeof(v));
        std::string want = Printf("%.30e", v);
        std::string got = Sci30(v);
        if (want != got) {
            ADD_FAILURE() << want << " != " << got;
            ++bad;
        }
    }
}

TEST(LogFmt, Sci30MatchesPrintfOverAMillionBpFixedPointValues) {
    /* What the BP sends: (N + 0.5) / 2^23 for 64-bit N, and sums of the
     * fixed-point values the tracers meet (degrees, metres, seconds). */
    std::mt19937_64 rng(7);
    int bad = 0;
    for (int i = 0; i < 1000000 && bad < 10; ++i) {
        int64_t n = static_cast<int64_t>(rng() >> (rng() % 64));
        if (rng() & 1) {
            n = -n;
        }
        double v = (static_cast<double>(n) + 0.5) / 8388608.0;
        std::string want = Printf("%.30e", v);
        std::string got = Sci30(v);
        if (want != got) {
            ADD_FAILURE() << want << " != " << got;
            ++bad;
        }
    }
}

TEST(LogFmt, IntegersMatchPrintf) {
    std::mt19937_64 rng(3);
    for (int i = 0; i < 200000; ++i) {
        int v = static_cast<int>(static_cast<uint32_t>(rng()) >> (rng() % 32));
        if (rng() & 1) {
            v = -v;
        }
        char buf[64];
        ASSERT_EQ(Printf("%d", v), std::string(buf, lapi_fmt::Int(buf, v))) << v;
        unsigned u = static_cast<unsigned>(v);
        ASSERT_EQ(Printf("%u", u), std::string(buf, lapi_fmt::UInt(buf, u))) << u;
    }
    for (int v : {INT_MIN, INT_MAX, 0, -1}) {
        char buf[64];
        EXPECT_EQ(Printf("%d", v), std::string(buf, lapi_fmt::Int(buf, v)));
    }
    char buf[64];
    EXPECT_EQ(Printf("%u", UINT_MAX), std::string(buf, lapi_fmt::UInt(buf, UINT_MAX)));
}

TEST(LogFmt, HexOfEveryByteMatchesPrintf) {
    for (int b = 0; b < 256; ++b) {
        uint8_t byte = static_cast<uint8_t>(b);
        char buf[4];
        EXPECT_EQ(Printf("%02x", b), std::string(buf, lapi_fmt::Hex(buf, &byte, 1)));
        EXPECT_EQ(Printf("%02x ", b), std::string(buf, lapi_fmt::HexSpaced(buf, &byte, 1)));
    }
}

}  // namespace
