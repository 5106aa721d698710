/*
 * Smoke test of lapi_bench: a quick run against the real server and the
 * bare relay finishes, exits 0 and prints every part of its table. Timings
 * are the machine's business, never asserted here.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

const std::string kBench = std::string(LAPI_BIN_DIR) + "/lapi_bench";

struct RunResult {
    int status = -1; /* exit status, -1 when it did not exit in time */
    std::string out;
    std::string err;
};

/* Runs lapi_bench with args and collects both output streams; kills it
 * when it has not ended within timeoutMs. */
RunResult RunBench(const std::vector<std::string> &args, int timeoutMs) {
    RunResult r;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        return r;
    }
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(kBench.c_str()));
    for (const std::string &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
    }
    argv.push_back(nullptr);
    argv = lapitest::UnderEmulator(std::move(argv));
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int live = 2;
    bool timedOut = false;
    while (live > 0) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long elapsed = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsed >= timeoutMs) {
            timedOut = true;
            break;
        }
        int n = poll(fds, 2, static_cast<int>(timeoutMs - elapsed));
        if (n < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buf[4096];
            ssize_t got = read(fds[i].fd, buf, sizeof(buf));
            if (got > 0) {
                (i == 0 ? r.out : r.err).append(buf, static_cast<size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --live;
            }
        }
    }
    for (const struct pollfd &p : fds) {
        if (p.fd >= 0) {
            close(p.fd);
        }
    }
    if (timedOut) {
        kill(pid, SIGTERM); /* it stops what it started on SIGTERM */
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!timedOut && WIFEXITED(status)) {
        r.status = WEXITSTATUS(status);
    }
    return r;
}

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST(BenchSmoke, QuickRunPrintsEveryPartOfTheTable) {
    RunResult r = RunBench({"--quick"}, 100000);
    ASSERT_EQ(0, r.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
    EXPECT_TRUE(Contains(r.out, "(a) status change fan-out")) << r.out;
    EXPECT_TRUE(Contains(r.out, "(b) get-location round trips")) << r.out;
    EXPECT_TRUE(Contains(r.out, "(c) private dirty memory")) << r.out;
    EXPECT_TRUE(Contains(r.out, "figure")) << r.out;
    /* one row per figure of each part, with the server, the relay and the ratio */
    EXPECT_TRUE(Contains(r.out, "first client p50 [us]")) << r.out;
    EXPECT_TRUE(Contains(r.out, "last client p99 [us]")) << r.out;
    EXPECT_TRUE(Contains(r.out, "CPU per broadcast [us]")) << r.out;
    EXPECT_TRUE(Contains(r.out, "round trips per second")) << r.out;
    EXPECT_TRUE(Contains(r.out, "latency p99 [us]")) << r.out;
    EXPECT_TRUE(Contains(r.out, "Private_Dirty [kB]")) << r.out;
    /* exit 0 means every figure was measured: none is left blank */
    EXPECT_FALSE(Contains(r.out, "n/a")) << r.out;
    EXPECT_TRUE(Contains(r.out, "notes: none")) << r.out;
}

TEST(BenchSmoke, JsonFollowsTheTable) {
    RunResult r = RunBench({"--quick", "--json", "--fanout", "1", "--rt-clients", "1"}, 100000);
    ASSERT_EQ(0, r.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
    size_t table = r.out.find("(a) status change fan-out");
    size_t json = r.out.find("\n{\n");
    ASSERT_NE(std::string::npos, table);
    ASSERT_NE(std::string::npos, json);
    EXPECT_LT(table, json);
    EXPECT_TRUE(Contains(r.out.substr(json), "\"fanout\"")) << r.out;
    EXPECT_TRUE(Contains(r.out.substr(json), "\"roundtrips\"")) << r.out;
    EXPECT_TRUE(Contains(r.out.substr(json), "\"memory\"")) << r.out;
}

TEST(BenchSmoke, HelpExitsZero) {
    RunResult r = RunBench({"--help"}, 10000);
    EXPECT_EQ(0, r.status);
    EXPECT_TRUE(Contains(r.out, "--bin-dir")) << r.out;
    EXPECT_TRUE(Contains(r.out, "--quick")) << r.out;
    EXPECT_TRUE(Contains(r.out, "--json")) << r.out;
}

TEST(BenchSmoke, UnknownOptionIsAUsageError) {
    RunResult r = RunBench({"--no-such-option"}, 10000);
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(Contains(r.err, "--no-such-option")) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
}

TEST(BenchSmoke, MissingServerIsReportedClearly) {
    RunResult r = RunBench({"--quick", "--bin-dir", "/nonexistent-lapi-bin"}, 20000);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(Contains(r.err, "lapi_srv_host")) << r.err;
    EXPECT_TRUE(Contains(r.err, "--bin-dir")) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
}

}  // namespace
