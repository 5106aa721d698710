/*
 * Messages between the location server (AP) and the positioning engine on
 * the baseband processor (BP), and the frame that carries them on the mux
 * channel.
 *
 * Frame on the wire:
 *   0x50 | frameLen (u16, big-endian, whole frame) | message | 0xCF 0xB0
 * A message is a BpMsgHeader followed by its body. Every multi-byte field
 * of a message is big-endian (network order). The structures below keep
 * those fields as byte arrays so that nobody reads one in host order by
 * accident: the server reads and writes them one field at a time with
 * LAPI_Reader / LAPI_Writer (LAPI_Wire.h), other code with the
 * LAPI_Bp{Get,Put}* helpers below, and reals with LAPI_SRV_DoubleToBpFixed /
 * LAPI_SRV_BpFixedToDouble.
 *
 * Packed and C-compatible; every size and offset is checked at compile time.
 * The structures describe the layout: a received message is never cast to
 * one of them, its fields are copied out against the message length.
 */
#ifndef LAPI_BPMSG_H
#define LAPI_BPMSG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- frame ---------------------------------------------------------------- */

#define LAPI_BP_FRAME_SYNC 0x50     /* 'P' */
#define LAPI_BP_FRAME_TRAILER0 0xCF /* byte at frameLen - 2 */
#define LAPI_BP_FRAME_TRAILER1 0xB0 /* byte at frameLen - 1 */
#define LAPI_BP_FRAME_HEAD_LEN 3    /* sync + frameLen */
#define LAPI_BP_FRAME_TRAILER_LEN 2 /* 0xCF 0xB0 */
#define LAPI_BP_FRAME_OVERHEAD 5    /* frameLen = message length + 5 */
#define LAPI_BP_FRAME_MAX_LEN 1024  /* largest frame the receiver accepts */
#define LAPI_BP_MSG_MAX_LEN (LAPI_BP_FRAME_MAX_LEN - LAPI_BP_FRAME_OVERHEAD) /* 1019 */

/* ---- sub-command identifiers ---------------------------------------------- */

/* APBP: sent by the AP; BPAP: sent by the BP; REQ/RES/IND as named. */
enum LAPI_BpSubCmdId {
    GEOLOCATION_APBP_REQ = 0x00,
    GEOLOCATION_APBP_RES = 0x01,
    GEOLOCATION_ABORT_APBP_REQ = 0x02,
    GEOLOCATION_ABORT_APBP_RES = 0x03,
    DB_WRITE_APBP_REQ = 0x04,
    DB_WRITE_APBP_RES = 0x05,
    DB_READ_APBP_REQ = 0x06,
    DB_READ_APBP_RES = 0x07,
    STATUS_CHANGE_BPAP_IND = 0x08,
    OPEN_SOCKET_BPAP_REQ = 0x09,  /* BP asks for a network socket */
    OPEN_SOCKET_APBP_RES = 0x0A,  /* answer to OPEN_SOCKET_BPAP_REQ */
    SEND_DATA_BPAP_REQ = 0x0B,    /* BP sends data on a socket */
    SEND_DATA_APBP_RES = 0x0C,    /* answer to SEND_DATA_BPAP_REQ */
    SOCKET_DATA_APBP_IND = 0x0D,  /* data received on a socket, to the BP */
    CLOSE_SOCKET_BPAP_REQ = 0x0E, /* BP closes a socket */
    CLOSE_SOCKET_APBP_RES = 0x0F, /* answer to CLOSE_SOCKET_BPAP_REQ */
    WAP_PUSH_APBP_IND = 0x10,     /* WAP push forwarded to the BP */
    GET_STATUS_APBP_REQ = 0x11,
    GET_STATUS_APBP_RES = 0x12,
    LOCATION_NOTIFICATION_BPAP_IND = 0x13,
    LOCATION_NOTIFICATION_APBP_RES = 0x14,
    NOTIFICATION_STATUS_BPAP_IND = 0x15,
    LAST_KNOWN_GEOLOCATION_APBP_REQ = 0x16,
    DISTANCE_AND_AZIMUTH_APBP_REQ = 0x17,
    DISTANCE_AND_AZIMUTH_APBP_RES = 0x18,
    PROXIMITY_ADD_APBP_REQ = 0x19,
    PROXIMITY_ADD_APBP_RES = 0x1A,
    PROXIMITY_REM_APBP_REQ = 0x1B,
    PROXIMITY_REM_APBP_RES = 0x1C,
    PROXIMITY_HIT_APBP_IND = 0x1D,
    TLS_SESSION_BPAP_REQ = 0x1E, /* BP asks for TLS on a socket */
    TLS_SESSION_APBP_RES = 0x1F, /* answer to TLS_SESSION_BPAP_REQ */
    LAPI_BP_MSG_ID_COUNT = 32,   /* size of the procedure and trace tables */
};

/* ---- message lengths (header included) ------------------------------------ */

enum LAPI_BpMsgLen {
    LAPI_BP_MSG_HEADER_LEN = 3,
    /* AP -> BP */
    LAPI_BP_GET_LOCATION_REQ_LEN = 32,
    LAPI_BP_ABORT_LOCATION_REQ_LEN = 3,
    LAPI_BP_SET_GPS_DB_DATA_REQ_MIN_LEN = 5, /* + sum of (6 + length) per file */
    LAPI_BP_DB_FILE_HEAD_LEN = 6,            /* fileId u32 + length u16 */
    LAPI_BP_GET_GPS_DB_DATA_REQ_LEN = 7,
    LAPI_BP_GET_STATUS_REQ_LEN = 3,
    LAPI_BP_LOCATION_NOTIFICATION_RSP_LEN = 7,
    LAPI_BP_LAST_KNOWN_LOCATION_REQ_LEN = 3,
    LAPI_BP_DISTANCE_AZIMUTH_REQ_LEN = 36,
    LAPI_BP_ADD_PROXIMITY_REQ_LEN = 35,
    LAPI_BP_REMOVE_PROXIMITY_REQ_LEN = 7,
    /* BP -> AP: MIN = at least, otherwise exactly */
    LAPI_BP_GET_LOCATION_RSP_MIN_LEN = 109,
    LAPI_BP_MAX_NMEA_LEN = 906,
    LAPI_BP_ABORT_LOCATION_RSP_LEN = 7,
    LAPI_BP_SET_GPS_DB_DATA_RSP_LEN = 7,
    LAPI_BP_GET_GPS_DB_DATA_RSP_MIN_LEN = 5,
    LAPI_BP_MAX_DB_FILES = 22,
    LAPI_BP_MAX_DB_FILE_DATA_LEN = 4,
    LAPI_BP_STATUS_IND_LEN = 35, /* STATUS_CHANGE_BPAP_IND and GET_STATUS_APBP_RES */
    LAPI_BP_LOCATION_NOTIFICATION_IND_MIN_LEN = 13,
    LAPI_BP_MAX_CLIENT_NAME_LEN = 143,
    LAPI_BP_MAX_CLIENT_ADDR_LEN = 144,
    LAPI_BP_NOTIFICATION_STATUS_IND_LEN = 7,
    LAPI_BP_DISTANCE_AZIMUTH_RSP_LEN = 19,
    LAPI_BP_ADD_PROXIMITY_RSP_LEN = 7,
    LAPI_BP_REMOVE_PROXIMITY_RSP_LEN = 7,
    LAPI_BP_PROXIMITY_HIT_IND_LEN = 103,
    /* socket service: MIN = at least, otherwise exactly */
    LAPI_BP_OPEN_SOCKET_REQ_MIN_LEN = 18, /* + fqdnLength FQDN bytes */
    LAPI_BP_SEND_DATA_REQ_MIN_LEN = 11,   /* + length data bytes */
    LAPI_BP_CLOSE_SOCKET_REQ_LEN = 7,
    LAPI_BP_TLS_SESSION_REQ_MIN_LEN = 8,  /* + fqdnLength FQDN bytes */
    LAPI_BP_SOCKET_RES_LEN = 11,          /* SOCKET_MSG_RES_T */
    LAPI_BP_TLS_RES_LEN = 8,              /* TLS_MSG_RES_T */
    LAPI_BP_SOCKET_DATA_IND_MIN_LEN = 15, /* + length data bytes */
};

/* removeType of PROXIMITY_REM_APBP_REQ: every area; otherwise the one named by
 * the header's pair. */
#define LAPI_BP_REMOVE_ALL_PROXIMITY 1

/* ---- fixed point ------------------------------------------------------------ */

/* Reals travel as 8-byte big-endian signed integers with 23 fraction bits. */
#define LAPI_BP_FIXED_LEN 8
#define LAPI_BP_FIXED_SCALE 8388608.0 /* 2^23 */

/* N = trunc(x * 2^23), written big-endian into pOut[0..7]. Values outside the
 * range of a signed 64-bit N (and NaN) saturate instead of being undefined. */
void LAPI_SRV_DoubleToBpFixed(double x, uint8_t *pOut);
/* x = (N + 0.5) / 2^23 with N read big-endian from pIn[0..7]: the value is put
 * at the centre of its quantisation step. */
double LAPI_SRV_BpFixedToDouble(const uint8_t *pIn);

/* ---- big-endian field helpers ----------------------------------------------- */

static inline uint16_t LAPI_BpGetU16(const uint8_t *p) {
    return (uint16_t)(((uint16_t)p[0] << 8) | p[1]);
}
static inline uint32_t LAPI_BpGetU32(const uint8_t *p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}
static inline uint64_t LAPI_BpGetU64(const uint8_t *p) {
    return ((uint64_t)LAPI_BpGetU32(p) << 32) | LAPI_BpGetU32(p + 4);
}
static inline void LAPI_BpPutU16(uint8_t *p, uint16_t v) {
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}
static inline void LAPI_BpPutU32(uint8_t *p, uint32_t v) {
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}
static inline void LAPI_BpPutU64(uint8_t *p, uint64_t v) {
    LAPI_BpPutU32(p, (uint32_t)(v >> 32));
    LAPI_BpPutU32(p + 4, (uint32_t)v);
}

/* ---- layouts ------------------------------------------------------------------ */
/* Field comments give the wire type; every array of 2, 4 or 8 bytes is one
 * big-endian number ("fixed" = 8-byte fixed point). */

#pragma pack(push, 1)

typedef struct BpMsgHeader {
    uint8_t subCmdId;
    uint8_t sessionId;     /* BP-side session identifier */
    uint8_t transactionId; /* BP-side transaction identifier */
} BpMsgHeader;

/* ---- AP -> BP ---- */

/* GEOLOCATION_APBP_REQ */
typedef struct BpGetLocationReq {
    BpMsgHeader header;
    uint8_t responseTime[4];              /* u32 */
    uint8_t horizontalAccuracy[4];        /* u32 */
    uint8_t verticalAccuracy[4];          /* u32 */
    uint8_t preferredPowerConsumption[4]; /* u32 */
    uint8_t interval[4];                  /* u32 */
    uint8_t reportCriteria[4];            /* u32 */
    uint8_t costAllowed;
    uint8_t addressInfoRequired;
    uint8_t speedAndCourseRequired;
    uint8_t altitudeRequired;
    uint8_t nmeaRequired;
} BpGetLocationReq;

/* GEOLOCATION_ABORT_APBP_REQ, GET_STATUS_APBP_REQ and
 * LAST_KNOWN_GEOLOCATION_APBP_REQ: the header alone. */
typedef BpMsgHeader BpAbortLocationReq;
typedef BpMsgHeader BpGetStatusReq;
typedef BpMsgHeader BpLastKnownLocationReq;

/* DB_WRITE_APBP_REQ: numFiles entries of BpDbFileHead + length data bytes
 * follow (the data as one big-endian number of length bytes). */
typedef struct BpSetGpsDbDataReq {
    BpMsgHeader header;
    uint8_t numFiles[2]; /* u16 */
} BpSetGpsDbDataReq;

/* One file entry of DB_WRITE_APBP_REQ and DB_READ_APBP_RES, before its data. */
typedef struct BpDbFileHead {
    uint8_t fileId[4]; /* u32 */
    uint8_t length[2]; /* u16 */
} BpDbFileHead;

/* DB_READ_APBP_REQ */
typedef struct BpGetGpsDbDataReq {
    BpMsgHeader header;
    uint8_t fileId[4]; /* u32 */
} BpGetGpsDbDataReq;

/* LOCATION_NOTIFICATION_APBP_RES: the header carries the BP's own pair. */
typedef struct BpLocationNotificationRsp {
    BpMsgHeader header;
    uint8_t responseType[4]; /* u32 */
} BpLocationNotificationRsp;

/* DISTANCE_AND_AZIMUTH_APBP_REQ */
typedef struct BpDistanceAzimuthReq {
    BpMsgHeader header;
    uint8_t latitude1[8];  /* fixed */
    uint8_t longitude1[8]; /* fixed */
    uint8_t latitude2[8];  /* fixed */
    uint8_t longitude2[8]; /* fixed */
    uint8_t distanceOnly;
} BpDistanceAzimuthReq;

/* PROXIMITY_ADD_APBP_REQ */
typedef struct BpAddProximityReq {
    BpMsgHeader header;
    uint8_t latitude[8];  /* fixed */
    uint8_t longitude[8]; /* fixed */
    uint8_t altitude[8];  /* fixed */
    uint8_t radius[8];    /* fixed */
} BpAddProximityReq;

/* PROXIMITY_REM_APBP_REQ */
typedef struct BpRemoveProximityReq {
    BpMsgHeader header;
    uint8_t removeType[4]; /* u32; LAPI_BP_REMOVE_ALL_PROXIMITY = every area */
} BpRemoveProximityReq;

/* ---- BP -> AP ---- */

/* GEOLOCATION_APBP_RES (also the answer to LAST_KNOWN_GEOLOCATION_APBP_REQ):
 * at least LAPI_BP_GET_LOCATION_RSP_MIN_LEN bytes, then nmeaDataLength bytes
 * of NMEA text. */
typedef struct BpGetLocationRsp {
    BpMsgHeader header;
    uint8_t longitude[8];          /* fixed */
    uint8_t latitude[8];           /* fixed */
    uint8_t latLonAccuracy[8];     /* fixed */
    uint8_t timeStamp[8];          /* 8-byte integer, byte-reversed only, never scaled */
    uint8_t altitude[8];           /* fixed */
    uint8_t speed[8];              /* fixed */
    uint8_t travelDirection[8];    /* fixed */
    uint8_t pointingDirection[8];  /* fixed */
    uint8_t horizontalAccuracy[8]; /* fixed */
    uint8_t verticalAccuracy[8];   /* fixed */
    uint8_t course[8];             /* fixed */
    uint8_t locationMethod[4];     /* i32 */
    uint8_t cause[4];              /* i32 */
    uint8_t ageOfFix[8];           /* 8-byte integer */
    uint8_t nmeaDataLength[2];     /* u16, at most LAPI_BP_MAX_NMEA_LEN */
    uint8_t nmeaData[LAPI_BP_MAX_NMEA_LEN];
} BpGetLocationRsp;

/* GEOLOCATION_ABORT_APBP_RES and DB_WRITE_APBP_RES */
typedef struct BpResultRsp {
    BpMsgHeader header;
    uint8_t result[4]; /* i32 */
} BpResultRsp;
typedef BpResultRsp BpAbortLocationRsp;
typedef BpResultRsp BpSetGpsDbDataRsp;

/* DB_READ_APBP_RES: numFiles (at most LAPI_BP_MAX_DB_FILES) entries of
 * BpDbFileHead + length (1 to LAPI_BP_MAX_DB_FILE_DATA_LEN) data bytes, then
 * result (i32). */
typedef struct BpGetGpsDbDataRsp {
    BpMsgHeader header;
    uint8_t numFiles[2]; /* u16 */
} BpGetGpsDbDataRsp;

/* STATUS_CHANGE_BPAP_IND and GET_STATUS_APBP_RES */
typedef struct BpStatusInd {
    BpMsgHeader header;
    uint8_t userStatus[4];            /* i32 */
    uint8_t hwStatus[4];              /* i32 */
    uint8_t fixStatus[4];             /* i32 */
    uint8_t emergencyStatus[4];       /* i32 */
    uint8_t fixResultStatusStatus[4]; /* i32, fixResultStatus.status */
    uint8_t fixResultStatusCause[4];  /* i32, fixResultStatus.cause */
    uint8_t signalStatus[4];          /* i32 */
    uint8_t iconStatus[4];            /* i32 */
} BpStatusInd;
typedef BpStatusInd BpStatusChangeInd;
typedef BpStatusInd BpGetStatusRsp;

/* LOCATION_NOTIFICATION_BPAP_IND: at least 13 bytes. nameLength bytes of
 * clientName (16-bit characters, big-endian) follow, then addrLength (u8,
 * at most LAPI_BP_MAX_CLIENT_ADDR_LEN) and addrLength bytes of
 * clientExternalAddr. */
typedef struct BpLocationNotificationInd {
    BpMsgHeader header;
    uint8_t notificationType[4]; /* i32 */
    uint8_t locationType[4];     /* i32 */
    uint8_t dataCodingSchema;
    uint8_t nameLength; /* even, at most LAPI_BP_MAX_CLIENT_NAME_LEN */
} BpLocationNotificationInd;

/* NOTIFICATION_STATUS_BPAP_IND */
typedef struct BpNotificationStatusInd {
    BpMsgHeader header;
    uint8_t cause[4]; /* i32 */
} BpNotificationStatusInd;

/* DISTANCE_AND_AZIMUTH_APBP_RES */
typedef struct BpDistanceAzimuthRsp {
    BpMsgHeader header;
    uint8_t distance[8]; /* fixed */
    uint8_t azimuth[8];  /* fixed */
} BpDistanceAzimuthRsp;

/* PROXIMITY_ADD_APBP_RES and PROXIMITY_REM_APBP_RES */
typedef struct BpProximityRsp {
    BpMsgHeader header;
    uint8_t status[4]; /* i32, 0 = success */
} BpProximityRsp;
typedef BpProximityRsp BpAddProximityRsp;
typedef BpProximityRsp BpRemoveProximityRsp;

/* PROXIMITY_HIT_APBP_IND: the position fields of GEOLOCATION_APBP_RES, no cause. */
typedef struct BpProximityHitInd {
    BpMsgHeader header;
    uint8_t longitude[8];          /* fixed */
    uint8_t latitude[8];           /* fixed */
    uint8_t latLonAccuracy[8];     /* fixed */
    uint8_t timeStamp[8];          /* 8-byte integer, byte-reversed only */
    uint8_t altitude[8];           /* fixed */
    uint8_t speed[8];              /* fixed */
    uint8_t travelDirection[8];    /* fixed */
    uint8_t pointingDirection[8];  /* fixed */
    uint8_t horizontalAccuracy[8]; /* fixed */
    uint8_t verticalAccuracy[8];   /* fixed */
    uint8_t course[8];             /* fixed */
    uint8_t locationMethod[4];     /* i32 */
    uint8_t ageOfFix[8];           /* 8-byte integer */
} BpProximityHitInd;

/* ---- socket service ---- */

/* OPEN_SOCKET_BPAP_REQ; fqdnLength FQDN bytes follow. */
typedef struct BpOpenSocketReq {
    BpMsgHeader header;
    uint8_t linkId[4];   /* u32 */
    uint8_t address[4];  /* IPv4, network order, used as it is */
    uint8_t port[2];     /* u16 */
    uint8_t addrType[4]; /* u32: 0 IPv4, 1 FQDN */
    uint8_t fqdnLength;
} BpOpenSocketReq;

/* SEND_DATA_BPAP_REQ; length data bytes follow. */
typedef struct BpSendDataReq {
    BpMsgHeader header;
    uint8_t linkId[4]; /* u32 */
    uint8_t length[4]; /* u32 */
} BpSendDataReq;

/* CLOSE_SOCKET_BPAP_REQ */
typedef struct BpCloseSocketReq {
    BpMsgHeader header;
    uint8_t linkId[4]; /* u32 */
} BpCloseSocketReq;

/* TLS_SESSION_BPAP_REQ; fqdnLength FQDN bytes follow. */
typedef struct BpTlsSessionReq {
    BpMsgHeader header;
    uint8_t linkId[4]; /* u32 */
    uint8_t fqdnLength;
} BpTlsSessionReq;

/* SOCKET_MSG_RES_T: OPEN_SOCKET_APBP_RES, SEND_DATA_APBP_RES and
 * CLOSE_SOCKET_APBP_RES. */
typedef struct SOCKET_MSG_RES_T {
    BpMsgHeader header;
    uint8_t linkId[4]; /* u32 */
    uint8_t result[4]; /* i32: 0 success, -1 failure */
} SOCKET_MSG_RES_T;

/* TLS_MSG_RES_T: TLS_SESSION_APBP_RES. */
typedef struct TLS_MSG_RES_T {
    BpMsgHeader header;
    uint8_t linkId[4]; /* u32 */
    uint8_t result;    /* 0 done, 1 not set up, 2 handshake failed */
} TLS_MSG_RES_T;

/* SOCKET_DATA_APBP_IND: header, linkId, length, the data, then the result
 * (i32: 0 data received, -1 connection failed or closed). */
typedef struct BpSocketDataIndHead {
    BpMsgHeader header;
    uint8_t linkId[4]; /* u32 */
    uint8_t length[4]; /* u32 */
} BpSocketDataIndHead;

#pragma pack(pop)

#ifdef __cplusplus
}
#endif

/* ---- the wire layout is the protocol with the BP ------------------------------ */

#ifdef __cplusplus
#define LAPI_BP_ASSERT(cond, what) static_assert(cond, what)
#else
#define LAPI_BP_ASSERT(cond, what) _Static_assert(cond, what)
#endif
#define LAPI_BP_SIZE(type, len) LAPI_BP_ASSERT(sizeof(type) == (len), #type " has the wrong size")
#define LAPI_BP_OFF(type, field, off) \
    LAPI_BP_ASSERT(offsetof(type, field) == (off), #type "." #field " is at the wrong offset")

LAPI_BP_ASSERT(LAPI_BP_MSG_MAX_LEN == 1019, "largest BP message");
LAPI_BP_ASSERT(LAPI_BP_FRAME_HEAD_LEN + LAPI_BP_FRAME_TRAILER_LEN == LAPI_BP_FRAME_OVERHEAD,
               "frame overhead");

LAPI_BP_SIZE(BpMsgHeader, LAPI_BP_MSG_HEADER_LEN);
LAPI_BP_OFF(BpMsgHeader, subCmdId, 0);
LAPI_BP_OFF(BpMsgHeader, sessionId, 1);
LAPI_BP_OFF(BpMsgHeader, transactionId, 2);

LAPI_BP_SIZE(BpGetLocationReq, LAPI_BP_GET_LOCATION_REQ_LEN);
LAPI_BP_OFF(BpGetLocationReq, responseTime, 3);
LAPI_BP_OFF(BpGetLocationReq, horizontalAccuracy, 7);
LAPI_BP_OFF(BpGetLocationReq, verticalAccuracy, 11);
LAPI_BP_OFF(BpGetLocationReq, preferredPowerConsumption, 15);
LAPI_BP_OFF(BpGetLocationReq, interval, 19);
LAPI_BP_OFF(BpGetLocationReq, reportCriteria, 23);
LAPI_BP_OFF(BpGetLocationReq, costAllowed, 27);
LAPI_BP_OFF(BpGetLocationReq, addressInfoRequired, 28);
LAPI_BP_OFF(BpGetLocationReq, speedAndCourseRequired, 29);
LAPI_BP_OFF(BpGetLocationReq, altitudeRequired, 30);
LAPI_BP_OFF(BpGetLocationReq, nmeaRequired, 31);

LAPI_BP_SIZE(BpAbortLocationReq, LAPI_BP_ABORT_LOCATION_REQ_LEN);
LAPI_BP_SIZE(BpGetStatusReq, LAPI_BP_GET_STATUS_REQ_LEN);
LAPI_BP_SIZE(BpLastKnownLocationReq, LAPI_BP_LAST_KNOWN_LOCATION_REQ_LEN);

LAPI_BP_SIZE(BpSetGpsDbDataReq, LAPI_BP_SET_GPS_DB_DATA_REQ_MIN_LEN);
LAPI_BP_OFF(BpSetGpsDbDataReq, numFiles, 3);
LAPI_BP_SIZE(BpDbFileHead, LAPI_BP_DB_FILE_HEAD_LEN);
LAPI_BP_OFF(BpDbFileHead, fileId, 0);
LAPI_BP_OFF(BpDbFileHead, length, 4);

LAPI_BP_SIZE(BpGetGpsDbDataReq, LAPI_BP_GET_GPS_DB_DATA_REQ_LEN);
LAPI_BP_OFF(BpGetGpsDbDataReq, fileId, 3);

LAPI_BP_SIZE(BpLocationNotificationRsp, LAPI_BP_LOCATION_NOTIFICATION_RSP_LEN);
LAPI_BP_OFF(BpLocationNotificationRsp, responseType, 3);

LAPI_BP_SIZE(BpDistanceAzimuthReq, LAPI_BP_DISTANCE_AZIMUTH_REQ_LEN);
LAPI_BP_OFF(BpDistanceAzimuthReq, latitude1, 3);
LAPI_BP_OFF(BpDistanceAzimuthReq, longitude1, 11);
LAPI_BP_OFF(BpDistanceAzimuthReq, latitude2, 19);
LAPI_BP_OFF(BpDistanceAzimuthReq, longitude2, 27);
LAPI_BP_OFF(BpDistanceAzimuthReq, distanceOnly, 35);

LAPI_BP_SIZE(BpAddProximityReq, LAPI_BP_ADD_PROXIMITY_REQ_LEN);
LAPI_BP_OFF(BpAddProximityReq, latitude, 3);
LAPI_BP_OFF(BpAddProximityReq, longitude, 11);
LAPI_BP_OFF(BpAddProximityReq, altitude, 19);
LAPI_BP_OFF(BpAddProximityReq, radius, 27);

LAPI_BP_SIZE(BpRemoveProximityReq, LAPI_BP_REMOVE_PROXIMITY_REQ_LEN);
LAPI_BP_OFF(BpRemoveProximityReq, removeType, 3);

LAPI_BP_SIZE(BpGetLocationRsp, LAPI_BP_GET_LOCATION_RSP_MIN_LEN + LAPI_BP_MAX_NMEA_LEN);
LAPI_BP_OFF(BpGetLocationRsp, longitude, 3);
LAPI_BP_OFF(BpGetLocationRsp, latitude, 11);
LAPI_BP_OFF(BpGetLocationRsp, latLonAccuracy, 19);
LAPI_BP_OFF(BpGetLocationRsp, timeStamp, 27);
LAPI_BP_OFF(BpGetLocationRsp, altitude, 35);
LAPI_BP_OFF(BpGetLocationRsp, speed, 43);
LAPI_BP_OFF(BpGetLocationRsp, travelDirection, 51);
LAPI_BP_OFF(BpGetLocationRsp, pointingDirection, 59);
LAPI_BP_OFF(BpGetLocationRsp, horizontalAccuracy, 67);
LAPI_BP_OFF(BpGetLocationRsp, verticalAccuracy, 75);
LAPI_BP_OFF(BpGetLocationRsp, course, 83);
LAPI_BP_OFF(BpGetLocationRsp, locationMethod, 91);
LAPI_BP_OFF(BpGetLocationRsp, cause, 95);
LAPI_BP_OFF(BpGetLocationRsp, ageOfFix, 99);
LAPI_BP_OFF(BpGetLocationRsp, nmeaDataLength, 107);
LAPI_BP_OFF(BpGetLocationRsp, nmeaData, LAPI_BP_GET_LOCATION_RSP_MIN_LEN);
LAPI_BP_ASSERT(LAPI_BP_GET_LOCATION_RSP_MIN_LEN + LAPI_BP_MAX_NMEA_LEN <= LAPI_BP_MSG_MAX_LEN,
               "the longest location response fits in one frame");

LAPI_BP_SIZE(BpResultRsp, LAPI_BP_ABORT_LOCATION_RSP_LEN);
LAPI_BP_SIZE(BpSetGpsDbDataRsp, LAPI_BP_SET_GPS_DB_DATA_RSP_LEN);
LAPI_BP_OFF(BpResultRsp, result, 3);

LAPI_BP_SIZE(BpGetGpsDbDataRsp, LAPI_BP_GET_GPS_DB_DATA_RSP_MIN_LEN);
LAPI_BP_OFF(BpGetGpsDbDataRsp, numFiles, 3);

LAPI_BP_SIZE(BpStatusInd, LAPI_BP_STATUS_IND_LEN);
LAPI_BP_OFF(BpStatusInd, userStatus, 3);
LAPI_BP_OFF(BpStatusInd, hwStatus, 7);
LAPI_BP_OFF(BpStatusInd, fixStatus, 11);
LAPI_BP_OFF(BpStatusInd, emergencyStatus, 15);
LAPI_BP_OFF(BpStatusInd, fixResultStatusStatus, 19);
LAPI_BP_OFF(BpStatusInd, fixResultStatusCause, 23);
LAPI_BP_OFF(BpStatusInd, signalStatus, 27);
LAPI_BP_OFF(BpStatusInd, iconStatus, 31);

LAPI_BP_SIZE(BpLocationNotificationInd, LAPI_BP_LOCATION_NOTIFICATION_IND_MIN_LEN);
LAPI_BP_OFF(BpLocationNotificationInd, notificationType, 3);
LAPI_BP_OFF(BpLocationNotificationInd, locationType, 7);
LAPI_BP_OFF(BpLocationNotificationInd, dataCodingSchema, 11);
LAPI_BP_OFF(BpLocationNotificationInd, nameLength, 12);

LAPI_BP_SIZE(BpNotificationStatusInd, LAPI_BP_NOTIFICATION_STATUS_IND_LEN);
LAPI_BP_OFF(BpNotificationStatusInd, cause, 3);

LAPI_BP_SIZE(BpDistanceAzimuthRsp, LAPI_BP_DISTANCE_AZIMUTH_RSP_LEN);
LAPI_BP_OFF(BpDistanceAzimuthRsp, distance, 3);
LAPI_BP_OFF(BpDistanceAzimuthRsp, azimuth, 11);

LAPI_BP_SIZE(BpProximityRsp, LAPI_BP_ADD_PROXIMITY_RSP_LEN);
LAPI_BP_SIZE(BpRemoveProximityRsp, LAPI_BP_REMOVE_PROXIMITY_RSP_LEN);
LAPI_BP_OFF(BpProximityRsp, status, 3);

LAPI_BP_SIZE(BpProximityHitInd, LAPI_BP_PROXIMITY_HIT_IND_LEN);
LAPI_BP_OFF(BpProximityHitInd, longitude, 3);
LAPI_BP_OFF(BpProximityHitInd, latitude, 11);
LAPI_BP_OFF(BpProximityHitInd, latLonAccuracy, 19);
LAPI_BP_OFF(BpProximityHitInd, timeStamp, 27);
LAPI_BP_OFF(BpProximityHitInd, altitude, 35);
LAPI_BP_OFF(BpProximityHitInd, speed, 43);
LAPI_BP_OFF(BpProximityHitInd, travelDirection, 51);
LAPI_BP_OFF(BpProximityHitInd, pointingDirection, 59);
LAPI_BP_OFF(BpProximityHitInd, horizontalAccuracy, 67);
LAPI_BP_OFF(BpProximityHitInd, verticalAccuracy, 75);
LAPI_BP_OFF(BpProximityHitInd, course, 83);
LAPI_BP_OFF(BpProximityHitInd, locationMethod, 91);
LAPI_BP_OFF(BpProximityHitInd, ageOfFix, 95);

LAPI_BP_SIZE(BpOpenSocketReq, LAPI_BP_OPEN_SOCKET_REQ_MIN_LEN);
LAPI_BP_OFF(BpOpenSocketReq, linkId, 3);
LAPI_BP_OFF(BpOpenSocketReq, address, 7);
LAPI_BP_OFF(BpOpenSocketReq, port, 11);
LAPI_BP_OFF(BpOpenSocketReq, addrType, 13);
LAPI_BP_OFF(BpOpenSocketReq, fqdnLength, 17);

LAPI_BP_SIZE(BpSendDataReq, LAPI_BP_SEND_DATA_REQ_MIN_LEN);
LAPI_BP_OFF(BpSendDataReq, linkId, 3);
LAPI_BP_OFF(BpSendDataReq, length, 7);

LAPI_BP_SIZE(BpCloseSocketReq, LAPI_BP_CLOSE_SOCKET_REQ_LEN);
LAPI_BP_OFF(BpCloseSocketReq, linkId, 3);

LAPI_BP_SIZE(BpTlsSessionReq, LAPI_BP_TLS_SESSION_REQ_MIN_LEN);
LAPI_BP_OFF(BpTlsSessionReq, linkId, 3);
LAPI_BP_OFF(BpTlsSessionReq, fqdnLength, 7);

LAPI_BP_SIZE(SOCKET_MSG_RES_T, LAPI_BP_SOCKET_RES_LEN);
LAPI_BP_OFF(SOCKET_MSG_RES_T, linkId, 3);
LAPI_BP_OFF(SOCKET_MSG_RES_T, result, 7);

LAPI_BP_SIZE(TLS_MSG_RES_T, LAPI_BP_TLS_RES_LEN);
LAPI_BP_OFF(TLS_MSG_RES_T, linkId, 3);
LAPI_BP_OFF(TLS_MSG_RES_T, result, 7);

LAPI_BP_SIZE(BpSocketDataIndHead, LAPI_BP_SOCKET_DATA_IND_MIN_LEN - 4);
LAPI_BP_OFF(BpSocketDataIndHead, linkId, 3);
LAPI_BP_OFF(BpSocketDataIndHead, length, 7);

#endif /* LAPI_BPMSG_H */
