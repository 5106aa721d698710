/*
 * Messages in the client library: names and lengths (from the rows shared
 * with the server), decoding of one whole message, error texts, the
 * library's version.
 * Nothing here touches a descriptor, so all of it is testable alone.
 */
#include <string.h>

#include "LAPI_ApMsgRows.h"
#include "lapi_client.h"

namespace {

static_assert(sizeof(lapi_msg{}.u) == LAPI_MAX_SRV_MSG_LEN);

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
    const LAPI_ApMsgLenRow *pRow = LAPI_ApMsgRowOf(msgId);
    return pRow != nullptr ? pRow->pName : nullptr;
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
    const LAPI_ApMsgLenRow *pRow = LAPI_ApMsgRowOf(header.msgId);
    if (pRow == nullptr || !pRow->fromServer) {
        memcpy(pMsg->u.raw, buf, LAPI_MSG_HEADER_LEN);
        return LAPI_E_UNKNOWN_MSG;
    }
    if (!LAPI_LenFits(pRow->lenRule, pRow->len, header.msgLen)) {
        memcpy(pMsg->u.raw, buf, LAPI_MSG_HEADER_LEN);
        return LAPI_E_BAD_LENGTH;
    }
    memcpy(pMsg->u.raw, buf, whole);
    return LAPI_OK;
}
