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
#include <sys/socket.h>
#include <unistd.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_SRV_Paths.h"
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

void LAPI_SRV_WaitConnectRes(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_WaitConnectRes");
    if (pFdops == nullptr) {
        LAPI_SRV_ERR("pFdops is NULL!");
        return;
    }
    LAPI_SRV_TRACE("pFdops->fd is %d", pFdops->fd);
    SocketInfo *pSocketInfo = GetSocketInfoByFd(pFdops->fd);
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("pSocketInfo is NULL!");
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
        LAPI_SRV_RemoveFdopsWriteList(pFdops);
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
/* TLS transport of a session (replaced by the TLS layer)                    */
/* ------------------------------------------------------------------------ */

/* ==== BEGIN TLS STUB: the TLS session layer replaces this block ==== */

/* Until the TLS layer exists no session is ever set up, so bIsTlsSession
 * stays 0 and the read and write below never reach these. */
static int TlsWriteAll(SocketInfo * /*pSocketInfo*/, const uint8_t * /*pBuf*/, int /*count*/) {
    return -1;
}

/* Reads up to room bytes into pBuf; *pCount gets the bytes read. Returns
 * the TLS library's result (0 data read, TLS_RESULT_WOULD_BLOCK, other). */
static int TlsReadSome(SocketInfo * /*pSocketInfo*/, uint8_t * /*pBuf*/, int /*room*/,
                       int *pCount) {
    *pCount = 0;
    return -1;
}

int LAPI_SRV_CreateTlsSession(uint8_t /*sessionId*/, uint8_t /*transactionId*/, uint32_t linkId,
                              const char * /*pFqdn*/, int fqdnLength) {
    LAPI_SRV_TRACE("Entering SSLOpen ");
    if (fqdnLength == 0) {
        return LAPI_SRV_TLS_HANDSHAKE_FAILED; /* no answer at all */
    }
    if (GetSocketInfoByLinkId(linkId) == nullptr) {
        LAPI_SRV_ERR("pSocketInfo == NULL");
    }
    return LAPI_SRV_TLS_SETUP_FAILED;
}

int LAPI_SRV_CloseTlsSession(SocketInfo *pSocketInfo) {
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("pSocketInfo NULL");
        return -1;
    }
    pSocketInfo->bIsTlsSession = 0;
    return 0;
}

/* ==== END TLS STUB ==== */

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
    if (pSocketInfo->bIsTlsSession) {
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
