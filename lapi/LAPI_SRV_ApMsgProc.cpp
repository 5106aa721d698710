/*
 * Client connections: the two-connection handshake, the read procedures of
 * each connection state, unregistration, the dispatch of requests through
 * the table indexed by msgId - 100, and the end of a client whose
 * synchronous connection breaks.
 *
 * Messages are cut out of the read buffer wherever they start, so every
 * header field is copied out with memcpy, never read through a cast.
 */
#include "LAPI_SRV_ApMsgProc.h"

#include <string.h>

#include "LAPI_Log.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_Wire.h"

LAPI_SRV_ApMsgProcFn LAPI_SRV_apMsgProcTable[LAPI_SRV_AP_MSG_PROC_COUNT];
/* The row of each table entry, filled with it by LAPI_SRV_InitApMsgProc. */
static const LAPI_SRV_ApMsgRow *apMsgRows[LAPI_SRV_AP_MSG_PROC_COUNT];

static_assert(LAPI_SRV_AP_MSG_PROC_COUNT == LAPI_CLI_MSG_COUNT);
static_assert(LAPI_REMOVE_PROXIMITY_REQ - LAPI_CLI_MSG_BASE == LAPI_SRV_AP_MSG_PROC_COUNT - 1);

namespace {

/* Whole size of the handshake requests (registerReq, getAsyncFdReq). */
constexpr int kHandshakeMsgSize = LAPI_MSG_HEADER_LEN + LAPI_REGISTER_REQ_LEN;
static_assert(LAPI_REGISTER_REQ_LEN == LAPI_GET_ASYNC_FD_REQ_LEN);

/* The two messages a new connection may start with. */
struct Handshake {
    uint16_t msgId;
    const char *pWrongLenFmt; /* takes msgLen */
    const char *pWhat;        /* "Receive %s message with more bytes than expected!" */
    int (*proc)(uint8_t *pMsg, Fdops *pFdops);
};
constexpr Handshake kHandshakes[] = {
    {LAPI_REGISTER_REQ, "Invalid register msgLen: %d!", "register", LAPI_SRV_ProcRegisterMsg},
    {LAPI_GET_ASYNC_FD_REQ, "Invalid get async fd msgLen: %d!", "get async fd",
     LAPI_SRV_ProcGetAsyncFdMsg},
};

MsgHeader ReadHeader(const uint8_t *pMsg) {
    MsgHeader h;
    memset(&h, 0, sizeof(h));
    LAPI_Reader(pMsg, sizeof(h)).GetBytes(&h, sizeof(h));
    return h;
}

/* The u32 field at offset off of a handshake message (whose whole size the
 * caller has checked). */
uint32_t ReadU32At(const uint8_t *pMsg, size_t off) {
    LAPI_Reader r(pMsg, kHandshakeMsgSize);
    uint32_t v = 0;
    r.Skip(off);
    r.GetHost32(&v);
    return v;
}

int HasReadBuffer(const Fdops *pFdops) {
    return pFdops != nullptr && pFdops->rbuf.buf != nullptr && pFdops->rbuf.len != 0;
}

void CallCloseProc(Fdops *pFdops) {
    if (pFdops->closeProc != nullptr) {
        pFdops->closeProc(pFdops);
    }
}

/* A server message that is a header alone (getAsyncFdRsp, unregisterRsp). */
int SendHeaderOnly(Fdops *pFdops, uint16_t msgId) {
    MsgHeader rsp;
    rsp.pid = 0;
    rsp.msgId = msgId;
    rsp.msgLen = 0;
    return LAPI_SRV_GeneralWrite(pFdops, &rsp, sizeof(rsp));
}

}  // namespace

/* Puts rows into the table; a row out of range or for an entry already
 * taken is a mistake in the rows and is left out with an error line. */
static void InstallApRows(const LAPI_SRV_ApMsgRow *pRows, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        int msgId = pRows[i].pMsg != nullptr ? pRows[i].pMsg->msgId : -1;
        int index = msgId - LAPI_CLI_MSG_BASE;
        if (index < 0 || index >= LAPI_SRV_AP_MSG_PROC_COUNT || apMsgRows[index] != nullptr) {
            LAPI_SRV_ERR("Invalid client msg row: %d!", msgId);
            continue;
        }
        apMsgRows[index] = &pRows[i];
        LAPI_SRV_apMsgProcTable[index] = pRows[i].proc;
    }
}

void LAPI_SRV_InitApMsgProc(void) {
    memset(LAPI_SRV_apMsgProcTable, 0, sizeof(LAPI_SRV_apMsgProcTable));
    memset(apMsgRows, 0, sizeof(apMsgRows));
    InstallApRows(&LAPI_SRV_unregisterRow, 1);
    InstallApRows(LAPI_SRV_apRequestRows, LAPI_SRV_apRequestRowCount);
}

int LAPI_SRV_RunApMsgRow(const LAPI_SRV_ApMsgRow *pRow, uint8_t *pMsg, Fdops *pFdops) {
    if (pRow == nullptr || pRow->proc == nullptr || pRow->pMsg == nullptr) {
        return -1;
    }
    const LAPI_ApMsgLenRow &m = *pRow->pMsg;
    MsgHeader h = ReadHeader(pMsg);
    int pid = static_cast<int>(h.pid);
    if (h.msgId != m.msgId) {
        LAPI_LogLine(1, 1, pRow->pFile, pRow->line, pRow->pProcName,
                     "pMsgHeader->msgId : %d is not expected, pid : %d!", h.msgId, pid);
        return -1;
    }
    if (!LAPI_LenFits(m.lenRule, m.len, h.msgLen)) {
        LAPI_LogLine(1, 1, pRow->pFile, pRow->line, pRow->pProcName, m.pWrongLenFmt, h.msgLen, pid);
        return -1;
    }
    return pRow->proc(pMsg, pFdops);
}

/* ------------------------------------------------------------------------ */
/* Read procedures                                                           */
/* ------------------------------------------------------------------------ */

/* A read procedure of a client connection: reads, then takes the complete
 * messages; a refusal closes the connection. The lines name the read
 * procedure (file, line, func). A successful unregisterReq has freed
 * pFdops: it is touched afterwards only on failure, which never frees it. */
static void ReadAndTakeMessages(Fdops *pFdops, int (*takeMessages)(Fdops *), const char *file,
                                int line, const char *func) {
    if (!LAPI_SRV_ReadIntoFdops(pFdops, file, line, func)) {
        return;
    }
    if (takeMessages(pFdops) < 0) {
        LAPI_LogLine(1, 1, file, line, func, "Fail to process message for pFdops!");
        CallCloseProc(pFdops);
    }
}

void LAPI_SRV_SockReadProcAfterConnect(Fdops *pFdops) {
    ReadAndTakeMessages(pFdops, LAPI_SRV_SockMsgProcAfterConnect, __FILE__, __LINE__, __func__);
}

void LAPI_SRV_SockReadProcAfterRegister(Fdops *pFdops) {
    ReadAndTakeMessages(pFdops, LAPI_SRV_SockMsgProcAfterRegister, __FILE__, __LINE__, __func__);
}

void LAPI_SRV_SockReadProcNull(Fdops *pFdops) {
    if (!LAPI_SRV_READ_INTO_FDOPS(pFdops)) {
        return;
    }
    if (pFdops->rbuf.idx > 0) {
        Client *pClient = LAPI_SRV_FdopsClient(pFdops);
        if (pClient != nullptr) {
            LAPI_SRV_ERR("Invalid write to async fd, pid is: %d!", static_cast<int>(pClient->pid));
        } else {
            LAPI_SRV_ERR("pClient == NULL!");
        }
    }
    /* The asynchronous connection only carries answers to the client. */
    pFdops->rbuf.idx = 0;
}

/* ------------------------------------------------------------------------ */
/* Message procedures                                                        */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_SockMsgProcAfterConnect(Fdops *pFdops) {
    if (!HasReadBuffer(pFdops)) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return -1;
    }
    FdBuf *pFdBuf = &pFdops->rbuf;
    if (pFdBuf->idx < LAPI_MSG_HEADER_LEN) {
        return 0;
    }
    MsgHeader h = ReadHeader(pFdBuf->buf);
    const Handshake *pStep = nullptr;
    for (const Handshake &step : kHandshakes) {
        if (step.msgId == h.msgId) {
            pStep = &step;
        }
    }
    if (pStep == nullptr) {
        LAPI_SRV_ERR("Not expected msgId: %d!", h.msgId);
        return -1;
    }
    if (!LAPI_ApMsgLenFits(h.msgId, h.msgLen)) {
        LAPI_SRV_ERR(pStep->pWrongLenFmt, h.msgLen);
        return -1;
    }
    if (pFdBuf->idx < kHandshakeMsgSize) {
        return 0;
    }
    if (pFdBuf->idx > kHandshakeMsgSize) {
        LAPI_SRV_ERR("Receive %s message with more bytes than expected!", pStep->pWhat);
        return -1;
    }
    int ret = pStep->proc(pFdBuf->buf, pFdops);
    /* The handshake handlers never free pFdops; a refusal is closed by the
     * read procedure afterwards. */
    pFdBuf->idx = 0;
    return ret;
}

int LAPI_SRV_SockMsgProcAfterRegister(Fdops *pFdops) {
    if (!HasReadBuffer(pFdops)) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return -1;
    }
    FdBuf *pFdBuf = &pFdops->rbuf;
    int held = pFdBuf->idx;
    int pos = 0;
    int ret = 0;
    while (held - pos >= LAPI_MSG_HEADER_LEN) {
        uint8_t *pMsg = pFdBuf->buf + pos;
        MsgHeader h = ReadHeader(pMsg);
        int msgSize = h.msgLen + LAPI_MSG_HEADER_LEN;
        /* Never wait for a message that cannot fit: refuse it at once. */
        if (msgSize > pFdBuf->len) {
            LAPI_SRV_ERR("msgLen: %d > pFdBuf->len: %d, msgId: %d, pid is: %d!", msgSize,
                         pFdBuf->len, h.msgId, static_cast<int>(h.pid));
            return -1;
        }
        if (held - pos < msgSize) {
            break;
        }
        ret = LAPI_SRV_ProcessApMsg(pMsg, pFdops);
        if (ret < 0) {
            LAPI_SRV_ERR("Fail to process ap message for pFdops!");
            return -1;
        }
        if (h.msgId == LAPI_UNREGISTER_REQ) {
            /* The client and both its connections are gone. */
            return 0;
        }
        pos += msgSize;
    }
    if (pos == held) {
        pFdBuf->idx = 0;
    } else if (pos > 0) {
        memmove(pFdBuf->buf, pFdBuf->buf + pos, static_cast<size_t>(held - pos));
        pFdBuf->idx = static_cast<uint16_t>(held - pos);
    }
    return ret;
}

/* ------------------------------------------------------------------------ */
/* Handshake                                                                 */
/* ------------------------------------------------------------------------ */

/* The start of every message handler here: the message's header in *pH,
 * or false (after the handler's error line) when there is no message or no
 * connection. */
static bool HeaderOf(const uint8_t *pMsg, const Fdops *pFdops, MsgHeader *pH, int line,
                     const char *func) {
    if (pMsg == nullptr || pFdops == nullptr) {
        LAPI_LogLine(1, 1, LAPI_LOG_FILE, line, func, "Invalid pFdops!");
        return false;
    }
    *pH = ReadHeader(pMsg);
    return true;
}

/* The start of both handshake handlers: as HeaderOf, and false as well when
 * the connection already belongs to a client. */
static bool HandshakeOnFreshConnection(const uint8_t *pMsg, Fdops *pFdops, MsgHeader *pH, int line,
                                       const char *func) {
    if (!HeaderOf(pMsg, pFdops, pH, line, func)) {
        return false;
    }
    if (LAPI_SRV_FdopsClient(pFdops) != nullptr) {
        LAPI_LogLine(1, 1, LAPI_LOG_FILE, line, func, "pFdops->pFdInfo != NULL, pid is : %d!",
                     static_cast<int>(pH->pid));
        return false;
    }
    return true;
}

int LAPI_SRV_ProcRegisterMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader h;
    if (!HandshakeOnFreshConnection(pMsg, pFdops, &h, __LINE__, __func__)) {
        return -1;
    }
    int pid = static_cast<int>(h.pid);
    /* Only the three low bits mean something; the others are cleared in
     * the message itself. */
    uint32_t service = ReadU32At(pMsg, offsetof(RegisterReq, service)) & LAPI_SERVICE_MASK;
    LAPI_Writer w(pMsg, kHandshakeMsgSize);
    uint8_t *pBefore = nullptr;
    w.Reserve(offsetof(RegisterReq, service), &pBefore);
    w.PutHost32(service);
    if (service == 0) {
        LAPI_SRV_ERR("Invalid register service: %u!", service);
        return -1;
    }
    if ((service & LAPI_SERVICE_MTLR) && !List_IsEmpty(&LAPI_SRV_mtlrClientList)) {
        LAPI_SRV_ERR("Can not register more than one client to process MT_LR!");
        return -1;
    }
    Client *pClient = LAPI_SRV_CreateClient(h.pid, service, pFdops);
    if (pClient == nullptr) {
        LAPI_SRV_ERR("Fail to create Client, pid is : %d!", pid);
        return -1;
    }
    RegisterRsp rsp = LAPI_NewApMsg<RegisterRsp, LAPI_REGISTER_RSP>(0);
    rsp.globalId = pClient->globalId;
    if (LAPI_SRV_GeneralWrite(pClient->pSyncFdops, &rsp, sizeof(rsp)) < 0) {
        /* The client stays: closing this connection removes it. */
        LAPI_SRV_ERR("Fail to send register response to pid : %d!", pid);
        return -1;
    }
    return 0;
}

int LAPI_SRV_ProcGetAsyncFdMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader h;
    if (!HandshakeOnFreshConnection(pMsg, pFdops, &h, __LINE__, __func__)) {
        return -1;
    }
    int pid = static_cast<int>(h.pid);
    uint32_t globalId = ReadU32At(pMsg, offsetof(GetAsyncFdReq, globalId));
    Client *pClient = LAPI_SRV_GetClientByGlobalId(globalId);
    if (pClient == nullptr) {
        LAPI_SRV_ERR("Fail to find Client globalId: %d, pid is : %d!", static_cast<int>(globalId),
                     pid);
        return -1;
    }
    if (pClient->pAsyncFdops != nullptr) {
        LAPI_SRV_ERR("pClient->pAsyncFdops != NULL, globalId: %d, pid is : %d!",
                     static_cast<int>(globalId), pid);
        return -1;
    }
    pClient->pAsyncFdops = pFdops;
    LAPI_SRV_SetFdopsClient(pFdops, pClient);
    pClient->pid = h.pid;

    /* Until the BP channel has been opened once, every completed handshake
     * tries again; after that a lost channel stays lost. */
    if (!LAPI_SRV_IsMuxConnected()) {
        LAPI_SRV_TRACE("Trying to connect mux channel...");
        if (LAPI_SRV_ConnectMuxChannel() < 0) {
            LAPI_SRV_ERR("Fail to connect mux channel!");
            return -1;
        }
    }
    if (SendHeaderOnly(pFdops, LAPI_GET_ASYNC_FD_RSP) < 0) {
        LAPI_SRV_ERR("Fail to send get async fd response to pid : %d!", pid);
        return -1;
    }
    Fdops *pSyncFdops = pClient->pSyncFdops;
    if (pSyncFdops != nullptr) {
        LAPI_SRV_SetFdopsProcs(pSyncFdops, LAPI_SRV_SockReadProcAfterRegister,
                               pSyncFdops->writeProc, LAPI_SRV_ProcClientCrash);
    }
    LAPI_SRV_SetFdopsProcs(pFdops, LAPI_SRV_SockReadProcNull, pFdops->writeProc, pFdops->closeProc);
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Dispatch and unregistration                                               */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_ProcessApMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader h;
    if (!HeaderOf(pMsg, pFdops, &h, __LINE__, __func__)) {
        return -1;
    }
    int pid = static_cast<int>(h.pid);
    Client *pClient = LAPI_SRV_FdopsClient(pFdops);
    if (pClient == nullptr) {
        LAPI_SRV_ERR("pFdops->pFdInfo == NULL, pid is : %d!", pid);
        return -1;
    }
    if (pClient->pSyncFdops != pFdops) {
        LAPI_SRV_ERR("pClient->pSyncFdops != pFdops, pid is : %d!", pid);
        return -1;
    }
    pClient->pid = h.pid;
    int index = h.msgId - LAPI_CLI_MSG_BASE;
    if (index < 0 || index >= LAPI_SRV_AP_MSG_PROC_COUNT) {
        LAPI_SRV_ERR("Unknown msgId: %d, pid is: %d!", h.msgId, pid);
        return -1;
    }
    LAPI_SRV_ApMsgProcFn proc = LAPI_SRV_apMsgProcTable[index];
    if (proc == nullptr) {
        LAPI_SRV_ERR("No procedure for msgId: %d, pid is: %d!", h.msgId, pid);
        return -1;
    }
    if (apMsgRows[index] != nullptr && apMsgRows[index]->proc == proc) {
        return LAPI_SRV_RunApMsgRow(apMsgRows[index], pMsg, pFdops);
    }
    return proc(pMsg, pFdops);
}

int LAPI_SRV_ProcUnregisterMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader h;
    if (!HeaderOf(pMsg, pFdops, &h, __LINE__, __func__)) {
        return -1;
    }
    int pid = static_cast<int>(h.pid);
    if (SendHeaderOnly(pFdops, LAPI_UNREGISTER_RSP) < 0) {
        LAPI_SRV_ERR("Fail to send unregister response to pid : %d!", pid);
        return -1;
    }
    /* Removing the client closes the connection: a response still waiting
     * in the write buffer would be lost without notice. */
    if (pFdops->wbuf.idx > 0) {
        LAPI_SRV_ERR("Send incomplete unregister response to pid : %d!", pid);
        return -1;
    }
    LAPI_SRV_RemoveClient(LAPI_SRV_FdopsClient(pFdops));
    return 0;
}

void LAPI_SRV_ProcClientCrash(Fdops *pFdops) {
    LAPI_SRV_TRACE("enter LAPI_SRV_ProcClientCrash function");
    if (pFdops == nullptr) {
        return;
    }
    Client *pClient = LAPI_SRV_FdopsClient(pFdops);
    if (pClient != nullptr) {
        LAPI_SRV_RemoveClient(pClient);
    } else {
        /* No owner to release it: end the connection itself. */
        DestroyFdops(pFdops);
    }
}

constexpr LAPI_SRV_ApMsgRow LAPI_SRV_unregisterRow =
    LAPI_SRV_AP_ROW(LAPI_UNREGISTER_REQ, LAPI_SRV_ProcUnregisterMsg);
static_assert(LAPI_SRV_ApRowsValid(&LAPI_SRV_unregisterRow, 1));
