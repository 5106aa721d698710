/*
 * The server in a hostile environment, through the real binary: a shutdown
 * signal at any moment, a standard error that nobody reads or whose reader
 * has gone, a FIFO or a device in place of the configuration file or the
 * fix log, closed standard descriptors, a client that asks for every BP
 * pair, tens of thousands of live transactions, and a process that opens
 * connections up to the descriptor limit.
 */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "LocSvcEnv.h"
#include "ToolCommon.h"

using namespace locsvc;
using lapitest::Connection;
using lapitest::ServerOptions;
using lapitest::ServerProcess;
using lapitest::TempRoot;

namespace {

/* A hang or a crash is what these tests catch; the time a clean exit takes
 * is the soak suite's figure. The bound leaves room for a sanitizer build on
 * a loaded machine, where tearing down hundreds of clients takes seconds. */
constexpr int kExitWithinMs = 5000;

/* The server under test; another build's binary may be named for a check
 * against older code. */
ServerOptions Options() {
    ServerOptions o;
    if (const char *pBin = getenv("LAPI_HARDENING_SRV_BIN")) {
        o.binary = pBin;
    }
    return o;
}

/* A private root with the simulator on the BP channel; the server is
 * started by each test with the options it needs. */
class Hardening : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(root_.ok());
        bpsim::Options o;
        o.root = root_.Dir();
        o.fix = SampleFix();
        sim_ = std::make_unique<bpsim::Simulator>(o);
        std::string error;
        ASSERT_TRUE(sim_->Open(&error)) << error;
        ASSERT_TRUE(sim_->StartThread());
    }
    void TearDown() override {
        if (srv_ && HasFailure()) {
            std::vector<std::string> errors = srv_->ErrorMessages();
            for (size_t i = 0; i < errors.size() && i < 15; ++i) {
                std::cerr << "  srv error: " << errors[i] << "\n";
            }
            std::vector<std::string> lines = srv_->StderrLines();
            size_t from = lines.size() > 10 ? lines.size() - 10 : 0;
            for (size_t i = from; i < lines.size(); ++i) {
                std::cerr << "  srv: " << lines[i] << "\n";
            }
        }
        if (srv_ && srv_->Running()) {
            EXPECT_EQ(0, srv_->Stop());
        }
        srv_.reset();
        sim_->Close();
    }

    bool Start(ServerOptions o = Options()) {
        srv_ = std::make_unique<ServerProcess>(root_, std::move(o));
        return srv_->StartAndWaitReady();
    }

    /* One single-fix request on the synchronous connection and its answer. */
    static bool RoundTrip(TestClient &c, uint8_t sid, uint8_t tid, int timeoutMs = kWaitMs) {
        GetLocationReq r = MakeGetLocation(LAPI_MODE_SYNC, sid, tid);
        if (!c.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(r))) {
            return false;
        }
        auto m = c.Sync().RecvMsg(timeoutMs);
        return m && m->msgId == LAPI_GET_LOCATION_RSP;
    }

    /* Starts the server with one of its output streams (1 or 2) on a pipe
     * that nobody reads yet; *pReadEnd is the test's end, non-blocking. */
    bool StartWithStreamOnPipe(int stream, int *pReadEnd) {
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0) {
            return false;
        }
        fcntl(p[0], F_SETFL, O_NONBLOCK);
        ServerOptions o = Options();
        int writeEnd = p[1];
        o.childSetup = [writeEnd, stream] { dup2(writeEnd, stream); };
        bool started = Start(o);
        close(p[1]);
        *pReadEnd = p[0];
        return started;
    }

    std::string PidFile() const { return root_.Path("/tmp/lapi.pid"); }

    TempRoot root_;
    std::unique_ptr<bpsim::Simulator> sim_;
    std::unique_ptr<ServerProcess> srv_;
};

std::string FdTarget(pid_t pid, int fd) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fd/%d", static_cast<int>(pid), fd);
    char buf[256];
    ssize_t n = readlink(path, buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

/* Everything in the pipe now, without waiting. */
std::string DrainPipe(int fd) {
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            return out;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

/* Reads the pipe until its text holds this, or the wait is over. */
std::string DrainPipeUntil(int fd, const std::string &text) {
    std::string out;
    auto deadline = lapitest::NowMs() + kWaitMs;
    while (out.find(text) == std::string::npos && lapitest::NowMs() < deadline) {
        struct pollfd pfd = {fd, POLLIN, 0};
        poll(&pfd, 1, 100);
        out += DrainPipe(fd);
    }
    return out;
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* 1. A shutdown signal at any moment                                        */
/* ------------------------------------------------------------------------ */

/* Clients connect, register, ask and vanish as fast as they can while
 * SIGTERM arrives at a random moment: whatever the loop was doing (a client
 * half torn down included), the server exits 0 within a second and removes
 * its pid file. */
TEST_F(Hardening, SigtermWhileClientsAreTornDownExitsZeroAndRemovesPidFile) {
    sim_->SetPolicy(GEOLOCATION_APBP_REQ, bpsim::Policy{bpsim::Answer::Silent, 0, nullptr});
    std::mt19937 rng(1234);
    for (int run = 0; run < 12; ++run) {
        SCOPED_TRACE(run);
        ASSERT_TRUE(Start());
        std::atomic<bool> stop{false};
        std::thread churn([&] {
            uint8_t tid = 1;
            while (!stop.load()) {
                TestClient c(root_.Dir());
                if (!c.Handshake(1, 500)) {
                    continue;
                }
                for (int i = 0; i < 4; ++i) {
                    c.SendMsg(LAPI_GET_LOCATION_REQ,
                              BodyOf(MakeGetLocation(LAPI_MODE_SYNC, 1, tid++)));
                }
            }
        });
        /* The random moment under test. */
        usleep(20000 + rng() % 30000);
        ASSERT_EQ(0, kill(srv_->Pid(), SIGTERM));
        int code = srv_->WaitExit(kExitWithinMs);
        stop = true;
        churn.join();
        EXPECT_EQ(0, code);
        EXPECT_FALSE(root_.Exists("/tmp/lapi.pid"));
        if (code == lapitest::kNotExited) {
            kill(srv_->Pid(), SIGKILL);
            srv_->WaitExit(kWaitMs);
        }
        srv_.reset();
    }
}

namespace {

/* The number of the system call the process sits in (-1 when unknown). */
long SyscallOf(pid_t pid) {
    std::string path = "/proc/" + std::to_string(pid) + "/syscall";
    FILE *f = fopen(path.c_str(), "re");
    long nr = -1;
    if (f != nullptr) {
        if (fscanf(f, "%ld", &nr) != 1) {
            nr = -1;
        }
        fclose(f);
    }
    return nr;
}

/* A signal mask line of /proc/PID/status ("SigBlk", "ShdPnd", ...). */
uint64_t StatusMask(pid_t pid, const std::string &key) {
    std::string path = "/proc/" + std::to_string(pid) + "/status";
    FILE *f = fopen(path.c_str(), "re");
    uint64_t mask = 0;
    char line[256];
    while (f != nullptr && fgets(line, sizeof(line), f) != nullptr) {
        if (strncmp(line, (key + ":").c_str(), key.size() + 1) == 0) {
            mask = strtoull(line + key.size() + 1, nullptr, 16);
        }
    }
    if (f != nullptr) {
        fclose(f);
    }
    return mask;
}

}  // namespace

/* The server is stopped in the middle of its work (not in its wait) and
 * SIGTERM is sent then: it stays pending, blocked, while the server goes on
 * to its wait, and only there ends the server, cleanly. */
TEST_F(Hardening, SigtermArrivingOutsideTheWaitIsHeldUntilTheWait) {
    sim_->SetPolicy(GEOLOCATION_APBP_REQ, bpsim::Policy{bpsim::Answer::Silent, 0, nullptr});
    ASSERT_TRUE(Start());
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        uint8_t tid = 1;
        while (!stop.load()) {
            TestClient c(root_.Dir());
            if (c.Handshake(1, 500)) {
                c.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(LAPI_MODE_SYNC, 1, tid++)));
            }
        }
    });
    pid_t pid = srv_->Pid();
    const uint64_t termBit = 1ull << (SIGTERM - 1);
    bool caught = false;
    for (int attempt = 0; attempt < 20000 && !caught; ++attempt) {
        kill(pid, SIGSTOP);
        /* Wait until it is really stopped, then look where. */
        for (int i = 0; i < 1000; ++i) {
            std::string path = "/proc/" + std::to_string(pid) + "/stat";
            FILE *f = fopen(path.c_str(), "re");
            char buf[512] = {0};
            if (f != nullptr) {
                if (fgets(buf, sizeof(buf), f) == nullptr) {
                    buf[0] = '\0';
                }
                fclose(f);
            }
            const char *p = strrchr(buf, ')');
            if (p != nullptr && (p[2] == 'T' || p[2] == 't')) {
                break;
            }
            usleep(100);
        }
        long nr = SyscallOf(pid);
        if (nr != SYS_pselect6 && nr != -1) {
            caught = true;
            kill(pid, SIGTERM);
            EXPECT_NE(0u, StatusMask(pid, "SigBlk") & termBit) << "SIGTERM not blocked";
            EXPECT_NE(0u, (StatusMask(pid, "ShdPnd") | StatusMask(pid, "SigPnd")) & termBit)
                << "SIGTERM not pending";
        }
        kill(pid, SIGCONT);
    }
    stop = true;
    churn.join();
    ASSERT_TRUE(caught) << "the server was never caught outside its wait";
    EXPECT_EQ(0, srv_->WaitExit(kExitWithinMs));
    EXPECT_FALSE(root_.Exists("/tmp/lapi.pid"));
}

/* SIGFPE sent by another process is a request to stop, taken at the same
 * safe point as SIGTERM and reported as itself. */
TEST_F(Hardening, SigfpeSentByAnotherProcessEndsServerCleanly) {
    ASSERT_TRUE(Start());
    TestClient c(root_.Dir());
    ASSERT_TRUE(c.Handshake(1));
    ASSERT_TRUE(srv_->Signal(SIGFPE));
    EXPECT_EQ(0, srv_->WaitExit(kExitWithinMs));
    EXPECT_FALSE(root_.Exists("/tmp/lapi.pid"));
    EXPECT_GE(srv_->WaitForLineContaining(lapitest::Stream::Stderr,
                                          "LAPI SRV received signal: SIGFPE!", kWaitMs),
              0);
}

/* ------------------------------------------------------------------------ */
/* 2, 3. Standard error that nobody reads, or whose reader has gone          */
/* ------------------------------------------------------------------------ */

TEST_F(Hardening, StderrWhoseReaderHasGoneIsGivenUpAndClientsAreServed) {
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
    ServerOptions o = Options();
    int writeEnd = p[1];
    o.childSetup = [writeEnd] { dup2(writeEnd, 2); };
    close(p[0]); /* the log collector is gone before the server starts */
    ASSERT_TRUE(Start(o));
    close(p[1]);

    for (int i = 0; i < 3; ++i) {
        TestClient c(root_.Dir());
        ASSERT_TRUE(c.Handshake(1, 2000)) << i;
        EXPECT_TRUE(RoundTrip(c, 1, static_cast<uint8_t>(i + 1), 2000)) << i;
    }
    ASSERT_TRUE(srv_->Signal(SIGTERM));
    EXPECT_EQ(0, srv_->WaitExit(kExitWithinMs));
    EXPECT_FALSE(root_.Exists("/tmp/lapi.pid"));
}

TEST_F(Hardening, FullStderrDropsLinesCountsThemAndNeverBlocksShutdown) {
    int readEnd = -1;
    ASSERT_TRUE(StartWithStreamOnPipe(2, &readEnd));

    /* Far more than the pipe holds (the server widens it to 1 MiB): every
     * round trip writes about 8 KB of lines. */
    TestClient c(root_.Dir());
    ASSERT_TRUE(c.Handshake(1));
    for (int i = 0; i < 400; ++i) {
        ASSERT_TRUE(RoundTrip(c, 1, static_cast<uint8_t>(i % 255 + 1))) << i;
    }
    /* Read now: the stream takes writes again, and the next line says how
     * many were lost. */
    DrainPipe(readEnd);
    ASSERT_TRUE(RoundTrip(c, 2, 1));
    std::string after = DrainPipeUntil(readEnd, "diagnostic lines dropped");
    EXPECT_NE(std::string::npos, after.find("diagnostic lines dropped, standard error was full"))
        << after.substr(0, 2000);

    /* Full again, then SIGTERM: the handler's own line cannot stop it. */
    for (int i = 0; i < 400; ++i) {
        ASSERT_TRUE(RoundTrip(c, 3, static_cast<uint8_t>(i % 255 + 1))) << i;
    }
    ASSERT_EQ(0, kill(srv_->Pid(), SIGTERM));
    EXPECT_EQ(0, srv_->WaitExit(kExitWithinMs));
    EXPECT_FALSE(root_.Exists("/tmp/lapi.pid"));
    close(readEnd);
}

/* Standard output that nobody reads: the plain line beside each traced
 * location answer (about 70 bytes, twice per round trip) fills the pipe
 * after a few hundred round trips; from then on the text is dropped with an
 * error line, and the server goes on serving. */
TEST_F(Hardening, FullStdoutDropsTextAndNeverBlocksTheServer) {
    int readEnd = -1;
    ASSERT_TRUE(StartWithStreamOnPipe(1, &readEnd));

    TestClient c(root_.Dir());
    ASSERT_TRUE(c.Handshake(1));
    for (int i = 0; i < 1500; ++i) {
        ASSERT_TRUE(RoundTrip(c, 1, static_cast<uint8_t>(i % 255 + 1), 2000)) << i;
    }
    EXPECT_GE(
        srv_->WaitForLineContaining(lapitest::Stream::Stderr, "standard output is full, ", kWaitMs),
        0);
    /* The stream takes writes again once it is read. */
    std::string got = DrainPipe(readEnd);
    EXPECT_NE(std::string::npos, got.find("pMsg->nmeaDataLength:"));
    ASSERT_TRUE(RoundTrip(c, 2, 1));
    EXPECT_NE(std::string::npos,
              DrainPipeUntil(readEnd, "pMsg->nmeaDataLength:").find("pMsg->nmeaDataLength:"));

    ASSERT_EQ(0, kill(srv_->Pid(), SIGTERM));
    EXPECT_EQ(0, srv_->WaitExit(kExitWithinMs));
    close(readEnd);
}

/* ------------------------------------------------------------------------ */
/* 4. Configuration file and fix log that are not regular files              */
/* ------------------------------------------------------------------------ */

namespace {
const char kCfg[] = "/zel_user/download/appwrite/setup/zel_agps.cfg";
const char kFixLog[] = "/zellocal/download/appwrite/location_fix.log";
}  // namespace

TEST_F(Hardening, ConfigurationFileThatIsAFifoIsIgnoredAtStartUp) {
    ASSERT_TRUE(root_.SetFlag(367));
    ASSERT_TRUE(root_.MakeDirs("/zel_user/download/appwrite/setup"));
    ASSERT_EQ(0, mkfifo(root_.Path(kCfg).c_str(), 0644));
    ASSERT_TRUE(Start());
    EXPECT_TRUE(srv_->WaitForErrorContaining("is not a regular file, ignored!", kWaitMs));
    EXPECT_TRUE(srv_->WaitForError("can not get agps log file size", kWaitMs));
}

TEST_F(Hardening, ConfigurationFileLinkedToDevZeroIsIgnoredAtStartUp) {
    ASSERT_TRUE(root_.SetFlag(367));
    ASSERT_TRUE(root_.MakeDirs("/zel_user/download/appwrite/setup"));
    ASSERT_EQ(0, symlink("/dev/zero", root_.Path(kCfg).c_str()));
    ASSERT_TRUE(Start());
    EXPECT_TRUE(srv_->WaitForErrorContaining("is not a regular file, ignored!", kWaitMs));
    EXPECT_TRUE(srv_->WaitForError("can not get agps log file size", kWaitMs));
}

TEST_F(Hardening, FixLogThatIsAFifoIsIgnoredAndTheRequestGoesOn) {
    ASSERT_TRUE(root_.SetFlag(367));
    ASSERT_TRUE(root_.WriteFile(kCfg, "LogFileSize = 64\n"));
    ASSERT_TRUE(root_.MakeDirs("/zellocal/download/appwrite"));
    ASSERT_EQ(0, mkfifo(root_.Path(kFixLog).c_str(), 0644));
    ASSERT_TRUE(Start());
    TestClient c(root_.Dir());
    ASSERT_TRUE(c.Handshake(1));
    EXPECT_TRUE(RoundTrip(c, 1, 1));
    EXPECT_TRUE(srv_->WaitForErrorContaining("is not a regular file, ignored!", kWaitMs));
    EXPECT_TRUE(srv_->WaitForError("LAPI_SRV_LOG_Open() failed!", kWaitMs));
}

TEST_F(Hardening, FailedFixLogWriteGetsAnErrorLine) {
    ASSERT_TRUE(root_.SetFlag(367));
    ASSERT_TRUE(root_.WriteFile(kCfg, "LogFileSize = 64\n"));
    ServerOptions o = Options();
    /* The file may not grow past its header: the record's write fails as
     * on a full disk (EFBIG instead of ENOSPC; SIGXFSZ ignored). */
    o.childSetup = [] {
        struct rlimit limit = {100, 100};
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_IGN);
    };
    ASSERT_TRUE(Start(o));
    TestClient c(root_.Dir());
    ASSERT_TRUE(c.Handshake(1));
    EXPECT_TRUE(RoundTrip(c, 1, 1));
    EXPECT_TRUE(srv_->WaitForErrorContaining("Fail to write ", kWaitMs));
}

/* ------------------------------------------------------------------------ */
/* 5. Started with descriptors 0 to 2 closed                                 */
/* ------------------------------------------------------------------------ */

TEST_F(Hardening, StartedWithStandardDescriptorsClosedTheyGoToDevNull) {
    ServerOptions o = Options();
    o.childSetup = [] {
        close(0);
        close(1);
        close(2);
    };
    ASSERT_TRUE(Start(o));
    for (int fd = 0; fd <= 2; ++fd) {
        EXPECT_EQ("/dev/null", FdTarget(srv_->Pid(), fd)) << fd;
    }
    /* A client gets its answers and nothing else (no diagnostic lines). */
    TestClient c(root_.Dir());
    ASSERT_TRUE(c.Handshake(1));
    EXPECT_TRUE(RoundTrip(c, 1, 1));
    EXPECT_TRUE(c.Sync().StaysSilent(200));
    EXPECT_EQ(0u, c.Sync().Pending());
    /* And the BP channel carries frames only. */
    EXPECT_TRUE(sim_->WaitForSubCmd(GEOLOCATION_APBP_REQ, kWaitMs).has_value());
}

/* ------------------------------------------------------------------------ */
/* 6. One client cannot take every BP pair                                   */
/* ------------------------------------------------------------------------ */

TEST_F(Hardening, ClientAskingForEveryBpPairIsCutAtItsLimitAndOthersAreServed) {
    sim_->SetPolicy(GEOLOCATION_APBP_REQ, bpsim::Policy{bpsim::Answer::Silent, 0, nullptr});
    ASSERT_TRUE(Start());
    TestClient other(root_.Dir());
    ASSERT_TRUE(other.Handshake(1));

    /* Periodic requests that the BP never answers, one per client pair,
     * as many as there are BP pairs. */
    TestClient greedy(root_.Dir());
    ASSERT_TRUE(greedy.Handshake(1));
    Bytes all;
    for (int i = 0; i < 254 * 255; ++i) {
        GetLocationReq r = MakeGetLocation(LAPI_MODE_SYNC, static_cast<uint8_t>(i >> 8),
                                           static_cast<uint8_t>(i), 1000, 1, 60);
        Bytes m = lapitest::MakeMsg(LAPI_GET_LOCATION_REQ, BodyOf(r), greedy.Pid());
        all.insert(all.end(), m.begin(), m.end());
    }
    /* Sent as fast as the server takes it; the server may close first. */
    signal(SIGPIPE, SIG_IGN);
    size_t sent = 0;
    while (sent < all.size()) {
        ssize_t n = send(greedy.SyncFd(), all.data() + sent, all.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            break;
        }
        sent += static_cast<size_t>(n);
    }
    EXPECT_TRUE(greedy.Sync().IsClosedByPeer(60000));
    EXPECT_TRUE(srv_->WaitForErrorContaining("already holds 256 transactions, refuse!", kWaitMs));

    /* Everyone else still gets a transaction (the BP answers it now). */
    sim_->ClearPolicy(GEOLOCATION_APBP_REQ);
    EXPECT_TRUE(RoundTrip(other, 1, 1));
    TestClient late(root_.Dir());
    ASSERT_TRUE(late.Handshake(1));
    EXPECT_TRUE(RoundTrip(late, 1, 1));
}

/* ------------------------------------------------------------------------ */
/* 7. Tens of thousands of live transactions                                 */
/* ------------------------------------------------------------------------ */

/* 60 000 periodic requests alive (235 clients at their limit): a new
 * request is still matched to its own answer, and the clients that go away
 * take exactly their own transactions with them. The cost per round trip is
 * measured by the benchmark, not here. */
TEST_F(Hardening, SixtyThousandLiveTransactionsStillMatchEachAnswer) {
    sim_->SetPolicy(GEOLOCATION_APBP_REQ, bpsim::Policy{bpsim::Answer::Silent, 0, nullptr});
    ASSERT_TRUE(Start());
    constexpr int kClients = 235;
    constexpr int kEach = 255;
    std::vector<std::unique_ptr<TestClient>> holders;
    for (int k = 0; k < kClients; ++k) {
        auto c = std::make_unique<TestClient>(root_.Dir());
        ASSERT_TRUE(c->Handshake(1)) << k;
        Bytes all;
        for (int i = 0; i < kEach; ++i) {
            GetLocationReq r =
                MakeGetLocation(LAPI_MODE_SYNC, 1, static_cast<uint8_t>(i + 1), 1000, 1, 600);
            Bytes m = lapitest::MakeMsg(LAPI_GET_LOCATION_REQ, BodyOf(r), c->Pid());
            all.insert(all.end(), m.begin(), m.end());
        }
        ASSERT_TRUE(c->Sync().SendRaw(all));
        holders.push_back(std::move(c));
    }
    /* Every request reached the BP. */
    size_t seen = 0;
    auto deadline = lapitest::NowMs() + 120000;
    while (seen < static_cast<size_t>(kClients * kEach) && lapitest::NowMs() < deadline) {
        if (sim_->WaitForSubCmd(GEOLOCATION_APBP_REQ, 1000)) {
            ++seen;
        }
    }
    ASSERT_EQ(static_cast<size_t>(kClients * kEach), seen);

    sim_->ClearPolicy(GEOLOCATION_APBP_REQ);
    TestClient probe(root_.Dir());
    ASSERT_TRUE(probe.Handshake(1));
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(RoundTrip(probe, 7, static_cast<uint8_t>(i + 1))) << i;
    }
    /* Two holders leave: one abort per running request of theirs. */
    sim_->ClearPending();
    holders[0].reset();
    holders[100].reset();
    size_t aborts = 0;
    while (sim_->WaitForSubCmd(GEOLOCATION_ABORT_APBP_REQ, 2000)) {
        ++aborts;
    }
    EXPECT_EQ(static_cast<size_t>(2 * kEach), aborts);
    EXPECT_TRUE(RoundTrip(probe, 8, 1));
}

/* ------------------------------------------------------------------------ */
/* 8. A process that opens connections up to the descriptor limit            */
/* ------------------------------------------------------------------------ */

TEST_F(Hardening, ConnectionsPastTheDescriptorLimitAreRefusedButListeningGoesOn) {
    /* The server starts with the usual soft limit of 1024; this process then
     * needs more than that for its own connections. */
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max < 1400) {
        GTEST_SKIP() << "hard descriptor limit " << saved.rlim_max << " is below 1400";
    }
    struct rlimit usual = {1024, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &usual));
    bool started = Start();
    struct rlimit wide = {1400, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &wide));
    ASSERT_TRUE(started);

    std::vector<int> conns;
    for (int i = 0; i < 1100; ++i) {
        int fd = lapitest::ConnectUnix(root_.Path("/tmp/lapisock"));
        if (fd >= 0) {
            conns.push_back(fd);
        }
    }
    /* The ones past FD_SETSIZE are accepted and closed; the listening
     * socket stays. */
    EXPECT_TRUE(srv_->WaitForErrorContaining(">= FD_SETSIZE", kWaitMs));
    EXPECT_EQ(0u, srv_->CountErrors("Fail to accept connection request, errno is: 24, Too many "
                                    "open files"));
    for (int fd : conns) {
        close(fd);
    }
    /* The next client must find low descriptors free again: until the
     * server has read the end of the closed ones, a new connection may
     * still land past FD_SETSIZE and be refused, as it should be. */
    EXPECT_TRUE(
        toolcommon::PollUntil([&] { return toolcommon::CountOpenFds(srv_->Pid()) < 512; }, kWaitMs))
        << toolcommon::CountOpenFds(srv_->Pid()) << " descriptors still open in the server";
    TestClient c(root_.Dir());
    EXPECT_TRUE(c.Handshake(1));
    EXPECT_TRUE(RoundTrip(c, 1, 1));
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
}
