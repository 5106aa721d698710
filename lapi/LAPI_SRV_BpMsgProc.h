/* The BP link: mux channel, frames, BP message dispatch and tracing. */
#ifndef LAPI_SRV_BPMSGPROC_H
#define LAPI_SRV_BPMSGPROC_H

#include <stddef.h>
#include <stdint.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_Global.h"

int LAPI_SRV_ConnectMuxChannel(void);
uint8_t LAPI_SRV_IsMuxConnected(void);
uint16_t LAPI_SRV_SetUpBpMsgFrame(uint8_t *pFrame, uint16_t msgLen);
int LAPI_SRV_SendMsgToBp(uint8_t *pFrame, uint16_t frameLen);
void LAPI_SRV_MuxFdReadProc(Fdops *pFdops);
int LAPI_SRV_BpMsgParse(Fdops *pFdops);
void LAPI_SRV_ProcessBpMsg(uint8_t *pMsg, uint16_t msgLen);

/* Procedures for the messages the BP sends (msg starts with its BpMsgHeader,
 * msgLen counts the message without the frame bytes). Each is reached through
 * its dispatch row, which has checked the identifier and the length before
 * the procedure runs. */
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

/* Fill the 32-entry BP procedure table and the BP trace table. */
void LAPI_SRV_InitBpMsgProc(void);
void LAPI_SRV_InitBpMsgLogProc(void);

/* One entry of the BP procedure table. */
typedef void (*BpMsgProc)(uint8_t *pMsg, uint16_t msgLen);

/* ---- dispatch rows ----
 *
 * Every BP message identifier the server takes has one row: its procedure,
 * the name and source file its diagnostics carry, and its length rule with
 * the wrong-length text. LAPI_SRV_ProcessBpMsg checks the length from the
 * row before the procedure runs, so a procedure reads its fields knowing
 * that the message holds them (an at-least row still leaves the parts
 * behind the minimum to the procedure's own reader).
 *
 * To add a row (the socket requests 9, 11, 14 and 30, say): write the
 * procedure in its own source, list it there in a row array with
 * LAPI_SRV_BP_ROW (which records that source's name), export the array and
 * its size next to LAPI_SRV_bpLocationRows below, and install it in
 * LAPI_SRV_InitBpMsgProc with one more InstallBpRows call. Identifiers out
 * of range or taken twice are refused when the rows are installed. */
struct LAPI_SRV_BpMsgRow {
    uint8_t subCmdId;
    BpMsgProc proc;
    const char *pProcName; /* the function named on its error lines */
    const char *pFile;     /* the source those lines name */
    int line;              /* and the line: where the row is listed */
    LAPI_LenRule lenRule;
    uint16_t len;
    const char *pWrongLenFmt; /* takes the length received, then len */
};

#define LAPI_SRV_BP_ROW(subCmdId, proc, lenRule, len, wrongLenFmt)                          \
    LAPI_SRV_BpMsgRow {                                                                     \
        (subCmdId), (proc), #proc, LAPI_LOG_FILE, __LINE__, (lenRule), (len), (wrongLenFmt) \
    }

/* The answers and indications of the location service
 * (LAPI_SRV_BpMsgProcRsp.cpp) and the requests of the BP socket service
 * (LAPI_SRV_BpMsgProcSock.cpp). */
extern const LAPI_SRV_BpMsgRow LAPI_SRV_bpLocationRows[];
extern const size_t LAPI_SRV_bpLocationRowCount;
extern const LAPI_SRV_BpMsgRow LAPI_SRV_bpSocketRows[];
extern const size_t LAPI_SRV_bpSocketRowCount;

/* Checks the identifier and the length of pMsg against the row, in the name
 * of the row's procedure, and runs the procedure when both hold. */
void LAPI_SRV_RunBpMsgRow(const LAPI_SRV_BpMsgRow *pRow, uint8_t *pMsg, uint16_t msgLen);

/* ---- BP message tracing ---- */

/* A logger of the trace table: pMsg is a private copy of the whole message
 * (header first), length its size. Fields that the message is too short to
 * hold are left out of the line. */
typedef void (*BpMsgLogProc)(const uint8_t *pMsg, int length);

/* The logger of subCmdId in the trace table, or null. */
BpMsgLogProc LAPI_SRV_GetBpMsgLogProc(uint8_t subCmdId);
/* Traces one BP message as one readable line (copied first, never changed). */
void LAPI_LogBpMsg(const void *pMsg, int length);
/* Appends "subCmdId: 0x%02x, sessionId: %d, transactionId: %d, " to pBuf;
 * returns the number of characters written. */
int LAPI_LogBpMsgHeader(const void *pMsgHeader, char *pBuf);

/* ---- hooks for tests and tools ---- */

/* Replaces entry subCmdId (below LAPI_BP_MSG_ID_COUNT) of the procedure table
 * and returns the former entry; null for an identifier out of range. */
/* A hook: the dispatch it replaces runs inside its file, out of a wrap's reach. */
BpMsgProc LAPI_SRV_SetBpMsgProc(uint8_t subCmdId, BpMsgProc proc);
/* Forgets any partly received frame (the reassembly state of a fresh start). */
/* A hook too, but also the reassembler's own reset: it cannot be wrapped away. */
void LAPI_SRV_ResetBpMsgParse(void);

#endif /* LAPI_SRV_BPMSGPROC_H */
