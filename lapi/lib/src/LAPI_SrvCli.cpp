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

#include <stdarg.h>
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

struct LogText {
    char buf[kLogLineSize];
    int len;
};

void Init(LogText *pText) {
    pText->buf[0] = '\0';
    pText->len = 0;
}

__attribute__((format(printf, 2, 3))) void Append(LogText *pText, const char *fmt, ...) {
    int room = kLogLineSize - pText->len;
    if (room <= 1) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(pText->buf + pText->len, static_cast<size_t>(room), fmt, ap);
    va_end(ap);
    if (n < 0) {
        pText->buf[pText->len] = '\0';
        return;
    }
    pText->len += n < room ? n : room - 1;
}

/* The raw bytes of a field in hex. A zero length goes to LAPI_FormatHexStr
 * all the same, so that its error line says the field was empty. */
void AppendHex(LogText *pText, const void *pData, int length, uint8_t side) {
    int room = kLogLineSize - pText->len;
    if (length > 0 && 2 * length + 5 > room) {
        return; /* would not fit: cut */
    }
    pText->len += LAPI_FormatHexStr(pData, length, pText->buf + pText->len, side);
}

/* Checks the identifier and the fixed body length of a traced message; the
 * error line names the trace procedure that refused it. */
int CheckMsg(const MsgHeader &h, uint16_t msgId, uint16_t msgLen, const char *name, uint8_t side,
             const char *func, int line) {
    if (h.msgId != msgId) {
        LAPI_LogLine(side, 1, __FILE__, line, func,
                     "pMsgHeader->msgId : %d is not expected, pid : %d!", h.msgId,
                     static_cast<int>(h.pid));
        return -1;
    }
    if (h.msgLen != msgLen) {
        LAPI_LogLine(side, 1, __FILE__, line, func, "Wrong %s msg length: %d, pid is: %d!", name,
                     h.msgLen, static_cast<int>(h.pid));
        return -1;
    }
    return 0;
}

/* Writes the traced text as one trace line of the procedure. */
int Emit(const LogText &text, uint8_t side, const char *func, int line) {
    LAPI_LogLine(side, 0, __FILE__, line, func, "%s", text.buf);
    return text.len;
}

/* Starts the line: "S->C timeOutRsp " and the header. */
void Begin(LogText *pText, const char *prefix, const MsgHeader &h, uint8_t side) {
    Init(pText);
    Append(pText, "%s", prefix);
    pText->len += LAPI_LogApMsgHeader(&h, pText->buf + pText->len, side);
}

int Min(int a, int b) {
    return a < b ? a : b;
}

}  // namespace

/* Copies the message into a record of its type, checks it and starts the
 * line. Used at the top of every trace procedure. */
#define LOG_BEGIN(Type, msgIdValue, msgLenValue, name, prefix)                                   \
    Type m;                                                                                      \
    memcpy(&m, pMsg, sizeof(m));                                                                 \
    if (CheckMsg(m.header, (msgIdValue), (msgLenValue), (name), side, __func__, __LINE__) < 0) { \
        return -1;                                                                               \
    }                                                                                            \
    LogText text;                                                                                \
    Begin(&text, (prefix), m.header, side)

/* A field: its label and value, then its raw bytes in hex. */
#define LOG_FIELD(Type, member, fmt, value)                                                     \
    do {                                                                                        \
        Append(&text, fmt, value);                                                              \
        AppendHex(&text, pMsg + offsetof(Type, member), static_cast<int>(sizeof(Type::member)), \
                  side);                                                                        \
    } while (0)

#define LOG_DOUBLE(Type, member) LOG_FIELD(Type, member, #member ": %.30e, ", m.member)

/* "sessionId: %d, transactionId: %d, " with the two bytes in hex. */
#define LOG_SERVER_PAIR(Type)                                                              \
    do {                                                                                   \
        Append(&text, "sessionId: %d, transactionId: %d, ", m.sessionId, m.transactionId); \
        AppendHex(&text, pMsg + offsetof(Type, sessionId), 2, side);                       \
    } while (0)

/* "mode: %d, sessionId: %d, transactionId: %d, " with the four bytes in hex. */
#define LOG_REQ_PREFIX(Type)                                                               \
    do {                                                                                   \
        Append(&text, "mode: %d, sessionId: %d, transactionId: %d, ", m.mode, m.sessionId, \
               m.transactionId);                                                           \
        AppendHex(&text, pMsg + offsetof(Type, mode), 4, side);                            \
    } while (0)

#define LOG_END() return Emit(text, side, __func__, __LINE__)

/* ------------------------------------------------------------------------ */
/* Hex helpers                                                               */
/* ------------------------------------------------------------------------ */

void LAPI_DebugHex(const void *pData, int length, uint8_t side) {
    if (pData == nullptr || length <= 0) {
        return;
    }
    static const char kDigits[] = "0123456789abcdef";
    const uint8_t *p = static_cast<const uint8_t *>(pData);
    char line[kDebugHexBytesPerLine * 3 + 1];
    while (length > 0) {
        int n = Min(length, kDebugHexBytesPerLine);
        for (int i = 0; i < n; i++) {
            line[3 * i] = kDigits[p[i] >> 4];
            line[3 * i + 1] = kDigits[p[i] & 0x0f];
            line[3 * i + 2] = ' ';
        }
        line[3 * n] = '\0';
        LAPI_TRACE_SIDE(side, "%s", line);
        p += n;
        length -= n;
    }
}

int LAPI_FormatHexStr(const void *pData, int length, char *pBuf, uint8_t side) {
    if (pData == nullptr || pBuf == nullptr || length <= 0) {
        LAPI_ERR_SIDE(side, "(pData == NULL) || (pBuf == NULL) || (length <= 0)!");
        return 0;
    }
    static const char kDigits[] = "0123456789abcdef";
    const uint8_t *p = static_cast<const uint8_t *>(pData);
    char *out = pBuf;
    *out++ = '0';
    *out++ = 'x';
    for (int i = 0; i < length; i++) {
        *out++ = kDigits[p[i] >> 4];
        *out++ = kDigits[p[i] & 0x0f];
    }
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
    /* At most 45 characters: the callers keep that much room. */
    return sprintf(pBuf, "pid: %d, msgId: %d, msgLen: %d, ", static_cast<int>(h.pid), h.msgId,
                   h.msgLen);
}

/* ------------------------------------------------------------------------ */
/* Client to server                                                          */
/* ------------------------------------------------------------------------ */

int LAPI_LogRegisterReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RegisterReq, LAPI_REGISTER_REQ, LAPI_REGISTER_REQ_LEN, "registerReq",
              "C->S registerReq ");
    LOG_FIELD(RegisterReq, service, "service: %u, ", m.service);
    LOG_END();
}

int LAPI_LogGetAsyncFdReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetAsyncFdReq, LAPI_GET_ASYNC_FD_REQ, LAPI_GET_ASYNC_FD_REQ_LEN, "getAsyncFdReq",
              "C->S getAsyncFdReq ");
    LOG_FIELD(GetAsyncFdReq, globalId, "globalId: %d, ", static_cast<int>(m.globalId));
    LOG_END();
}

int LAPI_LogUnregisterReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(UnregisterReq, LAPI_UNREGISTER_REQ, LAPI_UNREGISTER_REQ_LEN, "unregisterReq",
              "C->S unregisterReq ");
    LOG_END();
}

int LAPI_LogGetLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetLocationReq, LAPI_GET_LOCATION_REQ, LAPI_GET_LOCATION_REQ_LEN, "getLocationReq",
              "C->S getLocationReq ");
    LOG_REQ_PREFIX(GetLocationReq);
    LOG_FIELD(GetLocationReq, responseTime, "responseTime: %d, ", static_cast<int>(m.responseTime));
    LOG_FIELD(GetLocationReq, horizontalAccuracy, "horizontalAccuracy: %d, ",
              static_cast<int>(m.horizontalAccuracy));
    LOG_FIELD(GetLocationReq, verticalAccuracy, "verticalAccuracy: %d, ",
              static_cast<int>(m.verticalAccuracy));
    LOG_FIELD(GetLocationReq, preferredPowerConsumption, "preferredPowerConsumption: %d, ",
              static_cast<int>(m.preferredPowerConsumption));
    LOG_FIELD(GetLocationReq, interval, "interval: %d, ", static_cast<int>(m.interval));
    LOG_FIELD(GetLocationReq, reportCriteria, "reportCriteria: %d, ",
              static_cast<int>(m.reportCriteria));
    LOG_FIELD(GetLocationReq, costAllowed, "costAllowed: %u, ", m.costAllowed);
    LOG_FIELD(GetLocationReq, addressInfoRequired, "addressInfoRequired: %u, ",
              m.addressInfoRequired);
    LOG_FIELD(GetLocationReq, speedAndCourseRequired, "speedAndCourseRequired: %u, ",
              m.speedAndCourseRequired);
    LOG_FIELD(GetLocationReq, altitudeRequired, "altitudeRequired: %u, ", m.altitudeRequired);
    LOG_END();
}

int LAPI_LogAbortLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AbortLocationReq, LAPI_ABORT_LOCATION_REQ, LAPI_ABORT_LOCATION_REQ_LEN,
              "abortLocationReq", "C->S abortLocationReq ");
    LOG_REQ_PREFIX(AbortLocationReq);
    LOG_END();
}

int LAPI_LogAbortAllLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AbortAllLocationReq, LAPI_ABORT_ALL_LOCATION_REQ, LAPI_ABORT_ALL_LOCATION_REQ_LEN,
              "abortAllLocationReq", "C->S abortAllLocationReq ");
    LOG_END();
}

int LAPI_LogLastKnownLocationReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(LastKnownLocationReq, LAPI_LAST_KNOWN_LOCATION_REQ, LAPI_LAST_KNOWN_LOCATION_REQ_LEN,
              "lastKnownLocationReq", "C->S lastKnownLocationReq ");
    LOG_REQ_PREFIX(LastKnownLocationReq);
    LOG_END();
}

int LAPI_LogGetGpsDbDataReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetGpsDbDataReq, LAPI_GET_GPS_DB_DATA_REQ, LAPI_GET_GPS_DB_DATA_REQ_LEN,
              "getGpsDbDataReq", "C->S getGpsDbDataReq ");
    LOG_REQ_PREFIX(GetGpsDbDataReq);
    LOG_FIELD(GetGpsDbDataReq, fileId, "fileId: %u, ", m.fileId);
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
        Append(pText, "dbFile[%d]: fileId: %d, ", i, static_cast<int>(f.fileId));
        AppendHex(pText, pFile + offsetof(DbFile, fileId), 4, side);
        Append(pText, "length: %d, ", f.length);
        AppendHex(pText, pFile + offsetof(DbFile, length), 2, side);
        Append(pText, "data: ");
        AppendHex(pText, pFile + offsetof(DbFile, data), Min(f.length, LAPI_DB_FILE_DATA_LEN),
                  side);
    }
}

}  // namespace

int LAPI_LogSetGpsDbDataReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(SetGpsDbDataReq, LAPI_SET_GPS_DB_DATA_REQ, LAPI_SET_GPS_DB_DATA_REQ_LEN,
              "setGpsDbDataReq", "C->S setGpsDbDataReq ");
    LOG_REQ_PREFIX(SetGpsDbDataReq);
    LOG_FIELD(SetGpsDbDataReq, numFiles, "numFiles: %d, ", m.numFiles);
    AppendDbFiles(&text, pMsg + offsetof(SetGpsDbDataReq, dbFile), m.numFiles, side);
    LOG_END();
}

int LAPI_LogGetStatusReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetStatusReq, LAPI_GET_STATUS_REQ, LAPI_GET_STATUS_REQ_LEN, "getStatusReq",
              "C->S getStatusReq ");
    LOG_REQ_PREFIX(GetStatusReq);
    LOG_END();
}

int LAPI_LogLocationNotificationCfm(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(LocationNotificationCfm, LAPI_LOCATION_NOTIFICATION_CFM,
              LAPI_LOCATION_NOTIFICATION_CFM_LEN, "locationNotificationCfm",
              "C->S locationNotificationCfm ");
    LOG_SERVER_PAIR(LocationNotificationCfm);
    LOG_FIELD(LocationNotificationCfm, responseType, "responseType: %d, ",
              static_cast<int>(m.responseType));
    LOG_END();
}

int LAPI_LogDistanceAzimuthReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(DistanceAzimuthReq, LAPI_DISTANCE_AZIMUTH_REQ, LAPI_DISTANCE_AZIMUTH_REQ_LEN,
              "distanceAzimuthReq", "C->S distanceAzimuthReq ");
    LOG_REQ_PREFIX(DistanceAzimuthReq);
    LOG_DOUBLE(DistanceAzimuthReq, latitude1);
    LOG_DOUBLE(DistanceAzimuthReq, longitude1);
    LOG_DOUBLE(DistanceAzimuthReq, latitude2);
    LOG_DOUBLE(DistanceAzimuthReq, longitude2);
    LOG_FIELD(DistanceAzimuthReq, distanceOnly, "distanceOnly: %d, ", m.distanceOnly);
    LOG_END();
}

int LAPI_LogAddProximityReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AddProximityReq, LAPI_ADD_PROXIMITY_REQ, LAPI_ADD_PROXIMITY_REQ_LEN,
              "addProximityReq", "C->S addProximityReq ");
    LOG_REQ_PREFIX(AddProximityReq);
    LOG_DOUBLE(AddProximityReq, latitude);
    LOG_DOUBLE(AddProximityReq, longitude);
    LOG_DOUBLE(AddProximityReq, altitude);
    LOG_DOUBLE(AddProximityReq, radius);
    LOG_END();
}

int LAPI_LogRemoveProximityReq(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RemoveProximityReq, LAPI_REMOVE_PROXIMITY_REQ, LAPI_REMOVE_PROXIMITY_REQ_LEN,
              "removeProximityReq", "C->S removeProximityReq ");
    LOG_REQ_PREFIX(RemoveProximityReq);
    LOG_FIELD(RemoveProximityReq, removeType, "removeType: %d, ", static_cast<int>(m.removeType));
    LOG_END();
}

/* ------------------------------------------------------------------------ */
/* Server to client                                                          */
/* ------------------------------------------------------------------------ */

int LAPI_LogRegisterRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RegisterRsp, LAPI_REGISTER_RSP, LAPI_REGISTER_RSP_LEN, "registerRsp",
              "S->C registerRsp ");
    LOG_FIELD(RegisterRsp, globalId, "globalId: %d, ", static_cast<int>(m.globalId));
    LOG_END();
}

int LAPI_LogGetAsyncFdRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetAsyncFdRsp, LAPI_GET_ASYNC_FD_RSP, LAPI_GET_ASYNC_FD_RSP_LEN, "getAsyncFdRsp",
              "S->C getAsyncFdRsp ");
    LOG_END();
}

int LAPI_LogUnregisterRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(UnregisterRsp, LAPI_UNREGISTER_RSP, LAPI_UNREGISTER_RSP_LEN, "unregisterRsp",
              "S->C unregisterRsp ");
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
    LOG_BEGIN(GetLocationRsp, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN, "getLocationRsp",
              "S->C getLocationRsp ");
    LOG_SERVER_PAIR(GetLocationRsp);
    LOG_POSITION(GetLocationRsp);
    LOG_FIELD(GetLocationRsp, locationMethod, "locationMethod: %d, ", m.locationMethod);
    LOG_FIELD(GetLocationRsp, cause, "cause: %d, ", m.cause);
    LOG_FIELD(GetLocationRsp, ageOfFix, "ageOfFix: %u, ", static_cast<uint32_t>(m.ageOfFix));
    LOG_FIELD(GetLocationRsp, nmeaDataLength, "nmeaDataLength: %d, \n", m.nmeaDataLength);

    /* The NMEA sentences, as text and in hex, never beyond the array. */
    int nmeaLen = Min(m.nmeaDataLength, LAPI_MAX_NMEA_LEN);
    Append(&text, "nmeaData: %.*s, \n", nmeaLen,
           reinterpret_cast<const char *>(pMsg + offsetof(GetLocationRsp, nmeaData)));
    Append(&text, "nmeaData: ");
    AppendHex(&text, pMsg + offsetof(GetLocationRsp, nmeaData), nmeaLen, side);

    char plain[256];
    int n = snprintf(plain, sizeof(plain), "\n %s, %s, pMsg->nmeaDataLength:%d\n",
                     LAPI_LogBaseName(__FILE__), __func__, m.nmeaDataLength);
    if (n > 0) {
        fwrite(plain, 1, Min(n, static_cast<int>(sizeof(plain)) - 1), stdout);
        fflush(stdout);
    }
    Append(&text, "nmea end\n");
    LOG_END();
}

int LAPI_LogAbortLocationRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AbortLocationRsp, LAPI_ABORT_LOCATION_RSP, LAPI_ABORT_LOCATION_RSP_LEN,
              "abortLocationRsp", "S->C abortLocationRsp ");
    LOG_SERVER_PAIR(AbortLocationRsp);
    LOG_FIELD(AbortLocationRsp, result, "result: %d, ", m.result);
    LOG_END();
}

int LAPI_LogTimeOutRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(TimeOutRsp, LAPI_TIME_OUT_RSP, LAPI_TIME_OUT_RSP_LEN, "timeOutRsp",
              "S->C timeOutRsp ");
    LOG_SERVER_PAIR(TimeOutRsp);
    LOG_END();
}

int LAPI_LogInvalidRequestRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(InvalidRequestRsp, LAPI_INVALID_REQUEST_RSP, LAPI_INVALID_REQUEST_RSP_LEN,
              "invalidRequestRsp", "S->C invalidRequestRsp ");
    LOG_SERVER_PAIR(InvalidRequestRsp);
    LOG_END();
}

int LAPI_LogGetGpsDbDataRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetGpsDbDataRsp, LAPI_GET_GPS_DB_DATA_RSP, LAPI_GET_GPS_DB_DATA_RSP_LEN,
              "getGpsDbDataRsp", "S->C getGpsDbDataRsp ");
    LOG_SERVER_PAIR(GetGpsDbDataRsp);
    LOG_FIELD(GetGpsDbDataRsp, numFiles, "numFiles: %d, ", m.numFiles);
    AppendDbFiles(&text, pMsg + offsetof(GetGpsDbDataRsp, dbFile), m.numFiles, side);
    LOG_FIELD(GetGpsDbDataRsp, result, "result: %d, ", m.result);
    LOG_END();
}

int LAPI_LogSetGpsDbDataRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(SetGpsDbDataRsp, LAPI_SET_GPS_DB_DATA_RSP, LAPI_SET_GPS_DB_DATA_RSP_LEN,
              "setGpsDbDataRsp", "S->C setGpsDbDataRsp ");
    LOG_SERVER_PAIR(SetGpsDbDataRsp);
    LOG_FIELD(SetGpsDbDataRsp, result, "result: %d, ", m.result);
    LOG_END();
}

/* getStatusRsp and statusChangeInd: the six status fields (signalStatus and
 * iconStatus travel but are not traced). */
#define LOG_STATUS_FIELDS()                                                                   \
    do {                                                                                      \
        LOG_SERVER_PAIR(GetStatusRsp);                                                        \
        LOG_FIELD(GetStatusRsp, userStatus, "userStatus: %d, ", m.userStatus);                \
        LOG_FIELD(GetStatusRsp, hwStatus, "hwStatus: %d, ", m.hwStatus);                      \
        LOG_FIELD(GetStatusRsp, fixStatus, "fixStatus: %d, ", m.fixStatus);                   \
        LOG_FIELD(GetStatusRsp, emergencyStatus, "emergencyStatus: %d, ", m.emergencyStatus); \
        Append(&text, "fixResultStatus.status: %d, ", m.fixResultStatus.status);              \
        AppendHex(&text, pMsg + offsetof(GetStatusRsp, fixResultStatus), 4, side);            \
        Append(&text, "fixResultStatus.cause: %d, ", m.fixResultStatus.cause);                \
        AppendHex(&text, pMsg + offsetof(GetStatusRsp, fixResultStatus) + 4, 4, side);        \
    } while (0)

int LAPI_LogGetStatusRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(GetStatusRsp, LAPI_GET_STATUS_RSP, LAPI_GET_STATUS_RSP_LEN, "getStatusRsp",
              "S->C getStatusRsp ");
    LOG_STATUS_FIELDS();
    LOG_END();
}

int LAPI_LogStatusChangeInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(StatusChangeInd, LAPI_STATUS_CHANGE_IND, LAPI_STATUS_CHANGE_IND_LEN,
              "statusChangeInd", "S->C statusChangeInd ");
    LOG_STATUS_FIELDS();
    LOG_END();
}

int LAPI_LogLocationNotificationInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(LocationNotificationInd, LAPI_LOCATION_NOTIFICATION_IND,
              LAPI_LOCATION_NOTIFICATION_IND_LEN, "locationNotificationInd",
              "S->C locationNotificationInd ");
    LOG_SERVER_PAIR(LocationNotificationInd);
    LOG_FIELD(LocationNotificationInd, notificationType, "notificationType: %d, ",
              m.notificationType);
    LOG_FIELD(LocationNotificationInd, locationType, "locationType: %d, ", m.locationType);
    LOG_FIELD(LocationNotificationInd, dataCodingSchema, "dataCodingSchema: %d, ",
              m.dataCodingSchema);
    Append(&text, "nameLength: %d, clientName: ", m.nameLength);
    AppendHex(&text, pMsg + offsetof(LocationNotificationInd, clientName),
              Min(m.nameLength, LAPI_CLIENT_NAME_LEN), side);
    Append(&text, "addrLength: %d, clientExternalAddr: ", m.addrLength);
    AppendHex(&text, pMsg + offsetof(LocationNotificationInd, clientExternalAddr),
              Min(m.addrLength, LAPI_CLIENT_ADDR_LEN), side);
    LOG_END();
}

int LAPI_LogNotificationStatusInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(NotificationStatusInd, LAPI_NOTIFICATION_STATUS_IND, LAPI_NOTIFICATION_STATUS_IND_LEN,
              "notificationStatusInd", "S->C notificationStatusInd ");
    LOG_SERVER_PAIR(NotificationStatusInd);
    LOG_FIELD(NotificationStatusInd, cause, "cause: %d, ", m.cause);
    LOG_END();
}

int LAPI_LogDistanceAzimuthRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(DistanceAzimuthRsp, LAPI_DISTANCE_AZIMUTH_RSP, LAPI_DISTANCE_AZIMUTH_RSP_LEN,
              "distanceAzimuthRsp", "S->C distanceAzimuthRsp ");
    LOG_SERVER_PAIR(DistanceAzimuthRsp);
    LOG_DOUBLE(DistanceAzimuthRsp, distance);
    LOG_DOUBLE(DistanceAzimuthRsp, azimuth);
    LOG_END();
}

int LAPI_LogAddProximityRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(AddProximityRsp, LAPI_ADD_PROXIMITY_RSP, LAPI_ADD_PROXIMITY_RSP_LEN,
              "addProximityRsp", "S->C addProximityRsp ");
    LOG_SERVER_PAIR(AddProximityRsp);
    LOG_FIELD(AddProximityRsp, status, "status: %d, ", m.status);
    LOG_END();
}

int LAPI_LogRemoveProximityRsp(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(RemoveProximityRsp, LAPI_REMOVE_PROXIMITY_RSP, LAPI_REMOVE_PROXIMITY_RSP_LEN,
              "removeProximityRsp", "S->C removeProximityRsp ");
    LOG_SERVER_PAIR(RemoveProximityRsp);
    LOG_FIELD(RemoveProximityRsp, status, "status: %d, ", m.status);
    LOG_END();
}

int LAPI_LogProximityHitInd(const uint8_t *pMsg, uint8_t side) {
    LOG_BEGIN(ProximityHitInd, LAPI_PROXIMITY_HIT_IND, LAPI_PROXIMITY_HIT_IND_LEN,
              "proximityHitInd", "S->C proximityHitInd ");
    LOG_SERVER_PAIR(ProximityHitInd);
    LOG_POSITION(ProximityHitInd);
    LOG_FIELD(ProximityHitInd, locationMethod, "locationMethod: %d, ", m.locationMethod);
    LOG_FIELD(ProximityHitInd, ageOfFix, "ageOfFix: %u, ", m.ageOfFix);
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
    proc(buf, side);
}
