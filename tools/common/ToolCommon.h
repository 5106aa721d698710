/*
 * Helpers shared by the tests and the tools (lapi_bench, the integration
 * fixture): a child process with its output on pipes, polling until a
 * deadline, a free UDP port on the loopback address, the open-descriptor
 * count of a process, a whole write, and the text of diagnostic lines.
 */
#ifndef LAPI_TOOL_COMMON_H
#define LAPI_TOOL_COMMON_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace toolcommon {

/* Monotonic milliseconds. */
int64_t NowMs();

/* Calls done() every stepMs until it returns true (true) or timeoutMs have
 * passed (false, after one last call). */
bool PollUntil(const std::function<bool()> &done, int timeoutMs, int stepMs = 5);

/* A UDP socket bound to port (0: any free one) on every local address, or
 * -1; the caller closes it. */
int BindUdpPort(int port);
/* A UDP port that nothing is bound to right now, or 0. */
int FreeUdpPort();

/* Open descriptors of a process (its /proc/PID/fd entries), or -1. */
int CountOpenFds(pid_t pid);

/* Writes all len bytes; waits for room (EAGAIN) at most stallMs at a time.
 * Sockets are written without SIGPIPE. False on any other failure. */
bool WriteAll(int fd, const void *data, size_t len, int stallMs = 10000);

/* The part of a diagnostic line that does not depend on the source line:
 * "\tLAPI Error SRV func: msg\n" and ", func()\tLAPI SRV : msg\n". */
std::string ErrorLineText(const std::string &func, const std::string &msg);
std::string TraceLineText(const std::string &func, const std::string &msg);
/* Whether text holds that error (trace) line. */
bool HasErrorLine(const std::string &text, const std::string &func, const std::string &msg);
bool HasTraceLine(const std::string &text, const std::string &func, const std::string &msg);

/* The emulator that runs the programs a test starts when they are built for
 * another processor (LAPI_TEST_EMULATOR, e.g. "qemu-arm -L /usr/arm-linux-
 * gnueabihf"); null when they run here as they are. */
const char *TestEmulator();

/* A program run with its standard output and error on pipes (or left to
 * the caller's, see Options). The destructor kills a child still running. */
class ChildProcess {
  public:
    struct Options {
        bool captureOut = true;     /* standard output on OutFd() */
        bool captureErr = true;     /* standard error on ErrFd() */
        bool errToOut = false;      /* standard error on OutFd() too */
        bool discardErr = false;    /* standard error to /dev/null (ErrFd() just ends) */
        bool pipeIn = false;        /* standard input from InFd(); else /dev/null */
        bool groupLeader = false;   /* setpgid(0, 0) in the child */
        bool dieWithParent = false; /* SIGKILL when this process ends */
        /* Run in the child after its standard descriptors are set and
         * before exec: to close them, or to put a pipe of the caller's own
         * in place of one. Only async-signal-safe calls (close, dup2,
         * setrlimit, signal). */
        std::function<void()> childSetup;
    };

    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    /* Starts argv[0] with argv (behind TestEmulator() when there is one);
     * false when the pipes or the fork failed. Everything the child needs
     * is prepared before the fork. */
    bool Start(const std::vector<std::string> &argv, const Options &options);
    bool Start(const std::vector<std::string> &argv) { return Start(argv, Options()); }

    pid_t Pid() const { return pid_; }
    int OutFd() const { return outFd_; }
    int ErrFd() const { return errFd_; }
    int InFd() const { return inFd_; }
    /* Hands the descriptor over to the caller (who closes it). */
    int TakeOutFd();
    int TakeErrFd();
    void CloseIn();
    /* Hands the child over to the caller, who reaps it: the destructor
     * then neither kills nor waits. Its pid. */
    pid_t Release();

    /* The exit status (128 + signal when killed by one), or -1 when it did
     * not end within timeoutMs: it is then killed and reaped, unless
     * killOnTimeout is false (it runs on, and Wait may be called again). */
    int Wait(int timeoutMs, bool killOnTimeout = true);
    bool Running() const { return pid_ > 0 && status_ == kRunning; }
    void Signal(int sig);

  private:
    static constexpr int kRunning = -2;
    pid_t pid_ = -1;
    int status_ = kRunning;
    int outFd_ = -1;
    int errFd_ = -1;
    int inFd_ = -1;
};

}  // namespace toolcommon

#endif /* LAPI_TOOL_COMMON_H */
