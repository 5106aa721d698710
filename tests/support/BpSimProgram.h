/*
 * The bpsim program as a child process with pipes on its standard input
 * (commands) and output (its lines), for the tests of its command line.
 */
#ifndef LAPITEST_BPSIMPROGRAM_H
#define LAPITEST_BPSIMPROGRAM_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "ToolCommon.h"

namespace lapitest {

/* The bpsim program with a pipe on its standard input and output. */
class BpSimProgram {
  public:
    /* Standard error goes to the same pipe as standard output. */
    explicit BpSimProgram(const std::string &root, const std::vector<std::string> &args = {
                                                       "--lat", "48.8566", "--lon", "2.3522"}) {
        toolcommon::ChildProcess::Options options;
        options.captureErr = false;
        options.errToOut = true;
        options.pipeIn = true;
        std::vector<std::string> all = {std::string(LAPI_BIN_DIR) + "/bpsim", "--root", root};
        all.insert(all.end(), args.begin(), args.end());
        if (!child_.Start(all, options)) {
            return;
        }
        in_ = child_.InFd();
        out_ = child_.OutFd();
        fcntl(out_, F_SETFL, O_NONBLOCK);
    }
    ~BpSimProgram() {
        child_.CloseIn();
        child_.Signal(SIGTERM);
        child_.Wait(30000);
    }
    BpSimProgram(const BpSimProgram &) = delete;
    BpSimProgram &operator=(const BpSimProgram &) = delete;

    bool Command(const std::string &line) {
        std::string l = line + "\n";
        return write(in_, l.data(), l.size()) == static_cast<ssize_t>(l.size());
    }
    /* Waits for an output line that starts with prefix; the line or "". */
    std::string WaitLine(const std::string &prefix, int timeoutMs = 5000) {
        auto start = std::chrono::steady_clock::now();
        for (;;) {
            size_t nl;
            while ((nl = buf_.find('\n')) != std::string::npos) {
                std::string line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                if (line.rfind(prefix, 0) == 0) {
                    return line;
                }
            }
            long left = timeoutMs - MsSince(start);
            if (left <= 0) {
                return "";
            }
            struct pollfd pfd = {out_, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left)) > 0) {
                char tmp[4096];
                ssize_t n = read(out_, tmp, sizeof(tmp));
                if (n > 0) {
                    buf_.append(tmp, static_cast<size_t>(n));
                } else if (n == 0) {
                    return "";
                }
            }
        }
    }
    /* Returns once every command written before has run (the program reads
     * its commands and the channel in one loop). */
    bool Sync() { return Command("areas") && !WaitLine("bpsim: areas").empty(); }
    pid_t Pid() const { return child_.Running() ? child_.Pid() : -1; }
    /* Waits for it to end on its own; its exit status, or -1 on timeout (it
     * then runs on) or when a signal ended it. */
    int WaitExit(int timeoutMs) {
        int status = child_.Wait(timeoutMs, false);
        return status >= 0 && status < 128 ? status : -1;
    }
    /* Terminates it; its exit status. */
    int Stop() {
        if (!child_.Running()) {
            return -1;
        }
        child_.Signal(SIGTERM);
        int status = child_.Wait(30000);
        return status >= 0 && status < 128 ? status : -1; /* -1: ended by a signal */
    }

  private:
    static long MsSince(std::chrono::steady_clock::time_point start) {
        return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - start)
                                     .count());
    }

    toolcommon::ChildProcess child_;
    int in_ = -1; /* the child's descriptors, owned by child_ */
    int out_ = -1;
    std::string buf_;
};

}  // namespace lapitest

#endif /* LAPITEST_BPSIMPROGRAM_H */
