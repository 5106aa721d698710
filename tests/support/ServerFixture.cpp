#include "ServerFixture.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "ToolCommon.h"

namespace lapitest {

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point Deadline(int timeoutMs) {
    return Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
}

int MsLeft(Clock::time_point deadline) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

void SleepMs(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

int MakeDirsAbs(const std::string &path) {
    std::string cur;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) {
            next = path.size();
        }
        cur = path.substr(0, next);
        if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) {
            return -1;
        }
        pos = next + 1;
    }
    struct stat st;
    return (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : -1;
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path) == 0 || errno == ENOENT ? 0 : -1;
}

int ExitCodeOf(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return -WTERMSIG(status);
    }
    return kNotExited;
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* TempRoot                                                                  */
/* ------------------------------------------------------------------------ */

TempRoot::TempRoot() {
    char tmpl[] = "/tmp/lapiXXXXXX";
    if (mkdtemp(tmpl) != nullptr) {
        dir_ = tmpl;
    }
}

TempRoot::~TempRoot() {
    if (!dir_.empty()) {
        RemoveTree(dir_);
    }
}

std::string TempRoot::Path(const std::string &rel) const {
    if (!rel.empty() && rel[0] == '/') {
        return dir_ + rel;
    }
    return dir_ + "/" + rel;
}

bool TempRoot::MakeDirs(const std::string &rel) const {
    return MakeDirsAbs(Path(rel)) == 0;
}

bool TempRoot::WriteFile(const std::string &rel, const std::string &content) const {
    std::string path = Path(rel);
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && MakeDirsAbs(path.substr(0, slash)) != 0) {
        return false;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    bool ok = toolcommon::WriteAll(fd, content.data(), content.size());
    return close(fd) == 0 && ok;
}

bool TempRoot::SetFlag(int n) const {
    return WriteFile("/etc/flex/" + std::to_string(n), "");
}

bool TempRoot::Exists(const std::string &rel) const {
    struct stat st;
    return lstat(Path(rel).c_str(), &st) == 0;
}

std::optional<std::string> TempRoot::ReadFile(const std::string &rel) const {
    int fd = open(Path(rel).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string out;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return out;
}

bool RemoveTree(const std::string &path) {
    nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    struct stat st;
    return lstat(path.c_str(), &st) != 0;
}

/* ------------------------------------------------------------------------ */
/* MuxPty                                                                    */
/* ------------------------------------------------------------------------ */

MuxPty::MuxPty(const TempRoot &root, bool keepSlaveOpen) {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0) {
        return;
    }
    char name[128];
    if (grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name, sizeof(name)) != 0) {
        close(master);
        return;
    }
    int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) {
        close(master);
        return;
    }
    /* Raw both ways: no echo, no line editing, no translation of bytes. */
    struct termios tio;
    if (tcgetattr(slave, &tio) == 0) {
        cfmakeraw(&tio);
        tio.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
        tio.c_cc[VMIN] = 1;
        tio.c_cc[VTIME] = 0;
        tcsetattr(slave, TCSANOW, &tio);
    }
    if (tcgetattr(master, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(master, TCSANOW, &tio);
    }
    int flags = fcntl(master, F_GETFL);
    fcntl(master, F_SETFL, flags | O_NONBLOCK);

    std::string link = root.Path("/dev/mux18");
    root.MakeDirs("/dev");
    unlink(link.c_str());
    if (symlink(name, link.c_str()) != 0) {
        close(slave);
        close(master);
        return;
    }
    slavePath_ = name;
    master_ = master;
    if (keepSlaveOpen) {
        slave_ = slave;
    } else {
        close(slave);
    }
}

MuxPty::~MuxPty() {
    if (slave_ >= 0) {
        close(slave_);
    }
    if (master_ >= 0) {
        close(master_);
    }
}

bool MuxPty::Write(const void *data, size_t len) {
    return master_ >= 0 && toolcommon::WriteAll(master_, data, len);
}

std::vector<uint8_t> MuxPty::ReadAvailable(int timeoutMs) {
    std::vector<uint8_t> out;
    if (master_ < 0) {
        return out;
    }
    struct pollfd pfd = {master_, POLLIN, 0};
    int r;
    do {
        r = poll(&pfd, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    if (r <= 0) {
        return out;
    }
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = read(master_, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        out.insert(out.end(), buf, buf + n);
    }
    return out;
}

bool MuxPty::ReadExactly(size_t n, std::vector<uint8_t> *out, int timeoutMs) {
    out->clear();
    if (master_ < 0) {
        return false;
    }
    auto deadline = Deadline(timeoutMs);
    while (out->size() < n) {
        struct pollfd pfd = {master_, POLLIN, 0};
        int r = poll(&pfd, 1, MsLeft(deadline));
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            return false;
        }
        uint8_t buf[4096];
        size_t want = n - out->size();
        ssize_t got = read(master_, buf, want < sizeof(buf) ? want : sizeof(buf));
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        out->insert(out->end(), buf, buf + got);
    }
    return true;
}

void MuxPty::Drain(int quietMs) {
    while (!ReadAvailable(quietMs).empty()) {
    }
}

/* ------------------------------------------------------------------------ */
/* Diagnostic lines                                                          */
/* ------------------------------------------------------------------------ */

bool ParseDiagLine(const std::string &text, DiagLine *out) {
    DiagLine d;
    if (text.size() < 4 || text[0] != '{') {
        return false;
    }
    size_t close = text.find('}');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ' ') {
        return false;
    }
    d.level = atoi(text.substr(1, close - 1).c_str());
    size_t tab = text.find('\t', close);
    if (tab == std::string::npos) {
        return false;
    }
    std::string where = text.substr(close + 2, tab - close - 2);
    std::string rest = text.substr(tab + 1);
    static const char kErrSrv[] = "LAPI Error SRV ";
    static const char kErrCli[] = "LAPI Error CLI ";
    static const char kTrcSrv[] = "LAPI SRV : ";
    static const char kTrcCli[] = "LAPI CLI : ";
    if (rest.rfind(kErrSrv, 0) == 0 || rest.rfind(kErrCli, 0) == 0) {
        d.isError = true;
        d.isServer = rest.rfind(kErrSrv, 0) == 0;
        std::string tail = rest.substr(sizeof(kErrSrv) - 1);
        size_t colon = tail.find(": ");
        if (colon == std::string::npos) {
            return false;
        }
        d.func = tail.substr(0, colon);
        d.message = tail.substr(colon + 2);
        size_t c = where.rfind(':');
        if (c == std::string::npos) {
            return false;
        }
        d.file = where.substr(0, c);
        d.line = atoi(where.c_str() + c + 1);
    } else if (rest.rfind(kTrcSrv, 0) == 0 || rest.rfind(kTrcCli, 0) == 0) {
        d.isError = false;
        d.isServer = rest.rfind(kTrcSrv, 0) == 0;
        d.message = rest.substr(sizeof(kTrcSrv) - 1);
        size_t comma = where.find(", ");
        if (comma == std::string::npos || where.size() < comma + 4 ||
            where.compare(where.size() - 2, 2, "()") != 0) {
            return false;
        }
        d.func = where.substr(comma + 2, where.size() - comma - 4);
        std::string fl = where.substr(0, comma);
        size_t c = fl.rfind(':');
        if (c == std::string::npos) {
            return false;
        }
        d.file = fl.substr(0, c);
        d.line = atoi(fl.c_str() + c + 1);
    } else {
        return false;
    }
    *out = d;
    return true;
}

namespace {

/* Message texts of the error lines (errors set) or the trace lines. */
std::vector<std::string> DiagMessages(const std::vector<std::string> &lines, bool errors) {
    std::vector<std::string> out;
    DiagLine d;
    for (const auto &l : lines) {
        if (ParseDiagLine(l, &d) && d.isError == errors) {
            out.push_back(d.message);
        }
    }
    return out;
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* OutputCapture                                                             */
/* ------------------------------------------------------------------------ */

namespace {

/* The stdio stream buffered in front of a captured descriptor, if any. */
FILE *StreamOf(int fd) {
    return fd == 1 ? stdout : fd == 2 ? stderr : nullptr;
}

}  // namespace

OutputCapture::OutputCapture(int fd) : fd_(fd) {
    char tmpl[] = "/tmp/lapicapXXXXXX";
    file_ = mkostemp(tmpl, O_CLOEXEC);
    if (file_ < 0) {
        return;
    }
    unlink(tmpl);
    if (StreamOf(fd_) != nullptr) {
        fflush(StreamOf(fd_));
    }
    saved_ = fcntl(fd_, F_DUPFD_CLOEXEC, 3);
    if (saved_ < 0 || dup2(file_, fd_) < 0) {
        close(file_);
        file_ = -1;
    }
}

OutputCapture::~OutputCapture() {
    Restore();
    if (file_ >= 0) {
        close(file_);
    }
}

void OutputCapture::Restore() {
    if (saved_ >= 0) {
        if (StreamOf(fd_) != nullptr) {
            fflush(StreamOf(fd_));
        }
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
}

std::string OutputCapture::Stop() {
    Restore();
    return Text();
}

std::string OutputCapture::Text() const {
    std::string out;
    if (file_ < 0) {
        return out;
    }
    if (saved_ >= 0 && StreamOf(fd_) != nullptr) {
        /* Still capturing: what stdio holds back belongs to the text. */
        fflush(StreamOf(fd_));
    }
    char buf[4096];
    off_t pos = 0;
    for (;;) {
        ssize_t n = pread(file_, buf, sizeof(buf), pos);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        out.append(buf, static_cast<size_t>(n));
        pos += n;
    }
    return out;
}

std::vector<std::string> OutputCapture::Lines() const {
    std::vector<std::string> out;
    std::string text = Text();
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) {
            out.push_back(text.substr(start));
            break;
        }
        out.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

std::vector<std::string> OutputCapture::Errors() const {
    return DiagMessages(Lines(), true);
}

std::vector<std::string> OutputCapture::Traces() const {
    return DiagMessages(Lines(), false);
}

bool OutputCapture::HasError(const std::string &message) const {
    for (const auto &m : Errors()) {
        if (m == message) {
            return true;
        }
    }
    return false;
}

bool OutputCapture::HasTrace(const std::string &message) const {
    for (const auto &m : Traces()) {
        if (m == message) {
            return true;
        }
    }
    return false;
}

/* ------------------------------------------------------------------------ */
/* ServerProcess                                                             */
/* ------------------------------------------------------------------------ */

ServerProcess::ServerProcess(const TempRoot &root, ServerOptions options)
    : root_(root), options_(std::move(options)) {}

ServerProcess::~ServerProcess() {
    if (options_.asGroupLeader && serverPid_ <= 0 && launcherExit_ != kNotExited) {
        /* Never waited for readiness: stop the adopted server all the same,
         * but only a process that really is a child of this one. */
        pid_t pid = ReadPidFile(root_.Path("/tmp/lapi.pid"));
        int status;
        if (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
            serverPid_ = pid;
        }
    }
    if (serverPid_ > 0 && serverExit_ == kNotExited) {
        Stop(3000);
    }
    if (childPid_ > 0 && childPid_ != serverPid_ && launcherExit_ == kNotExited) {
        kill(childPid_, SIGKILL);
        Reap(childPid_, 3000);
    }
    if (pump_.joinable()) {
        /* Normally the streams close with the server; a process that still
         * holds them (one this fixture never learnt about) must not keep
         * the test waiting. */
        WaitOutputClosed(2000);
        stopPump_ = true;
        pump_.join();
    }
    if (outFd_ >= 0) {
        close(outFd_);
    }
    if (errFd_ >= 0) {
        close(errFd_);
    }
}

bool ServerProcess::Start() {
    if (childPid_ > 0) {
        return false;
    }
    std::vector<std::string> args;
    args.push_back(options_.binary);
    if (options_.rawArgs) {
        args.insert(args.end(), options_.rawArgs->begin(), options_.rawArgs->end());
    } else {
        args.push_back("--root");
        args.push_back(root_.Dir());
        if (options_.pushPort >= 0) {
            pushPort_ = options_.pushPort > 0 ? options_.pushPort : PickFreeUdpPort();
            args.push_back("--push-port");
            args.push_back(std::to_string(pushPort_));
        }
        args.insert(args.end(), options_.extraArgs.begin(), options_.extraArgs.end());
    }
    if (options_.asGroupLeader) {
        /* The server is the launcher's grandchild: adopt it when its parent
         * exits so that its exit status can be collected here. */
        prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    }
    toolcommon::ChildProcess::Options childOptions;
    childOptions.groupLeader = options_.asGroupLeader;
    /* Otherwise killed with the test process: never outlives a crashed test. */
    childOptions.dieWithParent = !options_.asGroupLeader;
    childOptions.discardErr = options_.discardStderr;
    childOptions.childSetup = options_.childSetup;
    toolcommon::ChildProcess child;
    if (!child.Start(args, childOptions)) {
        return false;
    }
    outFd_ = child.TakeOutFd();
    errFd_ = child.TakeErrFd();
    pid_t pid = child.Release(); /* reaped here, by Reap */
    childPid_ = pid;
    serverPid_ = pid;
    pump_ = std::thread(&ServerProcess::Pump, this);

    if (options_.asGroupLeader) {
        launcherExit_ = Reap(childPid_, 10000);
        if (launcherExit_ == kNotExited) {
            return false;
        }
        serverPid_ = -1;
    }
    return true;
}

bool ServerProcess::WaitReady(int timeoutMs) {
    std::string sock = root_.Path("/tmp/lapisock");
    auto deadline = Deadline(timeoutMs);
    for (;;) {
        int fd = ConnectUnix(sock);
        if (fd >= 0) {
            close(fd);
            if (options_.asGroupLeader && serverPid_ <= 0) {
                serverPid_ = ReadPidFile(root_.Path("/tmp/lapi.pid"));
            }
            return true;
        }
        if (serverPid_ > 0 && !Running()) {
            return false;
        }
        if (MsLeft(deadline) == 0) {
            return false;
        }
        SleepMs(10);
    }
}

bool ServerProcess::StartAndWaitReady(int timeoutMs) {
    if (!Start()) {
        return false;
    }
    if (options_.asGroupLeader && launcherExit_ != 0) {
        return false;
    }
    return WaitReady(timeoutMs);
}

int ServerProcess::Reap(pid_t pid, int timeoutMs) {
    auto deadline = Deadline(timeoutMs);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            return ExitCodeOf(status);
        }
        if (r < 0 && errno != EINTR) {
            return kNotExited;
        }
        if (MsLeft(deadline) == 0) {
            return kNotExited;
        }
        SleepMs(2);
    }
}

int ServerProcess::WaitExit(int timeoutMs) {
    if (serverExit_ != kNotExited || serverPid_ <= 0) {
        return serverExit_;
    }
    serverExit_ = Reap(serverPid_, timeoutMs);
    if (serverExit_ != kNotExited) {
        /* Whatever it wrote before exiting is in the captured lines. */
        WaitOutputClosed(2000);
    }
    return serverExit_;
}

bool ServerProcess::Running() {
    return serverPid_ > 0 && WaitExit(0) == kNotExited;
}

namespace {

/* True when the process is blocked in select (or the pselect6 that glibc
 * uses for it). */
bool InSelect(pid_t pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/syscall", static_cast<int>(pid));
    FILE *f = fopen(path, "re");
    if (f == nullptr) {
        return false;
    }
    long nr = -1;
    int got = fscanf(f, "%ld", &nr);
    fclose(f);
    if (got != 1) {
        return false;
    }
    if (toolcommon::TestEmulator() != nullptr) {
        /* The emulator makes the host's system calls, whose numbers are not
         * this build's: any call the single-threaded server sleeps in is
         * its select. */
        return nr >= 0;
    }
#ifdef SYS_select
    if (nr == SYS_select) {
        return true;
    }
#endif
    return nr == SYS_pselect6;
}

}  // namespace

bool ServerProcess::WaitIdle(int timeoutMs) {
    if (!Running()) {
        return false;
    }
    /* The server handles a signal from inside its handler (clean-up and
     * exit); if the signal lands while the loop is inside malloc, the
     * handler's own frees can deadlock. So signal it only while it waits:
     * in select twice in a row, with no new diagnostic line in between. */
    auto deadline = Deadline(timeoutMs);
    while (MsLeft(deadline) > 0) {
        if (InSelect(serverPid_)) {
            size_t lines = LineCount(Stream::Stderr);
            SleepMs(10);
            if (InSelect(serverPid_) && LineCount(Stream::Stderr) == lines) {
                return true;
            }
        } else {
            SleepMs(1);
        }
    }
    return false;
}

bool ServerProcess::Signal(int sig) {
    if (!Running()) {
        return false;
    }
    WaitIdle();
    return kill(serverPid_, sig) == 0;
}

int ServerProcess::Stop(int timeoutMs) {
    if (serverPid_ <= 0) {
        return serverExit_;
    }
    if (serverExit_ != kNotExited) {
        return serverExit_;
    }
    WaitIdle();
    kill(serverPid_, SIGTERM);
    int code = WaitExit(timeoutMs);
    if (code == kNotExited) {
        kill(serverPid_, SIGKILL);
        code = WaitExit(5000);
    }
    return code;
}

void ServerProcess::AddBytes(int which, const char *data, size_t len) {
    std::lock_guard<std::mutex> lock(mu_);
    std::string &part = partial_[which];
    part.append(data, len);
    size_t start = 0;
    for (;;) {
        size_t nl = part.find('\n', start);
        if (nl == std::string::npos) {
            break;
        }
        lines_[which].push_back(part.substr(start, nl - start));
        start = nl + 1;
    }
    part.erase(0, start);
    cv_.notify_all();
}

void ServerProcess::FlushPartial(int which) {
    std::lock_guard<std::mutex> lock(mu_);
    if (!partial_[which].empty()) {
        lines_[which].push_back(partial_[which]);
        partial_[which].clear();
    }
    eof_[which] = true;
    cv_.notify_all();
}

void ServerProcess::Pump() {
    int fds[2] = {outFd_, errFd_};
    bool open[2] = {true, true};
    while ((open[0] || open[1]) && !stopPump_) {
        struct pollfd pfd[2];
        int n = 0;
        int which[2];
        for (int i = 0; i < 2; ++i) {
            if (open[i]) {
                pfd[n] = {fds[i], POLLIN, 0};
                which[n] = i;
                ++n;
            }
        }
        int r = poll(pfd, static_cast<nfds_t>(n), 200);
        if (r < 0 && errno != EINTR) {
            break;
        }
        for (int k = 0; k < n && r > 0; ++k) {
            if (pfd[k].revents == 0) {
                continue;
            }
            char buf[4096];
            ssize_t got = read(pfd[k].fd, buf, sizeof(buf));
            if (got > 0) {
                AddBytes(which[k], buf, static_cast<size_t>(got));
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                open[which[k]] = false;
                FlushPartial(which[k]);
            }
        }
    }
    for (int i = 0; i < 2; ++i) {
        if (open[i]) {
            FlushPartial(i);
        }
    }
}

std::vector<std::string> ServerProcess::Lines(Stream stream) const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_[stream == Stream::Stdout ? 0 : 1];
}

size_t ServerProcess::LineCount(Stream stream) const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_[stream == Stream::Stdout ? 0 : 1].size();
}

std::string ServerProcess::Text(Stream stream) const {
    std::lock_guard<std::mutex> lock(mu_);
    int i = stream == Stream::Stdout ? 0 : 1;
    std::string out;
    for (const auto &l : lines_[i]) {
        out += l;
        out += '\n';
    }
    out += partial_[i];
    return out;
}

std::vector<std::string> ServerProcess::ErrorMessages() const {
    return DiagMessages(StderrLines(), true);
}

std::vector<std::string> ServerProcess::TraceMessages() const {
    return DiagMessages(StderrLines(), false);
}

size_t ServerProcess::CountErrors(const std::string &message) const {
    size_t n = 0;
    for (const auto &m : ErrorMessages()) {
        n += m == message ? 1 : 0;
    }
    return n;
}

size_t ServerProcess::CountTraces(const std::string &message) const {
    size_t n = 0;
    for (const auto &m : TraceMessages()) {
        n += m == message ? 1 : 0;
    }
    return n;
}

bool ServerProcess::WaitOutputClosed(int timeoutMs) {
    if (childPid_ <= 0) {
        return false;
    }
    auto deadline = Deadline(timeoutMs);
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_until(lock, deadline, [this] { return eof_[0] && eof_[1]; });
}

long ServerProcess::WaitForLine(Stream stream,
                                const std::function<bool(const std::string &)> &match,
                                int timeoutMs, size_t from) {
    int i = stream == Stream::Stdout ? 0 : 1;
    auto deadline = Deadline(timeoutMs);
    std::unique_lock<std::mutex> lock(mu_);
    size_t next = from;
    for (;;) {
        for (; next < lines_[i].size(); ++next) {
            if (match(lines_[i][next])) {
                return static_cast<long>(next);
            }
        }
        if (eof_[i] || Clock::now() >= deadline) {
            return -1;
        }
        cv_.wait_until(lock, deadline);
    }
}

long ServerProcess::WaitForLineContaining(Stream stream, const std::string &substr, int timeoutMs,
                                          size_t from) {
    return WaitForLine(
        stream, [&](const std::string &l) { return l.find(substr) != std::string::npos; },
        timeoutMs, from);
}

namespace {
std::function<bool(const std::string &)> DiagMatcher(bool isError, const std::string &text,
                                                     bool whole) {
    return [isError, text, whole](const std::string &l) {
        DiagLine d;
        if (!ParseDiagLine(l, &d) || d.isError != isError) {
            return false;
        }
        return whole ? d.message == text : d.message.find(text) != std::string::npos;
    };
}
}  // namespace

bool ServerProcess::WaitForError(const std::string &text, int timeoutMs, size_t from) {
    return WaitForLine(Stream::Stderr, DiagMatcher(true, text, true), timeoutMs, from) >= 0;
}

bool ServerProcess::WaitForTrace(const std::string &text, int timeoutMs, size_t from) {
    return WaitForLine(Stream::Stderr, DiagMatcher(false, text, true), timeoutMs, from) >= 0;
}

bool ServerProcess::WaitForErrorContaining(const std::string &substr, int timeoutMs, size_t from) {
    return WaitForLine(Stream::Stderr, DiagMatcher(true, substr, false), timeoutMs, from) >= 0;
}

bool ServerProcess::WaitForTraceContaining(const std::string &substr, int timeoutMs, size_t from) {
    return WaitForLine(Stream::Stderr, DiagMatcher(false, substr, false), timeoutMs, from) >= 0;
}

/* ------------------------------------------------------------------------ */
/* Free helpers                                                              */
/* ------------------------------------------------------------------------ */

int BindUdpPort(int port) {
    return toolcommon::BindUdpPort(port);
}

int PickFreeUdpPort() {
    return toolcommon::FreeUdpPort();
}

int ConnectUnix(const std::string &path) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        return -1;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int r;
    do {
        r = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::vector<uint8_t> RecvPending(int fd) {
    std::vector<uint8_t> out;
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0) {
            break;
        }
        out.insert(out.end(), buf, buf + n);
    }
    return out;
}

pid_t ReadPidFile(const std::string &path) {
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr) {
        return 0;
    }
    int pid = 0;
    if (fscanf(f, "%d", &pid) != 1) {
        pid = 0;
    }
    fclose(f);
    return pid;
}

bool ProcessAlive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

pid_t DeadPid() {
    pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
    return pid;
}

bool ProcessMaps(pid_t pid, const std::string &name) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find(name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

int64_t NowMs() {
    return toolcommon::NowMs();
}

std::string EmulatorPrefix() {
    const char *pEmulator = toolcommon::TestEmulator();
    return pEmulator != nullptr ? std::string(pEmulator) + " " : std::string();
}

std::vector<char *> UnderEmulator(std::vector<char *> argv) {
    if (const char *pEmulator = toolcommon::TestEmulator()) {
        argv.insert(argv.begin(), const_cast<char *>(pEmulator));
    }
    return argv;
}

}  // namespace lapitest
