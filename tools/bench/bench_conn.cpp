#include "bench_conn.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "LAPI_Msg.h"

namespace bench {

namespace {

constexpr size_t kReadChunk = 4096;

std::string ErrnoText(const char *what) {
    return std::string(what) + ": " + strerror(errno);
}

/* Milliseconds left until deadlineNs, at least 0. */
int LeftMs(int64_t deadlineNs) {
    int64_t left = deadlineNs - NowNs();
    return left <= 0 ? 0 : static_cast<int>((left + 999999) / 1000000);
}

}  // namespace

int64_t NowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

Conn::Conn(Conn &&other) noexcept
    : fd_(other.fd_), buf_(std::move(other.buf_)), start_(other.start_), end_(other.end_) {
    other.fd_ = -1;
    other.start_ = other.end_ = 0;
}

Conn &Conn::operator=(Conn &&other) noexcept {
    if (this != &other) {
        Close();
        fd_ = other.fd_;
        buf_ = std::move(other.buf_);
        start_ = other.start_;
        end_ = other.end_;
        other.fd_ = -1;
        other.start_ = other.end_ = 0;
    }
    return *this;
}

bool Conn::Connect(const std::string &path, std::string *err) {
    Close();
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        *err = "socket path too long: " + path;
        return false;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *err = ErrnoText("socket");
        return false;
    }
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        *err = ErrnoText(("connect " + path).c_str());
        close(fd);
        return false;
    }
    /* Non-blocking after the connect: a full listen backlog then blocks the
     * connect briefly instead of failing it. */
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    fd_ = fd;
    buf_.assign(kReadChunk * 2, 0);
    start_ = end_ = 0;
    return true;
}

void Conn::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    start_ = end_ = 0;
}

bool Conn::SendAll(const void *p, size_t n, int timeoutMs, std::string *err) {
    const uint8_t *b = static_cast<const uint8_t *>(p);
    int64_t deadline = NowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    while (n > 0) {
        ssize_t w = send(fd_, b, n, MSG_NOSIGNAL);
        if (w > 0) {
            b += w;
            n -= static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w < 0 && errno != EAGAIN) {
            *err = ErrnoText("send");
            return false;
        }
        int left = LeftMs(deadline);
        if (left == 0) {
            *err = "send: the peer takes nothing (timeout)";
            return false;
        }
        struct pollfd pfd = {fd_, POLLOUT, 0};
        if (poll(&pfd, 1, left) < 0 && errno != EINTR) {
            *err = ErrnoText("poll");
            return false;
        }
    }
    return true;
}

int Conn::ReadAvailable(std::string *err) {
    int got = 0;
    for (;;) {
        if (start_ == end_) {
            start_ = end_ = 0;
        } else if (buf_.size() - end_ < kReadChunk && start_ > 0) {
            memmove(buf_.data(), buf_.data() + start_, end_ - start_);
            end_ -= start_;
            start_ = 0;
        }
        if (buf_.size() - end_ < kReadChunk) {
            buf_.resize(buf_.size() * 2);
        }
        ssize_t r = recv(fd_, buf_.data() + end_, buf_.size() - end_, 0);
        if (r > 0) {
            end_ += static_cast<size_t>(r);
            got = 1;
            continue;
        }
        if (r == 0) {
            *err = "connection closed by the peer";
            return -1;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN) {
            return got;
        }
        *err = ErrnoText("recv");
        return -1;
    }
}

bool Conn::Take(Msg *out) {
    size_t avail = end_ - start_;
    if (avail < LAPI_MSG_HEADER_LEN) {
        return false;
    }
    const uint8_t *h = buf_.data() + start_;
    MsgHeader hdr;
    memcpy(&hdr, h, sizeof(hdr));
    if (avail < LAPI_MSG_HEADER_LEN + static_cast<size_t>(hdr.msgLen)) {
        return false;
    }
    out->pid = hdr.pid;
    out->msgId = hdr.msgId;
    out->msgLen = hdr.msgLen;
    out->body = h + LAPI_MSG_HEADER_LEN;
    start_ += LAPI_MSG_HEADER_LEN + hdr.msgLen;
    return true;
}

bool Conn::WaitMsg(Msg *out, int timeoutMs, std::string *err) {
    int64_t deadline = NowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    for (;;) {
        if (Take(out)) {
            return true;
        }
        int left = LeftMs(deadline);
        if (left == 0) {
            *err = "no answer within " + std::to_string(timeoutMs) + " ms";
            return false;
        }
        struct pollfd pfd = {fd_, POLLIN, 0};
        int n = poll(&pfd, 1, left);
        if (n < 0 && errno != EINTR) {
            *err = ErrnoText("poll");
            return false;
        }
        if (n < 0) {
            *err = "interrupted";
            return false;
        }
        if (n > 0 && ReadAvailable(err) < 0) {
            return Take(out); /* a message that came just before the close */
        }
    }
}

std::vector<uint8_t> MakeClientMsg(uint16_t msgId, const void *body, size_t len, uint32_t pid) {
    MsgHeader hdr;
    hdr.pid = pid;
    hdr.msgId = msgId;
    hdr.msgLen = static_cast<uint16_t>(len);
    std::vector<uint8_t> out(sizeof(hdr) + len);
    memcpy(out.data(), &hdr, sizeof(hdr));
    if (len > 0) {
        memcpy(out.data() + sizeof(hdr), body, len);
    }
    return out;
}

namespace {

/* One step of the handshake on a connected conn: the request reqId with its
 * 4-byte body, then its answer, which must be rspId with msgLen rspLen. The
 * errors name the request (reqName) or its answer (rspName). */
bool HandshakeStep(Conn &conn, uint16_t reqId, const char *reqName, uint32_t body, uint32_t pid,
                   uint16_t rspId, uint16_t rspLen, const char *rspName, int timeoutMs, Msg *m,
                   std::string *err) {
    std::vector<uint8_t> req = MakeClientMsg(reqId, &body, sizeof(body), pid);
    if (!conn.SendAll(req.data(), req.size(), timeoutMs, err)) {
        *err = std::string(reqName) + ": " + *err;
        return false;
    }
    if (!conn.WaitMsg(m, timeoutMs, err)) {
        *err = std::string(rspName) + ": " + *err;
        return false;
    }
    if (m->msgId != rspId || m->msgLen != rspLen) {
        *err = std::string(reqName) + " answered with msgId " + std::to_string(m->msgId) +
               ", msgLen " + std::to_string(m->msgLen);
        return false;
    }
    return true;
}

}  // namespace

bool Handshake(const std::string &sockPath, uint32_t service, uint32_t pid, BenchClient *c,
               int timeoutMs, std::string *err) {
    Msg m;
    if (!c->sync.Connect(sockPath, err) ||
        !HandshakeStep(c->sync, LAPI_REGISTER_REQ, "registerReq", service, pid, LAPI_REGISTER_RSP,
                       LAPI_REGISTER_RSP_LEN, "registerRsp", timeoutMs, &m, err)) {
        return false;
    }
    memcpy(&c->globalId, m.body, sizeof(c->globalId));
    return c->async.Connect(sockPath, err) &&
           HandshakeStep(c->async, LAPI_GET_ASYNC_FD_REQ, "getAsyncFdReq", c->globalId, pid,
                         LAPI_GET_ASYNC_FD_RSP, LAPI_GET_ASYNC_FD_RSP_LEN, "getAsyncFdRsp",
                         timeoutMs, &m, err);
}

/* getLocationReq: single fix, mode sync, pair (1, tid), this process's pid. */
std::vector<uint8_t> LocationReq(uint8_t tid) {
    GetLocationReq req;
    memset(&req, 0, sizeof(req));
    req.header.pid = static_cast<uint32_t>(getpid());
    req.header.msgId = LAPI_GET_LOCATION_REQ;
    req.header.msgLen = LAPI_GET_LOCATION_REQ_LEN;
    req.mode = LAPI_MODE_SYNC;
    req.sessionId = 1;
    req.transactionId = tid;
    req.responseTime = 30000;
    req.horizontalAccuracy = 50;
    req.verticalAccuracy = 50;
    req.reportCriteria = 0; /* single fix */
    std::vector<uint8_t> out(sizeof(req));
    memcpy(out.data(), &req, sizeof(req));
    return out;
}

}  // namespace bench
