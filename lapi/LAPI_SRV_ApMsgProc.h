/* Client connections: handshake, dispatch, request handlers and timeouts. */
#ifndef LAPI_SRV_APMSGPROC_H
#define LAPI_SRV_APMSGPROC_H

#include <stdint.h>
#include <sys/time.h>

#include "LAPI_SRV_Global.h"

/* Fills the 17-entry client-message handler table. */
void LAPI_SRV_InitApMsgProc(void);

void LAPI_SRV_SockReadProcAfterConnect(Fdops *pFdops);
void LAPI_SRV_SockReadProcAfterRegister(Fdops *pFdops);
void LAPI_SRV_SockReadProcNull(Fdops *pFdops);
void LAPI_SRV_ProcClientCrash(Fdops *pFdops);

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

#endif /* LAPI_SRV_APMSGPROC_H */
