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

#include "ServerFixture.h"

namespace lapitest {

/* The bpsim program with a pipe on its standard input and output. */
class BpSimProgram {
  public:
    /* Standard error goes to the same pipe as standard output. */
    explicit BpSimProgram(const std::string &root, const std::vector<std::string> &args = {
                                                       "--lat", "48.8566", "--lon", "2.3522"}) {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        std::string bin = std::string(LAPI_BIN_DIR) + "/bpsim";
        std::vector<std::string> all = {bin, "--root", root};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &a : all) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        argv = UnderEmulator(std::move(argv));
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(out[1], 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        in_ = in[1];
        out_ = out[0];
        fcntl(out_, F_SETFL, O_NONBLOCK);
    }
    ~BpSimProgram() {
        if (in_ >= 0) {
            close(in_);
        }
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
        }
        if (out_ >= 0) {
            close(out_);
        }
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
    pid_t Pid() const { return pid_; }
    /* Waits for it to end on its own; its exit status, or -1 on timeout. */
    int WaitExit(int timeoutMs) {
        auto start = std::chrono::steady_clock::now();
        while (pid_ > 0 && MsSince(start) < timeoutMs) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            usleep(5000);
        }
        return -1;
    }
    /* Terminates it; its exit status. */
    int Stop() {
        if (pid_ <= 0) {
            return -1;
        }
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    static long MsSince(std::chrono::steady_clock::time_point start) {
        return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - start)
                                     .count());
    }

    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buf_;
};

}  // namespace lapitest

#endif /* LAPITEST_BPSIMPROGRAM_H */
