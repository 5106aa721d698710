/*
 * Readable dumps of client messages and the hex helpers, shared by the
 * server (side 1) and the client library (side 0). Nothing here touches
 * the server's state: the client library links this file on its own.
 *
 * Every procedure copies the message into a local record before reading a
 * field, so the message may sit at any byte of the caller's buffer, and
 * builds its line in a bounded local buffer: a length field that lies
 * (numFiles, nameLength, nmeaDataLength, ...) is cut to its array.
 */
#include "LAPI_SrvCli.h"

#include "LAPI_ApMsgRows.h"
#include "LAPI_LogFmt.h"
#include "LAPI_TraceText.h"

#include <atomic>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

LAPI_ApMsgLogProc LAPI_srvMsgLogProcTable[LAPI_SRV_MSG_COUNT];
LAPI_ApMsgLogProc LAPI_cliMsgLogProcTable[LAPI_CLI_MSG_COUNT];

/* The fields the dumps read sit where the wire format puts them. */
static_assert(offsetof(MsgHeader, msgId) == 4 && offsetof(MsgHeader, msgLen) == 6);
static_assert(offsetof(GetLocationReq, responseTime) == 12);
static_assert(offsetof(GetLocationReq, nmeaRequired) == 40);
static_assert(offsetof(SetGpsDbDataReq, dbFile) == 14);
static_assert(offsetof(LocationNotificationCfm, responseType) == 10);
static_assert(offsetof(DistanceAzimuthReq, distanceOnly) == 44);
static_assert(offsetof(AddProximityReq, radius) == 36);
static_assert(offsetof(RemoveProximityReq, removeType) == 12);
static_assert(offsetof(GetStatusRsp, fixResultStatus) == 26);
static_assert(offsetof(GetStatusRsp, iconStatus) == 38);
static_assert(offsetof(GetLocationRsp, locationMethod) == 98);
static_assert(offsetof(GetLocationRsp, ageOfFix) == 106);
static_assert(offsetof(GetLocationRsp, nmeaDataLength) == 114);
static_assert(offsetof(GetLocationRsp, nmeaData) == 116);
static_assert(offsetof(ProximityHitInd, ageOfFix) == 102);
static_assert(offsetof(GetGpsDbDataRsp, dbFile) == 12);
static_assert(offsetof(GetGpsDbDataRsp, result) == 232);
static_assert(offsetof(LocationNotificationInd, clientName) == 20);
static_assert(offsetof(LocationNotificationInd, addrLength) == 165);
static_assert(offsetof(LocationNotificationInd, clientExternalAddr) == 166);
static_assert(sizeof(DbFile) == 10);
/* Every message a dump reads fits the local copy of LAPI_LogApMsg. */
static_assert(sizeof(GetLocationRsp) <= LAPI_LOG_MSG_MAX_LEN);

namespace {

/* Bytes of one LAPI_DebugHex line: 1365 bytes make 4095 characters. */
constexpr int kDebugHexBytesPerLine = 1365;

/* The longest traced text (getLocationRsp with 906 NMEA bytes as text and
 * as hex) is about 4 KiB; the buffer leaves room to spare, and anything
 * beyond it is cut, never written past. */
constexpr int kLogLineSize = 8192;

using LogText = LAPI_TraceText<kLogLineSize>;

/* "%.30e". A fix's reals repeat from report to report (accuracies, speed,
 * course, a position that does not move): the text of the last few values
 * is kept, indexed by their bits. */
void AppendDouble(LogText *pText, double value) {
    struct Kept {
        uint64_t bits;
        uint8_t len; /* 0: empty */
        char text[lapi_fmt::kNumRoom - 1];
    };
    static Kept kept[32];
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    Kept &k = kept[(bits * 0x9E3779B97F4A7C15ULL) >> 59];
    if (k.len == 0 || k.bits != bits) {
        char num[lapi_fmt::kNumRoom];
        size_t n = static_cast<size_t>(lapi_fmt::Sci30(num, value) - num);
        if (n > sizeof(k.text)) {
            pText->Append(num, n);
            return;
        }
        k.len = 0; /* emptied first, as the hex dump's */
        std::atomic_signal_fence(std::memory_order_seq_cst);
        memcpy(k.text, num, n);
        k.bits = bits;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        k.len = static_cast<uint8_t>(n);
    }
    pText->Append(k.text, k.len);
}

/* Checks a traced message against its row (identifier, then body length);
 * the error line names the trace procedure that refused it. */
int CheckMsg(const MsgHeader &h, const LAPI_ApMsgLenRow &row, uint8_t side, const char *func,
             int line) {
    if (h.msgId != row.msgId) {
        LAPI_LogLine(side, 1, LAPI_LOG_FILE, line, func,
                     "pMsgHeader->msgId : %d is not expected, pid : %d!", h.msgId,
                     static_cast<int>(h.pid));
        return -1;
    }
    if (!LAPI_LenFits(row.lenRule, row.len, h.msgLen)) {
        LAPI_LogLine(side, 1, LAPI_LOG_FILE, line, func, "Wrong %s msg length: %d, pid is: %d!",
                     row.pName, h.msgLen, static_cast<int>(h.pid));
        return -1;
    }
    return 0;
}

/* While a broadcast traces one message for many recipients, the first
 * recipient's line is kept and the others get a copy of it. Only a trace
 * that made exactly one line and nothing else is kept: an error line or a
 * line on standard output must come again for every recipient. */
struct ApTraceMemo {
    bool on;        /* a broadcast is running */
    bool capturing; /* the procedure being run may be kept */
    bool valid;     /* msg/text hold a kept trace */
    bool sideEffect;
    uint8_t side;
    int length;
    uint8_t msg[LAPI_LOG_MSG_MAX_LEN];
    int lineLen; /* the whole line, prefix to '\n' */
    char line[kLogLineSize + 256];
};
ApTraceMemo gMemo;

/* Writes the traced text as one trace line of the procedure. */
int Emit(const LogText &text, uint8_t side, const char *func, int line) {
    if (gMemo.capturing && text.len >= 0) {
        gMemo.lineLen = static_cast<int>(LAPI_LogBuildLine(side, 0, LAPI_LOG_FILE, line, func,
                                                           text.text, static_cast<size_t>(text.len),
                                                           gMemo.line, sizeof(gMemo.line)));
    }
    LAPI_LogText(side, 0, LAPI_LOG_FILE, line, func, text.text, static_cast<size_t>(text.len));
    return text.len;
}

/* Starts the line: "S->C timeOutRsp " and the header. */
void Begin(LogText *pText, const LAPI_ApMsgLenRow &row, const MsgHeader &h, uint8_t side) {
    pText->Clear();
    if (row.fromServer) {
        pText->Append("S->C ");
    } else {
        pText->Append("C->S ");
    }
    pText->AppendCStr(row.pName);
    pText->Append(" ");
    pText->len += LAPI_LogApMsgHeader(&h, pText->End(), side);
}

/* "sessionId: %d, transactionId: %d, " */
void AppendPair(LogText *pText, int sessionId, int transactionId) {
    pText->Append("sessionId: ");
    pText->AppendInt(sessionId);
    pText->Append(", transactionId: ");
    pText->AppendInt(transactionId);
    pText->Append(", ");
}

int Min(int a, int b) {
    return a < b ? a : b;
}

}  // namespace

/* Copies the message into a record of its type, checks it against the
 * message's row and starts the line. Used at the top of every trace
 * procedure. */
#define LOG_BEGIN(Type, msgIdValue)                                                        \
    static_assert(LAPI_ApMsgRowOf(msgIdValue) != nullptr &&                                \
                  sizeof(Type) == LAPI_MSG_HEADER_LEN + LAPI_ApMsgRowOf(msgIdValue)->len); \
    const LAPI_ApMsgLenRow &row = *LAPI_ApMsgRowOf(msgIdValue);                            \
    Type m;                                                                                \
    memcpy(&m, pMsg, sizeof(m));                                                           \
    if (CheckMsg(m.header, row, side, __func__, __LINE__) < 0) {                           \
        return -1;                                                                         \
    }                                                                                      \
    LogText text;                                                                          \
    Begin(&text, row, m.header, side)

/* A field: its label, its value (appended by appendValue: "%d", "%u" or
 * "%.30e"), ", ", then its raw bytes in hex. */
#define LOG_FIELD_BY(Type, member, label, appendValue)                                        \
    do {                                                                                      \
        text.Append(label);                                                                   \
        appendValue;                                                                          \
        text.Append(", ");                                                                    \
        text.AppendHex(pMsg + offsetof(Type, member), static_cast<int>(sizeof(Type::member)), \
                       side);                                                                 \
    } while (0)

#define LOG_INT(Type, member, label, value) \
    LOG_FIELD_BY(Type, member, label, text.AppendInt(static_cast<int>(value)))
#define LOG_UINT(Type, member, label, value) \
    LOG_FIELD_BY(Type, member, label, text.AppendUInt(static_cast<unsigned>(value)))
#define LOG_DOUBLE(Type, member) \
    LOG_FIELD_BY(Type, member, #member ": ", AppendDouble(&text, m.member))

/* "sessionId: %d, transactionId: %d, " with the two bytes in hex. */
#define LOG_SERVER_PAIR(Type)                                      \
    do {                                                           \
        AppendPair(&text, m.sessionId, m.transactionId);           \
        text.AppendHex(pMsg + offsetof(Type, sessionId), 2, side); \
    } while (0)

/* "mode: %d, sessionId: %d, transactionId: %d, " with the four bytes in hex. */
#define LOG_REQ_PREFIX(Type)                                  \
    do {                                                      \
        text.Append("mode: ");                                \
        text.AppendInt(m.mode);                               \
        text.Append(", ");                                    \
        AppendPair(&text, m.sessionId, m.transactionId);      \
        text.AppendHex(pMsg + offsetof(Type, mode), 4, side); \
    } while (0)

#define LOG_END() return Emit(text, side, __func__, __LINE__)

/* ------------------------------------------------------------------------ */
/* Hex helpers                                                               */
/* ------------------------------------------------------------------------ */

void LAPI_DebugHex(const void *pData, int length, uint8_t side) {
    if (pData == nullptr || length <= 0) {
        return;
    }
    /* A frame is dumped twice in a row (the bytes read, then the frame cut
     * from them): the text of the last one-line dump is kept, and the same
     * bytes again reuse it. */
    static struct {
        int length;
        uint8_t bytes[kDebugHexBytesPerLine];
        char line[kDebugHexBytesPerLine * 3 + 4];
    } last;
    const uint8_t *p = static_cast<const uint8_t *>(pData);
    while (length > 0) {
        int n = Min(length, kDebugHexBytesPerLine);
        bool same = last.length == n && memcmp(last.bytes, p, static_cast<size_t>(n)) == 0;
        if (!same) {
            /* Emptied first: a signal handler that dumps a frame meanwhile
             * formats its own. */
            last.length = 0;
            std::atomic_signal_fence(std::memory_order_seq_cst);
            lapi_fmt::HexSpaced(last.line, p, static_cast<size_t>(n));
            memcpy(last.bytes, p, static_cast<size_t>(n));
            std::atomic_signal_fence(std::memory_order_seq_cst);
            last.length = n;
        }
        LAPI_LogText(side, 0, LAPI_LOG_FILE, __LINE__, __func__, last.line,
                     static_cast<size_t>(3 * n));
        p += n;
        length -= n;
    }
}

int LAPI_FormatHexStr(const void *pData, int length, char *pBuf, uint8_t side) {
    if (pData == nullptr || pBuf == nullptr || length <= 0) {
        LAPI_ERR_SIDE(side, "(pData == NULL) || (pBuf == NULL) || (length <= 0)!");
        return 0;
    }
    char *out = pBuf;
    *out++ = '0';
    *out++ = 'x';
    out = lapi_fmt::Hex(out, static_cast<const uint8_t *>(pData), static_cast<size_t>(length));
    *out++ = ',';
    *out++ = ' ';
    *out = '\0';
    return static_cast<int>(out - pBuf);
}

int LAPI_LogApMsgHeader(const MsgHeader *pMsgHeader, char *pBuf, uint8_t side) {
    if (pMsgHeader == nullptr || pBuf == nullptr) {
        LAPI_ERR_SIDE(side, "(pMsgHeader == NULL) || (pBuf == NULL)!");
        return 0;
    }
    MsgHeader h;
    memcpy(&h, pMsgHeader, sizeof(h));
    /* "pid: %d, msgId: %d, msgLen: %d, ": at most 45 characters, the
     * callers keep that much room. */
    char *out = pBuf;
    memcpy(out, "pid: ", 5);
    out = lapi_fmt::Int(out + 5, static_cast<int>(h.pid));
    memcpy(out, ", msgId: ", 9);
    out = lapi_fmt::Int(out + 9, h.msgId);
    memcpy(out, ", msgLen: ", 10);
    out = lapi_fmt::Int(out + 10, h.msgLen);
    memcpy(out, ", ", 3); /* with the terminator */
    return static_cast<int>(out + 2 - pBuf);
}

/* ------------------------------------------------------------------------ */
/* Client to server                                                          */
/* ------------------------------------------------------------------------ */

int LAPI_LogRegisterReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RegisterReq, LAPI_REGISTER_REQ);
    LOG_UINT(RegisterReq, service, "service: ", m.service);
    LOG_END();
}

int LAPI_LogGetAsyncFdReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetAsyncFdReq, LAPI_GET_ASYNC_FD_REQ);
    LOG_INT(GetAsyncFdReq, globalId, "globalId: ", m.globalId);
    LOG_END();
}

int LAPI_LogUnregisterReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(UnregisterReq, LAPI_UNREGISTER_REQ);
    LOG_END();
}

int LAPI_LogGetLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetLocationReq, LAPI_GET_LOCATION_REQ);
    LOG_REQ_PREFIX(GetLocationReq);
    LOG_INT(GetLocationReq, responseTime, "responseTime: ", m.responseTime);
    LOG_INT(GetLocationReq, horizontalAccuracy, "horizontalAccuracy: ", m.horizontalAccuracy);
    LOG_INT(GetLocationReq, verticalAccuracy, "verticalAccuracy: ", m.verticalAccuracy);
    LOG_INT(GetLocationReq, preferredPowerConsumption,
            "preferredPowerConsumption: ", m.preferredPowerConsumption);
    LOG_INT(GetLocationReq, interval, "interval: ", m.interval);
    LOG_INT(GetLocationReq, reportCriteria, "reportCriteria: ", m.reportCriteria);
    LOG_UINT(GetLocationReq, costAllowed, "costAllowed: ", m.costAllowed);
    LOG_UINT(GetLocationReq, addressInfoRequired, "addressInfoRequired: ", m.addressInfoRequired);
    LOG_UINT(GetLocationReq, speedAndCourseRequired,
             "speedAndCourseRequired: ", m.speedAndCourseRequired);
    LOG_UINT(GetLocationReq, altitudeRequired, "altitudeRequired: ", m.altitudeRequired);
    LOG_END();
}

int LAPI_LogAbortLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AbortLocationReq, LAPI_ABORT_LOCATION_REQ);
    LOG_REQ_PREFIX(AbortLocationReq);
    LOG_END();
}

int LAPI_LogAbortAllLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AbortAllLocationReq, LAPI_ABORT_ALL_LOCATION_REQ);
    LOG_END();
}

int LAPI_LogLastKnownLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(LastKnownLocationReq, LAPI_LAST_KNOWN_LOCATION_REQ);
    LOG_REQ_PREFIX(LastKnownLocationReq);
    LOG_END();
}

int LAPI_LogGetGpsDbDataReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetGpsDbDataReq, LAPI_GET_GPS_DB_DATA_REQ);
    LOG_REQ_PREFIX(GetGpsDbDataReq);
    LOG_UINT(GetGpsDbDataReq, fileId, "fileId: ", m.fileId);
    LOG_END();
}

namespace {

/* "dbFile[%d]: fileId: %d, length: %d, data: " for the used entries; both
 * counts are cut to the arrays (22 entries, 4 data bytes). */
void AppendDbFiles(LogText *pText, const uint8_t *pFiles, int numFiles, uint8_t side) {
    int n = Min(numFiles, LAPI_MAX_DB_FILES);
    for (int i = 0; i < n; i++) {
        const uint8_t *pFile = pFiles + i * sizeof(DbFile);
        DbFile f;
        memcpy(&f, pFile, sizeof(f));
        pText->Append("dbFile[");
        pText->AppendInt(i);
        pText->Append("]: fileId: ");
        pText->AppendInt(static_cast<int>(f.fileId));
        pText->Append(", ");
        pText->AppendHex(pFile + offsetof(DbFile, fileId), 4, side);
        pText->Append("length: ");
        pText->AppendInt(f.length);
        pText->Append(", ");
        pText->AppendHex(pFile + offsetof(DbFile, length), 2, side);
        pText->Append("data: ");
        pText->AppendHex(pFile + offsetof(DbFile, data), Min(f.length, LAPI_DB_FILE_DATA_LEN),
                         side);
    }
}

}  // namespace

int LAPI_LogSetGpsDbDataReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(SetGpsDbDataReq, LAPI_SET_GPS_DB_DATA_REQ);
    LOG_REQ_PREFIX(SetGpsDbDataReq);
    LOG_INT(SetGpsDbDataReq, numFiles, "numFiles: ", m.numFiles);
    AppendDbFiles(&text, pMsg + offsetof(SetGpsDbDataReq, dbFile), m.numFiles, side);
    LOG_END();
}

int LAPI_LogGetStatusReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetStatusReq, LAPI_GET_STATUS_REQ);
    LOG_REQ_PREFIX(GetStatusReq);
    LOG_END();
}

int LAPI_LogLocationNotificationCfm(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(LocationNotificationCfm, LAPI_LOCATION_NOTIFICATION_CFM);
    LOG_SERVER_PAIR(LocationNotificationCfm);
    LOG_INT(LocationNotificationCfm, responseType, "responseType: ", m.responseType);
    LOG_END();
}

int LAPI_LogDistanceAzimuthReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(DistanceAzimuthReq, LAPI_DISTANCE_AZIMUTH_REQ);
    LOG_REQ_PREFIX(DistanceAzimuthReq);
    LOG_DOUBLE(DistanceAzimuthReq, latitude1);
    LOG_DOUBLE(DistanceAzimuthReq, longitude1);
    LOG_DOUBLE(DistanceAzimuthReq, latitude2);
    LOG_DOUBLE(DistanceAzimuthReq, longitude2);
    LOG_INT(DistanceAzimuthReq, distanceOnly, "distanceOnly: ", m.distanceOnly);
    LOG_END();
}

int LAPI_LogAddProximityReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AddProximityReq, LAPI_ADD_PROXIMITY_REQ);
    LOG_REQ_PREFIX(AddProximityReq);
    LOG_DOUBLE(AddProximityReq, latitude);
    LOG_DOUBLE(AddProximityReq, longitude);
    LOG_DOUBLE(AddProximityReq, altitude);
    LOG_DOUBLE(AddProximityReq, radius);
    LOG_END();
}

int LAPI_LogRemoveProximityReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RemoveProximityReq, LAPI_REMOVE_PROXIMITY_REQ);
    LOG_REQ_PREFIX(RemoveProximityReq);
    LOG_INT(RemoveProximityReq, removeType, "removeType: ", m.removeType);
    LOG_END();
}

/* ------------------------------------------------------------------------ */
/* Server to client                                                          */
/* ------------------------------------------------------------------------ */

int LAPI_LogRegisterRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RegisterRsp, LAPI_REGISTER_RSP);
    LOG_INT(RegisterRsp, globalId, "globalId: ", m.globalId);
    LOG_END();
}

int LAPI_LogGetAsyncFdRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetAsyncFdRsp, LAPI_GET_ASYNC_FD_RSP);
    LOG_END();
}

int LAPI_LogUnregisterRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(UnregisterRsp, LAPI_UNREGISTER_RSP);
    LOG_END();
}

/* The eleven doubles that getLocationRsp and proximityHitInd share. */
#define LOG_POSITION(Type)                    \
    do {                                      \
        LOG_DOUBLE(Type, longitude);          \
        LOG_DOUBLE(Type, latitude);           \
        LOG_DOUBLE(Type, latLonAccuracy);     \
        LOG_DOUBLE(Type, timeStamp);          \
        LOG_DOUBLE(Type, altitude);           \
        LOG_DOUBLE(Type, speed);              \
        LOG_DOUBLE(Type, travelDirection);    \
        LOG_DOUBLE(Type, pointingDirection);  \
        LOG_DOUBLE(Type, horizontalAccuracy); \
        LOG_DOUBLE(Type, verticalAccuracy);   \
        LOG_DOUBLE(Type, course);             \
    } while (0)

int LAPI_LogGetLocationRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetLocationRsp, LAPI_GET_LOCATION_RSP);
    LOG_SERVER_PAIR(GetLocationRsp);
    LOG_POSITION(GetLocationRsp);
    LOG_INT(GetLocationRsp, locationMethod, "locationMethod: ", m.locationMethod);
    LOG_INT(GetLocationRsp, cause, "cause: ", m.cause);
    LOG_UINT(GetLocationRsp, ageOfFix, "ageOfFix: ", m.ageOfFix);
    text.Append("nmeaDataLength: ");
    text.AppendInt(m.nmeaDataLength);
    text.Append(", \n");
    text.AppendHex(pMsg + offsetof(GetLocationRsp, nmeaDataLength), 2, side);

    /* The NMEA sentences, as text and in hex, never beyond the array. */
    int nmeaLen = Min(m.nmeaDataLength, LAPI_MAX_NMEA_LEN);
    const char *pNmea = reinterpret_cast<const char *>(pMsg + offsetof(GetLocationRsp, nmeaData));
    text.Append("nmeaData: ");
    text.Append(pNmea, strnlen(pNmea, static_cast<size_t>(nmeaLen))); /* text stops at NUL */
    text.Append(", \n");
    text.Append("nmeaData: ");
    text.AppendHex(pMsg + offsetof(GetLocationRsp, nmeaData), nmeaLen, side);

    /* "\n %s, %s, pMsg->nmeaDataLength:%d\n" on standard output. */
    char plain[256];
    char *end = plain;
    auto put = [&end](const char *str) {
        size_t n = strlen(str);
        memcpy(end, str, n);
        end += n;
    };
    put("\n ");
    put(LAPI_LOG_FILE); /* both names are short: the block has room */
    put(", ");
    put(__func__);
    put(", pMsg->nmeaDataLength:");
    end = lapi_fmt::Int(end, m.nmeaDataLength);
    *end++ = '\n';
    /* Standard output keeps its place among the diagnostic lines. */
    LAPI_LogFlush();
    fwrite(plain, 1, static_cast<size_t>(end - plain), stdout);
    fflush(stdout);
    gMemo.sideEffect = true;
    text.Append("nmea end\n");
    LOG_END();
}

int LAPI_LogAbortLocationRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AbortLocationRsp, LAPI_ABORT_LOCATION_RSP);
    LOG_SERVER_PAIR(AbortLocationRsp);
    LOG_INT(AbortLocationRsp, result, "result: ", m.result);
    LOG_END();
}

int LAPI_LogTimeOutRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(TimeOutRsp, LAPI_TIME_OUT_RSP);
    LOG_SERVER_PAIR(TimeOutRsp);
    LOG_END();
}

int LAPI_LogInvalidRequestRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(InvalidRequestRsp, LAPI_INVALID_REQUEST_RSP);
    LOG_SERVER_PAIR(InvalidRequestRsp);
    LOG_END();
}

int LAPI_LogGetGpsDbDataRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetGpsDbDataRsp, LAPI_GET_GPS_DB_DATA_RSP);
    LOG_SERVER_PAIR(GetGpsDbDataRsp);
    LOG_INT(GetGpsDbDataRsp, numFiles, "numFiles: ", m.numFiles);
    AppendDbFiles(&text, pMsg + offsetof(GetGpsDbDataRsp, dbFile), m.numFiles, side);
    LOG_INT(GetGpsDbDataRsp, result, "result: ", m.result);
    LOG_END();
}

int LAPI_LogSetGpsDbDataRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(SetGpsDbDataRsp, LAPI_SET_GPS_DB_DATA_RSP);
    LOG_SERVER_PAIR(SetGpsDbDataRsp);
    LOG_INT(SetGpsDbDataRsp, result, "result: ", m.result);
    LOG_END();
}

/* getStatusRsp and statusChangeInd: the six status fields (signalStatus and
 * iconStatus travel but are not traced). */
#define LOG_STATUS_FIELDS()                                                             \
    do {                                                                                \
        LOG_SERVER_PAIR(GetStatusRsp);                                                  \
        LOG_INT(GetStatusRsp, userStatus, "userStatus: ", m.userStatus);                \
        LOG_INT(GetStatusRsp, hwStatus, "hwStatus: ", m.hwStatus);                      \
        LOG_INT(GetStatusRsp, fixStatus, "fixStatus: ", m.fixStatus);                   \
        LOG_INT(GetStatusRsp, emergencyStatus, "emergencyStatus: ", m.emergencyStatus); \
        text.Append("fixResultStatus.status: ");                                        \
        text.AppendInt(m.fixResultStatus.status);                                       \
        text.Append(", ");                                                              \
        text.AppendHex(pMsg + offsetof(GetStatusRsp, fixResultStatus), 4, side);        \
        text.Append("fixResultStatus.cause: ");                                         \
        text.AppendInt(m.fixResultStatus.cause);                                        \
        text.Append(", ");                                                              \
        text.AppendHex(pMsg + offsetof(GetStatusRsp, fixResultStatus) + 4, 4, side);    \
    } while (0)

int LAPI_LogGetStatusRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetStatusRsp, LAPI_GET_STATUS_RSP);
    LOG_STATUS_FIELDS();
    LOG_END();
}

int LAPI_LogStatusChangeInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(StatusChangeInd, LAPI_STATUS_CHANGE_IND);
    LOG_STATUS_FIELDS();
    LOG_END();
}

int LAPI_LogLocationNotificationInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(LocationNotificationInd, LAPI_LOCATION_NOTIFICATION_IND);
    LOG_SERVER_PAIR(LocationNotificationInd);
    LOG_INT(LocationNotificationInd, notificationType, "notificationType: ", m.notificationType);
    LOG_INT(LocationNotificationInd, locationType, "locationType: ", m.locationType);
    LOG_INT(LocationNotificationInd, dataCodingSchema, "dataCodingSchema: ", m.dataCodingSchema);
    text.Append("nameLength: ");
    text.AppendInt(m.nameLength);
    text.Append(", clientName: ");
    text.AppendHex(pMsg + offsetof(LocationNotificationInd, clientName),
                   Min(m.nameLength, LAPI_CLIENT_NAME_LEN), side);
    text.Append("addrLength: ");
    text.AppendInt(m.addrLength);
    text.Append(", clientExternalAddr: ");
    text.AppendHex(pMsg + offsetof(LocationNotificationInd, clientExternalAddr),
                   Min(m.addrLength, LAPI_CLIENT_ADDR_LEN), side);
    LOG_END();
}

int LAPI_LogNotificationStatusInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(NotificationStatusInd, LAPI_NOTIFICATION_STATUS_IND);
    LOG_SERVER_PAIR(NotificationStatusInd);
    LOG_INT(NotificationStatusInd, cause, "cause: ", m.cause);
    LOG_END();
}

int LAPI_LogDistanceAzimuthRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(DistanceAzimuthRsp, LAPI_DISTANCE_AZIMUTH_RSP);
    LOG_SERVER_PAIR(DistanceAzimuthRsp);
    LOG_DOUBLE(DistanceAzimuthRsp, distance);
    LOG_DOUBLE(DistanceAzimuthRsp, azimuth);
    LOG_END();
}

int LAPI_LogAddProximityRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AddProximityRsp, LAPI_ADD_PROXIMITY_RSP);
    LOG_SERVER_PAIR(AddProximityRsp);
    LOG_INT(AddProximityRsp, status, "status: ", m.status);
    LOG_END();
}

int LAPI_LogRemoveProximityRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RemoveProximityRsp, LAPI_REMOVE_PROXIMITY_RSP);
    LOG_SERVER_PAIR(RemoveProximityRsp);
    LOG_INT(RemoveProximityRsp, status, "status: ", m.status);
    LOG_END();
}

int LAPI_LogProximityHitInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(ProximityHitInd, LAPI_PROXIMITY_HIT_IND);
    LOG_SERVER_PAIR(ProximityHitInd);
    LOG_POSITION(ProximityHitInd);
    LOG_INT(ProximityHitInd, locationMethod, "locationMethod: ", m.locationMethod);
    LOG_UINT(ProximityHitInd, ageOfFix, "ageOfFix: ", m.ageOfFix);
    LOG_END();
}

/* ------------------------------------------------------------------------ */
/* Tables and the dump of one message                                        */
/* ------------------------------------------------------------------------ */

void LAPI_InitApMsgLogProc(void) {
    memset(LAPI_srvMsgLogProcTable, 0, sizeof(LAPI_srvMsgLogProcTable));
    memset(LAPI_cliMsgLogProcTable, 0, sizeof(LAPI_cliMsgLogProcTable));

    LAPI_ApMsgLogProc *c = LAPI_cliMsgLogProcTable;
    c[LAPI_REGISTER_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogRegisterReq;
    c[LAPI_REGISTER_RSP - LAPI_CLI_MSG_BASE] = LAPI_LogRegisterRsp;
    c[LAPI_GET_ASYNC_FD_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogGetAsyncFdReq;
    c[LAPI_GET_ASYNC_FD_RSP - LAPI_CLI_MSG_BASE] = LAPI_LogGetAsyncFdRsp;
    c[LAPI_UNREGISTER_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogUnregisterReq;
    c[LAPI_UNREGISTER_RSP - LAPI_CLI_MSG_BASE] = LAPI_LogUnregisterRsp;
    c[LAPI_GET_LOCATION_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogGetLocationReq;
    c[LAPI_ABORT_LOCATION_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogAbortLocationReq;
    c[LAPI_ABORT_ALL_LOCATION_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogAbortAllLocationReq;
    c[LAPI_LAST_KNOWN_LOCATION_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogLastKnownLocationReq;
    c[LAPI_GET_GPS_DB_DATA_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogGetGpsDbDataReq;
    c[LAPI_SET_GPS_DB_DATA_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogSetGpsDbDataReq;
    c[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogGetStatusReq;
    c[LAPI_LOCATION_NOTIFICATION_CFM - LAPI_CLI_MSG_BASE] = LAPI_LogLocationNotificationCfm;
    c[LAPI_DISTANCE_AZIMUTH_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogDistanceAzimuthReq;
    c[LAPI_ADD_PROXIMITY_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogAddProximityReq;
    c[LAPI_REMOVE_PROXIMITY_REQ - LAPI_CLI_MSG_BASE] = LAPI_LogRemoveProximityReq;

    LAPI_ApMsgLogProc *s = LAPI_srvMsgLogProcTable;
    s[LAPI_GET_LOCATION_RSP] = LAPI_LogGetLocationRsp;
    s[LAPI_ABORT_LOCATION_RSP] = LAPI_LogAbortLocationRsp;
    s[LAPI_TIME_OUT_RSP] = LAPI_LogTimeOutRsp;
    s[LAPI_INVALID_REQUEST_RSP] = LAPI_LogInvalidRequestRsp;
    s[LAPI_GET_GPS_DB_DATA_RSP] = LAPI_LogGetGpsDbDataRsp;
    s[LAPI_SET_GPS_DB_DATA_RSP] = LAPI_LogSetGpsDbDataRsp;
    s[LAPI_GET_STATUS_RSP] = LAPI_LogGetStatusRsp;
    s[LAPI_STATUS_CHANGE_IND] = LAPI_LogStatusChangeInd;
    s[LAPI_LOCATION_NOTIFICATION_IND] = LAPI_LogLocationNotificationInd;
    s[LAPI_NOTIFICATION_STATUS_IND] = LAPI_LogNotificationStatusInd;
    s[LAPI_DISTANCE_AZIMUTH_RSP] = LAPI_LogDistanceAzimuthRsp;
    s[LAPI_ADD_PROXIMITY_RSP] = LAPI_LogAddProximityRsp;
    s[LAPI_REMOVE_PROXIMITY_RSP] = LAPI_LogRemoveProximityRsp;
    s[LAPI_PROXIMITY_HIT_IND] = LAPI_LogProximityHitInd;
}

void LAPI_LogApMsg(const void *pBuf, int length, uint8_t side) {
    if (pBuf == nullptr || length <= 0) {
        LAPI_ERR_SIDE(side, "(pBuf == NULL) || (length <= 0) !");
        return;
    }
    const uint8_t *pIn = static_cast<const uint8_t *>(pBuf);
    if (length > LAPI_LOG_MSG_MAX_LEN) {
        uint16_t msgId;
        memcpy(&msgId, pIn + offsetof(MsgHeader, msgId), sizeof(msgId));
        LAPI_ERR_SIDE(side, "length: %d > sizeof(buf): %d, msgId: %d!", length,
                      LAPI_LOG_MSG_MAX_LEN, msgId);
        return;
    }

    if (gMemo.on && gMemo.valid && gMemo.side == side && gMemo.length == length &&
        memcmp(gMemo.msg, pIn, static_cast<size_t>(length)) == 0) {
        /* The same message as the previous recipient's: the same line. */
        LAPI_LogPutLine(0, gMemo.line, static_cast<size_t>(gMemo.lineLen));
        return;
    }

    /* A short message reads as zeros past its end, never past the copy. */
    uint8_t buf[LAPI_LOG_MSG_MAX_LEN];
    memset(buf, 0, sizeof(buf));
    memcpy(buf, pIn, static_cast<size_t>(length));
    MsgHeader h;
    memcpy(&h, buf, sizeof(h));

    LAPI_ApMsgLogProc proc = nullptr;
    if (h.msgId < LAPI_CLI_MSG_BASE) {
        if (h.msgId >= LAPI_SRV_MSG_COUNT) {
            LAPI_ERR_SIDE(side, "Unknown msgId: %d, pid is: %d!", h.msgId, static_cast<int>(h.pid));
            return;
        }
        proc = LAPI_srvMsgLogProcTable[h.msgId];
    } else {
        int index = h.msgId - LAPI_CLI_MSG_BASE;
        if (index >= LAPI_CLI_MSG_COUNT) {
            LAPI_ERR_SIDE(side, "Unknown msgId: %d, pid is: %d!", h.msgId, static_cast<int>(h.pid));
            return;
        }
        proc = LAPI_cliMsgLogProcTable[index];
    }
    if (proc == nullptr) {
        LAPI_ERR_SIDE(side, "No log procedure for msgId: %d, pid is: %d!", h.msgId,
                      static_cast<int>(h.pid));
        return;
    }
    if (!gMemo.on) {
        proc(buf, side);
        return;
    }
    unsigned long linesBefore = LAPI_logLineCount;
    gMemo.valid = false;
    gMemo.lineLen = 0;
    gMemo.sideEffect = false;
    gMemo.capturing = true;
    proc(buf, side);
    gMemo.capturing = false;
    if (gMemo.lineLen > 0 && !gMemo.sideEffect && LAPI_logLineCount == linesBefore + 1) {
        memcpy(gMemo.msg, pIn, static_cast<size_t>(length));
        gMemo.length = length;
        gMemo.side = side;
        gMemo.valid = true;
    }
}

void LAPI_LogApMsgRepeat(int on) {
    gMemo.on = on != 0;
    gMemo.valid = false;
}
