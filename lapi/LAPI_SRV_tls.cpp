/*
 * The network proxy's own side: the packet-data link (NAPI), the table of
 * sockets opened for the BP, name resolution, the non-blocking connect,
 * reading and writing a connected socket, closing, and the TLS session.
 *
 * Every socket is found again by its descriptor, its BP link id or its data
 * link handle: pFdInfo of a network socket's Fdops stays null.
 */
#include "LAPI_SRV_tls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_X509v3.h"
#include "LAPI_SrvCli.h"
#include "LAPI_Wire.h"
#include "zelnapi.h"
#include "zelssl.h"

uint8_t LAPI_SRV_napiConnected;

/* Longest rbuf a network socket keeps between reads. */
#define LAPI_SRV_SOCK_RBUF_MAX 1024

/* Link handles at or above this are never closed (nor is handle 0). */
#define LAPI_SRV_NAPI_LINK_LIMIT LAPI_SRV_MAX_SOCKET_NUM

/* ------------------------------------------------------------------------ */
/* Socket table                                                              */
/* ------------------------------------------------------------------------ */

SocketInfo *GetSocketInfoByLinkId(uint32_t linkId) {
    if (linkId == 0) {
        return nullptr;
    }
    LAPI_SRV_TRACE("LINK ID:%d", static_cast<int>(linkId));
    for (int i = 0; i < LAPI_SRV_MAX_SOCKET_NUM; ++i) {
        LAPI_SRV_TRACE("i:%d LINK ID:%d", i, static_cast<int>(socketInfoTable[i].linkId));
        if (socketInfoTable[i].linkId == linkId) {
            LAPI_SRV_TRACE("return &socketInfoTable[i];");
            return &socketInfoTable[i];
        }
    }
    return nullptr;
}

SocketInfo *GetSocketInfoByNapiLink(int napiLink) {
    if (napiLink < 0) {
        return nullptr;
    }
    for (SocketInfo &info : socketInfoTable) {
        if (info.napiLink == napiLink) {
            return &info;
        }
    }
    return nullptr;
}

SocketInfo *GetSocketInfoByFd(int fd) {
    if (fd == 0) {
        return nullptr;
    }
    for (SocketInfo &info : socketInfoTable) {
        if (info.fd == fd) {
            return &info;
        }
    }
    return nullptr;
}

SocketInfo *GetFreeSocketInfo(void) {
    /* Free means fd 0 only: an entry still dialling is handed out again. */
    for (SocketInfo &info : socketInfoTable) {
        if (info.fd == 0) {
            return &info;
        }
    }
    return nullptr;
}

/* ------------------------------------------------------------------------ */
/* Data link                                                                 */
/* ------------------------------------------------------------------------ */

int Connect2Napi(void) {
    LAPI_SRV_TRACE("Enter Connect2Napi");
    int fd = NAPI_Init(LAPI_SRV_NAPI_INIT_MODE);
    if (fd < 0) {
        LAPI_SRV_TRACE("Failed to connect to NAPI");
        return -1;
    }
    SetFdBlocking(fd, false);
    Fdops *pFdops = LAPI_SRV_NewFdops(fd, NAPI_NOTIFY_MSG_LEN, 0, LAPI_SRV_ReadNapiMsg, nullptr,
                                      LAPI_SRV_CloseFdops);
    if (pFdops == nullptr) {
        NAPI_Fini();
        LAPI_SRV_TRACE("Aha, CreateFdops failed");
        return -1;
    }
    LAPI_SRV_napiConnected = 1;
    return fd;
}

int OpenNapiLink(void) {
    /* Read afresh on every dial: the profile may change without a restart. */
    char *pProfile = get_entry_value(LAPI_SRV_cfgFile, "AGPSProfileName");
    LAPI_SRV_TRACE("AGPSProfileName = %s", pProfile != nullptr ? pProfile : "(null)");
    int napiLink = NAPI_OpenLink(pProfile != nullptr ? pProfile : LAPI_SRV_DEFAULT_PROFILE);
    LAPI_SRV_TRACE("napiLink is %d", napiLink);
    free(pProfile);
    return napiLink;
}

void LAPI_SRV_ReadNapiMsg(Fdops *pFdops) {
    if (pFdops == nullptr || pFdops->rbuf.buf == nullptr || pFdops->rbuf.len == 0) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return;
    }
    if (LAPI_SRV_GeneralRead(pFdops) < 0) {
        LAPI_SRV_ERR("Fail to general read for pFdops!");
        pFdops->rbuf.idx = 0;
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        return;
    }
    if (ParseNapiMsg(pFdops) < 0) {
        LAPI_SRV_ERR("Fail to process message for pFdops!");
    }
    /* A partial record is never completed by the next read: it is dropped. */
    pFdops->rbuf.idx = 0;
}

int ParseNapiMsg(Fdops *pFdops) {
    if (pFdops == nullptr || pFdops->rbuf.buf == nullptr) {
        return -1;
    }
    if (pFdops->rbuf.idx != NAPI_NOTIFY_MSG_LEN || pFdops->rbuf.len < NAPI_NOTIFY_MSG_LEN) {
        LAPI_SRV_ERR("msg len is not sizeof NAPI_NOTIFY_MSG_S");
        return -1;
    }
    LAPI_Reader r(pFdops->rbuf.buf, NAPI_NOTIFY_MSG_LEN);
    uint16_t msgId = 0;
    uint8_t linkId = 0;
    char name[NAPI_NOTIFY_NAME_LEN + 1];
    uint16_t maincode = 0;
    uint16_t subcode = 0;
    if (r.GetHost16(&msgId) != 0 || r.GetU8(&linkId) != 0 || r.Skip(1) != 0 ||
        r.GetBytes(name, NAPI_NOTIFY_NAME_LEN) != 0 || r.GetHost16(&maincode) != 0 ||
        r.GetHost16(&subcode) != 0) {
        LAPI_SRV_ERR("msg len is not sizeof NAPI_NOTIFY_MSG_S");
        return -1;
    }
    /* The name is text from another party: never trust its terminator. */
    name[NAPI_NOTIFY_NAME_LEN] = '\0';
    LAPI_SRV_TRACE("msg id is %d", msgId);
    LAPI_SRV_TRACE("name is %s", name);
    LAPI_SRV_TRACE("linkId is %d", linkId);
    LAPI_SRV_TRACE("maincode is %d", maincode);
    LAPI_SRV_TRACE("subcode is %d", subcode);

    SocketInfo *pSocketInfo = GetSocketInfoByNapiLink(linkId);
    if (pSocketInfo == nullptr) {
        LAPI_SRV_TRACE("ParseNapiMsg: NO available pSocketInfo found!");
        pFdops->rbuf.idx = 0;
        return -1;
    }

    /* The outcome of a dial counts only while the entry waits for it. A
     * record that arrives later (its link handle closed and handed out again
     * to this entry, or a second record for one dial) would otherwise open a
     * second socket over the first one, which nothing could close again. */
    if ((msgId == NAPI_RESULT_SUCCESS_MSGID || msgId == NAPI_RESULT_FAIL_MSGID) &&
        pSocketInfo->pFdops != nullptr) {
        LAPI_SRV_TRACE("ParseNapiMsg: linkId %d has its socket already, msg id %d ignored",
                       static_cast<int>(pSocketInfo->linkId), msgId);
        return 0;
    }

    switch (msgId) {
        case NAPI_RESULT_SUCCESS_MSGID: {
            LAPI_SRV_TRACE("NAPI_RESULT_SUCCESS_MSGID received");
            uint8_t ip[4] = {0, 0, 0, 0};
            uint16_t port = 0;
            int ret = GetHostInfo(pSocketInfo, pSocketInfo->linkId, ip, &port);
            if (ret < 0) {
                LAPI_SRV_ERR("GetHostInfo() error!");
                pFdops->rbuf.idx = 0;
            } else {
                ret = Connect2Server(ip, port, pSocketInfo);
                LAPI_SRV_TRACE("Connect2Server return %d", ret);
            }
            if (ret < 0) {
                LAPI_SRV_ERR("GetHostInfo or Connnect2Server fail");
                LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, pSocketInfo->sessionId,
                                       pSocketInfo->transactionId, pSocketInfo->linkId, -1);
                LAPI_SRV_CloseSocket(pSocketInfo);
            }
            break;
        }
        case NAPI_RESULT_FAIL_MSGID:
            LAPI_SRV_TRACE("NAPI_RESULT_FAIL_MSGID received");
            if (pSocketInfo->dialCount < LAPI_SRV_MAX_REDIAL) {
                pSocketInfo->dialCount++;
                NAPI_CloseLink(pSocketInfo->napiLink);
                pSocketInfo->napiLink = OpenNapiLink();
                LAPI_SRV_TRACE("retry dial gprs %d time", pSocketInfo->dialCount);
            } else {
                LAPI_SRV_TRACE("has tried to dial gprs four times totally");
                LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, pSocketInfo->sessionId,
                                       pSocketInfo->transactionId, pSocketInfo->linkId, -1);
                LAPI_SRV_CloseSocket(pSocketInfo);
            }
            break;
        case NAPI_LINK_LOST_MSGID:
            /* The BP learns that the connection is gone. */
            LAPI_SRV_SendSocketDataInd(0, 0, pSocketInfo->linkId, 0, nullptr, -1);
            LAPI_SRV_CloseSocket(pSocketInfo);
            break;
        default:
            break;
    }
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Name resolution and connect                                               */
/* ------------------------------------------------------------------------ */

int GetHostInfo(const SocketInfo *pAddr, uint32_t linkId, uint8_t *pIpv4, uint16_t *pPort) {
    LAPI_SRV_TRACE("Enter GetHostInfo:%d", static_cast<int>(linkId));
    if (pAddr == nullptr || pIpv4 == nullptr || pPort == nullptr) {
        return -1;
    }
    *pPort = pAddr->port;
    if (pAddr->addrType == LAPI_SRV_ADDR_IPV4) {
        memcpy(pIpv4, pAddr->address, 4);
        return 1;
    }
    if (pAddr->addrType != LAPI_SRV_ADDR_FQDN) {
        return -1;
    }
    /* The table keeps a NUL within the field; a copy makes sure of it. */
    char name[LAPI_SRV_SOCK_ADDR_LEN];
    memcpy(name, pAddr->address, sizeof(name));
    name[sizeof(name) - 1] = '\0';
    LAPI_SRV_TRACE("DNS Name : %s", name);
    /* The one thread blocks while the resolver is retried: as designed. */
    struct hostent *pHost = gethostbyname(name);
    for (int retries = 0;
         pHost == nullptr && h_errno == TRY_AGAIN && retries < LAPI_SRV_DNS_MAX_RETRY; ++retries) {
        sleep(LAPI_SRV_DNS_RETRY_SEC);
        pHost = gethostbyname(name);
    }
    if (pHost == nullptr || pHost->h_addr_list == nullptr || pHost->h_addr_list[0] == nullptr ||
        pHost->h_length < 4) {
        LAPI_SRV_ERR("Can not get host by name");
        return -1;
    }
    /* Only IPv4 is asked for: four bytes are all the caller has room for.
     * The host resolver's record is static storage and is not freed. */
    memcpy(pIpv4, pHost->h_addr_list[0], 4);
    return 1;
}

/* Procedures of a connected network socket. */
static void SetConnectedProcs(Fdops *pFdops) {
    LAPI_SRV_SetFdopsProcs(pFdops, LAPI_SRV_ReadNetworkMsg, LAPI_SRV_WriteNetworkMsg,
                           LAPI_SRV_CloseSocketFdops);
}

int Connect2Server(const uint8_t *pIpv4, uint16_t port, SocketInfo *pSocketInfo) {
    LAPI_SRV_TRACE("Enter Connect2Server");
    if (pIpv4 == nullptr || pSocketInfo == nullptr) {
        return -1;
    }
    char dotted[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, pIpv4, dotted, sizeof(dotted));
    LAPI_SRV_TRACE("Connect to server, ip: %s, port: %d", dotted, port);

    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        LAPI_SRV_ERR("socket fail");
        return -1;
    }
    NAPI_BindSocket2Link(fd, pSocketInfo->napiLink);
    if (SetFdBlocking(fd, false) < 0) {
        int err = errno;
        LAPI_SRV_ERR("Fail to set non-block fd, errno : %d, %s", err, strerror(err));
    }
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    memcpy(&addr.sin_addr, pIpv4, 4);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0) {
        LAPI_SRV_TRACE("connect in async mode");
        pSocketInfo->fdStatus = LAPI_SRV_SOCK_CONNECTED;
        LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, pSocketInfo->sessionId,
                               pSocketInfo->transactionId, pSocketInfo->linkId, 0);
    } else if (errno == EINPROGRESS) {
        pSocketInfo->fdStatus = LAPI_SRV_SOCK_CONNECTING;
        LAPI_SRV_TRACE("connect to server in background");
    } else {
        int err = errno;
        CloseFd(fd);
        LAPI_SRV_TRACE("Failed to connect to the server");
        LAPI_SRV_TRACE("errno is %d, reason is %s", err, strerror(err));
        return -1;
    }

    const bool bConnected = pSocketInfo->fdStatus == LAPI_SRV_SOCK_CONNECTED;
    Fdops *pFdops = LAPI_SRV_NewFdops(
        fd, LAPI_SRV_SOCK_RBUF_SIZE, LAPI_SRV_SOCK_WBUF_SIZE,
        bConnected ? LAPI_SRV_ReadNetworkMsg : LAPI_SRV_WaitConnectRes,
        bConnected ? LAPI_SRV_WriteNetworkMsg : LAPI_SRV_WaitConnectRes, LAPI_SRV_CloseSocketFdops);
    if (pFdops == nullptr) {
        LAPI_SRV_TRACE("Aha, CreateFdops failed");
        memset(pSocketInfo, 0, sizeof(*pSocketInfo));
        /* The entry no longer knows the descriptor: closed here, not leaked. */
        CloseFd(fd);
        LAPI_SRV_TRACE("CrateFdops fail!");
        return -1;
    }
    if (!bConnected) {
        LAPI_SRV_AddFdopsWriteList(pFdops);
    }
    pSocketInfo->fd = fd;
    pSocketInfo->pFdops = pFdops;
    return fd;
}

/* The socket entry behind the descriptor a procedure was called for, with
 * the lines of that procedure's prologue written in its own name; null
 * (after the error line) when there is none. */
static SocketInfo *SocketOfProc(Fdops *pFdops, const char *func, int line) {
    if (pFdops == nullptr) {
        LAPI_LogLine(1, 1, __FILE__, line, func, "pFdops is NULL!");
        return nullptr;
    }
    LAPI_LogLine(1, 0, __FILE__, line, func, "pFdops->fd is %d", pFdops->fd);
    SocketInfo *pSocketInfo = GetSocketInfoByFd(pFdops->fd);
    if (pSocketInfo == nullptr) {
        LAPI_LogLine(1, 1, __FILE__, line, func, "pSocketInfo is NULL!");
    }
    return pSocketInfo;
}

void LAPI_SRV_WaitConnectRes(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_WaitConnectRes");
    SocketInfo *pSocketInfo = SocketOfProc(pFdops, __func__, __LINE__);
    if (pSocketInfo == nullptr) {
        return;
    }
    if (pSocketInfo->fdStatus != LAPI_SRV_SOCK_CONNECTING) {
        LAPI_SRV_ERR("pSocketInfo->fdStatus is not connecting");
        return;
    }
    int soError = -1;
    socklen_t len = sizeof(soError);
    if (getsockopt(pFdops->fd, SOL_SOCKET, SO_ERROR, &soError, &len) == 0 && soError == 0) {
        LAPI_SRV_TRACE("Non-block socket, succeed to connect to the network!");
        LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, pSocketInfo->sessionId,
                               pSocketInfo->transactionId, pSocketInfo->linkId, 0);
        pSocketInfo->fdStatus = LAPI_SRV_SOCK_CONNECTED;
        SetConnectedProcs(pFdops);
        /* Data that the BP sent while the connect was under way waits in
         * wbuf: the socket stays on the write list until it is written. */
        if (pFdops->wbuf.idx == 0) {
            LAPI_SRV_RemoveFdopsWriteList(pFdops);
        }
        return;
    }
    LAPI_SRV_TRACE("Non-block socket, failed to connect to the network!");
    LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, pSocketInfo->sessionId, pSocketInfo->transactionId,
                           pSocketInfo->linkId, -1);
    if (pFdops->closeProc != nullptr) {
        pFdops->closeProc(pFdops);
    }
}

/* ------------------------------------------------------------------------ */
/* TLS session                                                               */
/* ------------------------------------------------------------------------ */

/* The suites offered, in this order. The export and NULL suites are part of
 * the handset's list and stay in it. */
static constexpr uint16_t kTlsCipherSuites[] = {
    0x0048, /* elliptic-curve suite of the library's numbering */
    0xFF85, /* the library's private suite */
    0x0004, /* TLS_RSA_WITH_RC4_128_MD5 */
    0x0003, /* TLS_RSA_EXPORT_WITH_RC4_40_MD5 */
    0x0047, /* elliptic-curve suite of the library's numbering */
    0x0001, /* TLS_RSA_WITH_NULL_MD5 */
    0x002F, /* TLS_RSA_WITH_AES_128_CBC_SHA */
    0x0002, /* TLS_RSA_WITH_NULL_SHA */
    0x000A, /* TLS_RSA_WITH_3DES_EDE_CBC_SHA */
};
static_assert(sizeof(kTlsCipherSuites) == 18, "the suite list is one 18-byte TLS buffer");

/* The buffer the subject's common name is extracted into. */
#define LAPI_SRV_COMMON_NAME_LEN 80

/* One TLSWrite of the whole buffer; 0 counts as everything written. */
static int TlsWriteAll(SocketInfo *pSocketInfo, const uint8_t *pBuf, int count) {
    TLSBuffer buffer = {static_cast<uint32_t>(count), const_cast<uint8_t *>(pBuf)};
    uint32_t written = 0;
    return TLSWrite(pSocketInfo->pTlsContext, &buffer, &written);
}

/* Reads up to room bytes into pBuf; *pCount gets the bytes read. Returns
 * the TLS library's result (0 data read, TLS_RESULT_WOULD_BLOCK, other). */
static int TlsReadSome(SocketInfo *pSocketInfo, uint8_t *pBuf, int room, int *pCount) {
    TLSBuffer buffer = {static_cast<uint32_t>(room), pBuf};
    uint32_t count = 0;
    int ret = TLSRead(pSocketInfo->pTlsContext, &buffer, &count);
    *pCount = static_cast<int>(count <= static_cast<uint32_t>(room) ? count : 0);
    return ret;
}

int LAPI_SRV_TLSRead(TLSBuffer *pBuffer, uint32_t *pCount, void *pRef) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_TLSRead");
    SocketInfo *pSocketInfo = static_cast<SocketInfo *>(pRef);
    if (pSocketInfo == nullptr || pBuffer == nullptr || pCount == nullptr ||
        (pBuffer->data == nullptr && pBuffer->length != 0)) {
        LAPI_SRV_ERR("pSocketInfo is NULL!");
        return TLS_RESULT_IO_ERROR;
    }
    LAPI_SRV_TRACE("buffer.length = %d", static_cast<int>(pBuffer->length));
    uint32_t count = 0;
    int result = 0;
    while (count < pBuffer->length) {
        ssize_t ret = read(pSocketInfo->fd, pBuffer->data + count, pBuffer->length - count);
        if (ret > 0) {
            count += static_cast<uint32_t>(ret);
            LAPI_SRV_TRACE("ret > 0, count = %d, ret = %d", static_cast<int>(count),
                           static_cast<int>(ret));
            continue;
        }
        if (ret == 0) {
            LAPI_SRV_ERR("ret == 0, Read %d byte!", static_cast<int>(count));
            result = count > 0 ? TLS_RESULT_IO_ERROR : TLS_RESULT_CLOSED;
            break;
        }
        int err = errno;
        LAPI_SRV_ERR("ret < 0, errno is %d, %s", err, strerror(err));
        if (err == EINTR) {
            continue;
        }
        if (err == EAGAIN || err == EWOULDBLOCK) {
            result = count == 0 ? TLS_RESULT_WOULD_BLOCK : TLS_RESULT_OK;
            break;
        }
        LAPI_SRV_ERR("Fail to read, errno is: %d, %s", err, strerror(err));
        result = TLS_RESULT_IO_ERROR;
        break;
    }
    *pCount = count;
    if (count == pBuffer->length) {
        LAPI_SRV_TRACE("return no err %d, %d", static_cast<int>(pBuffer->length),
                       static_cast<int>(count));
    }
    if (count > 0) {
        LAPI_DebugHex(pBuffer->data, static_cast<int>(count), 1);
    }
    return result;
}

int LAPI_SRV_TLSWrite(TLSBuffer *pBuffer, uint32_t *pCount, void *pRef) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_TLSWrite");
    SocketInfo *pSocketInfo = static_cast<SocketInfo *>(pRef);
    if (pSocketInfo == nullptr || pBuffer == nullptr || pCount == nullptr ||
        (pBuffer->data == nullptr && pBuffer->length != 0)) {
        LAPI_SRV_ERR("pSocketInfo is NULL!");
        return TLS_RESULT_IO_ERROR;
    }
    LAPI_DebugHex(pBuffer->data, static_cast<int>(pBuffer->length), 1);
    uint32_t count = 0;
    while (count < pBuffer->length) {
        ssize_t ret = write(pSocketInfo->fd, pBuffer->data + count, pBuffer->length - count);
        if (ret > 0) {
            count += static_cast<uint32_t>(ret);
            LAPI_SRV_TRACE("ret > 0, count = %d, ret = %d", static_cast<int>(count),
                           static_cast<int>(ret));
            continue;
        }
        if (ret == 0) {
            /* The out count is left as it is. */
            LAPI_SRV_ERR("ret == 0, write %d byte!", static_cast<int>(count));
            return count > 0 ? TLS_RESULT_CLOSED : TLS_RESULT_IO_ERROR;
        }
        int err = errno;
        if (err == EINTR) {
            continue;
        }
        if (err == EAGAIN || err == EWOULDBLOCK) {
            break; /* a short success: the library offers the rest again */
        }
        /* The read callback's wording, kept for the write. */
        LAPI_SRV_ERR("Fail to read, errno is: %d, %s", err, strerror(err));
        return TLS_RESULT_IO_ERROR;
    }
    *pCount = count;
    return TLS_RESULT_OK;
}

int LAPI_SRV_TLSRandomCallback(TLSBuffer *pRandom, void * /*pRef*/) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_TLSRandomCallback");
    TLSBuffer seed = {0, nullptr};
    return TLSGenerateRandom(&seed, pRandom, 0);
}

int LAPI_SRV_AlertFunc(uint8_t /*level*/, uint8_t /*description*/, void * /*pRef*/) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_AlertFunc");
    return 0;
}

void LAPI_SRV_FoldTwoByteText(uint8_t *pText, uint32_t *pLength) {
    uint32_t length = *pLength;
    /* A one-byte name is never two-byte text. */
    if (length < 2) {
        return;
    }
    LAPI_Reader r(pText, length);
    uint8_t b0 = 0;
    uint8_t b1 = 0;
    r.GetU8(&b0);
    r.GetU8(&b1);
    uint32_t first;
    if (b0 == 0) {
        first = 1; /* big-endian: the low byte comes second */
    } else if (b1 == 0) {
        first = 0;
    } else {
        return;
    }
    /* Folded in place: character i is written at i, after its two bytes at
     * 2i and 2i + 1 (never before i) have been read. */
    uint32_t half = length / 2;
    r = LAPI_Reader(pText, 2 * half);
    LAPI_Writer w(pText, half);
    uint8_t c0 = 0;
    uint8_t c1 = 0;
    while (r.GetU8(&c0) == 0 && r.GetU8(&c1) == 0) {
        w.PutU8(first == 0 ? c0 : c1);
    }
    *pLength = half;
}

int LAPI_SRV_CheckSubCommonName(const TLSBuffer *pCertificate, const char *serverName) {
    if (pCertificate == nullptr || pCertificate->data == nullptr || serverName == nullptr) {
        LAPI_SRV_ERR("TLSExtractCertificateNameItem : %d", -1);
        return LAPI_SRV_FQDN_NO_MATCH;
    }
    /* The DER is not text: shown up to its first zero byte, never past it. */
    const void *pZero = memchr(pCertificate->data, 0, pCertificate->length);
    int shown = pZero != nullptr
                    ? static_cast<int>(static_cast<const uint8_t *>(pZero) - pCertificate->data)
                    : static_cast<int>(pCertificate->length);
    LAPI_SRV_TRACE("certificate len:%d data:%.*s", static_cast<int>(pCertificate->length), shown,
                   reinterpret_cast<const char *>(pCertificate->data));

    /* The library gets 80 bytes; one more byte behind them holds the
     * terminator of a one-byte name of all 80. A longer name is refused by
     * the library, never cut (a cut name could match a name it is not). */
    uint8_t commonName[LAPI_SRV_COMMON_NAME_LEN + 1];
    memset(commonName, 0, sizeof(commonName));
    TLSBuffer name = {LAPI_SRV_COMMON_NAME_LEN, commonName};
    int ret = TLSExtractCertificateNameItem(pCertificate, 0, &name);
    if (ret != 0 || name.length > LAPI_SRV_COMMON_NAME_LEN) {
        LAPI_SRV_ERR("TLSExtractCertificateNameItem : %d", ret);
        return LAPI_SRV_FQDN_NO_MATCH;
    }
    uint32_t length = name.length;
    LAPI_SRV_FoldTwoByteText(commonName, &length);
    commonName[length] = '\0';
    LAPI_SRV_TRACE("CommonName length: %d", static_cast<int>(length));
    LAPI_SRV_TRACE("CommonName: %s", reinterpret_cast<char *>(commonName));

    /* The first label of both names is ignored: any host of the server's
     * parent domain passes, a wildcard common name included. */
    const char *pCnRest = strchr(reinterpret_cast<char *>(commonName), '.');
    const char *pServerRest = strchr(serverName, '.');
    if (pCnRest == nullptr || pServerRest == nullptr || strcmp(pCnRest + 1, pServerRest + 1) != 0) {
        LAPI_SRV_TRACE("certificate name does not match server name ");
        return LAPI_SRV_FQDN_NO_MATCH;
    }
    return LAPI_SRV_FQDN_MATCH;
}

int LAPI_SRV_CheckCertChainFunc(TLSContext * /*pCtx*/, const TLSBuffer *pCertificate,
                                uint32_t /*chainLength*/, int32_t chainResult, uint8_t chainTrusted,
                                void *pRef) {
    LAPI_SRV_TRACE("chainResult:%d,  chainTrusted:%d", static_cast<int>(chainResult), chainTrusted);
    SocketInfo *pSocketInfo = static_cast<SocketInfo *>(pRef);
    if (chainResult != 0 || chainTrusted == 0 || pSocketInfo == nullptr) {
        return LAPI_SRV_FQDN_NO_MATCH;
    }
    LAPI_SRV_TRACE("Enter LAPI_SRV_CheckCertChainFunc");
    if (LAPI_SRV_CheckSubCommonName(pCertificate, pSocketInfo->serverName) == 0) {
        return 0;
    }
    if (LAPI_SRV_CheckFQDN(pCertificate, pSocketInfo->serverName) == 0) {
        return 0;
    }
    return LAPI_SRV_FQDN_NO_MATCH;
}

/* A set-up step failed: the session goes, the socket stays open and plain. */
static int FailTlsSetup(SocketInfo *pSocketInfo) {
    LAPI_SRV_CloseTlsSession(pSocketInfo);
    return LAPI_SRV_TLS_SETUP_FAILED;
}

/* The negotiated suite and version, traced after a handshake ended, in the
 * name of the procedure that ran it. */
static void TraceNegotiated(SocketInfo *pSocketInfo, const char *func, int line) {
    LAPI_LogLine(1, 0, LAPI_LOG_FILE, line, func, "Negotiated cipher is : %d.",
                 TLSGetNegotiatedCipher(pSocketInfo->pTlsContext));
    LAPI_LogLine(1, 0, LAPI_LOG_FILE, line, func, "Negotiated protocol version is : %d.",
                 TLSGetProtocolVersion(pSocketInfo->pTlsContext));
}

/* The handshake failed: the BP hears result 2 and the socket is closed.
 * The line is written in the name of the procedure that ran it. */
static void FailTlsHandshake(SocketInfo *pSocketInfo, int ret, const char *func, int line) {
    LAPI_LogLine(
        1, 0, LAPI_LOG_FILE, line, func, "%s",
        ret == TLS_RESULT_READ_OVERFLOW ? "Read buffer overflow" : "TLShandshake -- Failure");
    pSocketInfo->fdStatus = LAPI_SRV_SOCK_UNATTACHED;
    LAPI_SRV_SendTLSRes(pSocketInfo->sessionId, pSocketInfo->transactionId, pSocketInfo->linkId,
                        LAPI_SRV_TLS_HANDSHAKE_FAILED);
    LAPI_SRV_CloseSocket(pSocketInfo);
}

int LAPI_SRV_CreateTlsSession(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                              const char *pFqdn, int fqdnLength) {
    LAPI_SRV_TRACE("Entering SSLOpen ");
    if (fqdnLength == 0) {
        return LAPI_SRV_TLS_HANDSHAKE_FAILED; /* no answer at all */
    }
    SocketInfo *pSocketInfo = GetSocketInfoByLinkId(linkId);
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("pSocketInfo == NULL");
        return LAPI_SRV_TLS_SETUP_FAILED;
    }
    /* TLS goes only on a connected socket without a session: on a socket
     * still dialling or connecting there is no descriptor to run it on, and
     * a second session would orphan the first one's context. */
    if (pSocketInfo->fdStatus != LAPI_SRV_SOCK_CONNECTED || pSocketInfo->pFdops == nullptr ||
        pSocketInfo->pTlsContext != nullptr) {
        LAPI_SRV_ERR("socket not ready for TLS, status %d, session %s", pSocketInfo->fdStatus,
                     pSocketInfo->pTlsContext != nullptr ? "present" : "absent");
        return LAPI_SRV_TLS_SETUP_FAILED;
    }
    if (pFqdn == nullptr || fqdnLength < 0 || fqdnLength >= LAPI_SRV_SOCK_NAME_LEN) {
        LAPI_SRV_ERR("fqdnLength: %d does not fit serverName", fqdnLength);
        return LAPI_SRV_TLS_SETUP_FAILED;
    }
    pSocketInfo->sessionId = sessionId;
    pSocketInfo->transactionId = transactionId;
    memcpy(pSocketInfo->serverName, pFqdn, static_cast<size_t>(fqdnLength));
    pSocketInfo->serverName[fqdnLength] = '\0';

    TLSContext *pCtx = static_cast<TLSContext *>(CD_malloc(TLSContextSize(), 0));
    if (pCtx == nullptr) {
        LAPI_SRV_ERR("Could not allocate TLSContext");
        return LAPI_SRV_TLS_SETUP_FAILED;
    }
    if (TLSInitContext(pCtx, TLSContextSize(), 0) != 0) {
        CD_free(pCtx, 0);
        return LAPI_SRV_TLS_SETUP_FAILED;
    }
    CM_CONTEXT_T cmContext = 0;
    int ret = TLSInitCMContext(pCtx, &cmContext);
    if (ret != 0) {
        LAPI_SRV_ERR("Could not init CMContext is %d", ret);
        TLSDeleteContext(pCtx);
        CD_free(pCtx, 0);
        return LAPI_SRV_TLS_SETUP_FAILED;
    }
    pSocketInfo->pTlsContext = pCtx;
    pSocketInfo->cmContext = cmContext;
    LAPI_SRV_TRACE("TLSInitContext & TLSInitCMContext completed ");

    if ((ret = TLSEnableNonBlocking(pCtx)) != 0) {
        LAPI_SRV_ERR("Could not enable non-blocking IO is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    LAPI_SRV_TRACE("TLSEnableNonBlocking completed ");
    if ((ret = TLSSetRandomFunc(pCtx, LAPI_SRV_TLSRandomCallback)) != 0) {
        LAPI_SRV_ERR("Could not set random callback is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetRandomRef(pCtx, pSocketInfo)) != 0) {
        LAPI_SRV_ERR("Could not set random reference is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetReadFunc(pCtx, LAPI_SRV_TLSRead)) != 0) {
        LAPI_SRV_ERR("Could not set read callback is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetIORef(pCtx, pSocketInfo)) != 0) {
        LAPI_SRV_ERR("Could not set I/O reference is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetWriteFunc(pCtx, LAPI_SRV_TLSWrite)) != 0) {
        LAPI_SRV_ERR("Could not set write callback is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetAlertFunc(pCtx, LAPI_SRV_AlertFunc)) != 0) {
        LAPI_SRV_ERR("Could not set alert callback is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetAlertRef(pCtx, pSocketInfo)) != 0) {
        LAPI_SRV_ERR("Could not set alert reference is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    TLSBuffer suites = {sizeof(kTlsCipherSuites),
                        reinterpret_cast<uint8_t *>(const_cast<uint16_t *>(kTlsCipherSuites))};
    if ((ret = TLSSetCipherSuites(pCtx, &suites)) != 0) {
        LAPI_SRV_ERR("Could not set cipher suites is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetCheckCertificateChainFunc(pCtx, LAPI_SRV_CheckCertChainFunc)) != 0) {
        LAPI_SRV_ERR("Could not set cert chain callback is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetCheckCertificateChainRef(pCtx, pSocketInfo)) != 0) {
        LAPI_SRV_ERR("Could not set cert chain reference %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetProtocolVersion(pCtx, TLS_VERSION_1_0)) != 0) {
        /* The previous step's wording, two blanks included, on purpose. */
        LAPI_SRV_ERR("Could not  set cert chain reference %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    if ((ret = TLSSetOption(pCtx, TLS_OPTION_NO_ENFORCE_BASIC_CONSTRAINTS)) != 0) {
        LAPI_SRV_ERR("Could not set option option_tls_no_enforce_basic_constraints is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    LAPI_SRV_TRACE("TLSSetOption certificates completed");
    if ((ret = TLSAddRootCertificates(pCtx, &pSocketInfo->cmContext)) != 0) {
        LAPI_SRV_ERR("fail to load certs is %d", ret);
        return FailTlsSetup(pSocketInfo);
    }
    LAPI_SRV_TRACE("TLSAddRootCertificates completed");
    LAPI_SRV_TRACE("Starting TLShandshake");

    ret = TLSHandshake(pCtx);
    if (ret == TLS_RESULT_WOULD_BLOCK) {
        pSocketInfo->fdStatus = LAPI_SRV_SOCK_TLS_HANDSHAKE;
        LAPI_SRV_SetFdopsProcs(pSocketInfo->pFdops, LAPI_SRV_DoTlsHandshake,
                               LAPI_SRV_DoTlsHandshake, LAPI_SRV_CloseSocketFdops);
        return LAPI_SRV_TLS_IN_PROGRESS;
    }
    TraceNegotiated(pSocketInfo, __func__, __LINE__);
    if (ret == TLS_RESULT_OK || ret == TLS_RESULT_CLOSED) {
        pSocketInfo->bIsTlsSession = 1;
        LAPI_SRV_TRACE("TLShandshake -- Successfull");
        return LAPI_SRV_TLS_DONE;
    }
    FailTlsHandshake(pSocketInfo, ret, __func__, __LINE__);
    return LAPI_SRV_TLS_HANDSHAKE_FAILED;
}

void LAPI_SRV_DoTlsHandshake(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_DoTlsHandshake");
    SocketInfo *pSocketInfo = SocketOfProc(pFdops, __func__, __LINE__);
    if (pSocketInfo == nullptr) {
        return;
    }
    LAPI_SRV_TRACE("pSocketInfo->fdStatus is %d", pSocketInfo->fdStatus);
    if (pSocketInfo->fdStatus != LAPI_SRV_SOCK_TLS_HANDSHAKE ||
        pSocketInfo->pTlsContext == nullptr) {
        return;
    }
    int ret = TLSHandshake(pSocketInfo->pTlsContext);
    if (ret == TLS_RESULT_WOULD_BLOCK) {
        return; /* the next readiness of the socket goes on */
    }
    TraceNegotiated(pSocketInfo, __func__, __LINE__);
    if (ret == TLS_RESULT_OK || ret == TLS_RESULT_CLOSED) {
        pSocketInfo->fdStatus = LAPI_SRV_SOCK_CONNECTED;
        pSocketInfo->bIsTlsSession = 1;
        LAPI_SRV_TRACE("TLShandshake -- Successfull");
        SetConnectedProcs(pFdops);
        LAPI_SRV_SendTLSRes(pSocketInfo->sessionId, pSocketInfo->transactionId, pSocketInfo->linkId,
                            LAPI_SRV_TLS_DONE);
        return;
    }
    FailTlsHandshake(pSocketInfo, ret, __func__, __LINE__);
}

int LAPI_SRV_CloseTlsSession(SocketInfo *pSocketInfo) {
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("pSocketInfo NULL");
        return -1;
    }
    LAPI_SRV_TRACE("Enter LAPI_SRV_CloseTlsSession");
    pSocketInfo->bIsTlsSession = 0;
    TLSContext *pCtx = pSocketInfo->pTlsContext;
    if (pCtx != nullptr) {
        TLSClose(pCtx);
        TLSDeleteCMContext(pCtx, &pSocketInfo->cmContext);
        TLSDeleteContext(pCtx);
        CD_free(pCtx, 0);
        pSocketInfo->pTlsContext = nullptr;
    }
    pSocketInfo->cmContext = 0;
    return 0;
}

int LAPI_SRV_WaitBufReady(int fd) {
    if (fd < 0 || fd >= FD_SETSIZE) {
        return -1;
    }
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(fd, &readSet);
    int num = select(fd + 1, &readSet, nullptr, nullptr, nullptr);
    LAPI_SRV_TRACE("NUM : %d", num);
    if (num <= 0 || !FD_ISSET(fd, &readSet)) {
        return -1;
    }
    int nbytes = 0;
    if (ioctl(fd, FIONREAD, &nbytes) != 0) {
        return -1;
    }
    LAPI_SRV_TRACE("nbytes:%d", nbytes);
    return 1;
}

/* ------------------------------------------------------------------------ */
/* Connected sockets                                                         */
/* ------------------------------------------------------------------------ */

/* The socket failed while writing: tell the BP and close it. */
static void FailNetworkWrite(Fdops *pFdops, SocketInfo *pSocketInfo) {
    pSocketInfo->fdStatus = LAPI_SRV_SOCK_UNATTACHED;
    pFdops->wbuf.idx = 0;
    LAPI_SRV_RemoveFdopsWriteList(pFdops);
    LAPI_SRV_SendSocketRes(SEND_DATA_APBP_RES, pSocketInfo->sessionId, pSocketInfo->transactionId,
                           pSocketInfo->linkId, -1);
    if (pFdops->closeProc != nullptr) {
        pFdops->closeProc(pFdops);
    }
}

void LAPI_SRV_WriteNetworkMsg(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_WriteNetworkMsg");
    if (pFdops == nullptr) {
        LAPI_SRV_ERR("pFdops == NULL!");
        return;
    }
    FdBuf *pW = &pFdops->wbuf;
    if (pW->buf == nullptr || pW->idx > pW->len) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return;
    }
    SocketInfo *pSocketInfo = GetSocketInfoByFd(pFdops->fd);
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("Failed to get socket information");
        return;
    }
    if (pSocketInfo->fdStatus != LAPI_SRV_SOCK_CONNECTED) {
        LAPI_SRV_ERR("socket status wrong, still unconnected");
        return;
    }
    /* The buffer holds bytes, not text: never print past what it holds. */
    LAPI_SRV_TRACE("WRITE NETWORK:%.*s", static_cast<int>(pW->idx), pW->buf);

    int pending = pW->idx;
    int done = 0;
    if (pSocketInfo->bIsTlsSession) {
        int ret = TlsWriteAll(pSocketInfo, pW->buf, pending);
        if (ret != 0) {
            LAPI_SRV_TRACE("Failed to TLS_SessionWrite, error is %d", ret);
            FailNetworkWrite(pFdops, pSocketInfo);
            return;
        }
        done = pending;
    } else {
        while (done < pending) {
            LAPI_SRV_TRACE("before write %d %.*s", pending - done, pending - done, pW->buf + done);
            ssize_t n = write(pFdops->fd, pW->buf + done, static_cast<size_t>(pending - done));
            if (n > 0) {
                done += static_cast<int>(n);
                LAPI_SRV_TRACE("after write %d %.*s", static_cast<int>(n), pending - done,
                               pW->buf + done);
            } else if (n == 0) {
                break;
            } else if (errno == EINTR) {
                continue;
            } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            } else {
                int err = errno;
                LAPI_SRV_ERR("Fail to write, errno is: %d, %s", err, strerror(err));
                FailNetworkWrite(pFdops, pSocketInfo);
                return;
            }
        }
    }

    if (done < pending) {
        memmove(pW->buf, pW->buf + done, static_cast<size_t>(pending - done));
        pW->idx = static_cast<uint16_t>(pending - done);
        return;
    }

    LAPI_SRV_TRACE("all send success");
    LAPI_SRV_SendSocketRes(SEND_DATA_APBP_RES, pSocketInfo->sessionId, pSocketInfo->transactionId,
                           pSocketInfo->linkId, 0);
    LAPI_SRV_TRACE("AFTER SEND RES");
    uint16_t len = 0;
    if (LAPI_SRV_GetSendDataList(&pSocketInfo->sendDataList, pW->buf, &len, &pSocketInfo->sessionId,
                                 &pSocketInfo->transactionId) > 0) {
        /* Sent on the next writable event; the Fdops stays on the list. */
        pW->idx = len;
        return;
    }
    LAPI_SRV_TRACE("pSockBuf == NULL");
    pW->idx = 0;
    LAPI_SRV_RemoveFdopsWriteList(pFdops);
    if (pSocketInfo->bClosePending == 1) {
        /* The close zeroes the entry first, so this answer carries zero ids
         * and link id 0: that order is the designed one. */
        LAPI_SRV_CloseSocket(pSocketInfo);
        LAPI_SRV_SendSocketRes(CLOSE_SOCKET_APBP_RES, pSocketInfo->closeSessionId,
                               pSocketInfo->closeTransactionId, pSocketInfo->linkId, 0);
    }
}

/* One data indication with what rbuf holds. */
static void SendRbufInd(Fdops *pFdops, const SocketInfo *pSocketInfo, int32_t result) {
    LAPI_SRV_SendSocketDataInd(0, 0, pSocketInfo->linkId, pFdops->rbuf.idx, pFdops->rbuf.buf,
                               result);
}

void LAPI_SRV_ReadNetworkMsg(Fdops *pFdops) {
    LAPI_SRV_TRACE("LAPI_SRV_ReadNetworkMsg");
    SocketInfo *pSocketInfo = pFdops != nullptr ? GetSocketInfoByFd(pFdops->fd) : nullptr;
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("Invalid pSocketInfo!");
        return;
    }
    if (pFdops->rbuf.buf == nullptr || pFdops->rbuf.len == 0) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return;
    }
    if (pSocketInfo->fdStatus != LAPI_SRV_SOCK_CONNECTED) {
        LAPI_SRV_ERR("the socket fd is not attached to the network");
        return;
    }
    int32_t result = 0;
    if (pSocketInfo->bIsTlsSession) {
        LAPI_SRV_TRACE("bIsTlsSession is TRUE");
        LAPI_SRV_TRACE("TLSRead rbuf len %d idx %d", pFdops->rbuf.len, pFdops->rbuf.idx);
        int ret;
        for (;;) {
            int n = 0;
            int room = static_cast<int>(pFdops->rbuf.len) - static_cast<int>(pFdops->rbuf.idx);
            ret = TlsReadSome(pSocketInfo, pFdops->rbuf.buf + pFdops->rbuf.idx, room, &n);
            if (ret != 0) {
                break;
            }
            pFdops->rbuf.idx = static_cast<uint16_t>(pFdops->rbuf.idx + n);
            LAPI_SRV_TRACE("TLSRead rbuf idx : %d, len : %d", pFdops->rbuf.idx, pFdops->rbuf.len);
            SendRbufInd(pFdops, pSocketInfo, 0);
            pFdops->rbuf.idx = 0;
        }
        int err = errno;
        LAPI_SRV_TRACE("TLSRead errno: %d, %s", err, strerror(err));
        if (ret != TLS_RESULT_WOULD_BLOCK) {
            result = -1;
            SendRbufInd(pFdops, pSocketInfo, result);
        }
    } else {
        LAPI_SRV_TRACE("bIsTlsSession is FALSE");
        if (LAPI_SRV_GeneralRead(pFdops) < 0) {
            LAPI_SRV_ERR("Fail to general read for pFdops!");
            result = -1;
        }
        SendRbufInd(pFdops, pSocketInfo, result);
    }
    pFdops->rbuf.idx = 0;
    if (pFdops->rbuf.len > LAPI_SRV_SOCK_RBUF_MAX) {
        uint8_t *pSmall = static_cast<uint8_t *>(realloc(pFdops->rbuf.buf, LAPI_SRV_SOCK_RBUF_MAX));
        if (pSmall == nullptr) {
            LAPI_SRV_ERR("realloc fail!");
        } else {
            pFdops->rbuf.buf = pSmall;
            pFdops->rbuf.len = LAPI_SRV_SOCK_RBUF_MAX;
        }
    }
    if (result == -1) {
        pSocketInfo->fdStatus = LAPI_SRV_SOCK_UNATTACHED;
        LAPI_SRV_RemoveFdopsReadList(pFdops);
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
    }
}

/* ------------------------------------------------------------------------ */
/* Closing                                                                   */
/* ------------------------------------------------------------------------ */

void ReleaseSockInfoEle(SocketInfo *pSocketInfo) {
    LAPI_SRV_TRACE("Enter ReleaseSockInfoEle");
    if (pSocketInfo == nullptr) {
        return;
    }
    for (;;) {
        SendDataNode *pNode = GetQueueHead(&pSocketInfo->sendDataList);
        if (pNode == nullptr) {
            break;
        }
        free(pNode->pData);
        free(pNode);
    }
    memset(pSocketInfo, 0, sizeof(*pSocketInfo));
}

void LAPI_SRV_CloseNetworkFdops(Fdops *pFdops) {
    if (pFdops == nullptr) {
        return;
    }
    LAPI_SRV_RemoveFdopsReadList(pFdops);
    LAPI_SRV_RemoveFdopsWriteList(pFdops);
    if (SetFdBlocking(pFdops->fd, true) < 0) {
        int err = errno;
        LAPI_SRV_ERR("Fail to set block fd, error:%d,%s", err, strerror(err));
    }
    struct linger lg;
    lg.l_onoff = 1;
    lg.l_linger = LAPI_SRV_SOCK_LINGER_SEC;
    setsockopt(pFdops->fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    int ret;
    for (;;) {
        ret = close(pFdops->fd);
        if (ret == 0 || errno == EINTR || errno == EAGAIN) {
            if (ret == 0) {
                break;
            }
            continue;
        }
        LAPI_SRV_TRACE("errno != EINTR && EAGAIN");
        break;
    }
    int err = errno;
    LAPI_SRV_TRACE("close return %d", ret);
    LAPI_SRV_TRACE("close linger errno:%d,%s", err, strerror(err));
    FreeFdops(pFdops);
}

void LAPI_SRV_CloseSocket(SocketInfo *pSocketInfo) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_CloseSocket");
    if (pSocketInfo == nullptr) {
        LAPI_SRV_TRACE("pSocketInfo == NULL");
        return;
    }
    /* A session whose handshake failed or never ended has no bIsTlsSession
     * yet still holds its context: that is released too. */
    if (pSocketInfo->bIsTlsSession || pSocketInfo->pTlsContext != nullptr) {
        LAPI_SRV_CloseTlsSession(pSocketInfo);
    }
    if (pSocketInfo->pFdops != nullptr) {
        LAPI_SRV_CloseNetworkFdops(pSocketInfo->pFdops);
        pSocketInfo->pFdops = nullptr;
    }
    if (pSocketInfo->napiLink > 0 && pSocketInfo->napiLink < LAPI_SRV_NAPI_LINK_LIMIT) {
        NAPI_CloseLink(pSocketInfo->napiLink);
    }
    ReleaseSockInfoEle(pSocketInfo);
}

void LAPI_SRV_CloseSocketFdops(Fdops *pFdops) {
    SocketInfo *pSocketInfo = pFdops != nullptr ? GetSocketInfoByFd(pFdops->fd) : nullptr;
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("Failed to find suitable socket info");
        return;
    }
    LAPI_SRV_CloseSocket(pSocketInfo);
}
