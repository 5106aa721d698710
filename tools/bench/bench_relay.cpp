#include "bench_relay.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "ToolCommon.h"

namespace bench {

namespace {

constexpr size_t kConnBuf = 1024; /* the server's client read buffer */
constexpr size_t kPtyBuf = 4096;

struct RelayConn {
    int fd;
    int slot; /* -1 until registerReq or getAsyncFdReq names one */
    size_t len;
    uint8_t buf[kConnBuf];
};

struct Slot {
    int syncFd;
    int asyncFd;
    uint32_t service;
    uint8_t clientSid;
    uint8_t clientTid;
};

struct Relay {
    int listenFd = -1;
    int ptyFd = -1;
    int spareFd = -1; /* given up to refuse a connection when out of descriptors */
    bool saidFull = false;
    fd_set readSet;
    int maxFd = 0;
    RelayConn *conns[FD_SETSIZE] = {};
    std::vector<int> openFds;
    std::vector<int> statusFds;
    std::vector<int> serving; /* openFds as the turn began */
    std::vector<Slot> slots;
    uint8_t pty[kPtyBuf];
    size_t ptyLen = 0;
    /* Frames the terminal did not take yet: sent when it is writable, so
     * that a full terminal never stalls the loop. */
    std::vector<uint8_t> ptyOut;
    size_t ptyOutPos = 0;
    uint8_t locRsp[LAPI_MSG_HEADER_LEN + LAPI_GET_LOCATION_RSP_LEN] = {};
};

void Fail(const char *what) {
    fprintf(stderr, "lapi_bench relay: %s: %s\n", what, strerror(errno));
}

/* Writes all n bytes to a client; waits for room when its socket is full
 * (it never is: a client has one answer outstanding, or reads every
 * broadcast before the next). */
int WriteAll(int fd, const uint8_t *p, size_t n) {
    return toolcommon::WriteAll(fd, p, n, 1000) ? 0 : -1;
}

/* Writes what the terminal takes now; -1 when it is broken. */
int FlushPty(Relay *r) {
    while (r->ptyOutPos < r->ptyOut.size()) {
        ssize_t w =
            write(r->ptyFd, r->ptyOut.data() + r->ptyOutPos, r->ptyOut.size() - r->ptyOutPos);
        if (w > 0) {
            r->ptyOutPos += static_cast<size_t>(w);
        } else if (w < 0 && errno == EINTR) {
            continue;
        } else if (w < 0 && errno == EAGAIN) {
            return 0;
        } else {
            return -1;
        }
    }
    r->ptyOut.clear();
    r->ptyOutPos = 0;
    return 0;
}

void PutHeader(uint8_t *p, uint16_t msgId, uint16_t msgLen) {
    MsgHeader h;
    h.pid = 0;
    h.msgId = msgId;
    h.msgLen = msgLen;
    memcpy(p, &h, sizeof(h));
}

void CloseConn(Relay *r, int fd) {
    RelayConn *c = r->conns[fd];
    if (c == nullptr) {
        return;
    }
    if (c->slot >= 0) {
        Slot &s = r->slots[static_cast<size_t>(c->slot)];
        if (s.syncFd == fd) {
            s.syncFd = -1;
        }
        if (s.asyncFd == fd) {
            s.asyncFd = -1;
        }
    }
    r->statusFds.erase(std::remove(r->statusFds.begin(), r->statusFds.end(), fd),
                       r->statusFds.end());
    r->openFds.erase(std::remove(r->openFds.begin(), r->openFds.end(), fd), r->openFds.end());
    FD_CLR(fd, &r->readSet);
    free(c);
    r->conns[fd] = nullptr;
    close(fd);
}

void OnClientMsg(Relay *r, RelayConn *c, const MsgHeader &h, const uint8_t *body) {
    if (h.msgId == LAPI_REGISTER_REQ && h.msgLen == LAPI_REGISTER_REQ_LEN) {
        Slot s = {c->fd, -1, 0, 0, 0};
        memcpy(&s.service, body, sizeof(s.service));
        c->slot = static_cast<int>(r->slots.size());
        r->slots.push_back(s);
        uint8_t rsp[LAPI_MSG_HEADER_LEN + LAPI_REGISTER_RSP_LEN];
        PutHeader(rsp, LAPI_REGISTER_RSP, LAPI_REGISTER_RSP_LEN);
        uint32_t globalId = static_cast<uint32_t>(c->slot) + 1;
        memcpy(rsp + LAPI_MSG_HEADER_LEN, &globalId, sizeof(globalId));
        WriteAll(c->fd, rsp, sizeof(rsp));
    } else if (h.msgId == LAPI_GET_ASYNC_FD_REQ && h.msgLen == LAPI_GET_ASYNC_FD_REQ_LEN) {
        uint32_t globalId;
        memcpy(&globalId, body, sizeof(globalId));
        if (globalId == 0 || globalId > r->slots.size()) {
            return;
        }
        c->slot = static_cast<int>(globalId - 1);
        Slot &s = r->slots[static_cast<size_t>(c->slot)];
        s.asyncFd = c->fd;
        if (s.service & 4) {
            r->statusFds.push_back(c->fd);
        }
        uint8_t rsp[LAPI_MSG_HEADER_LEN];
        PutHeader(rsp, LAPI_GET_ASYNC_FD_RSP, LAPI_GET_ASYNC_FD_RSP_LEN);
        WriteAll(c->fd, rsp, sizeof(rsp));
    } else if (h.msgId == LAPI_GET_LOCATION_REQ && h.msgLen == LAPI_GET_LOCATION_REQ_LEN &&
               c->slot >= 0) {
        Slot &s = r->slots[static_cast<size_t>(c->slot)];
        s.clientSid = body[2];
        s.clientTid = body[3];
        /* frame: sync, length, BP header with the slot as the pair, the
         * request's fields after the prefix, trailer */
        uint8_t frame[LAPI_BP_GET_LOCATION_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
        frame[0] = LAPI_BP_FRAME_SYNC;
        frame[1] = 0;
        frame[2] = sizeof(frame);
        frame[3] = GEOLOCATION_APBP_REQ;
        frame[4] = static_cast<uint8_t>(c->slot & 0xFF);
        frame[5] = static_cast<uint8_t>((c->slot >> 8) & 0xFF);
        memcpy(frame + 6, body + 4, LAPI_BP_GET_LOCATION_REQ_LEN - LAPI_BP_MSG_HEADER_LEN);
        frame[sizeof(frame) - 2] = LAPI_BP_FRAME_TRAILER0;
        frame[sizeof(frame) - 1] = LAPI_BP_FRAME_TRAILER1;
        bool idle = r->ptyOut.empty();
        r->ptyOut.insert(r->ptyOut.end(), frame, frame + sizeof(frame));
        if (idle) {
            FlushPty(r);
        }
    }
}

/* Reads the connection dry and handles its whole messages; -1 when it is
 * closed or broken. */
int ReadConn(Relay *r, RelayConn *c) {
    for (;;) {
        if (c->len == sizeof(c->buf)) {
            return -1; /* a message larger than the buffer: not ours */
        }
        ssize_t n = recv(c->fd, c->buf + c->len, sizeof(c->buf) - c->len, 0);
        if (n == 0) {
            return -1;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN ? 0 : -1;
        }
        c->len += static_cast<size_t>(n);
        size_t pos = 0;
        while (c->len - pos >= LAPI_MSG_HEADER_LEN) {
            MsgHeader h;
            memcpy(&h, c->buf + pos, sizeof(h));
            size_t whole = LAPI_MSG_HEADER_LEN + h.msgLen;
            if (whole > sizeof(c->buf)) {
                return -1;
            }
            if (c->len - pos < whole) {
                break;
            }
            OnClientMsg(r, c, h, c->buf + pos + LAPI_MSG_HEADER_LEN);
            pos += whole;
        }
        memmove(c->buf, c->buf + pos, c->len - pos);
        c->len -= pos;
    }
}

void OnBpMsg(Relay *r, const uint8_t *msg, size_t len) {
    if (msg[0] == STATUS_CHANGE_BPAP_IND && len == LAPI_BP_STATUS_IND_LEN) {
        uint8_t ind[LAPI_MSG_HEADER_LEN + LAPI_STATUS_CHANGE_IND_LEN];
        PutHeader(ind, LAPI_STATUS_CHANGE_IND, LAPI_STATUS_CHANGE_IND_LEN);
        ind[8] = msg[1];
        ind[9] = msg[2];
        for (int i = 0; i < 8; ++i) {
            int32_t v = static_cast<int32_t>(LAPI_BpGetU32(msg + LAPI_BP_MSG_HEADER_LEN + 4 * i));
            memcpy(ind + 10 + 4 * i, &v, sizeof(v));
        }
        for (int fd : r->statusFds) {
            WriteAll(fd, ind, sizeof(ind));
        }
    } else if (msg[0] == GEOLOCATION_APBP_RES && len >= LAPI_BP_MSG_HEADER_LEN) {
        size_t slot = msg[1] | (static_cast<size_t>(msg[2]) << 8);
        if (slot >= r->slots.size() || r->slots[slot].syncFd < 0) {
            return;
        }
        r->locRsp[8] = r->slots[slot].clientSid;
        r->locRsp[9] = r->slots[slot].clientTid;
        WriteAll(r->slots[slot].syncFd, r->locRsp, sizeof(r->locRsp));
    }
}

/* Reads the terminal dry and cuts whole frames out of it. */
int ReadPty(Relay *r) {
    for (;;) {
        ssize_t n = read(r->ptyFd, r->pty + r->ptyLen, sizeof(r->pty) - r->ptyLen);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            return 0;
        }
        if (n <= 0) {
            return -1;
        }
        r->ptyLen += static_cast<size_t>(n);
        size_t pos = 0;
        while (pos < r->ptyLen) {
            if (r->pty[pos] != LAPI_BP_FRAME_SYNC) {
                ++pos;
                continue;
            }
            if (r->ptyLen - pos < LAPI_BP_FRAME_HEAD_LEN) {
                break;
            }
            size_t flen = (static_cast<size_t>(r->pty[pos + 1]) << 8) | r->pty[pos + 2];
            if (flen < LAPI_BP_FRAME_OVERHEAD + 1 || flen > LAPI_BP_FRAME_MAX_LEN) {
                ++pos;
                continue;
            }
            if (r->ptyLen - pos < flen) {
                break;
            }
            if (r->pty[pos + flen - 2] != LAPI_BP_FRAME_TRAILER0 ||
                r->pty[pos + flen - 1] != LAPI_BP_FRAME_TRAILER1) {
                ++pos;
                continue;
            }
            OnBpMsg(r, r->pty + pos + LAPI_BP_FRAME_HEAD_LEN, flen - LAPI_BP_FRAME_OVERHEAD);
            pos += flen;
        }
        memmove(r->pty, r->pty + pos, r->ptyLen - pos);
        r->ptyLen -= pos;
    }
}

void AcceptAll(Relay *r) {
    for (;;) {
        int fd = accept4(r->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) {
                continue;
            }
            if ((errno == EMFILE || errno == ENFILE) && r->spareFd >= 0) {
                /* Out of descriptors: take the connection with the spare one
                 * and close it, so that the client sees the refusal and the
                 * listener does not stay readable for ever. */
                if (!r->saidFull) {
                    Fail("accept (refusing connections from now on)");
                    r->saidFull = true;
                }
                close(r->spareFd);
                int fd2 = accept4(r->listenFd, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd2 >= 0) {
                    close(fd2);
                }
                r->spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
                if (fd2 < 0) {
                    return; /* nothing was waiting: accept says EMFILE first */
                }
                continue;
            }
            if (errno != EAGAIN) {
                Fail("accept");
            }
            return;
        }
        if (fd >= FD_SETSIZE) {
            close(fd); /* select cannot watch it */
            if (!r->saidFull) {
                fprintf(stderr, "lapi_bench relay: descriptor %d >= FD_SETSIZE, refused\n", fd);
                r->saidFull = true;
            }
            continue;
        }
        RelayConn *c = static_cast<RelayConn *>(malloc(sizeof(RelayConn)));
        if (c == nullptr) {
            close(fd);
            continue;
        }
        c->fd = fd;
        c->slot = -1;
        c->len = 0;
        r->conns[fd] = c;
        r->openFds.push_back(fd);
        FD_SET(fd, &r->readSet);
        r->maxFd = std::max(r->maxFd, fd);
    }
}

}  // namespace

int RunRelay(const std::string &root) {
    Relay *r = new Relay();
    FD_ZERO(&r->readSet);
    PutHeader(r->locRsp, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN);

    r->spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::string mux = root + "/dev/mux18";
    r->ptyFd = open(mux.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (r->ptyFd < 0) {
        Fail(("open " + mux).c_str());
        return 1;
    }
    std::string sock = root + "/tmp/lapisock";
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (sock.size() >= sizeof(addr.sun_path)) {
        fprintf(stderr, "lapi_bench relay: socket path too long: %s\n", sock.c_str());
        return 1;
    }
    memcpy(addr.sun_path, sock.c_str(), sock.size() + 1);
    unlink(sock.c_str());
    r->listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (r->listenFd < 0 ||
        bind(r->listenFd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 ||
        listen(r->listenFd, 128) != 0) {
        Fail(("listen on " + sock).c_str());
        return 1;
    }
    FD_SET(r->listenFd, &r->readSet);
    FD_SET(r->ptyFd, &r->readSet);
    r->maxFd = std::max(r->listenFd, r->ptyFd);

    for (;;) {
        fd_set ready = r->readSet;
        fd_set writable;
        FD_ZERO(&writable);
        if (!r->ptyOut.empty()) {
            FD_SET(r->ptyFd, &writable);
        }
        int n = select(r->maxFd + 1, &ready, &writable, nullptr, nullptr);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            Fail("select");
            return 1;
        }
        if (FD_ISSET(r->ptyFd, &ready) && ReadPty(r) < 0) {
            Fail("read the terminal");
            return 1;
        }
        /* Served from a copy: a connection may close while the list is read. */
        r->serving.assign(r->openFds.begin(), r->openFds.end());
        for (int fd : r->serving) {
            if (FD_ISSET(fd, &ready) && r->conns[fd] != nullptr && ReadConn(r, r->conns[fd]) < 0) {
                CloseConn(r, fd);
            }
        }
        if (FD_ISSET(r->listenFd, &ready)) {
            AcceptAll(r);
        }
        if (FD_ISSET(r->ptyFd, &writable) && FlushPty(r) < 0) {
            Fail("write the terminal");
            return 1;
        }
    }
}

}  // namespace bench
