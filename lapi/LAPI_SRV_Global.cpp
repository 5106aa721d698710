/*
 * Server core: the list container, the watched descriptors and their lists,
 * buffered non-blocking I/O, the send queues, byte order, and the records of
 * clients and transactions.
 *
 * All state is plain data owned by the single thread of the select loop.
 */
#include "LAPI_SRV_Global.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/times.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SrvCli.h"

/* Longest chunk a send queue accepts: a chunk is later copied whole into the
 * write buffer of its descriptor, and the BP channel and the proxy sockets
 * all have 1024-byte write buffers. */
#define LAPI_SRV_MAX_QUEUE_CHUNK 1024

static_assert(LAPI_SRV_MUX_WBUF_SIZE >= LAPI_SRV_MAX_QUEUE_CHUNK,
              "a queued chunk must fit the BP channel's write buffer");

/* Write buffers bigger than this are shrunk back once they drain below it. */
#define LAPI_SRV_WBUF_SHRINK_SIZE 1024

/* ------------------------------------------------------------------------ */
/* Globals                                                                   */
/* ------------------------------------------------------------------------ */

List LAPI_SRV_readFdopsList;
List LAPI_SRV_writeFdopsList;
fd_set readFdSet;
fd_set writeFdSet;
fd_set *LAPI_SRV_pTurnReadSet;
fd_set *LAPI_SRV_pTurnWriteSet;
int maxReadFd;
int maxWriteFd;
uint8_t readListChanged;
uint8_t writeListChanged;
Fdops *LAPI_SRV_pMuxFdops;
uint8_t LAPI_SRV_muxConnected;

List LAPI_SRV_muxSendDataList;

List LAPI_SRV_allClientList;
List LAPI_SRV_statusClientList;
List LAPI_SRV_mtlrClientList;
List LAPI_SRV_tranList;
uint8_t LAPI_SRV_tranListChanged;
uint8_t LAPI_SRV_nextSid = 2;
uint8_t LAPI_SRV_nextTid = 1;

LAPI_OWN_PAGES SocketInfo socketInfoTable[LAPI_SRV_MAX_SOCKET_NUM];

/* The index beside LAPI_SRV_tranList: its records in list order, the
 * listed records of each BP pair (one, unless a test forces more), and the
 * timer scan's lower bound on every listed deadline. */
static Transaction *gTranFirst;
static Transaction *gTranLast;
/* Chained buckets of BP pairs: a table with a slot for every one of the
 * 65536 pairs would be half a megabyte of memory, dirtied by its clearing at
 * start-up. Pairs are handed out in sequence, so the low bits spread them. */
constexpr unsigned kPairBuckets = 1024; /* a power of two */
LAPI_OWN_PAGES static Transaction *gPairIndex[kPairBuckets];
static bool gScanBoundKnown;
static int32_t gScanBound;

/* ------------------------------------------------------------------------ */
/* List container                                                            */
/* ------------------------------------------------------------------------ */

void List_Init(List *pList) {
    pList->head = nullptr;
    pList->tail = nullptr;
    pList->count = 0;
}

ListNode *List_AddTail(List *pList, void *pData) {
    ListNode *pNode = static_cast<ListNode *>(calloc(1, sizeof(ListNode)));
    if (pNode == nullptr) {
        return nullptr;
    }
    pNode->data = pData;
    if (pList->tail != nullptr) {
        pList->tail->next = pNode;
        pList->tail = pNode;
    } else {
        pList->head = pNode;
        pList->tail = pNode;
    }
    pList->count++;
    return pNode;
}

ListNode *List_GetHeadPos(List *pList) {
    return pList->head;
}

void *List_GetNext(List * /*pList*/, ListNode **ppPos) {
    if (ppPos == nullptr || *ppPos == nullptr) {
        return nullptr;
    }
    ListNode *pNode = *ppPos;
    *ppPos = pNode->next;
    return pNode->data;
}

int List_IsEmpty(List *pList) {
    return pList->head == nullptr ? 1 : 0;
}

void *List_RemoveAt(List *pList, ListNode *pNode) {
    if (pList->head == nullptr) {
        return nullptr;
    }
    void *pData = nullptr;
    if (pNode == pList->head) {
        pList->head = pNode->next;
        if (pList->head == nullptr) {
            pList->tail = nullptr;
        }
        pData = pNode->data;
        free(pNode);
    } else {
        ListNode *pPrev = pList->head;
        while (pPrev->next != nullptr && pPrev->next != pNode) {
            pPrev = pPrev->next;
        }
        if (pNode != nullptr && pPrev->next == pNode) {
            pPrev->next = pNode->next;
            if (pList->tail == pNode) {
                pList->tail = pPrev;
            }
            pData = pNode->data;
            free(pNode);
        }
    }
    /* Also when the node was not found: the count only ever errs high. */
    if (pList->count > 0) {
        pList->count--;
    }
    return pData;
}

void *List_RemoveHead(List *pList) {
    return List_RemoveAt(pList, pList->head);
}

void *List_Remove(List *pList, void *pData) {
    void *pElem = nullptr;
    ListNode *pPos = List_GetHeadPos(pList);
    while (pPos != nullptr) {
        ListNode *pCur = pPos;
        pElem = List_GetNext(pList, &pPos);
        if (pElem == pData) {
            return List_RemoveAt(pList, pCur);
        }
    }
    return pElem;
}

void List_RemoveAll(List *pList) {
    while (!List_IsEmpty(pList)) {
        free(List_RemoveHead(pList));
    }
}

/* ------------------------------------------------------------------------ */
/* Fdops                                                                     */
/* ------------------------------------------------------------------------ */

int GetFdBuf(FdBuf *pFdBuf, int size) {
    if (pFdBuf == nullptr || size < 1) {
        return -1;
    }
    uint8_t *pBuf = static_cast<uint8_t *>(malloc(static_cast<size_t>(size)));
    if (pBuf == nullptr) {
        LAPI_SRV_ERR("Can not get buf, No memory!");
        return -1;
    }
    pFdBuf->buf = pBuf;
    /* The capacity is a 16-bit count: a larger block is used only up to
     * its low 16 bits, never beyond its end. Every creator asks for far
     * less. */
    pFdBuf->len = static_cast<uint16_t>(size);
    pFdBuf->idx = 0;
    return 0;
}

void FreeFdBuf(FdBuf *pFdBuf) {
    if (pFdBuf == nullptr) {
        return;
    }
    free(pFdBuf->buf);
    pFdBuf->buf = nullptr;
    pFdBuf->len = 0;
    pFdBuf->idx = 0;
}

Fdops *CreateFdops(int fd, int rbufSize, int wbufSize) {
    if (fd < 0) {
        return nullptr;
    }
    if (fd >= FD_SETSIZE) {
        /* select() cannot watch it, and its bit would fall outside the sets. */
        LAPI_SRV_ERR("fd: %d >= FD_SETSIZE: %d, refuse!", fd, FD_SETSIZE);
        return nullptr;
    }
    Fdops *pFdops = static_cast<Fdops *>(malloc(sizeof(Fdops)));
    if (pFdops == nullptr) {
        LAPI_SRV_ERR("Can not get Fdops, No memory!");
        return nullptr;
    }
    memset(pFdops, 0, sizeof(Fdops));
    if (rbufSize > 0 && GetFdBuf(&pFdops->rbuf, rbufSize) != 0) {
        LAPI_SRV_ERR("Can not get rbuf!");
        free(pFdops);
        return nullptr;
    }
    if (wbufSize > 0 && GetFdBuf(&pFdops->wbuf, wbufSize) != 0) {
        LAPI_SRV_ERR("Can not get wbuf!");
        FreeFdBuf(&pFdops->rbuf);
        free(pFdops);
        return nullptr;
    }
    pFdops->fd = fd;
    return pFdops;
}

void *FreeFdops(Fdops *pFdops) {
    if (pFdops == nullptr) {
        return nullptr;
    }
    /* Its readiness in the loop's current turn ends with it: a descriptor
     * opened later in the turn may get the same number, and has to wait for
     * a turn of its own. */
    if (pFdops->fd >= 0 && pFdops->fd < FD_SETSIZE) {
        if (LAPI_SRV_pTurnReadSet != nullptr) {
            FD_CLR(pFdops->fd, LAPI_SRV_pTurnReadSet);
        }
        if (LAPI_SRV_pTurnWriteSet != nullptr) {
            FD_CLR(pFdops->fd, LAPI_SRV_pTurnWriteSet);
        }
    }
    void *pFdInfo = pFdops->pFdInfo;
    FreeFdBuf(&pFdops->rbuf);
    FreeFdBuf(&pFdops->wbuf);
    free(pFdops);
    return pFdInfo;
}

Fdops *LAPI_SRV_NewFdops(int fd, int rbufSize, int wbufSize, FdopsProc readProc,
                         FdopsProc writeProc, FdopsProc closeProc) {
    Fdops *pFdops = CreateFdops(fd, rbufSize, wbufSize);
    if (pFdops == nullptr) {
        return nullptr;
    }
    LAPI_SRV_SetFdopsProcs(pFdops, readProc, writeProc, closeProc);
    if (readProc != nullptr) {
        LAPI_SRV_AddFdopsReadList(pFdops);
    }
    return pFdops;
}

void LAPI_SRV_SetFdopsProcs(Fdops *pFdops, FdopsProc readProc, FdopsProc writeProc,
                            FdopsProc closeProc) {
    pFdops->readProc = readProc;
    pFdops->writeProc = writeProc;
    pFdops->closeProc = closeProc;
}

Client *LAPI_SRV_FdopsClient(const Fdops *pFdops) {
    if (pFdops == nullptr || pFdops->fdInfoKind != LAPI_FDINFO_CLIENT) {
        return nullptr;
    }
    return static_cast<Client *>(pFdops->pFdInfo);
}

SocketInfo *LAPI_SRV_FdopsSocket(const Fdops *pFdops) {
    if (pFdops == nullptr || pFdops->fdInfoKind != LAPI_FDINFO_SOCKET) {
        return nullptr;
    }
    return static_cast<SocketInfo *>(pFdops->pFdInfo);
}

void LAPI_SRV_SetFdopsClient(Fdops *pFdops, Client *pClient) {
    pFdops->pFdInfo = pClient;
    pFdops->fdInfoKind = pClient != nullptr ? LAPI_FDINFO_CLIENT : LAPI_FDINFO_NONE;
}

void LAPI_SRV_SetFdopsSocket(Fdops *pFdops, SocketInfo *pSocketInfo) {
    pFdops->pFdInfo = pSocketInfo;
    pFdops->fdInfoKind = pSocketInfo != nullptr ? LAPI_FDINFO_SOCKET : LAPI_FDINFO_NONE;
}

static bool FdInSetRange(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

/* The read side and the write side of the loop: a list, its descriptor
 * set, its highest descriptor and its changed flag. */
struct FdopsSide {
    List *pList;
    fd_set *pSet;
    int *pMaxFd;
    uint8_t *pChanged;
};

static FdopsSide ReadSide() {
    return FdopsSide{&LAPI_SRV_readFdopsList, &readFdSet, &maxReadFd, &readListChanged};
}

static FdopsSide WriteSide() {
    return FdopsSide{&LAPI_SRV_writeFdopsList, &writeFdSet, &maxWriteFd, &writeListChanged};
}

/* The failure line names the caller (LAPI_SRV_AddFdopsReadList or ...Write). */
static void AddFdopsTo(const FdopsSide &side, Fdops *pFdops, const char *pFailText,
                       const char *func, int line) {
    if (pFdops == nullptr) {
        return;
    }
    if (!FdInSetRange(pFdops->fd)) {
        LAPI_LogLine(1, 1, __FILE__, line, func, "%s", pFailText);
        return;
    }
    if (FD_ISSET(pFdops->fd, side.pSet)) {
        return;
    }
    if (List_AddTail(side.pList, pFdops) == nullptr) {
        LAPI_LogLine(1, 1, __FILE__, line, func, "%s", pFailText);
        return;
    }
    FD_SET(pFdops->fd, side.pSet);
    *side.pChanged = 1;
    if (pFdops->fd > *side.pMaxFd) {
        *side.pMaxFd = pFdops->fd;
    }
}

static void RemoveFdopsFrom(const FdopsSide &side, Fdops *pFdops) {
    if (pFdops == nullptr || !FdInSetRange(pFdops->fd) || !FD_ISSET(pFdops->fd, side.pSet)) {
        return;
    }
    FD_CLR(pFdops->fd, side.pSet);
    /* One step down only: select() tolerates a maximum above the truth. */
    if (pFdops->fd == *side.pMaxFd) {
        (*side.pMaxFd)--;
    }
    List_Remove(side.pList, pFdops);
    *side.pChanged = 1;
}

void LAPI_SRV_AddFdopsReadList(Fdops *pFdops) {
    AddFdopsTo(ReadSide(), pFdops, "Fail to AddFdopsReadList!", __func__, __LINE__);
}

void LAPI_SRV_RemoveFdopsReadList(Fdops *pFdops) {
    RemoveFdopsFrom(ReadSide(), pFdops);
}

void LAPI_SRV_AddFdopsWriteList(Fdops *pFdops) {
    AddFdopsTo(WriteSide(), pFdops, "Fail to AddFdopsWriteList!", __func__, __LINE__);
}

void LAPI_SRV_RemoveFdopsWriteList(Fdops *pFdops) {
    RemoveFdopsFrom(WriteSide(), pFdops);
}

/* Every read procedure starts here: the buffer is checked, the descriptor
 * read, and on failure the line names the read procedure (file, line and
 * func are its own) and the connection is closed. */
bool LAPI_SRV_ReadIntoFdops(Fdops *pFdops, const char *file, int line, const char *func) {
    if (pFdops == nullptr || pFdops->rbuf.buf == nullptr || pFdops->rbuf.len == 0) {
        LAPI_LogLine(1, 1, file, line, func, "Invalid pFdops!");
        return false;
    }
    if (LAPI_SRV_GeneralRead(pFdops) < 0) {
        LAPI_LogLine(1, 1, file, line, func, "Fail to general read for pFdops!");
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        return false;
    }
    return true;
}

int LAPI_SRV_GetMaxFd(void) {
    return maxReadFd > maxWriteFd ? maxReadFd : maxWriteFd;
}

void LAPI_SRV_ClearReadListChanged(void) {
    readListChanged = 0;
}

void LAPI_SRV_ClearWriteListChanged(void) {
    writeListChanged = 0;
}

uint8_t LAPI_SRV_IsReadListChanged(void) {
    return readListChanged;
}

uint8_t LAPI_SRV_IsWriteListChanged(void) {
    return writeListChanged;
}

void *DestroyFdops(Fdops *pFdops) {
    if (pFdops == nullptr) {
        return nullptr;
    }
    LAPI_SRV_RemoveFdopsReadList(pFdops);
    LAPI_SRV_RemoveFdopsWriteList(pFdops);
    CloseFd(pFdops->fd);
    return FreeFdops(pFdops);
}

void LAPI_SRV_CloseFdops(Fdops *pFdops) {
    if (pFdops == nullptr) {
        return;
    }
    if (pFdops == LAPI_SRV_pMuxFdops) {
        LAPI_SRV_pMuxFdops = nullptr;
        LAPI_SRV_ERR("Close LAPI_SRV_pMuxFdops, disconnection with BP!");
    }
    Client *pClient = LAPI_SRV_FdopsClient(pFdops);
    if (pClient != nullptr) {
        /* A registered connection: the client owns and destroys it. */
        LAPI_SRV_RemoveClient(pClient);
    } else {
        DestroyFdops(pFdops);
    }
}

void CloseFd(int fd) {
    if (fd < 0) {
        return;
    }
    while (close(fd) < 0 && (errno == EINTR || errno == EAGAIN)) {
    }
}

int SetFdBlocking(int fd, bool blocking) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        return flags;
    }
    if (blocking) {
        flags &= ~O_NONBLOCK;
    } else {
        flags |= O_NONBLOCK;
    }
    return fcntl(fd, F_SETFL, flags);
}

long LAPI_SRV_Times(void) {
    struct tms tmsBuf;
    long now = -1;
    for (int tries = 0; tries < 3; ++tries) {
        now = static_cast<long>(times(&tmsBuf));
        if (now >= 0) {
            return now;
        }
    }
    LAPI_SRV_ERR("Fail to get curTime, errno is: %d, %s", errno, strerror(errno));
    return now;
}

/* Clears a table, writing only when something in it is set: at start-up
 * the tables are still zero, and a write would make their pages private
 * memory of the process although nothing in them changes. */
static void ClearTable(void *pTable, size_t size) {
    const unsigned char *pByte = static_cast<const unsigned char *>(pTable);
    for (size_t i = 0; i < size; ++i) {
        if (pByte[i] != 0) {
            memset(pTable, 0, size);
            return;
        }
    }
}

void LAPI_SRV_InitGlobals(void) {
    FD_ZERO(&readFdSet);
    FD_ZERO(&writeFdSet);
    maxReadFd = 0;
    maxWriteFd = 0;
    readListChanged = 0;
    writeListChanged = 0;
    List_Init(&LAPI_SRV_readFdopsList);
    List_Init(&LAPI_SRV_writeFdopsList);
    List_Init(&LAPI_SRV_muxSendDataList);
    List_Init(&LAPI_SRV_allClientList);
    List_Init(&LAPI_SRV_statusClientList);
    List_Init(&LAPI_SRV_mtlrClientList);
    List_Init(&LAPI_SRV_tranList);
    gTranFirst = nullptr;
    gTranLast = nullptr;
    ClearTable(gPairIndex, sizeof(gPairIndex));
    gScanBoundKnown = false;
    LAPI_SRV_tranListChanged = 0;
    LAPI_SRV_nextSid = 2;
    LAPI_SRV_nextTid = 1;
    LAPI_SRV_pMuxFdops = nullptr;
    LAPI_SRV_muxConnected = 0;
    ClearTable(socketInfoTable, sizeof(socketInfoTable));
}

/* ------------------------------------------------------------------------ */
/* Buffered I/O                                                              */
/* ------------------------------------------------------------------------ */

/*
 * Writes as much of pBuf as the descriptor takes now. Returns the number of
 * bytes written (stopping at EAGAIN or a zero write), or -1 with errno kept
 * on any other failure. EINTR simply writes again.
 */
static int WriteNonBlocking(int fd, const uint8_t *pBuf, int count) {
    int done = 0;
    while (done < count) {
        ssize_t n = write(fd, pBuf + done, static_cast<size_t>(count - done));
        if (n > 0) {
            done += static_cast<int>(n);
        } else if (n == 0 || errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else if (errno == EINTR) {
            continue;
        } else {
            return -1;
        }
    }
    return done;
}

int LAPI_SRV_GeneralRead(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_GeneralRead");
    /* No record, or a capacity without a block to read into. */
    if (pFdops == nullptr || (pFdops->rbuf.buf == nullptr && pFdops->rbuf.len > 0)) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return -1;
    }
    int room = static_cast<int>(pFdops->rbuf.len) - static_cast<int>(pFdops->rbuf.idx);
    for (;;) {
        if (room < 1) {
            return 0;
        }
        ssize_t n =
            read(pFdops->fd, pFdops->rbuf.buf + pFdops->rbuf.idx, static_cast<size_t>(room));
        if (n > 0) {
            pFdops->rbuf.idx = static_cast<uint16_t>(pFdops->rbuf.idx + n);
            room -= static_cast<int>(n);
        } else if (n == 0) {
            LAPI_SRV_ERR("Read 0 byte!");
            Client *pClient = LAPI_SRV_FdopsClient(pFdops);
            if (pClient != nullptr) {
                LAPI_SRV_ERR("Socket disconnection, globalId: %d, pid: %d!",
                             static_cast<int>(pClient->globalId), static_cast<int>(pClient->pid));
            }
            LAPI_SRV_RemoveFdopsReadList(pFdops);
            return -1;
        } else if (errno == EINTR) {
            LAPI_SRV_TRACE("errno == EINTR");
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            LAPI_SRV_TRACE("errno == EAGAIN");
            return 0;
        } else {
            int err = errno;
            LAPI_SRV_ERR("Fail to read, errno is: %d, %s", err, strerror(err));
            Client *pClient = LAPI_SRV_FdopsClient(pFdops);
            if (pClient != nullptr) {
                LAPI_SRV_ERR("Socket disconnection, globalId: %d, pid: %d!",
                             static_cast<int>(pClient->globalId), static_cast<int>(pClient->pid));
            }
            return -1;
        }
    }
}

int LAPI_SRV_GeneralWrite(Fdops *pFdops, const void *pBuf, int count) {
    if (pFdops == nullptr || pFdops->wbuf.buf == nullptr || pFdops->wbuf.len == 0) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return -1;
    }
    if (pBuf == nullptr || count <= 0) {
        LAPI_SRV_ERR("(buf == NULL) || (count <= 0)!");
        return -1;
    }
    Client *pClient = LAPI_SRV_FdopsClient(pFdops);
    if (pClient != nullptr) {
        LAPI_LogApMsg(pBuf, count, 1);
    }
    FdBuf *pW = &pFdops->wbuf;
    const uint8_t *pBytes = static_cast<const uint8_t *>(pBuf);

    if (pW->idx == 0) {
        if (count > pW->len) {
            /* Dropped on purpose: the caller sees success. */
            LAPI_SRV_ERR("Msg size: %d > buf size: %d, discard!", count, pW->len);
            return 0;
        }
        int written = WriteNonBlocking(pFdops->fd, pBytes, count);
        if (written < 0) {
            int err = errno;
            LAPI_SRV_ERR("Fail to write, errno is: %d, %s", err, strerror(err));
            if (pClient != nullptr) {
                LAPI_SRV_ERR("Socket disconnection, globalId: %d, pid: %d!",
                             static_cast<int>(pClient->globalId), static_cast<int>(pClient->pid));
            }
            return -1;
        }
        if (written < count) {
            memcpy(pW->buf, pBytes + written, static_cast<size_t>(count - written));
            pW->idx = static_cast<uint16_t>(count - written);
            LAPI_SRV_AddFdopsWriteList(pFdops);
        }
        if (pW->len > LAPI_SRV_WBUF_SHRINK_SIZE && pW->idx < LAPI_SRV_WBUF_SHRINK_SIZE) {
            uint8_t *pSmall = static_cast<uint8_t *>(realloc(pW->buf, LAPI_SRV_WBUF_SHRINK_SIZE));
            if (pSmall == nullptr) {
                /* The block is given up: later writes report "Invalid pFdops!". */
                LAPI_SRV_ERR("realloc fail!");
                free(pW->buf);
            }
            pW->buf = pSmall;
            pW->len = LAPI_SRV_WBUF_SHRINK_SIZE;
        }
        return 0;
    }

    if (pFdops == LAPI_SRV_pMuxFdops &&
        LAPI_SRV_AddSendDataList(&LAPI_SRV_muxSendDataList, pBuf, count, 0, 0) == 0) {
        return 0;
    }
    if (pW->idx <= pW->len && count <= pW->len - pW->idx) {
        memcpy(pW->buf + pW->idx, pBytes, static_cast<size_t>(count));
        pW->idx = static_cast<uint16_t>(pW->idx + count);
        return 0;
    }
    LAPI_SRV_ERR("Too many messages to pid: %d, discard!",
                 pClient != nullptr ? static_cast<int>(pClient->pid) : 0);
    return 0;
}

void LAPI_SRV_GeneralWriteProc(Fdops *pFdops) {
    if (pFdops == nullptr) {
        LAPI_SRV_ERR("pFdops == NULL!");
        return;
    }
    FdBuf *pW = &pFdops->wbuf;
    if (pW->buf == nullptr || pW->idx > pW->len) {
        LAPI_SRV_ERR("Invalid pFdops!");
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        return;
    }
    int pending = pW->idx;
    int written = WriteNonBlocking(pFdops->fd, pW->buf, pending);
    if (written < 0) {
        int err = errno;
        LAPI_SRV_ERR("Fail to write, errno is: %d, %s", err, strerror(err));
        Client *pClient = LAPI_SRV_FdopsClient(pFdops);
        if (pClient != nullptr) {
            LAPI_SRV_ERR("Socket disconnection, globalId: %d, pid: %d!",
                         static_cast<int>(pClient->globalId), static_cast<int>(pClient->pid));
        }
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        return;
    }
    if (written == pending) {
        pW->idx = 0;
        if (pFdops != LAPI_SRV_pMuxFdops) {
            LAPI_SRV_RemoveFdopsWriteList(pFdops);
            return;
        }
        uint16_t len = 0;
        if (LAPI_SRV_GetSendDataList(&LAPI_SRV_muxSendDataList, pW->buf, &len, nullptr, nullptr) >
            0) {
            pW->idx = len;
        } else {
            LAPI_SRV_RemoveFdopsWriteList(pFdops);
        }
        return;
    }
    if (written > 0) {
        memmove(pW->buf, pW->buf + written, static_cast<size_t>(pending - written));
    }
    pW->idx = static_cast<uint16_t>(pending - written);
}

/* ------------------------------------------------------------------------ */
/* Send queue                                                                */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_AddSendDataList(List *pList, const void *pData, int size, uint8_t sessionId,
                             uint8_t transactionId) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_AddSendDataList list:%p", static_cast<void *>(pList));
    LAPI_SRV_TRACE("pData:%p, length:%d", pData, size);
    if (pList == nullptr || size < 0 || size > LAPI_SRV_MAX_QUEUE_CHUNK ||
        (pData == nullptr && size > 0)) {
        /* A chunk is later copied whole into a write buffer of this size. */
        LAPI_SRV_ERR("Queue data size: %d out of 0..%d, refuse!", size, LAPI_SRV_MAX_QUEUE_CHUNK);
        return -1;
    }
    SendDataNode *pNode = static_cast<SendDataNode *>(malloc(sizeof(SendDataNode)));
    if (pNode == nullptr) {
        LAPI_SRV_ERR("Failed to malloc memory for queue data1");
        return -1;
    }
    /* At least one byte, so an empty chunk still has a block to free. */
    pNode->pData = static_cast<uint8_t *>(malloc(size > 0 ? static_cast<size_t>(size) : 1));
    if (pNode->pData == nullptr) {
        LAPI_SRV_ERR("Failed to malloc memory for queue data2");
        free(pNode);
        return -1;
    }
    if (size > 0) {
        memcpy(pNode->pData, pData, static_cast<size_t>(size));
    }
    pNode->length = static_cast<uint16_t>(size);
    pNode->sessionId = sessionId;
    pNode->transactionId = transactionId;
    if (List_AddTail(pList, pNode) == nullptr) {
        LAPI_SRV_ERR("List_AddTail Fail");
        free(pNode->pData);
        free(pNode);
        return -1;
    }
    return 0;
}

SendDataNode *GetQueueHead(List *pList) {
    LAPI_SRV_TRACE("ENTER GETQUEUEHEAD");
    if (pList == nullptr || List_IsEmpty(pList)) {
        return nullptr;
    }
    ListNode *pPos = List_GetHeadPos(pList);
    LAPI_SRV_TRACE("AFTER LIST_GETHEADPOS");
    SendDataNode *pNode = static_cast<SendDataNode *>(List_GetNext(pList, &pPos));
    LAPI_SRV_TRACE("AFTER LIST_GETNEXT");
    List_RemoveHead(pList);
    LAPI_SRV_TRACE("AFTER LIST_REMOVEHEAD");
    return pNode;
}

int LAPI_SRV_GetSendDataList(List *pList, uint8_t *pBuf, uint16_t *pLen, uint8_t *pSessionId,
                             uint8_t *pTransactionId) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_GetSendDataList list:%p", static_cast<void *>(pList));
    LAPI_SRV_TRACE("buf:%p, len:%p", static_cast<void *>(pBuf), static_cast<void *>(pLen));
    if (pBuf == nullptr || pLen == nullptr) {
        LAPI_SRV_ERR("buf or len is NULL");
        return 0;
    }
    *pLen = 0;
    for (;;) {
        SendDataNode *pNode = GetQueueHead(pList);
        if (pNode == nullptr) {
            return 0;
        }
        if (pNode->pData == nullptr || pNode->length == 0) {
            LAPI_SRV_ERR("pNode pdata is NULL or length:%d <=0", pNode->length);
            free(pNode->pData);
            free(pNode);
            continue;
        }
        LAPI_SRV_TRACE("pNode length:%d", pNode->length);
        memcpy(pBuf, pNode->pData, pNode->length);
        *pLen = pNode->length;
        if (pSessionId != nullptr) {
            *pSessionId = pNode->sessionId;
        }
        if (pTransactionId != nullptr) {
            *pTransactionId = pNode->transactionId;
        }
        int len = pNode->length;
        free(pNode->pData);
        free(pNode);
        return len;
    }
}

/* ------------------------------------------------------------------------ */
/* Byte order                                                                */
/* ------------------------------------------------------------------------ */

static void ReverseCopy(void *pTo, const void *pFrom, int length) {
    uint8_t *pDst = static_cast<uint8_t *>(pTo);
    const uint8_t *pSrc = static_cast<const uint8_t *>(pFrom);
    for (int i = 0; i < length; ++i) {
        pDst[i] = pSrc[length - 1 - i];
    }
}

void LAPI_SRV_ByteOrderNetToHost(void *pTo, const void *pFrom, int length) {
    if (pTo == nullptr || pFrom == nullptr || length < 0) {
        LAPI_SRV_ERR("(pTo == NULL) || (pFrom == NULL) || (length < 0)!");
        return;
    }
    ReverseCopy(pTo, pFrom, length);
}

void LAPI_SRV_ByteOrderHostToNet(void *pTo, const void *pFrom, int length) {
    if (pTo == nullptr || pFrom == nullptr || length < 0) {
        LAPI_SRV_ERR("(pTo == NULL) || (pFrom == NULL) || (length < 0)!");
        return;
    }
    ReverseCopy(pTo, pFrom, length);
}

int LAPI_BytesInSocket(int fd) {
    int nbytes = 0;
    if (ioctl(fd, FIONREAD, &nbytes) < 0) {
        nbytes = -1;
    }
    LAPI_SRV_TRACE("nbytes:%d\n", nbytes);
    return nbytes;
}

/* ------------------------------------------------------------------------ */
/* Clients                                                                   */
/* ------------------------------------------------------------------------ */

Client *LAPI_SRV_GetClientByGlobalId(uint32_t globalId) {
    ListNode *pPos = List_GetHeadPos(&LAPI_SRV_allClientList);
    while (pPos != nullptr) {
        Client *pClient = static_cast<Client *>(List_GetNext(&LAPI_SRV_allClientList, &pPos));
        if (pClient != nullptr && pClient->globalId == globalId) {
            return pClient;
        }
    }
    return nullptr;
}

/* The generator is never seeded, so identifiers follow its default
 * sequence from one start to the next. */
static uint32_t NewGlobalId(void) {
    uint32_t globalId;
    do {
        globalId = static_cast<uint32_t>(rand());
    } while (LAPI_SRV_GetClientByGlobalId(globalId) != nullptr);
    return globalId;
}

Client *LAPI_SRV_CreateClient(uint32_t pid, uint32_t service, Fdops *pFdops) {
    if (pFdops == nullptr) {
        return nullptr;
    }
    Client *pClient = static_cast<Client *>(malloc(sizeof(Client)));
    if (pClient == nullptr) {
        LAPI_SRV_ERR("Can not get Client, No memory!");
        return nullptr;
    }
    pClient->globalId = NewGlobalId();
    pClient->pid = pid;
    pClient->service = service;
    pClient->pSyncFdops = pFdops;
    pClient->pAsyncFdops = nullptr;
    pClient->pTranFirst = nullptr;
    pClient->pTranLast = nullptr;
    pClient->tranCount = 0;

    if (List_AddTail(&LAPI_SRV_allClientList, pClient) == nullptr) {
        LAPI_SRV_ERR("Fail to add pClient into LAPI_SRV_allClientList!");
        free(pClient);
        return nullptr;
    }
    if ((service & LAPI_SERVICE_STATUS) != 0 &&
        List_AddTail(&LAPI_SRV_statusClientList, pClient) == nullptr) {
        LAPI_SRV_ERR("Fail to add pClient into LAPI_SRV_statusClientList!");
        List_Remove(&LAPI_SRV_allClientList, pClient);
        free(pClient);
        return nullptr;
    }
    if ((service & LAPI_SERVICE_MTLR) != 0 &&
        List_AddTail(&LAPI_SRV_mtlrClientList, pClient) == nullptr) {
        LAPI_SRV_ERR("Fail to add pClient into LAPI_SRV_mtlrClientList!");
        List_Remove(&LAPI_SRV_statusClientList, pClient);
        List_Remove(&LAPI_SRV_allClientList, pClient);
        free(pClient);
        return nullptr;
    }
    LAPI_SRV_SetFdopsClient(pFdops, pClient);
    return pClient;
}

void LAPI_SRV_RemoveClient(Client *pClient) {
    if (pClient == nullptr) {
        return;
    }
    LAPI_SRV_TRACE("remove client, pid = %d", static_cast<int>(pClient->pid));
    LAPI_SRV_RemoveAllTransByClient(pClient);
    /* Removal from a list that does not hold it does nothing. */
    List_Remove(&LAPI_SRV_allClientList, pClient);
    List_Remove(&LAPI_SRV_statusClientList, pClient);
    List_Remove(&LAPI_SRV_mtlrClientList, pClient);

    Fdops *pSync = pClient->pSyncFdops;
    Fdops *pAsync = pClient->pAsyncFdops;
    pClient->pSyncFdops = nullptr;
    pClient->pAsyncFdops = nullptr;
    if (pSync != nullptr) {
        DestroyFdops(pSync);
    }
    if (pAsync != nullptr && pAsync != pSync) {
        DestroyFdops(pAsync);
    }
    free(pClient);
}

void LAPI_SRV_RemoveAllTransByClient(Client *pClient) {
    if (pClient == nullptr) {
        return;
    }
    /* The client's chain holds its transactions in list order, so each turn
     * takes the first of them left in the list. */
    while (pClient->pTranFirst != nullptr) {
        Transaction *pTran = pClient->pTranFirst;
        if (pTran->pClient == pClient && (pTran->subCmdId == 0x00 || pTran->subCmdId == 0x16)) {
            LAPI_SRV_TRACE(
                "client[pid=%d] forgot to abort location or                     it crash and "
                "leave an active location",
                static_cast<int>(pClient->pid));
            LAPI_SRV_AbortLocationReq(pTran, 0);
        }
        LAPI_SRV_UnlinkTran(pTran);
        LAPI_SRV_tranListChanged = 1;
        free(pTran);
    }
}

/* ------------------------------------------------------------------------ */
/* Transactions                                                              */
/* ------------------------------------------------------------------------ */

static void AdvanceBpPair(void) {
    LAPI_SRV_nextTid++;
    if (LAPI_SRV_nextTid == 0) {
        LAPI_SRV_nextTid = 1;
        LAPI_SRV_nextSid++;
        if (LAPI_SRV_nextSid == 0) {
            LAPI_SRV_nextSid = 2;
        }
    }
}

static unsigned PairKey(uint8_t sid, uint8_t tid) {
    return ((static_cast<unsigned>(sid) << 8) | tid) & (kPairBuckets - 1);
}

/* The first listed record of the pair, or null. */
static Transaction *FindPair(uint8_t sid, uint8_t tid) {
    for (Transaction *pTran = gPairIndex[PairKey(sid, tid)]; pTran != nullptr;
         pTran = pTran->pPairNext) {
        if (pTran->sid == sid && pTran->tid == tid) {
            return pTran;
        }
    }
    return nullptr;
}

/* Puts the record at the end of its bucket: records of one pair stay in
 * the order they were listed. */
static void IndexPair(Transaction *pTran) {
    pTran->pPairNext = nullptr;
    Transaction **ppLink = &gPairIndex[PairKey(pTran->sid, pTran->tid)];
    while (*ppLink != nullptr) {
        ppLink = &(*ppLink)->pPairNext;
    }
    *ppLink = pTran;
}

/* Puts a record that has just joined the list (at its tail) into the index. */
static void IndexTran(Transaction *pTran, ListNode *pNode) {
    pTran->pNode = pNode;
    pTran->pListPrev = gTranLast;
    pTran->pListNext = nullptr;
    if (gTranLast != nullptr) {
        gTranLast->pListNext = pTran;
    } else {
        gTranFirst = pTran;
    }
    gTranLast = pTran;

    IndexPair(pTran);

    Client *pClient = pTran->pClient;
    pTran->pIndexClient = pClient;
    pTran->pClientNext = nullptr;
    pTran->pClientPrev = nullptr;
    if (pClient != nullptr) {
        pTran->pClientPrev = pClient->pTranLast;
        if (pClient->pTranLast != nullptr) {
            pClient->pTranLast->pClientNext = pTran;
        } else {
            pClient->pTranFirst = pTran;
        }
        pClient->pTranLast = pTran;
        pClient->tranCount++;
    }
}

static void UnindexPair(Transaction *pTran) {
    Transaction **ppLink = &gPairIndex[PairKey(pTran->sid, pTran->tid)];
    while (*ppLink != nullptr && *ppLink != pTran) {
        ppLink = &(*ppLink)->pPairNext;
    }
    if (*ppLink == pTran) {
        *ppLink = pTran->pPairNext;
    }
    pTran->pPairNext = nullptr;
}

static void UnindexTran(Transaction *pTran) {
    if (pTran->pListPrev != nullptr) {
        pTran->pListPrev->pListNext = pTran->pListNext;
    } else if (gTranFirst == pTran) {
        gTranFirst = pTran->pListNext;
    }
    if (pTran->pListNext != nullptr) {
        pTran->pListNext->pListPrev = pTran->pListPrev;
    } else if (gTranLast == pTran) {
        gTranLast = pTran->pListPrev;
    }
    UnindexPair(pTran);
    Client *pClient = pTran->pIndexClient;
    if (pClient != nullptr) {
        if (pTran->pClientPrev != nullptr) {
            pTran->pClientPrev->pClientNext = pTran->pClientNext;
        } else if (pClient->pTranFirst == pTran) {
            pClient->pTranFirst = pTran->pClientNext;
        }
        if (pTran->pClientNext != nullptr) {
            pTran->pClientNext->pClientPrev = pTran->pClientPrev;
        } else if (pClient->pTranLast == pTran) {
            pClient->pTranLast = pTran->pClientPrev;
        }
        if (pClient->tranCount > 0) {
            pClient->tranCount--;
        }
    }
    pTran->pNode = nullptr;
    pTran->pListPrev = nullptr;
    pTran->pListNext = nullptr;
    pTran->pIndexClient = nullptr;
    pTran->pClientPrev = nullptr;
    pTran->pClientNext = nullptr;
}

/* Appends to the list and the index; the changed flag is the caller's. */
static int LinkTran(Transaction *pTran) {
    ListNode *pNode = List_AddTail(&LAPI_SRV_tranList, pTran);
    if (pNode == nullptr) {
        return -1;
    }
    IndexTran(pTran, pNode);
    return 0;
}

void LAPI_SRV_UnlinkTran(Transaction *pTran) {
    if (pTran == nullptr) {
        return;
    }
    ListNode *pNode = pTran->pNode;
    if (pNode == nullptr) {
        /* Not indexed: put on the list by other means. */
        List_Remove(&LAPI_SRV_tranList, pTran);
        return;
    }
    /* The node before it is the node of the record before it, in O(1); the
     * list's own removal would walk from the head to find it. */
    ListNode *pPrevNode = pTran->pListPrev != nullptr ? pTran->pListPrev->pNode : nullptr;
    bool bLinked =
        pPrevNode != nullptr ? pPrevNode->next == pNode : LAPI_SRV_tranList.head == pNode;
    UnindexTran(pTran);
    if (!bLinked) {
        /* Something else changed the list behind the index: walk. */
        List_RemoveAt(&LAPI_SRV_tranList, pNode);
        return;
    }
    if (pPrevNode == nullptr) {
        LAPI_SRV_tranList.head = pNode->next;
        if (LAPI_SRV_tranList.head == nullptr) {
            LAPI_SRV_tranList.tail = nullptr;
        }
    } else {
        pPrevNode->next = pNode->next;
        if (LAPI_SRV_tranList.tail == pNode) {
            LAPI_SRV_tranList.tail = pPrevNode;
        }
    }
    free(pNode);
    if (LAPI_SRV_tranList.count > 0) {
        LAPI_SRV_tranList.count--;
    }
}

/* Signed distance, as every deadline comparison makes it (ticks wrap). */
static bool TicksBefore(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)) < 0;
}

static void LowerScanBound(int32_t expireTime) {
    if (gScanBoundKnown && TicksBefore(expireTime, gScanBound)) {
        gScanBound = expireTime;
    }
}

void LAPI_SRV_SetTranExpireTime(Transaction *pTran, int32_t expireTime) {
    if (pTran == nullptr) {
        return;
    }
    pTran->expireTime = expireTime;
    LowerScanBound(expireTime);
}

int LAPI_SRV_GetTranScanBound(int32_t *pBound) {
    if (!gScanBoundKnown) {
        return 0;
    }
    *pBound = gScanBound;
    return 1;
}

void LAPI_SRV_SetTranScanBound(int32_t bound) {
    gScanBound = bound;
    gScanBoundKnown = true;
}

/* Number of distinct pairs: sid 2..255, tid 1..255. */
#define LAPI_SRV_BP_PAIR_COUNT (254 * 255)

Transaction *LAPI_SRV_CreateTransaction(uint32_t clientSid, uint32_t clientTid, Client *pClient,
                                        uint32_t isSync) {
    if (pClient == nullptr) {
        return nullptr;
    }
    /* One client must not take every BP pair from the others. */
    if (pClient->tranCount >= LAPI_SRV_MAX_TRANS_PER_CLIENT) {
        LAPI_SRV_ERR("Client pid %d already holds %d transactions, refuse!",
                     static_cast<int>(pClient->pid), LAPI_SRV_MAX_TRANS_PER_CLIENT);
        return nullptr;
    }
    Transaction *pTran = static_cast<Transaction *>(malloc(sizeof(Transaction)));
    if (pTran == nullptr) {
        LAPI_SRV_ERR("Can not get Transaction, No memory!");
        return nullptr;
    }
    memset(pTran, 0, sizeof(Transaction));
    /* Listed with the pair (0, 0), which is never handed out, and moved to
     * its own pair below. Its deadline is set by the caller through
     * LAPI_SRV_SetTranExpireTime before the loop turns again. */
    pTran->pClient = pClient;
    if (LinkTran(pTran) != 0) {
        LAPI_SRV_ERR("Fail to add pTran into LAPI_SRV_tranList!");
        free(pTran);
        return nullptr;
    }
    LAPI_SRV_tranListChanged = 1;
    /* Every pair taken: refuse rather than search for ever. */
    int tries = 0;
    while (FindPair(LAPI_SRV_nextSid, LAPI_SRV_nextTid) != nullptr) {
        if (++tries >= LAPI_SRV_BP_PAIR_COUNT) {
            LAPI_SRV_ERR("No free BP sid/tid pair, %d transactions!",
                         static_cast<int>(LAPI_SRV_tranList.count));
            LAPI_SRV_UnlinkTran(pTran);
            free(pTran);
            return nullptr;
        }
        AdvanceBpPair();
    }
    UnindexPair(pTran);
    pTran->sid = LAPI_SRV_nextSid;
    pTran->tid = LAPI_SRV_nextTid;
    IndexPair(pTran);
    AdvanceBpPair();
    pTran->clientSid = static_cast<uint8_t>(clientSid);
    pTran->clientTid = static_cast<uint8_t>(clientTid);
    pTran->isSync = static_cast<uint8_t>(isSync);
    return pTran;
}

int LAPI_SRV_AddTranList(Transaction *pTran) {
    if (pTran == nullptr) {
        return -1;
    }
    if (LinkTran(pTran) != 0) {
        return -1;
    }
    /* A record put back keeps the deadline it has. */
    LowerScanBound(pTran->expireTime);
    LAPI_SRV_tranListChanged = 1;
    return 0;
}

Transaction *LAPI_SRV_GetTranByBpId(uint32_t sid, uint32_t tid, uint32_t remove) {
    uint8_t sid8 = static_cast<uint8_t>(sid);
    uint8_t tid8 = static_cast<uint8_t>(tid);
    Transaction *pTran = FindPair(sid8, tid8);
    if (pTran != nullptr && static_cast<uint8_t>(remove) != 0) {
        LAPI_SRV_UnlinkTran(pTran);
        LAPI_SRV_tranListChanged = 1;
    }
    return pTran;
}

Transaction *LAPI_SRV_GetTranByClientId(Client *pClient, uint32_t clientSid, uint32_t clientTid,
                                        uint32_t remove) {
    uint8_t sid8 = static_cast<uint8_t>(clientSid);
    uint8_t tid8 = static_cast<uint8_t>(clientTid);
    /* A client's own chain holds at most LAPI_SRV_MAX_TRANS_PER_CLIENT; the
     * records of no client are found by walking the list. */
    Transaction *pTran = pClient != nullptr ? pClient->pTranFirst : gTranFirst;
    for (; pTran != nullptr; pTran = pClient != nullptr ? pTran->pClientNext : pTran->pListNext) {
        if (pTran->pClient == pClient && pTran->clientSid == sid8 && pTran->clientTid == tid8) {
            if (static_cast<uint8_t>(remove) != 0) {
                LAPI_SRV_UnlinkTran(pTran);
                LAPI_SRV_tranListChanged = 1;
            }
            return pTran;
        }
    }
    return nullptr;
}

/* ------------------------------------------------------------------------ */
/* Writing to clients                                                        */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_SendMsgToClient(Fdops *pFdops, const void *pBuf, int len) {
    if (LAPI_SRV_FdopsClient(pFdops) == nullptr) {
        return -1;
    }
    if (LAPI_SRV_GeneralWrite(pFdops, pBuf, len) == 0) {
        return 0;
    }
    LAPI_SRV_ERR("Fail to send msg to client, pid is :%d!",
                 static_cast<int>(LAPI_SRV_FdopsClient(pFdops)->pid));
    if (pFdops->closeProc != nullptr) {
        pFdops->closeProc(pFdops);
    }
    return -1;
}

int LAPI_SRV_BroadcastMsgToClient(List *pList, const void *pBuf, int len) {
    if (pList == nullptr) {
        LAPI_SRV_ERR("pList == NULL!");
        return -1;
    }
    int result = 0;
    /* A failed send removes that client (and its node) through closeProc;
     * the position has already moved past it. */
    /* The same message to every client: its trace is formatted once. */
    LAPI_LogApMsgRepeat(1);
    ListNode *pPos = List_GetHeadPos(pList);
    while (pPos != nullptr) {
        Client *pClient = static_cast<Client *>(List_GetNext(pList, &pPos));
        if (pClient == nullptr || LAPI_SRV_SendMsgToClient(pClient->pAsyncFdops, pBuf, len) != 0) {
            result = -1;
        }
    }
    LAPI_LogApMsgRepeat(0);
    return result;
}

int LAPI_SRV_BroadcastMsgToStatusClient(const void *pBuf, int len) {
    return LAPI_SRV_BroadcastMsgToClient(&LAPI_SRV_statusClientList, pBuf, len);
}

int LAPI_SRV_BroadcastMsgToMtlrClient(const void *pBuf, int len) {
    return LAPI_SRV_BroadcastMsgToClient(&LAPI_SRV_mtlrClientList, pBuf, len);
}
