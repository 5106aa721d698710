/*
 * Client messages from a hostile application: the input is what the
 * server's read buffer holds, in a block of exactly the input's size (so a
 * read one byte too far is caught), taken apart
 *   - by a registered client's synchronous connection
 *     (LAPI_SRV_SockMsgProcAfterRegister, then the dispatched handlers),
 *   - as the first message of a new connection
 *     (LAPI_SRV_SockMsgProcAfterConnect, the handshake handlers),
 *   - and by the client-message tracer (LAPI_LogApMsg).
 * Every record made on the way is released through the server's own lists
 * at the end of each input, so LeakSanitizer sees what a handler lost.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SrvCli.h"

namespace {

/* One end of a fresh socket pair as a client connection of the server; the
 * other end is returned in *pPeer. The read buffer is exactly rbufSize. */
Fdops *NewConnection(int rbufSize, int *pPeer) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
        abort();
    }
    SetFdBlocking(sv[0], false);
    SetFdBlocking(sv[1], false);
    Fdops *pFdops = CreateFdops(sv[0], rbufSize, LAPI_SRV_CLIENT_WBUF_SIZE);
    if (pFdops == nullptr) {
        abort();
    }
    pFdops->readProc = LAPI_SRV_SockReadProcAfterConnect;
    pFdops->writeProc = LAPI_SRV_GeneralWriteProc;
    pFdops->closeProc = LAPI_SRV_CloseFdops;
    LAPI_SRV_AddFdopsReadList(pFdops);
    *pPeer = sv[1];
    return pFdops;
}

void Fill(Fdops *pFdops, const uint8_t *data, size_t size) {
    if (size > 0) {
        memcpy(pFdops->rbuf.buf, data, size);
    }
    pFdops->rbuf.idx = static_cast<uint16_t>(size);
}

/* Ends every client and every descriptor the input left behind. */
void ReleaseAll() {
    while (LAPI_SRV_allClientList.head != nullptr) {
        LAPI_SRV_RemoveClient(static_cast<Client *>(LAPI_SRV_allClientList.head->data));
    }
    while (LAPI_SRV_readFdopsList.head != nullptr) {
        DestroyFdops(static_cast<Fdops *>(LAPI_SRV_readFdopsList.head->data));
    }
    while (LAPI_SRV_writeFdopsList.head != nullptr) {
        DestroyFdops(static_cast<Fdops *>(LAPI_SRV_writeFdopsList.head->data));
    }
    while (LAPI_SRV_tranList.head != nullptr) {
        free(List_RemoveHead(&LAPI_SRV_tranList));
    }
    SendDataNode *pNode;
    while ((pNode = GetQueueHead(&LAPI_SRV_muxSendDataList)) != nullptr) {
        free(pNode->pData);
        free(pNode);
    }
}

void Reset() {
    LAPI_SRV_InitGlobals();
    /* Counts as opened once: no handshake tries to open a device. */
    LAPI_SRV_muxConnected = 1;
}

/* A registered client with both connections; requests are read from the
 * synchronous one. */
void RunAfterRegister(const uint8_t *data, size_t size) {
    Reset();
    int syncPeer, asyncPeer;
    Fdops *pSync = NewConnection(static_cast<int>(size), &syncPeer);
    Fdops *pAsync = NewConnection(LAPI_SRV_CLIENT_RBUF_SIZE, &asyncPeer);
    Client *pClient = LAPI_SRV_CreateClient(1234, 6, pSync);
    if (pClient == nullptr) {
        abort();
    }
    pClient->pAsyncFdops = pAsync;
    LAPI_SRV_SetFdopsClient(pAsync, pClient);
    pSync->readProc = LAPI_SRV_SockReadProcAfterRegister;
    pSync->closeProc = LAPI_SRV_ProcClientCrash;
    pAsync->readProc = LAPI_SRV_SockReadProcNull;

    if (size > 0) {
        Fill(pSync, data, size);
        /* As the read procedure does: a refusal closes the connection. */
        if (LAPI_SRV_SockMsgProcAfterRegister(pSync) < 0) {
            pSync->closeProc(pSync);
        }
    } else {
        LAPI_SRV_SockReadProcAfterRegister(pSync); /* no read buffer at all */
    }
    ReleaseAll();
    close(syncPeer);
    close(asyncPeer);
}

/* The first message of a new connection, with one client already waiting
 * for its asynchronous connection (globalId taken from the input when it
 * is long enough, so getAsyncFdReq can match). */
void RunAfterConnect(const uint8_t *data, size_t size) {
    Reset();
    int waitingPeer, peer;
    Fdops *pWaiting = NewConnection(LAPI_SRV_CLIENT_RBUF_SIZE, &waitingPeer);
    Client *pClient = LAPI_SRV_CreateClient(99, 4, pWaiting);
    if (pClient == nullptr) {
        abort();
    }
    if (size >= sizeof(GetAsyncFdReq)) {
        memcpy(&pClient->globalId, data + offsetof(GetAsyncFdReq, globalId), 4);
    }
    Fdops *pNew = NewConnection(static_cast<int>(size), &peer);
    if (size > 0) {
        Fill(pNew, data, size);
        if (LAPI_SRV_SockMsgProcAfterConnect(pNew) < 0) {
            pNew->closeProc(pNew);
        }
    } else {
        LAPI_SRV_SockMsgProcAfterConnect(pNew);
    }
    ReleaseAll();
    close(waitingPeer);
    close(peer);
}

void RunTracer(const uint8_t *data, size_t size) {
    uint8_t *copy = static_cast<uint8_t *>(malloc(size > 0 ? size : 1));
    if (size > 0) {
        memcpy(copy, data, size);
    }
    LAPI_LogApMsg(size > 0 ? copy : nullptr, static_cast<int>(size), size & 1);
    free(copy);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    /* Trace lines cost more than the parsing they describe. */
    LAPI_traceEnabled = 0;
    LAPI_SRV_InitApMsgProc();
    LAPI_InitApMsgLogProc();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    /* The read buffer's capacity is 16 bits wide. */
    if (size > UINT16_MAX) {
        size = UINT16_MAX;
    }
    RunTracer(data, size);
    RunAfterRegister(data, size);
    RunAfterConnect(data, size);
    return 0;
}
