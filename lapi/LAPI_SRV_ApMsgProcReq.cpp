/*
 * Client requests that go to the BP: location (single, periodic, abort,
 * abort all, last known), assistance data read and write, status, the
 * answer to a network-initiated notification, distance and azimuth, and
 * proximity areas. Each request that waits for the BP is kept as a
 * Transaction with a deadline; the timer scan ends the expired ones.
 *
 * The handlers are entries of the client dispatch table: the message starts
 * with its MsgHeader, and the dispatcher has already made sure that
 * msgLen + 8 bytes are buffered. A message may sit at any byte position of
 * the read buffer, so fields are copied out, never read in place.
 */
#include "LAPI_SRV_ApMsgProc.h"

#include <stdlib.h>
#include <string.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_LocationLog.h"

/* ------------------------------------------------------------------------ */
/* Deadlines                                                                 */
/* ------------------------------------------------------------------------ */

/* Ticks of LAPI_SRV_Times per second. */
#define LAPI_SRV_TICKS_PER_SEC 100

/* Seconds a request may wait for the BP. */
enum {
    LAPI_SRV_PERIODIC_DEADLINE_SEC = 5184000, /* 60 days: periodic reports until aborted */
    LAPI_SRV_SINGLE_FIX_EXTRA_SEC = 6,        /* added to the client's responseTime */
    LAPI_SRV_ABORT_DEADLINE_SEC = 5,
    LAPI_SRV_LAST_KNOWN_DEADLINE_SEC = 5,
    LAPI_SRV_DB_DEADLINE_SEC = 10,
    LAPI_SRV_STATUS_DEADLINE_SEC = 5,
    LAPI_SRV_DISTANCE_DEADLINE_SEC = 10,
    LAPI_SRV_ADD_PROXIMITY_DEADLINE_SEC = 10,
    LAPI_SRV_REMOVE_PROXIMITY_DEADLINE_SEC = 5,
};

int32_t LAPI_SRV_TicksAhead(uint32_t seconds) {
    long now = LAPI_SRV_Times();
    uint32_t ticks = seconds * LAPI_SRV_TICKS_PER_SEC;
    if (now >= 0) {
        /* The tick counter runs on past 2^31: deadlines are kept modulo 2^32
         * and compared by their signed distance to now. */
        ticks += static_cast<uint32_t>(static_cast<unsigned long>(now));
    }
    return static_cast<int32_t>(ticks);
}

int32_t LAPI_SRV_TicksLeft(int32_t expireTime, long now) {
    return static_cast<int32_t>(static_cast<uint32_t>(expireTime) -
                                static_cast<uint32_t>(static_cast<unsigned long>(now)));
}

uint32_t LAPI_SRV_GetLocationDeadlineSec(uint32_t responseTime, uint32_t reportCriteria) {
    if (reportCriteria == LAPI_REPORT_PERIODIC) {
        return LAPI_SRV_PERIODIC_DEADLINE_SEC;
    }
    return responseTime / 1000 + LAPI_SRV_SINGLE_FIX_EXTRA_SEC;
}

/* ------------------------------------------------------------------------ */
/* Small helpers                                                             */
/* ------------------------------------------------------------------------ */

/* Room for the largest BP message with its frame. */
#define LAPI_SRV_BP_FRAME_BUF_LEN (LAPI_BP_FRAME_MAX_LEN + LAPI_BP_FRAME_OVERHEAD)

/* Where the answers of a request go: mode 1 = the synchronous connection. */
static Fdops *ReplyFdops(const Client *pClient, uint32_t isSync) {
    if (pClient == nullptr) {
        return nullptr;
    }
    return isSync ? pClient->pSyncFdops : pClient->pAsyncFdops;
}

static MsgHeader ReadHeader(const uint8_t *pMsg) {
    MsgHeader hdr;
    memcpy(&hdr, pMsg, sizeof(hdr));
    return hdr;
}

/* The request prefix (mode, sessionId, transactionId) right after the header. */
static ReqPrefix ReadPrefix(const uint8_t *pMsg) {
    ReqPrefix prefix;
    memcpy(&prefix, pMsg + sizeof(MsgHeader), sizeof(prefix));
    return prefix;
}

/* The handler on whose behalf a shared step writes its diagnostic: the
 * line names that handler, as if it had written the line itself. */
struct LogSite {
    const char *pFunc;
    int line;
};
#define LOG_SITE (LogSite{__func__, __LINE__})
#define SITE_ERR(site, ...) LAPI_LogLine(1, 1, __FILE__, (site).line, (site).pFunc, __VA_ARGS__)

static Client *RequestClient(Fdops *pFdops, const MsgHeader &hdr, LogSite site) {
    Client *pClient = pFdops != nullptr ? static_cast<Client *>(pFdops->pFdInfo) : nullptr;
    if (pClient == nullptr) {
        SITE_ERR(site, "pFdops->pFdInfo == NULL, pid is : %d!", static_cast<int>(hdr.pid));
    }
    return pClient;
}

/* A BP message being built at offset 3 of its frame buffer. */
struct BpMsgWriter {
    uint8_t *pFrame;
    uint16_t len; /* message bytes written so far */
};

static uint8_t *BpMsgAt(BpMsgWriter *pW) {
    return pW->pFrame + LAPI_BP_FRAME_HEAD_LEN + pW->len;
}

static void PutU8(BpMsgWriter *pW, uint8_t v) {
    *BpMsgAt(pW) = v;
    pW->len = static_cast<uint16_t>(pW->len + 1);
}

/* A host-order integer of width bytes, in network order. */
static void PutNet(BpMsgWriter *pW, const void *pHost, int width) {
    LAPI_SRV_ByteOrderHostToNet(BpMsgAt(pW), pHost, width);
    pW->len = static_cast<uint16_t>(pW->len + width);
}

static void PutU16(BpMsgWriter *pW, uint16_t v) {
    PutNet(pW, &v, sizeof(v));
}
static void PutU32(BpMsgWriter *pW, uint32_t v) {
    PutNet(pW, &v, sizeof(v));
}

static void PutFixed(BpMsgWriter *pW, double x) {
    LAPI_SRV_DoubleToBpFixed(x, BpMsgAt(pW));
    pW->len = static_cast<uint16_t>(pW->len + LAPI_BP_FIXED_LEN);
}

static void PutBpHeader(BpMsgWriter *pW, uint8_t subCmdId, uint8_t sid, uint8_t tid) {
    PutU8(pW, subCmdId);
    PutU8(pW, sid);
    PutU8(pW, tid);
}

/* Frames the message and hands it to the channel: 0, or -1 when it could
 * not be sent. */
static int SendBpMsg(BpMsgWriter *pW) {
    uint16_t frameLen = LAPI_SRV_SetUpBpMsgFrame(pW->pFrame, pW->len);
    return LAPI_SRV_SendMsgToBp(pW->pFrame, frameLen);
}

/* Header check shared by every request: the identifier, then the exact body
 * length, with the handler's own wrong-length text. */
static bool CheckHeader(const MsgHeader &hdr, uint16_t msgId, uint16_t msgLen,
                        const char *pWrongLenFmt, LogSite site) {
    if (hdr.msgId != msgId) {
        SITE_ERR(site, "pMsgHeader->msgId : %d is not expected, pid : %d!", hdr.msgId,
                 static_cast<int>(hdr.pid));
        return false;
    }
    if (hdr.msgLen != msgLen) {
        SITE_ERR(site, pWrongLenFmt, hdr.msgLen, static_cast<int>(hdr.pid));
        return false;
    }
    return true;
}

/*
 * A request that starts a new transaction under the client's own pair.
 * Returns the transaction (already in LAPI_SRV_tranList, with subCmdId and
 * deadline set), or null with *pResult holding what the handler returns: the
 * result of the invalidRequestRsp when the pair is already in use, -1 when
 * no transaction could be created.
 */
static Transaction *StartTransaction(Client *pClient, const MsgHeader &hdr, const ReqPrefix &prefix,
                                     uint16_t subCmdId, uint32_t deadlineSec, int *pResult,
                                     LogSite site) {
    uint32_t isSync = prefix.mode == LAPI_MODE_SYNC ? 1 : 0;
    if (LAPI_SRV_GetTranByClientId(pClient, prefix.sessionId, prefix.transactionId, 0) != nullptr) {
        SITE_ERR(site, "Invalid client sid: %d, tid: %d, transaction exist! pid is : %d!",
                 prefix.sessionId, prefix.transactionId, static_cast<int>(hdr.pid));
        *pResult = LAPI_SRV_SendInvalidReqResponse(ReplyFdops(pClient, isSync), prefix.sessionId,
                                                   prefix.transactionId);
        return nullptr;
    }
    Transaction *pTran =
        LAPI_SRV_CreateTransaction(prefix.sessionId, prefix.transactionId, pClient, isSync);
    if (pTran == nullptr) {
        SITE_ERR(site, "Fail to create transaction, pid is : %d!", static_cast<int>(hdr.pid));
        *pResult = -1;
        return nullptr;
    }
    pTran->subCmdId = subCmdId;
    LAPI_SRV_SetTranExpireTime(pTran, LAPI_SRV_TicksAhead(deadlineSec));
    return pTran;
}

/* ------------------------------------------------------------------------ */
/* Short answers the server gives by itself                                  */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_SendInvalidReqResponse(Fdops *pFdops, uint8_t sid, uint8_t tid) {
    InvalidRequestRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    rsp.header.pid = 0;
    rsp.header.msgId = LAPI_INVALID_REQUEST_RSP;
    rsp.header.msgLen = LAPI_INVALID_REQUEST_RSP_LEN;
    rsp.sessionId = sid;
    rsp.transactionId = tid;
    /* Written straight to the connection: a refused pair keeps the client,
     * so a failure here is left to the caller's result. */
    if (pFdops == nullptr || LAPI_SRV_GeneralWrite(pFdops, &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send invalidReq response!");
        return -1;
    }
    return 0;
}

int LAPI_SRV_SendTimeOutReqResponse(Fdops *pFdops, uint8_t sid, uint8_t tid) {
    TimeOutRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    rsp.header.pid = 0;
    rsp.header.msgId = LAPI_TIME_OUT_RSP;
    rsp.header.msgLen = LAPI_TIME_OUT_RSP_LEN;
    rsp.sessionId = sid;
    rsp.transactionId = tid;
    if (LAPI_SRV_SendMsgToClient(pFdops, &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send timeout response!");
        return -1;
    }
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Location requests                                                         */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_AbortLocationReq(Transaction *pTran, uint32_t isSync) {
    if (pTran == nullptr) {
        return -1;
    }
    pTran->isSync = static_cast<uint8_t>(isSync);
    pTran->subCmdId = GEOLOCATION_ABORT_APBP_REQ;
    LAPI_SRV_SetTranExpireTime(pTran, LAPI_SRV_TicksAhead(LAPI_SRV_ABORT_DEADLINE_SEC));

    uint8_t frame[LAPI_BP_ABORT_LOCATION_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, GEOLOCATION_ABORT_APBP_REQ, pTran->sid, pTran->tid);
    int result = SendBpMsg(&w);
    if (result < 0) {
        LAPI_SRV_ERR("Fail to send abortLocation msg to BP, pid is : %d!",
                     pTran->pClient != nullptr ? static_cast<int>(pTran->pClient->pid) : 0);
    }
    return result;
}

int LAPI_SRV_ProcGetLocationMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_GET_LOCATION_REQ, LAPI_GET_LOCATION_REQ_LEN,
                     "Wrong get location msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    GetLocationReq req;
    memcpy(&req, pMsg, sizeof(req));
    ReqPrefix prefix = ReadPrefix(pMsg);

    int result = 0;
    Transaction *pTran = StartTransaction(
        pClient, hdr, prefix, GEOLOCATION_APBP_REQ,
        LAPI_SRV_GetLocationDeadlineSec(req.responseTime, req.reportCriteria), &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    pTran->reqParam = req.reportCriteria;
    LAPI_SRV_TRACE("PTran->pClient->pid=%d, pTran->sid=%d, pTran->tid=%d",
                   static_cast<int>(pTran->pClient->pid), pTran->sid, pTran->tid);

    LAPI_SRV_LOG_LocationReq(&req, pTran->sid, pTran->tid);

    uint8_t frame[LAPI_BP_GET_LOCATION_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, GEOLOCATION_APBP_REQ, pTran->sid, pTran->tid);
    PutU32(&w, req.responseTime);
    PutU32(&w, req.horizontalAccuracy);
    PutU32(&w, req.verticalAccuracy);
    PutU32(&w, req.preferredPowerConsumption);
    PutU32(&w, req.interval);
    PutU32(&w, req.reportCriteria);
    PutU8(&w, req.costAllowed);
    PutU8(&w, req.addressInfoRequired);
    PutU8(&w, req.speedAndCourseRequired);
    PutU8(&w, req.altitudeRequired);
    PutU8(&w, req.nmeaRequired);
    if (SendBpMsg(&w) < 0) {
        /* The transaction stays: its deadline cleans up. */
        LAPI_SRV_ERR("Fail to send getLocation msg to BP, pid is : %d!", static_cast<int>(hdr.pid));
    }
    return 0;
}

int LAPI_SRV_ProcAbortLocationMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_ABORT_LOCATION_REQ, LAPI_ABORT_LOCATION_REQ_LEN,
                     "Wrong abort location msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    ReqPrefix prefix = ReadPrefix(pMsg);
    uint32_t isSync = prefix.mode == LAPI_MODE_SYNC ? 1 : 0;
    Transaction *pTran =
        LAPI_SRV_GetTranByClientId(pClient, prefix.sessionId, prefix.transactionId, 0);
    if (pTran != nullptr && pTran->subCmdId == GEOLOCATION_APBP_REQ) {
        /* The abort's answer goes where this abort request asked for it. */
        LAPI_SRV_AbortLocationReq(pTran, isSync);
        return 0;
    }
    LAPI_SRV_ERR("Invalid abort location msg, pid is : %d!", static_cast<int>(hdr.pid));
    return LAPI_SRV_SendInvalidReqResponse(ReplyFdops(pClient, isSync), prefix.sessionId,
                                           prefix.transactionId);
}

int LAPI_SRV_ProcAbortAllLocationMsg(uint8_t *pMsg, Fdops * /*pFdops*/) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_ABORT_ALL_LOCATION_REQ, LAPI_ABORT_ALL_LOCATION_REQ_LEN,
                     "Wrong abort all location msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    /* Every running location request of every client is aborted, whoever
     * asks: the request is a reset of the positioning engine's work. The
     * abort only sends to the BP, so the list does not change under us. */
    ListNode *pPos = List_GetHeadPos(&LAPI_SRV_tranList);
    while (pPos != nullptr) {
        Transaction *pTran = static_cast<Transaction *>(List_GetNext(&LAPI_SRV_tranList, &pPos));
        if (pTran != nullptr && pTran->subCmdId == GEOLOCATION_APBP_REQ) {
            LAPI_SRV_AbortLocationReq(pTran, pTran->isSync);
        }
    }
    return 0;
}

int LAPI_SRV_ProcLastKnownLocationMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_LAST_KNOWN_LOCATION_REQ, LAPI_LAST_KNOWN_LOCATION_REQ_LEN,
                     "Wrong get last known location msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    int result = 0;
    Transaction *pTran =
        StartTransaction(pClient, hdr, ReadPrefix(pMsg), LAST_KNOWN_GEOLOCATION_APBP_REQ,
                         LAPI_SRV_LAST_KNOWN_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    uint8_t frame[LAPI_BP_LAST_KNOWN_LOCATION_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, LAST_KNOWN_GEOLOCATION_APBP_REQ, pTran->sid, pTran->tid);
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send getLastKnownLocation msg to BP, pid is : %d!",
                     static_cast<int>(hdr.pid));
    }
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Assistance data, status, notification answer, distance                    */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_ProcGetGpsDbDataMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_GET_GPS_DB_DATA_REQ, LAPI_GET_GPS_DB_DATA_REQ_LEN,
                     "Wrong get location state msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    GetGpsDbDataReq req;
    memcpy(&req, pMsg, sizeof(req));
    int result = 0;
    Transaction *pTran = StartTransaction(pClient, hdr, ReadPrefix(pMsg), DB_READ_APBP_REQ,
                                          LAPI_SRV_DB_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    uint8_t frame[LAPI_BP_GET_GPS_DB_DATA_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, DB_READ_APBP_REQ, pTran->sid, pTran->tid);
    PutU32(&w, req.fileId);
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send getGpsDbData msg to BP, pid is : %d!",
                     static_cast<int>(hdr.pid));
    }
    return 0;
}

/*
 * The client's entries, as the BP expects them: for entry i, its fileId and
 * length, then `length` bytes starting at the entry's data field, written
 * reversed as one big-endian number. A length above 4 runs on into the
 * following entries, as it always has; bytes past the end of the message
 * (beyond the last entry) are read as zeros.
 */
int LAPI_SRV_ProcSetGpsDbDataMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_SET_GPS_DB_DATA_REQ, LAPI_SET_GPS_DB_DATA_REQ_LEN,
                     "Wrong set location state msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    int result = 0;
    Transaction *pTran = StartTransaction(pClient, hdr, ReadPrefix(pMsg), DB_WRITE_APBP_REQ,
                                          LAPI_SRV_DB_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }

    /* The request with zeros behind it, so that no read leaves the message. */
    const size_t msgSize = sizeof(SetGpsDbDataReq);
    uint8_t padded[sizeof(SetGpsDbDataReq) + LAPI_BP_MSG_MAX_LEN];
    memset(padded, 0, sizeof(padded));
    memcpy(padded, pMsg, msgSize);

    uint16_t numFiles;
    memcpy(&numFiles, padded + offsetof(SetGpsDbDataReq, numFiles), sizeof(numFiles));

    uint8_t frame[LAPI_SRV_BP_FRAME_BUF_LEN];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, DB_WRITE_APBP_REQ, pTran->sid, pTran->tid);
    PutU16(&w, numFiles);
    for (uint32_t i = 0; i < numFiles; ++i) {
        size_t entry = offsetof(SetGpsDbDataReq, dbFile) + sizeof(DbFile) * i;
        uint32_t fileId = 0;
        uint16_t length = 0;
        if (entry + offsetof(DbFile, data) <= msgSize) {
            memcpy(&fileId, padded + entry + offsetof(DbFile, fileId), sizeof(fileId));
            memcpy(&length, padded + entry + offsetof(DbFile, length), sizeof(length));
        }
        /* Checked before the entry is written: the payload may not grow
         * beyond what one frame carries. */
        if (w.len + LAPI_BP_DB_FILE_HEAD_LEN + length > LAPI_BP_MSG_MAX_LEN) {
            LAPI_SRV_ERR("Buffer overflow when formating BP msg, pid is : %d!",
                         static_cast<int>(hdr.pid));
            return -1;
        }
        PutU32(&w, fileId);
        PutU16(&w, length);
        size_t data = entry + offsetof(DbFile, data);
        if (length > 0) {
            if (data < msgSize) {
                PutNet(&w, padded + data, length);
            } else {
                memset(BpMsgAt(&w), 0, length);
                w.len = static_cast<uint16_t>(w.len + length);
            }
        }
    }
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send setGpsDbData msg to BP, pid is : %d!",
                     static_cast<int>(hdr.pid));
    }
    return 0;
}

int LAPI_SRV_ProcGetStatusMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_GET_STATUS_REQ, LAPI_GET_STATUS_REQ_LEN,
                     "Wrong get status msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    int result = 0;
    Transaction *pTran = StartTransaction(pClient, hdr, ReadPrefix(pMsg), GET_STATUS_APBP_REQ,
                                          LAPI_SRV_STATUS_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    uint8_t frame[LAPI_BP_GET_STATUS_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, GET_STATUS_APBP_REQ, pTran->sid, pTran->tid);
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send getStatus msg to BP, pid is : %d!", static_cast<int>(hdr.pid));
    }
    return 0;
}

/* The pair in the answer is the BP's own, from the notification being
 * answered: it goes back unchanged and nothing is kept here. */
int LAPI_SRV_ProcLocationNotificationCfmMsg(uint8_t *pMsg, Fdops * /*pFdops*/) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_LOCATION_NOTIFICATION_CFM, LAPI_LOCATION_NOTIFICATION_CFM_LEN,
                     "Wrong location notification confirm msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    LocationNotificationCfm cfm;
    memcpy(&cfm, pMsg, sizeof(cfm));
    uint8_t frame[LAPI_BP_LOCATION_NOTIFICATION_RSP_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, LOCATION_NOTIFICATION_APBP_RES, cfm.sessionId, cfm.transactionId);
    PutU32(&w, cfm.responseType);
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send locationNotificationCfm msg to BP, pid is : %d!",
                     static_cast<int>(hdr.pid));
    }
    return 0;
}

int LAPI_SRV_ProcDistanceAzimuthMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_DISTANCE_AZIMUTH_REQ, LAPI_DISTANCE_AZIMUTH_REQ_LEN,
                     "Wrong distance and azimuth req msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    DistanceAzimuthReq req;
    memcpy(&req, pMsg, sizeof(req));
    int result = 0;
    Transaction *pTran =
        StartTransaction(pClient, hdr, ReadPrefix(pMsg), DISTANCE_AND_AZIMUTH_APBP_REQ,
                         LAPI_SRV_DISTANCE_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    uint8_t frame[LAPI_BP_DISTANCE_AZIMUTH_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, DISTANCE_AND_AZIMUTH_APBP_REQ, pTran->sid, pTran->tid);
    PutFixed(&w, req.latitude1);
    PutFixed(&w, req.longitude1);
    PutFixed(&w, req.latitude2);
    PutFixed(&w, req.longitude2);
    PutU8(&w, req.distanceOnly);
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send distanceAzimuthReq msg to BP, pid is : %d!",
                     static_cast<int>(hdr.pid));
    }
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Proximity areas                                                           */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_ProcAddProximityMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_ADD_PROXIMITY_REQ, LAPI_ADD_PROXIMITY_REQ_LEN,
                     "Wrong add proximity req msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    AddProximityReq req;
    memcpy(&req, pMsg, sizeof(req));
    int result = 0;
    /* The transaction stays after the BP's answer as the record of the area. */
    Transaction *pTran = StartTransaction(pClient, hdr, ReadPrefix(pMsg), PROXIMITY_ADD_APBP_REQ,
                                          LAPI_SRV_ADD_PROXIMITY_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    uint8_t frame[LAPI_BP_ADD_PROXIMITY_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, PROXIMITY_ADD_APBP_REQ, pTran->sid, pTran->tid);
    PutFixed(&w, req.latitude);
    PutFixed(&w, req.longitude);
    PutFixed(&w, req.altitude);
    PutFixed(&w, req.radius);
    if (SendBpMsg(&w) < 0) {
        LAPI_SRV_ERR("Fail to send addProximityReq msg to BP, pid is : %d!",
                     static_cast<int>(hdr.pid));
    }
    return 0;
}

static void SendRemoveProximityReq(const Transaction *pTran, uint32_t removeType,
                                   const MsgHeader &hdr, LogSite site) {
    uint8_t frame[LAPI_BP_REMOVE_PROXIMITY_REQ_LEN + LAPI_BP_FRAME_OVERHEAD];
    BpMsgWriter w = {frame, 0};
    PutBpHeader(&w, PROXIMITY_REM_APBP_REQ, pTran->sid, pTran->tid);
    PutU32(&w, removeType);
    if (SendBpMsg(&w) < 0) {
        SITE_ERR(site, "Fail to send removeProximityReq msg to BP, pid is : %d!",
                 static_cast<int>(hdr.pid));
    }
}

int LAPI_SRV_ProcRemoveAllProximityMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_REMOVE_PROXIMITY_REQ, LAPI_REMOVE_PROXIMITY_REQ_LEN,
                     "Wrong remove proximity req msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    RemoveProximityReq req;
    memcpy(&req, pMsg, sizeof(req));
    int result = 0;
    Transaction *pTran =
        StartTransaction(pClient, hdr, ReadPrefix(pMsg), PROXIMITY_REM_APBP_REQ,
                         LAPI_SRV_REMOVE_PROXIMITY_DEADLINE_SEC, &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    pTran->reqParam = req.removeType;
    SendRemoveProximityReq(pTran, req.removeType, hdr, LOG_SITE);
    return 0;
}

int LAPI_SRV_ProcRemoveProximityMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    if (!CheckHeader(hdr, LAPI_REMOVE_PROXIMITY_REQ, LAPI_REMOVE_PROXIMITY_REQ_LEN,
                     "Wrong remove proximity req msg length: %d, pid is: %d!", LOG_SITE)) {
        return -1;
    }
    RemoveProximityReq req;
    memcpy(&req, pMsg, sizeof(req));
    if (req.removeType == LAPI_REMOVE_ALL_PROXIMITY) {
        return LAPI_SRV_ProcRemoveAllProximityMsg(pMsg, pFdops);
    }
    Client *pClient = RequestClient(pFdops, hdr, LOG_SITE);
    if (pClient == nullptr) {
        return -1;
    }
    uint32_t isSync = req.mode == LAPI_MODE_SYNC ? 1 : 0;
    Transaction *pTran = LAPI_SRV_GetTranByClientId(pClient, req.sessionId, req.transactionId, 0);
    /* An active area can be removed, and so can an add whose answer goes to
     * the asynchronous connection; an add still pending on the synchronous
     * connection cannot. */
    bool bRemovable =
        pTran != nullptr && (pTran->subCmdId == PROXIMITY_ADD_APBP_RES ||
                             (pTran->subCmdId == PROXIMITY_ADD_APBP_REQ && pTran->isSync == 0));
    if (!bRemovable) {
        LAPI_SRV_ERR(
            "Invalid client sid: %d, tid: %d, proximity not exist or can not be removed now! pid "
            "is : %d!",
            req.sessionId, req.transactionId, static_cast<int>(hdr.pid));
        return LAPI_SRV_SendInvalidReqResponse(ReplyFdops(pClient, isSync), req.sessionId,
                                               req.transactionId);
    }
    pTran->subCmdId = PROXIMITY_REM_APBP_REQ;
    LAPI_SRV_SetTranExpireTime(pTran, LAPI_SRV_TicksAhead(LAPI_SRV_REMOVE_PROXIMITY_DEADLINE_SEC));
    pTran->isSync = static_cast<uint8_t>(isSync);
    pTran->reqParam = req.removeType;
    SendRemoveProximityReq(pTran, req.removeType, hdr, LOG_SITE);
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Deadlines                                                                 */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_GetLocationTimeOut(Transaction *pTran) {
    if (LAPI_SRV_AddTranList(pTran) != 0) {
        LAPI_SRV_ERR("Fail to add pTran into LAPI_SRV_tranList!");
        return 1;
    }
    /* The BP gets 5 more seconds to confirm the abort; the client learns
     * the outcome from the abort's answer or from timeOutRsp. */
    LAPI_SRV_AbortLocationReq(pTran, pTran->isSync);
    return 0;
}

/* A transaction whose deadline passed, already out of the list. Returns 1
 * when the caller must free it. */
int LAPI_SRV_TranTimeOut(Transaction *pTran) {
    if (pTran->subCmdId == GEOLOCATION_APBP_REQ) {
        return LAPI_SRV_GetLocationTimeOut(pTran);
    }
    LAPI_SRV_SendTimeOutReqResponse(ReplyFdops(pTran->pClient, pTran->isSync), pTran->clientSid,
                                    pTran->clientTid);
    return 1;
}

void LAPI_SRV_ScanTranList(struct timeval *pTimeout) {
    long wait = LAPI_SRV_MAX_TIMEOUT_TICKS;
    long now = LAPI_SRV_Times();
    int32_t bound = 0;
    if (now >= 0 && LAPI_SRV_GetTranScanBound(&bound) && LAPI_SRV_TicksLeft(bound, now) > 0) {
        /* Nothing can have expired yet: the walk is skipped, so a turn of
         * the loop costs the same with one or 60 000 transactions alive. */
        int32_t left = LAPI_SRV_TicksLeft(bound, now);
        if (left < wait) {
            wait = left;
        }
    } else if (now >= 0) {
        ListNode *pPos = List_GetHeadPos(&LAPI_SRV_tranList);
        while (pPos != nullptr) {
            Transaction *pTran =
                static_cast<Transaction *>(List_GetNext(&LAPI_SRV_tranList, &pPos));
            if (pTran == nullptr) {
                continue;
            }
            int32_t left = LAPI_SRV_TicksLeft(pTran->expireTime, now);
            if (left > 0) {
                if (left < wait) {
                    wait = left;
                }
                continue;
            }
            LAPI_SRV_UnlinkTran(pTran);
            LAPI_SRV_tranListChanged = 0;
            if (LAPI_SRV_TranTimeOut(pTran)) {
                free(pTran);
            }
            if (LAPI_SRV_tranListChanged) {
                /* The procedure added or removed transactions (a relinked
                 * abort, a client removed by a failed send): start again. */
                wait = LAPI_SRV_MAX_TIMEOUT_TICKS;
                now = LAPI_SRV_Times();
                if (now < 0) {
                    break;
                }
                pPos = List_GetHeadPos(&LAPI_SRV_tranList);
            }
        }
        if (now >= 0) {
            /* Every listed deadline lies at or after this moment. */
            LAPI_SRV_SetTranScanBound(
                static_cast<int32_t>(static_cast<uint32_t>(now) + static_cast<uint32_t>(wait)));
        }
    }
    if (pTimeout != nullptr) {
        pTimeout->tv_sec = wait / LAPI_SRV_TICKS_PER_SEC;
        pTimeout->tv_usec = (wait % LAPI_SRV_TICKS_PER_SEC) * (1000000 / LAPI_SRV_TICKS_PER_SEC);
    }
}
