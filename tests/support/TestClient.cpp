#include "TestClient.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>

#include <chrono>
#include <utility>

namespace lapitest {

namespace {

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point deadline) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

void Pause10ms() {
    struct timespec ts = {0, 10 * 1000 * 1000};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // namespace

Bytes Message::Raw() const {
    Bytes raw = MakeMsg(msgId, body, pid, msgLen);
    return raw;
}

Bytes MakeMsg(uint16_t msgId, const Bytes &body, uint32_t pid, std::optional<uint16_t> msgLen) {
    MsgHeader h;
    h.pid = pid;
    h.msgId = msgId;
    h.msgLen = msgLen ? *msgLen : static_cast<uint16_t>(body.size());
    Bytes out(sizeof(h) + body.size());
    std::memcpy(out.data(), &h, sizeof(h));
    if (!body.empty()) {
        std::memcpy(out.data() + sizeof(h), body.data(), body.size());
    }
    return out;
}

Bytes U32Body(uint32_t v) {
    return ToBytes(v);
}

uint32_t DefaultPid() {
    return static_cast<uint32_t>(getpid());
}

/* ---------------------------------------------------------------------- */

Connection::~Connection() {
    Close();
}

Connection::Connection(Connection &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), eof_(other.eof_), buf_(std::move(other.buf_)) {}

Connection &Connection::operator=(Connection &&other) noexcept {
    if (this != &other) {
        Close();
        fd_ = std::exchange(other.fd_, -1);
        eof_ = other.eof_;
        buf_ = std::move(other.buf_);
    }
    return *this;
}

void Connection::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    eof_ = false;
    buf_.clear();
}

void Connection::Adopt(int fd) {
    Close();
    fd_ = fd;
}

bool Connection::Connect(const std::string &root, int timeoutMs) {
    Close();
    std::string path = root + "/tmp/lapisock";
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return false;
        }
        if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0) {
            fd_ = fd;
            return true;
        }
        int err = errno;
        close(fd);
        if ((err != ENOENT && err != ECONNREFUSED && err != EAGAIN && err != EINTR) ||
            MsLeft(deadline) == 0) {
            return false;
        }
        Pause10ms();
    }
}

bool Connection::SendMsg(uint16_t msgId, const Bytes &body, uint32_t pid) {
    return SendRaw(MakeMsg(msgId, body, pid));
}

bool Connection::SendRaw(const Bytes &bytes) {
    return SendRaw(bytes.data(), bytes.size());
}

bool Connection::SendRaw(const void *p, size_t n) {
    if (fd_ < 0) {
        return false;
    }
    const uint8_t *q = static_cast<const uint8_t *>(p);
    while (n > 0) {
        ssize_t w = send(fd_, q, n, MSG_NOSIGNAL);
        if (w < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        q += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

int Connection::Fill(int timeoutMs) {
    if (fd_ < 0 || eof_) {
        return -1;
    }
    struct pollfd pfd = {fd_, POLLIN, 0};
    int r = poll(&pfd, 1, timeoutMs);
    if (r < 0) {
        return errno == EINTR ? 0 : -1;
    }
    if (r == 0) {
        return 0;
    }
    uint8_t tmp[4096];
    ssize_t got = recv(fd_, tmp, sizeof(tmp), MSG_DONTWAIT);
    if (got > 0) {
        buf_.insert(buf_.end(), tmp, tmp + got);
        return 1;
    }
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return 0;
    }
    eof_ = true;
    return -1;
}

std::optional<Message> Connection::TakeMsg() {
    if (buf_.size() < sizeof(MsgHeader)) {
        return std::nullopt;
    }
    MsgHeader h;
    std::memcpy(&h, buf_.data(), sizeof(h));
    size_t total = sizeof(h) + h.msgLen;
    if (buf_.size() < total) {
        return std::nullopt;
    }
    Message m;
    m.pid = h.pid;
    m.msgId = h.msgId;
    m.msgLen = h.msgLen;
    m.body.assign(buf_.begin() + sizeof(h), buf_.begin() + static_cast<long>(total));
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(total));
    return m;
}

std::optional<Message> Connection::RecvMsg(int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (auto m = TakeMsg()) {
            return m;
        }
        int left = MsLeft(deadline);
        int r = Fill(left);
        if (r < 0) {
            return TakeMsg();
        }
        if (r == 0 && left == 0) {
            return std::nullopt;
        }
    }
}

bool Connection::IsClosedByPeer(int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (fd_ < 0) {
            return false;
        }
        if (eof_) {
            return true;
        }
        int left = MsLeft(deadline);
        int r = Fill(left);
        if (r < 0) {
            return eof_;
        }
        if (r == 0 && left == 0) {
            return false;
        }
    }
}

bool Connection::StaysSilent(int windowMs) {
    size_t before = buf_.size();
    auto deadline = Clock::now() + std::chrono::milliseconds(windowMs);
    for (;;) {
        int left = MsLeft(deadline);
        if (left == 0) {
            return buf_.size() == before && !eof_;
        }
        int r = Fill(left);
        if (r != 0) {
            return false;
        }
    }
}

/* ---------------------------------------------------------------------- */

TestClient::TestClient(std::string root, uint32_t pid) : root_(std::move(root)), pid_(pid) {}

std::optional<uint32_t> TestClient::Register(uint32_t service, int timeoutMs) {
    if (!sync_.Connect(root_, timeoutMs)) {
        return std::nullopt;
    }
    if (!sync_.SendMsg(LAPI_REGISTER_REQ, U32Body(service), pid_)) {
        return std::nullopt;
    }
    auto rsp = sync_.RecvMsg(timeoutMs);
    if (!rsp || rsp->msgId != LAPI_REGISTER_RSP || rsp->msgLen != LAPI_REGISTER_RSP_LEN) {
        return std::nullopt;
    }
    globalId_ = rsp->BodyField<uint32_t>(0);
    return globalId_;
}

bool TestClient::AttachAsync(uint32_t globalId, int timeoutMs) {
    if (!async_.Connect(root_, timeoutMs)) {
        return false;
    }
    if (!async_.SendMsg(LAPI_GET_ASYNC_FD_REQ, U32Body(globalId), pid_)) {
        return false;
    }
    auto rsp = async_.RecvMsg(timeoutMs);
    return rsp && rsp->msgId == LAPI_GET_ASYNC_FD_RSP && rsp->msgLen == LAPI_GET_ASYNC_FD_RSP_LEN;
}

bool TestClient::Handshake(uint32_t service, int timeoutMs) {
    auto id = Register(service, timeoutMs);
    return id && AttachAsync(*id, timeoutMs);
}

}  // namespace lapitest
