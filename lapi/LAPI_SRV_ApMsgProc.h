/* Client connections: handshake, dispatch, request handlers and timeouts. */
#ifndef LAPI_SRV_APMSGPROC_H
#define LAPI_SRV_APMSGPROC_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_Global.h"

/* Fills the 17-entry client-message handler table. */
void LAPI_SRV_InitApMsgProc(void);

void LAPI_SRV_SockReadProcAfterConnect(Fdops *pFdops);
void LAPI_SRV_SockReadProcAfterRegister(Fdops *pFdops);
void LAPI_SRV_SockReadProcNull(Fdops *pFdops);
void LAPI_SRV_ProcClientCrash(Fdops *pFdops);

/* Take the complete messages out of the read buffer: the first message of
 * a connection (registerReq or getAsyncFdReq), and every later message of
 * a registered client's synchronous connection. 0, or negative when the
 * connection must be closed. */
int LAPI_SRV_SockMsgProcAfterConnect(Fdops *pFdops);
int LAPI_SRV_SockMsgProcAfterRegister(Fdops *pFdops);

/* Handshake, unregistration and dispatch (msg starts with its MsgHeader,
 * at any byte position). 0 or -1. */
int LAPI_SRV_ProcRegisterMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcGetAsyncFdMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcUnregisterMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcessApMsg(uint8_t *pMsg, Fdops *pFdops);

/* The dispatch table, indexed by msgId - 100. */
typedef int (*LAPI_SRV_ApMsgProcFn)(uint8_t *pMsg, Fdops *pFdops);
#define LAPI_SRV_AP_MSG_PROC_COUNT 17
extern LAPI_SRV_ApMsgProcFn LAPI_SRV_apMsgProcTable[LAPI_SRV_AP_MSG_PROC_COUNT];

/* ---- dispatch rows ----
 *
 * Every client message the dispatcher takes has one row: its handler, the
 * name and source file the handler's diagnostics carry, and the message's
 * shared row (LAPI_ApMsgRows.h: the length rule of its body and the
 * wrong-length text). LAPI_SRV_ProcessApMsg checks the message against the
 * row (identifier, then length, each error line in the handler's name)
 * before the handler runs. A handler put into LAPI_SRV_apMsgProcTable in
 * place of its row's (a stand-in) gets every message unchecked.
 *
 * To add a row: write the handler, list it with LAPI_SRV_AP_ROW in the row
 * array of its source file, and install that array in
 * LAPI_SRV_InitApMsgProc. The message's shared row must carry a
 * wrong-length text (checked at compile time). */
struct LAPI_SRV_ApMsgRow {
    const LAPI_ApMsgLenRow *pMsg; /* identifier, length rule, wrong-length text */
    LAPI_SRV_ApMsgProcFn proc;
    const char *pProcName; /* the function named on its error lines */
    const char *pFile;     /* the source those lines name */
    int line;              /* and the line: where the row is listed */
};

#define LAPI_SRV_AP_ROW(msgId, proc)                                   \
    LAPI_SRV_ApMsgRow {                                                \
        LAPI_ApMsgRowOf(msgId), (proc), #proc, LAPI_LOG_FILE, __LINE__ \
    }

/* Whether rows are sound: each names a shared row with a wrong-length text
 * and a handler. */
constexpr bool LAPI_SRV_ApRowsValid(const LAPI_SRV_ApMsgRow *pRows, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (pRows[i].pMsg == nullptr || pRows[i].pMsg->pWrongLenFmt == nullptr ||
            pRows[i].proc == nullptr) {
            return false;
        }
    }
    return true;
}

/* unregisterReq (LAPI_SRV_ApMsgProc.cpp) and the requests that go to the BP
 * (LAPI_SRV_ApMsgProcReq.cpp). */
extern const LAPI_SRV_ApMsgRow LAPI_SRV_unregisterRow;
extern const LAPI_SRV_ApMsgRow LAPI_SRV_apRequestRows[];
extern const size_t LAPI_SRV_apRequestRowCount;
/* removeProximityReq with removeType 1, reached from the remove handler. */
extern const LAPI_SRV_ApMsgRow LAPI_SRV_removeAllProximityRow;

/* Checks the message against the row and runs its handler: the handler's
 * result, or -1 after the row's error line. */
int LAPI_SRV_RunApMsgRow(const LAPI_SRV_ApMsgRow *pRow, uint8_t *pMsg, Fdops *pFdops);

/* Request handlers of the dispatch table (msg starts with its MsgHeader). */
int LAPI_SRV_ProcGetLocationMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcAbortLocationMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcAbortAllLocationMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcLastKnownLocationMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcGetGpsDbDataMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcSetGpsDbDataMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcGetStatusMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcLocationNotificationCfmMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcDistanceAzimuthMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcAddProximityMsg(uint8_t *pMsg, Fdops *pFdops);
int LAPI_SRV_ProcRemoveProximityMsg(uint8_t *pMsg, Fdops *pFdops);

/* Sends an abort of the transaction's location request to the BP. */
int LAPI_SRV_AbortLocationReq(Transaction *pTran, uint32_t isSync);

/* The timer scan: ends expired transactions and stores in *pTimeout (may be
 * null) how long the loop may wait, at most one hour. */
void LAPI_SRV_ScanTranList(struct timeval *pTimeout);

/* Request handlers and deadlines (LAPI_SRV_ApMsgProcReq.cpp). */

/* removeProximityReq with removeType 1: a new transaction under its own pair. */
int LAPI_SRV_ProcRemoveAllProximityMsg(uint8_t *pMsg, Fdops *pFdops);

/* invalidRequestRsp / timeOutRsp with the client's pair: 0 or -1. The first
 * writes straight to the connection, the second through
 * LAPI_SRV_SendMsgToClient (a failed write removes the client). */
int LAPI_SRV_SendInvalidReqResponse(Fdops *pFdops, uint8_t sid, uint8_t tid);
int LAPI_SRV_SendTimeOutReqResponse(Fdops *pFdops, uint8_t sid, uint8_t tid);

/* Deadline in ticks, `seconds` from now (seconds x 100 alone when the clock
 * cannot be read). Deadlines live modulo 2^32 ticks. */
int32_t LAPI_SRV_TicksAhead(uint32_t seconds);
/* Signed ticks from now until expireTime; 0 or less = expired. */
int32_t LAPI_SRV_TicksLeft(int32_t expireTime, long now);
/* Seconds a getLocationReq may wait for the BP. */
uint32_t LAPI_SRV_GetLocationDeadlineSec(uint32_t responseTime, uint32_t reportCriteria);

#endif /* LAPI_SRV_APMSGPROC_H */
