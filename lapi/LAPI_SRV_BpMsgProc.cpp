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

#include <array>
#include <iterator>
#include <string>
#include <utility>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_LogFmt.h"
#include "LAPI_SrvCli.h"
#include "LAPI_TraceText.h"
#include "LAPI_Wire.h"

/* ------------------------------------------------------------------------ */
/* Tables and reassembly state                                               */
/* ------------------------------------------------------------------------ */

/* Indexed by subCmdId; filled by LAPI_SRV_InitBpMsgProc. A row without a
 * procedure is an identifier the server does not take. */
static LAPI_SRV_BpMsgRow bpMsgProc[LAPI_BP_MSG_ID_COUNT];
static_assert(sizeof(bpMsgProc) / sizeof(bpMsgProc[0]) == TLS_SESSION_APBP_RES + 1,
              "one row per BP message identifier");
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
    /* A stand-in procedure takes every length. */
    bpMsgProc[subCmdId] = LAPI_SRV_BpMsgRow{
        subCmdId, proc, "", LAPI_LOG_FILE, __LINE__, LAPI_LEN_AT_LEAST, 0, nullptr};
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
    Fdops *pFdops =
        LAPI_SRV_NewFdops(fd, LAPI_SRV_MUX_RBUF_SIZE, LAPI_SRV_MUX_WBUF_SIZE,
                          LAPI_SRV_MuxFdReadProc, LAPI_SRV_GeneralWriteProc, LAPI_SRV_CloseFdops);
    if (pFdops == nullptr) {
        CloseFd(fd);
        return -1;
    }
    LAPI_SRV_pMuxFdops = pFdops;
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
    LAPI_Writer w(pFrame, frameLen);
    uint8_t *pBody = nullptr;
    w.PutU8(LAPI_BP_FRAME_SYNC);
    w.PutBe16(frameLen);
    w.Reserve(msgLen, &pBody); /* the message is already in place */
    w.PutU8(LAPI_BP_FRAME_TRAILER0);
    w.PutU8(LAPI_BP_FRAME_TRAILER1);
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
    if (!LAPI_SRV_READ_INTO_FDOPS(pFdops)) {
        return;
    }
    LAPI_SRV_BpMsgParse(pFdops);
}

/* ------------------------------------------------------------------------ */
/* Reassembly and resynchronisation                                          */
/* ------------------------------------------------------------------------ */

/* Whether the frame of frameLen bytes at pFrame ends with 0xCF 0xB0. */
static bool HasTrailer(const uint8_t *pFrame, int frameLen) {
    LAPI_Reader r(pFrame, static_cast<size_t>(frameLen));
    uint8_t t0 = 0;
    uint8_t t1 = 0;
    return r.Skip(static_cast<size_t>(frameLen) - LAPI_BP_FRAME_TRAILER_LEN) == 0 &&
           r.GetU8(&t0) == 0 && r.GetU8(&t1) == 0 && t0 == LAPI_BP_FRAME_TRAILER0 &&
           t1 == LAPI_BP_FRAME_TRAILER1;
}

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
                LAPI_Reader head(buf + bpFrameStart, static_cast<size_t>(avail));
                uint16_t frameLen = 0;
                head.Skip(1);
                head.GetBe16(&frameLen);
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
            if (frameLen >= LAPI_BP_FRAME_OVERHEAD && HasTrailer(buf + start, frameLen)) {
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
    LAPI_Reader r(pMsg, msgLen > 0 ? msgLen : 1);
    uint8_t subCmdId = 0;
    r.PeekU8(&subCmdId);
    if (subCmdId >= LAPI_BP_MSG_ID_COUNT) {
        LAPI_SRV_ERR("Received unknown BP Msg ID: 0x%02x, dataLen: %d!", subCmdId, msgLen);
        return;
    }
    if (bpMsgProc[subCmdId].proc == nullptr) {
        LAPI_SRV_ERR("No procedure for BP Msg ID: 0x%02x, dataLen: %d!", subCmdId, msgLen);
        return;
    }
    LAPI_SRV_RunBpMsgRow(&bpMsgProc[subCmdId], pMsg, msgLen);
    LAPI_SRV_TRACE("AFTER BPMSGPROC[IDX].PROC()");
}

void LAPI_SRV_RunBpMsgRow(const LAPI_SRV_BpMsgRow *pRow, uint8_t *pMsg, uint16_t msgLen) {
    if (pRow == nullptr || pRow->proc == nullptr) {
        return;
    }
    if (pRow->pWrongLenFmt != nullptr) {
        LAPI_Reader r(pMsg, msgLen);
        uint8_t subCmdId = 0;
        if (r.PeekU8(&subCmdId) != 0 || subCmdId != pRow->subCmdId) {
            LAPI_LogLine(1, 1, pRow->pFile, pRow->line, pRow->pProcName,
                         "pBpMsgHeader->subCmdId : 0x%02x is not expected, msgLen : %d!",
                         r.Left() > 0 ? subCmdId : 0xFF, msgLen);
            return;
        }
        if (!LAPI_LenFits(pRow->lenRule, pRow->len, msgLen)) {
            LAPI_LogLine(1, 1, pRow->pFile, pRow->line, pRow->pProcName, pRow->pWrongLenFmt, msgLen,
                         pRow->len);
            return;
        }
    }
    pRow->proc(pMsg, msgLen);
}

/* Puts rows into the table; a row out of range or for an identifier already
 * taken is a mistake in the rows and is left out with an error line. */
static void InstallBpRows(const LAPI_SRV_BpMsgRow *pRows, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const LAPI_SRV_BpMsgRow &row = pRows[i];
        if (row.subCmdId >= LAPI_BP_MSG_ID_COUNT || bpMsgProc[row.subCmdId].proc != nullptr) {
            LAPI_SRV_ERR("Invalid BP Msg row: 0x%02x!", row.subCmdId);
            continue;
        }
        bpMsgProc[row.subCmdId] = row;
    }
}

void LAPI_SRV_InitBpMsgProc(void) {
    memset(bpMsgProc, 0, sizeof(bpMsgProc));
    InstallBpRows(LAPI_SRV_bpLocationRows, LAPI_SRV_bpLocationRowCount);
    InstallBpRows(LAPI_SRV_bpSocketRows, LAPI_SRV_bpSocketRowCount);
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
#define BP_LOG_LINE(func, line)                                      \
    LAPI_LogText(1, 0, LAPI_LOG_FILE, __LINE__, (func), (line).text, \
                 static_cast<size_t>((line).len))
#define BP_LOG_ERR(func, ...) LAPI_LogLine(1, 1, LAPI_LOG_FILE, __LINE__, (func), __VA_ARGS__)

namespace {

using BpLogLine = LAPI_TraceText<LAPI_BP_LOG_LINE_SIZE>;

/* One field of a fixed layout: its label and its width on the wire. Kept to
 * a pointer and 8 bytes: the tables of fields hold pointers, so they are
 * relocated at start-up and their pages are the process's own memory. */
struct BpLogField {
    constexpr BpLogField(const char *pLabel, int fieldWidth)
        : label(pLabel),
          labelLen(static_cast<uint16_t>(std::char_traits<char>::length(pLabel))),
          width(static_cast<uint8_t>(fieldWidth)) {}
    const char *label;
    uint16_t labelLen;
    uint8_t width;
};
static_assert(sizeof(BpLogField) <= sizeof(void *) + 8);

/* The message being traced and the position of the next field in it. */
struct BpLogCursor {
    const uint8_t *pMsg;
    int length;
    int pos;
};

/* The bytes of the message not traced yet. */
LAPI_Reader Rest(const BpLogCursor *pCur) {
    return LAPI_Reader(pCur->pMsg + pCur->pos, pCur->pMsg + pCur->length);
}

/* Appends label and value of the next field; false when the message ends
 * before the field does. */
bool LogField(BpLogLine *pLine, BpLogCursor *pCur, const char *label, size_t labelLen, int width) {
    const uint8_t *pField = nullptr;
    if (width < 0 || Rest(pCur).GetSpan(&pField, static_cast<size_t>(width)) != 0) {
        return false;
    }
    pLine->Append(label, labelLen);
    pLine->AppendHex(pField, width, 1);
    pCur->pos += width;
    return true;
}

bool LogField(BpLogLine *pLine, BpLogCursor *pCur, const char *label, int width) {
    return LogField(pLine, pCur, label, strlen(label), width);
}

bool LogFields(BpLogLine *pLine, BpLogCursor *pCur, const BpLogField *pFields, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (!LogField(pLine, pCur, pFields[i].label, pFields[i].labelLen, pFields[i].width)) {
            return false;
        }
    }
    return true;
}

/* Checks the identifier and starts the line with its title and the header.
 * False (after the error line, in the logger's name) for a wrong message. */
bool BeginLine(BpLogLine *pLine, BpLogCursor *pCur, const uint8_t *pMsg, int length,
               uint8_t subCmdId, const char *title, const char *func) {
    pLine->Clear();
    pCur->pMsg = pMsg;
    pCur->length = length;
    pCur->pos = 0;
    if (pMsg == nullptr || length < 1) {
        BP_LOG_ERR(func, "(pBuf == NULL) || (length <= 0) !");
        return false;
    }
    uint8_t id = 0;
    LAPI_Reader(pMsg, static_cast<size_t>(length)).PeekU8(&id);
    if (id != subCmdId) {
        BP_LOG_ERR(func, "pMsgHeader->subCmdId : 0x%02x is not expected!", id);
        return false;
    }
    pLine->AppendCStr(title);
    if (length >= LAPI_BP_MSG_HEADER_LEN) {
        pLine->len += LAPI_LogBpMsgHeader(pMsg, pLine->End());
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
    BP_LOG_LINE(func, line);
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
        uint16_t numFiles = 0;
        Rest(&cur).GetBe16(&numFiles);
        cur.pos += 2;
        line.Append("numFiles: ");
        line.AppendInt(numFiles);
        line.Append(", ");
        for (int i = 0; i < numFiles && cur.length - cur.pos >= LAPI_BP_DB_FILE_HEAD_LEN; ++i) {
            LAPI_Reader head = Rest(&cur);
            uint16_t fileLen = 0;
            head.Skip(4);
            head.GetBe16(&fileLen);
            line.Append("dbFile[");
            line.AppendInt(i);
            line.Append("]: ");
            LogField(&line, &cur, "fileId: ", 4);
            LogField(&line, &cur, "length: ", 2);
            if (!LogField(&line, &cur, "data: ", fileLen)) {
                break;
            }
        }
    }
    BP_LOG_LINE(func, line);
}

constexpr BpLogField kGetLocationReqFields[] = {
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
constexpr BpLogField kPositionFields[] = {
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

constexpr BpLogField kGetLocationRspTailFields[] = {
    {"locationMethod: ", 4},
    {"cause: ", 4},
    {"ageOfFix: ", 8},
};

constexpr BpLogField kProximityHitTailFields[] = {
    {"locationMethod: ", 4},
    {"ageOfFix: ", 8},
};

constexpr BpLogField kResultFields[] = {{"result: ", 4}};
constexpr BpLogField kFileIdFields[] = {{"fileId: ", 4}};
constexpr BpLogField kStatusFields[] = {
    {"userStatus: ", 4},
    {"hwStatus: ", 4},
    {"fixStatus: ", 4},
    {"emergencyStatus: ", 4},
    {"fixResultStatus.status: ", 4},
    {"fixResultStatus.cause: ", 4},
    {"signalStatus: ", 4},
    {"iconStatus: ", 4},
};
constexpr BpLogField kResponseTypeFields[] = {{"responseType: ", 4}};
constexpr BpLogField kCauseFields[] = {{"cause: ", 4}};
constexpr BpLogField kDistanceAzimuthReqFields[] = {
    {"latitude1: ", 8},  {"longitude1: ", 8},   {"latitude2: ", 8},
    {"longitude2: ", 8}, {"distanceOnly: ", 1},
};
constexpr BpLogField kDistanceAzimuthRspFields[] = {{"distance: ", 8}, {"azimuth: ", 8}};
constexpr BpLogField kAddProximityReqFields[] = {
    {"latitude: ", 8},
    {"longitude: ", 8},
    {"altitude: ", 8},
    {"radius: ", 8},
};
constexpr BpLogField kStatusOnlyFields[] = {{"status: ", 4}};
constexpr BpLogField kRemoveTypeFields[] = {{"removeType: ", 4}};

#define BP_FIELDS(table) (table), (sizeof(table) / sizeof((table)[0]))

}  // namespace

int LAPI_LogBpMsgHeader(const void *pMsgHeader, char *pBuf) {
    if (pMsgHeader == nullptr || pBuf == nullptr) {
        LAPI_SRV_ERR("(pMsgHeader == NULL) || (pBuf == NULL)!");
        return 0;
    }
    const BpMsgHeader *pHeader = static_cast<const BpMsgHeader *>(pMsgHeader);
    /* "subCmdId: 0x%02x, sessionId: %d, transactionId: %d, ": at most 59
     * characters, the callers keep that much room. */
    char *out = pBuf;
    memcpy(out, "subCmdId: 0x", 12);
    out = lapi_fmt::Hex(out + 12, &pHeader->subCmdId, 1);
    memcpy(out, ", sessionId: ", 13);
    out = lapi_fmt::Int(out + 13, pHeader->sessionId);
    memcpy(out, ", transactionId: ", 17);
    out = lapi_fmt::Int(out + 17, pHeader->transactionId);
    memcpy(out, ", ", 3); /* with the terminator */
    return static_cast<int>(out + 2 - pBuf);
}

void LAPI_LogBpMsg(const void *pMsg, int length) {
    if (pMsg == nullptr || length <= 0) {
        LAPI_SRV_ERR("(pBuf == NULL) || (length <= 0) !");
        return;
    }
    uint8_t subCmdId = 0;
    LAPI_Reader(pMsg, static_cast<size_t>(length)).PeekU8(&subCmdId);
    if (length > LAPI_BP_LOG_MSG_MAX_LEN) {
        LAPI_SRV_ERR("length: %d > sizeof(buf): %d, subCmdId: 0x%02x!", length,
                     LAPI_BP_LOG_MSG_MAX_LEN, subCmdId);
        return;
    }
    uint8_t copy[LAPI_BP_LOG_MSG_MAX_LEN];
    memcpy(copy, pMsg, static_cast<size_t>(length));
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

/* The loggers of the trace table, reached only through it. */
namespace {

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
        Rest(&cur).GetBe16(&nmeaLen);
        LogField(&line, &cur, "nmeaDataLength: ", 2);
        /* Only the NMEA bytes that the message really holds. */
        int shown = nmeaLen < cur.length - cur.pos ? nmeaLen : cur.length - cur.pos;
        LogField(&line, &cur, "nmeaData: ", shown);
        /* "\n %s, %s, data_len:%d\n": both names are short. */
        char plain[256];
        char *end = plain;
        for (const char *part : {"\n ", LAPI_LOG_FILE, ", ", __func__, ", data_len:"}) {
            size_t n = strlen(part);
            memcpy(end, part, n);
            end += n;
        }
        end = lapi_fmt::Int(end, line.len);
        *end++ = '\n';
        LAPI_LogStdout(plain, static_cast<size_t>(end - plain));
        line.Append("nmea end\n");
    }
    BP_LOG_LINE(__func__, line);
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
        uint8_t nameLen = 0;
        Rest(&cur).PeekU8(&nameLen);
        if (LogField(&line, &cur, "nameLength: ", 1) &&
            LogField(&line, &cur, "clientName: ", nameLen) && cur.pos < cur.length) {
            uint8_t addrLen = 0;
            Rest(&cur).PeekU8(&addrLen);
            if (LogField(&line, &cur, "addrLength: ", 1)) {
                LogField(&line, &cur, "clientExternalAddr: ", addrLen);
            }
        }
    }
    BP_LOG_LINE(__func__, line);
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
    BP_LOG_LINE(__func__, line);
}

/* The messages whose trace is their header and fixed fields (or, for the
 * two assistance-data messages, the file list), one row each; the loggers
 * of the table are made from the rows and carry the names in them. */
struct BpTraceRow {
    uint8_t subCmdId;
    const char *title;
    const BpLogField *pFields;
    size_t count;
    const char *func; /* the logger's name on its lines */
    bool dbFiles;     /* numFiles and the files instead of fields */
};

constexpr BpTraceRow kBpTraceRows[] = {
    {GEOLOCATION_APBP_REQ, "AP->BP bpGetLocationReq (GEOLOCATION_APBP_REQ) ",
     BP_FIELDS(kGetLocationReqFields), "LAPI_LogBpGetLocationReq", false},
    {GEOLOCATION_ABORT_APBP_REQ, "AP->BP bpAbortLocationReq (GEOLOCATION_ABORT_APBP_REQ) ", nullptr,
     0, "LAPI_LogBpAbortLocationReq", false},
    {GEOLOCATION_ABORT_APBP_RES, "BP->AP bpAbortLocationRsp (GEOLOCATION_ABORT_APBP_RES) ",
     BP_FIELDS(kResultFields), "LAPI_LogBpAbortLocationRsp", false},
    {DB_WRITE_APBP_REQ, "AP->BP bpSetGpsDbDataReq (DB_WRITE_APBP_REQ) ", nullptr, 0,
     "LAPI_LogBpSetGpsDbDataReq", true},
    {DB_WRITE_APBP_RES, "BP->AP bpSetGpsDbDataRsp (DB_WRITE_APBP_RES) ", BP_FIELDS(kResultFields),
     "LAPI_LogBpSetGpsDbDataRsp", false},
    {DB_READ_APBP_REQ, "AP->BP bpGetGpsDbDataReq (DB_READ_APBP_REQ) ", BP_FIELDS(kFileIdFields),
     "LAPI_LogBpGetGpsDbDataReq", false},
    {DB_READ_APBP_RES, "BP->AP bpGetGpsDbDataRsp (DB_READ_APBP_RES) ", nullptr, 0,
     "LAPI_LogBpGetGpsDbDataRsp", true},
    {STATUS_CHANGE_BPAP_IND, "BP->AP bpStatusChangeInd (STATUS_CHANGE_BPAP_IND) ",
     BP_FIELDS(kStatusFields), "LAPI_LogBpStatusChangeInd", false},
    {GET_STATUS_APBP_REQ, "AP->BP bpGetStatusReq (GET_STATUS_APBP_REQ) ", nullptr, 0,
     "LAPI_LogBpGetStatusReq", false},
    {GET_STATUS_APBP_RES, "BP->AP bpGetStatusRsp (GET_STATUS_APBP_RES) ", BP_FIELDS(kStatusFields),
     "LAPI_LogBpGetStatusRsp", false},
    {LOCATION_NOTIFICATION_APBP_RES,
     "AP->BP bpLocationNotificationRsp (LOCATION_NOTIFICATION_APBP_RES) ",
     BP_FIELDS(kResponseTypeFields), "LAPI_LogBpLocationNotificationRsp", false},
    {NOTIFICATION_STATUS_BPAP_IND, "BP->AP bpNotificationStatusInd (NOTIFICATION_STATUS_BPAP_IND) ",
     BP_FIELDS(kCauseFields), "LAPI_LogBpNotificationStatusInd", false},
    {LAST_KNOWN_GEOLOCATION_APBP_REQ,
     "AP->BP bpLastKnownLocationReq (LAST_KNOWN_GEOLOCATION_APBP_REQ) ", nullptr, 0,
     "LAPI_LogBpLastKnownLocationReq", false},
    {DISTANCE_AND_AZIMUTH_APBP_REQ, "AP->BP bpDistanceAzimuthReq (DISTANCE_AND_AZIMUTH_APBP_REQ) ",
     BP_FIELDS(kDistanceAzimuthReqFields), "LAPI_LogBpDistanceAzimuthReq", false},
    {DISTANCE_AND_AZIMUTH_APBP_RES, "BP->AP bpDistanceAzimuthRsp (DISTANCE_AND_AZIMUTH_APBP_RES) ",
     BP_FIELDS(kDistanceAzimuthRspFields), "LAPI_LogBpDistanceAzimuthRsp", false},
    {PROXIMITY_ADD_APBP_REQ, "AP->BP bpAddProximityReq (PROXIMITY_ADD_APBP_REQ) ",
     BP_FIELDS(kAddProximityReqFields), "LAPI_LogBpAddProximityReq", false},
    {PROXIMITY_ADD_APBP_RES, "BP->AP bpAddProximityRsp (PROXIMITY_ADD_APBP_RES) ",
     BP_FIELDS(kStatusOnlyFields), "LAPI_LogBpAddProximityRsp", false},
    {PROXIMITY_REM_APBP_REQ, "AP->BP bpRemoveProximityReq (PROXIMITY_REM_APBP_REQ) ",
     BP_FIELDS(kRemoveTypeFields), "LAPI_LogBpRemoveProximityReq", false},
    {PROXIMITY_REM_APBP_RES, "BP->AP bpRemoveProximityRsp (PROXIMITY_REM_APBP_RES) ",
     BP_FIELDS(kStatusOnlyFields), "LAPI_LogBpRemoveProximityRsp", false},
};

template <size_t I>
void LogBpTraceRow(const uint8_t *pMsg, int length) {
    const BpTraceRow &row = kBpTraceRows[I];
    if (row.dbFiles) {
        LogDbFilesMsg(pMsg, length, row.subCmdId, row.title, row.func);
    } else {
        LogFixedMsg(pMsg, length, row.subCmdId, row.title, row.pFields, row.count, row.func);
    }
}

template <size_t... I>
constexpr std::array<BpMsgLogProc, sizeof...(I)> BpTraceRowLoggers(std::index_sequence<I...>) {
    return {LogBpTraceRow<I>...};
}

constexpr auto kBpTraceRowLoggers =
    BpTraceRowLoggers(std::make_index_sequence<std::size(kBpTraceRows)>());

}  // namespace

BpMsgLogProc LAPI_SRV_GetBpMsgLogProc(uint8_t subCmdId) {
    return subCmdId < LAPI_BP_MSG_ID_COUNT ? bpMsgLogProc[subCmdId] : nullptr;
}

void LAPI_SRV_InitBpMsgLogProc(void) {
    memset(bpMsgLogProc, 0, sizeof(bpMsgLogProc));
    for (size_t i = 0; i < std::size(kBpTraceRows); ++i) {
        bpMsgLogProc[kBpTraceRows[i].subCmdId] = kBpTraceRowLoggers[i];
    }
    bpMsgLogProc[GEOLOCATION_APBP_RES] = LAPI_LogBpGetLocationRsp;
    bpMsgLogProc[LOCATION_NOTIFICATION_BPAP_IND] = LAPI_LogBpLocationNotificationInd;
    bpMsgLogProc[PROXIMITY_HIT_APBP_IND] = LAPI_LogBpProximityHitInd;
}
