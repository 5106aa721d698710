#include "ToolCommon.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace toolcommon {

int64_t NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool PollUntil(const std::function<bool()> &done, int timeoutMs, int stepMs) {
    int64_t deadline = NowMs() + timeoutMs;
    while (!done()) {
        if (NowMs() >= deadline) {
            return done();
        }
        struct timespec step = {stepMs / 1000, (stepMs % 1000) * 1000000L};
        nanosleep(&step, nullptr);
    }
    return true;
}

int BindUdpPort(int port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int FreeUdpPort() {
    int fd = BindUdpPort(0);
    if (fd < 0) {
        return 0;
    }
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    socklen_t len = sizeof(addr);
    int port = 0;
    if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

int CountOpenFds(pid_t pid) {
    std::string path = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(path.c_str());
    if (d == nullptr) {
        return -1;
    }
    int n = 0;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n;
}

bool WriteAll(int fd, const void *data, size_t len, int stallMs) {
    const char *p = static_cast<const char *>(data);
    bool bSocket = true;
    while (len > 0) {
        ssize_t n = bSocket ? send(fd, p, len, MSG_NOSIGNAL) : write(fd, p, len);
        if (n < 0 && bSocket && errno == ENOTSOCK) {
            bSocket = false;
            continue;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN) {
                struct pollfd pfd = {fd, POLLOUT, 0};
                if (poll(&pfd, 1, stallMs) <= 0) {
                    return false;
                }
                continue;
            }
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

std::string ErrorLineText(const std::string &func, const std::string &msg) {
    return "\tLAPI Error SRV " + func + ": " + msg + "\n";
}

std::string TraceLineText(const std::string &func, const std::string &msg) {
    return ", " + func + "()\tLAPI SRV : " + msg + "\n";
}

bool HasErrorLine(const std::string &text, const std::string &func, const std::string &msg) {
    return text.find(ErrorLineText(func, msg)) != std::string::npos;
}

bool HasTraceLine(const std::string &text, const std::string &func, const std::string &msg) {
    return text.find(TraceLineText(func, msg)) != std::string::npos;
}

/* ------------------------------------------------------------------------ */
/* ChildProcess                                                              */
/* ------------------------------------------------------------------------ */

static void CloseIfOpen(int *pFd) {
    if (*pFd >= 0) {
        close(*pFd);
        *pFd = -1;
    }
}

ChildProcess::~ChildProcess() {
    if (Running()) {
        kill(pid_, SIGKILL);
        Wait(5000);
    }
    CloseIfOpen(&outFd_);
    CloseIfOpen(&errFd_);
    CloseIfOpen(&inFd_);
}

const char *TestEmulator() {
    const char *pEmulator = getenv("LAPI_TEST_EMULATOR");
    return (pEmulator != nullptr && pEmulator[0] != '\0') ? pEmulator : nullptr;
}

bool ChildProcess::Start(const std::vector<std::string> &argv, const Options &options) {
    if (argv.empty() || pid_ > 0) {
        return false;
    }
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    int in[2] = {-1, -1};
    if ((options.captureOut && pipe2(out, O_CLOEXEC) != 0) ||
        (options.captureErr && pipe2(err, O_CLOEXEC) != 0) ||
        (options.pipeIn && pipe2(in, O_CLOEXEC) != 0)) {
        for (int *pFd : {&out[0], &out[1], &err[0], &err[1], &in[0], &in[1]}) {
            CloseIfOpen(pFd);
        }
        return false;
    }
    std::vector<char *> args;
    if (const char *pEmulator = TestEmulator()) {
        args.push_back(const_cast<char *>(pEmulator));
    }
    for (const std::string &a : argv) {
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        if (options.groupLeader) {
            setpgid(0, 0);
        }
        if (options.dieWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
            if (getppid() != parent) {
                _exit(127);
            }
        }
        dup2(options.pipeIn ? in[0] : devNull, 0);
        if (options.captureOut) {
            dup2(out[1], 1);
        }
        if (options.discardErr) {
            dup2(devNull, 2);
        } else if (options.captureErr) {
            dup2(err[1], 2);
        } else if (options.errToOut && options.captureOut) {
            dup2(out[1], 2);
        }
        if (options.childSetup) {
            options.childSetup();
        }
        execv(args[0], args.data());
        _exit(127);
    }
    CloseIfOpen(&devNull);
    CloseIfOpen(&out[1]);
    CloseIfOpen(&err[1]);
    CloseIfOpen(&in[0]);
    if (pid < 0) {
        CloseIfOpen(&out[0]);
        CloseIfOpen(&err[0]);
        CloseIfOpen(&in[1]);
        return false;
    }
    pid_ = pid;
    status_ = kRunning;
    outFd_ = out[0];
    errFd_ = err[0];
    inFd_ = in[1];
    return true;
}

int ChildProcess::TakeOutFd() {
    int fd = outFd_;
    outFd_ = -1;
    return fd;
}

int ChildProcess::TakeErrFd() {
    int fd = errFd_;
    errFd_ = -1;
    return fd;
}

void ChildProcess::CloseIn() {
    CloseIfOpen(&inFd_);
}

pid_t ChildProcess::Release() {
    pid_t pid = pid_;
    pid_ = -1;
    return pid;
}

int ChildProcess::Wait(int timeoutMs, bool killOnTimeout) {
    if (pid_ <= 0) {
        return -1;
    }
    int64_t deadline = NowMs() + timeoutMs;
    while (status_ == kRunning) {
        int st = 0;
        pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            break;
        }
        if (r < 0 && errno != EINTR) {
            status_ = -1;
            break;
        }
        if (NowMs() >= deadline) {
            if (!killOnTimeout) {
                return -1;
            }
            kill(pid_, SIGKILL);
            waitpid(pid_, &st, 0);
            status_ = -1;
            break;
        }
        struct timespec step = {0, 5000000L};
        nanosleep(&step, nullptr);
    }
    return status_;
}

void ChildProcess::Signal(int sig) {
    if (Running()) {
        kill(pid_, sig);
    }
}

}  // namespace toolcommon
