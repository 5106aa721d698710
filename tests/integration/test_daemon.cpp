/*
 * The daemon through the real host binary: single-instance guard, the step
 * into a daemon, the pid file, the listening socket, signals and shutdown.
 */
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_Msg.h"
#include "ServerFixture.h"
#include "TestClient.h"

namespace {

using lapitest::ConnectUnix;
using lapitest::DeadPid;
using lapitest::MuxPty;
using lapitest::ReadPidFile;
using lapitest::ServerOptions;
using lapitest::ServerProcess;
using lapitest::Stream;
using lapitest::TempRoot;
using lapitest::TestClient;

constexpr const char kSock[] = "/tmp/lapisock";
constexpr const char kPidFile[] = "/tmp/lapi.pid";

/* Waits until the peer closes the connection (read gives 0 or an error). */
bool WaitPeerClosed(int fd, int timeoutMs) {
    struct pollfd pfd = {fd, POLLIN, 0};
    for (;;) {
        int r = poll(&pfd, 1, timeoutMs);
        if (r <= 0) {
            return false;
        }
        char buf[256];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
            return true;
        }
    }
}

class Daemon : public ::testing::Test {
  protected:
    TempRoot root_;
    MuxPty mux_{root_};
};

TEST_F(Daemon, StartedAsGroupLeaderParentExitsZeroAndChildOwnsPidFile) {
    ServerOptions options;
    options.asGroupLeader = true;
    ServerProcess srv(root_, options);
    ASSERT_TRUE(srv.StartAndWaitReady());

    EXPECT_EQ(0, srv.LauncherExitCode());
    EXPECT_TRUE(srv.WaitForTrace("Parent process exit", 2000));
    pid_t serverPid = ReadPidFile(root_.Path(kPidFile));
    EXPECT_EQ(srv.Pid(), serverPid);
    EXPECT_NE(srv.LauncherPid(), serverPid);
    EXPECT_TRUE(lapitest::ProcessAlive(serverPid));
    /* The child became the leader of a new session. */
    EXPECT_EQ(serverPid, getsid(serverPid));

    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, NotGroupLeaderDoesNotForkAndBecomesSessionLeader) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());

    EXPECT_EQ(srv.Pid(), ReadPidFile(root_.Path(kPidFile)));
    EXPECT_EQ(0u, srv.CountTraces("Parent process exit"));
    EXPECT_EQ(srv.Pid(), getsid(srv.Pid()));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, PidFileHoldsPidAndNewline) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    auto content = root_.ReadFile(kPidFile);
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(std::to_string(srv.Pid()) + "\n", *content);
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, SecondServerExits255WhileOneRuns) {
    ServerProcess first(root_);
    ASSERT_TRUE(first.StartAndWaitReady());

    ServerProcess second(root_);
    ASSERT_TRUE(second.Start());
    EXPECT_EQ(255, second.WaitExit(5000));
    EXPECT_TRUE(second.WaitForError("LAPI server has already been running!", 2000));

    /* The first one is untouched: still running, still the owner. */
    EXPECT_TRUE(first.Running());
    EXPECT_EQ(first.Pid(), ReadPidFile(root_.Path(kPidFile)));
    int fd = ConnectUnix(root_.Path(kSock));
    EXPECT_GE(fd, 0);
    if (fd >= 0) {
        close(fd);
    }
    EXPECT_EQ(0, first.Stop());
}

TEST_F(Daemon, PidFileOfDeadProcessIsTakenOver) {
    pid_t dead = DeadPid();
    ASSERT_TRUE(root_.WriteFile(kPidFile, std::to_string(dead) + "\n"));

    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    EXPECT_EQ(srv.Pid(), ReadPidFile(root_.Path(kPidFile)));
    EXPECT_EQ(0u, srv.CountErrors("LAPI server has already been running!"));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, PidFileOfLiveProcessBlocks) {
    /* This test process is alive and is not the server. */
    ASSERT_TRUE(root_.WriteFile(kPidFile, std::to_string(getpid()) + "\n"));

    ServerProcess srv(root_);
    ASSERT_TRUE(srv.Start());
    EXPECT_EQ(255, srv.WaitExit(5000));
    EXPECT_TRUE(srv.WaitForError("LAPI server has already been running!", 2000));
    /* The guard that refuses leaves the other server's file alone. */
    EXPECT_EQ(getpid(), ReadPidFile(root_.Path(kPidFile)));
}

TEST_F(Daemon, LongerOldPidFileIsOverwrittenWithoutTruncation) {
    ASSERT_TRUE(root_.WriteFile(kPidFile, "0000000000000000000000\n"));
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    auto content = root_.ReadFile(kPidFile);
    ASSERT_TRUE(content.has_value());
    std::string head = std::to_string(srv.Pid()) + "\n";
    EXPECT_EQ(head, content->substr(0, head.size()));
    EXPECT_EQ(23u, content->size());
    EXPECT_EQ(srv.Pid(), ReadPidFile(root_.Path(kPidFile)));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, UnwritablePidFileExits255) {
    /* A folder where the pid file should be: it cannot be opened for writing. */
    ASSERT_TRUE(root_.MakeDirs(kPidFile));
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.Start());
    EXPECT_EQ(255, srv.WaitExit(5000));
    EXPECT_TRUE(srv.WaitForError("Fail to open or create " + root_.Path(kPidFile) + "!", 2000));
    EXPECT_TRUE(srv.WaitForError("Fail to write pid file : " + root_.Path(kPidFile) + "!", 2000));
}

TEST_F(Daemon, InitFailureRemovesPidFileAndExits1) {
    /* A non-empty folder in place of the socket: neither unlink nor bind. */
    ASSERT_TRUE(root_.WriteFile("/tmp/lapisock/keep", "x"));
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.Start());
    EXPECT_EQ(1, srv.WaitExit(5000));
    EXPECT_TRUE(srv.WaitForErrorContaining("Fail to bind socket, errno is: ", 2000));
    EXPECT_TRUE(srv.WaitForError("LAPI SRV initialization failure! Exit!!!", 2000));
    EXPECT_TRUE(srv.WaitForTrace("Remove pid file : " + root_.Path(kPidFile) + ".", 2000));
    EXPECT_FALSE(root_.Exists(kPidFile));
}

TEST_F(Daemon, SigtermExitsZeroRemovesPidFileAndKeepsSocket) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    ASSERT_TRUE(root_.Exists(kPidFile));

    EXPECT_EQ(0, srv.Stop());
    EXPECT_NE(std::string::npos,
              srv.Text(Stream::Stderr).find("LAPI SRV received signal: SIGTERM!"));
    EXPECT_TRUE(srv.WaitForTrace("Remove pid file : " + root_.Path(kPidFile) + ".", 2000));
    EXPECT_FALSE(root_.Exists(kPidFile));
    struct stat st;
    ASSERT_EQ(0, lstat(root_.Path(kSock).c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    /* Nobody listens any more. */
    EXPECT_LT(ConnectUnix(root_.Path(kSock)), 0);
}

TEST_F(Daemon, SigtermRemovesEveryClientAndClosesItsConnections) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    /* Pids of our own choosing, so that the trace names exactly these. */
    const uint32_t pids[] = {43210, 43211};
    TestClient first(root_.Dir(), pids[0]);
    TestClient second(root_.Dir(), pids[1]);
    /* One on the status broadcast list, one on the MT-LR list. */
    ASSERT_TRUE(first.Handshake(4));
    ASSERT_TRUE(second.Handshake(2));

    EXPECT_EQ(0, srv.Stop());
    for (uint32_t pid : pids) {
        EXPECT_TRUE(srv.WaitForTrace("remove client, pid = " + std::to_string(pid), 2000))
            << "pid " << pid;
    }
    for (TestClient *pClient : {&first, &second}) {
        EXPECT_TRUE(pClient->Sync().IsClosedByPeer(2000)) << "pid " << pClient->Pid();
        EXPECT_TRUE(pClient->Async().IsClosedByPeer(2000)) << "pid " << pClient->Pid();
    }
    EXPECT_FALSE(root_.Exists(kPidFile));
}

TEST_F(Daemon, SigfpeAndSigsegvAlsoExitZero) {
    for (int sig : {SIGFPE, SIGSEGV}) {
        SCOPED_TRACE(strsignal(sig));
        ServerProcess srv(root_);
        ASSERT_TRUE(srv.StartAndWaitReady());
        ASSERT_TRUE(srv.Signal(sig));
        EXPECT_EQ(0, srv.WaitExit(5000));
        EXPECT_FALSE(root_.Exists(kPidFile));
        std::string name = sig == SIGFPE ? "SIGFPE" : "SIGSEGV";
        EXPECT_NE(std::string::npos,
                  srv.Text(Stream::Stderr).find("LAPI SRV received signal: " + name + "!"));
    }
}

TEST_F(Daemon, SigpipeIsLoggedAndIgnored) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    ASSERT_TRUE(srv.Signal(SIGPIPE));
    EXPECT_GE(srv.WaitForLineContaining(Stream::Stderr, "LAPI SRV received signal: SIGPIPE!"), 0);
    /* select was interrupted and the loop went on. */
    int fd = ConnectUnix(root_.Path(kSock));
    EXPECT_GE(fd, 0);
    if (fd >= 0) {
        close(fd);
    }
    EXPECT_TRUE(srv.Running());
    EXPECT_TRUE(root_.Exists(kPidFile));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, SocketIsWorldReadableAndWritable) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    struct stat st;
    ASSERT_EQ(0, lstat(root_.Path(kSock).c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0666u, st.st_mode & 0777u);
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, StaleSocketFileIsReplaced) {
    ASSERT_TRUE(root_.WriteFile(kSock, "stale"));
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    struct stat st;
    ASSERT_EQ(0, lstat(root_.Path(kSock).c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, ServerSurvivesPeerClosingAndKeepsAccepting) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    for (int i = 0; i < 5; ++i) {
        int fd = ConnectUnix(root_.Path(kSock));
        ASSERT_GE(fd, 0);
        close(fd);
    }
    int fd = ConnectUnix(root_.Path(kSock));
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(srv.Running());
    close(fd);
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, FirstMessageNotAHandshakeClosesConnection) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    size_t from = srv.LineCount(Stream::Stderr);
    int fd = ConnectUnix(root_.Path(kSock));
    ASSERT_GE(fd, 0);
    MsgHeader h;
    h.pid = static_cast<uint32_t>(getpid());
    h.msgId = LAPI_GET_LOCATION_REQ; /* not allowed before the handshake */
    h.msgLen = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(h)), write(fd, &h, sizeof(h)));
    EXPECT_TRUE(srv.WaitForErrorContaining("Not expected msgId", 5000, from));
    EXPECT_TRUE(WaitPeerClosed(fd, 5000));
    close(fd);
    EXPECT_TRUE(srv.Running());
    int again = ConnectUnix(root_.Path(kSock));
    EXPECT_GE(again, 0);
    if (again >= 0) {
        close(again);
    }
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, LoopTracesEveryTurn) {
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    /* The readiness probe was one accept and one peer close. */
    EXPECT_TRUE(srv.WaitForTrace("END WHILE(1)", 2000));
    EXPECT_TRUE(srv.WaitForTraceContaining("AFTER READPROC ", 2000));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Daemon, StartsWithoutBpChannel) {
    /* No terminal behind mux18: start-up goes on and serves clients. */
    ASSERT_EQ(0, unlink(root_.Path("/dev/mux18").c_str()));
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    EXPECT_TRUE(srv.WaitForTrace("Trying to connect mux channel...", 2000));
    EXPECT_TRUE(srv.WaitForError("Fail to connect mux channel!", 2000));
    EXPECT_TRUE(srv.Running());
    EXPECT_EQ(0, srv.Stop());
}

}  // namespace
