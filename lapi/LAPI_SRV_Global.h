/*
 * Server core shared by every area: the list container, the watched
 * descriptors (Fdops) and their lists, buffered non-blocking I/O, the send
 * queue, byte order, and the records of clients and transactions.
 *
 * Everything here is plain data: the signal handler calls exit() from any
 * point of the loop, so no global may have a non-trivial destructor.
 */
#ifndef LAPI_SRV_GLOBAL_H
#define LAPI_SRV_GLOBAL_H

#include <stdint.h>
#include <sys/select.h>

/* The length rules of the dispatch rows (LAPI_LenRule, LAPI_LenFits). */
#include "LAPI_ApMsgRows.h"

/* ------------------------------------------------------------------------ */
/* List container                                                            */
/* ------------------------------------------------------------------------ */

struct ListNode {
    void *data;
    ListNode *next;
};

struct List {
    ListNode *head;
    ListNode *tail;
    uint32_t count;
};

void List_Init(List *pList);
ListNode *List_AddTail(List *pList, void *pData);
ListNode *List_GetHeadPos(List *pList);
/* Returns the element at *ppPos and moves *ppPos to the next node. */
void *List_GetNext(List *pList, ListNode **ppPos);
int List_IsEmpty(List *pList);
void *List_RemoveAt(List *pList, ListNode *pNode);
void *List_RemoveHead(List *pList);
void *List_Remove(List *pList, void *pData);
/* Removes every node and frees every element with free(). */
void List_RemoveAll(List *pList);

/* ------------------------------------------------------------------------ */
/* Fdops and the event loop                                                  */
/* ------------------------------------------------------------------------ */

struct FdBuf {
    uint8_t *buf;
    uint16_t len; /* capacity */
    uint16_t idx; /* bytes held, from the start of buf */
};

struct Fdops;
typedef void (*FdopsProc)(Fdops *pFdops);

/* What pFdInfo points at, so that no procedure can take one for the other. */
enum FdInfoKind : uint8_t {
    LAPI_FDINFO_NONE = 0,
    LAPI_FDINFO_CLIENT = 1,
    LAPI_FDINFO_SOCKET = 2,
};

/* fdInfoKind sits in the padding after fd: every client holds two Fdops,
 * and on 64 bits the record is then 72 bytes instead of 80, which takes a
 * smaller heap block. */
struct Fdops {
    int fd;
    FdInfoKind fdInfoKind; /* which of the three pFdInfo is */
    FdBuf rbuf;
    FdBuf wbuf;
    FdopsProc readProc;
    FdopsProc writeProc;
    FdopsProc closeProc;
    void *pFdInfo; /* its Client, its SocketInfo, or null */
};

struct Client;
struct SocketInfo;

/* Buffer sizes of the descriptors that the core creates. */
enum {
    LAPI_SRV_CLIENT_RBUF_SIZE = 1024,
    LAPI_SRV_CLIENT_WBUF_SIZE = 1024,
    LAPI_SRV_MUX_RBUF_SIZE = 1024,
    LAPI_SRV_MUX_WBUF_SIZE = 1024,
};

/* Longest wait of the loop, in ticks of 1/100 s (one hour). */
#define LAPI_SRV_MAX_TIMEOUT_TICKS 360000L

extern List LAPI_SRV_readFdopsList;
extern List LAPI_SRV_writeFdopsList;
extern fd_set readFdSet;
extern fd_set writeFdSet;
/* While the loop serves what select found ready: its copies of the sets.
 * Freeing an Fdops takes its descriptor out of these too. Null otherwise. */
extern fd_set *LAPI_SRV_pTurnReadSet;
extern fd_set *LAPI_SRV_pTurnWriteSet;
extern int maxReadFd;
extern int maxWriteFd;
extern uint8_t readListChanged;
extern uint8_t writeListChanged;
extern Fdops *LAPI_SRV_pMuxFdops;
extern uint8_t LAPI_SRV_muxConnected;

int GetFdBuf(FdBuf *pFdBuf, int size);
void FreeFdBuf(FdBuf *pFdBuf);
Fdops *CreateFdops(int fd, int rbufSize, int wbufSize);
void *FreeFdops(Fdops *pFdops);
void LAPI_SRV_AddFdopsReadList(Fdops *pFdops);
void LAPI_SRV_RemoveFdopsReadList(Fdops *pFdops);
void LAPI_SRV_AddFdopsWriteList(Fdops *pFdops);
void LAPI_SRV_RemoveFdopsWriteList(Fdops *pFdops);
int LAPI_SRV_GetMaxFd(void);
void LAPI_SRV_ClearReadListChanged(void);
void LAPI_SRV_ClearWriteListChanged(void);
uint8_t LAPI_SRV_IsReadListChanged(void);
uint8_t LAPI_SRV_IsWriteListChanged(void);
void *DestroyFdops(Fdops *pFdops);

/* Lifecycle helpers: every watched descriptor is made and switched through
 * these, never wired by hand.
 *
 * LAPI_SRV_NewFdops makes an Fdops for fd with buffers of the given sizes
 * (0: none) and its three procedures, and puts it on the read list when
 * readProc is set. Null when it cannot be made; fd is then still open and
 * still the caller's. */
Fdops *LAPI_SRV_NewFdops(int fd, int rbufSize, int wbufSize, FdopsProc readProc,
                         FdopsProc writeProc, FdopsProc closeProc);
/* Switches the three procedures together on a change of state. */
void LAPI_SRV_SetFdopsProcs(Fdops *pFdops, FdopsProc readProc, FdopsProc writeProc,
                            FdopsProc closeProc);
/* Typed access to pFdInfo: null unless it holds that kind. */
Client *LAPI_SRV_FdopsClient(const Fdops *pFdops);
SocketInfo *LAPI_SRV_FdopsSocket(const Fdops *pFdops);
void LAPI_SRV_SetFdopsClient(Fdops *pFdops, Client *pClient);
void LAPI_SRV_SetFdopsSocket(Fdops *pFdops, SocketInfo *pSocketInfo);
void LAPI_SRV_CloseFdops(Fdops *pFdops);
void CloseFd(int fd);
int SetFdBlocking(int fd, bool blocking);
long LAPI_SRV_Times(void);

/* Resets every list, descriptor set, flag and counter of the core, the
 * client records and the socket table (start-up). */
void LAPI_SRV_InitGlobals(void);

/* ------------------------------------------------------------------------ */
/* Buffered I/O, byte order and send queue                                   */
/* ------------------------------------------------------------------------ */

struct SendDataNode {
    uint8_t *pData;
    uint16_t length;
    uint8_t sessionId;
    uint8_t transactionId;
};

extern List LAPI_SRV_muxSendDataList;

int LAPI_SRV_GeneralRead(Fdops *pFdops);
/* The start of a read procedure: false (after the procedure's error line,
 * and its close procedure on a failed read) when it has nothing to process. */
bool LAPI_SRV_ReadIntoFdops(Fdops *pFdops, const char *file, int line, const char *func);
#define LAPI_SRV_READ_INTO_FDOPS(pFdops) \
    LAPI_SRV_ReadIntoFdops((pFdops), __FILE__, __LINE__, __func__)
int LAPI_SRV_GeneralWrite(Fdops *pFdops, const void *pBuf, int count);
void LAPI_SRV_GeneralWriteProc(Fdops *pFdops);
int LAPI_SRV_AddSendDataList(List *pList, const void *pData, int size, uint8_t sessionId,
                             uint8_t transactionId);
SendDataNode *GetQueueHead(List *pList);
int LAPI_SRV_GetSendDataList(List *pList, uint8_t *pBuf, uint16_t *pLen, uint8_t *pSessionId,
                             uint8_t *pTransactionId);
void LAPI_SRV_ByteOrderNetToHost(void *pTo, const void *pFrom, int length);
void LAPI_SRV_ByteOrderHostToNet(void *pTo, const void *pFrom, int length);
int LAPI_BytesInSocket(int fd);

/* ------------------------------------------------------------------------ */
/* Clients and transactions                                                  */
/* ------------------------------------------------------------------------ */

/* Service bits of registerReq. */
enum {
    LAPI_SERVICE_MASK = 0x7,
    LAPI_SERVICE_MTLR = 0x2,
    LAPI_SERVICE_STATUS = 0x4,
};

struct Transaction;

struct Client {
    uint32_t globalId;
    uint32_t pid;
    uint32_t service;
    Fdops *pSyncFdops;
    Fdops *pAsyncFdops;
    /* Its listed transactions in list order, kept by the transaction list's
     * operations below (zero in a new record). */
    Transaction *pTranFirst;
    Transaction *pTranLast;
    uint32_t tranCount;
};

/* Most transactions one client may hold at once: far above what any
 * application keeps running, far below the 64 770 BP pairs, so one client
 * can never take every pair from the others. */
#define LAPI_SRV_MAX_TRANS_PER_CLIENT 256

struct Transaction {
    uint8_t sid;
    uint8_t tid;
    uint8_t clientSid;
    uint8_t clientTid;
    uint16_t subCmdId;
    uint32_t reqParam;
    int32_t expireTime;
    uint8_t isSync;
    Client *pClient;
    /* Index beside LAPI_SRV_tranList, so that finding a transaction by its
     * BP pair or its client's pair, and taking it off the list, cost the
     * same with one or 64 000 alive. Kept by the list operations below;
     * null while the record is off the list. */
    ListNode *pNode;        /* its node in LAPI_SRV_tranList */
    Transaction *pListPrev; /* neighbours in list order */
    Transaction *pListNext;
    Transaction *pPairNext;   /* next listed one with the same BP pair */
    Client *pIndexClient;     /* the client whose chain holds it */
    Transaction *pClientPrev; /* neighbours in that chain */
    Transaction *pClientNext;
};

extern List LAPI_SRV_allClientList;
extern List LAPI_SRV_statusClientList;
extern List LAPI_SRV_mtlrClientList;
extern List LAPI_SRV_tranList;
extern uint8_t LAPI_SRV_tranListChanged; /* set on every add to / removal from the list */
extern uint8_t LAPI_SRV_nextSid;         /* next BP session identifier, 2 at start */
extern uint8_t LAPI_SRV_nextTid;         /* next BP transaction identifier, 1 at start */

Client *LAPI_SRV_CreateClient(uint32_t pid, uint32_t service, Fdops *pFdops);
void LAPI_SRV_RemoveClient(Client *pClient);
void LAPI_SRV_RemoveAllTransByClient(Client *pClient);
Client *LAPI_SRV_GetClientByGlobalId(uint32_t globalId);
Transaction *LAPI_SRV_CreateTransaction(uint32_t clientSid, uint32_t clientTid, Client *pClient,
                                        uint32_t isSync);
int LAPI_SRV_AddTranList(Transaction *pTran);
/* Takes pTran off LAPI_SRV_tranList (not freed), leaving the changed flag to
 * the caller. */
void LAPI_SRV_UnlinkTran(Transaction *pTran);
/* Sets a transaction's deadline. Every deadline is set through it, so that
 * the timer scan knows, without walking the list, the earliest moment at
 * which anything can expire. */
void LAPI_SRV_SetTranExpireTime(Transaction *pTran, int32_t expireTime);
/* The earliest moment at which a listed transaction can expire: 1 with
 * *pBound set, or 0 when unknown (the scan then walks the list and records
 * what it found with LAPI_SRV_SetTranScanBound). */
int LAPI_SRV_GetTranScanBound(int32_t *pBound);
void LAPI_SRV_SetTranScanBound(int32_t bound);
Transaction *LAPI_SRV_GetTranByBpId(uint32_t sid, uint32_t tid, uint32_t remove);
Transaction *LAPI_SRV_GetTranByClientId(Client *pClient, uint32_t clientSid, uint32_t clientTid,
                                        uint32_t remove);
int LAPI_SRV_SendMsgToClient(Fdops *pFdops, const void *pBuf, int len);
int LAPI_SRV_BroadcastMsgToClient(List *pList, const void *pBuf, int len);
int LAPI_SRV_BroadcastMsgToStatusClient(const void *pBuf, int len);
int LAPI_SRV_BroadcastMsgToMtlrClient(const void *pBuf, int len);

/* ------------------------------------------------------------------------ */
/* Network sockets opened for the BP                                         */
/* ------------------------------------------------------------------------ */

struct TLSContext;

/* fdStatus of a SocketInfo. */
enum {
    LAPI_SRV_SOCK_UNATTACHED = 0, /* not attached to the network */
    LAPI_SRV_SOCK_CONNECTING = 1,
    LAPI_SRV_SOCK_CONNECTED = 2,
    LAPI_SRV_SOCK_TLS_HANDSHAKE = 3,
};

/* addrType of a SocketInfo (and of the open-socket request). */
enum {
    LAPI_SRV_ADDR_IPV4 = 0,
    LAPI_SRV_ADDR_FQDN = 1,
};

enum {
    LAPI_SRV_MAX_SOCKET_NUM = 16,   /* entries of socketInfoTable */
    LAPI_SRV_SOCK_ADDR_LEN = 256,   /* address: 4 IPv4 bytes or a NUL-terminated FQDN */
    LAPI_SRV_SOCK_NAME_LEN = 256,   /* serverName, NUL-terminated */
    LAPI_SRV_SOCK_RBUF_SIZE = 235,  /* read size of a network socket: the BP's piece */
    LAPI_SRV_SOCK_WBUF_SIZE = 1024, /* one send request at a time */
};

/* One network connection opened for the BP. An entry is free exactly when
 * its fd is 0: an entry that is still dialling (fd 0) can be handed out a
 * second time. */
struct SocketInfo {
    uint8_t sessionId;     /* BP pair of the request being served */
    uint8_t transactionId; /* (set at open, overwritten by each send) */
    uint32_t linkId;       /* the BP's own name of this socket */
    int32_t napiLink;      /* data-link handle */
    int32_t fd;            /* TCP descriptor; 0: entry free */
    uint8_t fdStatus;      /* LAPI_SRV_SOCK_* */
    uint32_t addrType;     /* LAPI_SRV_ADDR_* */
    char address[LAPI_SRV_SOCK_ADDR_LEN];
    uint16_t port; /* host order */
    Fdops *pFdops; /* null until the socket exists */
    char serverName[LAPI_SRV_SOCK_NAME_LEN];
    List sendDataList; /* send requests waiting for wbuf */
    uint8_t bIsTlsSession;
    TLSContext *pTlsContext; /* from CD_malloc */
    uintptr_t cmContext;     /* certificate-manager context handle */
    uint8_t closeSessionId;  /* pair of a deferred close request */
    uint8_t closeTransactionId;
    uint8_t bClosePending; /* 1 while a close waits for wbuf to drain */
    uint8_t dialCount;     /* re-dials made after a link failure */
};

extern SocketInfo socketInfoTable[LAPI_SRV_MAX_SOCKET_NUM];

#endif /* LAPI_SRV_GLOBAL_H */
