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
#include <iterator>
#include <type_traits>

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
    LAPI_OWN_PAGES static Kept kept[32];
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
LAPI_OWN_PAGES ApTraceMemo gMemo;

/* Writes the traced text as one trace line of the procedure. */
int Emit(const LogText &text, uint8_t side, const char *func, int line) {
    if (gMemo.capturing && text.len >= 0) {
        gMemo.lineLen = static_cast<int>(LAPI_LogBuildLine(side, 0, LAPI_LOG_FILE, line, func,
                                                           text.text, static_cast<size_t>(text.len),
                                                           gMemo.line, sizeof(gMemo.line)));
        if (gMemo.lineLen > 0) {
            /* The first recipient's line is the one just built. */
            LAPI_LogPutLine(0, gMemo.line, static_cast<size_t>(gMemo.lineLen));
            return text.len;
        }
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

namespace {

/* How a traced field shows its value. */
enum class FieldKind : uint8_t {
    kInt,       /* "%d" */
    kUInt,      /* "%u" */
    kDouble,    /* "%.30e" */
    kReqPrefix, /* "mode: %d, sessionId: %d, transactionId: %d, " */
    kPair,      /* "sessionId: %d, transactionId: %d, " */
    kDbFiles,   /* the used file entries, counted by the field at countOffset */
};

/* One traced field: its label, its value, ", ", then its raw bytes in hex
 * (the prefix and the pair: their four and two bytes). Kept to a pointer and
 * 8 bytes: the tables of fields hold pointers, so they are relocated at
 * start-up and their pages are the process's own memory. */
struct TraceField {
    const char *label;
    uint8_t labelLen;
    FieldKind kind;
    uint16_t offset; /* in the whole message */
    uint8_t width;
    bool isSigned;
    uint16_t countOffset; /* kDbFiles: where numFiles is */
};
static_assert(sizeof(TraceField) <= sizeof(void *) + 8);

/* The fields of a message of type T (the procedure's T). */
#define TF_NUM(kind, member, label)                                                 \
    TraceField {                                                                    \
        (label), sizeof(label) - 1, (kind), offsetof(T, member), sizeof(T::member), \
            std::is_signed_v<decltype(T::member)>, 0                                \
    }
#define TF_INT(member, label) TF_NUM(FieldKind::kInt, member, label)
/* An i32 inside a member (a field of a nested record), shown as "%d". */
#define TF_I32_AT(label, off)                                          \
    TraceField {                                                       \
        (label), sizeof(label) - 1, FieldKind::kInt, (off), 4, true, 0 \
    }
#define TF_UINT(member, label) TF_NUM(FieldKind::kUInt, member, label)
#define TF_DOUBLE(member) TF_NUM(FieldKind::kDouble, member, #member ": ")
#define TF_PREFIX()                                                  \
    TraceField {                                                     \
        "", 0, FieldKind::kReqPrefix, offsetof(T, mode), 4, false, 0 \
    }
#define TF_PAIR()                                                    \
    TraceField {                                                     \
        "", 0, FieldKind::kPair, offsetof(T, sessionId), 2, false, 0 \
    }
#define TF_DB_FILES()                                                                    \
    TraceField {                                                                         \
        "", 0, FieldKind::kDbFiles, offsetof(T, dbFile), 0, false, offsetof(T, numFiles) \
    }
/* The eleven reals that getLocationRsp and proximityHitInd share. */
#define TF_POSITION()                                                                             \
    TF_DOUBLE(longitude), TF_DOUBLE(latitude), TF_DOUBLE(latLonAccuracy), TF_DOUBLE(timeStamp),   \
        TF_DOUBLE(altitude), TF_DOUBLE(speed), TF_DOUBLE(travelDirection),                        \
        TF_DOUBLE(pointingDirection), TF_DOUBLE(horizontalAccuracy), TF_DOUBLE(verticalAccuracy), \
        TF_DOUBLE(course)

/* The value of an integer field of width bytes (1, 2, 4 or 8). */
int64_t FieldValue(const uint8_t *p, int width, bool isSigned) {
    switch (width) {
        case 1: {
            uint8_t v;
            memcpy(&v, p, sizeof(v));
            return isSigned ? static_cast<int8_t>(v) : v;
        }
        case 2: {
            uint16_t v;
            memcpy(&v, p, sizeof(v));
            return isSigned ? static_cast<int16_t>(v) : v;
        }
        case 4: {
            uint32_t v;
            memcpy(&v, p, sizeof(v));
            return isSigned ? static_cast<int32_t>(v) : static_cast<int64_t>(v);
        }
        default: {
            uint64_t v;
            memcpy(&v, p, sizeof(v));
            return static_cast<int64_t>(v);
        }
    }
}

void AppendDbFiles(LogText *pText, const uint8_t *pFiles, int numFiles, uint8_t side);

void AppendFields(LogText *pText, const uint8_t *pMsg, const TraceField *pFields, size_t count,
                  uint8_t side) {
    for (size_t i = 0; i < count; ++i) {
        const TraceField &f = pFields[i];
        const uint8_t *p = pMsg + f.offset;
        switch (f.kind) {
            case FieldKind::kReqPrefix:
                pText->Append("mode: ");
                pText->AppendInt(static_cast<int>(FieldValue(p, 2, false)));
                pText->Append(", ");
                AppendPair(pText, static_cast<int>(FieldValue(p + 2, 1, false)),
                           static_cast<int>(FieldValue(p + 3, 1, false)));
                pText->AppendHex(p, f.width, side);
                break;
            case FieldKind::kPair:
                AppendPair(pText, static_cast<int>(FieldValue(p, 1, false)),
                           static_cast<int>(FieldValue(p + 1, 1, false)));
                pText->AppendHex(p, f.width, side);
                break;
            case FieldKind::kDbFiles:
                AppendDbFiles(pText, p,
                              static_cast<int>(FieldValue(pMsg + f.countOffset, 2, false)), side);
                break;
            default:
                pText->Append(f.label, f.labelLen);
                if (f.kind == FieldKind::kDouble) {
                    double v;
                    memcpy(&v, p, sizeof(v));
                    AppendDouble(pText, v);
                } else if (f.kind == FieldKind::kUInt) {
                    pText->AppendUInt(static_cast<unsigned>(FieldValue(p, f.width, f.isSigned)));
                } else {
                    pText->AppendInt(static_cast<int>(FieldValue(p, f.width, f.isSigned)));
                }
                pText->Append(", ");
                pText->AppendHex(p, f.width, side);
                break;
        }
    }
}

/* Checks a message of type T against its row and starts its line: false
 * after the error line in func's name. */
template <typename T, uint16_t kMsgId>
bool BeginTrace(const uint8_t *pMsg, uint8_t side, const char *func, LogText *pText) {
    static_assert(LAPI_ApMsgRowOf(kMsgId) != nullptr &&
                  sizeof(T) == LAPI_MSG_HEADER_LEN + LAPI_ApMsgRowOf(kMsgId)->len);
    const LAPI_ApMsgLenRow &row = *LAPI_ApMsgRowOf(kMsgId);
    MsgHeader h;
    memcpy(&h, pMsg, sizeof(h));
    if (CheckMsg(h, row, side, func, __LINE__) < 0) {
        return false;
    }
    Begin(pText, row, h, side);
    return true;
}

/* Starts the line as BeginTrace does and appends the given fields. */
template <typename T, uint16_t kMsgId>
bool BeginTraceFields(const uint8_t *pMsg, uint8_t side, const char *func, LogText *pText,
                      const TraceField *pFields, size_t count) {
    if (!BeginTrace<T, kMsgId>(pMsg, side, func, pText)) {
        return false;
    }
    AppendFields(pText, pMsg, pFields, count, side);
    return true;
}

/* The whole trace of a message made of its header and the given fields. */
template <typename T, uint16_t kMsgId>
int TraceFields(const uint8_t *pMsg, uint8_t side, const TraceField *pFields, size_t count,
                const char *func) {
    LogText text;
    if (!BeginTraceFields<T, kMsgId>(pMsg, side, func, &text, pFields, count)) {
        return -1;
    }
    return Emit(text, side, func, __LINE__);
}

}  // namespace

/* A trace procedure of the tables: the message's header, then the fields
 * listed (with T the message's type). */
#define TRACE_PROC(name, Type, msgId, ...)                                            \
    int name(const uint8_t *pMsg, uint8_t side) {                                     \
        using T = Type;                                                               \
        static constexpr TraceField kFields[] = {__VA_ARGS__};                        \
        return TraceFields<T, msgId>(pMsg, side, kFields, std::size(kFields), #name); \
    }
/* One that traces the header alone. */
#define TRACE_HEADER_PROC(name, Type, msgId)                            \
    int name(const uint8_t *pMsg, uint8_t side) {                       \
        return TraceFields<Type, msgId>(pMsg, side, nullptr, 0, #name); \
    }

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
    LAPI_OWN_PAGES static struct {
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

TRACE_PROC(LAPI_LogRegisterReq, RegisterReq, LAPI_REGISTER_REQ, TF_UINT(service, "service: "))
TRACE_PROC(LAPI_LogGetAsyncFdReq, GetAsyncFdReq, LAPI_GET_ASYNC_FD_REQ,
           TF_INT(globalId, "globalId: "))
TRACE_HEADER_PROC(LAPI_LogUnregisterReq, UnregisterReq, LAPI_UNREGISTER_REQ)
/* nmeaRequired travels but is not traced. */
TRACE_PROC(LAPI_LogGetLocationReq, GetLocationReq, LAPI_GET_LOCATION_REQ, TF_PREFIX(),
           TF_INT(responseTime, "responseTime: "),
           TF_INT(horizontalAccuracy, "horizontalAccuracy: "),
           TF_INT(verticalAccuracy, "verticalAccuracy: "),
           TF_INT(preferredPowerConsumption, "preferredPowerConsumption: "),
           TF_INT(interval, "interval: "), TF_INT(reportCriteria, "reportCriteria: "),
           TF_UINT(costAllowed, "costAllowed: "),
           TF_UINT(addressInfoRequired, "addressInfoRequired: "),
           TF_UINT(speedAndCourseRequired, "speedAndCourseRequired: "),
           TF_UINT(altitudeRequired, "altitudeRequired: "))
TRACE_PROC(LAPI_LogAbortLocationReq, AbortLocationReq, LAPI_ABORT_LOCATION_REQ, TF_PREFIX())
TRACE_HEADER_PROC(LAPI_LogAbortAllLocationReq, AbortAllLocationReq, LAPI_ABORT_ALL_LOCATION_REQ)
TRACE_PROC(LAPI_LogLastKnownLocationReq, LastKnownLocationReq, LAPI_LAST_KNOWN_LOCATION_REQ,
           TF_PREFIX())
TRACE_PROC(LAPI_LogGetGpsDbDataReq, GetGpsDbDataReq, LAPI_GET_GPS_DB_DATA_REQ, TF_PREFIX(),
           TF_UINT(fileId, "fileId: "))

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

TRACE_PROC(LAPI_LogSetGpsDbDataReq, SetGpsDbDataReq, LAPI_SET_GPS_DB_DATA_REQ, TF_PREFIX(),
           TF_INT(numFiles, "numFiles: "), TF_DB_FILES())
TRACE_PROC(LAPI_LogGetStatusReq, GetStatusReq, LAPI_GET_STATUS_REQ, TF_PREFIX())
TRACE_PROC(LAPI_LogLocationNotificationCfm, LocationNotificationCfm, LAPI_LOCATION_NOTIFICATION_CFM,
           TF_PAIR(), TF_INT(responseType, "responseType: "))
TRACE_PROC(LAPI_LogDistanceAzimuthReq, DistanceAzimuthReq, LAPI_DISTANCE_AZIMUTH_REQ, TF_PREFIX(),
           TF_DOUBLE(latitude1), TF_DOUBLE(longitude1), TF_DOUBLE(latitude2), TF_DOUBLE(longitude2),
           TF_INT(distanceOnly, "distanceOnly: "))
TRACE_PROC(LAPI_LogAddProximityReq, AddProximityReq, LAPI_ADD_PROXIMITY_REQ, TF_PREFIX(),
           TF_DOUBLE(latitude), TF_DOUBLE(longitude), TF_DOUBLE(altitude), TF_DOUBLE(radius))
TRACE_PROC(LAPI_LogRemoveProximityReq, RemoveProximityReq, LAPI_REMOVE_PROXIMITY_REQ, TF_PREFIX(),
           TF_INT(removeType, "removeType: "))

/* ------------------------------------------------------------------------ */
/* Server to client                                                          */
/* ------------------------------------------------------------------------ */

TRACE_PROC(LAPI_LogRegisterRsp, RegisterRsp, LAPI_REGISTER_RSP, TF_INT(globalId, "globalId: "))
TRACE_HEADER_PROC(LAPI_LogGetAsyncFdRsp, GetAsyncFdRsp, LAPI_GET_ASYNC_FD_RSP)
TRACE_HEADER_PROC(LAPI_LogUnregisterRsp, UnregisterRsp, LAPI_UNREGISTER_RSP)

int LAPI_LogGetLocationRsp(const uint8_t *pMsg, uint8_t side) {
    using T = GetLocationRsp;
    static constexpr TraceField kFields[] = {
        TF_PAIR(),
        TF_POSITION(),
        TF_INT(locationMethod, "locationMethod: "),
        TF_INT(cause, "cause: "),
        TF_UINT(ageOfFix, "ageOfFix: "),
    };
    LogText text;
    if (!BeginTraceFields<T, LAPI_GET_LOCATION_RSP>(pMsg, side, __func__, &text, kFields,
                                                    std::size(kFields))) {
        return -1;
    }
    uint16_t nmeaDataLength;
    memcpy(&nmeaDataLength, pMsg + offsetof(T, nmeaDataLength), sizeof(nmeaDataLength));
    text.Append("nmeaDataLength: ");
    text.AppendInt(nmeaDataLength);
    text.Append(", \n");
    text.AppendHex(pMsg + offsetof(T, nmeaDataLength), 2, side);

    /* The NMEA sentences, as text and in hex, never beyond the array. */
    int nmeaLen = Min(nmeaDataLength, LAPI_MAX_NMEA_LEN);
    const char *pNmea = reinterpret_cast<const char *>(pMsg + offsetof(T, nmeaData));
    text.Append("nmeaData: ");
    text.Append(pNmea, strnlen(pNmea, static_cast<size_t>(nmeaLen))); /* text stops at NUL */
    text.Append(", \n");
    text.Append("nmeaData: ");
    text.AppendHex(pMsg + offsetof(T, nmeaData), nmeaLen, side);

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
    end = lapi_fmt::Int(end, nmeaDataLength);
    *end++ = '\n';
    LAPI_LogStdout(plain, static_cast<size_t>(end - plain));
    gMemo.sideEffect = true;
    text.Append("nmea end\n");
    return Emit(text, side, __func__, __LINE__);
}

TRACE_PROC(LAPI_LogAbortLocationRsp, AbortLocationRsp, LAPI_ABORT_LOCATION_RSP, TF_PAIR(),
           TF_INT(result, "result: "))
TRACE_PROC(LAPI_LogTimeOutRsp, TimeOutRsp, LAPI_TIME_OUT_RSP, TF_PAIR())
TRACE_PROC(LAPI_LogInvalidRequestRsp, InvalidRequestRsp, LAPI_INVALID_REQUEST_RSP, TF_PAIR())
TRACE_PROC(LAPI_LogGetGpsDbDataRsp, GetGpsDbDataRsp, LAPI_GET_GPS_DB_DATA_RSP, TF_PAIR(),
           TF_INT(numFiles, "numFiles: "), TF_DB_FILES(), TF_INT(result, "result: "))
TRACE_PROC(LAPI_LogSetGpsDbDataRsp, SetGpsDbDataRsp, LAPI_SET_GPS_DB_DATA_RSP, TF_PAIR(),
           TF_INT(result, "result: "))

/* getStatusRsp and statusChangeInd: the six status fields (signalStatus and
 * iconStatus travel but are not traced). */
#define TF_STATUS()                                                                     \
    TF_PAIR(), TF_INT(userStatus, "userStatus: "), TF_INT(hwStatus, "hwStatus: "),      \
        TF_INT(fixStatus, "fixStatus: "), TF_INT(emergencyStatus, "emergencyStatus: "), \
        TF_I32_AT("fixResultStatus.status: ",                                           \
                  offsetof(T, fixResultStatus) + offsetof(FixResultStatus, status)),    \
        TF_I32_AT("fixResultStatus.cause: ",                                            \
                  offsetof(T, fixResultStatus) + offsetof(FixResultStatus, cause))

TRACE_PROC(LAPI_LogGetStatusRsp, GetStatusRsp, LAPI_GET_STATUS_RSP, TF_STATUS())
TRACE_PROC(LAPI_LogStatusChangeInd, StatusChangeInd, LAPI_STATUS_CHANGE_IND, TF_STATUS())

int LAPI_LogLocationNotificationInd(const uint8_t *pMsg, uint8_t side) {
    using T = LocationNotificationInd;
    static constexpr TraceField kFields[] = {
        TF_PAIR(),
        TF_INT(notificationType, "notificationType: "),
        TF_INT(locationType, "locationType: "),
        TF_INT(dataCodingSchema, "dataCodingSchema: "),
    };
    LogText text;
    if (!BeginTraceFields<T, LAPI_LOCATION_NOTIFICATION_IND>(pMsg, side, __func__, &text, kFields,
                                                             std::size(kFields))) {
        return -1;
    }
    uint8_t nameLength;
    uint8_t addrLength;
    memcpy(&nameLength, pMsg + offsetof(T, nameLength), sizeof(nameLength));
    memcpy(&addrLength, pMsg + offsetof(T, addrLength), sizeof(addrLength));
    text.Append("nameLength: ");
    text.AppendInt(nameLength);
    text.Append(", clientName: ");
    text.AppendHex(pMsg + offsetof(T, clientName), Min(nameLength, LAPI_CLIENT_NAME_LEN), side);
    text.Append("addrLength: ");
    text.AppendInt(addrLength);
    text.Append(", clientExternalAddr: ");
    text.AppendHex(pMsg + offsetof(T, clientExternalAddr), Min(addrLength, LAPI_CLIENT_ADDR_LEN),
                   side);
    return Emit(text, side, __func__, __LINE__);
}

TRACE_PROC(LAPI_LogNotificationStatusInd, NotificationStatusInd, LAPI_NOTIFICATION_STATUS_IND,
           TF_PAIR(), TF_INT(cause, "cause: "))
TRACE_PROC(LAPI_LogDistanceAzimuthRsp, DistanceAzimuthRsp, LAPI_DISTANCE_AZIMUTH_RSP, TF_PAIR(),
           TF_DOUBLE(distance), TF_DOUBLE(azimuth))
TRACE_PROC(LAPI_LogAddProximityRsp, AddProximityRsp, LAPI_ADD_PROXIMITY_RSP, TF_PAIR(),
           TF_INT(status, "status: "))
TRACE_PROC(LAPI_LogRemoveProximityRsp, RemoveProximityRsp, LAPI_REMOVE_PROXIMITY_RSP, TF_PAIR(),
           TF_INT(status, "status: "))
TRACE_PROC(LAPI_LogProximityHitInd, ProximityHitInd, LAPI_PROXIMITY_HIT_IND, TF_PAIR(),
           TF_POSITION(), TF_INT(locationMethod, "locationMethod: "),
           TF_UINT(ageOfFix, "ageOfFix: "))

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
