/*
 * The lapi command-line tool: help on the tool and on every command, usage
 * errors, exit statuses 0/1/2/3, and each command's output in the readable
 * and the JSON format, against the real host server with the BP simulator
 * and, for the error answers, against a scripted fake server.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../unit/LAPI_FakeServer.h"
#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "ServerFixture.h"
#include "SimServerTest.h"

namespace {

using bpsim::Bytes;
using Args = std::vector<std::string>;
using lapitest::NowMs;
using lapitest::StatusBody;

const std::string kTool = std::string(LAPI_BIN_DIR) + "/lapi";

/* The tool as a child process; its output is collected by a thread. */
class Tool {
  public:
    explicit Tool(const Args &args) {
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
            return;
        }
        /* Everything the child needs is prepared before the fork: other
         * threads may hold the allocator's lock at that moment. */
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(kTool.c_str()));
        for (const std::string &a : args) {
            argv.push_back(const_cast<char *>(a.c_str()));
        }
        argv.push_back(nullptr);
        argv = lapitest::UnderEmulator(std::move(argv));
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], 1);
            dup2(err[1], 2);
            int devnull = open("/dev/null", O_RDONLY);
            dup2(devnull, 0);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        fds_[0] = out[0];
        fds_[1] = err[0];
        pump_ = std::thread([this]() { Pump(); });
    }
    ~Tool() {
        if (pid_ > 0 && status_ == kRunning) {
            kill(pid_, SIGKILL);
            Wait(5000);
        }
        if (pump_.joinable()) {
            pump_.join();
        }
        for (int fd : fds_) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
    Tool(const Tool &) = delete;
    Tool &operator=(const Tool &) = delete;

    /* The exit status, or -1 when it did not end in time (it is killed). */
    int Wait(int timeoutMs = 30000) {
        int64_t deadline = NowMs() + timeoutMs;
        while (status_ == kRunning) {
            int st;
            pid_t r = waitpid(pid_, &st, WNOHANG);
            if (r == pid_) {
                status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                break;
            }
            if (NowMs() >= deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &st, 0);
                status_ = -1;
                break;
            }
            usleep(5000);
        }
        if (pump_.joinable()) {
            pump_.join();
        }
        return status_;
    }
    void Signal(int sig) { kill(pid_, sig); }
    /* Waits until the standard error holds text. */
    bool WaitErr(const std::string &text, int timeoutMs = 10000) {
        int64_t deadline = NowMs() + timeoutMs;
        while (NowMs() < deadline) {
            if (Err().find(text) != std::string::npos) {
                return true;
            }
            usleep(5000);
        }
        return false;
    }
    std::string Out() const {
        std::lock_guard<std::mutex> lock(mu_);
        return text_[0];
    }
    std::string Err() const {
        std::lock_guard<std::mutex> lock(mu_);
        return text_[1];
    }

  private:
    static constexpr int kRunning = -1000;
    void Pump() {
        bool open[2] = {true, true};
        while (open[0] || open[1]) {
            struct pollfd p[2] = {{open[0] ? fds_[0] : -1, POLLIN, 0},
                                  {open[1] ? fds_[1] : -1, POLLIN, 0}};
            if (poll(p, 2, 1000) < 0 && errno != EINTR) {
                return;
            }
            for (int i = 0; i < 2; ++i) {
                if (p[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                    char buf[4096];
                    ssize_t n = read(fds_[i], buf, sizeof(buf));
                    if (n <= 0) {
                        open[i] = false;
                    } else {
                        std::lock_guard<std::mutex> lock(mu_);
                        text_[i].append(buf, static_cast<size_t>(n));
                    }
                }
            }
        }
    }
    pid_t pid_ = -1;
    int status_ = kRunning;
    int fds_[2] = {-1, -1};
    std::thread pump_;
    mutable std::mutex mu_;
    std::string text_[2];
};

struct Result {
    int status;
    std::string out;
    std::string err;
};

Result RunLapi(const Args &args, int timeoutMs = 30000) {
    Tool t(args);
    int st = t.Wait(timeoutMs);
    return {st, t.Out(), t.Err()};
}

bool Contains(const std::string &s, const std::string &part) {
    return s.find(part) != std::string::npos;
}

std::vector<std::string> Lines(const std::string &s) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < s.size()) {
        size_t nl = s.find('\n', start);
        if (nl == std::string::npos) {
            nl = s.size();
        }
        out.push_back(s.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

/* A small JSON syntax check: one object per line, nothing else. */
class JsonCheck {
  public:
    static bool Object(const std::string &s) {
        JsonCheck j(s);
        j.Ws();
        if (j.Peek() != '{' || !j.Value()) {
            return false;
        }
        j.Ws();
        return j.pos_ == s.size();
    }

  private:
    explicit JsonCheck(const std::string &s) : s_(s) {}
    char Peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }
    void Ws() {
        while (pos_ < s_.size() && isspace(static_cast<unsigned char>(s_[pos_]))) {
            ++pos_;
        }
    }
    bool Lit(const char *w) {
        size_t n = strlen(w);
        if (s_.compare(pos_, n, w) != 0) {
            return false;
        }
        pos_ += n;
        return true;
    }
    bool String() {
        if (Peek() != '"') {
            return false;
        }
        ++pos_;
        while (pos_ < s_.size()) {
            char c = s_[pos_++];
            if (c == '"') {
                return true;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                return false;
            }
            if (c == '\\') {
                if (pos_ >= s_.size()) {
                    return false;
                }
                char e = s_[pos_++];
                if (e == 'u') {
                    for (int i = 0; i < 4; ++i) {
                        if (pos_ >= s_.size() ||
                            !isxdigit(static_cast<unsigned char>(s_[pos_++]))) {
                            return false;
                        }
                    }
                } else if (!strchr("\"\\/bfnrt", e)) {
                    return false;
                }
            }
        }
        return false;
    }
    bool Number() {
        size_t start = pos_;
        if (Peek() == '-') {
            ++pos_;
        }
        if (!isdigit(static_cast<unsigned char>(Peek()))) {
            return false;
        }
        while (isdigit(static_cast<unsigned char>(Peek())) || Peek() == '.' || Peek() == 'e' ||
               Peek() == 'E' || Peek() == '+' || Peek() == '-') {
            ++pos_;
        }
        char *end = nullptr;
        std::string num = s_.substr(start, pos_ - start);
        strtod(num.c_str(), &end);
        return end != nullptr && *end == '\0';
    }
    bool Value() {
        Ws();
        char c = Peek();
        if (c == '{' || c == '[') {
            char close = c == '{' ? '}' : ']';
            ++pos_;
            Ws();
            if (Peek() == close) {
                ++pos_;
                return true;
            }
            for (;;) {
                Ws();
                if (c == '{') {
                    if (!String()) {
                        return false;
                    }
                    Ws();
                    if (Peek() != ':') {
                        return false;
                    }
                    ++pos_;
                }
                if (!Value()) {
                    return false;
                }
                Ws();
                if (Peek() == ',') {
                    ++pos_;
                    continue;
                }
                if (Peek() == close) {
                    ++pos_;
                    return true;
                }
                return false;
            }
        }
        if (c == '"') {
            return String();
        }
        if (Lit("true") || Lit("false") || Lit("null")) {
            return true;
        }
        return Number();
    }
    const std::string &s_;
    size_t pos_ = 0;
};

/* Every line of a --json output is one JSON object. */
::testing::AssertionResult AllJson(const std::string &out) {
    if (out.empty()) {
        return ::testing::AssertionFailure() << "no output";
    }
    for (const std::string &line : Lines(out)) {
        if (!JsonCheck::Object(line)) {
            return ::testing::AssertionFailure() << "not one JSON object: " << line;
        }
    }
    return ::testing::AssertionSuccess();
}

size_t CountType(const std::string &out, const std::string &type) {
    size_t n = 0;
    for (const std::string &line : Lines(out)) {
        if (line.rfind("{\"type\":\"" + type + "\"", 0) == 0) {
            ++n;
        }
    }
    return n;
}

/* ---- help and usage, no server needed ---- */

TEST(LapiCliHelp, ToolHelpNamesEveryCommand) {
    for (const Args &args : {Args{"--help"}, Args{"-h"}, Args{"help"}}) {
        Result r = RunLapi(args);
        EXPECT_EQ(r.status, 0) << args[0];
        EXPECT_EQ(r.out.rfind("Usage: lapi ", 0), 0u) << r.out;
        for (const char *cmd : {"locate", "last", "abort", "abort-all", "status", "watch", "db-get",
                                "db-set", "distance", "geofence"}) {
            EXPECT_TRUE(Contains(r.out, std::string("  ") + cmd)) << cmd;
        }
        EXPECT_TRUE(Contains(r.out, "Exit status"));
        EXPECT_TRUE(r.err.empty()) << r.err;
    }
}

TEST(LapiCliHelp, EveryCommandHasHelp) {
    const std::vector<Args> commands = {{"locate"},
                                        {"last"},
                                        {"abort"},
                                        {"abort-all"},
                                        {"status"},
                                        {"watch"},
                                        {"db-get"},
                                        {"db-set"},
                                        {"distance"},
                                        {"geofence"},
                                        {"geofence", "add"},
                                        {"geofence", "remove"},
                                        {"geofence", "remove-all"}};
    for (const Args &cmd : commands) {
        std::string name = cmd[0] + (cmd.size() > 1 ? " " + cmd[1] : "");
        for (const char *flag : {"--help", "-h"}) {
            Args args = cmd;
            args.push_back(flag);
            Result r = RunLapi(args);
            EXPECT_EQ(r.status, 0) << name;
            EXPECT_EQ(r.out.rfind("Usage: lapi " + name, 0), 0u) << name << ": " << r.out;
            EXPECT_TRUE(Contains(r.out, "--json")) << name;
            EXPECT_TRUE(Contains(r.out, "--root DIR")) << name;
        }
    }
}

TEST(LapiCliHelp, HelpWinsOverMissingArguments) {
    Result r = RunLapi({"distance", "--help"});
    EXPECT_EQ(r.status, 0);
    r = RunLapi({"db-get", "--help", "--root", "/nonexistent"});
    EXPECT_EQ(r.status, 0);
}

TEST(LapiCliUsage, UsageErrorsExitTwo) {
    const std::vector<Args> cases = {
        {},
        {"bogus"},
        {"--bogus", "status"},
        {"locate", "--bogus"},
        {"locate", "--count", "2"},
        {"locate", "--periodic", "0"},
        {"locate", "--periodic"},
        {"locate", "--response-time", "x"},
        {"status", "extra"},
        {"status", "--mode", "sideways"},
        {"status", "--sid", "256"},
        {"status", "--tid", "-1"},
        {"status", "--timeout", "0"},
        {"status", "--timeout"},
        {"status", "--json=1"},
        {"status", "--root", "/a", "--socket", "/b"},
        {"distance", "1", "2", "3"},
        {"distance", "91", "0", "0", "0"},
        {"distance", "0", "181", "0", "0"},
        {"distance", "0", "0", "x", "0"},
        {"db-get"},
        {"db-get", "x"},
        {"db-set"},
        {"db-set", "3"},
        {"db-set", "3:0"},
        {"db-set", "3:0a0b0c0d0e"},
        {"db-set", "3:zz"},
        {"geofence"},
        {"geofence", "move"},
        {"geofence", "add", "1", "2"},
        {"geofence", "add", "1", "2", "-5"},
        {"geofence", "add", "1", "2", "5", "--hit-timeout", "10"},
        {"watch", "--no-mtlr", "--no-status"},
        {"watch", "--answer", "x"},
        {"watch", "--no-mtlr", "--answer", "1"},
    };
    for (const Args &args : cases) {
        std::string shown;
        for (const std::string &a : args) {
            shown += a + " ";
        }
        Result r = RunLapi(args);
        EXPECT_EQ(r.status, 2) << shown;
        EXPECT_TRUE(Contains(r.err, "lapi")) << shown << ": " << r.err;
        EXPECT_TRUE(r.out.empty()) << shown << ": " << r.out;
    }
}

TEST(LapiCliUsage, UsageErrorNamesTheProblemAndTheHelp) {
    Result r = RunLapi({"locate", "--bogus"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Contains(r.err, "unknown option '--bogus'")) << r.err;
    EXPECT_TRUE(Contains(r.err, "Try 'lapi locate --help'.")) << r.err;
}

TEST(LapiCliUsage, SocketPathTooLongIsUsageError) {
    Result r = RunLapi({"status", "--root", "/tmp/" + std::string(110, 'x')});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Contains(r.err, "socket path too long")) << r.err;
}

TEST(LapiCliConnect, NoServerExitsThree) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    Result r = RunLapi({"status", "--root", root.Dir()});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(
        Contains(r.err, "cannot connect to the location server at " + root.Dir() + "/tmp/lapisock"))
        << r.err;
    EXPECT_TRUE(r.out.empty());
    r = RunLapi({"--json", "locate", "--root", root.Dir()});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(AllJson(r.out));
    EXPECT_EQ(CountType(r.out, "error"), 1u);
    EXPECT_TRUE(Contains(r.out, "\"error\":\"connect\"")) << r.out;
    EXPECT_TRUE(Contains(r.out, "\"exitStatus\":3")) << r.out;
}

TEST(LapiCliUsage, JsonUsageErrorsAreOneObject) {
    const std::vector<Args> cases = {
        {"--json"},
        {"--json", "bogus"},
        {"locate", "--bogus", "--json"},
        {"status", "--timeout", "0", "--json"},
        {"geofence", "--json"},
        {"distance", "1", "2", "3", "--json"},
    };
    for (const Args &args : cases) {
        Result r = RunLapi(args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_TRUE(AllJson(r.out)) << r.out;
        EXPECT_EQ(Lines(r.out).size(), 1u) << r.out;
        EXPECT_EQ(CountType(r.out, "error"), 1u) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"error\":\"usage\"")) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"exitStatus\":2")) << r.out;
    }
}

TEST(LapiCliHelp, HelpStatesTheDefaultTimeoutsAndValues) {
    Result r = RunLapi({"--help"});
    EXPECT_TRUE(Contains(r.out, "Default timeouts: 5000 ms to connect")) << r.out;
    EXPECT_TRUE(Contains(r.out, "45 s by default")) << r.out;
    EXPECT_TRUE(Contains(r.out, "response time + 6 s")) << r.out;
    r = RunLapi({"watch", "--help"});
    EXPECT_TRUE(Contains(r.out, "a number from 0 to 4294967295 that the server hands")) << r.out;
    r = RunLapi({"db-get", "--help"});
    EXPECT_TRUE(Contains(r.out, "FILEID: a number from 0 to 4294967295")) << r.out;
    r = RunLapi({"locate", "--help"});
    EXPECT_TRUE(Contains(r.out, "MS / 1000 + 6 s")) << r.out;
}

TEST(LapiCliConnect, RefusedWithoutBpNamesTheChannel) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    for (bool json : {false, true}) {
        Args args = {"status", "--root", root.Dir()};
        if (json) {
            args.push_back("--json");
        }
        Result r = RunLapi(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(Contains(r.err, "refused the registration")) << r.err;
        EXPECT_TRUE(Contains(
            r.err, "most likely no BP is attached: " + root.Dir() + "/dev/mux18 does not exist"))
            << r.err;
        EXPECT_TRUE(Contains(r.err, "\"Fail to open " + root.Dir() + "/dev/mux18\"")) << r.err;
        EXPECT_TRUE(Contains(r.err, "'bpsim --root " + root.Dir() + "'")) << r.err;
        if (json) {
            EXPECT_TRUE(AllJson(r.out));
            EXPECT_EQ(CountType(r.out, "error"), 1u) << r.out;
        } else {
            EXPECT_TRUE(r.out.empty()) << r.out;
        }
    }
}

/* ---- error answers, from a scripted server ---- */

/* Handshake, then the script's answer to the first request; afterwards
 * everything is closed so the tool's unregistration ends at once. */
void ServeOne(lapifake::FakeServer &srv,
              std::function<void(int syncFd, int asyncFd, const lapifake::ClientMsg &req)> answer) {
    srv.Start([answer](lapifake::FakeServer &s) {
        int syncFd;
        int asyncFd;
        if (!s.Handshake(42, &syncFd, &asyncFd)) {
            return;
        }
        lapifake::ClientMsg req;
        if (lapifake::ReadMsg(syncFd, &req)) {
            answer(syncFd, asyncFd, req);
        }
        /* Wait for the tool to leave (or for unregisterReq), then close. */
        lapifake::WaitReadable(syncFd, 3000);
        s.CloseAll();
    });
}

/* The scripted server answers the first request with timeOutRsp (1, 1). */
void ServeTimeOutRsp(lapifake::FakeServer &srv) {
    ServeOne(srv, [](int syncFd, int, const lapifake::ClientMsg &) {
        TimeOutRsp rsp = lapifake::Make<TimeOutRsp>(LAPI_TIME_OUT_RSP);
        rsp.sessionId = 1;
        rsp.transactionId = 1;
        lapifake::WriteMsg(syncFd, rsp);
    });
}

class LapiCliFake : public ::testing::TestWithParam<bool> {
  protected:
    lapifake::FakeServer srv;
    bool Json() const { return GetParam(); }
    Result RunTool(Args args) {
        args.push_back("--socket");
        args.push_back(srv.Path());
        if (Json()) {
            args.push_back("--json");
        }
        Result r = RunLapi(args);
        srv.Join();
        if (Json() && !r.out.empty()) {
            EXPECT_TRUE(AllJson(r.out));
        }
        return r;
    }
};

TEST_P(LapiCliFake, TimeOutRspExitsOne) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int syncFd, int, const lapifake::ClientMsg &req) {
        TimeOutRsp rsp = lapifake::Make<TimeOutRsp>(LAPI_TIME_OUT_RSP);
        rsp.sessionId = req.body.size() > 2 ? req.body[2] : 0;
        rsp.transactionId = req.body.size() > 3 ? req.body[3] : 0;
        lapifake::WriteMsg(syncFd, rsp);
    });
    Result r = RunTool({"status", "--sid", "3", "--tid", "4"});
    EXPECT_EQ(r.status, 1);
    if (Json()) {
        EXPECT_EQ(CountType(r.out, "timeOutRsp"), 1u) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"sessionId\":3,\"transactionId\":4")) << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "The server timed the request out")) << r.out;
    }
}

TEST_P(LapiCliFake, InvalidRequestRspExitsOne) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int syncFd, int, const lapifake::ClientMsg &) {
        InvalidRequestRsp rsp = lapifake::Make<InvalidRequestRsp>(LAPI_INVALID_REQUEST_RSP);
        rsp.sessionId = 1;
        rsp.transactionId = 1;
        lapifake::WriteMsg(syncFd, rsp);
    });
    Result r = RunTool({"last"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.out, Json() ? "{\"type\":\"invalidRequestRsp\""
                                       : "The server refused the request as invalid"))
        << r.out;
}

TEST_P(LapiCliFake, AnswersOfOtherPairsAreIgnored) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int syncFd, int asyncFd, const lapifake::ClientMsg &) {
        TimeOutRsp other = lapifake::Make<TimeOutRsp>(LAPI_TIME_OUT_RSP);
        other.sessionId = 9;
        other.transactionId = 9;
        lapifake::WriteMsg(syncFd, other);
        DistanceAzimuthRsp rsp = lapifake::Make<DistanceAzimuthRsp>(LAPI_DISTANCE_AZIMUTH_RSP);
        rsp.sessionId = 1;
        rsp.transactionId = 1;
        rsp.distance = 343.5;
        rsp.azimuth = 12.25;
        lapifake::WriteMsg(asyncFd, rsp);
    });
    Result r = RunTool({"distance", "1", "2", "3", "4", "--mode", "async"});
    EXPECT_EQ(r.status, 0) << r.err;
    if (Json()) {
        EXPECT_EQ(CountType(r.out, "distanceAzimuthRsp"), 1u) << r.out;
        EXPECT_EQ(CountType(r.out, "timeOutRsp"), 0u) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"distance\":343.5,\"azimuth\":12.25,\"conn\":\"async\""))
            << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "distance: 343.5\n")) << r.out;
    }
}

TEST_P(LapiCliFake, ErrorResultExitsOne) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int syncFd, int, const lapifake::ClientMsg &req) {
        SetGpsDbDataRsp rsp = lapifake::Make<SetGpsDbDataRsp>(LAPI_SET_GPS_DB_DATA_RSP);
        rsp.sessionId = 1;
        rsp.transactionId = 1;
        rsp.result = -2;
        if (req.header.msgId == LAPI_SET_GPS_DB_DATA_REQ) {
            lapifake::WriteMsg(syncFd, rsp);
        }
    });
    Result r = RunTool({"db-set", "3:0a0b"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.out, Json() ? "\"result\":-2" : "result: failed, BP code -2\n"))
        << r.out;
}

TEST_P(LapiCliFake, NoAnswerInTimeExitsOne) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int, int, const lapifake::ClientMsg &) {});
    int64_t start = NowMs();
    Result r = RunTool({"status", "--timeout", "300"});
    EXPECT_EQ(r.status, 1);
    EXPECT_LT(NowMs() - start, 5000);
    EXPECT_TRUE(Contains(r.err, "no answer from the server within 300 ms")) << r.err;
    if (Json()) {
        EXPECT_TRUE(Contains(r.out, "\"error\":\"timeout\"")) << r.out;
    }
}

TEST_P(LapiCliFake, ServerGoingAwayExitsOne) {
    ASSERT_TRUE(srv.Ok());
    srv.Start([](lapifake::FakeServer &s) {
        int syncFd;
        int asyncFd;
        lapifake::ClientMsg req;
        if (s.Handshake(42, &syncFd, &asyncFd) && lapifake::ReadMsg(syncFd, &req)) {
            s.CloseAll();
        }
    });
    int64_t start = NowMs();
    Result r = RunTool({"status"});
    EXPECT_EQ(r.status, 1);
    EXPECT_LT(NowMs() - start, 5000);
    EXPECT_TRUE(Contains(r.err, "lost the server")) << r.err;
}

TEST_P(LapiCliFake, RefusedRegistrationExitsOne) {
    ASSERT_TRUE(srv.Ok());
    srv.Start([](lapifake::FakeServer &s) {
        RegisterReq reg;
        int fd = s.AcceptRequest(&reg);
        if (fd >= 0) {
            s.Close(fd);
        }
    });
    Result r = RunTool({"watch"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "refused the registration")) << r.err;
    EXPECT_TRUE(Contains(r.err, "another client already takes network location requests")) << r.err;
    EXPECT_TRUE(Contains(r.err, "--no-mtlr")) << r.err;
    if (Json()) {
        EXPECT_EQ(CountType(r.out, "error"), 1u) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"error\":\"refused\"")) << r.out;
    }
}

TEST_P(LapiCliFake, LocateAbortedByTheServerSaysNoFixCameInTime) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int syncFd, int, const lapifake::ClientMsg &) {
        AbortLocationRsp rsp = lapifake::Make<AbortLocationRsp>(LAPI_ABORT_LOCATION_RSP);
        rsp.sessionId = 1;
        rsp.transactionId = 1;
        rsp.result = 0;
        lapifake::WriteMsg(syncFd, rsp);
    });
    Result r = RunTool({"locate", "--response-time", "4000"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "no fix came in time")) << r.err;
    EXPECT_TRUE(Contains(r.err, "response time + 6 s (10 s here)")) << r.err;
    if (Json()) {
        EXPECT_EQ(Lines(r.out).size(), 1u) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"hint\":\"no fix came in time")) << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "result: success (0)")) << r.out;
    }
}

TEST_P(LapiCliFake, LocateTimedOutByTheServerSaysTheBpWentAway) {
    ASSERT_TRUE(srv.Ok());
    ServeTimeOutRsp(srv);
    Result r = RunTool({"locate"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "has most likely gone away")) << r.err;
    if (Json()) {
        EXPECT_EQ(Lines(r.out).size(), 1u) << r.out;
        EXPECT_EQ(CountType(r.out, "timeOutRsp"), 1u) << r.out;
    }
}

TEST_P(LapiCliFake, TimeOutRspOfOtherRequestsNamesTheBpDeadline) {
    ASSERT_TRUE(srv.Ok());
    ServeTimeOutRsp(srv);
    Result r = RunTool({"last"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "the BP did not answer within the server's deadline")) << r.err;
}

TEST_P(LapiCliFake, NoAnswerSaysTheServerIsStuck) {
    ASSERT_TRUE(srv.Ok());
    ServeOne(srv, [](int, int, const lapifake::ClientMsg &) {});
    Result r = RunTool({"last", "--timeout", "300"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "most likely stuck")) << r.err;
    EXPECT_TRUE(Contains(r.err, "--timeout MS")) << r.err;
    if (Json()) {
        EXPECT_EQ(Lines(r.out).size(), 1u) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"hint\":")) << r.out;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, LapiCliFake, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &i) {
                             return i.param ? "Json" : "Text";
                         });

/* ---- every command against the real server ---- */

bpsim::Fix SampleFix() {
    bpsim::Fix fix;
    fix.latitude = 48.8566;
    fix.longitude = 2.3522;
    fix.altitude = 35.0;
    fix.nmea = "$GPGGA,120000.00,4851.396,N,00221.132,E,1,08,0.9,35.0,M,,,,*00\r\n";
    return fix;
}

class LapiCli : public lapitest::SimServerTest<::testing::TestWithParam<bool>> {
  protected:
    LapiCli() : SimServerTest(SampleFix()) {}

    void SetUp() override {
        SimServerTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        AnswerStatus(20);
        Answer(DISTANCE_AND_AZIMUTH_APBP_REQ, [](const bpsim::Message &r) {
            Bytes body;
            bpsim::PutFixed(&body, 343556.25);
            bpsim::PutFixed(&body, 330.5);
            return std::vector<Bytes>{bpsim::MakeMsg(DISTANCE_AND_AZIMUTH_APBP_RES, r.SessionId(),
                                                     r.TransactionId(), body)};
        });
        Answer(DB_READ_APBP_REQ, [](const bpsim::Message &r) {
            Bytes body;
            bpsim::PutU16(&body, 1);
            bpsim::PutU32(&body, r.U32(3).value_or(0));
            bpsim::PutU16(&body, 2);
            body.push_back(0x0B);
            body.push_back(0x0A);
            bpsim::PutU32(&body, 0);
            return std::vector<Bytes>{
                bpsim::MakeMsg(DB_READ_APBP_RES, r.SessionId(), r.TransactionId(), body)};
        });
        for (auto ids : {std::pair<uint8_t, uint8_t>{DB_WRITE_APBP_REQ, DB_WRITE_APBP_RES},
                         {PROXIMITY_ADD_APBP_REQ, PROXIMITY_ADD_APBP_RES},
                         {PROXIMITY_REM_APBP_REQ, PROXIMITY_REM_APBP_RES}}) {
            uint8_t rsp = ids.second;
            Answer(ids.first, [rsp](const bpsim::Message &r) {
                return std::vector<Bytes>{
                    bpsim::BuildI32Msg(rsp, r.SessionId(), r.TransactionId(), 0)};
            });
        }
    }

    bool Json() const { return GetParam(); }
    Args With(Args args) const {
        args.push_back("--root");
        args.push_back(root_.Dir());
        if (Json()) {
            args.push_back("--json");
        }
        return args;
    }
    Result RunTool(const Args &args) {
        Result r = RunLapi(With(args));
        if (Json()) {
            EXPECT_TRUE(AllJson(r.out)) << r.out;
        }
        return r;
    }
    /* In JSON: the count of objects of this type; readable: of the title. */
    size_t Count(const Result &r, const std::string &type, const std::string &title) const {
        if (Json()) {
            return CountType(r.out, type);
        }
        size_t n = 0;
        for (const std::string &line : Lines(r.out)) {
            n += line == title ? 1 : 0;
        }
        return n;
    }
};

TEST_P(LapiCli, LocatePrintsTheFix) {
    Result r = RunTool({"locate", "--nmea"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "getLocationRsp", "Location fix"), 1u) << r.out;
    if (Json()) {
        EXPECT_TRUE(Contains(r.out, "\"latitude\":48.8566,\"longitude\":2.3522,")) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"nmea\":\"$GPGGA,120000.00")) << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "  latitude:           48.8566\n")) << r.out;
        EXPECT_TRUE(Contains(r.out, "  longitude:          2.3522\n")) << r.out;
        EXPECT_TRUE(Contains(r.out, "  speed:              0\n")) << r.out;
        EXPECT_TRUE(Contains(r.out, "\n    $GPGGA,120000.00")) << r.out;
    }
    auto req = sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 1000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->bytes.back(), 1) << "--nmea asks for NMEA sentences";
}

TEST_P(LapiCli, LocatePeriodicStopsAfterCountAndAborts) {
    Answer(GEOLOCATION_APBP_REQ, [](const bpsim::Message &r) {
        bpsim::Fix fix = SampleFix();
        return std::vector<Bytes>{
            bpsim::BuildGetLocationRsp(r.SessionId(), r.TransactionId(), fix),
            bpsim::BuildGetLocationRsp(r.SessionId(), r.TransactionId(), fix),
            bpsim::BuildGetLocationRsp(r.SessionId(), r.TransactionId(), fix)};
    });
    Result r = RunTool({"locate", "--periodic", "1", "--count", "2"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "getLocationRsp", "Location fix"), 2u) << r.out;
    EXPECT_EQ(Count(r, "abortLocationRsp", "Location request aborted"), 1u) << r.out;
    auto req = sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 1000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U32(19), 1u) << "interval";
    EXPECT_EQ(req->U32(23), 1u) << "periodic reportCriteria";
    EXPECT_TRUE(sim_.WaitForSubCmd(GEOLOCATION_ABORT_APBP_REQ, 1000).has_value());
}

TEST_P(LapiCli, LocatePeriodicInterruptedAbortsCleanly) {
    Answer(GEOLOCATION_APBP_REQ, [](const bpsim::Message &r) {
        return std::vector<Bytes>{
            bpsim::BuildGetLocationRsp(r.SessionId(), r.TransactionId(), SampleFix())};
    });
    Tool t(With({"locate", "--periodic", "5"}));
    ASSERT_TRUE(sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 10000).has_value());
    int64_t deadline = NowMs() + 10000;
    while (t.Out().empty() && NowMs() < deadline) {
        usleep(5000);
    }
    t.Signal(SIGINT);
    EXPECT_EQ(t.Wait(), 0) << t.Err();
    EXPECT_TRUE(sim_.WaitForSubCmd(GEOLOCATION_ABORT_APBP_REQ, 1000).has_value());
    Result r{0, t.Out(), t.Err()};
    EXPECT_EQ(Count(r, "abortLocationRsp", "Location request aborted"), 1u) << r.out;
}

TEST_P(LapiCli, LastPrintsTheFix) {
    Result r = RunTool({"last", "--sid", "7", "--tid", "8"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "getLocationRsp", "Location fix"), 1u) << r.out;
    if (Json()) {
        EXPECT_TRUE(Contains(r.out, "\"sessionId\":7,\"transactionId\":8")) << r.out;
    } else {
        EXPECT_FALSE(Contains(r.out, "sessionId")) << "protocol ids only with --verbose";
    }
    EXPECT_TRUE(sim_.WaitForSubCmd(LAST_KNOWN_GEOLOCATION_APBP_REQ, 1000).has_value());
}

TEST_P(LapiCli, StatusPrintsEveryField) {
    Result r = RunTool({"status", "--mode", "async"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "getStatusRsp", "Positioning status"), 1u) << r.out;
    if (Json()) {
        EXPECT_TRUE(Contains(r.out,
                             "\"userStatus\":20,\"hwStatus\":21,\"fixStatus\":22,"
                             "\"emergencyStatus\":23,\"fixResultStatus\":{\"status\":24,"
                             "\"cause\":25},\"signalStatus\":26,"
                             "\"iconStatus\":27,\"conn\":\"async\""))
            << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "  userStatus:      BP value 20\n")) << r.out;
        EXPECT_TRUE(Contains(r.out, "  fixResultStatus: failed, BP code 24; cause BP cause 25\n"))
            << r.out;
        EXPECT_TRUE(Contains(r.out, "  iconStatus:      BP value 27\n")) << r.out;
    }
}

TEST_P(LapiCli, DistancePrintsDistanceAndAzimuth) {
    Result r = RunTool({"distance", "48.8566", "2.3522", "51.5074", "-0.1278", "--distance-only"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "distanceAzimuthRsp", "Distance and azimuth"), 1u) << r.out;
    EXPECT_TRUE(Contains(r.out, Json() ? "\"distance\":343556.25" : "  distance: 343556.25\n"))
        << r.out;
    auto req = sim_.WaitForSubCmd(DISTANCE_AND_AZIMUTH_APBP_REQ, 1000);
    ASSERT_TRUE(req.has_value());
    EXPECT_NEAR(req->Fixed(27).value_or(0), -0.1278, 1e-6);
    EXPECT_EQ(req->bytes.back(), 1);
}

TEST_P(LapiCli, DbGetPrintsTheFiles) {
    Result r = RunTool({"db-get", "5"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "getGpsDbDataRsp", "Assistance data"), 1u) << r.out;
    EXPECT_TRUE(Contains(r.out, Json()
                                    ? "\"dbFile\":[{\"fileId\":5,\"length\":2,\"data\":\"0a0b\"}]"
                                    : "    file 5: length 2, data 0a0b"))
        << r.out;
}

TEST_P(LapiCli, DbSetWritesTheFiles) {
    Result r = RunTool({"db-set", "3:0a0b", "4:ff"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "setGpsDbDataRsp", "Assistance data written"), 1u) << r.out;
    auto req = sim_.WaitForSubCmd(DB_WRITE_APBP_REQ, 1000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U16(3), 2u);
    EXPECT_EQ(req->U32(5), 3u);
}

TEST_P(LapiCli, GeofenceAddAndWaitForTheHit) {
    Tool t(With({"geofence", "add", "48.85", "2.35", "150", "--wait-hit"}));
    auto req = sim_.WaitForSubCmd(PROXIMITY_ADD_APBP_REQ, 10000);
    ASSERT_TRUE(req.has_value());
    EXPECT_NEAR(req->Fixed(27).value_or(0), 150.0, 1e-6);
    int64_t deadline = NowMs() + 10000;
    while (t.Out().empty() && NowMs() < deadline) {
        usleep(5000);
    }
    Bytes loc = bpsim::BuildGetLocationRsp(req->SessionId(), req->TransactionId(), sim_.GetFix());
    Bytes hit(loc.begin(), loc.begin() + 3 + 88 + 4);
    hit[0] = PROXIMITY_HIT_APBP_IND;
    bpsim::PutU64(&hit, 9);
    ASSERT_TRUE(sim_.Send(hit));
    EXPECT_EQ(t.Wait(), 0) << t.Err();
    Result r{0, t.Out(), t.Err()};
    if (Json()) {
        EXPECT_TRUE(AllJson(r.out));
    }
    EXPECT_EQ(Count(r, "addProximityRsp", "Proximity area added"), 1u) << r.out;
    EXPECT_EQ(Count(r, "proximityHitInd", "Proximity area reached"), 1u) << r.out;
}

TEST_P(LapiCli, GeofenceAddReportsTheStatus) {
    Result r = RunTool({"geofence", "add", "1", "2", "3", "--altitude", "4"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "addProximityRsp", "Proximity area added"), 1u) << r.out;
    EXPECT_TRUE(Contains(r.out, Json() ? "\"status\":0" : "  status: success (0)\n")) << r.out;
}

TEST_P(LapiCli, GeofenceRemoveOfAnUnknownAreaExitsOne) {
    Result r = RunTool({"geofence", "remove", "--sid", "5", "--tid", "6"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(Count(r, "invalidRequestRsp", "The server refused the request as invalid"), 1u)
        << r.out;
}

TEST_P(LapiCli, GeofenceRemoveAll) {
    Result r = RunTool({"geofence", "remove-all"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "removeProximityRsp", "Proximity area removed"), 1u) << r.out;
    auto req = sim_.WaitForSubCmd(PROXIMITY_REM_APBP_REQ, 1000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U32(3), 1u);
}

TEST_P(LapiCli, AbortOfAnotherProcessRequestExitsOne) {
    Result r = RunTool({"abort", "--sid", "1", "--tid", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(Count(r, "invalidRequestRsp", "The server refused the request as invalid"), 1u)
        << r.out;
}

TEST_P(LapiCli, AbortAllIsConfirmed) {
    Result r = RunTool({"abort-all"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Count(r, "abort-all", "abort-all: every running location request is being aborted"),
              1u)
        << r.out;
}

TEST_P(LapiCli, WatchPrintsStatusChanges) {
    Tool t(With({"watch", "--count", "1"}));
    ASSERT_TRUE(t.WaitErr("lapi: watching status changes and network location requests"))
        << t.Err();
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(STATUS_CHANGE_BPAP_IND, 0, 0, StatusBody(1))));
    EXPECT_EQ(t.Wait(), 0) << t.Err();
    Result r{0, t.Out(), t.Err()};
    if (Json()) {
        EXPECT_TRUE(AllJson(r.out));
    }
    EXPECT_EQ(Count(r, "statusChangeInd", "Positioning status changed"), 1u) << r.out;
}

TEST_P(LapiCli, WatchAnswersNetworkRequests) {
    Tool t(With({"watch", "--answer", "5", "--count", "1"}));
    ASSERT_TRUE(t.WaitErr("lapi: watching")) << t.Err();
    Bytes body;
    bpsim::PutU32(&body, 1);
    bpsim::PutU32(&body, 2);
    body.push_back(0);
    body.push_back(4);
    body.insert(body.end(), {0x00, 'H', 0x00, 'i'});
    body.push_back(5);
    body.insert(body.end(), {'s', 'h', 'o', 'p', '1'});
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(LOCATION_NOTIFICATION_BPAP_IND, 0x51, 0x52, body)));
    auto cfm = sim_.WaitForSubCmd(LOCATION_NOTIFICATION_APBP_RES, 10000);
    ASSERT_TRUE(cfm.has_value());
    EXPECT_EQ(cfm->SessionId(), 0x51);
    EXPECT_EQ(cfm->TransactionId(), 0x52);
    EXPECT_EQ(cfm->U32(3), 5u);
    EXPECT_EQ(t.Wait(), 0) << t.Err();
    Result r{0, t.Out(), t.Err()};
    if (Json()) {
        EXPECT_TRUE(AllJson(r.out));
        EXPECT_TRUE(Contains(r.out, "\"clientName\":\"Hi\",\"clientExternalAddr\":\"shop1\""))
            << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "  clientName:         Hi\n")) << r.out;
    }
    EXPECT_EQ(Count(r, "locationNotificationInd", "Network location request"), 1u) << r.out;
    EXPECT_EQ(Count(r, "locationNotificationCfm", "Answered the network location request"), 1u)
        << r.out;
}

TEST_P(LapiCli, WatchStopsOnInterrupt) {
    Tool t(With({"watch", "--no-mtlr"}));
    ASSERT_TRUE(t.WaitErr("lapi: watching status changes;")) << t.Err();
    t.Signal(SIGINT);
    EXPECT_EQ(t.Wait(10000), 0) << t.Err();
}

TEST_P(LapiCli, TraceDumpsEveryMessageOnStandardError) {
    Result r = RunTool({"status", "--trace"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Contains(r.err, "\tLAPI CLI : C->S registerReq ")) << r.err;
    EXPECT_TRUE(Contains(r.err, "\tLAPI CLI : C->S getStatusReq ")) << r.err;
    EXPECT_TRUE(Contains(r.err, "\tLAPI CLI : S->C getStatusRsp ")) << r.err;
    EXPECT_EQ(Count(r, "getStatusRsp", "Positioning status"), 1u) << r.out;
}

TEST_P(LapiCli, SilentServerHitsTheToolTimeout) {
    Silent(GET_STATUS_APBP_REQ);
    Result r = RunTool({"status", "--timeout", "400"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "no answer from the server within 400 ms")) << r.err;
}

TEST_P(LapiCli, VerboseShowsTheProtocolIds) {
    Result r = RunTool({"last", "--sid", "7", "--tid", "8", "--verbose"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Contains(
        r.out, Json() ? "\"sessionId\":7,\"transactionId\":8" : "  sessionId:          7\n"))
        << r.out;
    EXPECT_TRUE(Contains(r.out, Json() ? "\"conn\":\"sync\"" : "  conn:               sync\n"))
        << r.out;
}

TEST_P(LapiCli, ZeroFromTheBpPrintsAsZero) {
    Result r = RunTool({"locate"});
    EXPECT_EQ(r.status, 0) << r.err;
    if (Json()) {
        EXPECT_TRUE(Contains(r.out, "\"speed\":0,\"course\":0,")) << r.out;
        EXPECT_TRUE(Contains(r.out, "\"locationMethod\":0,\"cause\":0,")) << r.out;
    } else {
        EXPECT_TRUE(Contains(r.out, "  course:             0\n")) << r.out;
        EXPECT_TRUE(Contains(r.out, "  locationMethod:     BP method 0\n")) << r.out;
        EXPECT_TRUE(Contains(r.out, "  cause:              none (0)\n")) << r.out;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, LapiCli, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &i) {
                             return i.param ? "Json" : "Text";
                         });

}  // namespace
