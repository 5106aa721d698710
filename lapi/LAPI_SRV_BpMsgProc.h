/* The BP link: mux channel, frames, BP message dispatch and tracing. */
#ifndef LAPI_SRV_BPMSGPROC_H
#define LAPI_SRV_BPMSGPROC_H

#include <stdint.h>

#include "LAPI_BpMsg.h"
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
/* Answers every proximity area of every client after a successful remove-all
 * (called by LAPI_SRV_ProcBpRemoveProximityRspMsg; no table entry). */
void LAPI_SRV_ProcBpRemoveAllProximityRspMsg(uint8_t *pMsg);

/* ---- BP socket service ---- */

/* Requests of the BP's network proxy. */
void LAPI_SRV_ProcBpOpenSocketReqMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpSendDataReqMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpCloseSocketReqMsg(uint8_t *pMsg, uint16_t msgLen);
void LAPI_SRV_ProcBpTlsSessionReqMsg(uint8_t *pMsg, uint16_t msgLen);

/* SOCKET_MSG_RES_T (subCmdId 10, 12 or 15) to the BP. */
void LAPI_SRV_SendSocketRes(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId,
                            uint32_t linkId, int32_t result);
/* TLS_MSG_RES_T to the BP. */
void LAPI_SRV_SendTLSRes(uint8_t sessionId, uint8_t transactionId, uint32_t linkId, uint8_t result);
/* Received-data indication: length bytes of pData and the result. */
void LAPI_SRV_SendSocketDataInd(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                                uint32_t length, const uint8_t *pData, int32_t result);
/* Writes or queues data on the socket of linkId: 0, or -1 after answering
 * the send with -1. */
int LAPI_SRV_SendData(uint8_t sessionId, uint8_t transactionId, uint32_t linkId, uint32_t length,
                      const uint8_t *pData);

/* How a BP message's length is checked. */
enum LenRule { LEN_EXACT, LEN_AT_LEAST };
/* Identifier and length of a BP message, with the procedure's own length
 * text (which takes the length received and the length wanted); errors are
 * reported in the name of func. */
bool CheckBpMsg(const uint8_t *pMsg, uint16_t msgLen, uint8_t subCmdId, LenRule rule,
                uint16_t wantLen, const char *pLenFmt, const char *func);
/* Moves *ppPos on by n bytes; -1 (and *ppPos left alone) when that would pass
 * pEnd, the first byte after the message. Reaching pEnd exactly is allowed. */
int LAPI_SRV_IncreasePtrAndCheck(const uint8_t **ppPos, const uint8_t *pEnd, int n);

/* Fill the 32-entry BP procedure table and the BP trace table. */
void LAPI_SRV_InitBpMsgProc(void);
void LAPI_SRV_InitBpMsgLogProc(void);

/* One entry of the BP procedure table. */
typedef void (*BpMsgProc)(uint8_t *pMsg, uint16_t msgLen);

/* ---- BP message tracing ---- */

/* A logger of the trace table: pMsg is a private copy of the whole message
 * (header first), length its size. Fields that the message is too short to
 * hold are left out of the line. */
typedef void (*BpMsgLogProc)(const uint8_t *pMsg, int length);

/* Traces one BP message as one readable line (copied first, never changed). */
void LAPI_LogBpMsg(const void *pMsg, int length);
/* Appends "subCmdId: 0x%02x, sessionId: %d, transactionId: %d, " to pBuf;
 * returns the number of characters written. */
int LAPI_LogBpMsgHeader(const void *pMsgHeader, char *pBuf);

void LAPI_LogBpGetLocationReq(const uint8_t *pMsg, int length);
void LAPI_LogBpGetLocationRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpAbortLocationReq(const uint8_t *pMsg, int length);
void LAPI_LogBpAbortLocationRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpSetGpsDbDataReq(const uint8_t *pMsg, int length);
void LAPI_LogBpSetGpsDbDataRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpGetGpsDbDataReq(const uint8_t *pMsg, int length);
void LAPI_LogBpGetGpsDbDataRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpStatusChangeInd(const uint8_t *pMsg, int length);
void LAPI_LogBpGetStatusReq(const uint8_t *pMsg, int length);
void LAPI_LogBpGetStatusRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpLocationNotificationInd(const uint8_t *pMsg, int length);
void LAPI_LogBpLocationNotificationRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpNotificationStatusInd(const uint8_t *pMsg, int length);
void LAPI_LogBpLastKnownLocationReq(const uint8_t *pMsg, int length);
void LAPI_LogBpDistanceAzimuthReq(const uint8_t *pMsg, int length);
void LAPI_LogBpDistanceAzimuthRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpAddProximityReq(const uint8_t *pMsg, int length);
void LAPI_LogBpAddProximityRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpRemoveProximityReq(const uint8_t *pMsg, int length);
void LAPI_LogBpRemoveProximityRsp(const uint8_t *pMsg, int length);
void LAPI_LogBpProximityHitInd(const uint8_t *pMsg, int length);

/* ---- hooks for tests and tools ---- */

/* Replaces entry subCmdId (below LAPI_BP_MSG_ID_COUNT) of the procedure table
 * and returns the former entry; null for an identifier out of range. */
BpMsgProc LAPI_SRV_SetBpMsgProc(uint8_t subCmdId, BpMsgProc proc);
/* Forgets any partly received frame (the reassembly state of a fresh start). */
void LAPI_SRV_ResetBpMsgParse(void);

#endif /* LAPI_SRV_BPMSGPROC_H */
