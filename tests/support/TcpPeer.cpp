#include "TcpPeer.h"

#include "ToolCommon.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace lapitest {

int ListenLoopback(uint16_t *pPort, int rcvBuf) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (rcvBuf > 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvBuf, sizeof(rcvBuf));
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || listen(fd, 64) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        close(fd);
        return -1;
    }
    *pPort = ntohs(addr.sin_port);
    return fd;
}

TcpPeer::TcpPeer(Mode mode) : mode_(mode) {
    listenFd_ = ListenLoopback(&port_, mode == Mode::Sink ? kSinkRcvBuf : 0);
    if (listenFd_ < 0 || pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        port_ = 0;
        return;
    }
    thread_ = std::thread([this] { Run(); });
}

TcpPeer::~TcpPeer() {
    stop_ = true;
    if (wake_[1] >= 0) {
        (void)!write(wake_[1], "x", 1);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    for (int fd : conns_) {
        close(fd);
    }
    for (int fd : {listenFd_, wake_[0], wake_[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void TcpPeer::Pause(bool paused) {
    paused_ = paused;
    (void)!write(wake_[1], "x", 1);
}

bool TcpPeer::Send(const std::vector<uint8_t> &bytes) {
    std::vector<int> conns;
    {
        std::lock_guard<std::mutex> lock(mu_);
        conns = conns_;
    }
    bool ok = !conns.empty();
    for (int fd : conns) {
        ok = toolcommon::WriteAll(fd, bytes.data(), bytes.size()) && ok;
    }
    return ok;
}

void TcpPeer::CloseConnections() {
    std::lock_guard<std::mutex> lock(mu_);
    for (int fd : conns_) {
        shutdown(fd, SHUT_RDWR);
    }
}

size_t TcpPeer::OpenConnections() const {
    std::lock_guard<std::mutex> lock(mu_);
    return conns_.size();
}

std::vector<uint8_t> TcpPeer::Received() const {
    std::lock_guard<std::mutex> lock(mu_);
    return received_;
}

bool TcpPeer::WaitReceived(size_t n, int timeoutMs) const {
    return toolcommon::PollUntil([&] { return Received().size() >= n; }, timeoutMs, 2);
}

bool TcpPeer::WaitAccepted(size_t n, int timeoutMs) const {
    return toolcommon::PollUntil([&] { return Accepted() >= n; }, timeoutMs, 2);
}

bool TcpPeer::WaitAllClosed(int timeoutMs) const {
    return toolcommon::PollUntil([&] { return OpenConnections() == 0; }, timeoutMs, 2);
}

void TcpPeer::Run() {
    while (!stop_) {
        std::vector<pollfd> fds;
        fds.push_back({listenFd_, POLLIN, 0});
        fds.push_back({wake_[0], POLLIN, 0});
        std::vector<int> conns;
        {
            std::lock_guard<std::mutex> lock(mu_);
            conns = conns_;
        }
        if (!(mode_ == Mode::Sink && paused_)) {
            for (int fd : conns) {
                fds.push_back({fd, POLLIN, 0});
            }
        }
        if (poll(fds.data(), fds.size(), 200) <= 0) {
            continue;
        }
        if (fds[1].revents != 0) {
            char buf[64];
            while (read(wake_[0], buf, sizeof(buf)) > 0) {
            }
        }
        if (fds[0].revents & POLLIN) {
            int c = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                accepted_++;
                if (mode_ == Mode::CloseAtOnce) {
                    close(c);
                } else {
                    std::lock_guard<std::mutex> lock(mu_);
                    conns_.push_back(c);
                }
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            uint8_t buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                {
                    std::lock_guard<std::mutex> lock(mu_);
                    received_.insert(received_.end(), buf, buf + n);
                }
                if (mode_ == Mode::Echo) {
                    toolcommon::WriteAll(fds[i].fd, buf, static_cast<size_t>(n));
                }
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                std::lock_guard<std::mutex> lock(mu_);
                conns_.erase(std::remove(conns_.begin(), conns_.end(), fds[i].fd), conns_.end());
                close(fds[i].fd);
            }
        }
    }
}

uint16_t RefusedPort() {
    uint16_t port = 0;
    int fd = ListenLoopback(&port);
    if (fd < 0) {
        return 0;
    }
    close(fd);
    return port;
}

size_t OpenFdCount() {
    return OpenFdCountOf(-1);
}

size_t OpenFdCountOf(int pid) {
    int n = toolcommon::CountOpenFds(pid < 0 ? getpid() : pid);
    return n < 0 ? 0 : static_cast<size_t>(n);
}

}  // namespace lapitest
