/*
 * The pid file and the single-instance guard.
 */
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_Pid.h"
#include "ServerFixture.h"

namespace {

using lapitest::DeadPid;
using lapitest::StderrCapture;
using lapitest::TempRoot;

/* Points the server's pid file into a private folder for one test. */
class PidFile : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(root_.ok());
        path_ = root_.Path("/lapi.pid");
        saved_ = LAPI_SRV_pidFile;
        LAPI_SRV_pidFile = path_.c_str();
    }
    void TearDown() override { LAPI_SRV_pidFile = saved_; }

    void Write(const std::string &content) { ASSERT_TRUE(root_.WriteFile("/lapi.pid", content)); }
    std::string Read() { return root_.ReadFile("/lapi.pid").value_or("<missing>"); }

    TempRoot root_;
    std::string path_;
    const char *saved_ = nullptr;
};

/* A child that lives until the object goes away. */
class LiveChild {
  public:
    LiveChild() {
        pid_ = fork();
        if (pid_ == 0) {
            for (;;) {
                pause();
            }
        }
    }
    ~LiveChild() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            int status;
            waitpid(pid_, &status, 0);
        }
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

TEST_F(PidFile, GetPidFromFileMissingFileIsZero) {
    EXPECT_EQ(0, GetPidFromFile());
}

TEST_F(PidFile, GetPidFromFileReadsFirstNumber) {
    Write("4321\n999\n");
    EXPECT_EQ(4321, GetPidFromFile());
}

TEST_F(PidFile, GetPidFromFileGarbageIsZero) {
    Write("not a pid\n");
    EXPECT_EQ(0, GetPidFromFile());
}

TEST_F(PidFile, NoFileDoesNotBlock) {
    EXPECT_EQ(0, GetRunningServerPid());
}

TEST_F(PidFile, OwnPidDoesNotBlock) {
    Write(std::to_string(getpid()) + "\n");
    EXPECT_EQ(0, GetRunningServerPid());
}

TEST_F(PidFile, DeadPidDoesNotBlock) {
    pid_t dead = DeadPid();
    Write(std::to_string(dead) + "\n");
    EXPECT_EQ(0, GetRunningServerPid());
}

TEST_F(PidFile, LivePidBlocks) {
    LiveChild child;
    ASSERT_GT(child.pid(), 0);
    Write(std::to_string(child.pid()) + "\n");
    EXPECT_EQ(child.pid(), GetRunningServerPid());
}

TEST_F(PidFile, PidThatRefusesSignalsBlocks) {
    /* Process 1 always exists; an unprivileged kill(1, 0) fails with EPERM,
     * a privileged one succeeds: a running server either way. */
    Write("1\n");
    EXPECT_EQ(1, GetRunningServerPid());
}

TEST_F(PidFile, PidThatRefusesSignalWithEpermBlocks) {
    /* An unprivileged guard asks about a process of another user: kill with
     * signal 0 fails with EPERM, yet the process exists and counts as a
     * running server. The guard runs in a child that drops to "nobody"; the
     * child reports through its exit status. */
    enum : int { kBlocked = 0, kNoDrop = 10, kNoEperm = 11, kUnreadable = 12, kNotBlocked = 13 };
    const pid_t owner = getpid(); /* root-owned and alive while the child runs */
    Write(std::to_string(owner) + "\n");
    ASSERT_EQ(0, chmod(root_.Dir().c_str(), 0755));
    ASSERT_EQ(0, chmod(path_.c_str(), 0644));

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(kNoDrop);
        }
        errno = 0;
        if (kill(owner, 0) != -1 || errno != EPERM) {
            _exit(kNoEperm);
        }
        if (GetPidFromFile() != owner) {
            _exit(kUnreadable);
        }
        _exit(GetRunningServerPid() == owner ? kBlocked : kNotBlocked);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    switch (WEXITSTATUS(status)) {
        case kNoDrop:
            GTEST_SKIP() << "cannot switch to uid/gid 65534 (not running as root?)";
        case kNoEperm:
            GTEST_SKIP() << "kill(" << owner << ", 0) as uid 65534 did not fail with EPERM";
        case kUnreadable:
            FAIL() << "uid 65534 could not read the pid file " << path_;
        default:
            EXPECT_EQ(kBlocked, WEXITSTATUS(status)) << "a pid refused with EPERM did not block";
    }
}

TEST_F(PidFile, ZeroPidDoesNotBlock) {
    Write("0\n");
    EXPECT_EQ(0, GetRunningServerPid());
}

TEST_F(PidFile, NegativePidOfLiveGroupBlocks) {
    /* The number is asked about as it stands: kill(-pgid, 0) reaches this
     * very group, so a server is taken to be running. */
    pid_t group = getpgrp();
    Write(std::to_string(-group) + "\n");
    EXPECT_EQ(-group, GetRunningServerPid());
}

TEST_F(PidFile, NegativePidOfNoGroupDoesNotBlock) {
    /* A reaped child led no group: kill(-pid, 0) fails with ESRCH. */
    pid_t dead = DeadPid();
    Write(std::to_string(-dead) + "\n");
    EXPECT_EQ(0, GetRunningServerPid());
}

TEST_F(PidFile, SavePidWritesPidAndNewline) {
    EXPECT_EQ(getpid(), LAPI_SRV_SavePid());
    EXPECT_EQ(std::to_string(getpid()) + "\n", Read());
}

TEST_F(PidFile, SavePidCreatesFileWithMode0644) {
    mode_t old = umask(022);
    int pid = LAPI_SRV_SavePid();
    umask(old);
    EXPECT_EQ(getpid(), pid);
    struct stat st;
    ASSERT_EQ(0, stat(path_.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777u);
}

TEST_F(PidFile, SavePidDoesNotTruncateLongerOldContent) {
    const std::string old = "99999999999999999999\n";
    Write(old);
    EXPECT_EQ(getpid(), LAPI_SRV_SavePid());
    std::string head = std::to_string(getpid()) + "\n";
    std::string content = Read();
    ASSERT_EQ(old.size(), content.size());
    EXPECT_EQ(head, content.substr(0, head.size()));
    EXPECT_EQ(old.substr(head.size()), content.substr(head.size()));
    /* Readers take the first number only. */
    EXPECT_EQ(getpid(), GetPidFromFile());
}

TEST_F(PidFile, SavePidFailsWhileLockIsHeld) {
    Write("777\n");
    int holder = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(0, flock(holder, LOCK_EX | LOCK_NB));
    StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_SavePid());
    cap.Restore();
    close(holder);
    EXPECT_EQ(std::vector<std::string>{"Fail to lock, lock is held by pid 777!"}, cap.Errors());
    EXPECT_EQ("777\n", Read());
}

TEST_F(PidFile, SavePidReleasesTheLock) {
    ASSERT_EQ(getpid(), LAPI_SRV_SavePid());
    int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, flock(fd, LOCK_EX | LOCK_NB));
    close(fd);
}

TEST_F(PidFile, SavePidInMissingFolderFails) {
    std::string missing = root_.Path("/no/such/lapi.pid");
    LAPI_SRV_pidFile = missing.c_str();
    StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_SavePid());
    cap.Restore();
    EXPECT_EQ(std::vector<std::string>{"Fail to open or create " + missing + "!"}, cap.Errors());
}

TEST_F(PidFile, SavePidIgnoresFailedFlush) {
    /* Every write to this device fails with ENOSPC, but the stream takes
     * the characters: only the flush fails, and its result is not looked
     * at, so the pid is reported as written. */
    int probe = open("/dev/full", O_RDWR | O_CLOEXEC);
    if (probe < 0) {
        GTEST_SKIP() << "no writable /dev/full";
    }
    close(probe);
    LAPI_SRV_pidFile = "/dev/full";
    StderrCapture cap;
    EXPECT_EQ(getpid(), LAPI_SRV_SavePid());
    cap.Restore();
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
}

TEST_F(PidFile, RemovePidUnlinksAndTraces) {
    Write("1\n");
    StderrCapture cap;
    LAPI_SRV_RemovePid();
    cap.Restore();
    EXPECT_FALSE(root_.Exists("/lapi.pid"));
    EXPECT_EQ(std::vector<std::string>{"Remove pid file : " + path_ + "."}, cap.Traces());
}

TEST_F(PidFile, RemovePidWithoutFileStillTraces) {
    StderrCapture cap;
    LAPI_SRV_RemovePid();
    cap.Restore();
    EXPECT_EQ(std::vector<std::string>{"Remove pid file : " + path_ + "."}, cap.Traces());
}

/* The guard itself runs in a child: it forks, exits and calls setsid. A
 * death-test child is never a process-group leader, so it does not fork. */
using PidMutexDeathTest = PidFile;

TEST_F(PidMutexDeathTest, NonLeaderSavesPidAndBecomesSessionLeader) {
    EXPECT_EXIT(
        {
            int r = LAPI_SRV_PidMutex();
            bool ok = r == 0 && getsid(0) == getpid() && GetPidFromFile() == getpid();
            _exit(ok ? 7 : 8);
        },
        ::testing::ExitedWithCode(7), "");
}

TEST_F(PidMutexDeathTest, RunningServerExits255) {
    LiveChild child;
    Write(std::to_string(child.pid()) + "\n");
    EXPECT_EXIT(LAPI_SRV_PidMutex(), ::testing::ExitedWithCode(255),
                "LAPI server has already been running!");
    EXPECT_EQ(std::to_string(child.pid()) + "\n", Read());
}

TEST_F(PidMutexDeathTest, UnwritablePidFileExits255) {
    std::string missing = root_.Path("/no/such/lapi.pid");
    LAPI_SRV_pidFile = missing.c_str();
    EXPECT_EXIT(LAPI_SRV_PidMutex(), ::testing::ExitedWithCode(255),
                "Fail to write pid file : " + missing + "!");
}

TEST_F(PidMutexDeathTest, DeadServerPidIsTakenOver) {
    Write(std::to_string(DeadPid()) + "\n");
    EXPECT_EXIT(
        {
            int r = LAPI_SRV_PidMutex();
            _exit(r == 0 && GetPidFromFile() == getpid() ? 7 : 8);
        },
        ::testing::ExitedWithCode(7), "");
}

TEST_F(PidMutexDeathTest, GroupLeaderForksAndParentExitsZero) {
    EXPECT_EXIT(
        {
            setpgid(0, 0);
            LAPI_SRV_PidMutex();
            /* The child: it writes its own pid, then is done. */
            _exit(GetPidFromFile() == getpid() ? 0 : 9);
        },
        ::testing::ExitedWithCode(0), "Parent process exit");
    /* The parent exited 0 at once; the child wrote the file meanwhile. */
    for (int i = 0; i < 500 && GetPidFromFile() == 0; ++i) {
        usleep(10000);
    }
    EXPECT_NE(0, GetPidFromFile());
}

}  // namespace
