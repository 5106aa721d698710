/*
 * Shared fixture of the integration tests: a private root folder, the BP
 * channel as a pseudo-terminal, and the host server run as a child process
 * whose diagnostics are captured line by line.
 *
 * Typical use:
 *   lapitest::TempRoot root;
 *   lapitest::MuxPty mux(root);
 *   lapitest::ServerProcess srv(root);
 *   ASSERT_TRUE(srv.StartAndWaitReady());
 *   int fd = lapitest::ConnectUnix(root.Path("/tmp/lapisock"));
 *   ...
 *   EXPECT_EQ(0, srv.Stop());
 *
 * Declare them in this order: the server stops before the terminal and the
 * folder go away.
 */
#ifndef LAPI_TEST_SERVERFIXTURE_H
#define LAPI_TEST_SERVERFIXTURE_H

#include <sys/types.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace lapitest {

/* ------------------------------------------------------------------------ */
/* A private root folder: /tmp/lapiXXXXXX, removed with everything in it.    */
/* ------------------------------------------------------------------------ */
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    bool ok() const { return !dir_.empty(); }
    const std::string &Dir() const { return dir_; }
    /* DIR + "/" + rel; a leading '/' of rel is not doubled. */
    std::string Path(const std::string &rel) const;
    /* Creates the folder rel and its parents (mkdir -p). */
    bool MakeDirs(const std::string &rel) const;
    /* Writes content to rel (replacing it), creating the parent folders. */
    bool WriteFile(const std::string &rel, const std::string &content) const;
    /* Turns feature flag n on: creates ROOT/etc/flex/n. */
    bool SetFlag(int n) const;
    bool Exists(const std::string &rel) const;
    /* The whole file, or nullopt when it cannot be read. */
    std::optional<std::string> ReadFile(const std::string &rel) const;

  private:
    std::string dir_;
};

/* Removes a folder tree (like rm -rf); true when it is gone. */
bool RemoveTree(const std::string &path);

/* ------------------------------------------------------------------------ */
/* The BP channel: a raw pseudo-terminal whose slave is ROOT/dev/mux18.      */
/* ------------------------------------------------------------------------ */
class MuxPty {
  public:
    /* Opens the pair and links ROOT/dev/mux18 to the slave. When keepSlaveOpen
     * is set the fixture also holds the slave open, so that the master never
     * sees a hang-up while the server has the channel closed. */
    explicit MuxPty(const TempRoot &root, bool keepSlaveOpen = true);
    ~MuxPty();
    MuxPty(const MuxPty &) = delete;
    MuxPty &operator=(const MuxPty &) = delete;

    bool ok() const { return master_ >= 0; }
    int MasterFd() const { return master_; }
    const std::string &SlavePath() const { return slavePath_; }

    /* Writes every byte to the master (the BP's side); false on failure. */
    bool Write(const void *data, size_t len);
    bool Write(const std::vector<uint8_t> &bytes) { return Write(bytes.data(), bytes.size()); }
    /* Waits up to timeoutMs for the first byte, then returns whatever is
     * available without waiting further (empty on timeout). */
    std::vector<uint8_t> ReadAvailable(int timeoutMs);
    /* Reads exactly n bytes within timeoutMs; false (with what arrived in
     * *out) on timeout or error. */
    bool ReadExactly(size_t n, std::vector<uint8_t> *out, int timeoutMs);
    /* Discards everything that arrives within quietMs of silence. */
    void Drain(int quietMs = 50);

  private:
    int master_ = -1;
    int slave_ = -1;
    std::string slavePath_;
};

/* ------------------------------------------------------------------------ */
/* Diagnostic lines                                                          */
/* ------------------------------------------------------------------------ */

/* "{1} FILE:LINE\tLAPI Error SRV FUNC: message" or
 * "{5} FILE:LINE, FUNC()\tLAPI SRV : message" (also "CLI" for the client
 * library's lines). */
struct DiagLine {
    bool isError = false;
    bool isServer = true;
    int level = 0;
    std::string file;
    int line = 0;
    std::string func;
    std::string message;
};

/* Parses one diagnostic line; false when the line has neither form. */
bool ParseDiagLine(const std::string &text, DiagLine *out);

/* Redirects one of this process's descriptors into a hidden temporary file
 * while it lives: unit tests read back what the code they call writes
 * there (its diagnostics on standard error, its dumps on standard output). */
class OutputCapture {
  public:
    explicit OutputCapture(int fd);
    ~OutputCapture();
    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;

    /* Everything written since the capture began (capture goes on). */
    std::string Text() const;
    std::vector<std::string> Lines() const;
    /* Message texts of the error / trace lines. */
    std::vector<std::string> Errors() const;
    std::vector<std::string> Traces() const;
    /* An error / trace line whose message text equals message. */
    bool HasError(const std::string &message) const;
    bool HasTrace(const std::string &message) const;
    /* Ends the capture early (the destructor does it otherwise). */
    void Restore();
    /* Restore, then everything that was written during the capture. */
    std::string Stop();

  private:
    int fd_;
    int saved_ = -1;
    int file_ = -1;
};

/* Standard error (fd 2), where the diagnostics go. */
class StderrCapture : public OutputCapture {
  public:
    StderrCapture() : OutputCapture(2) {}
};

/* Standard output (fd 1). */
class StdoutCapture : public OutputCapture {
  public:
    StdoutCapture() : OutputCapture(1) {}
};

/* ------------------------------------------------------------------------ */
/* The server as a child process                                             */
/* ------------------------------------------------------------------------ */

enum class Stream { Stdout, Stderr };

/* Exit code as in the shell: 0..255 for exit, -SIG for a signal. */
constexpr int kNotExited = INT_MIN;

struct ServerOptions {
    /* Program to run; the host launcher by default. */
    std::string binary = LAPI_SRV_HOST_BIN;
    /* --push-port N: 0 picks a free UDP port; -1 leaves the option out. */
    int pushPort = 0;
    /* Arguments appended after --root DIR [--push-port N]. */
    std::vector<std::string> extraArgs;
    /* When set, the launcher gets exactly these arguments (after argv[0])
     * instead of --root/--push-port/extraArgs: for command-line tests. */
    std::optional<std::vector<std::string>> rawArgs;
    /* Start the launcher as a process-group leader, as a shell does: it then
     * forks, its parent exits 0 and the server is the grandchild (this test
     * process adopts it as a subreaper, so its exit status stays visible). */
    bool asGroupLeader = false;
    /* The server's standard error goes to /dev/null instead of being kept:
     * for long runs whose diagnostics would fill the memory. */
    bool discardStderr = false;
    /* Run in the child after its standard descriptors are set and before
     * exec: to close them, or to put a pipe of the test's own in place of
     * one. Only async-signal-safe calls (close, dup2, setrlimit, signal). */
    std::function<void()> childSetup;
};

class ServerProcess {
  public:
    explicit ServerProcess(const TempRoot &root, ServerOptions options = ServerOptions());
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    /* Forks and executes the program. In group-leader mode it also waits
     * (up to 10 s) for the launcher's first process to exit and records its
     * status (LauncherExitCode). False when it could not be started. */
    bool Start();
    /* Start, then poll until ROOT/tmp/lapisock accepts a connection. In
     * group-leader mode the server's pid is then read from the pid file. */
    bool StartAndWaitReady(int timeoutMs = 10000);
    /* Polls until the socket accepts a connection (the connection is closed
     * at once); false on timeout or when the server exits. */
    bool WaitReady(int timeoutMs = 10000);

    /* The process that is (or becomes) the server. */
    pid_t Pid() const { return serverPid_; }
    /* The launcher's first process in group-leader mode (else Pid()). */
    pid_t LauncherPid() const { return childPid_; }
    /* Exit code of the launcher's first process in group-leader mode. */
    int LauncherExitCode() const { return launcherExit_; }
    int PushPort() const { return pushPort_; }

    /* Waits (up to timeoutMs) until the server sits in its select with
     * nothing to do, so that a signal finds it between two turns rather
     * than inside the allocator. False on timeout. */
    bool WaitIdle(int timeoutMs = 3000);

    /* Waits up to timeoutMs for the server to exit; its exit code or
     * kNotExited. Once it has exited, all its output has been captured. */
    int WaitExit(int timeoutMs);
    bool Running();
    /* WaitIdle, SIGTERM, wait up to timeoutMs, SIGKILL after that; the exit
     * code. */
    int Stop(int timeoutMs = 5000);
    /* WaitIdle, then sends a signal to the server; false when it is not
     * running. */
    bool Signal(int sig);

    /* Captured output, line by line (newline removed). Thread-safe copies. */
    std::vector<std::string> Lines(Stream stream) const;
    std::vector<std::string> StderrLines() const { return Lines(Stream::Stderr); }
    std::vector<std::string> StdoutLines() const { return Lines(Stream::Stdout); }
    size_t LineCount(Stream stream) const;
    /* All of a stream's text as received (lines joined with '\n'). */
    std::string Text(Stream stream) const;
    /* Message texts of the server's error / trace lines on stderr. */
    std::vector<std::string> ErrorMessages() const;
    std::vector<std::string> TraceMessages() const;
    size_t CountErrors(const std::string &message) const;
    size_t CountTraces(const std::string &message) const;

    /* Waits until both output streams are closed by every process that held
     * them (after the exit, all output is then captured). */
    bool WaitOutputClosed(int timeoutMs = 5000);

    /* Waits until a line at index >= from matches; returns its index or -1
     * on timeout. */
    long WaitForLine(Stream stream, const std::function<bool(const std::string &)> &match,
                     int timeoutMs = 5000, size_t from = 0);
    long WaitForLineContaining(Stream stream, const std::string &substr, int timeoutMs = 5000,
                               size_t from = 0);
    /* Error / trace line whose message text equals text. */
    bool WaitForError(const std::string &text, int timeoutMs = 5000, size_t from = 0);
    bool WaitForTrace(const std::string &text, int timeoutMs = 5000, size_t from = 0);
    /* Error / trace line whose message text contains substr. */
    bool WaitForErrorContaining(const std::string &substr, int timeoutMs = 5000, size_t from = 0);
    bool WaitForTraceContaining(const std::string &substr, int timeoutMs = 5000, size_t from = 0);

  private:
    void Pump();
    void AddBytes(int which, const char *data, size_t len);
    void FlushPartial(int which);
    int Reap(pid_t pid, int timeoutMs);

    const TempRoot &root_;
    ServerOptions options_;
    int pushPort_ = 0;
    pid_t childPid_ = -1;
    pid_t serverPid_ = -1;
    int launcherExit_ = kNotExited;
    int serverExit_ = kNotExited;
    int outFd_ = -1;
    int errFd_ = -1;
    std::thread pump_;
    std::atomic<bool> stopPump_{false};
    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::string> lines_[2];
    std::string partial_[2];
    bool eof_[2] = {false, false};
};

/* A free UDP port on this machine (0 when none could be found). */
int PickFreeUdpPort();
/* A UDP socket bound to the port on every address, as the server's push
 * intake binds it (0: any port); the descriptor, or -1. Holding it makes
 * the server's bind fail. */
int BindUdpPort(int port);
/* Connects a stream socket to the Unix socket path; the descriptor, or -1. */
int ConnectUnix(const std::string &path);
/* Everything the socket holds now, taken without waiting. */
std::vector<uint8_t> RecvPending(int fd);
/* The first number of a pid file, or 0. */
pid_t ReadPidFile(const std::string &path);
/* True when a process with this pid exists (also when kill reports EPERM). */
bool ProcessAlive(pid_t pid);
/* The pid of a process that has just exited and been reaped: it names
 * nobody. */
pid_t DeadPid();
/* Whether the process maps a file whose name contains this text. */
bool ProcessMaps(pid_t pid, const std::string &name);
/* Milliseconds of the monotonic clock. */
int64_t NowMs();

/* argv (null-terminated) behind toolcommon::TestEmulator() when there is
 * one (programs built for another processor). Built
 * before fork; the child calls execv(result[0], result.data()). */
std::vector<char *> UnderEmulator(std::vector<char *> argv);
/* The same for a shell command line: "EMULATOR " to put before the program,
 * or "". */
std::string EmulatorPrefix();

}  // namespace lapitest

#endif /* LAPI_TEST_SERVERFIXTURE_H */
