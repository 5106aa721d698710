/*
 * Client requests that go to the BP: location (single, periodic, abort,
 * abort all, last known), assistance data read and write, status, the
 * answer to a network-initiated notification, distance and azimuth, and
 * proximity areas. Each request that waits for the BP is kept as a
 * Transaction with a deadline; the timer scan ends the expired ones.
 *
 * The handlers are reached through their dispatch rows (at the end of this
 * file): the message starts with its MsgHeader, msgLen + 8 bytes are
 * buffered, and the row has checked the identifier and the length before
 * the handler runs. A message may sit at any byte position of the read
 * buffer, so it is copied out through a LAPI_Reader, never read in place.
 */
#include "LAPI_SRV_ApMsgProc.h"

#include <stdlib.h>
#include <string.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_Wire.h"

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

/* The first sizeof(T) bytes of the message as a T: the whole request, whose
 * length its row has checked, or the MsgHeader alone. */
template <typename T>
static T ReadMsg(const uint8_t *pMsg) {
    T msg;
    memset(&msg, 0, sizeof(msg));
    LAPI_Reader(pMsg, sizeof(msg)).GetBytes(&msg, sizeof(msg));
    return msg;
}

static MsgHeader ReadHeader(const uint8_t *pMsg) {
    return ReadMsg<MsgHeader>(pMsg);
}

/* The request prefix (mode, sessionId, transactionId) right after the header. */
static ReqPrefix ReadPrefix(const uint8_t *pMsg) {
    LAPI_Reader r(pMsg, sizeof(MsgHeader) + sizeof(ReqPrefix));
    ReqPrefix prefix;
    memset(&prefix, 0, sizeof(prefix));
    r.Skip(sizeof(MsgHeader));
    r.GetBytes(&prefix, sizeof(prefix));
    return prefix;
}

/* The handler on whose behalf a shared step writes its diagnostic: the
 * line names that handler, as if it had written the line itself. */
struct LogSite {
    const char *pFunc;
    int line;
};
#define LOG_SITE (LogSite{__func__, __LINE__})
#define SITE_ERR(site, ...) \
    LAPI_LogLine(1, 1, LAPI_LOG_FILE, (site).line, (site).pFunc, __VA_ARGS__)

static Client *RequestClient(Fdops *pFdops, const MsgHeader &hdr, LogSite site) {
    Client *pClient = LAPI_SRV_FdopsClient(pFdops);
    if (pClient == nullptr) {
        SITE_ERR(site, "pFdops->pFdInfo == NULL, pid is : %d!", static_cast<int>(hdr.pid));
    }
    return pClient;
}

/* A reader over buf from offset off on (empty when off lies beyond it). */
template <size_t N>
static LAPI_Reader ReaderAt(const uint8_t (&buf)[N], size_t off) {
    LAPI_Reader r(buf, N);
    if (r.Skip(off) != 0) {
        return LAPI_Reader();
    }
    return r;
}

static_assert(offsetof(DbFile, fileId) == 0 && offsetof(DbFile, length) == sizeof(uint32_t),
              "a client's file entry starts with fileId, then length");

/* A writer over the message part of a frame buffer of frameSize bytes (the
 * frame head and trailer are written around it when it is sent). */
static LAPI_Writer MsgWriter(uint8_t *pFrame, size_t frameSize) {
    return LAPI_Writer(pFrame + LAPI_BP_FRAME_HEAD_LEN, frameSize - LAPI_BP_FRAME_OVERHEAD);
}

static void PutBpHeader(LAPI_Writer *pW, uint8_t subCmdId, uint8_t sid, uint8_t tid) {
    pW->PutU8(subCmdId);
    pW->PutU8(sid);
    pW->PutU8(tid);
}

/* Frames the message written into pFrame by w and hands it to the channel:
 * 0, or -1 when it could not be sent. */
static int SendBpMsg(uint8_t *pFrame, const LAPI_Writer &w) {
    uint16_t frameLen = LAPI_SRV_SetUpBpMsgFrame(pFrame, static_cast<uint16_t>(w.Size()));
    return LAPI_SRV_SendMsgToBp(pFrame, frameLen);
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

/* The client's new transaction for a request that goes to the BP: null with
 * *pResult holding what the handler returns, as StartTransaction. */
static Transaction *StartBpRequest(uint8_t *pMsg, Fdops *pFdops, uint16_t subCmdId,
                                   uint32_t deadlineSec, int *pResult, LogSite site) {
    MsgHeader hdr = ReadHeader(pMsg);
    Client *pClient = RequestClient(pFdops, hdr, site);
    if (pClient == nullptr) {
        *pResult = -1;
        return nullptr;
    }
    return StartTransaction(pClient, hdr, ReadPrefix(pMsg), subCmdId, deadlineSec, pResult, site);
}

/* A BP message built in a frame buffer of its own, header first. */
class BpRequest {
  public:
    BpRequest(uint8_t subCmdId, uint8_t sid, uint8_t tid) : w_(MsgWriter(frame_, sizeof(frame_))) {
        PutBpHeader(&w_, subCmdId, sid, tid);
    }
    LAPI_Writer &W() { return w_; }
    /* Frames and sends it. A failure is only logged, in the handler's name:
     * the transaction stays and its deadline cleans up. */
    void Send(const char *pName, uint32_t pid, LogSite site) {
        if (SendBpMsg(frame_, w_) < 0) {
            SITE_ERR(site, "Fail to send %s msg to BP, pid is : %d!", pName, static_cast<int>(pid));
        }
    }

  private:
    uint8_t frame_[LAPI_SRV_BP_FRAME_BUF_LEN];
    LAPI_Writer w_;
};

/* A request that goes to the BP as one message: a new transaction for the
 * client, then the BP message with what fill writes after its header (fill
 * may also note what the transaction must keep), sent in the handler's name
 * (site). Returns what the handler returns. */
template <typename Fill>
static int ForwardToBp(uint8_t *pMsg, Fdops *pFdops, uint8_t subCmdId, uint32_t deadlineSec,
                       const char *pName, LogSite site, Fill fill) {
    int result = 0;
    Transaction *pTran = StartBpRequest(pMsg, pFdops, subCmdId, deadlineSec, &result, site);
    if (pTran == nullptr) {
        return result;
    }
    BpRequest bp(subCmdId, pTran->sid, pTran->tid);
    fill(pTran, bp.W());
    bp.Send(pName, ReadHeader(pMsg).pid, site);
    return 0;
}

/* A request that carries nothing but its header to the BP. */
#define NOTHING_MORE [](Transaction *, LAPI_Writer &) {}

/* ------------------------------------------------------------------------ */
/* Short answers the server gives by itself                                  */
/* ------------------------------------------------------------------------ */

/* An answer that carries the client's pair alone. */
template <typename T, uint16_t kMsgId>
static T PairAnswer(uint8_t sid, uint8_t tid) {
    T rsp = LAPI_NewApMsg<T, kMsgId>(0);
    rsp.sessionId = sid;
    rsp.transactionId = tid;
    return rsp;
}

int LAPI_SRV_SendInvalidReqResponse(Fdops *pFdops, uint8_t sid, uint8_t tid) {
    InvalidRequestRsp rsp = PairAnswer<InvalidRequestRsp, LAPI_INVALID_REQUEST_RSP>(sid, tid);
    /* Written straight to the connection: a refused pair keeps the client,
     * so a failure here is left to the caller's result. */
    if (pFdops == nullptr || LAPI_SRV_GeneralWrite(pFdops, &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send invalidReq response!");
        return -1;
    }
    return 0;
}

int LAPI_SRV_SendTimeOutReqResponse(Fdops *pFdops, uint8_t sid, uint8_t tid) {
    TimeOutRsp rsp = PairAnswer<TimeOutRsp, LAPI_TIME_OUT_RSP>(sid, tid);
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
    LAPI_Writer w = MsgWriter(frame, sizeof(frame));
    PutBpHeader(&w, GEOLOCATION_ABORT_APBP_REQ, pTran->sid, pTran->tid);
    int result = SendBpMsg(frame, w);
    if (result < 0) {
        LAPI_SRV_ERR("Fail to send abortLocation msg to BP, pid is : %d!",
                     pTran->pClient != nullptr ? static_cast<int>(pTran->pClient->pid) : 0);
    }
    return result;
}

int LAPI_SRV_ProcGetLocationMsg(uint8_t *pMsg, Fdops *pFdops) {
    GetLocationReq req = ReadMsg<GetLocationReq>(pMsg);
    int result = 0;
    Transaction *pTran = StartBpRequest(
        pMsg, pFdops, GEOLOCATION_APBP_REQ,
        LAPI_SRV_GetLocationDeadlineSec(req.responseTime, req.reportCriteria), &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }
    pTran->reqParam = req.reportCriteria;
    LAPI_SRV_TRACE("PTran->pClient->pid=%d, pTran->sid=%d, pTran->tid=%d",
                   static_cast<int>(pTran->pClient->pid), pTran->sid, pTran->tid);

    LAPI_SRV_LOG_LocationReq(&req, pTran->sid, pTran->tid);

    BpRequest bp(GEOLOCATION_APBP_REQ, pTran->sid, pTran->tid);
    LAPI_Writer &w = bp.W();
    w.PutBe32(req.responseTime);
    w.PutBe32(req.horizontalAccuracy);
    w.PutBe32(req.verticalAccuracy);
    w.PutBe32(req.preferredPowerConsumption);
    w.PutBe32(req.interval);
    w.PutBe32(req.reportCriteria);
    w.PutU8(req.costAllowed);
    w.PutU8(req.addressInfoRequired);
    w.PutU8(req.speedAndCourseRequired);
    w.PutU8(req.altitudeRequired);
    w.PutU8(req.nmeaRequired);
    bp.Send("getLocation", req.header.pid, LOG_SITE);
    return 0;
}

int LAPI_SRV_ProcAbortLocationMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
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

int LAPI_SRV_ProcAbortAllLocationMsg(uint8_t * /*pMsg*/, Fdops * /*pFdops*/) {
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
    return ForwardToBp(pMsg, pFdops, LAST_KNOWN_GEOLOCATION_APBP_REQ,
                       LAPI_SRV_LAST_KNOWN_DEADLINE_SEC, "getLastKnownLocation", LOG_SITE,
                       NOTHING_MORE);
}

/* ------------------------------------------------------------------------ */
/* Assistance data, status, notification answer, distance                    */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_ProcGetGpsDbDataMsg(uint8_t *pMsg, Fdops *pFdops) {
    GetGpsDbDataReq req = ReadMsg<GetGpsDbDataReq>(pMsg);
    return ForwardToBp(pMsg, pFdops, DB_READ_APBP_REQ, LAPI_SRV_DB_DEADLINE_SEC, "getGpsDbData",
                       LOG_SITE, [&req](Transaction *, LAPI_Writer &w) { w.PutBe32(req.fileId); });
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
    int result = 0;
    Transaction *pTran = StartBpRequest(pMsg, pFdops, DB_WRITE_APBP_REQ, LAPI_SRV_DB_DEADLINE_SEC,
                                        &result, LOG_SITE);
    if (pTran == nullptr) {
        return result;
    }

    /* The request with zeros behind it, so that no read leaves the message. */
    const size_t msgSize = sizeof(SetGpsDbDataReq);
    uint8_t padded[sizeof(SetGpsDbDataReq) + LAPI_BP_MSG_MAX_LEN];
    memset(padded, 0, sizeof(padded));
    LAPI_Reader(pMsg, msgSize).GetBytes(padded, msgSize);

    uint16_t numFiles = 0;
    ReaderAt(padded, offsetof(SetGpsDbDataReq, numFiles)).GetHost16(&numFiles);

    BpRequest bp(DB_WRITE_APBP_REQ, pTran->sid, pTran->tid);
    LAPI_Writer &w = bp.W();
    w.PutBe16(numFiles);
    for (uint32_t i = 0; i < numFiles; ++i) {
        size_t entry = offsetof(SetGpsDbDataReq, dbFile) + sizeof(DbFile) * i;
        uint32_t fileId = 0;
        uint16_t length = 0;
        if (entry + offsetof(DbFile, data) <= msgSize) {
            LAPI_Reader file = ReaderAt(padded, entry);
            file.GetHost32(&fileId);
            file.GetHost16(&length);
        }
        /* Checked before the entry is written: the payload may not grow
         * beyond what one frame carries. */
        if (w.Size() + LAPI_BP_DB_FILE_HEAD_LEN + length > LAPI_BP_MSG_MAX_LEN) {
            LAPI_SRV_ERR("Buffer overflow when formating BP msg, pid is : %d!",
                         static_cast<int>(hdr.pid));
            return -1;
        }
        w.PutBe32(fileId);
        w.PutBe16(length);
        size_t data = entry + offsetof(DbFile, data);
        uint8_t *pOut = nullptr;
        if (length > 0 && w.Reserve(length, &pOut) == 0) {
            /* Host order to one big-endian number: the bytes reversed. */
            if (data >= msgSize || ReaderAt(padded, data).GetReversed(pOut, length) != 0) {
                memset(pOut, 0, length);
            }
        }
    }
    bp.Send("setGpsDbData", hdr.pid, LOG_SITE);
    return 0;
}

int LAPI_SRV_ProcGetStatusMsg(uint8_t *pMsg, Fdops *pFdops) {
    return ForwardToBp(pMsg, pFdops, GET_STATUS_APBP_REQ, LAPI_SRV_STATUS_DEADLINE_SEC, "getStatus",
                       LOG_SITE, NOTHING_MORE);
}

/* The pair in the answer is the BP's own, from the notification being
 * answered: it goes back unchanged and nothing is kept here. */
int LAPI_SRV_ProcLocationNotificationCfmMsg(uint8_t *pMsg, Fdops * /*pFdops*/) {
    LocationNotificationCfm cfm = ReadMsg<LocationNotificationCfm>(pMsg);
    BpRequest bp(LOCATION_NOTIFICATION_APBP_RES, cfm.sessionId, cfm.transactionId);
    bp.W().PutBe32(cfm.responseType);
    bp.Send("locationNotificationCfm", cfm.header.pid, LOG_SITE);
    return 0;
}

int LAPI_SRV_ProcDistanceAzimuthMsg(uint8_t *pMsg, Fdops *pFdops) {
    DistanceAzimuthReq req = ReadMsg<DistanceAzimuthReq>(pMsg);
    return ForwardToBp(pMsg, pFdops, DISTANCE_AND_AZIMUTH_APBP_REQ, LAPI_SRV_DISTANCE_DEADLINE_SEC,
                       "distanceAzimuthReq", LOG_SITE, [&req](Transaction *, LAPI_Writer &w) {
                           w.PutBpFixed(req.latitude1);
                           w.PutBpFixed(req.longitude1);
                           w.PutBpFixed(req.latitude2);
                           w.PutBpFixed(req.longitude2);
                           w.PutU8(req.distanceOnly);
                       });
}

/* ------------------------------------------------------------------------ */
/* Proximity areas                                                           */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_ProcAddProximityMsg(uint8_t *pMsg, Fdops *pFdops) {
    AddProximityReq req = ReadMsg<AddProximityReq>(pMsg);
    /* The transaction stays after the BP's answer as the record of the area. */
    return ForwardToBp(pMsg, pFdops, PROXIMITY_ADD_APBP_REQ, LAPI_SRV_ADD_PROXIMITY_DEADLINE_SEC,
                       "addProximityReq", LOG_SITE, [&req](Transaction *, LAPI_Writer &w) {
                           w.PutBpFixed(req.latitude);
                           w.PutBpFixed(req.longitude);
                           w.PutBpFixed(req.altitude);
                           w.PutBpFixed(req.radius);
                       });
}

static void SendRemoveProximityReq(const Transaction *pTran, uint32_t removeType, uint32_t pid,
                                   LogSite site) {
    BpRequest bp(PROXIMITY_REM_APBP_REQ, pTran->sid, pTran->tid);
    bp.W().PutBe32(removeType);
    bp.Send("removeProximityReq", pid, site);
}

int LAPI_SRV_ProcRemoveAllProximityMsg(uint8_t *pMsg, Fdops *pFdops) {
    RemoveProximityReq req = ReadMsg<RemoveProximityReq>(pMsg);
    return ForwardToBp(pMsg, pFdops, PROXIMITY_REM_APBP_REQ, LAPI_SRV_REMOVE_PROXIMITY_DEADLINE_SEC,
                       "removeProximityReq", LOG_SITE, [&req](Transaction *pTran, LAPI_Writer &w) {
                           pTran->reqParam = req.removeType;
                           w.PutBe32(req.removeType);
                       });
}

int LAPI_SRV_ProcRemoveProximityMsg(uint8_t *pMsg, Fdops *pFdops) {
    MsgHeader hdr = ReadHeader(pMsg);
    RemoveProximityReq req = ReadMsg<RemoveProximityReq>(pMsg);
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
    SendRemoveProximityReq(pTran, req.removeType, hdr.pid, LOG_SITE);
    return 0;
}

/* ------------------------------------------------------------------------ */
/* Dispatch rows                                                             */
/* ------------------------------------------------------------------------ */

/* The lengths and wrong-length texts are in the shared rows. */
constexpr LAPI_SRV_ApMsgRow LAPI_SRV_apRequestRows[] = {
    LAPI_SRV_AP_ROW(LAPI_GET_LOCATION_REQ, LAPI_SRV_ProcGetLocationMsg),
    LAPI_SRV_AP_ROW(LAPI_ABORT_LOCATION_REQ, LAPI_SRV_ProcAbortLocationMsg),
    LAPI_SRV_AP_ROW(LAPI_ABORT_ALL_LOCATION_REQ, LAPI_SRV_ProcAbortAllLocationMsg),
    LAPI_SRV_AP_ROW(LAPI_LAST_KNOWN_LOCATION_REQ, LAPI_SRV_ProcLastKnownLocationMsg),
    LAPI_SRV_AP_ROW(LAPI_GET_GPS_DB_DATA_REQ, LAPI_SRV_ProcGetGpsDbDataMsg),
    LAPI_SRV_AP_ROW(LAPI_SET_GPS_DB_DATA_REQ, LAPI_SRV_ProcSetGpsDbDataMsg),
    LAPI_SRV_AP_ROW(LAPI_GET_STATUS_REQ, LAPI_SRV_ProcGetStatusMsg),
    LAPI_SRV_AP_ROW(LAPI_LOCATION_NOTIFICATION_CFM, LAPI_SRV_ProcLocationNotificationCfmMsg),
    LAPI_SRV_AP_ROW(LAPI_DISTANCE_AZIMUTH_REQ, LAPI_SRV_ProcDistanceAzimuthMsg),
    LAPI_SRV_AP_ROW(LAPI_ADD_PROXIMITY_REQ, LAPI_SRV_ProcAddProximityMsg),
    LAPI_SRV_AP_ROW(LAPI_REMOVE_PROXIMITY_REQ, LAPI_SRV_ProcRemoveProximityMsg),
};
const size_t LAPI_SRV_apRequestRowCount =
    sizeof(LAPI_SRV_apRequestRows) / sizeof(LAPI_SRV_apRequestRows[0]);
static_assert(LAPI_SRV_ApRowsValid(LAPI_SRV_apRequestRows, sizeof(LAPI_SRV_apRequestRows) /
                                                               sizeof(LAPI_SRV_apRequestRows[0])),
              "every row names a client request with a wrong-length text and a handler");

/* Not in the table: removeProximityReq hands a remove-all over to its
 * handler, its own row having checked the message. Tests run the handler
 * through this row. */
constexpr LAPI_SRV_ApMsgRow LAPI_SRV_removeAllProximityRow =
    LAPI_SRV_AP_ROW(LAPI_REMOVE_PROXIMITY_REQ, LAPI_SRV_ProcRemoveAllProximityMsg);
static_assert(LAPI_SRV_ApRowsValid(&LAPI_SRV_removeAllProximityRow, 1));

/* ------------------------------------------------------------------------ */
/* Deadlines                                                                 */
/* ------------------------------------------------------------------------ */

/* Deadline of a running location request that the BP did not answer: the
 * transaction goes back into the list and is aborted. Returns 1 when the
 * caller must free it, 0 when it is kept. */
static int GetLocationTimeOut(Transaction *pTran) {
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
static int TranTimeOut(Transaction *pTran) {
    if (pTran->subCmdId == GEOLOCATION_APBP_REQ) {
        return GetLocationTimeOut(pTran);
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
            if (TranTimeOut(pTran)) {
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
