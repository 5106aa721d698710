/*
 * The client library: the two connections, the handshake, requests and
 * whole-message reads.
 *
 * Each connection assembles at most one message at a time and reads only
 * the bytes that message still lacks (header first, then exactly msgLen
 * body bytes), so nothing beyond the current message is ever taken out of
 * the socket. An application that polls the descriptors therefore never
 * misses a message hidden in a library buffer.
 *
 * Every wait is a poll() against a deadline on the monotonic clock.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "LAPI_ApMsgRows.h"
#include "LAPI_Log.h"
#include "LAPI_SrvCli.h"
#include "lapi_client.h"

namespace {

constexpr int kWouldBlock = 1; /* internal: nothing more to read now */
constexpr int64_t kNoDeadline = -1;

struct Conn {
    int fd;
    size_t have; /* bytes of the current message received so far */
    uint8_t buf[LAPI_MAX_SRV_MSG_LEN];
};

}  // namespace

struct lapi_client {
    Conn conn[2];
    int timeoutMs;
    int trace;
    int registered; /* 1 from the end of the handshake to unregistration */
    int failed;     /* sticky fatal error, 0 while the client is usable */
    int nextConn;   /* connection read first by the next lapi_recv */
    uint32_t globalId;
    uint32_t pid;
};

/* Library errors are reported through the return codes; with tracing on
 * they are also written as "LAPI Error CLI" lines. */
#define CLI_ERR(pClient, ...)              \
    do {                                   \
        if ((pClient)->trace) {            \
            LAPI_ERR_SIDE(0, __VA_ARGS__); \
        }                                  \
    } while (0)

namespace {

int64_t NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t DeadlineAfter(int timeoutMs) {
    return timeoutMs < 0 ? kNoDeadline : NowMs() + timeoutMs;
}

/* Milliseconds left for poll(): -1 without a deadline, 0 when it passed. */
int Remaining(int64_t deadline) {
    if (deadline == kNoDeadline) {
        return -1;
    }
    int64_t left = deadline - NowMs();
    if (left <= 0) {
        return 0;
    }
    return left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
}

bool IsFatal(int rc) {
    return rc == LAPI_E_CLOSED || rc == LAPI_E_IO || rc == LAPI_E_PROTOCOL || rc == LAPI_E_REFUSED;
}

void CloseFd(int &fd) {
    if (fd < 0) {
        return;
    }
    /* A close interrupted by a signal has still released the descriptor
     * on Linux; repeating it could close a descriptor opened meanwhile. */
    (void)close(fd);
    fd = -1;
}

int Fail(lapi_client *pClient, int rc) {
    int savedErrno = errno;
    if (pClient->failed == 0) {
        pClient->failed = rc;
    }
    errno = savedErrno;
    return rc;
}

/* Reads what the current message of one connection still lacks.
 * Returns LAPI_OK with a whole message, LAPI_E_UNKNOWN_MSG or
 * LAPI_E_BAD_LENGTH for a skipped one, kWouldBlock when the socket is empty,
 * or a fatal error. */
int ReadOne(lapi_client *pClient, int idx, lapi_msg *pMsg) {
    Conn &c = pClient->conn[idx];
    if (c.fd < 0) {
        return LAPI_E_STATE;
    }
    for (;;) {
        size_t want;
        if (c.have < LAPI_MSG_HEADER_LEN) {
            want = LAPI_MSG_HEADER_LEN - c.have;
        } else {
            MsgHeader header;
            memcpy(&header, c.buf, sizeof(header));
            size_t whole = LAPI_MSG_HEADER_LEN + static_cast<size_t>(header.msgLen);
            if (whole > sizeof(c.buf)) {
                CLI_ERR(pClient, "msgLen: %d of msgId: %d exceeds every server message!",
                        header.msgLen, header.msgId);
                return LAPI_E_PROTOCOL;
            }
            if (c.have == whole) {
                if (pClient->trace) {
                    LAPI_LogApMsg(c.buf, static_cast<int>(whole), 0);
                }
                size_t used = 0;
                int rc = lapi_decode_msg(c.buf, whole, pMsg, &used);
                c.have = 0;
                pMsg->conn = idx;
                if (rc != LAPI_OK) {
                    CLI_ERR(pClient, "Skipped msgId: %d, msgLen: %d: %s", header.msgId,
                            header.msgLen, lapi_strerror(rc));
                }
                return rc;
            }
            want = whole - c.have;
        }
        ssize_t n = read(c.fd, c.buf + c.have, want);
        if (n > 0) {
            c.have += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) {
            if (pClient->trace) {
                LAPI_TRACE_SIDE(0, "Server closed connection %d after %zu bytes of a message", idx,
                                c.have);
            }
            return LAPI_E_CLOSED;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return kWouldBlock;
        }
        if (errno == ECONNRESET) {
            return LAPI_E_CLOSED;
        }
        CLI_ERR(pClient, "Fail to read connection %d: %s", idx, strerror(errno));
        return LAPI_E_IO;
    }
}

/* Waits for the next message on one connection. Signals do not end the
 * wait: it is used where the caller cannot resume (handshake, unregister). */
int WaitOne(lapi_client *pClient, int idx, lapi_msg *pMsg, int64_t deadline) {
    for (;;) {
        int rc = ReadOne(pClient, idx, pMsg);
        if (rc != kWouldBlock) {
            return rc;
        }
        int left = Remaining(deadline);
        if (left == 0) {
            return LAPI_E_TIMEOUT;
        }
        struct pollfd pfd = {pClient->conn[idx].fd, POLLIN, 0};
        int pr = poll(&pfd, 1, left);
        if (pr < 0 && errno != EINTR) {
            return LAPI_E_IO;
        }
    }
}

/* Writes a whole message; a message is never left half sent unless the
 * connection is then marked unusable. */
int SendAll(lapi_client *pClient, int idx, const void *pData, size_t len) {
    Conn &c = pClient->conn[idx];
    const uint8_t *p = static_cast<const uint8_t *>(pData);
    int64_t deadline = DeadlineAfter(pClient->timeoutMs);
    size_t off = 0;
    while (off < len) {
        ssize_t w = send(c.fd, p + off, len - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w >= 0) {
            off += static_cast<size_t>(w);
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int left = Remaining(deadline);
            if (left == 0) {
                CLI_ERR(pClient, "Timeout sending %zu bytes, %zu sent", len, off);
                /* Half a message on the stream would shift every later one. */
                return off > 0 ? Fail(pClient, LAPI_E_TIMEOUT) : LAPI_E_TIMEOUT;
            }
            struct pollfd pfd = {c.fd, POLLOUT, 0};
            if (poll(&pfd, 1, left) < 0 && errno != EINTR) {
                return Fail(pClient, LAPI_E_IO);
            }
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET) {
            return Fail(pClient, LAPI_E_CLOSED);
        }
        CLI_ERR(pClient, "Fail to send on connection %d: %s", idx, strerror(errno));
        return Fail(pClient, LAPI_E_IO);
    }
    if (pClient->trace) {
        LAPI_LogApMsg(pData, static_cast<int>(len), 0);
    }
    return LAPI_OK;
}

int ConnectTo(const char *path, int64_t deadline, int *pFd) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    size_t pathLen = strlen(path);
    if (pathLen == 0 || pathLen >= sizeof(addr.sun_path)) {
        return LAPI_E_PATH;
    }
    memcpy(addr.sun_path, path, pathLen);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return LAPI_E_IO;
    }
    /* A blocking connect waits while the server's backlog is full; the send
     * timeout bounds that wait. */
    int left = Remaining(deadline);
    struct timeval tv = {0, 0};
    if (left > 0) {
        tv.tv_sec = left / 1000;
        tv.tv_usec = (left % 1000) * 1000;
    } else if (left == 0) {
        tv.tv_usec = 1000;
    }
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
    } while (rc < 0 && errno == EINTR && Remaining(deadline) != 0);
    if (rc < 0) {
        int savedErrno = errno;
        CloseFd(fd);
        errno = savedErrno;
        if (savedErrno == EAGAIN || savedErrno == EINPROGRESS || savedErrno == ETIMEDOUT ||
            savedErrno == EINTR) {
            return LAPI_E_TIMEOUT;
        }
        return LAPI_E_CONNECT;
    }
    struct timeval zero = {0, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &zero, sizeof(zero));
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        int savedErrno = errno;
        CloseFd(fd);
        errno = savedErrno;
        return LAPI_E_IO;
    }
    *pFd = fd;
    return LAPI_OK;
}

/* Waits for the handshake answer msgId on connection idx. The server
 * closes a connection whose registration it refuses. */
int WaitHandshakeAnswer(lapi_client *pClient, int idx, uint16_t msgId, lapi_msg *pMsg,
                        int64_t deadline) {
    int rc = WaitOne(pClient, idx, pMsg, deadline);
    if (rc == LAPI_E_CLOSED) {
        return LAPI_E_REFUSED;
    }
    if (rc == LAPI_E_UNKNOWN_MSG || rc == LAPI_E_BAD_LENGTH) {
        return LAPI_E_PROTOCOL;
    }
    if (rc != LAPI_OK) {
        return rc;
    }
    if (pMsg->msgId != msgId) {
        CLI_ERR(pClient, "Expected msgId: %d, received msgId: %d!", msgId, pMsg->msgId);
        return LAPI_E_PROTOCOL;
    }
    return LAPI_OK;
}

/* A zeroed message of the client with its header filled in: the body
 * length is the one of its row. */
template <typename Msg, uint16_t kMsgId>
Msg NewMessage(const lapi_client *pClient) {
    static_assert(!LAPI_ApMsgRowOf(kMsgId)->fromServer, "a message of the client");
    return LAPI_NewApMsg<Msg, kMsgId>(pClient->pid);
}

/* Checks shared by every request. */
int Usable(const lapi_client *pClient) {
    if (pClient == nullptr) {
        return LAPI_E_INVAL;
    }
    if (pClient->failed != 0) {
        return pClient->failed;
    }
    if (!pClient->registered) {
        return LAPI_E_STATE;
    }
    return LAPI_OK;
}

template <typename Msg>
int SendRequest(lapi_client *pClient, const Msg &msg) {
    int rc = Usable(pClient);
    if (rc != LAPI_OK) {
        return rc;
    }
    return SendAll(pClient, LAPI_CONN_SYNC, &msg, sizeof(msg));
}

/* A request with its header and its prefix (mode and the client's own
 * pair) filled in. */
template <typename Msg, uint16_t kMsgId>
Msg PrefixRequest(const lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                  uint8_t transactionId) {
    Msg msg = NewMessage<Msg, kMsgId>(pClient);
    msg.mode = mode;
    msg.sessionId = sessionId;
    msg.transactionId = transactionId;
    return msg;
}

/* Sends a request with a prefix; fill sets the fields after it. */
template <typename Msg, uint16_t kMsgId, typename Fill>
int SendPrefixed(lapi_client *pClient, uint16_t mode, uint8_t sessionId, uint8_t transactionId,
                 Fill fill) {
    if (pClient == nullptr) {
        return LAPI_E_INVAL;
    }
    Msg req = PrefixRequest<Msg, kMsgId>(pClient, mode, sessionId, transactionId);
    fill(req);
    return SendRequest(pClient, req);
}

/* A request whose prefix is all it carries. */
template <typename Msg, uint16_t kMsgId>
int SendPrefixOnly(lapi_client *pClient, uint16_t mode, uint8_t sessionId, uint8_t transactionId) {
    return SendPrefixed<Msg, kMsgId>(pClient, mode, sessionId, transactionId, [](Msg &) {});
}

int EffectiveTimeout(int timeoutMs) {
    return timeoutMs > 0 ? timeoutMs : LAPI_DEFAULT_TIMEOUT_MS;
}

}  // namespace

extern "C" int lapi_open(const char *sockPath, uint32_t service, int timeoutMs,
                         lapi_client **ppClient) {
    return lapi_open_ex(sockPath, service, timeoutMs, 0, ppClient);
}

extern "C" int lapi_open_ex(const char *sockPath, uint32_t service, int timeoutMs, unsigned flags,
                            lapi_client **ppClient) {
    if (ppClient == nullptr) {
        return LAPI_E_INVAL;
    }
    *ppClient = nullptr;
    /* The server keeps the three low bits and refuses a mask without any. */
    if ((service & 7u) == 0 || timeoutMs < 0 || (flags & ~LAPI_OPEN_TRACE) != 0) {
        return LAPI_E_INVAL;
    }
    if (sockPath == nullptr) {
        sockPath = LAPI_DEFAULT_SOCKET_PATH;
    }
    lapi_client *pClient = static_cast<lapi_client *>(calloc(1, sizeof(lapi_client)));
    if (pClient == nullptr) {
        return LAPI_E_NOMEM;
    }
    pClient->conn[0].fd = -1;
    pClient->conn[1].fd = -1;
    pClient->timeoutMs = EffectiveTimeout(timeoutMs);
    pClient->pid = static_cast<uint32_t>(getpid());
    if (flags & LAPI_OPEN_TRACE) {
        (void)lapi_set_trace(pClient, 1);
    }
    int64_t deadline = DeadlineAfter(pClient->timeoutMs);

    lapi_msg *pMsg = static_cast<lapi_msg *>(malloc(sizeof(lapi_msg)));
    int rc = pMsg == nullptr ? LAPI_E_NOMEM : LAPI_OK;
    if (rc == LAPI_OK) {
        rc = ConnectTo(sockPath, deadline, &pClient->conn[LAPI_CONN_SYNC].fd);
    }
    if (rc == LAPI_OK) {
        RegisterReq req = NewMessage<RegisterReq, LAPI_REGISTER_REQ>(pClient);
        req.service = service;
        rc = SendAll(pClient, LAPI_CONN_SYNC, &req, sizeof(req));
    }
    if (rc == LAPI_OK) {
        /* Nothing else may go on this connection before registerRsp. */
        rc = WaitHandshakeAnswer(pClient, LAPI_CONN_SYNC, LAPI_REGISTER_RSP, pMsg, deadline);
    }
    if (rc == LAPI_OK) {
        pClient->globalId = pMsg->u.registerRsp.globalId;
        rc = ConnectTo(sockPath, deadline, &pClient->conn[LAPI_CONN_ASYNC].fd);
    }
    if (rc == LAPI_OK) {
        GetAsyncFdReq req = NewMessage<GetAsyncFdReq, LAPI_GET_ASYNC_FD_REQ>(pClient);
        req.globalId = pClient->globalId;
        rc = SendAll(pClient, LAPI_CONN_ASYNC, &req, sizeof(req));
    }
    if (rc == LAPI_OK) {
        rc = WaitHandshakeAnswer(pClient, LAPI_CONN_ASYNC, LAPI_GET_ASYNC_FD_RSP, pMsg, deadline);
    }
    free(pMsg);
    if (rc != LAPI_OK) {
        int savedErrno = errno;
        CloseFd(pClient->conn[0].fd);
        CloseFd(pClient->conn[1].fd);
        free(pClient);
        errno = savedErrno;
        return rc;
    }
    pClient->registered = 1;
    *ppClient = pClient;
    return LAPI_OK;
}

extern "C" int lapi_unregister(lapi_client *pClient) {
    int rc = Usable(pClient);
    if (rc == LAPI_E_INVAL || rc == LAPI_E_STATE) {
        return rc;
    }
    if (rc == LAPI_OK) {
        UnregisterReq req = NewMessage<UnregisterReq, LAPI_UNREGISTER_REQ>(pClient);
        rc = SendAll(pClient, LAPI_CONN_SYNC, &req, sizeof(req));
    }
    if (rc == LAPI_OK) {
        /* Answers to earlier requests may still come first; they have no
         * reader any more. */
        int64_t deadline = DeadlineAfter(pClient->timeoutMs);
        lapi_msg *pMsg = static_cast<lapi_msg *>(malloc(sizeof(lapi_msg)));
        rc = pMsg == nullptr ? LAPI_E_NOMEM : LAPI_E_TIMEOUT;
        while (pMsg != nullptr) {
            rc = WaitOne(pClient, LAPI_CONN_SYNC, pMsg, deadline);
            if (rc == LAPI_OK && pMsg->msgId == LAPI_UNREGISTER_RSP) {
                break;
            }
            if (rc != LAPI_OK && rc != LAPI_E_UNKNOWN_MSG && rc != LAPI_E_BAD_LENGTH) {
                break;
            }
        }
        free(pMsg);
    }
    pClient->registered = 0;
    CloseFd(pClient->conn[0].fd);
    CloseFd(pClient->conn[1].fd);
    if (rc != LAPI_OK && pClient->failed == 0) {
        pClient->failed = rc;
    }
    return rc;
}

extern "C" void lapi_close(lapi_client *pClient) {
    if (pClient == nullptr) {
        return;
    }
    if (pClient->registered && pClient->failed == 0) {
        (void)lapi_unregister(pClient);
    }
    CloseFd(pClient->conn[0].fd);
    CloseFd(pClient->conn[1].fd);
    free(pClient);
}

extern "C" int lapi_sync_fd(const lapi_client *pClient) {
    return pClient == nullptr ? -1 : pClient->conn[LAPI_CONN_SYNC].fd;
}

extern "C" int lapi_async_fd(const lapi_client *pClient) {
    return pClient == nullptr ? -1 : pClient->conn[LAPI_CONN_ASYNC].fd;
}

extern "C" uint32_t lapi_global_id(const lapi_client *pClient) {
    return pClient == nullptr ? 0 : pClient->globalId;
}

extern "C" int lapi_set_timeout(lapi_client *pClient, int timeoutMs) {
    if (pClient == nullptr || timeoutMs < 0) {
        return LAPI_E_INVAL;
    }
    pClient->timeoutMs = EffectiveTimeout(timeoutMs);
    return LAPI_OK;
}

extern "C" int lapi_set_trace(lapi_client *pClient, int on) {
    if (pClient == nullptr) {
        return LAPI_E_INVAL;
    }
    if (on) {
        LAPI_InitApMsgLogProc();
    }
    pClient->trace = on ? 1 : 0;
    return LAPI_OK;
}

namespace {

int RecvMask(lapi_client *pClient, unsigned mask, lapi_msg *pMsg, int timeoutMs) {
    int rc = Usable(pClient);
    if (rc != LAPI_OK) {
        return rc;
    }
    if (pMsg == nullptr) {
        return LAPI_E_INVAL;
    }
    int64_t deadline = DeadlineAfter(timeoutMs);
    for (;;) {
        for (int i = 0; i < 2; ++i) {
            int idx = (pClient->nextConn + i) % 2;
            if ((mask & (1u << idx)) == 0) {
                continue;
            }
            rc = ReadOne(pClient, idx, pMsg);
            if (rc == kWouldBlock) {
                continue;
            }
            if (IsFatal(rc)) {
                return Fail(pClient, rc);
            }
            /* Take the other connection first next time, so a busy one
             * cannot starve it. */
            pClient->nextConn = (idx + 1) % 2;
            return rc;
        }
        int left = Remaining(deadline);
        if (left == 0) {
            return LAPI_E_TIMEOUT;
        }
        struct pollfd pfds[2];
        nfds_t n = 0;
        for (int idx = 0; idx < 2; ++idx) {
            if (mask & (1u << idx)) {
                pfds[n].fd = pClient->conn[idx].fd;
                pfds[n].events = POLLIN;
                pfds[n].revents = 0;
                ++n;
            }
        }
        if (poll(pfds, n, left) < 0) {
            if (errno == EINTR) {
                return LAPI_E_INTR;
            }
            return Fail(pClient, LAPI_E_IO);
        }
    }
}

}  // namespace

extern "C" int lapi_recv(lapi_client *pClient, lapi_msg *pMsg, int timeoutMs) {
    return RecvMask(pClient, 3u, pMsg, timeoutMs);
}

extern "C" int lapi_recv_conn(lapi_client *pClient, int conn, lapi_msg *pMsg, int timeoutMs) {
    if (conn != LAPI_CONN_SYNC && conn != LAPI_CONN_ASYNC) {
        return LAPI_E_INVAL;
    }
    return RecvMask(pClient, 1u << conn, pMsg, timeoutMs);
}

/* ---- requests ---- */

extern "C" void lapi_location_params_init(lapi_location_params *pParams) {
    if (pParams == nullptr) {
        return;
    }
    memset(pParams, 0, sizeof(*pParams));
    pParams->mode = LAPI_MODE_SYNC;
    pParams->sessionId = 1;
    pParams->transactionId = 1;
    pParams->responseTime = 30000;
}

extern "C" int lapi_get_location(lapi_client *pClient, const lapi_location_params *pParams) {
    if (pParams == nullptr) {
        return LAPI_E_INVAL;
    }
    return SendPrefixed<GetLocationReq, LAPI_GET_LOCATION_REQ>(
        pClient, pParams->mode, pParams->sessionId, pParams->transactionId,
        [pParams](GetLocationReq &req) {
            req.responseTime = pParams->responseTime;
            req.horizontalAccuracy = pParams->horizontalAccuracy;
            req.verticalAccuracy = pParams->verticalAccuracy;
            req.preferredPowerConsumption = pParams->preferredPowerConsumption;
            req.interval = pParams->interval;
            req.reportCriteria = pParams->reportCriteria;
            req.costAllowed = pParams->costAllowed;
            req.addressInfoRequired = pParams->addressInfoRequired;
            req.speedAndCourseRequired = pParams->speedAndCourseRequired;
            req.altitudeRequired = pParams->altitudeRequired;
            req.nmeaRequired = pParams->nmeaRequired;
        });
}

extern "C" int lapi_abort_location(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                   uint8_t transactionId) {
    return SendPrefixOnly<AbortLocationReq, LAPI_ABORT_LOCATION_REQ>(pClient, mode, sessionId,
                                                                     transactionId);
}

extern "C" int lapi_abort_all_location(lapi_client *pClient) {
    if (pClient == nullptr) {
        return LAPI_E_INVAL;
    }
    return SendRequest(pClient,
                       NewMessage<AbortAllLocationReq, LAPI_ABORT_ALL_LOCATION_REQ>(pClient));
}

extern "C" int lapi_last_known_location(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                        uint8_t transactionId) {
    return SendPrefixOnly<LastKnownLocationReq, LAPI_LAST_KNOWN_LOCATION_REQ>(
        pClient, mode, sessionId, transactionId);
}

extern "C" int lapi_get_gps_db_data(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                    uint8_t transactionId, uint32_t fileId) {
    return SendPrefixed<GetGpsDbDataReq, LAPI_GET_GPS_DB_DATA_REQ>(
        pClient, mode, sessionId, transactionId,
        [fileId](GetGpsDbDataReq &req) { req.fileId = fileId; });
}

extern "C" int lapi_set_gps_db_data(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                    uint8_t transactionId, const DbFile *pFiles,
                                    uint16_t numFiles) {
    if (numFiles > LAPI_MAX_DB_FILES || (pFiles == nullptr && numFiles > 0)) {
        return LAPI_E_INVAL;
    }
    for (uint16_t i = 0; i < numFiles; ++i) {
        /* The server copies `length` bytes from the entry's data field; a
         * longer length would hand it the next entries' bytes. */
        if (pFiles[i].length == 0 || pFiles[i].length > LAPI_DB_FILE_DATA_LEN) {
            return LAPI_E_INVAL;
        }
    }
    return SendPrefixed<SetGpsDbDataReq, LAPI_SET_GPS_DB_DATA_REQ>(
        pClient, mode, sessionId, transactionId, [pFiles, numFiles](SetGpsDbDataReq &req) {
            req.numFiles = numFiles;
            for (uint16_t i = 0; i < numFiles; ++i) {
                req.dbFile[i].fileId = pFiles[i].fileId;
                req.dbFile[i].length = pFiles[i].length;
                memcpy(req.dbFile[i].data, pFiles[i].data, pFiles[i].length);
            }
        });
}

extern "C" int lapi_get_status(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                               uint8_t transactionId) {
    return SendPrefixOnly<GetStatusReq, LAPI_GET_STATUS_REQ>(pClient, mode, sessionId,
                                                             transactionId);
}

extern "C" int lapi_location_notification_cfm(lapi_client *pClient, uint8_t sessionId,
                                              uint8_t transactionId, uint32_t responseType) {
    if (pClient == nullptr) {
        return LAPI_E_INVAL;
    }
    LocationNotificationCfm req =
        NewMessage<LocationNotificationCfm, LAPI_LOCATION_NOTIFICATION_CFM>(pClient);
    req.sessionId = sessionId;
    req.transactionId = transactionId;
    req.responseType = responseType;
    return SendRequest(pClient, req);
}

extern "C" int lapi_distance_azimuth(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                     uint8_t transactionId, double latitude1, double longitude1,
                                     double latitude2, double longitude2, int distanceOnly) {
    return SendPrefixed<DistanceAzimuthReq, LAPI_DISTANCE_AZIMUTH_REQ>(
        pClient, mode, sessionId, transactionId, [&](DistanceAzimuthReq &req) {
            req.latitude1 = latitude1;
            req.longitude1 = longitude1;
            req.latitude2 = latitude2;
            req.longitude2 = longitude2;
            req.distanceOnly = distanceOnly ? 1 : 0;
        });
}

extern "C" int lapi_add_proximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                  uint8_t transactionId, double latitude, double longitude,
                                  double altitude, double radius) {
    return SendPrefixed<AddProximityReq, LAPI_ADD_PROXIMITY_REQ>(
        pClient, mode, sessionId, transactionId, [&](AddProximityReq &req) {
            req.latitude = latitude;
            req.longitude = longitude;
            req.altitude = altitude;
            req.radius = radius;
        });
}

namespace {

int RemoveProximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId, uint8_t transactionId,
                    uint32_t removeType) {
    return SendPrefixed<RemoveProximityReq, LAPI_REMOVE_PROXIMITY_REQ>(
        pClient, mode, sessionId, transactionId,
        [removeType](RemoveProximityReq &req) { req.removeType = removeType; });
}

}  // namespace

extern "C" int lapi_remove_proximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                     uint8_t transactionId) {
    return RemoveProximity(pClient, mode, sessionId, transactionId, 0);
}

extern "C" int lapi_remove_all_proximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                                         uint8_t transactionId) {
    return RemoveProximity(pClient, mode, sessionId, transactionId, LAPI_REMOVE_ALL_PROXIMITY);
}
