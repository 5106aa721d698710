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
/* Fills the two client-message trace tables. */
void LAPI_InitApMsgLogProc(void);

#ifdef __cplusplus
}
#endif

#endif /* LAPI_SRVCLI_H */
