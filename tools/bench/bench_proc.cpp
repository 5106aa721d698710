#include "bench_proc.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "ToolCommon.h"

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace bench {

namespace {

std::string ErrnoText(const char *what) {
    return std::string(what) + ": " + strerror(errno);
}

void SleepMs(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
    }
}

/* In a child after fork: only async-signal-safe calls from here on. */
void SetChildNoFile(long noFile, bool exact) {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) {
        return;
    }
    rlim_t want = static_cast<rlim_t>(noFile);
    if (rl.rlim_max != RLIM_INFINITY && want > rl.rlim_max) {
        want = rl.rlim_max;
    }
    if (exact || want > rl.rlim_cur) {
        rl.rlim_cur = want;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

void ResetChildSignals() {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = SIG_DFL;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD}) {
        sigaction(sig, &sa, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/* Ends with the bench, even when the bench is killed outright: SIGTERM is
 * the server's own clean shutdown. */
bool TieToParent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    return getppid() == parent;
}

std::string Describe(int status) {
    if (WIFEXITED(status)) {
        return "exit " + std::to_string(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        return "signal " + std::to_string(WTERMSIG(status));
    }
    return "status " + std::to_string(status);
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}

}  // namespace

long RaiseNoFile(long want) {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) {
        return -1;
    }
    rlim_t target = static_cast<rlim_t>(want);
    if (rl.rlim_max != RLIM_INFINITY && target > rl.rlim_max) {
        target = rl.rlim_max;
    }
    if (target > rl.rlim_cur) {
        rl.rlim_cur = target;
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
            getrlimit(RLIMIT_NOFILE, &rl);
        }
    }
    return rl.rlim_cur == RLIM_INFINITY ? LONG_MAX : static_cast<long>(rl.rlim_cur);
}

pid_t SpawnProgram(const std::vector<std::string> &argv, const std::string &outPath, long noFile,
                   std::string *err) {
    if (argv.empty()) {
        *err = "nothing to run";
        return -1;
    }
    if (access(argv[0].c_str(), X_OK) != 0) {
        *err = ErrnoText(("cannot run " + argv[0]).c_str());
        return -1;
    }
    std::vector<char *> args;
    /* A bench built for another processor runs its server under the same
     * emulator as itself (the cross-build's tests set it). */
    if (const char *pEmulator = getenv("LAPI_TEST_EMULATOR"); pEmulator && *pEmulator) {
        args.push_back(const_cast<char *>(pEmulator));
    }
    for (const std::string &a : argv) {
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    int errPipe[2];
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        *err = ErrnoText("pipe2");
        return -1;
    }
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        *err = ErrnoText("fork");
        close(errPipe[0]);
        close(errPipe[1]);
        return -1;
    }
    if (pid == 0) {
        close(errPipe[0]);
        if (!TieToParent(parent)) {
            _exit(127);
        }
        ResetChildSignals();
        SetChildNoFile(noFile, false);
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) {
            int e = errno;
            ssize_t w = write(errPipe[1], &e, sizeof(e));
            (void)w;
            _exit(127);
        }
        /* Nothing of ours survives the exec; the error pipe closes with it. */
        syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
        execv(args[0], args.data());
        int e = errno;
        ssize_t w = write(errPipe[1], &e, sizeof(e));
        (void)w;
        _exit(127);
    }
    close(errPipe[1]);
    int childErr = 0;
    ssize_t n;
    do {
        n = read(errPipe[0], &childErr, sizeof(childErr));
    } while (n < 0 && errno == EINTR);
    close(errPipe[0]);
    if (n == static_cast<ssize_t>(sizeof(childErr))) {
        waitpid(pid, nullptr, 0);
        errno = childErr;
        *err = ErrnoText(("cannot start " + argv[0]).c_str());
        return -1;
    }
    return pid;
}

pid_t SpawnFunction(const std::function<int()> &fn, long noFile, std::string *err) {
    pid_t parent = getpid();
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        *err = ErrnoText("fork");
        return -1;
    }
    if (pid == 0) {
        if (!TieToParent(parent)) {
            _exit(127);
        }
        ResetChildSignals();
        syscall(SYS_close_range, 3U, ~0U, 0U);
        int in = open("/dev/null", O_RDWR);
        if (in >= 0) {
            dup2(in, 0);
            dup2(in, 1);
            if (in > 2) {
                close(in);
            }
        }
        SetChildNoFile(noFile, true);
        /* _exit: the bench's own exit handlers are not the child's to run. */
        _exit(fn());
    }
    return pid;
}

bool WaitConnectable(const std::string &sockPath, pid_t pid, int timeoutMs, std::string *err) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (sockPath.size() >= sizeof(addr.sun_path)) {
        *err = "socket path too long: " + sockPath;
        return false;
    }
    memcpy(addr.sun_path, sockPath.c_str(), sockPath.size() + 1);
    for (int waited = 0;; waited += 10) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            *err = ErrnoText("socket");
            return false;
        }
        int rc = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
        close(fd);
        if (rc == 0) {
            return true;
        }
        std::string how;
        if (ChildEnded(pid, &how)) {
            *err = "it ended (" + how + ") before " + sockPath + " accepted a connection";
            return false;
        }
        if (waited >= timeoutMs) {
            *err = sockPath + " accepted no connection within " + std::to_string(timeoutMs) + " ms";
            return false;
        }
        SleepMs(10);
    }
}

bool ChildEnded(pid_t pid, std::string *how) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) {
        *how = Describe(status);
        return true;
    }
    if (r < 0 && errno == ECHILD) {
        *how = "already reaped";
        return true;
    }
    return false;
}

std::string StopChild(pid_t pid, int timeoutMs, int *exitStatus) {
    *exitStatus = -1;
    if (pid <= 0) {
        return "not running";
    }
    std::string how;
    if (ChildEnded(pid, &how)) {
        return how + " (before SIGTERM)";
    }
    kill(pid, SIGTERM);
    int status = 0;
    for (int waited = 0; waited <= timeoutMs; waited += 5) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            if (WIFEXITED(status)) {
                *exitStatus = WEXITSTATUS(status);
            }
            return Describe(status);
        }
        if (r < 0 && errno != EINTR) {
            return ErrnoText("waitpid");
        }
        SleepMs(5);
    }
    kill(pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return Describe(status) + " (no exit within " + std::to_string(timeoutMs) +
           " ms of SIGTERM, killed)";
}

int64_t CpuNs(pid_t pid, bool *precise) {
    std::string base = "/proc/" + std::to_string(pid);
    long long ns = -1;
    {
        std::ifstream in(base + "/schedstat");
        if (!(in >> ns)) {
            ns = -1;
        }
    }
    long long ticksNs = -1;
    {
        std::ifstream in(base + "/stat");
        std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        /* The command name may hold blanks and parentheses: fields count
         * from the last ')'. utime and stime are fields 14 and 15. */
        size_t close = all.rfind(')');
        if (close != std::string::npos) {
            std::istringstream fields(all.substr(close + 1));
            std::string f;
            unsigned long long ut = 0, st = 0;
            int i = 3;
            while (fields >> f) {
                if (i == 14) {
                    ut = strtoull(f.c_str(), nullptr, 10);
                } else if (i == 15) {
                    st = strtoull(f.c_str(), nullptr, 10);
                    long hz = sysconf(_SC_CLK_TCK);
                    ticksNs =
                        static_cast<long long>((ut + st) * (1000000000ULL / (hz > 0 ? hz : 100)));
                    break;
                }
                ++i;
            }
        }
    }
    /* A kernel without scheduler statistics shows 0 there. */
    if (ns > 0 || (ns == 0 && ticksNs == 0)) {
        *precise = true;
        return ns;
    }
    *precise = false;
    return ticksNs;
}

long PrivateDirtyKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("Private_Dirty:", 0) == 0) {
            return strtol(line.c_str() + strlen("Private_Dirty:"), nullptr, 10);
        }
    }
    return -1;
}

int CountFds(pid_t pid) {
    return toolcommon::CountOpenFds(pid);
}

int FreeUdpPort() {
    return toolcommon::FreeUdpPort();
}

std::string MakeTempDir() {
    char tmpl[] = "/tmp/lbenchXXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return std::string();
    }
    return tmpl;
}

bool RemoveTree(const std::string &path) {
    if (path.empty()) {
        return true;
    }
    nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    struct stat st;
    return lstat(path.c_str(), &st) != 0;
}

bool MakeDirs(const std::string &path) {
    std::string cur;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        cur = path.substr(0, pos);
        if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

std::string SelfDir() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) {
        return ".";
    }
    buf[n] = '\0';
    std::string p(buf);
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? "." : (slash == 0 ? "/" : p.substr(0, slash));
}

}  // namespace bench
