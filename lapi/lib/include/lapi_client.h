/*
 * Client library of the location server.
 *
 * An application opens a client with lapi_open(): the library connects
 * twice to the server's local socket, registers for the requested services
 * on the first connection (the synchronous one), waits for the server's
 * globalId, and attaches the second connection (the asynchronous one) with
 * it. Requests then go out on the synchronous connection; answers come back
 * on the synchronous or the asynchronous connection as the request's mode
 * chose, and indications (status changes, network-initiated notifications,
 * proximity hits) arrive on either. lapi_recv() returns the next whole
 * server message, typed, from either connection.
 *
 * Both descriptors are exposed for the application's own poll loop. The
 * library never buffers more than the one message it is assembling on each
 * connection, so "readable" on a descriptor is always the truth.
 *
 * Every function returns LAPI_OK (0) or a negative lapi_error; lapi_strerror
 * gives a text for each. After LAPI_E_IO and LAPI_E_CONNECT, errno tells the
 * cause. A client is not safe to share between threads without a lock.
 *
 * The header is C and C++. Installed, it lives with LAPI_Msg.h and
 * lapi_version.h in include/lapi/: include it as <lapi/lapi_client.h>.
 */
#ifndef LAPI_CLIENT_H
#define LAPI_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "LAPI_Msg.h"
#include "lapi_version.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where the server listens unless the application names another path. */
#define LAPI_DEFAULT_SOCKET_PATH "/tmp/lapisock"
/* Default for every wait of the library when 0 is given to lapi_open. */
#define LAPI_DEFAULT_TIMEOUT_MS 5000

/* Service bits of the registration. */
#define LAPI_SERVICE_BASIC 1u  /* requests only */
#define LAPI_SERVICE_MTLR 2u   /* network-initiated notifications; one client at most */
#define LAPI_SERVICE_STATUS 4u /* status change indications */

/* Request modes: where the answers of a request arrive. */
#define LAPI_MODE_ASYNC 0

/* The two connections of a client. */
#define LAPI_CONN_SYNC 0
#define LAPI_CONN_ASYNC 1

/* The longest server message: getLocationRsp. */
#define LAPI_MAX_SRV_MSG_LEN (LAPI_MSG_HEADER_LEN + LAPI_GET_LOCATION_RSP_LEN)

typedef enum lapi_error {
    LAPI_OK = 0,
    LAPI_E_INVAL = -1,        /* a bad argument */
    LAPI_E_NOMEM = -2,        /* out of memory */
    LAPI_E_PATH = -3,         /* the socket path does not fit a socket address */
    LAPI_E_CONNECT = -4,      /* no server accepts on the socket path */
    LAPI_E_REFUSED = -5,      /* the server closed the connection during the handshake */
    LAPI_E_TIMEOUT = -6,      /* nothing arrived, or could be sent, in time */
    LAPI_E_CLOSED = -7,       /* the server closed the connection */
    LAPI_E_IO = -8,           /* a socket call failed; errno tells why */
    LAPI_E_PROTOCOL = -9,     /* the server broke the protocol; the client is unusable */
    LAPI_E_UNKNOWN_MSG = -10, /* a message with an unknown identifier was skipped */
    LAPI_E_BAD_LENGTH = -11,  /* a message of the wrong length for its identifier was skipped */
    LAPI_E_INTR = -12,        /* a signal interrupted the wait */
    LAPI_E_STATE = -13,       /* the client is closed or unregistered */
    LAPI_E_SHORT = -14,       /* lapi_decode_msg: the buffer holds no whole message */
} lapi_error;

/* A text for every code; "unknown error" for any other value. */
const char *lapi_strerror(int err);

/* One server message as received. u.header is valid for every message;
 * the member named after msgId is valid for that message. */
typedef struct lapi_msg {
    uint16_t msgId;  /* LAPI_GET_LOCATION_RSP ... LAPI_PROXIMITY_HIT_IND, or 101/103/105 */
    uint16_t length; /* bytes of the whole message, header included */
    int conn;        /* LAPI_CONN_SYNC or LAPI_CONN_ASYNC */
    union {
        MsgHeader header;
        GetLocationRsp getLocationRsp;
        AbortLocationRsp abortLocationRsp;
        TimeOutRsp timeOutRsp;
        InvalidRequestRsp invalidRequestRsp;
        GetGpsDbDataRsp getGpsDbDataRsp;
        SetGpsDbDataRsp setGpsDbDataRsp;
        GetStatusRsp getStatusRsp;
        StatusChangeInd statusChangeInd;
        LocationNotificationInd locationNotificationInd;
        NotificationStatusInd notificationStatusInd;
        DistanceAzimuthRsp distanceAzimuthRsp;
        AddProximityRsp addProximityRsp;
        RemoveProximityRsp removeProximityRsp;
        ProximityHitInd proximityHitInd;
        RegisterRsp registerRsp;
        GetAsyncFdRsp getAsyncFdRsp;
        UnregisterRsp unregisterRsp;
        uint8_t raw[LAPI_MAX_SRV_MSG_LEN];
    } u;
} lapi_msg;

/* The protocol name of a message identifier ("getLocationRsp",
 * "registerReq", ...), or NULL for an identifier the protocol lacks. */
const char *lapi_msg_name(int msgId);

/* Decodes one server message from the start of buf. On LAPI_OK, *pUsed is
 * the message's size and *pMsg holds it (conn set to LAPI_CONN_SYNC).
 * LAPI_E_SHORT: more bytes are needed. LAPI_E_UNKNOWN_MSG / LAPI_E_BAD_LENGTH:
 * the message must be skipped; *pUsed is its size. LAPI_E_PROTOCOL: the
 * length field exceeds every server message; nothing after it can be trusted. */
int lapi_decode_msg(const void *buf, size_t len, lapi_msg *pMsg, size_t *pUsed);

typedef struct lapi_client lapi_client;

/* Connects to sockPath (NULL: LAPI_DEFAULT_SOCKET_PATH), registers with
 * service (its three low bits; at least one must be set) and attaches the
 * asynchronous connection. timeoutMs bounds the whole handshake and is kept
 * as the limit of later sends and of lapi_unregister (0: the default).
 * On success *ppClient is the new client; on failure it is NULL. */
int lapi_open(const char *sockPath, uint32_t service, int timeoutMs, lapi_client **ppClient);

/* Flags of lapi_open_ex. */
#define LAPI_OPEN_TRACE 1u /* trace from the first message of the handshake on */

/* lapi_open with flags (LAPI_OPEN_TRACE or 0). */
int lapi_open_ex(const char *sockPath, uint32_t service, int timeoutMs, unsigned flags,
                 lapi_client **ppClient);

/* Unregisters (waiting at most the client's timeout for the server's
 * answer; other messages that arrive meanwhile are dropped) and closes both
 * connections. Later requests fail with LAPI_E_STATE. */
int lapi_unregister(lapi_client *pClient);

/* Unregisters if the client is still registered (ignoring the outcome),
 * closes both connections and frees the client. NULL is allowed. */
void lapi_close(lapi_client *pClient);

/* The descriptors for poll(); -1 once closed. */
int lapi_sync_fd(const lapi_client *pClient);
int lapi_async_fd(const lapi_client *pClient);
/* The identifier the server gave at registration. */
uint32_t lapi_global_id(const lapi_client *pClient);
/* Changes the limit of sends and of lapi_unregister (0: the default). */
int lapi_set_timeout(lapi_client *pClient, int timeoutMs);

/* Tracing: when on, every message sent and received is dumped as a
 * "LAPI CLI" trace line on standard error, and library errors as
 * "LAPI Error CLI" lines. Off by default. */
int lapi_set_trace(lapi_client *pClient, int on);

/* Waits at most timeoutMs (-1: without limit; 0: only what is ready) for
 * the next server message on either connection, taking the two in turn.
 * LAPI_E_TIMEOUT: none arrived. LAPI_E_INTR: a signal arrived first (a
 * partly received message is kept). LAPI_E_UNKNOWN_MSG / LAPI_E_BAD_LENGTH:
 * a message was skipped (msgId and conn tell which); call again. */
int lapi_recv(lapi_client *pClient, lapi_msg *pMsg, int timeoutMs);
/* The same on one connection only (LAPI_CONN_SYNC or LAPI_CONN_ASYNC). */
int lapi_recv_conn(lapi_client *pClient, int conn, lapi_msg *pMsg, int timeoutMs);

/* ---- requests; mode: LAPI_MODE_SYNC or LAPI_MODE_ASYNC ---- */

/* Every field of getLocationReq after the header. */
typedef struct lapi_location_params {
    uint16_t mode;
    uint8_t sessionId;
    uint8_t transactionId;
    uint32_t responseTime; /* milliseconds allowed for a fix */
    uint32_t horizontalAccuracy;
    uint32_t verticalAccuracy;
    uint32_t preferredPowerConsumption;
    uint32_t interval;       /* period of reports, for periodic requests */
    uint32_t reportCriteria; /* LAPI_REPORT_PERIODIC or 0 for one fix */
    uint8_t costAllowed;
    uint8_t addressInfoRequired;
    uint8_t speedAndCourseRequired;
    uint8_t altitudeRequired;
    uint8_t nmeaRequired;
} lapi_location_params;

/* A single synchronous fix within 30 s, pair (1, 1), everything else 0. */
void lapi_location_params_init(lapi_location_params *pParams);

int lapi_get_location(lapi_client *pClient, const lapi_location_params *pParams);
int lapi_abort_location(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                        uint8_t transactionId);
int lapi_abort_all_location(lapi_client *pClient);
int lapi_last_known_location(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                             uint8_t transactionId);
int lapi_get_gps_db_data(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                         uint8_t transactionId, uint32_t fileId);
/* numFiles at most LAPI_MAX_DB_FILES; each entry's length 1 to
 * LAPI_DB_FILE_DATA_LEN, its data bytes in its data field. */
int lapi_set_gps_db_data(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                         uint8_t transactionId, const DbFile *pFiles, uint16_t numFiles);
int lapi_get_status(lapi_client *pClient, uint16_t mode, uint8_t sessionId, uint8_t transactionId);
/* Answers a locationNotificationInd with its own pair. */
int lapi_location_notification_cfm(lapi_client *pClient, uint8_t sessionId, uint8_t transactionId,
                                   uint32_t responseType);
int lapi_distance_azimuth(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                          uint8_t transactionId, double latitude1, double longitude1,
                          double latitude2, double longitude2, int distanceOnly);
int lapi_add_proximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                       uint8_t transactionId, double latitude, double longitude, double altitude,
                       double radius);
/* Removes the area added with the pair (sessionId, transactionId). */
int lapi_remove_proximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                          uint8_t transactionId);
/* Removes every area; the pair is a new request of its own. */
int lapi_remove_all_proximity(lapi_client *pClient, uint16_t mode, uint8_t sessionId,
                              uint8_t transactionId);

#ifdef __cplusplus
}
#endif

#endif /* LAPI_CLIENT_H */
