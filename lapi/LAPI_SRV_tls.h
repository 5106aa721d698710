/*
 * The network proxy's own side: the data link (NAPI), the socket table and
 * its lookups, name resolution, the non-blocking connect, reading and
 * writing a connected socket, closing, and the TLS session on top.
 *
 * Every outcome reaches the BP through the socket messages of
 * LAPI_SRV_BpMsgProc.h (LAPI_SRV_SendSocketRes, LAPI_SRV_SendSocketDataInd).
 */
#ifndef LAPI_SRV_TLS_H
#define LAPI_SRV_TLS_H

#include <stdint.h>

#include "LAPI_SRV_Global.h"
#include "zelssl.h"

/* NAPI_Init's mode as the server uses it. */
#define LAPI_SRV_NAPI_INIT_MODE 2
/* Profile dialled when "AGPSProfileName" is not configured. */
#define LAPI_SRV_DEFAULT_PROFILE "AGPS"
/* Re-dials after a link failure: four dials in all. */
#define LAPI_SRV_MAX_REDIAL 3
/* Name lookups that fail with TRY_AGAIN: retried this often, this far apart. */
#define LAPI_SRV_DNS_MAX_RETRY 7
#define LAPI_SRV_DNS_RETRY_SEC 3
/* SO_LINGER time when a network socket is closed, in seconds. */
#define LAPI_SRV_SOCK_LINGER_SEC 1

/* 1 once Connect2Napi has succeeded; never reset (the link service's
 * descriptor stays open for the life of the process). */
extern uint8_t LAPI_SRV_napiConnected;

/* ---- socket table lookups (NULL when nothing matches) ---- */
SocketInfo *GetSocketInfoByLinkId(uint32_t linkId);
SocketInfo *GetSocketInfoByNapiLink(int napiLink);
SocketInfo *GetSocketInfoByFd(int fd);
SocketInfo *GetFreeSocketInfo(void);

/* ---- data link ---- */
/* Connects to the link service and watches its notification descriptor.
 * Returns the descriptor or -1. */
int Connect2Napi(void);
/* Dials the configured profile; the link handle, negative on failure. */
int OpenNapiLink(void);
/* readProc of the notification descriptor. */
void LAPI_SRV_ReadNapiMsg(Fdops *pFdops);
/* Handles the one notification record in pFdops->rbuf: 0 or -1. */
int ParseNapiMsg(Fdops *pFdops);

/* ---- resolution and connect ---- */
/* The IPv4 address (4 bytes, network order) and port of the entry's
 * address. 1 on success, -1 on failure. Blocks while a name lookup is
 * retried. */
int GetHostInfo(const SocketInfo *pAddr, uint32_t linkId, uint8_t *pIpv4, uint16_t *pPort);
/* Starts the connect to ip:port for the entry. The descriptor or -1. */
int Connect2Server(const uint8_t *pIpv4, uint16_t port, SocketInfo *pSocketInfo);
/* readProc and writeProc of a connecting socket. */
void LAPI_SRV_WaitConnectRes(Fdops *pFdops);

/* ---- connected sockets ---- */
void LAPI_SRV_ReadNetworkMsg(Fdops *pFdops);
void LAPI_SRV_WriteNetworkMsg(Fdops *pFdops);

/* ---- closing ---- */
void LAPI_SRV_CloseSocket(SocketInfo *pSocketInfo);
void LAPI_SRV_CloseNetworkFdops(Fdops *pFdops);
void ReleaseSockInfoEle(SocketInfo *pSocketInfo);
/* closeProc of every network socket. */
void LAPI_SRV_CloseSocketFdops(Fdops *pFdops);

/* ---- TLS session ---- */
/* Results of LAPI_SRV_CreateTlsSession; 0..2 are also TLS_MSG_RES_T results. */
enum {
    LAPI_SRV_TLS_DONE = 0,         /* handshake done */
    LAPI_SRV_TLS_SETUP_FAILED = 1, /* the session could not be set up */
    LAPI_SRV_TLS_HANDSHAKE_FAILED = 2,
    LAPI_SRV_TLS_IN_PROGRESS = 3, /* the handshake goes on in the loop */
};
int LAPI_SRV_CreateTlsSession(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                              const char *pFqdn, int fqdnLength);
/* 0, or -1 for a null entry. Also releases the context of a session whose
 * handshake failed or is still running. */
int LAPI_SRV_CloseTlsSession(SocketInfo *pSocketInfo);
/* readProc and writeProc of a socket while its handshake runs (status 3). */
void LAPI_SRV_DoTlsHandshake(Fdops *pFdops);

/* Callbacks given to the TLS library; pRef is the SocketInfo. */
int LAPI_SRV_TLSRead(TLSBuffer *pBuffer, uint32_t *pCount, void *pRef);
int LAPI_SRV_TLSWrite(TLSBuffer *pBuffer, uint32_t *pCount, void *pRef);
int LAPI_SRV_TLSRandomCallback(TLSBuffer *pRandom, void *pRef);
int LAPI_SRV_AlertFunc(uint8_t level, uint8_t description, void *pRef);
int LAPI_SRV_CheckCertChainFunc(TLSContext *pCtx, const TLSBuffer *pCertificate,
                                uint32_t chainLength, int32_t chainResult, uint8_t chainTrusted,
                                void *pRef);

/* Common-name check: 0 match, 4 no match. The first label of both names is
 * ignored and the rest compared case-sensitively. Item 0 of the certificate
 * is its subject's first common name in encoding order; one of 80 or more
 * encoded bytes is refused (4). */
int LAPI_SRV_CheckSubCommonName(const TLSBuffer *pCertificate, const char *serverName);
/* Two-byte text to one byte, in place: a first byte 0 keeps every second
 * byte from the second (big-endian), else a second byte 0 keeps every
 * second byte from the first; the length is halved. Names shorter than two
 * bytes stay as they are. */
void LAPI_SRV_FoldTwoByteText(uint8_t *pText, uint32_t *pLength);

/* Blocks until fd is readable; 1, or -1. Not used by the server. */
int LAPI_SRV_WaitBufReady(int fd);

#endif /* LAPI_SRV_TLS_H */
