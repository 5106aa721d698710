/*
 * A TCP server on 127.0.0.1 for the network proxy's tests: it listens on a
 * free port chosen by the kernel and serves every connection on its own
 * thread in one of these ways:
 *   Echo       - sends back whatever it receives;
 *   CloseAtOnce - accepts and closes the connection at once;
 *   Sink       - reads and keeps what it receives, sends nothing; while
 *                paused it reads nothing, so the sender's buffers fill up.
 * Everything received and the number of connections accepted can be
 * inspected; Send() writes to every open connection.
 *
 * RefusedPort() gives a port of 127.0.0.1 on which nothing listens.
 */
#ifndef LAPITEST_TCPPEER_H
#define LAPITEST_TCPPEER_H

#include <stdint.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace lapitest {

class TcpPeer {
  public:
    enum class Mode { Echo, CloseAtOnce, Sink };

    explicit TcpPeer(Mode mode);
    ~TcpPeer();
    TcpPeer(const TcpPeer &) = delete;
    TcpPeer &operator=(const TcpPeer &) = delete;

    bool ok() const { return port_ != 0; }
    uint16_t Port() const { return port_; }

    /* Sink only: stop / resume reading. */
    void Pause(bool paused);
    /* Sends bytes on every open connection (blocking until written). */
    bool Send(const std::vector<uint8_t> &bytes);
    /* Closes every open connection from this side. */
    void CloseConnections();

    size_t Accepted() const { return accepted_.load(); }
    size_t OpenConnections() const;
    /* Bytes received on all connections, in arrival order. */
    std::vector<uint8_t> Received() const;
    /* Waits until at least n bytes were received; false on time-out. */
    bool WaitReceived(size_t n, int timeoutMs) const;
    bool WaitAccepted(size_t n, int timeoutMs) const;
    /* Waits until every accepted connection was closed by its peer. */
    bool WaitAllClosed(int timeoutMs) const;

    /* The small receive buffer of a Sink, so that it fills quickly. */
    static constexpr int kSinkRcvBuf = 4096;

  private:
    void Run();

    Mode mode_;
    int listenFd_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> paused_{false};
    std::atomic<size_t> accepted_{0};
    mutable std::mutex mu_;
    std::vector<int> conns_;
    std::vector<uint8_t> received_;
};

/* A listening socket on 127.0.0.1 (port chosen by the kernel, *pPort);
 * connections complete in its backlog, nobody accepts them. rcvBuf > 0: the
 * receive buffer of every accepted connection, set before listen so that the
 * window is negotiated with it from the start. The descriptor or -1. */
int ListenLoopback(uint16_t *pPort, int rcvBuf = 0);

/* A port of 127.0.0.1 on which nothing listens (bound once, then closed). */
uint16_t RefusedPort();

/* Descriptors this process holds open (entries of /proc/self/fd). */
size_t OpenFdCount();
/* Descriptors another process holds open (entries of /proc/PID/fd). */
size_t OpenFdCountOf(int pid);

}  // namespace lapitest

#endif /* LAPITEST_TCPPEER_H */
