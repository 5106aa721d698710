/* The BP link: mux channel, frames, BP message dispatch and tracing. */
#ifndef LAPI_SRV_BPMSGPROC_H
#define LAPI_SRV_BPMSGPROC_H

#include <stdint.h>

#include "LAPI_SRV_Global.h"

int LAPI_SRV_ConnectMuxChannel(void);
uint8_t LAPI_SRV_IsMuxConnected(void);
uint16_t LAPI_SRV_SetUpBpMsgFrame(uint8_t *pFrame, uint16_t msgLen);
int LAPI_SRV_SendMsgToBp(uint8_t *pFrame, uint16_t frameLen);
void LAPI_SRV_MuxFdReadProc(Fdops *pFdops);
int LAPI_SRV_BpMsgParse(Fdops *pFdops);
void LAPI_SRV_ProcessBpMsg(uint8_t *pMsg, uint16_t msgLen);

/* Procedures for the messages the BP sends (msg starts with its BpMsgHeader,
 * msgLen counts the message without the frame bytes). */
void LAPI_SRV_ProcBpGetLocationRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpAbortLocationRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpSetGpsDbDataRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpGetGpsDbDataRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpStatusChangeIndMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpGetStatusRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpLocationNotificationIndMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpNotificationStatusIndMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpDistanceAzimuthRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpAddProximityRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpRemoveProximityRspMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpProximityHitIndMsg(uint8_t *pMsg, uint16_t msgLen);

/* Fill the 32-entry BP procedure table and the BP trace table. */
void LAPI_SRV_InitBpMsgProc(void);
void LAPI_SRV_InitBpMsgLogProc(void);

#endif /* LAPI_SRV_BPMSGPROC_H */
