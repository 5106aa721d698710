/*
 * A raw client of the location server's local socket, for integration
 * tests: it speaks the wire protocol byte by byte (no client library), so a
 * test can send well-formed, malformed, merged or split messages and read
 * back exactly what the server wrote.
 *
 * Every wait is a poll() with a deadline; nothing sleeps.
 */
#ifndef LAPITEST_TESTCLIENT_H
#define LAPITEST_TESTCLIENT_H

#include <stdint.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "LAPI_Msg.h"

namespace lapitest {

using Bytes = std::vector<uint8_t>;

/* One message as received: the header fields and the body (msgLen bytes). */
struct Message {
    uint32_t pid = 0;
    uint16_t msgId = 0;
    uint16_t msgLen = 0;
    Bytes body;

    /* The whole message as it travelled: header then body. */
    Bytes Raw() const;
    /* Reads a field of the body at a body offset (0 = first byte after the
     * header); fails the size check with std::nullopt rather than overrun. */
    template <typename T>
    std::optional<T> BodyField(size_t offset) const {
        if (offset + sizeof(T) > body.size()) {
            return std::nullopt;
        }
        T v;
        std::memcpy(&v, body.data() + offset, sizeof(T));
        return v;
    }
};

/* The bytes of any packed wire struct, e.g. Bytes(req) of a GetLocationReq. */
template <typename T>
Bytes ToBytes(const T &v) {
    Bytes b(sizeof(T));
    std::memcpy(b.data(), &v, sizeof(T));
    return b;
}

/* The byte strings one after the other. */
inline Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

/* header (pid, msgId, body.size() as msgLen unless msgLen is given) + body */
Bytes MakeMsg(uint16_t msgId, const Bytes &body, uint32_t pid = 0,
              std::optional<uint16_t> msgLen = std::nullopt);
/* Little helpers for bodies. */
Bytes U32Body(uint32_t v);

/* The default pid the tests put into their messages. */
uint32_t DefaultPid();

/* One stream connection to ROOT/tmp/lapisock. */
class Connection {
  public:
    Connection() = default;
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    Connection(Connection &&other) noexcept;
    Connection &operator=(Connection &&other) noexcept;

    /* Connects, retrying until the socket accepts or the deadline passes. */
    bool Connect(const std::string &root, int timeoutMs = 5000);
    /* Takes ownership of a connected descriptor (e.g. one end of a
     * socketpair in unit tests). */
    void Adopt(int fd);
    bool IsOpen() const { return fd_ >= 0; }
    int Fd() const { return fd_; }
    void Close();

    /* Sends one message: header (pid, msgId, msgLen = body size) + body. */
    bool SendMsg(uint16_t msgId, const Bytes &body, uint32_t pid = DefaultPid());
    /* Sends the bytes as they are, in one send() as far as the kernel takes. */
    bool SendRaw(const Bytes &bytes);
    bool SendRaw(const void *p, size_t n);

    /* Waits for one whole message. std::nullopt on timeout, end of stream or
     * error; bytes of a partial message stay buffered for the next call. */
    std::optional<Message> RecvMsg(int timeoutMs = 5000);
    /* True once the server has closed the connection (end of stream or
     * reset) within the timeout. Data that arrives meanwhile is kept for
     * RecvMsg. */
    bool IsClosedByPeer(int timeoutMs = 5000);
    /* True when no byte arrives and the peer does not close within the
     * window (used to show that something was NOT answered). */
    bool StaysSilent(int windowMs);
    /* Bytes received and not yet returned as a message. */
    size_t Pending() const { return buf_.size(); }

  private:
    /* Reads what is there within the timeout: 1 got data, 0 timeout,
     * -1 end of stream or error. */
    int Fill(int timeoutMs);
    std::optional<Message> TakeMsg();

    int fd_ = -1;
    bool eof_ = false;
    Bytes buf_;
};

/*
 * A registered application: the synchronous connection (registerReq) and
 * the asynchronous one (getAsyncFdReq with the globalId).
 */
class TestClient {
  public:
    explicit TestClient(std::string root, uint32_t pid = DefaultPid());

    /* Opens the synchronous connection, sends registerReq and waits for
     * registerRsp; returns its globalId. */
    std::optional<uint32_t> Register(uint32_t service, int timeoutMs = 5000);
    /* Opens the asynchronous connection, sends getAsyncFdReq and waits for
     * getAsyncFdRsp. */
    bool AttachAsync(uint32_t globalId, int timeoutMs = 5000);
    /* Register then AttachAsync with the globalId received. */
    bool Handshake(uint32_t service, int timeoutMs = 5000);

    Connection &Sync() { return sync_; }
    Connection &Async() { return async_; }
    int SyncFd() const { return sync_.Fd(); }
    int AsyncFd() const { return async_.Fd(); }
    std::optional<uint32_t> GlobalId() const { return globalId_; }
    uint32_t Pid() const { return pid_; }

    /* Sends a request on the synchronous connection with this client's pid. */
    bool SendMsg(uint16_t msgId, const Bytes &body) { return sync_.SendMsg(msgId, body, pid_); }

  private:
    std::string root_;
    uint32_t pid_;
    std::optional<uint32_t> globalId_;
    Connection sync_;
    Connection async_;
};

}  // namespace lapitest

#endif /* LAPITEST_TESTCLIENT_H */
