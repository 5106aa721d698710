/*
 * lapi_bench: the application side. One Conn is one stream connection to a
 * local socket with a receive buffer cut into whole client messages; a
 * BenchClient is a registered application with its synchronous and
 * asynchronous connections, spoken to byte for byte (no client library), so
 * that the server and the bare relay see exactly the same bytes.
 */
#ifndef LAPI_BENCH_CONN_H
#define LAPI_BENCH_CONN_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace bench {

/* CLOCK_MONOTONIC in nanoseconds. */
int64_t NowNs();

/* One received message; body points into the connection's buffer and is
 * valid until the next Read/Take on that connection. */
struct Msg {
    uint32_t pid = 0;
    uint16_t msgId = 0;
    uint16_t msgLen = 0;
    const uint8_t *body = nullptr;
};

class Conn {
  public:
    Conn() = default;
    ~Conn() { Close(); }
    Conn(const Conn &) = delete;
    Conn &operator=(const Conn &) = delete;
    Conn(Conn &&other) noexcept;
    Conn &operator=(Conn &&other) noexcept;

    /* Non-blocking, close-on-exec AF_UNIX stream connection. */
    bool Connect(const std::string &path, std::string *err);
    void Close();
    int Fd() const { return fd_; }

    /* Writes every byte, waiting for room up to timeoutMs in all. */
    bool SendAll(const void *p, size_t n, int timeoutMs, std::string *err);
    /* Reads whatever is there: 1 got bytes, 0 nothing now, -1 end of
     * stream or error (*err says which). */
    int ReadAvailable(std::string *err);
    /* The next whole message from the buffer; false when none is complete. */
    bool Take(Msg *out);
    /* Waits for one whole message; false on timeout, end of stream or error. */
    bool WaitMsg(Msg *out, int timeoutMs, std::string *err);

  private:
    int fd_ = -1;
    std::vector<uint8_t> buf_;
    size_t start_ = 0; /* first byte not yet taken */
    size_t end_ = 0;   /* one past the last byte received */
};

/* A registered application: registerReq on the synchronous connection,
 * getAsyncFdReq with the globalId on the asynchronous one. */
struct BenchClient {
    Conn sync;
    Conn async;
    uint32_t globalId = 0;
    /* round-trip state */
    uint8_t tid = 0;
    int64_t sentAt = 0;
    bool outstanding = false;
};

/* Connects both descriptors and completes the handshake. */
bool Handshake(const std::string &sockPath, uint32_t service, uint32_t pid, BenchClient *c,
               int timeoutMs, std::string *err);

/* Builds a client message: header (pid, msgId, body size) + body. */
std::vector<uint8_t> MakeClientMsg(uint16_t msgId, const void *body, size_t len, uint32_t pid);

/* The bench's getLocationReq: single fix, answers on the synchronous
 * connection, pair (1, tid), this process's pid. */
std::vector<uint8_t> LocationReq(uint8_t tid);

}  // namespace bench

#endif /* LAPI_BENCH_CONN_H */
