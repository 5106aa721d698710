/*
 * A scripted stand-in for the location server, for tests of the client
 * library and of the lapi tool: it listens on a Unix socket in a fresh
 * temporary folder and runs a test's script in a thread of its own. Every
 * wait has a deadline, so a wrong script fails the test instead of hanging.
 */
#ifndef LAPITEST_FAKESERVER_H
#define LAPITEST_FAKESERVER_H

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LAPI_Msg.h"
#include "TestClient.h"
#include "ToolCommon.h"

namespace lapifake {

using Bytes = std::vector<uint8_t>;

using lapitest::ToBytes;

/* A zeroed message with its header set (pid 0, as the server sends). */
template <typename T>
T Make(uint16_t msgId) {
    T m;
    memset(&m, 0, sizeof(m));
    m.header.msgId = msgId;
    m.header.msgLen = static_cast<uint16_t>(sizeof(T) - LAPI_MSG_HEADER_LEN);
    return m;
}

inline bool WaitReadable(int fd, int timeoutMs) {
    struct pollfd p = {fd, POLLIN, 0};
    int rc;
    do {
        rc = poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

/* Reads exactly n bytes; false on end of stream, error or timeout. */
inline bool ReadExact(int fd, void *buf, size_t n, int timeoutMs = 5000) {
    uint8_t *p = static_cast<uint8_t *>(buf);
    while (n > 0) {
        if (!WaitReadable(fd, timeoutMs)) {
            return false;
        }
        ssize_t r = read(fd, p, n);
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            return false;
        }
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

using toolcommon::WriteAll;

inline bool WriteBytes(int fd, const Bytes &b) {
    return WriteAll(fd, b.data(), b.size());
}

template <typename T>
bool WriteMsg(int fd, const T &m) {
    return WriteAll(fd, &m, sizeof(m));
}

/* One whole client message: the header, then msgLen body bytes. */
struct ClientMsg {
    MsgHeader header;
    Bytes body;
    template <typename T>
    T As() const {
        T m;
        memset(&m, 0, sizeof(m));
        memcpy(&m, &header, sizeof(header));
        memcpy(reinterpret_cast<uint8_t *>(&m) + sizeof(header), body.data(),
               body.size() < sizeof(T) - sizeof(header) ? body.size() : sizeof(T) - sizeof(header));
        return m;
    }
};

inline bool ReadMsg(int fd, ClientMsg *pMsg, int timeoutMs = 5000) {
    if (!ReadExact(fd, &pMsg->header, sizeof(pMsg->header), timeoutMs)) {
        return false;
    }
    pMsg->body.assign(pMsg->header.msgLen, 0);
    return pMsg->body.empty() || ReadExact(fd, pMsg->body.data(), pMsg->body.size(), timeoutMs);
}

class FakeServer {
  public:
    FakeServer() {
        char tmpl[] = "/tmp/lfsXXXXXX";
        if (mkdtemp(tmpl) != nullptr) {
            dir_ = tmpl;
            path_ = dir_ + "/sock";
        }
        listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un addr;
        memset(&addr, 0, sizeof(addr));
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
        ok_ = !dir_.empty() && listenFd_ >= 0 &&
              bind(listenFd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0 &&
              listen(listenFd_, 8) == 0;
    }
    ~FakeServer() {
        Join();
        CloseAll();
        if (listenFd_ >= 0) {
            close(listenFd_);
        }
        if (!path_.empty()) {
            unlink(path_.c_str());
        }
        if (!dir_.empty()) {
            rmdir(dir_.c_str());
        }
    }
    FakeServer(const FakeServer &) = delete;
    FakeServer &operator=(const FakeServer &) = delete;

    bool Ok() const { return ok_; }
    const std::string &Path() const { return path_; }
    const std::string &Dir() const { return dir_; }

    /* Runs script(*this) in a thread; Join waits for it. */
    void Start(std::function<void(FakeServer &)> script) {
        thread_ = std::thread([this, script]() { script(*this); });
    }
    void Join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    /* Accepts one connection; -1 when none came in time. The descriptor
     * is closed by the destructor unless the script closes it first with
     * Close. */
    int Accept(int timeoutMs = 5000) {
        if (!WaitReadable(listenFd_, timeoutMs)) {
            return -1;
        }
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            std::lock_guard<std::mutex> lock(mutex_);
            fds_.push_back(fd);
        }
        return fd;
    }
    /* Accepts one connection and reads one request of type T from it into
     * *pReq; the descriptor, or -1 when either does not come. */
    template <typename T>
    int AcceptRequest(T *pReq) {
        int fd = Accept();
        return fd >= 0 && ReadExact(fd, pReq, sizeof(*pReq)) ? fd : -1;
    }
    void Close(int fd) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int &f : fds_) {
            if (f == fd) {
                close(f);
                f = -1;
            }
        }
    }
    void CloseAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int &f : fds_) {
            if (f >= 0) {
                close(f);
                f = -1;
            }
        }
    }

    /* The server's side of the handshake: registerReq on the first
     * connection answered with globalId, getAsyncFdReq on the second
     * answered with getAsyncFdRsp. */
    bool Handshake(uint32_t globalId, int *pSync, int *pAsync, RegisterReq *pReg = nullptr,
                   GetAsyncFdReq *pAsyncReq = nullptr) {
        RegisterReq reg;
        int syncFd = AcceptRequest(&reg);
        if (syncFd < 0) {
            return false;
        }
        RegisterRsp rsp = Make<RegisterRsp>(LAPI_REGISTER_RSP);
        rsp.globalId = globalId;
        if (!WriteMsg(syncFd, rsp)) {
            return false;
        }
        GetAsyncFdReq areq;
        int asyncFd = AcceptRequest(&areq);
        if (asyncFd < 0) {
            return false;
        }
        if (!WriteMsg(asyncFd, Make<GetAsyncFdRsp>(LAPI_GET_ASYNC_FD_RSP))) {
            return false;
        }
        if (pReg != nullptr) {
            *pReg = reg;
        }
        if (pAsyncReq != nullptr) {
            *pAsyncReq = areq;
        }
        *pSync = syncFd;
        *pAsync = asyncFd;
        return true;
    }

  private:
    bool ok_ = false;
    std::string dir_;
    std::string path_;
    int listenFd_ = -1;
    std::mutex mutex_;
    std::vector<int> fds_;
    std::thread thread_;
};

}  // namespace lapifake

#endif /* LAPITEST_FAKESERVER_H */
