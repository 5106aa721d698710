/*
 * The network proxy on arbitrary input: BP socket requests (open, send,
 * close, TLS) through the BP dispatch, link notification records through
 * the record parser, and the link stand-in's own records through the real
 * read procedure, in any order.
 *
 * Input: a sequence of operations, each [op u8][length u16 big-endian][bytes].
 *   op % 4 == 0: the bytes as one BP message, dispatched from an exact-size
 *                copy;
 *   op % 4 == 1: the bytes as one link record in a read buffer of exactly
 *                their size, parsed;
 *   op % 4 == 2: the records the link stand-in wrote are read and handled;
 *   op % 4 == 3: the read, then the write procedure of every open socket.
 *
 * Nothing leaves the machine: connect and the resolver are wrapped at link
 * time (this target only). connect refuses, completes or goes on in the
 * background by the port's value; every name fails to resolve at once.
 * After each input every socket is closed and every link released, so the
 * next input starts from the same state and nothing is left behind.
 */
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "HOST_Root.h"
#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_tls.h"
#include "zelnapi.h"

extern "C" int __wrap_connect(int fd, const struct sockaddr *addr, socklen_t len) {
    (void)fd;
    (void)len;
    uint16_t port = 0;
    if (addr != nullptr && addr->sa_family == AF_INET) {
        port = ntohs(reinterpret_cast<const struct sockaddr_in *>(addr)->sin_port);
    }
    switch (port % 3) {
        case 0:
            return 0; /* "connected": the socket is not, so I/O on it fails */
        case 1:
            errno = EINPROGRESS;
            return -1;
        default:
            errno = ECONNREFUSED;
            return -1;
    }
}

extern "C" struct hostent *__wrap_gethostbyname(const char * /*name*/) {
    h_errno = HOST_NOT_FOUND;
    return nullptr;
}

extern "C" unsigned int __wrap_sleep(unsigned int /*seconds*/) {
    return 0;
}

namespace {

int gBpPeer = -1;
char gRoot[64];
char gCfg[128];

void OpenMux() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
        abort();
    }
    SetFdBlocking(sv[0], false);
    SetFdBlocking(sv[1], false);
    LAPI_SRV_pMuxFdops = CreateFdops(sv[0], LAPI_SRV_MUX_RBUF_SIZE, LAPI_SRV_MUX_WBUF_SIZE);
    if (LAPI_SRV_pMuxFdops == nullptr) {
        abort();
    }
    LAPI_SRV_pMuxFdops->writeProc = LAPI_SRV_GeneralWriteProc;
    LAPI_SRV_pMuxFdops->closeProc = LAPI_SRV_CloseFdops;
    if (gBpPeer >= 0) {
        close(gBpPeer);
    }
    gBpPeer = sv[1];
}

char gFifo[128];
char gRun[96];

/* The private root goes with the process. */
void RemoveRoot() {
    unlink(gFifo);
    rmdir(gRun);
    rmdir(gRoot);
}

void InitOnce() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    LAPI_traceEnabled = 0;
    signal(SIGPIPE, SIG_IGN);
    strcpy(gRoot, "/tmp/fuzz_bp_socket.XXXXXX");
    if (mkdtemp(gRoot) == nullptr) {
        abort();
    }
    HOST_SetRoot(gRoot);
    snprintf(gRun, sizeof(gRun), "%s/run", gRoot);
    snprintf(gFifo, sizeof(gFifo), "%s/run/napi.fifo", gRoot);
    atexit(RemoveRoot);
    /* No configuration file: the default profile is dialled. */
    snprintf(gCfg, sizeof(gCfg), "%s/no.cfg", gRoot);
    LAPI_SRV_cfgFile = gCfg;
    LAPI_SRV_InitGlobals();
    LAPI_SRV_InitBpMsgProc();
    LAPI_SRV_InitBpMsgLogProc();
}

/* Everything the BP was sent is read and dropped; a write buffer that the
 * full channel left busy is flushed. */
void DrainBp() {
    uint8_t buf[4096];
    for (int i = 0; i < 64; ++i) {
        while (read(gBpPeer, buf, sizeof(buf)) > 0) {
        }
        if (LAPI_SRV_pMuxFdops == nullptr || LAPI_SRV_pMuxFdops->wbuf.idx == 0) {
            return;
        }
        LAPI_SRV_GeneralWriteProc(LAPI_SRV_pMuxFdops);
    }
}

void BpMessage(const uint8_t *p, size_t n) {
    if (n == 0) {
        return;
    }
    uint8_t *msg = static_cast<uint8_t *>(malloc(n));
    memcpy(msg, p, n);
    LAPI_SRV_ProcessBpMsg(msg, static_cast<uint16_t>(n));
    free(msg);
}

void LinkRecord(const uint8_t *p, size_t n) {
    Fdops fdops;
    memset(&fdops, 0, sizeof(fdops));
    fdops.fd = -1;
    fdops.rbuf.buf = static_cast<uint8_t *>(malloc(n > 0 ? n : 1));
    if (n > 0) {
        memcpy(fdops.rbuf.buf, p, n);
    }
    fdops.rbuf.len = static_cast<uint16_t>(n);
    fdops.rbuf.idx = static_cast<uint16_t>(n);
    ParseNapiMsg(&fdops);
    free(fdops.rbuf.buf);
}

Fdops *NapiFdops() {
    for (ListNode *pNode = LAPI_SRV_readFdopsList.head; pNode != nullptr; pNode = pNode->next) {
        Fdops *pFdops = static_cast<Fdops *>(pNode->data);
        if (pFdops->readProc == LAPI_SRV_ReadNapiMsg) {
            return pFdops;
        }
    }
    return nullptr;
}

void StandInRecords() {
    Fdops *pNapi = NapiFdops();
    for (int i = 0; i < 32 && pNapi != nullptr && LAPI_BytesInSocket(pNapi->fd) > 0; ++i) {
        LAPI_SRV_ReadNapiMsg(pNapi);
    }
}

void SocketProcs() {
    for (SocketInfo &info : socketInfoTable) {
        if (info.pFdops != nullptr && info.pFdops->readProc != nullptr) {
            info.pFdops->readProc(info.pFdops);
        }
        if (info.pFdops != nullptr && info.pFdops->writeProc != nullptr) {
            info.pFdops->writeProc(info.pFdops);
        }
    }
}

void ResetAll() {
    for (SocketInfo &info : socketInfoTable) {
        LAPI_SRV_CloseSocket(&info);
    }
    for (int link = 1; link < 256; ++link) {
        NAPI_CloseLink(link);
    }
    /* Records nobody asked for are dropped with the sockets they were for. */
    Fdops *pNapi = NapiFdops();
    if (pNapi != nullptr) {
        uint8_t buf[4096];
        while (read(pNapi->fd, buf, sizeof(buf)) > 0) {
        }
    }
    DrainBp();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    InitOnce();
    if (LAPI_SRV_pMuxFdops == nullptr) {
        OpenMux(); /* a failed send to the BP closes the channel */
    }
    size_t pos = 0;
    for (int ops = 0; ops < 64 && pos + 3 <= size; ++ops) {
        uint8_t op = data[pos];
        size_t n = (static_cast<size_t>(data[pos + 1]) << 8) | data[pos + 2];
        pos += 3;
        if (n > size - pos) {
            n = size - pos;
        }
        if (n > LAPI_BP_MSG_MAX_LEN) {
            n = LAPI_BP_MSG_MAX_LEN; /* no frame holds more */
        }
        switch (op % 4) {
            case 0:
                BpMessage(data + pos, n);
                break;
            case 1:
                LinkRecord(data + pos, n);
                break;
            case 2:
                StandInRecords();
                break;
            default:
                SocketProcs();
                break;
        }
        pos += n;
        DrainBp();
    }
    ResetAll();
    for (const SocketInfo &info : socketInfoTable) {
        if (info.fd != 0 || info.pFdops != nullptr || info.sendDataList.count != 0) {
            abort();
        }
    }
    return 0;
}
