/* Client-message tracing and hex helpers, shared by the server (side 1)
 * and the client library (side 0). */
#ifndef LAPI_SRVCLI_H
#define LAPI_SRVCLI_H

#include <stdint.h>

#include "LAPI_Log.h"
#include "LAPI_Msg.h"

#ifdef __cplusplus
extern "C" {
#endif

void LAPI_DebugHex(const void *pData, int length, uint8_t side);
int LAPI_FormatHexStr(const void *pData, int length, char *pBuf, uint8_t side);
int LAPI_LogApMsgHeader(const MsgHeader *pMsgHeader, char *pBuf, uint8_t side);
void LAPI_LogApMsg(const void *pBuf, int length, uint8_t side);
/* While on, a message traced again with the same bytes (a broadcast to
 * many clients) reuses the text of the first one instead of formatting it
 * again; the lines are the same. Turning it on or off forgets the text. */
void LAPI_LogApMsgRepeat(int on);
/* Fills the two client-message trace tables. */
void LAPI_InitApMsgLogProc(void);

/* A trace procedure: takes the whole message (header first) and the side,
 * returns the number of characters of the traced text, or -1 when the
 * message is not the one it traces (the error line says why). */
typedef int (*LAPI_ApMsgLogProc)(const uint8_t *pMsg, uint8_t side);

/* Indexed by msgId (server messages) and by msgId - 100 (client messages). */
extern LAPI_ApMsgLogProc LAPI_srvMsgLogProcTable[LAPI_SRV_MSG_COUNT];
extern LAPI_ApMsgLogProc LAPI_cliMsgLogProcTable[LAPI_CLI_MSG_COUNT];

/* Longest message LAPI_LogApMsg dumps (its local copy). */
#define LAPI_LOG_MSG_MAX_LEN 1024

/* Client to server. */
int LAPI_LogRegisterReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetAsyncFdReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogUnregisterReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetLocationReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogAbortLocationReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogAbortAllLocationReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogLastKnownLocationReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetGpsDbDataReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogSetGpsDbDataReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetStatusReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogLocationNotificationCfm(const uint8_t *pMsg, uint8_t side);
int LAPI_LogDistanceAzimuthReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogAddProximityReq(const uint8_t *pMsg, uint8_t side);
int LAPI_LogRemoveProximityReq(const uint8_t *pMsg, uint8_t side);

/* Server to client. */
int LAPI_LogRegisterRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetAsyncFdRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogUnregisterRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetLocationRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogAbortLocationRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogTimeOutRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogInvalidRequestRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetGpsDbDataRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogSetGpsDbDataRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogGetStatusRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogStatusChangeInd(const uint8_t *pMsg, uint8_t side);
int LAPI_LogLocationNotificationInd(const uint8_t *pMsg, uint8_t side);
int LAPI_LogNotificationStatusInd(const uint8_t *pMsg, uint8_t side);
int LAPI_LogDistanceAzimuthRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogAddProximityRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogRemoveProximityRsp(const uint8_t *pMsg, uint8_t side);
int LAPI_LogProximityHitInd(const uint8_t *pMsg, uint8_t side);

#ifdef __cplusplus
}
#endif

#endif /* LAPI_SRVCLI_H */
