/*
 * Messages between applications and the location server, on the local
 * stream socket. Every message is a MsgHeader followed by a fixed body;
 * msgLen counts the body only. Integers and doubles are in host order.
 *
 * The structures are packed and C-compatible: the client library and C
 * applications include this header as it is.
 */
#ifndef LAPI_MSG_H
#define LAPI_MSG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Message identifiers: server to client 0..13, client to server 100..116
 * (101, 103 and 105 travel server to client inside the client range). */
enum LAPI_MsgId {
    LAPI_GET_LOCATION_RSP = 0,
    LAPI_ABORT_LOCATION_RSP = 1,
    LAPI_TIME_OUT_RSP = 2,
    LAPI_INVALID_REQUEST_RSP = 3,
    LAPI_GET_GPS_DB_DATA_RSP = 4,
    LAPI_SET_GPS_DB_DATA_RSP = 5,
    LAPI_GET_STATUS_RSP = 6,
    LAPI_STATUS_CHANGE_IND = 7,
    LAPI_LOCATION_NOTIFICATION_IND = 8,
    LAPI_NOTIFICATION_STATUS_IND = 9,
    LAPI_DISTANCE_AZIMUTH_RSP = 10,
    LAPI_ADD_PROXIMITY_RSP = 11,
    LAPI_REMOVE_PROXIMITY_RSP = 12,
    LAPI_PROXIMITY_HIT_IND = 13,
    LAPI_SRV_MSG_COUNT = 14,

    LAPI_REGISTER_REQ = 100,
    LAPI_REGISTER_RSP = 101,
    LAPI_GET_ASYNC_FD_REQ = 102,
    LAPI_GET_ASYNC_FD_RSP = 103,
    LAPI_UNREGISTER_REQ = 104,
    LAPI_UNREGISTER_RSP = 105,
    LAPI_GET_LOCATION_REQ = 106,
    LAPI_ABORT_LOCATION_REQ = 107,
    LAPI_ABORT_ALL_LOCATION_REQ = 108,
    LAPI_LAST_KNOWN_LOCATION_REQ = 109,
    LAPI_GET_GPS_DB_DATA_REQ = 110,
    LAPI_SET_GPS_DB_DATA_REQ = 111,
    LAPI_GET_STATUS_REQ = 112,
    LAPI_LOCATION_NOTIFICATION_CFM = 113,
    LAPI_DISTANCE_AZIMUTH_REQ = 114,
    LAPI_ADD_PROXIMITY_REQ = 115,
    LAPI_REMOVE_PROXIMITY_REQ = 116,
    LAPI_CLI_MSG_BASE = 100,
    LAPI_CLI_MSG_COUNT = 17,
};

/* Body lengths (msgLen) the server demands and sends. */
enum LAPI_MsgLen {
    LAPI_GET_LOCATION_RSP_LEN = 1014,
    LAPI_ABORT_LOCATION_RSP_LEN = 6,
    LAPI_TIME_OUT_RSP_LEN = 2,
    LAPI_INVALID_REQUEST_RSP_LEN = 2,
    LAPI_GET_GPS_DB_DATA_RSP_LEN = 228,
    LAPI_SET_GPS_DB_DATA_RSP_LEN = 6,
    LAPI_GET_STATUS_RSP_LEN = 34,
    LAPI_STATUS_CHANGE_IND_LEN = 34,
    LAPI_LOCATION_NOTIFICATION_IND_LEN = 303,
    LAPI_NOTIFICATION_STATUS_IND_LEN = 6,
    LAPI_DISTANCE_AZIMUTH_RSP_LEN = 18,
    LAPI_ADD_PROXIMITY_RSP_LEN = 6,
    LAPI_REMOVE_PROXIMITY_RSP_LEN = 6,
    LAPI_PROXIMITY_HIT_IND_LEN = 98,
    LAPI_REGISTER_REQ_LEN = 4,
    LAPI_REGISTER_RSP_LEN = 4,
    LAPI_GET_ASYNC_FD_REQ_LEN = 4,
    LAPI_GET_ASYNC_FD_RSP_LEN = 0,
    LAPI_UNREGISTER_REQ_LEN = 0,
    LAPI_UNREGISTER_RSP_LEN = 0,
    LAPI_GET_LOCATION_REQ_LEN = 33,
    LAPI_ABORT_LOCATION_REQ_LEN = 4,
    LAPI_ABORT_ALL_LOCATION_REQ_LEN = 0,
    LAPI_LAST_KNOWN_LOCATION_REQ_LEN = 4,
    LAPI_GET_GPS_DB_DATA_REQ_LEN = 8,
    LAPI_SET_GPS_DB_DATA_REQ_LEN = 226,
    LAPI_GET_STATUS_REQ_LEN = 4,
    LAPI_LOCATION_NOTIFICATION_CFM_LEN = 6,
    LAPI_DISTANCE_AZIMUTH_REQ_LEN = 37,
    LAPI_ADD_PROXIMITY_REQ_LEN = 36,
    LAPI_REMOVE_PROXIMITY_REQ_LEN = 8,
};

#define LAPI_MSG_HEADER_LEN 8
#define LAPI_MAX_DB_FILES 22
#define LAPI_DB_FILE_DATA_LEN 4
#define LAPI_MAX_NMEA_LEN 906
#define LAPI_CLIENT_NAME_LEN 145
#define LAPI_CLIENT_ADDR_LEN 145
#define LAPI_MODE_SYNC 1            /* mode: answers on the synchronous connection */
#define LAPI_REPORT_PERIODIC 1      /* reportCriteria: periodic reports until aborted */
#define LAPI_REMOVE_ALL_PROXIMITY 1 /* removeType: remove every proximity area */

#pragma pack(push, 1)

typedef struct MsgHeader {
    uint32_t pid; /* sender's process id; 0 in server messages */
    uint16_t msgId;
    uint16_t msgLen; /* body bytes after the header */
} MsgHeader;

/* The request prefix shared by most client requests. */
typedef struct ReqPrefix {
    uint16_t mode; /* 1 = answers on the synchronous connection */
    uint8_t sessionId;
    uint8_t transactionId;
} ReqPrefix;

typedef struct DbFile {
    uint32_t fileId;
    uint16_t length;
    uint8_t data[LAPI_DB_FILE_DATA_LEN];
} DbFile;

/* ---- client to server ---- */

typedef struct RegisterReq {
    MsgHeader header;
    uint32_t service;
} RegisterReq;

typedef struct GetAsyncFdReq {
    MsgHeader header;
    uint32_t globalId;
} GetAsyncFdReq;

typedef struct UnregisterReq {
    MsgHeader header;
} UnregisterReq;

typedef struct GetLocationReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    uint32_t responseTime; /* milliseconds */
    uint32_t horizontalAccuracy;
    uint32_t verticalAccuracy;
    uint32_t preferredPowerConsumption;
    uint32_t interval;
    uint32_t reportCriteria; /* 1 = periodic */
    uint8_t costAllowed;
    uint8_t addressInfoRequired;
    uint8_t speedAndCourseRequired;
    uint8_t altitudeRequired;
    uint8_t nmeaRequired;
} GetLocationReq;

typedef struct AbortLocationReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
} AbortLocationReq;

typedef struct AbortAllLocationReq {
    MsgHeader header;
} AbortAllLocationReq;

typedef struct LastKnownLocationReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
} LastKnownLocationReq;

typedef struct GetGpsDbDataReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    uint32_t fileId;
} GetGpsDbDataReq;

typedef struct SetGpsDbDataReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    uint16_t numFiles;
    DbFile dbFile[LAPI_MAX_DB_FILES];
} SetGpsDbDataReq;

typedef struct GetStatusReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
} GetStatusReq;

typedef struct LocationNotificationCfm {
    MsgHeader header;
    uint8_t sessionId; /* the BP's pair from locationNotificationInd */
    uint8_t transactionId;
    uint32_t responseType;
} LocationNotificationCfm;

typedef struct DistanceAzimuthReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    double latitude1;
    double longitude1;
    double latitude2;
    double longitude2;
    uint8_t distanceOnly;
} DistanceAzimuthReq;

typedef struct AddProximityReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    double latitude;
    double longitude;
    double altitude;
    double radius;
} AddProximityReq;

typedef struct RemoveProximityReq {
    MsgHeader header;
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    uint32_t removeType; /* 1 = remove all */
} RemoveProximityReq;

/* ---- server to client ---- */

typedef struct RegisterRsp {
    MsgHeader header;
    uint32_t globalId;
} RegisterRsp;

typedef struct GetAsyncFdRsp {
    MsgHeader header;
} GetAsyncFdRsp;

typedef struct UnregisterRsp {
    MsgHeader header;
} UnregisterRsp;

typedef struct TimeOutRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
} TimeOutRsp;

typedef struct InvalidRequestRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
} InvalidRequestRsp;

typedef struct AbortLocationRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    int32_t result;
} AbortLocationRsp;

typedef struct SetGpsDbDataRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    int32_t result;
} SetGpsDbDataRsp;

typedef struct AddProximityRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    int32_t status;
} AddProximityRsp;

typedef struct RemoveProximityRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    int32_t status;
} RemoveProximityRsp;

typedef struct NotificationStatusInd {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    int32_t cause;
} NotificationStatusInd;

typedef struct DistanceAzimuthRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    double distance;
    double azimuth;
} DistanceAzimuthRsp;

typedef struct FixResultStatus {
    int32_t status;
    int32_t cause;
} FixResultStatus;

/* getStatusRsp and statusChangeInd share this body. */
typedef struct GetStatusRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    int32_t userStatus;
    int32_t hwStatus;
    int32_t fixStatus;
    int32_t emergencyStatus;
    FixResultStatus fixResultStatus;
    int32_t signalStatus;
    int32_t iconStatus;
} GetStatusRsp;
typedef GetStatusRsp StatusChangeInd;

typedef struct GetLocationRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    double longitude;
    double latitude;
    double latLonAccuracy;
    double timeStamp;
    double altitude;
    double speed;
    double travelDirection;
    double pointingDirection;
    double horizontalAccuracy;
    double verticalAccuracy;
    double course;
    int32_t locationMethod;
    int32_t cause;
    uint64_t ageOfFix;
    uint16_t nmeaDataLength; /* at most LAPI_MAX_NMEA_LEN */
    uint8_t nmeaData[LAPI_MAX_NMEA_LEN];
} GetLocationRsp;

typedef struct ProximityHitInd {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    double longitude;
    double latitude;
    double latLonAccuracy;
    double timeStamp;
    double altitude;
    double speed;
    double travelDirection;
    double pointingDirection;
    double horizontalAccuracy;
    double verticalAccuracy;
    double course;
    int32_t locationMethod;
    uint32_t ageOfFix;
} ProximityHitInd;

typedef struct GetGpsDbDataRsp {
    MsgHeader header;
    uint8_t sessionId;
    uint8_t transactionId;
    uint16_t numFiles;
    DbFile dbFile[LAPI_MAX_DB_FILES];
    int32_t result;
} GetGpsDbDataRsp;

typedef struct LocationNotificationInd {
    MsgHeader header;
    uint8_t sessionId; /* the BP's pair, returned in locationNotificationCfm */
    uint8_t transactionId;
    int32_t notificationType;
    int32_t locationType;
    uint8_t dataCodingSchema;
    uint8_t nameLength; /* bytes; even, at most 143 */
    uint8_t clientName[LAPI_CLIENT_NAME_LEN];
    uint8_t addrLength; /* at most 144 */
    uint8_t clientExternalAddr[LAPI_CLIENT_ADDR_LEN];
} LocationNotificationInd;

#pragma pack(pop)

/* The wire sizes are the protocol: a change here breaks every client. */
#define LAPI_MSG_SIZE_CHECK(type, body) \
    _Static_assert(sizeof(type) == LAPI_MSG_HEADER_LEN + (body), #type " has the wrong size")
#ifdef __cplusplus
#undef LAPI_MSG_SIZE_CHECK
#define LAPI_MSG_SIZE_CHECK(type, body) \
    static_assert(sizeof(type) == LAPI_MSG_HEADER_LEN + (body), #type " has the wrong size")
#endif

LAPI_MSG_SIZE_CHECK(MsgHeader, 0);
/* The parts that several messages share. */
#ifdef __cplusplus
#define LAPI_MSG_PART_SIZE_CHECK(type, size) \
    static_assert(sizeof(type) == (size), #type " has the wrong size")
#else
#define LAPI_MSG_PART_SIZE_CHECK(type, size) \
    _Static_assert(sizeof(type) == (size), #type " has the wrong size")
#endif
LAPI_MSG_PART_SIZE_CHECK(ReqPrefix, 4);
LAPI_MSG_PART_SIZE_CHECK(DbFile, 10);
LAPI_MSG_PART_SIZE_CHECK(FixResultStatus, 8);
LAPI_MSG_SIZE_CHECK(RegisterReq, LAPI_REGISTER_REQ_LEN);
LAPI_MSG_SIZE_CHECK(GetAsyncFdReq, LAPI_GET_ASYNC_FD_REQ_LEN);
LAPI_MSG_SIZE_CHECK(UnregisterReq, LAPI_UNREGISTER_REQ_LEN);
LAPI_MSG_SIZE_CHECK(GetLocationReq, LAPI_GET_LOCATION_REQ_LEN);
LAPI_MSG_SIZE_CHECK(AbortLocationReq, LAPI_ABORT_LOCATION_REQ_LEN);
LAPI_MSG_SIZE_CHECK(AbortAllLocationReq, LAPI_ABORT_ALL_LOCATION_REQ_LEN);
LAPI_MSG_SIZE_CHECK(LastKnownLocationReq, LAPI_LAST_KNOWN_LOCATION_REQ_LEN);
LAPI_MSG_SIZE_CHECK(GetGpsDbDataReq, LAPI_GET_GPS_DB_DATA_REQ_LEN);
LAPI_MSG_SIZE_CHECK(SetGpsDbDataReq, LAPI_SET_GPS_DB_DATA_REQ_LEN);
LAPI_MSG_SIZE_CHECK(GetStatusReq, LAPI_GET_STATUS_REQ_LEN);
LAPI_MSG_SIZE_CHECK(LocationNotificationCfm, LAPI_LOCATION_NOTIFICATION_CFM_LEN);
LAPI_MSG_SIZE_CHECK(DistanceAzimuthReq, LAPI_DISTANCE_AZIMUTH_REQ_LEN);
LAPI_MSG_SIZE_CHECK(AddProximityReq, LAPI_ADD_PROXIMITY_REQ_LEN);
LAPI_MSG_SIZE_CHECK(RemoveProximityReq, LAPI_REMOVE_PROXIMITY_REQ_LEN);
LAPI_MSG_SIZE_CHECK(RegisterRsp, LAPI_REGISTER_RSP_LEN);
LAPI_MSG_SIZE_CHECK(GetAsyncFdRsp, LAPI_GET_ASYNC_FD_RSP_LEN);
LAPI_MSG_SIZE_CHECK(UnregisterRsp, LAPI_UNREGISTER_RSP_LEN);
LAPI_MSG_SIZE_CHECK(TimeOutRsp, LAPI_TIME_OUT_RSP_LEN);
LAPI_MSG_SIZE_CHECK(InvalidRequestRsp, LAPI_INVALID_REQUEST_RSP_LEN);
LAPI_MSG_SIZE_CHECK(AbortLocationRsp, LAPI_ABORT_LOCATION_RSP_LEN);
LAPI_MSG_SIZE_CHECK(SetGpsDbDataRsp, LAPI_SET_GPS_DB_DATA_RSP_LEN);
LAPI_MSG_SIZE_CHECK(AddProximityRsp, LAPI_ADD_PROXIMITY_RSP_LEN);
LAPI_MSG_SIZE_CHECK(RemoveProximityRsp, LAPI_REMOVE_PROXIMITY_RSP_LEN);
LAPI_MSG_SIZE_CHECK(NotificationStatusInd, LAPI_NOTIFICATION_STATUS_IND_LEN);
LAPI_MSG_SIZE_CHECK(DistanceAzimuthRsp, LAPI_DISTANCE_AZIMUTH_RSP_LEN);
LAPI_MSG_SIZE_CHECK(GetStatusRsp, LAPI_GET_STATUS_RSP_LEN);
LAPI_MSG_SIZE_CHECK(GetLocationRsp, LAPI_GET_LOCATION_RSP_LEN);
LAPI_MSG_SIZE_CHECK(ProximityHitInd, LAPI_PROXIMITY_HIT_IND_LEN);
LAPI_MSG_SIZE_CHECK(GetGpsDbDataRsp, LAPI_GET_GPS_DB_DATA_RSP_LEN);
LAPI_MSG_SIZE_CHECK(LocationNotificationInd, LAPI_LOCATION_NOTIFICATION_IND_LEN);

/* Field offsets from the start of the message, header included: readers
 * copy fields out at these positions. */
#define LAPI_MSG_OFFSET_CHECK(type, field, offset) \
    LAPI_MSG_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field " moved")
#ifdef __cplusplus
#define LAPI_MSG_STATIC_ASSERT(cond, text) static_assert(cond, text)
#else
#define LAPI_MSG_STATIC_ASSERT(cond, text) _Static_assert(cond, text)
#endif

LAPI_MSG_OFFSET_CHECK(MsgHeader, msgId, 4);
LAPI_MSG_OFFSET_CHECK(MsgHeader, msgLen, 6);
LAPI_MSG_OFFSET_CHECK(DbFile, length, 4);
LAPI_MSG_OFFSET_CHECK(DbFile, data, 6);
LAPI_MSG_OFFSET_CHECK(RegisterReq, service, 8);
LAPI_MSG_OFFSET_CHECK(GetAsyncFdReq, globalId, 8);
LAPI_MSG_OFFSET_CHECK(GetLocationReq, sessionId, 10);
LAPI_MSG_OFFSET_CHECK(GetLocationReq, transactionId, 11);
LAPI_MSG_OFFSET_CHECK(GetLocationReq, responseTime, 12);
LAPI_MSG_OFFSET_CHECK(GetLocationReq, reportCriteria, 32);
LAPI_MSG_OFFSET_CHECK(GetLocationReq, costAllowed, 36);
LAPI_MSG_OFFSET_CHECK(GetLocationReq, nmeaRequired, 40);
LAPI_MSG_OFFSET_CHECK(GetGpsDbDataReq, fileId, 12);
LAPI_MSG_OFFSET_CHECK(SetGpsDbDataReq, numFiles, 12);
LAPI_MSG_OFFSET_CHECK(SetGpsDbDataReq, dbFile, 14);
LAPI_MSG_OFFSET_CHECK(LocationNotificationCfm, sessionId, 8);
LAPI_MSG_OFFSET_CHECK(LocationNotificationCfm, responseType, 10);
LAPI_MSG_OFFSET_CHECK(DistanceAzimuthReq, latitude1, 12);
LAPI_MSG_OFFSET_CHECK(DistanceAzimuthReq, longitude2, 36);
LAPI_MSG_OFFSET_CHECK(DistanceAzimuthReq, distanceOnly, 44);
LAPI_MSG_OFFSET_CHECK(AddProximityReq, latitude, 12);
LAPI_MSG_OFFSET_CHECK(AddProximityReq, radius, 36);
LAPI_MSG_OFFSET_CHECK(RemoveProximityReq, removeType, 12);
LAPI_MSG_OFFSET_CHECK(RegisterRsp, globalId, 8);
LAPI_MSG_OFFSET_CHECK(TimeOutRsp, sessionId, 8);
LAPI_MSG_OFFSET_CHECK(InvalidRequestRsp, transactionId, 9);
LAPI_MSG_OFFSET_CHECK(AbortLocationRsp, result, 10);
LAPI_MSG_OFFSET_CHECK(SetGpsDbDataRsp, result, 10);
LAPI_MSG_OFFSET_CHECK(AddProximityRsp, status, 10);
LAPI_MSG_OFFSET_CHECK(RemoveProximityRsp, status, 10);
LAPI_MSG_OFFSET_CHECK(NotificationStatusInd, cause, 10);
LAPI_MSG_OFFSET_CHECK(DistanceAzimuthRsp, distance, 10);
LAPI_MSG_OFFSET_CHECK(DistanceAzimuthRsp, azimuth, 18);
LAPI_MSG_OFFSET_CHECK(GetStatusRsp, userStatus, 10);
LAPI_MSG_OFFSET_CHECK(GetStatusRsp, emergencyStatus, 22);
LAPI_MSG_OFFSET_CHECK(GetStatusRsp, fixResultStatus, 26);
LAPI_MSG_OFFSET_CHECK(GetStatusRsp, signalStatus, 34);
LAPI_MSG_OFFSET_CHECK(GetStatusRsp, iconStatus, 38);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, longitude, 10);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, course, 90);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, locationMethod, 98);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, cause, 102);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, ageOfFix, 106);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, nmeaDataLength, 114);
LAPI_MSG_OFFSET_CHECK(GetLocationRsp, nmeaData, 116);
LAPI_MSG_OFFSET_CHECK(ProximityHitInd, course, 90);
LAPI_MSG_OFFSET_CHECK(ProximityHitInd, locationMethod, 98);
LAPI_MSG_OFFSET_CHECK(ProximityHitInd, ageOfFix, 102);
LAPI_MSG_OFFSET_CHECK(GetGpsDbDataRsp, numFiles, 10);
LAPI_MSG_OFFSET_CHECK(GetGpsDbDataRsp, dbFile, 12);
LAPI_MSG_OFFSET_CHECK(GetGpsDbDataRsp, result, 232);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, notificationType, 10);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, locationType, 14);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, dataCodingSchema, 18);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, nameLength, 19);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, clientName, 20);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, addrLength, 165);
LAPI_MSG_OFFSET_CHECK(LocationNotificationInd, clientExternalAddr, 166);

#ifdef __cplusplus
}
#endif

#endif /* LAPI_MSG_H */
