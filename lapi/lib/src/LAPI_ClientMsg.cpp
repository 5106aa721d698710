/*
 * Message tables of the client library: names, the fixed body length of
 * every server message, decoding of one whole message, error texts, the
 * library's version.
 * Nothing here touches a descriptor, so all of it is testable alone.
 */
#include <string.h>

#include <array>

#include "LAPI_ClientInt.h"
#include "lapi_client.h"

namespace {

struct MsgRow {
    const char *name;
    int bodyLen; /* -1: the identifier is not in the protocol */
    bool fromServer;
};

constexpr MsgRow kNoRow = {nullptr, -1, false};

constexpr std::array<MsgRow, LAPI_SRV_MSG_COUNT> kSrvRows = {{
    {"getLocationRsp", LAPI_GET_LOCATION_RSP_LEN, true},
    {"abortLocationRsp", LAPI_ABORT_LOCATION_RSP_LEN, true},
    {"timeOutRsp", LAPI_TIME_OUT_RSP_LEN, true},
    {"invalidRequestRsp", LAPI_INVALID_REQUEST_RSP_LEN, true},
    {"getGpsDbDataRsp", LAPI_GET_GPS_DB_DATA_RSP_LEN, true},
    {"setGpsDbDataRsp", LAPI_SET_GPS_DB_DATA_RSP_LEN, true},
    {"getStatusRsp", LAPI_GET_STATUS_RSP_LEN, true},
    {"statusChangeInd", LAPI_STATUS_CHANGE_IND_LEN, true},
    {"locationNotificationInd", LAPI_LOCATION_NOTIFICATION_IND_LEN, true},
    {"notificationStatusInd", LAPI_NOTIFICATION_STATUS_IND_LEN, true},
    {"distanceAzimuthRsp", LAPI_DISTANCE_AZIMUTH_RSP_LEN, true},
    {"addProximityRsp", LAPI_ADD_PROXIMITY_RSP_LEN, true},
    {"removeProximityRsp", LAPI_REMOVE_PROXIMITY_RSP_LEN, true},
    {"proximityHitInd", LAPI_PROXIMITY_HIT_IND_LEN, true},
}};

constexpr std::array<MsgRow, LAPI_CLI_MSG_COUNT> kCliRows = {{
    {"registerReq", LAPI_REGISTER_REQ_LEN, false},
    {"registerRsp", LAPI_REGISTER_RSP_LEN, true},
    {"getAsyncFdReq", LAPI_GET_ASYNC_FD_REQ_LEN, false},
    {"getAsyncFdRsp", LAPI_GET_ASYNC_FD_RSP_LEN, true},
    {"unregisterReq", LAPI_UNREGISTER_REQ_LEN, false},
    {"unregisterRsp", LAPI_UNREGISTER_RSP_LEN, true},
    {"getLocationReq", LAPI_GET_LOCATION_REQ_LEN, false},
    {"abortLocationReq", LAPI_ABORT_LOCATION_REQ_LEN, false},
    {"abortAllLocationReq", LAPI_ABORT_ALL_LOCATION_REQ_LEN, false},
    {"lastKnownLocationReq", LAPI_LAST_KNOWN_LOCATION_REQ_LEN, false},
    {"getGpsDbDataReq", LAPI_GET_GPS_DB_DATA_REQ_LEN, false},
    {"setGpsDbDataReq", LAPI_SET_GPS_DB_DATA_REQ_LEN, false},
    {"getStatusReq", LAPI_GET_STATUS_REQ_LEN, false},
    {"locationNotificationCfm", LAPI_LOCATION_NOTIFICATION_CFM_LEN, false},
    {"distanceAzimuthReq", LAPI_DISTANCE_AZIMUTH_REQ_LEN, false},
    {"addProximityReq", LAPI_ADD_PROXIMITY_REQ_LEN, false},
    {"removeProximityReq", LAPI_REMOVE_PROXIMITY_REQ_LEN, false},
}};

static_assert(kSrvRows.size() == LAPI_SRV_MSG_COUNT);
static_assert(kCliRows.size() == LAPI_CLI_MSG_COUNT);
static_assert(sizeof(lapi_msg{}.u) == LAPI_MAX_SRV_MSG_LEN);

const MsgRow &Row(int msgId) {
    if (msgId >= 0 && msgId < LAPI_SRV_MSG_COUNT) {
        return kSrvRows[static_cast<size_t>(msgId)];
    }
    if (msgId >= LAPI_CLI_MSG_BASE && msgId < LAPI_CLI_MSG_BASE + LAPI_CLI_MSG_COUNT) {
        return kCliRows[static_cast<size_t>(msgId - LAPI_CLI_MSG_BASE)];
    }
    return kNoRow;
}

struct ErrText {
    int code;
    const char *text;
};

constexpr ErrText kErrTexts[] = {
    {LAPI_OK, "success"},
    {LAPI_E_INVAL, "invalid argument"},
    {LAPI_E_NOMEM, "out of memory"},
    {LAPI_E_PATH, "socket path too long for a socket address"},
    {LAPI_E_CONNECT, "cannot connect to the location server"},
    {LAPI_E_REFUSED, "the location server refused the registration"},
    {LAPI_E_TIMEOUT, "timed out waiting for the location server"},
    {LAPI_E_CLOSED, "the location server closed the connection"},
    {LAPI_E_IO, "socket error"},
    {LAPI_E_PROTOCOL, "protocol error: the server sent a message that cannot be read"},
    {LAPI_E_UNKNOWN_MSG, "skipped a message with an unknown identifier"},
    {LAPI_E_BAD_LENGTH, "skipped a message whose length does not match its identifier"},
    {LAPI_E_INTR, "interrupted by a signal"},
    {LAPI_E_STATE, "the client is not registered"},
    {LAPI_E_SHORT, "incomplete message"},
};

}  // namespace

int LAPI_CLI_ServerBodyLen(int msgId) {
    const MsgRow &row = Row(msgId);
    return row.fromServer ? row.bodyLen : -1;
}

extern "C" const char *lapi_strerror(int err) {
    for (const ErrText &e : kErrTexts) {
        if (e.code == err) {
            return e.text;
        }
    }
    return "unknown error";
}

extern "C" const char *lapi_version(void) {
    return LAPI_VERSION_STRING;
}

extern "C" const char *lapi_msg_name(int msgId) {
    return Row(msgId).name;
}

extern "C" int lapi_decode_msg(const void *buf, size_t len, lapi_msg *pMsg, size_t *pUsed) {
    if (buf == nullptr || pMsg == nullptr || pUsed == nullptr) {
        return LAPI_E_INVAL;
    }
    *pUsed = 0;
    if (len < LAPI_MSG_HEADER_LEN) {
        return LAPI_E_SHORT;
    }
    MsgHeader header;
    memcpy(&header, buf, sizeof(header));
    size_t whole = LAPI_MSG_HEADER_LEN + static_cast<size_t>(header.msgLen);
    if (whole > LAPI_MAX_SRV_MSG_LEN) {
        /* No server message is this long: the length itself is suspect, so
         * the bytes after it cannot be framed either. */
        return LAPI_E_PROTOCOL;
    }
    if (len < whole) {
        return LAPI_E_SHORT;
    }
    *pUsed = whole;
    memset(pMsg, 0, sizeof(*pMsg));
    pMsg->msgId = header.msgId;
    pMsg->length = static_cast<uint16_t>(whole);
    pMsg->conn = LAPI_CONN_SYNC;
    int expected = LAPI_CLI_ServerBodyLen(header.msgId);
    if (expected < 0) {
        memcpy(pMsg->u.raw, buf, LAPI_MSG_HEADER_LEN);
        return LAPI_E_UNKNOWN_MSG;
    }
    if (expected != header.msgLen) {
        memcpy(pMsg->u.raw, buf, LAPI_MSG_HEADER_LEN);
        return LAPI_E_BAD_LENGTH;
    }
    memcpy(pMsg->u.raw, buf, whole);
    return LAPI_OK;
}
