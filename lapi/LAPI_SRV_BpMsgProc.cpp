/*
 * The BP link: the mux channel to the positioning engine, the frame around
 * every BP message, reassembly of frames from arbitrary read boundaries with
 * resynchronisation, dispatch by subCmdId, the BP fixed-point conversions
 * and the readable trace of every BP message.
 */
#include "LAPI_SRV_BpMsgProc.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SrvCli.h"

/* ------------------------------------------------------------------------ */
/* Tables and reassembly state                                               */
/* ------------------------------------------------------------------------ */

struct BpMsgProcEntry {
    BpMsgProc proc;
};

/* Indexed by subCmdId; filled by LAPI_SRV_InitBpMsgProc. */
static BpMsgProcEntry bpMsgProc[LAPI_BP_MSG_ID_COUNT];
/* Indexed by subCmdId; filled by LAPI_SRV_InitBpMsgLogProc. */
static BpMsgLogProc bpMsgLogProc[LAPI_BP_MSG_ID_COUNT];

/* Where a candidate frame begins in the channel's read buffer (an offset, so
 * that nothing points into a buffer that may be freed with its channel), or
 * -1 when none; and that frame's declared length, or -1 while unknown. Both
 * persist from one read to the next. */
static int bpFrameStart = -1;
static int bpFrameLen = -1;

void LAPI_SRV_ResetBpMsgParse(void) {
    bpFrameStart = -1;
    bpFrameLen = -1;
}

BpMsgProc LAPI_SRV_SetBpMsgProc(uint8_t subCmdId, BpMsgProc proc) {
    if (subCmdId >= LAPI_BP_MSG_ID_COUNT) {
        return nullptr;
    }
    BpMsgProc old = bpMsgProc[subCmdId].proc;
    bpMsgProc[subCmdId].proc = proc;
    return old;
}

/* ------------------------------------------------------------------------ */
/* Mux channel                                                               */
/* ------------------------------------------------------------------------ */

/* Frees whatever a former channel left queued, so that opening the channel
 * starts from an empty queue without leaking old frames. */
static void ClearMuxSendQueue(void) {
    for (ListNode *pNode = LAPI_SRV_muxSendDataList.head; pNode != nullptr; pNode = pNode->next) {
        SendDataNode *pData = static_cast<SendDataNode *>(pNode->data);
        if (pData != nullptr) {
            free(pData->pData);
            pData->pData = nullptr;
        }
    }
    List_RemoveAll(&LAPI_SRV_muxSendDataList);
    List_Init(&LAPI_SRV_muxSendDataList);
}

int LAPI_SRV_ConnectMuxChannel(void) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_ConnectMuxChannel");
    int fd;
    do {
        fd = open(LAPI_SRV_muxDevice, O_RDWR | O_NOCTTY | O_NONBLOCK);
    } while (fd < 0 && (errno == EINTR || errno == EAGAIN));
    if (fd < 0) {
        int err = errno;
        LAPI_SRV_ERR("Fail to open %s, errno is: %d, %s", LAPI_SRV_muxDevice, err, strerror(err));
        return -1;
    }
    Fdops *pFdops = CreateFdops(fd, LAPI_SRV_MUX_RBUF_SIZE, LAPI_SRV_MUX_WBUF_SIZE);
    if (pFdops == nullptr) {
        CloseFd(fd);
        return -1;
    }
    pFdops->readProc = LAPI_SRV_MuxFdReadProc;
    pFdops->writeProc = LAPI_SRV_GeneralWriteProc;
    pFdops->closeProc = LAPI_SRV_CloseFdops;
    pFdops->pFdInfo = nullptr;
    LAPI_SRV_pMuxFdops = pFdops;
    LAPI_SRV_AddFdopsReadList(pFdops);
    LAPI_SRV_muxConnected = 1;
    ClearMuxSendQueue();
    LAPI_SRV_TRACE("Success to connect mux channel.");
    return 0;
}

uint8_t LAPI_SRV_IsMuxConnected(void) {
    return LAPI_SRV_muxConnected;
}

uint16_t LAPI_SRV_SetUpBpMsgFrame(uint8_t *pFrame, uint16_t msgLen) {
    if (pFrame == nullptr || msgLen > UINT16_MAX - LAPI_BP_FRAME_OVERHEAD) {
        /* A wrapped length would put the trailer in front of the buffer. */
        LAPI_SRV_ERR("(pFrame == NULL) || (msgLen: %d > %d)!", msgLen,
                     UINT16_MAX - LAPI_BP_FRAME_OVERHEAD);
        return 0;
    }
    LAPI_LogBpMsg(pFrame + LAPI_BP_FRAME_HEAD_LEN, msgLen);
    uint16_t frameLen = static_cast<uint16_t>(msgLen + LAPI_BP_FRAME_OVERHEAD);
    pFrame[0] = LAPI_BP_FRAME_SYNC;
    LAPI_SRV_ByteOrderHostToNet(pFrame + 1, &frameLen, 2);
    pFrame[frameLen - 2] = LAPI_BP_FRAME_TRAILER0;
    pFrame[frameLen - 1] = LAPI_BP_FRAME_TRAILER1;
    LAPI_SRV_TRACE("Send following message to BP: ");
    LAPI_DebugHex(pFrame, frameLen, 1);
    return frameLen;
}

int LAPI_SRV_SendMsgToBp(uint8_t *pFrame, uint16_t frameLen) {
    if (LAPI_SRV_pMuxFdops == nullptr) {
        LAPI_SRV_ERR("LAPI_SRV_pMuxFdops == NULL!");
        return -1;
    }
    if (LAPI_SRV_GeneralWrite(LAPI_SRV_pMuxFdops, pFrame, frameLen) < 0) {
        LAPI_SRV_ERR("Fail to send msg to BP!");
        Fdops *pFdops = LAPI_SRV_pMuxFdops;
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        LAPI_SRV_pMuxFdops = nullptr;
        return -1;
    }
    return 0;
}

void LAPI_SRV_MuxFdReadProc(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_MuxFdReadProc");
    if (pFdops == nullptr || pFdops->rbuf.buf == nullptr || pFdops->rbuf.len == 0) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return;
    }
    if (LAPI_SRV_GeneralRead(pFdops) < 0) {
        LAPI_SRV_ERR("Fail to general read for pFdops!");
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        return;
    }
    LAPI_SRV_BpMsgParse(pFdops);
}

/* ------------------------------------------------------------------------ */
/* Reassembly and resynchronisation                                          */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_BpMsgParse(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_BpMsgParse");
    if (pFdops == nullptr) {
        return -1;
    }
    uint8_t *buf = pFdops->rbuf.buf;
    int len = pFdops->rbuf.idx;
    if (buf == nullptr || len == 0) {
        return 0;
    }
    if (len > pFdops->rbuf.len) {
        /* Never trust a fill count beyond the block. */
        len = pFdops->rbuf.len;
    }
    LAPI_DebugHex(buf, len, 1);

    if (bpFrameStart > len) {
        /* A stale start from another buffer cannot be inside this one. */
        LAPI_SRV_ResetBpMsgParse();
    }

    /* A procedure may close the channel (a failed send to the BP), which
     * frees this buffer: stop touching it as soon as that happens. */
    const bool bIsMux = (pFdops == LAPI_SRV_pMuxFdops);
    int scan = 0;
    for (;;) {
        if (bpFrameStart >= 0) {
            int avail = len - bpFrameStart;
            if (bpFrameLen == -1 && avail >= LAPI_BP_FRAME_OVERHEAD) {
                int frameLen = buf[bpFrameStart + 1] * 256 + buf[bpFrameStart + 2];
                if (frameLen > LAPI_BP_FRAME_MAX_LEN) {
                    LAPI_SRV_ERR("frameLen : %d is too big!", frameLen);
                    scan = bpFrameStart + 1;
                    LAPI_SRV_ResetBpMsgParse();
                    continue;
                }
                bpFrameLen = frameLen;
            }
            if (bpFrameLen == -1 || avail < bpFrameLen) {
                /* Incomplete: keep its bytes at the front for the next read. */
                if (bpFrameStart == 0) {
                    return 0;
                }
                memmove(buf, buf + bpFrameStart, static_cast<size_t>(avail));
                pFdops->rbuf.idx = static_cast<uint16_t>(avail);
                bpFrameStart = 0;
                return 0;
            }
            int start = bpFrameStart;
            int frameLen = bpFrameLen;
            LAPI_SRV_TRACE("Receive following message from BP: ");
            LAPI_DebugHex(buf + start, frameLen, 1);
            /* Below the overhead the "trailer" would be the sync or length
             * bytes, or bytes in front of the frame: never a real frame. */
            if (frameLen >= LAPI_BP_FRAME_OVERHEAD &&
                buf[start + frameLen - 2] == LAPI_BP_FRAME_TRAILER0 &&
                buf[start + frameLen - 1] == LAPI_BP_FRAME_TRAILER1) {
                LAPI_SRV_ResetBpMsgParse();
                scan = start + frameLen;
                LAPI_SRV_ProcessBpMsg(buf + start + LAPI_BP_FRAME_HEAD_LEN,
                                      static_cast<uint16_t>(frameLen - LAPI_BP_FRAME_OVERHEAD));
                if (bIsMux && LAPI_SRV_pMuxFdops != pFdops) {
                    return 0;
                }
            } else {
                LAPI_SRV_ERR("BP Msg lost synchronizaion!");
                scan = start + 1;
                LAPI_SRV_ResetBpMsgParse();
            }
            continue;
        }
        bpFrameLen = -1;
        if (scan >= len) {
            break;
        }
        const void *pSync = memchr(buf + scan, LAPI_BP_FRAME_SYNC, static_cast<size_t>(len - scan));
        if (pSync == nullptr) {
            break;
        }
        bpFrameStart = static_cast<int>(static_cast<const uint8_t *>(pSync) - buf);
    }
    pFdops->rbuf.idx = 0;
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Dispatch                                                                  */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_ProcessBpMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (pMsg == nullptr) {
        return;
    }
    /* A frame of exactly the overhead holds no message: its "identifier" is
     * then the first trailer byte 0xCF, still inside the frame, and the
     * message is refused as unknown. */
    uint8_t subCmdId = pMsg[0];
    if (subCmdId >= LAPI_BP_MSG_ID_COUNT) {
        LAPI_SRV_ERR("Received unknown BP Msg ID: 0x%02x, dataLen: %d!", subCmdId, msgLen);
        return;
    }
    if (bpMsgProc[subCmdId].proc == nullptr) {
        LAPI_SRV_ERR("No procedure for BP Msg ID: 0x%02x, dataLen: %d!", subCmdId, msgLen);
        return;
    }
    bpMsgProc[subCmdId].proc(pMsg, msgLen);
    LAPI_SRV_TRACE("AFTER BPMSGPROC[IDX].PROC()");
}

void LAPI_SRV_InitBpMsgProc(void) {
    memset(bpMsgProc, 0, sizeof(bpMsgProc));
    bpMsgProc[GEOLOCATION_APBP_RES].proc = LAPI_SRV_ProcBpGetLocationRspMsg;
    bpMsgProc[GEOLOCATION_ABORT_APBP_RES].proc = LAPI_SRV_ProcBpAbortLocationRspMsg;
    bpMsgProc[DB_WRITE_APBP_RES].proc = LAPI_SRV_ProcBpSetGpsDbDataRspMsg;
    bpMsgProc[DB_READ_APBP_RES].proc = LAPI_SRV_ProcBpGetGpsDbDataRspMsg;
    bpMsgProc[STATUS_CHANGE_BPAP_IND].proc = LAPI_SRV_ProcBpStatusChangeIndMsg;
    bpMsgProc[GET_STATUS_APBP_RES].proc = LAPI_SRV_ProcBpGetStatusRspMsg;
    bpMsgProc[LOCATION_NOTIFICATION_BPAP_IND].proc = LAPI_SRV_ProcBpLocationNotificationIndMsg;
    bpMsgProc[NOTIFICATION_STATUS_BPAP_IND].proc = LAPI_SRV_ProcBpNotificationStatusIndMsg;
    bpMsgProc[DISTANCE_AND_AZIMUTH_APBP_RES].proc = LAPI_SRV_ProcBpDistanceAzimuthRspMsg;
    bpMsgProc[PROXIMITY_ADD_APBP_RES].proc = LAPI_SRV_ProcBpAddProximityRspMsg;
    bpMsgProc[PROXIMITY_REM_APBP_RES].proc = LAPI_SRV_ProcBpRemoveProximityRspMsg;
    bpMsgProc[PROXIMITY_HIT_APBP_IND].proc = LAPI_SRV_ProcBpProximityHitIndMsg;
    bpMsgProc[OPEN_SOCKET_BPAP_REQ].proc = LAPI_SRV_ProcBpOpenSocketReqMsg;
    bpMsgProc[SEND_DATA_BPAP_REQ].proc = LAPI_SRV_ProcBpSendDataReqMsg;
    bpMsgProc[CLOSE_SOCKET_BPAP_REQ].proc = LAPI_SRV_ProcBpCloseSocketReqMsg;
    bpMsgProc[TLS_SESSION_BPAP_REQ].proc = LAPI_SRV_ProcBpTlsSessionReqMsg;
}

/* ------------------------------------------------------------------------ */
/* Fixed point                                                               */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_DoubleToBpFixed(double x, uint8_t *pOut) {
    if (pOut == nullptr) {
        return;
    }
    double scaled = x * LAPI_BP_FIXED_SCALE;
    int64_t n;
    /* 2^63 is exact in a double; anything at or beyond it, or NaN, has no
     * 64-bit value and would make the conversion undefined. */
    if (isnan(scaled)) {
        n = 0;
    } else if (scaled >= 9223372036854775808.0) {
        n = INT64_MAX;
    } else if (scaled < -9223372036854775808.0) {
        n = INT64_MIN;
    } else {
        n = static_cast<int64_t>(scaled); /* truncation toward zero */
    }
    LAPI_BpPutU64(pOut, static_cast<uint64_t>(n));
}

double LAPI_SRV_BpFixedToDouble(const uint8_t *pIn) {
    if (pIn == nullptr) {
        return 0.0;
    }
    int64_t n = static_cast<int64_t>(LAPI_BpGetU64(pIn));
    return (static_cast<double>(n) + 0.5) / LAPI_BP_FIXED_SCALE;
}

/* ------------------------------------------------------------------------ */
/* BP message tracing                                                        */
/* ------------------------------------------------------------------------ */

/* Longest message traced: the size of the private copy. */
#define LAPI_BP_LOG_MSG_MAX_LEN 1024
/* The longest line (a message of 1024 bytes of one-byte fields or empty file
 * entries) stays far below this; every append is checked anyway. */
#define LAPI_BP_LOG_LINE_SIZE 16384

/* Trace and error lines that carry the logger's own name. */
#define BP_LOG_TRACE(func, ...) LAPI_LogLine(1, 0, __FILE__, __LINE__, (func), __VA_ARGS__)
#define BP_LOG_ERR(func, ...) LAPI_LogLine(1, 1, __FILE__, __LINE__, (func), __VA_ARGS__)

namespace {

struct BpLogLine {
    char text[LAPI_BP_LOG_LINE_SIZE];
    int len;
};

/* One field of a fixed layout: its label and its width on the wire. */
struct BpLogField {
    const char *label;
    int width;
};

/* The message being traced and the position of the next field in it. */
struct BpLogCursor {
    const uint8_t *pMsg;
    int length;
    int pos;
};

void AppendText(BpLogLine *pLine, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

void AppendText(BpLogLine *pLine, const char *fmt, ...) {
    int room = LAPI_BP_LOG_LINE_SIZE - pLine->len;
    if (room <= 1) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(pLine->text + pLine->len, static_cast<size_t>(room), fmt, ap);
    va_end(ap);
    if (n > 0) {
        pLine->len += n < room ? n : room - 1;
    }
}

/* "0x" + two digits per byte in wire order + ", ". An empty field (no NMEA
 * data, no name, no address) goes to LAPI_FormatHexStr all the same: its
 * error line tells that the field was empty, and it adds nothing. */
void AppendHex(BpLogLine *pLine, const uint8_t *pData, int width) {
    if (width <= 0) {
        LAPI_FormatHexStr(pData, width, pLine->text + pLine->len, 1);
        pLine->text[pLine->len] = '\0';
        return;
    }
    int need = 2 + 2 * width + 2 + 1;
    if (LAPI_BP_LOG_LINE_SIZE - pLine->len < need) {
        return;
    }
    int n = LAPI_FormatHexStr(pData, width, pLine->text + pLine->len, 1);
    if (n > 0 && n < need) {
        pLine->len += n;
    }
    pLine->text[pLine->len] = '\0';
}

/* Appends label and value of the next field; false when the message ends
 * before the field does. */
bool LogField(BpLogLine *pLine, BpLogCursor *pCur, const char *label, int width) {
    if (width < 0 || width > pCur->length - pCur->pos) {
        return false;
    }
    AppendText(pLine, "%s", label);
    AppendHex(pLine, pCur->pMsg + pCur->pos, width);
    pCur->pos += width;
    return true;
}

bool LogFields(BpLogLine *pLine, BpLogCursor *pCur, const BpLogField *pFields, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (!LogField(pLine, pCur, pFields[i].label, pFields[i].width)) {
            return false;
        }
    }
    return true;
}

/* Checks the identifier and starts the line with its title and the header.
 * False (after the error line, in the logger's name) for a wrong message. */
bool BeginLine(BpLogLine *pLine, BpLogCursor *pCur, const uint8_t *pMsg, int length,
               uint8_t subCmdId, const char *title, const char *func) {
    pLine->len = 0;
    pLine->text[0] = '\0';
    pCur->pMsg = pMsg;
    pCur->length = length;
    pCur->pos = 0;
    if (pMsg == nullptr || length < 1) {
        BP_LOG_ERR(func, "(pBuf == NULL) || (length <= 0) !");
        return false;
    }
    if (pMsg[0] != subCmdId) {
        BP_LOG_ERR(func, "pMsgHeader->subCmdId : 0x%02x is not expected!", pMsg[0]);
        return false;
    }
    AppendText(pLine, "%s", title);
    if (length >= LAPI_BP_MSG_HEADER_LEN) {
        pLine->len += LAPI_LogBpMsgHeader(pMsg, pLine->text + pLine->len);
        pCur->pos = LAPI_BP_MSG_HEADER_LEN;
    } else {
        pCur->pos = length; /* a header cut short: nothing more to show */
    }
    return true;
}

/* The whole line of a message made of fixed fields only. */
void LogFixedMsg(const uint8_t *pMsg, int length, uint8_t subCmdId, const char *title,
                 const BpLogField *pFields, size_t count, const char *func) {
    BpLogLine line;
    BpLogCursor cur;
    if (!BeginLine(&line, &cur, pMsg, length, subCmdId, title, func)) {
        return;
    }
    LogFields(&line, &cur, pFields, count);
    BP_LOG_TRACE(func, "%s", line.text);
}

/* DB_WRITE_APBP_REQ and DB_READ_APBP_RES: numFiles, then per file its head
 * and data. */
void LogDbFilesMsg(const uint8_t *pMsg, int length, uint8_t subCmdId, const char *title,
                   const char *func) {
    BpLogLine line;
    BpLogCursor cur;
    if (!BeginLine(&line, &cur, pMsg, length, subCmdId, title, func)) {
        return;
    }
    if (cur.length - cur.pos >= 2) {
        int numFiles = LAPI_BpGetU16(pMsg + cur.pos);
        cur.pos += 2;
        AppendText(&line, "numFiles: %d, ", numFiles);
        for (int i = 0; i < numFiles && cur.length - cur.pos >= LAPI_BP_DB_FILE_HEAD_LEN; ++i) {
            int fileLen = LAPI_BpGetU16(pMsg + cur.pos + 4);
            AppendText(&line, "dbFile[%d]: ", i);
            LogField(&line, &cur, "fileId: ", 4);
            LogField(&line, &cur, "length: ", 2);
            if (!LogField(&line, &cur, "data: ", fileLen)) {
                break;
            }
        }
    }
    BP_LOG_TRACE(func, "%s", line.text);
}

const BpLogField kGetLocationReqFields[] = {
    {"responseTime: ", 4},
    {"horizontalAccuracy: ", 4},
    {"verticalAccuracy: ", 4},
    {"preferredPowerConsumption: ", 4},
    {"interval: ", 4},
    {"reportCriteria: ", 4},
    {"costAllowed: ", 1},
    {"addressInfoRequired: ", 1},
    {"speedAndCourseRequired: ", 1},
    {"altitudeRequired: ", 1},
    {"nmeaRequired: ", 1},
};

/* The position fields shared by GEOLOCATION_APBP_RES and PROXIMITY_HIT_APBP_IND. */
const BpLogField kPositionFields[] = {
    {"longitude: ", 8},
    {"latitude: ", 8},
    {"latLonAccuracy: ", 8},
    {"timeStamp: ", 8},
    {"altitude: ", 8},
    {"speed: ", 8},
    {"travelDirection: ", 8},
    {"pointingDirection: ", 8},
    {"horizontalAccuracy: ", 8},
    {"verticalAccuracy: ", 8},
    {"course: ", 8},
};

const BpLogField kGetLocationRspTailFields[] = {
    {"locationMethod: ", 4},
    {"cause: ", 4},
    {"ageOfFix: ", 8},
};

const BpLogField kProximityHitTailFields[] = {
    {"locationMethod: ", 4},
    {"ageOfFix: ", 8},
};

const BpLogField kResultFields[] = {{"result: ", 4}};
const BpLogField kFileIdFields[] = {{"fileId: ", 4}};
const BpLogField kStatusFields[] = {
    {"userStatus: ", 4},
    {"hwStatus: ", 4},
    {"fixStatus: ", 4},
    {"emergencyStatus: ", 4},
    {"fixResultStatus.status: ", 4},
    {"fixResultStatus.cause: ", 4},
    {"signalStatus: ", 4},
    {"iconStatus: ", 4},
};
const BpLogField kResponseTypeFields[] = {{"responseType: ", 4}};
const BpLogField kCauseFields[] = {{"cause: ", 4}};
const BpLogField kDistanceAzimuthReqFields[] = {
    {"latitude1: ", 8},  {"longitude1: ", 8},   {"latitude2: ", 8},
    {"longitude2: ", 8}, {"distanceOnly: ", 1},
};
const BpLogField kDistanceAzimuthRspFields[] = {{"distance: ", 8}, {"azimuth: ", 8}};
const BpLogField kAddProximityReqFields[] = {
    {"latitude: ", 8},
    {"longitude: ", 8},
    {"altitude: ", 8},
    {"radius: ", 8},
};
const BpLogField kStatusOnlyFields[] = {{"status: ", 4}};
const BpLogField kRemoveTypeFields[] = {{"removeType: ", 4}};

#define BP_FIELDS(table) (table), (sizeof(table) / sizeof((table)[0]))

}  // namespace

int LAPI_LogBpMsgHeader(const void *pMsgHeader, char *pBuf) {
    if (pMsgHeader == nullptr || pBuf == nullptr) {
        LAPI_SRV_ERR("(pMsgHeader == NULL) || (pBuf == NULL)!");
        return 0;
    }
    const BpMsgHeader *pHeader = static_cast<const BpMsgHeader *>(pMsgHeader);
    /* At most 59 characters: the callers keep that much room. */
    int n = sprintf(pBuf, "subCmdId: 0x%02x, sessionId: %d, transactionId: %d, ", pHeader->subCmdId,
                    pHeader->sessionId, pHeader->transactionId);
    return n > 0 ? n : 0;
}

void LAPI_LogBpMsg(const void *pMsg, int length) {
    if (pMsg == nullptr || length <= 0) {
        LAPI_SRV_ERR("(pBuf == NULL) || (length <= 0) !");
        return;
    }
    const uint8_t *pBytes = static_cast<const uint8_t *>(pMsg);
    if (length > LAPI_BP_LOG_MSG_MAX_LEN) {
        LAPI_SRV_ERR("length: %d > sizeof(buf): %d, subCmdId: 0x%02x!", length,
                     LAPI_BP_LOG_MSG_MAX_LEN, pBytes[0]);
        return;
    }
    uint8_t copy[LAPI_BP_LOG_MSG_MAX_LEN];
    memcpy(copy, pBytes, static_cast<size_t>(length));
    uint8_t subCmdId = copy[0];
    if (subCmdId >= LAPI_BP_MSG_ID_COUNT) {
        LAPI_SRV_ERR("Unknown BP Msg ID: 0x%02x!", subCmdId);
        return;
    }
    if (bpMsgLogProc[subCmdId] == nullptr) {
        LAPI_SRV_ERR("No log procedure for BP Msg ID: 0x%02x!", subCmdId);
        return;
    }
    bpMsgLogProc[subCmdId](copy, length);
}

void LAPI_LogBpGetLocationReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, GEOLOCATION_APBP_REQ,
                "AP->BP bpGetLocationReq (GEOLOCATION_APBP_REQ) ", BP_FIELDS(kGetLocationReqFields),
                __func__);
}

void LAPI_LogBpGetLocationRsp(const uint8_t *pMsg, int length) {
    BpLogLine line;
    BpLogCursor cur;
    if (!BeginLine(&line, &cur, pMsg, length, GEOLOCATION_APBP_RES,
                   "BP->AP bpGetLocationRsp (GEOLOCATION_APBP_RES) ", __func__)) {
        return;
    }
    if (LogFields(&line, &cur, BP_FIELDS(kPositionFields)) &&
        LogFields(&line, &cur, BP_FIELDS(kGetLocationRspTailFields)) && cur.length - cur.pos >= 2) {
        uint16_t nmeaLen = 0;
        LAPI_SRV_ByteOrderNetToHost(&nmeaLen, pMsg + cur.pos, 2);
        LogField(&line, &cur, "nmeaDataLength: ", 2);
        /* Only the NMEA bytes that the message really holds. */
        int shown = nmeaLen < cur.length - cur.pos ? nmeaLen : cur.length - cur.pos;
        LogField(&line, &cur, "nmeaData: ", shown);
        printf("\n %s, %s, data_len:%d\n", LAPI_LogBaseName(__FILE__), __func__, line.len);
        fflush(stdout);
        AppendText(&line, "nmea end\n");
    }
    BP_LOG_TRACE(__func__, "%s", line.text);
}

void LAPI_LogBpAbortLocationReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, GEOLOCATION_ABORT_APBP_REQ,
                "AP->BP bpAbortLocationReq (GEOLOCATION_ABORT_APBP_REQ) ", nullptr, 0, __func__);
}

void LAPI_LogBpAbortLocationRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, GEOLOCATION_ABORT_APBP_RES,
                "BP->AP bpAbortLocationRsp (GEOLOCATION_ABORT_APBP_RES) ", BP_FIELDS(kResultFields),
                __func__);
}

void LAPI_LogBpSetGpsDbDataReq(const uint8_t *pMsg, int length) {
    LogDbFilesMsg(pMsg, length, DB_WRITE_APBP_REQ, "AP->BP bpSetGpsDbDataReq (DB_WRITE_APBP_REQ) ",
                  __func__);
}

void LAPI_LogBpSetGpsDbDataRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, DB_WRITE_APBP_RES, "BP->AP bpSetGpsDbDataRsp (DB_WRITE_APBP_RES) ",
                BP_FIELDS(kResultFields), __func__);
}

void LAPI_LogBpGetGpsDbDataReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, DB_READ_APBP_REQ, "AP->BP bpGetGpsDbDataReq (DB_READ_APBP_REQ) ",
                BP_FIELDS(kFileIdFields), __func__);
}

void LAPI_LogBpGetGpsDbDataRsp(const uint8_t *pMsg, int length) {
    LogDbFilesMsg(pMsg, length, DB_READ_APBP_RES, "BP->AP bpGetGpsDbDataRsp (DB_READ_APBP_RES) ",
                  __func__);
}

void LAPI_LogBpStatusChangeInd(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, STATUS_CHANGE_BPAP_IND,
                "BP->AP bpStatusChangeInd (STATUS_CHANGE_BPAP_IND) ", BP_FIELDS(kStatusFields),
                __func__);
}

void LAPI_LogBpGetStatusReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, GET_STATUS_APBP_REQ, "AP->BP bpGetStatusReq (GET_STATUS_APBP_REQ) ",
                nullptr, 0, __func__);
}

void LAPI_LogBpGetStatusRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, GET_STATUS_APBP_RES, "BP->AP bpGetStatusRsp (GET_STATUS_APBP_RES) ",
                BP_FIELDS(kStatusFields), __func__);
}

void LAPI_LogBpLocationNotificationInd(const uint8_t *pMsg, int length) {
    BpLogLine line;
    BpLogCursor cur;
    if (!BeginLine(&line, &cur, pMsg, length, LOCATION_NOTIFICATION_BPAP_IND,
                   "BP->AP bpLocationNotificationInd (LOCATION_NOTIFICATION_BPAP_IND) ",
                   __func__)) {
        return;
    }
    if (LogField(&line, &cur, "notificationType: ", 4) &&
        LogField(&line, &cur, "locationType: ", 4) &&
        LogField(&line, &cur, "dataCodingSchema: ", 1) && cur.pos < cur.length) {
        int nameLen = pMsg[cur.pos];
        if (LogField(&line, &cur, "nameLength: ", 1) &&
            LogField(&line, &cur, "clientName: ", nameLen) && cur.pos < cur.length) {
            int addrLen = pMsg[cur.pos];
            if (LogField(&line, &cur, "addrLength: ", 1)) {
                LogField(&line, &cur, "clientExternalAddr: ", addrLen);
            }
        }
    }
    BP_LOG_TRACE(__func__, "%s", line.text);
}

void LAPI_LogBpLocationNotificationRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, LOCATION_NOTIFICATION_APBP_RES,
                "AP->BP bpLocationNotificationRsp (LOCATION_NOTIFICATION_APBP_RES) ",
                BP_FIELDS(kResponseTypeFields), __func__);
}

void LAPI_LogBpNotificationStatusInd(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, NOTIFICATION_STATUS_BPAP_IND,
                "BP->AP bpNotificationStatusInd (NOTIFICATION_STATUS_BPAP_IND) ",
                BP_FIELDS(kCauseFields), __func__);
}

void LAPI_LogBpLastKnownLocationReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, LAST_KNOWN_GEOLOCATION_APBP_REQ,
                "AP->BP bpLastKnownLocationReq (LAST_KNOWN_GEOLOCATION_APBP_REQ) ", nullptr, 0,
                __func__);
}

void LAPI_LogBpDistanceAzimuthReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, DISTANCE_AND_AZIMUTH_APBP_REQ,
                "AP->BP bpDistanceAzimuthReq (DISTANCE_AND_AZIMUTH_APBP_REQ) ",
                BP_FIELDS(kDistanceAzimuthReqFields), __func__);
}

void LAPI_LogBpDistanceAzimuthRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, DISTANCE_AND_AZIMUTH_APBP_RES,
                "BP->AP bpDistanceAzimuthRsp (DISTANCE_AND_AZIMUTH_APBP_RES) ",
                BP_FIELDS(kDistanceAzimuthRspFields), __func__);
}

void LAPI_LogBpAddProximityReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, PROXIMITY_ADD_APBP_REQ,
                "AP->BP bpAddProximityReq (PROXIMITY_ADD_APBP_REQ) ",
                BP_FIELDS(kAddProximityReqFields), __func__);
}

void LAPI_LogBpAddProximityRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, PROXIMITY_ADD_APBP_RES,
                "BP->AP bpAddProximityRsp (PROXIMITY_ADD_APBP_RES) ", BP_FIELDS(kStatusOnlyFields),
                __func__);
}

void LAPI_LogBpRemoveProximityReq(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, PROXIMITY_REM_APBP_REQ,
                "AP->BP bpRemoveProximityReq (PROXIMITY_REM_APBP_REQ) ",
                BP_FIELDS(kRemoveTypeFields), __func__);
}

void LAPI_LogBpRemoveProximityRsp(const uint8_t *pMsg, int length) {
    LogFixedMsg(pMsg, length, PROXIMITY_REM_APBP_RES,
                "BP->AP bpRemoveProximityRsp (PROXIMITY_REM_APBP_RES) ",
                BP_FIELDS(kStatusOnlyFields), __func__);
}

void LAPI_LogBpProximityHitInd(const uint8_t *pMsg, int length) {
    BpLogLine line;
    BpLogCursor cur;
    if (!BeginLine(&line, &cur, pMsg, length, PROXIMITY_HIT_APBP_IND,
                   "BP->AP bpProximityHitInd (PROXIMITY_HIT_APBP_IND) ", __func__)) {
        return;
    }
    if (LogFields(&line, &cur, BP_FIELDS(kPositionFields))) {
        LogFields(&line, &cur, BP_FIELDS(kProximityHitTailFields));
    }
    BP_LOG_TRACE(__func__, "%s", line.text);
}

void LAPI_SRV_InitBpMsgLogProc(void) {
    memset(bpMsgLogProc, 0, sizeof(bpMsgLogProc));
    bpMsgLogProc[GEOLOCATION_APBP_REQ] = LAPI_LogBpGetLocationReq;
    bpMsgLogProc[GEOLOCATION_APBP_RES] = LAPI_LogBpGetLocationRsp;
    bpMsgLogProc[GEOLOCATION_ABORT_APBP_REQ] = LAPI_LogBpAbortLocationReq;
    bpMsgLogProc[GEOLOCATION_ABORT_APBP_RES] = LAPI_LogBpAbortLocationRsp;
    bpMsgLogProc[DB_WRITE_APBP_REQ] = LAPI_LogBpSetGpsDbDataReq;
    bpMsgLogProc[DB_WRITE_APBP_RES] = LAPI_LogBpSetGpsDbDataRsp;
    bpMsgLogProc[DB_READ_APBP_REQ] = LAPI_LogBpGetGpsDbDataReq;
    bpMsgLogProc[DB_READ_APBP_RES] = LAPI_LogBpGetGpsDbDataRsp;
    bpMsgLogProc[STATUS_CHANGE_BPAP_IND] = LAPI_LogBpStatusChangeInd;
    bpMsgLogProc[GET_STATUS_APBP_REQ] = LAPI_LogBpGetStatusReq;
    bpMsgLogProc[GET_STATUS_APBP_RES] = LAPI_LogBpGetStatusRsp;
    bpMsgLogProc[LOCATION_NOTIFICATION_BPAP_IND] = LAPI_LogBpLocationNotificationInd;
    bpMsgLogProc[LOCATION_NOTIFICATION_APBP_RES] = LAPI_LogBpLocationNotificationRsp;
    bpMsgLogProc[NOTIFICATION_STATUS_BPAP_IND] = LAPI_LogBpNotificationStatusInd;
    bpMsgLogProc[LAST_KNOWN_GEOLOCATION_APBP_REQ] = LAPI_LogBpLastKnownLocationReq;
    bpMsgLogProc[DISTANCE_AND_AZIMUTH_APBP_REQ] = LAPI_LogBpDistanceAzimuthReq;
    bpMsgLogProc[DISTANCE_AND_AZIMUTH_APBP_RES] = LAPI_LogBpDistanceAzimuthRsp;
    bpMsgLogProc[PROXIMITY_ADD_APBP_REQ] = LAPI_LogBpAddProximityReq;
    bpMsgLogProc[PROXIMITY_ADD_APBP_RES] = LAPI_LogBpAddProximityRsp;
    bpMsgLogProc[PROXIMITY_REM_APBP_REQ] = LAPI_LogBpRemoveProximityReq;
    bpMsgLogProc[PROXIMITY_REM_APBP_RES] = LAPI_LogBpRemoveProximityRsp;
    bpMsgLogProc[PROXIMITY_HIT_APBP_IND] = LAPI_LogBpProximityHitInd;
}
