/*
 * Start-up self-tests, signals, the listening socket, shutdown and the
 * select loop.
 */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_Main.h"
#include "LAPI_SRV_Paths.h"
#include "ServerFixture.h"

namespace {

using lapitest::StderrCapture;
using lapitest::TempRoot;

bool Contains(const std::vector<std::string> &v, const std::string &s) {
    return std::find(v.begin(), v.end(), s) != v.end();
}

bool FdIsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

bool IsNonBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

/* ------------------------------------------------------------------------ */
/* Self-tests                                                                */
/* ------------------------------------------------------------------------ */

std::vector<uint8_t> gPatterns;

void RecordPattern(uint8_t pattern) {
    gPatterns.push_back(pattern);
}

class PackedStruct : public ::testing::Test {
  protected:
    void SetUp() override {
        gPatterns.clear();
        LAPI_SRV_packedTestHook = RecordPattern;
    }
    void TearDown() override { LAPI_SRV_packedTestHook = nullptr; }
};

TEST(TypeCheck, PassesOnThisBuild) {
    StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_TypeCheck());
    cap.Restore();
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
}

TEST_F(PackedStruct, QuickRunUsesOnly3FThenAF) {
    StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_TestPackedStruct(0));
    cap.Restore();
    EXPECT_EQ((std::vector<uint8_t>{0x3F, 0xAF}), gPatterns);
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
}

/* The read-check errors that the pattern 0xFF gives for the double when
 * its bytes (byte 3 being 0xFE) make a NaN: a NaN compared as a double
 * never equals itself, once for each of the eight offsets. */
std::vector<std::string> NanDoubleReadErrors() {
    double d;
    uint8_t bytes[sizeof(d)];
    memset(bytes, 0xFF, sizeof(bytes));
    bytes[3] = 0xFE;
    memcpy(&d, bytes, sizeof(d));
    std::vector<std::string> errors;
    if (d != d) {
        for (int i = 0; i < 8; ++i) {
            errors.push_back("doubleTest read error, hex: ff, i: " + std::to_string(i) + "!");
        }
    }
    return errors;
}

TEST_F(PackedStruct, FullRunUsesEveryByteInOrder) {
    StderrCapture cap;
    int result = LAPI_SRV_TestPackedStruct(1);
    cap.Restore();
    ASSERT_EQ(256u, gPatterns.size());
    for (int p = 0; p < 256; ++p) {
        EXPECT_EQ(p, gPatterns[static_cast<size_t>(p)]);
    }
    /* 0x00 on a background of 0xFF passes; the only failures are the NaN
     * reads of 0xFF (none where byte 3 holds the exponent). */
    std::vector<std::string> expected = NanDoubleReadErrors();
    EXPECT_EQ(expected, cap.Errors()) << cap.Text();
    EXPECT_EQ(expected.empty() ? 0 : -1, result);
}

TEST_F(PackedStruct, FullRunComparesTheDoubleAsADouble) {
    /* Every integer field and every write check passes; on a layout where
     * 0xFF makes the double a NaN, its read check fails at all offsets. */
    double d;
    uint8_t bytes[sizeof(d)];
    memset(bytes, 0xFF, sizeof(bytes));
    bytes[3] = 0xFE;
    memcpy(&d, bytes, sizeof(d));
    if (d == d) {
        GTEST_SKIP() << "0xFF with 0xFE at byte 3 is not a NaN on this layout";
    }
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_TestPackedStruct(1));
    cap.Restore();
    std::vector<std::string> errors = cap.Errors();
    ASSERT_EQ(8u, errors.size()) << cap.Text();
    for (const std::string &e : errors) {
        EXPECT_EQ(0u, e.rfind("doubleTest read error, hex: ff, i: ", 0)) << e;
    }
}

TEST_F(PackedStruct, AnyNonZeroFlagMeansFull) {
    StderrCapture cap;
    int result = LAPI_SRV_TestPackedStruct(0x80);
    cap.Restore();
    EXPECT_EQ(NanDoubleReadErrors().empty() ? 0 : -1, result);
    EXPECT_EQ(256u, gPatterns.size());
}

/* ------------------------------------------------------------------------ */
/* Signals                                                                   */
/* ------------------------------------------------------------------------ */

/* Saves the four signal actions and puts them back. */
class SavedSignals {
  public:
    SavedSignals() {
        for (size_t i = 0; i < kCount; ++i) {
            sigaction(kSigs[i], nullptr, &saved_[i]);
        }
        sigprocmask(SIG_SETMASK, nullptr, &savedMask_);
    }
    ~SavedSignals() {
        for (size_t i = 0; i < kCount; ++i) {
            sigaction(kSigs[i], &saved_[i], nullptr);
        }
        sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
    }
    static constexpr size_t kCount = 4;
    static constexpr int kSigs[kCount] = {SIGPIPE, SIGFPE, SIGTERM, SIGSEGV};

  private:
    struct sigaction saved_[kCount];
    sigset_t savedMask_;
};

TEST(Signals, HandlerInstalledForFourSignalsWithoutRestart) {
    SavedSignals saved;
    StderrCapture cap;
    LAPI_SRV_InitSignal();
    cap.Restore();
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
    for (int sig : SavedSignals::kSigs) {
        SCOPED_TRACE(sig);
        struct sigaction now;
        ASSERT_EQ(0, sigaction(sig, nullptr, &now));
        /* SIGPIPE goes straight to the handler; the three that end the
         * server reach it through a step that waits for the loop's wait. */
        if (sig == SIGPIPE) {
            EXPECT_EQ(reinterpret_cast<void *>(LAPI_SRV_SigHandler),
                      reinterpret_cast<void *>(now.sa_handler));
        } else {
            EXPECT_NE(nullptr, reinterpret_cast<void *>(now.sa_handler));
        }
        /* Faults must tell a real fault from one sent by another process. */
        EXPECT_EQ((sig == SIGFPE || sig == SIGSEGV) ? SA_SIGINFO : 0, now.sa_flags & SA_SIGINFO);
        EXPECT_EQ(0, now.sa_flags & SA_RESTART);
        sigset_t empty;
        sigemptyset(&empty);
        for (int s = 1; s < 32; ++s) {
            EXPECT_EQ(sigismember(&empty, s), sigismember(&now.sa_mask, s)) << s;
        }
    }
    /* SIGTERM is blocked outside the loop's wait. */
    sigset_t mask;
    ASSERT_EQ(0, sigprocmask(SIG_SETMASK, nullptr, &mask));
    EXPECT_EQ(1, sigismember(&mask, SIGTERM));
    EXPECT_EQ(0, sigismember(&mask, SIGFPE));
    EXPECT_EQ(0, sigismember(&mask, SIGSEGV));
}

TEST(Signals, SignalInterruptsBlockingReadWithEintr) {
    SavedSignals saved;
    StderrCapture cap;
    LAPI_SRV_InitSignal();
    int p[2];
    ASSERT_EQ(0, pipe(p));
    pthread_t reader = pthread_self();
    std::atomic<bool> done{false};
    /* Keeps poking the reader until its read returns: no restart means the
     * very first delivery during the read ends it. */
    std::thread poker([&] {
        while (!done.load()) {
            pthread_kill(reader, SIGPIPE);
            usleep(5000);
        }
    });
    char c;
    ssize_t n = read(p[0], &c, 1);
    int err = errno;
    done = true;
    poker.join();
    cap.Restore();
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(-1, n);
    EXPECT_EQ(EINTR, err);
    EXPECT_NE(std::string::npos, cap.Text().find("LAPI SRV received signal: SIGPIPE!"));
}

TEST(Signals, SigpipeIsTracedAndReturns) {
    StderrCapture cap;
    LAPI_SRV_SigHandler(SIGPIPE);
    cap.Restore();
    EXPECT_EQ(std::vector<std::string>{""}, cap.Traces());
    EXPECT_NE(std::string::npos,
              cap.Text().find("LAPI SRV : \n\nLAPI SRV received signal: SIGPIPE!\n\n\n\n"));
}

TEST(Signals, UnknownSignalIsTracedAndReturns) {
    StderrCapture cap;
    LAPI_SRV_SigHandler(SIGUSR1);
    cap.Restore();
    std::string want =
        "LAPI SRV : \n\nLAPI SRV received signal: unknown " + std::to_string(SIGUSR1) + "!\n\n\n\n";
    EXPECT_NE(std::string::npos, cap.Text().find(want)) << cap.Text();
}

class SigHandlerDeathTest : public ::testing::TestWithParam<int> {};

TEST_P(SigHandlerDeathTest, FatalSignalCleansUpAndExitsZero) {
    TempRoot root;
    std::string pidFile = root.Path("/lapi.pid");
    ASSERT_TRUE(root.WriteFile("/lapi.pid", "123\n"));
    const char *saved = LAPI_SRV_pidFile;
    LAPI_SRV_pidFile = pidFile.c_str();
    LAPI_SRV_InitGlobals();
    int p[2];
    ASSERT_EQ(0, pipe(p));
    Fdops *pFdops = CreateFdops(p[0], 0, 0);
    ASSERT_NE(nullptr, pFdops);
    LAPI_SRV_AddFdopsReadList(pFdops);

    const char *name = GetParam() == SIGFPE    ? "SIGFPE"
                       : GetParam() == SIGTERM ? "SIGTERM"
                                               : "SIGSEGV";
    EXPECT_EXIT(LAPI_SRV_SigHandler(GetParam()), ::testing::ExitedWithCode(0),
                std::string("received signal: ") + name + "!");
    /* The child removed the pid file before exiting. */
    EXPECT_FALSE(root.Exists("/lapi.pid"));

    LAPI_SRV_CloseAll();
    close(p[1]);
    LAPI_SRV_pidFile = saved;
}

INSTANTIATE_TEST_SUITE_P(FatalSignals, SigHandlerDeathTest,
                         ::testing::Values(SIGFPE, SIGTERM, SIGSEGV));

/* ------------------------------------------------------------------------ */
/* Listening socket, accept and shutdown                                     */
/* ------------------------------------------------------------------------ */

class Core : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(root_.ok());
        sock_ = root_.Path("/sock");
        savedSock_ = LAPI_SRV_sockPath;
        LAPI_SRV_sockPath = sock_.c_str();
        LAPI_SRV_InitGlobals();
    }
    void TearDown() override {
        /* Whatever a test left on the lists goes, descriptors included. */
        while (!List_IsEmpty(&LAPI_SRV_writeFdopsList)) {
            ListNode *pHead = List_GetHeadPos(&LAPI_SRV_writeFdopsList);
            Fdops *p = static_cast<Fdops *>(pHead->data);
            if (p != nullptr && FD_ISSET(p->fd, &readFdSet)) {
                LAPI_SRV_RemoveFdopsWriteList(p);
            } else if (p != nullptr) {
                DestroyFdops(p);
            }
            if (List_GetHeadPos(&LAPI_SRV_writeFdopsList) == pHead) {
                List_RemoveHead(&LAPI_SRV_writeFdopsList);
            }
        }
        LAPI_SRV_CloseAll();
        LAPI_SRV_InitGlobals();
        LAPI_SRV_sockPath = savedSock_;
    }

    int ConnectToSock() { return lapitest::ConnectUnix(sock_); }

    TempRoot root_;
    std::string sock_;
    const char *savedSock_ = nullptr;
};

TEST_F(Core, InitSrvSockListensWithMode0666NonBlocking) {
    StderrCapture cap;
    int fd = LAPI_SRV_InitSrvSock();
    cap.Restore();
    ASSERT_GE(fd, 0) << cap.Text();
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
    struct stat st;
    ASSERT_EQ(0, lstat(sock_.c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0666u, st.st_mode & 0777u);
    EXPECT_TRUE(IsNonBlocking(fd));
    int c = ConnectToSock();
    EXPECT_GE(c, 0);
    close(c);
    close(fd);
}

TEST_F(Core, InitSrvSockReplacesStaleFile) {
    ASSERT_TRUE(root_.WriteFile("/sock", "old"));
    int fd = LAPI_SRV_InitSrvSock();
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(0, lstat(sock_.c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    close(fd);
}

TEST_F(Core, InitSrvSockBindFailureIsReported) {
    std::string missing = root_.Path("/no/such/sock");
    LAPI_SRV_sockPath = missing.c_str();
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_InitSrvSock());
    cap.Restore();
    EXPECT_EQ(
        std::vector<std::string>{"Fail to bind socket, errno is: 2, No such file or directory"},
        cap.Errors());
}

TEST_F(Core, InitSrvSockPathTooLongIsRefused) {
    std::string longPath = root_.Path("/" + std::string(120, 's'));
    LAPI_SRV_sockPath = longPath.c_str();
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_InitSrvSock());
    cap.Restore();
    ASSERT_EQ(1u, cap.Errors().size());
    EXPECT_EQ(0u, cap.Errors()[0].rfind("Fail to bind socket, errno is: ", 0));
    EXPECT_FALSE(root_.Exists("/" + std::string(107, 's')));
}

TEST_F(Core, InitSrvSockLongestPathBinds) {
    /* 107 bytes: the whole address, no terminating zero inside it. */
    std::string dir = root_.Dir() + "/";
    std::string path = dir + std::string(107 - dir.size(), 'p');
    ASSERT_EQ(107u, path.size());
    LAPI_SRV_sockPath = path.c_str();
    int fd = LAPI_SRV_InitSrvSock();
    ASSERT_GE(fd, 0);
    int c = lapitest::ConnectUnix(path);
    EXPECT_GE(c, 0);
    close(c);
    close(fd);
}

TEST_F(Core, InitPutsListeningSocketOnReadList) {
    SavedSignals saved;
    ASSERT_EQ(0, LAPI_SRV_Init());
    ASSERT_EQ(1u, LAPI_SRV_readFdopsList.count);
    Fdops *p = static_cast<Fdops *>(LAPI_SRV_readFdopsList.head->data);
    EXPECT_EQ(LAPI_SRV_ListenSockReadProc, p->readProc);
    EXPECT_EQ(nullptr, p->writeProc);
    EXPECT_EQ(LAPI_SRV_CloseFdops, p->closeProc);
    EXPECT_EQ(nullptr, p->pFdInfo);
    EXPECT_EQ(nullptr, p->rbuf.buf);
    EXPECT_EQ(nullptr, p->wbuf.buf);
    EXPECT_TRUE(FD_ISSET(p->fd, &readFdSet));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
}

TEST_F(Core, InitFailsWhenSocketCannotBeBound) {
    SavedSignals saved;
    std::string missing = root_.Path("/no/such/sock");
    LAPI_SRV_sockPath = missing.c_str();
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_Init());
    cap.Restore();
    EXPECT_TRUE(
        Contains(cap.Errors(), "Fail to bind socket, errno is: 2, No such file or directory"));
}

TEST_F(Core, AcceptCreatesClientConnectionFdops) {
    int lfd = LAPI_SRV_InitSrvSock();
    ASSERT_GE(lfd, 0);
    Fdops *pListen = CreateFdops(lfd, 0, 0);
    ASSERT_NE(nullptr, pListen);
    pListen->readProc = LAPI_SRV_ListenSockReadProc;
    pListen->closeProc = LAPI_SRV_CloseFdops;
    LAPI_SRV_AddFdopsReadList(pListen);

    int c = ConnectToSock();
    ASSERT_GE(c, 0);
    LAPI_SRV_ListenSockReadProc(pListen);
    ASSERT_EQ(2u, LAPI_SRV_readFdopsList.count);
    Fdops *p = static_cast<Fdops *>(LAPI_SRV_readFdopsList.tail->data);
    EXPECT_EQ(LAPI_SRV_SockReadProcAfterConnect, p->readProc);
    EXPECT_EQ(LAPI_SRV_GeneralWriteProc, p->writeProc);
    EXPECT_EQ(LAPI_SRV_CloseFdops, p->closeProc);
    EXPECT_EQ(nullptr, p->pFdInfo);
    EXPECT_EQ(1024, p->rbuf.len);
    EXPECT_EQ(1024, p->wbuf.len);
    EXPECT_EQ(0, p->rbuf.idx);
    EXPECT_TRUE(IsNonBlocking(p->fd));
    close(c);
}

TEST_F(Core, AcceptFailureClosesListeningSocketForGood) {
    int lfd = LAPI_SRV_InitSrvSock();
    ASSERT_GE(lfd, 0);
    Fdops *pListen = CreateFdops(lfd, 0, 0);
    ASSERT_NE(nullptr, pListen);
    pListen->readProc = LAPI_SRV_ListenSockReadProc;
    pListen->closeProc = LAPI_SRV_CloseFdops;
    LAPI_SRV_AddFdopsReadList(pListen);

    /* Nobody is connecting: the non-blocking accept fails. */
    StderrCapture cap;
    LAPI_SRV_ListenSockReadProc(pListen);
    cap.Restore();
    std::vector<std::string> errors = cap.Errors();
    ASSERT_EQ(1u, errors.size()) << cap.Text();
    EXPECT_EQ(0u, errors[0].rfind("Fail to accept connection request, errno is: ", 0));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_FALSE(FdIsOpen(lfd));
    /* The socket file stays, but nobody accepts any more. */
    EXPECT_TRUE(root_.Exists("/sock"));
    EXPECT_LT(ConnectToSock(), 0);
}

TEST_F(Core, CloseAllDestroysEveryWatchedDescriptorAndKeepsSocketFile) {
    int lfd = LAPI_SRV_InitSrvSock();
    ASSERT_GE(lfd, 0);
    Fdops *pListen = CreateFdops(lfd, 0, 0);
    ASSERT_NE(nullptr, pListen);
    LAPI_SRV_AddFdopsReadList(pListen);

    int p[2];
    ASSERT_EQ(0, pipe(p));
    Fdops *pMux = CreateFdops(p[0], 1024, 1024);
    ASSERT_NE(nullptr, pMux);
    LAPI_SRV_AddFdopsReadList(pMux);
    LAPI_SRV_pMuxFdops = pMux;

    int s[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, s));
    Fdops *pConn = CreateFdops(s[0], 1024, 1024);
    ASSERT_NE(nullptr, pConn);
    LAPI_SRV_AddFdopsReadList(pConn);
    LAPI_SRV_AddFdopsWriteList(pConn);

    LAPI_SRV_CloseAll();
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_EQ(nullptr, LAPI_SRV_pMuxFdops);
    EXPECT_FALSE(FdIsOpen(lfd));
    EXPECT_FALSE(FdIsOpen(p[0]));
    EXPECT_FALSE(FdIsOpen(s[0]));
    EXPECT_TRUE(root_.Exists("/sock"));
    close(p[1]);
    close(s[1]);
}

TEST_F(Core, CloseAllRemovesEveryClient) {
    int s[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, s));
    Fdops *pConn = CreateFdops(s[0], 1024, 1024);
    ASSERT_NE(nullptr, pConn);
    LAPI_SRV_AddFdopsReadList(pConn);
    Client *pClient = LAPI_SRV_CreateClient(1234, 0, pConn);
    ASSERT_NE(nullptr, pClient);
    ASSERT_FALSE(List_IsEmpty(&LAPI_SRV_allClientList));

    StderrCapture cap;
    LAPI_SRV_CloseAll();
    cap.Restore();
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_FALSE(FdIsOpen(s[0]));
    close(s[1]);
}

TEST_F(Core, CloseAllEndsOnNullEntries) {
    ASSERT_NE(nullptr, List_AddTail(&LAPI_SRV_allClientList, nullptr));
    ASSERT_NE(nullptr, List_AddTail(&LAPI_SRV_readFdopsList, nullptr));
    LAPI_SRV_CloseAll();
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
}

/* ------------------------------------------------------------------------ */
/* The loop                                                                  */
/* ------------------------------------------------------------------------ */

/* Every procedure call of a turn, in order: "r:<name>" or "w:<name>". */
std::vector<std::string> gCalls;
std::vector<Fdops *> gCreated;

/* Loop-test descriptors are named by their fd. */
std::string gNames[FD_SETSIZE];

void Drain(int fd) {
    char buf[256];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
}

void ReadDrain(Fdops *p) {
    gCalls.push_back("r:" + gNames[p->fd]);
    Drain(p->fd);
}

void WriteAndLeave(Fdops *p) {
    gCalls.push_back("w:" + gNames[p->fd]);
    LAPI_SRV_RemoveFdopsWriteList(p);
}

class LoopTest : public Core {
  public:
    /* A descriptor on the read list, readable when withData is set; the
     * other end of the pair stays with the test. */
    Fdops *AddReadable(const std::string &name, FdopsProc readProc, bool withData = true) {
        int s[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, s) != 0) {
            return nullptr;
        }
        peers_.push_back(s[1]);
        if (withData && write(s[1], "x", 1) != 1) {
            return nullptr;
        }
        Fdops *p = CreateFdops(s[0], 0, 0);
        if (p == nullptr) {
            return nullptr;
        }
        gNames[s[0]] = name;
        p->readProc = readProc;
        p->closeProc = LAPI_SRV_CloseFdops;
        LAPI_SRV_AddFdopsReadList(p);
        return p;
    }

  protected:
    void SetUp() override {
        Core::SetUp();
        gCalls.clear();
        gCreated.clear();
    }
    void TearDown() override {
        Core::TearDown();
        for (int fd : peers_) {
            close(fd);
        }
    }

    std::vector<int> peers_;
};

LoopTest *gLoopTest = nullptr;

/* Closes its own descriptor and opens a new, already readable one. */
void ReadCloseSelfAndOpenNew(Fdops *p) {
    gCalls.push_back("r:" + gNames[p->fd]);
    DestroyFdops(p);
    gCreated.push_back(gLoopTest->AddReadable("C", ReadDrain));
}

TEST_F(LoopTest, ReadProcClosingItselfAndAcceptingRestartsAndNewOneWaitsForNextTurn) {
    gLoopTest = this;
    ASSERT_NE(nullptr, AddReadable("X", ReadDrain));
    ASSERT_NE(nullptr, AddReadable("A", ReadCloseSelfAndOpenNew));
    ASSERT_NE(nullptr, AddReadable("B", ReadDrain));

    StderrCapture cap;
    LAPI_SRV_LoopOnce();
    std::vector<std::string> turn1 = gCalls;
    gCalls.clear();
    LAPI_SRV_LoopOnce();
    cap.Restore();

    /* X once (not again after the restart from the head), A, then B; C was
     * not in this turn's sets. */
    EXPECT_EQ((std::vector<std::string>{"r:X", "r:A", "r:B"}), turn1);
    ASSERT_EQ(1u, gCreated.size());
    ASSERT_NE(nullptr, gCreated[0]);
    EXPECT_EQ((std::vector<std::string>{"r:C"}), gCalls);

    std::vector<std::string> traces = cap.Traces();
    std::vector<std::string> want = {"AFTER READPROC 2", "AFTER READPROC 1", "AFTER READPROC 0",
                                     "END WHILE(1)",     "AFTER READPROC 0", "END WHILE(1)"};
    EXPECT_EQ(want, traces);
    gLoopTest = nullptr;
}

Fdops *gMoved = nullptr;

/* Closes itself, takes the next entry off the list (its node is freed),
 * opens a new descriptor and puts the other one back behind it. */
void ReadCloseSelfAndReorder(Fdops *p) {
    gCalls.push_back("r:" + gNames[p->fd]);
    DestroyFdops(p);
    LAPI_SRV_RemoveFdopsReadList(gMoved);
    gCreated.push_back(gLoopTest->AddReadable("C", ReadDrain));
    LAPI_SRV_AddFdopsReadList(gMoved);
}

TEST_F(LoopTest, ReadProcFreeingTheNextNodeRestartsFromHead) {
    gLoopTest = this;
    ASSERT_NE(nullptr, AddReadable("X", ReadDrain));
    ASSERT_NE(nullptr, AddReadable("A", ReadCloseSelfAndReorder));
    gMoved = AddReadable("B", ReadDrain);
    ASSERT_NE(nullptr, gMoved);

    LAPI_SRV_LoopOnce();
    /* The loop never follows the freed node: it starts again at X (already
     * served), skips C (new) and finds B behind it. */
    EXPECT_EQ((std::vector<std::string>{"r:X", "r:A", "r:B"}), gCalls);
    gCalls.clear();
    LAPI_SRV_LoopOnce();
    EXPECT_EQ((std::vector<std::string>{"r:C"}), gCalls);
    gLoopTest = nullptr;
    gMoved = nullptr;
}

Fdops *gVictim = nullptr;
int gVictimFd = -1;

/* Destroys another descriptor that select found ready too, before the loop
 * came to it, and opens a new one, not readable, which gets its number. */
void ReadDestroyReadyOneAndReuseItsNumber(Fdops *p) {
    gCalls.push_back("r:" + gNames[p->fd]);
    gVictimFd = gVictim->fd;
    DestroyFdops(gVictim);
    gVictim = nullptr;
    gCreated.push_back(gLoopTest->AddReadable("C", ReadDrain, /*withData=*/false));
}

TEST_F(LoopTest, DescriptorNumberReusedInTheSameTurnWaitsForTheNextTurn) {
    gLoopTest = this;
    ASSERT_NE(nullptr, AddReadable("A", ReadDestroyReadyOneAndReuseItsNumber));
    gVictim = AddReadable("B", ReadDrain);
    ASSERT_NE(nullptr, gVictim);

    LAPI_SRV_LoopOnce();
    ASSERT_EQ(1u, gCreated.size());
    ASSERT_NE(nullptr, gCreated[0]);
    /* The new descriptor took the number of the one that was ready... */
    ASSERT_EQ(gVictimFd, gCreated[0]->fd);
    /* ...but nothing was ready on it: B's readiness does not pass to C. */
    EXPECT_EQ((std::vector<std::string>{"r:A"}), gCalls);
    EXPECT_EQ(nullptr, LAPI_SRV_pTurnReadSet);
    EXPECT_EQ(nullptr, LAPI_SRV_pTurnWriteSet);
    gLoopTest = nullptr;
}

TEST_F(LoopTest, NfdsAfterRemovingHighestIsOldHighest) {
    Fdops *pLow = AddReadable("low", ReadDrain);
    ASSERT_NE(nullptr, pLow);
    /* Two more descriptors directly above each other. */
    int s[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, s));
    peers_.push_back(s[1]);
    int high = fcntl(s[0], F_DUPFD_CLOEXEC, 200);
    ASSERT_GE(high, 200);
    int below = dup2(s[0], high - 1) == high - 1 ? high - 1 : -1;
    ASSERT_EQ(high - 1, below);
    close(s[0]);
    Fdops *pBelow = CreateFdops(below, 0, 0);
    Fdops *pHigh = CreateFdops(high, 0, 0);
    ASSERT_NE(nullptr, pBelow);
    ASSERT_NE(nullptr, pHigh);
    LAPI_SRV_AddFdopsReadList(pBelow);
    LAPI_SRV_AddFdopsReadList(pHigh);

    LAPI_SRV_LoopOnce();
    EXPECT_EQ(high + 1, LAPI_SRV_loopNfds);

    /* The one just below goes first, then the highest. */
    DestroyFdops(pBelow);
    DestroyFdops(pHigh);
    ASSERT_EQ(1, write(peers_[0], "y", 1));
    StderrCapture cap;
    LAPI_SRV_LoopOnce();
    cap.Restore();
    EXPECT_EQ(high, LAPI_SRV_loopNfds);
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
}

TEST_F(LoopTest, TimeoutIsOneHourWithNothingPending) {
    ASSERT_TRUE(List_IsEmpty(&LAPI_SRV_tranList));
    ASSERT_NE(nullptr, AddReadable("R", ReadDrain));
    LAPI_SRV_loopTimeout = {0, 1};
    LAPI_SRV_LoopOnce();
    EXPECT_EQ(3600, LAPI_SRV_loopTimeout.tv_sec);
    EXPECT_EQ(0, LAPI_SRV_loopTimeout.tv_usec);
    EXPECT_EQ((std::vector<std::string>{"r:R"}), gCalls);
}

TEST_F(LoopTest, ReadableAndWritableCountsTwiceAndReadRunsFirst) {
    Fdops *p = AddReadable("RW", ReadDrain);
    ASSERT_NE(nullptr, p);
    p->writeProc = WriteAndLeave;
    LAPI_SRV_AddFdopsWriteList(p);

    StderrCapture cap;
    LAPI_SRV_LoopOnce();
    cap.Restore();
    EXPECT_EQ((std::vector<std::string>{"r:RW", "w:RW"}), gCalls);
    /* n was 2: one left after the read procedure, for the write pass. */
    EXPECT_EQ((std::vector<std::string>{"AFTER READPROC 1", "END WHILE(1)"}), cap.Traces());
}

TEST_F(LoopTest, WriteProcLeavingTheListLetsTheNextOneRun) {
    Fdops *pA = AddReadable("WA", ReadDrain, false);
    Fdops *pB = AddReadable("WB", ReadDrain, false);
    ASSERT_NE(nullptr, pA);
    ASSERT_NE(nullptr, pB);
    pA->writeProc = WriteAndLeave;
    pB->writeProc = WriteAndLeave;
    LAPI_SRV_AddFdopsWriteList(pA);
    LAPI_SRV_AddFdopsWriteList(pB);
    LAPI_SRV_LoopOnce();
    EXPECT_EQ((std::vector<std::string>{"w:WA", "w:WB"}), gCalls);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
}

TEST_F(LoopTest, NullEntriesAndMissingProceduresAreReported) {
    ASSERT_NE(nullptr, List_AddTail(&LAPI_SRV_readFdopsList, nullptr));
    Fdops *pNoRead = AddReadable("noread", nullptr);
    ASSERT_NE(nullptr, pNoRead);
    Fdops *pNoWrite = AddReadable("nowrite", ReadDrain, false);
    ASSERT_NE(nullptr, pNoWrite);
    LAPI_SRV_AddFdopsWriteList(pNoWrite);
    ASSERT_NE(nullptr, List_AddTail(&LAPI_SRV_writeFdopsList, nullptr));

    StderrCapture cap;
    LAPI_SRV_LoopOnce();
    cap.Restore();
    std::vector<std::string> want = {"pFdops == NULL in LAPI_SRV_readFdopsList",
                                     "pFdops->readProc == NULL in LAPI_SRV_readFdopsList",
                                     "pFdops->writeProc == NULL in LAPI_SRV_writeFdopsList"};
    EXPECT_EQ(want, cap.Errors());

    /* Take the null nodes out again before the common clean-up. */
    List_Remove(&LAPI_SRV_readFdopsList, nullptr);
    List_Remove(&LAPI_SRV_writeFdopsList, nullptr);
    Drain(pNoRead->fd);
}

TEST_F(LoopTest, NullEntryOnWriteListIsReported) {
    Fdops *p = AddReadable("w", ReadDrain, false);
    ASSERT_NE(nullptr, p);
    p->writeProc = WriteAndLeave;
    ASSERT_NE(nullptr, List_AddTail(&LAPI_SRV_writeFdopsList, nullptr));
    LAPI_SRV_AddFdopsWriteList(p);
    StderrCapture cap;
    LAPI_SRV_LoopOnce();
    cap.Restore();
    EXPECT_EQ(std::vector<std::string>{"pFdops == NULL in LAPI_SRV_writeFdopsList"}, cap.Errors());
    EXPECT_EQ((std::vector<std::string>{"w:w"}), gCalls);
    List_Remove(&LAPI_SRV_writeFdopsList, nullptr);
}

TEST_F(LoopTest, SelectErrorIsReportedAndTurnEnds) {
    Fdops *p = AddReadable("bad", ReadDrain);
    ASSERT_NE(nullptr, p);
    int fd = p->fd;
    /* The capture's own descriptors come first: they must not reuse fd. */
    StderrCapture cap;
    /* The descriptor goes away behind the list's back. */
    ASSERT_EQ(0, close(fd));
    LAPI_SRV_LoopOnce();
    cap.Restore();
    EXPECT_EQ(std::vector<std::string>{"select numfd < 0, errno is: 9, Bad file descriptor"},
              cap.Errors());
    EXPECT_EQ(std::vector<std::string>{"END WHILE(1)"}, cap.Traces());
    EXPECT_TRUE(gCalls.empty());
    LAPI_SRV_RemoveFdopsReadList(p);
    FreeFdops(p);
}

TEST_F(LoopTest, ListeningSocketServedThroughLoop) {
    int lfd = LAPI_SRV_InitSrvSock();
    ASSERT_GE(lfd, 0);
    Fdops *pListen = CreateFdops(lfd, 0, 0);
    ASSERT_NE(nullptr, pListen);
    pListen->readProc = LAPI_SRV_ListenSockReadProc;
    pListen->closeProc = LAPI_SRV_CloseFdops;
    LAPI_SRV_AddFdopsReadList(pListen);
    int c = ConnectToSock();
    ASSERT_GE(c, 0);
    StderrCapture cap;
    LAPI_SRV_LoopOnce();
    cap.Restore();
    EXPECT_EQ(2u, LAPI_SRV_readFdopsList.count);
    EXPECT_EQ((std::vector<std::string>{"AFTER READPROC 0", "END WHILE(1)"}), cap.Traces());
    close(c);
}

}  // namespace
