/*
 * One row per client-message identifier: its name, its direction and the
 * length rule of its body (after the MsgHeader). The server's dispatcher,
 * the message tracers of both sides and the client library's decoder all
 * check a message's length against these rows, so a length is written down
 * once. The server keeps its handlers beside the rows (LAPI_SRV_ApMsgRow);
 * nothing here refers to server code.
 */
#ifndef LAPI_APMSGROWS_H
#define LAPI_APMSGROWS_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "LAPI_Msg.h"

/* How a row checks the length of a message (client messages: the body
 * after the MsgHeader; BP messages: the whole message). */
enum LAPI_LenRule : uint8_t {
    LAPI_LEN_EXACT = 0,    /* length == len */
    LAPI_LEN_AT_LEAST = 1, /* length >= len */
};

constexpr bool LAPI_LenFits(LAPI_LenRule rule, uint16_t len, unsigned length) {
    return rule == LAPI_LEN_EXACT ? length == len : length >= len;
}

struct LAPI_ApMsgLenRow {
    uint16_t msgId;
    const char *pName; /* as traced: "getLocationReq" */
    bool fromServer;   /* server to client (traced "S->C"), else "C->S" */
    LAPI_LenRule lenRule;
    uint16_t len; /* of the body after the MsgHeader */
    /* The server dispatcher's wrong-length text (takes msgLen, then the
     * pid), for the requests it dispatches; null for the others. */
    const char *pWrongLenFmt;
};

#define LAPI_AP_SRV_MSG(msgId, name, len)                     \
    LAPI_ApMsgLenRow {                                        \
        (msgId), (name), true, LAPI_LEN_EXACT, (len), nullptr \
    }
#define LAPI_AP_CLI_MSG(msgId, name, len, wrongLenFmt)               \
    LAPI_ApMsgLenRow {                                               \
        (msgId), (name), false, LAPI_LEN_EXACT, (len), (wrongLenFmt) \
    }

/* Indexed by msgId. Every message has one fixed length. */
inline constexpr LAPI_ApMsgLenRow LAPI_apSrvMsgRows[LAPI_SRV_MSG_COUNT] = {
    LAPI_AP_SRV_MSG(LAPI_GET_LOCATION_RSP, "getLocationRsp", LAPI_GET_LOCATION_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_ABORT_LOCATION_RSP, "abortLocationRsp", LAPI_ABORT_LOCATION_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_TIME_OUT_RSP, "timeOutRsp", LAPI_TIME_OUT_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_INVALID_REQUEST_RSP, "invalidRequestRsp", LAPI_INVALID_REQUEST_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_GET_GPS_DB_DATA_RSP, "getGpsDbDataRsp", LAPI_GET_GPS_DB_DATA_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_SET_GPS_DB_DATA_RSP, "setGpsDbDataRsp", LAPI_SET_GPS_DB_DATA_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_GET_STATUS_RSP, "getStatusRsp", LAPI_GET_STATUS_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_STATUS_CHANGE_IND, "statusChangeInd", LAPI_STATUS_CHANGE_IND_LEN),
    LAPI_AP_SRV_MSG(LAPI_LOCATION_NOTIFICATION_IND, "locationNotificationInd",
                    LAPI_LOCATION_NOTIFICATION_IND_LEN),
    LAPI_AP_SRV_MSG(LAPI_NOTIFICATION_STATUS_IND, "notificationStatusInd",
                    LAPI_NOTIFICATION_STATUS_IND_LEN),
    LAPI_AP_SRV_MSG(LAPI_DISTANCE_AZIMUTH_RSP, "distanceAzimuthRsp", LAPI_DISTANCE_AZIMUTH_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_ADD_PROXIMITY_RSP, "addProximityRsp", LAPI_ADD_PROXIMITY_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_REMOVE_PROXIMITY_RSP, "removeProximityRsp", LAPI_REMOVE_PROXIMITY_RSP_LEN),
    LAPI_AP_SRV_MSG(LAPI_PROXIMITY_HIT_IND, "proximityHitInd", LAPI_PROXIMITY_HIT_IND_LEN),
};

/* Indexed by msgId - LAPI_CLI_MSG_BASE. The handshake messages carry no
 * dispatcher text: the handshake checks them with texts of its own. */
inline constexpr LAPI_ApMsgLenRow LAPI_apCliMsgRows[LAPI_CLI_MSG_COUNT] = {
    LAPI_AP_CLI_MSG(LAPI_REGISTER_REQ, "registerReq", LAPI_REGISTER_REQ_LEN, nullptr),
    LAPI_AP_SRV_MSG(LAPI_REGISTER_RSP, "registerRsp", LAPI_REGISTER_RSP_LEN),
    LAPI_AP_CLI_MSG(LAPI_GET_ASYNC_FD_REQ, "getAsyncFdReq", LAPI_GET_ASYNC_FD_REQ_LEN, nullptr),
    LAPI_AP_SRV_MSG(LAPI_GET_ASYNC_FD_RSP, "getAsyncFdRsp", LAPI_GET_ASYNC_FD_RSP_LEN),
    LAPI_AP_CLI_MSG(LAPI_UNREGISTER_REQ, "unregisterReq", LAPI_UNREGISTER_REQ_LEN,
                    "Wrong unregister msg length: %d, pid is: %d!"),
    LAPI_AP_SRV_MSG(LAPI_UNREGISTER_RSP, "unregisterRsp", LAPI_UNREGISTER_RSP_LEN),
    LAPI_AP_CLI_MSG(LAPI_GET_LOCATION_REQ, "getLocationReq", LAPI_GET_LOCATION_REQ_LEN,
                    "Wrong get location msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_ABORT_LOCATION_REQ, "abortLocationReq", LAPI_ABORT_LOCATION_REQ_LEN,
                    "Wrong abort location msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_ABORT_ALL_LOCATION_REQ, "abortAllLocationReq",
                    LAPI_ABORT_ALL_LOCATION_REQ_LEN,
                    "Wrong abort all location msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_LAST_KNOWN_LOCATION_REQ, "lastKnownLocationReq",
                    LAPI_LAST_KNOWN_LOCATION_REQ_LEN,
                    "Wrong get last known location msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_GET_GPS_DB_DATA_REQ, "getGpsDbDataReq", LAPI_GET_GPS_DB_DATA_REQ_LEN,
                    "Wrong get location state msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_SET_GPS_DB_DATA_REQ, "setGpsDbDataReq", LAPI_SET_GPS_DB_DATA_REQ_LEN,
                    "Wrong set location state msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_GET_STATUS_REQ, "getStatusReq", LAPI_GET_STATUS_REQ_LEN,
                    "Wrong get status msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_LOCATION_NOTIFICATION_CFM, "locationNotificationCfm",
                    LAPI_LOCATION_NOTIFICATION_CFM_LEN,
                    "Wrong location notification confirm msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_DISTANCE_AZIMUTH_REQ, "distanceAzimuthReq", LAPI_DISTANCE_AZIMUTH_REQ_LEN,
                    "Wrong distance and azimuth req msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_ADD_PROXIMITY_REQ, "addProximityReq", LAPI_ADD_PROXIMITY_REQ_LEN,
                    "Wrong add proximity req msg length: %d, pid is: %d!"),
    LAPI_AP_CLI_MSG(LAPI_REMOVE_PROXIMITY_REQ, "removeProximityReq", LAPI_REMOVE_PROXIMITY_REQ_LEN,
                    "Wrong remove proximity req msg length: %d, pid is: %d!"),
};

#undef LAPI_AP_SRV_MSG
#undef LAPI_AP_CLI_MSG

/* The row of msgId, or null for an identifier outside both ranges. */
constexpr const LAPI_ApMsgLenRow *LAPI_ApMsgRowOf(int msgId) {
    if (msgId >= 0 && msgId < LAPI_SRV_MSG_COUNT) {
        return &LAPI_apSrvMsgRows[msgId];
    }
    if (msgId >= LAPI_CLI_MSG_BASE && msgId < LAPI_CLI_MSG_BASE + LAPI_CLI_MSG_COUNT) {
        return &LAPI_apCliMsgRows[msgId - LAPI_CLI_MSG_BASE];
    }
    return nullptr;
}

/* Whether a message of identifier msgId and body length msgLen fits its
 * row (false for an identifier without one). */
constexpr bool LAPI_ApMsgLenFits(int msgId, unsigned msgLen) {
    const LAPI_ApMsgLenRow *pRow = LAPI_ApMsgRowOf(msgId);
    return pRow != nullptr && LAPI_LenFits(pRow->lenRule, pRow->len, msgLen);
}

/* A zeroed message of type T with its header filled in: identifier kMsgId,
 * the body length of its row, and pid (0 in what the server sends). */
template <typename T, uint16_t kMsgId>
T LAPI_NewApMsg(uint32_t pid) {
    constexpr const LAPI_ApMsgLenRow *pRow = LAPI_ApMsgRowOf(kMsgId);
    static_assert(pRow != nullptr && pRow->lenRule == LAPI_LEN_EXACT &&
                      sizeof(T) == LAPI_MSG_HEADER_LEN + pRow->len,
                  "a message of its row's length");
    T msg;
    memset(&msg, 0, sizeof(msg));
    msg.header.pid = pid;
    msg.header.msgId = kMsgId;
    msg.header.msgLen = pRow->len;
    return msg;
}

namespace lapi_rows_detail {
constexpr bool RowsIndexedById() {
    for (int i = 0; i < LAPI_SRV_MSG_COUNT; ++i) {
        if (LAPI_apSrvMsgRows[i].msgId != i || !LAPI_apSrvMsgRows[i].fromServer) {
            return false;
        }
    }
    for (int i = 0; i < LAPI_CLI_MSG_COUNT; ++i) {
        if (LAPI_apCliMsgRows[i].msgId != LAPI_CLI_MSG_BASE + i) {
            return false;
        }
    }
    return true;
}
}  // namespace lapi_rows_detail
static_assert(lapi_rows_detail::RowsIndexedById(), "each row sits at its identifier");

#endif /* LAPI_APMSGROWS_H */
