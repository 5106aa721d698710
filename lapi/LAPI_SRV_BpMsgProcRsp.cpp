/*
 * The BP's answers and indications for the location service: location
 * fixes (single, periodic, last known), abort answers, assistance data,
 * status, distance and azimuth, proximity areas, and the indications the
 * BP starts on its own (status changes, network-initiated notifications,
 * notification status, proximity hits).
 *
 * Each procedure gets one whole message (BpMsgHeader first) as it lies in
 * the channel's read buffer, with its length. Its dispatch row (at the end
 * of this file) has checked the identifier and the length before it runs;
 * fields are read through a LAPI_Reader over the message alone, never
 * beyond it: the message is followed by whatever else the buffer holds.
 *
 * An answer is matched to its Transaction by the BP pair, which takes the
 * transaction off LAPI_SRV_tranList while the answer is handled; sending to
 * the client may remove the client (a failed write), and the transaction,
 * being off the list, survives that and is freed or relinked here.
 */
#include "LAPI_SRV_BpMsgProc.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_Wire.h"

/* An active proximity area, and the seconds it is kept waiting for its hit. */
#define LAPI_SRV_PROXIMITY_ACTIVE PROXIMITY_ADD_APBP_RES
#define LAPI_SRV_PROXIMITY_DEADLINE_SEC 5184000

/* ------------------------------------------------------------------------ */
/* Helpers                                                                   */
/* ------------------------------------------------------------------------ */

/* A reader over the message, already past its BpMsgHeader; *pSid and *pTid
 * get the BP pair. The row has made sure the header is there. */
static LAPI_Reader BodyReader(const uint8_t *pMsg, uint16_t msgLen, uint8_t *pSid = nullptr,
                              uint8_t *pTid = nullptr) {
    LAPI_Reader r(pMsg, msgLen);
    uint8_t subCmdId = 0;
    uint8_t sid = 0;
    uint8_t tid = 0;
    r.GetU8(&subCmdId);
    r.GetU8(&sid);
    r.GetU8(&tid);
    if (pSid != nullptr) {
        *pSid = sid;
    }
    if (pTid != nullptr) {
        *pTid = tid;
    }
    return r;
}

/* The next big-endian i32 of a message whose row guarantees it is there. */
static int32_t NextI32(LAPI_Reader *pR) {
    int32_t v = 0;
    pR->GetBeI32(&v);
    return v;
}

static Fdops *TranFdops(const Transaction *pTran) {
    if (pTran == nullptr || pTran->pClient == nullptr) {
        return nullptr;
    }
    return pTran->isSync ? pTran->pClient->pSyncFdops : pTran->pClient->pAsyncFdops;
}

/* Whether the client is still registered: a failed send removes it. */
static bool ClientAlive(const Client *pClient) {
    ListNode *pPos = List_GetHeadPos(&LAPI_SRV_allClientList);
    while (pPos != nullptr) {
        if (List_GetNext(&LAPI_SRV_allClientList, &pPos) == pClient) {
            return true;
        }
    }
    return false;
}

/* The helpers below report in the name of the procedure that called them
 * (func), so that every line names the procedure that refused a message. */
#define BP_RSP_ERR(func, ...) LAPI_LogLine(1, 1, LAPI_LOG_FILE, __LINE__, (func), __VA_ARGS__)

/* Puts a transaction back into the list; one that cannot be linked is freed
 * with the given error text. */
static void RelinkTran(Transaction *pTran, const char *pFailText, const char *func) {
    if (LAPI_SRV_AddTranList(pTran) != 0) {
        BP_RSP_ERR(func, "%s", pFailText);
        free(pTran);
    }
}

static const char kRelinkFail[] = "Fail to add pTran into LAPI_SRV_tranList!";
static const char kRelinkFail2[] = "Fail to add pTran into LAPI_SRV_tranList 2!";

/*
 * Takes the answered transaction off the list by the message's BP pair.
 * Returns null when there is none, or when it waits for another kind of
 * answer (it then goes back into the list, so that its own answer can still
 * arrive). wantSubCmd2 is a second accepted kind, or -1.
 */
static Transaction *TakeAnsweredTran(const uint8_t *pMsg, uint16_t msgLen, int wantSubCmd,
                                     int wantSubCmd2, const char *pNotExpectedFmt,
                                     const char *func) {
    uint8_t sid = 0;
    uint8_t tid = 0;
    BodyReader(pMsg, msgLen, &sid, &tid);
    Transaction *pTran = LAPI_SRV_GetTranByBpId(sid, tid, 1);
    if (pTran == nullptr) {
        BP_RSP_ERR(func, "Transaction timeout or not exist, sid: %d, tid: %d!", sid, tid);
        return nullptr;
    }
    if (pTran->subCmdId != wantSubCmd && pTran->subCmdId != wantSubCmd2) {
        BP_RSP_ERR(func, pNotExpectedFmt, sid, tid);
        RelinkTran(pTran, kRelinkFail, func);
        return nullptr;
    }
    return pTran;
}

/* Traces the answer, then takes its transaction as TakeAnsweredTran does. */
static Transaction *TraceAndTakeAnsweredTran(uint8_t *pMsg, uint16_t msgLen, int wantSubCmd,
                                             int wantSubCmd2, const char *pNotExpectedFmt,
                                             const char *func) {
    LAPI_LogBpMsg(pMsg, msgLen);
    return TakeAnsweredTran(pMsg, msgLen, wantSubCmd, wantSubCmd2, pNotExpectedFmt, func);
}

/* A client answer of type T to the transaction, with the client's own pair. */
template <typename T, uint16_t kMsgId>
static T NewAnswer(const Transaction *pTran) {
    T answer = LAPI_NewApMsg<T, kMsgId>(0);
    answer.sessionId = pTran->clientSid;
    answer.transactionId = pTran->clientTid;
    return answer;
}

/* Sends the answer where the request asked for it (a failure is logged in
 * the procedure's name) and frees the transaction, which is done. */
static void AnswerAndFree(Transaction *pTran, const void *pAnswer, int len, const char *pFailText,
                          const char *func) {
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), pAnswer, len) != 0) {
        BP_RSP_ERR(func, "%s", pFailText);
    }
    free(pTran);
}

/* The answer of a fixed layout to a request: traces the message, takes its
 * transaction, builds the client's answer T (fill reads the body after the
 * BpMsgHeader into it), sends it and frees the transaction. wantSubCmd2 is
 * a second accepted kind of request, or -1. Every line names func. */
template <typename T, uint16_t kMsgId, typename Fill>
static void AnswerFixed(uint8_t *pMsg, uint16_t msgLen, int wantSubCmd, int wantSubCmd2,
                        const char *pNotExpectedFmt, const char *pSendFail, const char *func,
                        Fill fill) {
    Transaction *pTran =
        TraceAndTakeAnsweredTran(pMsg, msgLen, wantSubCmd, wantSubCmd2, pNotExpectedFmt, func);
    if (pTran == nullptr) {
        return;
    }
    T rsp = NewAnswer<T, kMsgId>(pTran);
    LAPI_Reader r = BodyReader(pMsg, msgLen);
    fill(&rsp, &r);
    AnswerAndFree(pTran, &rsp, sizeof(rsp), pSendFail, func);
}

/* ------------------------------------------------------------------------ */
/* Location responses                                                        */
/* ------------------------------------------------------------------------ */

/* The position fields at offsets 3 to 90 of a location response or a
 * proximity hit, as the client message holds them. */
struct Position {
    double longitude, latitude, latLonAccuracy, timeStamp, altitude, speed, travelDirection,
        pointingDirection, horizontalAccuracy, verticalAccuracy, course;
};

/* Reads the position fields; r stands right after the BpMsgHeader. */
static Position ReadPosition(LAPI_Reader *pR) {
    Position pos;
    pR->GetBpFixed(&pos.longitude);
    pR->GetBpFixed(&pos.latitude);
    pR->GetBpFixed(&pos.latLonAccuracy);
    /* The time stamp is an integer that only changes byte order. */
    uint64_t timeStamp = 0;
    pR->GetBe64(&timeStamp);
    memcpy(&pos.timeStamp, &timeStamp, sizeof(pos.timeStamp));
    pR->GetBpFixed(&pos.altitude);
    pR->GetBpFixed(&pos.speed);
    pR->GetBpFixed(&pos.travelDirection);
    pR->GetBpFixed(&pos.pointingDirection);
    pR->GetBpFixed(&pos.horizontalAccuracy);
    pR->GetBpFixed(&pos.verticalAccuracy);
    pR->GetBpFixed(&pos.course);
    return pos;
}

template <typename T>
static void StorePosition(T *pRsp, const Position &pos) {
    pRsp->longitude = pos.longitude;
    pRsp->latitude = pos.latitude;
    pRsp->latLonAccuracy = pos.latLonAccuracy;
    pRsp->timeStamp = pos.timeStamp;
    pRsp->altitude = pos.altitude;
    pRsp->speed = pos.speed;
    pRsp->travelDirection = pos.travelDirection;
    pRsp->pointingDirection = pos.pointingDirection;
    pRsp->horizontalAccuracy = pos.horizontalAccuracy;
    pRsp->verticalAccuracy = pos.verticalAccuracy;
    pRsp->course = pos.course;
}

void LAPI_SRV_ProcBpGetLocationRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    /* Last-known requests are answered with an ordinary location response. */
    Transaction *pTran = TraceAndTakeAnsweredTran(
        pMsg, msgLen, GEOLOCATION_APBP_REQ, LAST_KNOWN_GEOLOCATION_APBP_REQ,
        "Received getLocationRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }

    /* Zeroed: the NMEA area behind the data stays clear. */
    GetLocationRsp rsp = NewAnswer<GetLocationRsp, LAPI_GET_LOCATION_RSP>(pTran);
    uint8_t sid = 0;
    uint8_t tid = 0;
    LAPI_Reader r = BodyReader(pMsg, msgLen, &sid, &tid);
    StorePosition(&rsp, ReadPosition(&r));
    rsp.locationMethod = NextI32(&r);
    rsp.cause = NextI32(&r);
    uint64_t ageOfFix = 0;
    r.GetBe64(&ageOfFix);
    rsp.ageOfFix = ageOfFix;
    uint16_t nmeaLen = 0;
    r.GetBe16(&nmeaLen);
    rsp.nmeaDataLength = nmeaLen;

    if (nmeaLen > LAPI_MAX_NMEA_LEN) {
        /* No answer at all, and a periodic request ends here too. */
        LAPI_SRV_TRACE("Received a nmea data too large");
        free(pTran);
        return;
    }
    /* A length beyond the message is cut to what the message holds; the
     * rest of the area stays zero. */
    size_t nmeaCopy = nmeaLen < r.Left() ? nmeaLen : r.Left();
    r.GetBytes(rsp.nmeaData, nmeaCopy);

    LAPI_SRV_LOG_LocationRsp(&rsp, sid, tid);

    Client *pClient = pTran->pClient;
    errno = 0;
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &rsp, sizeof(rsp)) != 0) {
        int err = errno;
        LAPI_SRV_ERR("Fail to send get location response to client!");
        bool bGone = !ClientAlive(pClient);
        if (bGone) {
            pTran->pClient = nullptr;
        }
        if (err == EPIPE) {
            /* The BP stops working for a dead client. */
            LAPI_SRV_TRACE("Broken pipe error happen when sending get location response to client");
            LAPI_SRV_AbortLocationReq(pTran, 0);
            free(pTran);
            return;
        }
        if (bGone) {
            /* The client went with the failed write; a periodic request is
             * stopped at the BP rather than kept for nobody. */
            if (pTran->subCmdId == GEOLOCATION_APBP_REQ &&
                pTran->reqParam == LAPI_REPORT_PERIODIC) {
                LAPI_SRV_AbortLocationReq(pTran, 0);
            }
            free(pTran);
            return;
        }
    }

    if (pTran->subCmdId == GEOLOCATION_APBP_REQ && pTran->reqParam == LAPI_REPORT_PERIODIC) {
        /* The next report finds it again; it keeps its far deadline. */
        RelinkTran(pTran, kRelinkFail2, __func__);
        return;
    }
    free(pTran);
}

void LAPI_SRV_ProcBpAbortLocationRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    AnswerFixed<AbortLocationRsp, LAPI_ABORT_LOCATION_RSP>(
        pMsg, msgLen, GEOLOCATION_ABORT_APBP_REQ, -1,
        "Received abortLocationRsp BP Msg not expected, sid: %d, tid: %d!",
        "Fail to send abort location response to client!", __func__,
        [](AbortLocationRsp *pRsp, LAPI_Reader *pR) { pRsp->result = NextI32(pR); });
}

/* ------------------------------------------------------------------------ */
/* Answers with a fixed layout                                               */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_ProcBpSetGpsDbDataRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    AnswerFixed<SetGpsDbDataRsp, LAPI_SET_GPS_DB_DATA_RSP>(
        pMsg, msgLen, DB_WRITE_APBP_REQ, -1,
        "Received setGpsDbDataRsp BP Msg not expected, sid: %d, tid: %d!",
        "Fail to send set location state response to client!", __func__,
        [](SetGpsDbDataRsp *pRsp, LAPI_Reader *pR) { pRsp->result = NextI32(pR); });
}

/* The eight status fields of GET_STATUS_APBP_RES and STATUS_CHANGE_BPAP_IND. */
static void ReadStatus(GetStatusRsp *pRsp, LAPI_Reader *pR) {
    pRsp->userStatus = NextI32(pR);
    pRsp->hwStatus = NextI32(pR);
    pRsp->fixStatus = NextI32(pR);
    pRsp->emergencyStatus = NextI32(pR);
    pRsp->fixResultStatus.status = NextI32(pR);
    pRsp->fixResultStatus.cause = NextI32(pR);
    pRsp->signalStatus = NextI32(pR);
    pRsp->iconStatus = NextI32(pR);
}

void LAPI_SRV_ProcBpGetStatusRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    AnswerFixed<GetStatusRsp, LAPI_GET_STATUS_RSP>(
        pMsg, msgLen, GET_STATUS_APBP_REQ, -1,
        "Received getStatusRsp BP Msg not expected, sid: %d, tid: %d!",
        "Fail to send get status response to client!", __func__, ReadStatus);
}

void LAPI_SRV_ProcBpDistanceAzimuthRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    AnswerFixed<DistanceAzimuthRsp, LAPI_DISTANCE_AZIMUTH_RSP>(
        pMsg, msgLen, DISTANCE_AND_AZIMUTH_APBP_REQ, -1,
        "Received distanceAzimuthRsp BP Msg not expected, sid: %d, tid: %d!",
        "Fail to send distance azimuth response to client!", __func__,
        [](DistanceAzimuthRsp *pRsp, LAPI_Reader *pR) {
            /* Read into aligned doubles: the client message is packed. */
            double distance = 0.0;
            double azimuth = 0.0;
            pR->GetBpFixed(&distance);
            pR->GetBpFixed(&azimuth);
            pRsp->distance = distance;
            pRsp->azimuth = azimuth;
        });
}

/* ------------------------------------------------------------------------ */
/* Assistance data read                                                      */
/* ------------------------------------------------------------------------ */

/* Parses DB_READ_APBP_RES into the client message: 0, or -1 after logging.
 * The texts of the three cut-off checks are the ones this parser has always
 * written. */
static int ParseGpsDbDataRsp(const uint8_t *pMsg, uint16_t msgLen, GetGpsDbDataRsp *pRsp,
                             const char *func) {
    LAPI_Reader r = BodyReader(pMsg, msgLen);
    uint16_t numFiles = 0;
    r.GetBe16(&numFiles);
    pRsp->numFiles = numFiles;
    if (numFiles > LAPI_BP_MAX_DB_FILES) {
        BP_RSP_ERR(func, "Invalid numFiles: %d!", numFiles);
        return -1;
    }
    for (int i = 0; i < numFiles; ++i) {
        LAPI_Reader head;
        if (r.Sub(LAPI_BP_DB_FILE_HEAD_LEN, &head) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 1!");
            return -1;
        }
        DbFile file;
        memset(&file, 0, sizeof(file));
        uint32_t fileId = 0;
        uint16_t length = 0;
        head.GetBe32(&fileId);
        head.GetBe16(&length);
        file.fileId = fileId;
        file.length = length;
        memcpy(&pRsp->dbFile[i], &file, sizeof(file));
        if (length > LAPI_BP_MAX_DB_FILE_DATA_LEN || length == 0) {
            BP_RSP_ERR(func, "pRsp->dbFile[%d].length: %d is invalid!", i, length);
            return -1;
        }
        /* The data is one big-endian number of `length` bytes. */
        if (r.GetReversed(file.data, length) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 2!");
            return -1;
        }
        memcpy(&pRsp->dbFile[i], &file, sizeof(file));
    }
    int32_t result = 0;
    if (r.GetBeI32(&result) != 0) {
        BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 3!");
        return -1;
    }
    pRsp->result = result;
    return 0;
}

void LAPI_SRV_ProcBpGetGpsDbDataRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    Transaction *pTran = TakeAnsweredTran(
        pMsg, msgLen, DB_READ_APBP_REQ, -1,
        "Received getGpsDbDataRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    GetGpsDbDataRsp rsp = NewAnswer<GetGpsDbDataRsp, LAPI_GET_GPS_DB_DATA_RSP>(pTran);
    if (ParseGpsDbDataRsp(pMsg, msgLen, &rsp, __func__) != 0) {
        /* Nothing is sent: the client gets the timeout answer instead. */
        RelinkTran(pTran, kRelinkFail, __func__);
        return;
    }
    /* Traced only once it has been parsed. */
    LAPI_LogBpMsg(pMsg, msgLen);
    AnswerAndFree(pTran, &rsp, sizeof(rsp), "Fail to send get location state response to client!",
                  __func__);
}

/* ------------------------------------------------------------------------ */
/* Proximity areas                                                           */
/* ------------------------------------------------------------------------ */

/* An area the BP watches: answers and the hit go to the asynchronous
 * connection from now on. */
static void MakeAreaActive(Transaction *pTran, const char *func) {
    pTran->subCmdId = LAPI_SRV_PROXIMITY_ACTIVE;
    LAPI_SRV_SetTranExpireTime(pTran, LAPI_SRV_TicksAhead(LAPI_SRV_PROXIMITY_DEADLINE_SEC));
    pTran->isSync = 0;
    RelinkTran(pTran, kRelinkFail2, func);
}

/* A proximity answer for the client of a transaction that may already be
 * gone: the pair and descriptor are taken before. */
template <uint16_t kMsgId>
static void SendProximityRsp(Fdops *pFdops, uint8_t sid, uint8_t tid, int32_t status,
                             const char *pSendFail, const char *func) {
    /* removeProximityRsp has the same layout */
    static_assert(sizeof(AddProximityRsp) == sizeof(RemoveProximityRsp), "same layout");
    AddProximityRsp rsp = LAPI_NewApMsg<AddProximityRsp, kMsgId>(0);
    rsp.sessionId = sid;
    rsp.transactionId = tid;
    rsp.status = status;
    if (LAPI_SRV_SendMsgToClient(pFdops, &rsp, sizeof(rsp)) != 0) {
        BP_RSP_ERR(func, "%s", pSendFail);
    }
}

void LAPI_SRV_ProcBpAddProximityRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    Transaction *pTran = TraceAndTakeAnsweredTran(
        pMsg, msgLen, PROXIMITY_ADD_APBP_REQ, -1,
        "Received addProximityRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    /* Chosen before the area switches to the asynchronous connection. */
    Fdops *pFdops = TranFdops(pTran);
    uint8_t clientSid = pTran->clientSid;
    uint8_t clientTid = pTran->clientTid;
    LAPI_Reader r = BodyReader(pMsg, msgLen);
    int32_t status = NextI32(&r);
    if (status == 0) {
        MakeAreaActive(pTran, __func__);
    } else {
        free(pTran);
    }
    SendProximityRsp<LAPI_ADD_PROXIMITY_RSP>(pFdops, clientSid, clientTid, status,
                                             "Fail to send add proximity response to client!",
                                             __func__);
}

/* Answers every proximity area of every client after a successful remove-all
 * (no table entry: reached from the remove answer). */
static void RemoveAllProximityAnswered(int32_t status) {
    ListNode *pPos = List_GetHeadPos(&LAPI_SRV_tranList);
    while (pPos != nullptr) {
        Transaction *pTran = static_cast<Transaction *>(List_GetNext(&LAPI_SRV_tranList, &pPos));
        if (pTran == nullptr || (pTran->subCmdId != PROXIMITY_ADD_APBP_REQ &&
                                 pTran->subCmdId != LAPI_SRV_PROXIMITY_ACTIVE &&
                                 pTran->subCmdId != PROXIMITY_REM_APBP_REQ)) {
            continue;
        }
        Fdops *pFdops = TranFdops(pTran);
        uint8_t clientSid = pTran->clientSid;
        uint8_t clientTid = pTran->clientTid;
        LAPI_SRV_UnlinkTran(pTran);
        free(pTran);
        LAPI_SRV_tranListChanged = 0;
        SendProximityRsp<LAPI_REMOVE_PROXIMITY_RSP>(
            pFdops, clientSid, clientTid, status,
            "Fail to send remove proximity response to client!", __func__);
        if (LAPI_SRV_tranListChanged) {
            /* The send removed a client with its transactions. */
            pPos = List_GetHeadPos(&LAPI_SRV_tranList);
        }
    }
}

void LAPI_SRV_ProcBpRemoveProximityRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    Transaction *pTran = TraceAndTakeAnsweredTran(
        pMsg, msgLen, PROXIMITY_REM_APBP_REQ, -1,
        "Received removeProximityRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    Client *pClient = pTran->pClient;
    uint8_t isSync = pTran->isSync;
    Fdops *pFdops = TranFdops(pTran);
    uint8_t clientSid = pTran->clientSid;
    uint8_t clientTid = pTran->clientTid;
    bool bRemoveAll = pTran->reqParam == LAPI_BP_REMOVE_ALL_PROXIMITY;
    LAPI_Reader r = BodyReader(pMsg, msgLen);
    int32_t status = NextI32(&r);
    if (status == 0) {
        free(pTran);
        if (bRemoveAll) {
            RemoveAllProximityAnswered(status);
            /* Answering the areas may have removed the remover itself. */
            if (!ClientAlive(pClient)) {
                pFdops = nullptr;
            } else {
                pFdops = isSync ? pClient->pSyncFdops : pClient->pAsyncFdops;
            }
        }
    } else if (!bRemoveAll) {
        /* The area is still there. */
        MakeAreaActive(pTran, __func__);
    } else {
        free(pTran);
    }
    SendProximityRsp<LAPI_REMOVE_PROXIMITY_RSP>(pFdops, clientSid, clientTid, status,
                                                "Fail to send remove proximity response to client!",
                                                __func__);
}

void LAPI_SRV_ProcBpProximityHitIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    /* An area reports one hit and is gone. */
    AnswerFixed<ProximityHitInd, LAPI_PROXIMITY_HIT_IND>(
        pMsg, msgLen, LAPI_SRV_PROXIMITY_ACTIVE, PROXIMITY_REM_APBP_REQ,
        "Received proximityHitInd BP Msg not expected, sid: %d, tid: %d!",
        "Fail to send proximity hit indicator to client!", __func__,
        [](ProximityHitInd *pInd, LAPI_Reader *pR) {
            StorePosition(pInd, ReadPosition(pR));
            pInd->locationMethod = NextI32(pR);
            uint64_t ageOfFix = 0;
            pR->GetBe64(&ageOfFix);
            pInd->ageOfFix = static_cast<uint32_t>(ageOfFix);
        });
}

/* ------------------------------------------------------------------------ */
/* Indications to client lists                                               */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_ProcBpStatusChangeIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    LAPI_LogBpMsg(pMsg, msgLen);
    StatusChangeInd ind = LAPI_NewApMsg<StatusChangeInd, LAPI_STATUS_CHANGE_IND>(0);
    LAPI_Reader r = BodyReader(pMsg, msgLen, &ind.sessionId, &ind.transactionId);
    ReadStatus(&ind, &r);
    if (LAPI_SRV_BroadcastMsgToStatusClient(&ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR("Fail to broadcast status change indicator to all status client!");
    }
}

void LAPI_SRV_ProcBpNotificationStatusIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    LAPI_LogBpMsg(pMsg, msgLen);
    NotificationStatusInd ind =
        LAPI_NewApMsg<NotificationStatusInd, LAPI_NOTIFICATION_STATUS_IND>(0);
    LAPI_Reader r = BodyReader(pMsg, msgLen, &ind.sessionId, &ind.transactionId);
    ind.cause = NextI32(&r);
    if (LAPI_SRV_BroadcastMsgToMtlrClient(&ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR("Fail to broadcast MT-LR notification status indicator to all MT-LR client!");
    }
}

/* Parses LOCATION_NOTIFICATION_BPAP_IND into the client message: 0, or -1
 * after logging. */
static int ParseLocationNotificationInd(const uint8_t *pMsg, uint16_t msgLen,
                                        LocationNotificationInd *pInd, const char *func) {
    LAPI_Reader r = BodyReader(pMsg, msgLen);
    pInd->notificationType = NextI32(&r);
    pInd->locationType = NextI32(&r);
    uint8_t nameLength = 0;
    r.GetU8(&pInd->dataCodingSchema);
    r.GetU8(&nameLength);
    pInd->nameLength = nameLength;
    if (nameLength > LAPI_BP_MAX_CLIENT_NAME_LEN) {
        BP_RSP_ERR(func, "pRsp->nameLength: %d > (sizeof(pRsp->clientName) - 2): %d!", nameLength,
                   LAPI_BP_MAX_CLIENT_NAME_LEN);
        return -1;
    }
    if (nameLength % 2 != 0) {
        BP_RSP_ERR(func, "pRsp->nameLength: %d module 2 != 0!", nameLength);
        return -1;
    }
    if (nameLength != 0) {
        LAPI_Reader name;
        if (r.Sub(nameLength, &name) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 1!");
            return -1;
        }
        /* UCS-2 characters, each from big-endian to host order. */
        for (int i = 0; i < nameLength; i += 2) {
            uint16_t c = 0;
            name.GetBe16(&c);
            memcpy(&pInd->clientName[i], &c, sizeof(c));
        }
    }
    pInd->clientName[nameLength] = 0;
    pInd->clientName[nameLength + 1] = 0;

    uint8_t addrLength = 0;
    if (r.GetU8(&addrLength) != 0) {
        BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 2!");
        return -1;
    }
    pInd->addrLength = addrLength;
    if (addrLength > LAPI_BP_MAX_CLIENT_ADDR_LEN) {
        BP_RSP_ERR(func, "pRsp->addrLength: %d > (sizeof(pRsp->clientExternalAddr) - 1): %d!",
                   addrLength, LAPI_BP_MAX_CLIENT_ADDR_LEN);
        return -1;
    }
    if (addrLength != 0 && r.GetBytes(pInd->clientExternalAddr, addrLength) != 0) {
        BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 3!");
        return -1;
    }
    pInd->clientExternalAddr[addrLength] = 0;
    return 0;
}

void LAPI_SRV_ProcBpLocationNotificationIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    LocationNotificationInd ind =
        LAPI_NewApMsg<LocationNotificationInd, LAPI_LOCATION_NOTIFICATION_IND>(0);
    /* The BP's own pair: the MT-LR client answers with it. */
    BodyReader(pMsg, msgLen, &ind.sessionId, &ind.transactionId);
    if (ParseLocationNotificationInd(pMsg, msgLen, &ind, __func__) != 0) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    if (LAPI_SRV_BroadcastMsgToMtlrClient(&ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR(
            "Fail to broadcast MT-LR location notification indicator to all MT-LR client!");
    }
}

/* ------------------------------------------------------------------------ */
/* Dispatch rows                                                             */
/* ------------------------------------------------------------------------ */

/* The length texts name the message as the BP documentation does. */
constexpr LAPI_SRV_BpMsgRow LAPI_SRV_bpLocationRows[] = {
    LAPI_SRV_BP_ROW(GEOLOCATION_APBP_RES, LAPI_SRV_ProcBpGetLocationRspMsg, LAPI_LEN_AT_LEAST,
                    LAPI_BP_GET_LOCATION_RSP_MIN_LEN,
                    "Received getLocationRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(GEOLOCATION_ABORT_APBP_RES, LAPI_SRV_ProcBpAbortLocationRspMsg, LAPI_LEN_EXACT,
                    LAPI_BP_ABORT_LOCATION_RSP_LEN,
                    "Received abortLocationRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(DB_WRITE_APBP_RES, LAPI_SRV_ProcBpSetGpsDbDataRspMsg, LAPI_LEN_EXACT,
                    LAPI_BP_SET_GPS_DB_DATA_RSP_LEN,
                    "Received setGpsDbDataRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(DB_READ_APBP_RES, LAPI_SRV_ProcBpGetGpsDbDataRspMsg, LAPI_LEN_AT_LEAST,
                    LAPI_BP_GET_GPS_DB_DATA_RSP_MIN_LEN,
                    "Received getGpsDbDataRsp BP Msg length: %d is less than: %d!"),
    LAPI_SRV_BP_ROW(STATUS_CHANGE_BPAP_IND, LAPI_SRV_ProcBpStatusChangeIndMsg, LAPI_LEN_EXACT,
                    LAPI_BP_STATUS_IND_LEN,
                    "Received statusChangeInd BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(GET_STATUS_APBP_RES, LAPI_SRV_ProcBpGetStatusRspMsg, LAPI_LEN_EXACT,
                    LAPI_BP_STATUS_IND_LEN,
                    "Received getStatusRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(LOCATION_NOTIFICATION_BPAP_IND, LAPI_SRV_ProcBpLocationNotificationIndMsg,
                    LAPI_LEN_AT_LEAST, LAPI_BP_LOCATION_NOTIFICATION_IND_MIN_LEN,
                    "Received mtlrLocationNotificationInd BP Msg length: %d is less than: %d!"),
    LAPI_SRV_BP_ROW(NOTIFICATION_STATUS_BPAP_IND, LAPI_SRV_ProcBpNotificationStatusIndMsg,
                    LAPI_LEN_EXACT, LAPI_BP_NOTIFICATION_STATUS_IND_LEN,
                    "Received mtlrNotificationStatusInd BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(DISTANCE_AND_AZIMUTH_APBP_RES, LAPI_SRV_ProcBpDistanceAzimuthRspMsg,
                    LAPI_LEN_EXACT, LAPI_BP_DISTANCE_AZIMUTH_RSP_LEN,
                    "Received distanceAzimuthRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(PROXIMITY_ADD_APBP_RES, LAPI_SRV_ProcBpAddProximityRspMsg, LAPI_LEN_EXACT,
                    LAPI_BP_ADD_PROXIMITY_RSP_LEN,
                    "Received addProximityRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(PROXIMITY_REM_APBP_RES, LAPI_SRV_ProcBpRemoveProximityRspMsg, LAPI_LEN_EXACT,
                    LAPI_BP_REMOVE_PROXIMITY_RSP_LEN,
                    "Received removeProximityRsp BP Msg length: %d is not expected: %d!"),
    LAPI_SRV_BP_ROW(PROXIMITY_HIT_APBP_IND, LAPI_SRV_ProcBpProximityHitIndMsg, LAPI_LEN_EXACT,
                    LAPI_BP_PROXIMITY_HIT_IND_LEN,
                    "Received proximityHitInd BP Msg length: %d is not expected: %d!"),
};
const size_t LAPI_SRV_bpLocationRowCount =
    sizeof(LAPI_SRV_bpLocationRows) / sizeof(LAPI_SRV_bpLocationRows[0]);

static constexpr bool RowsValid() {
    for (const LAPI_SRV_BpMsgRow &row : LAPI_SRV_bpLocationRows) {
        if (row.subCmdId >= LAPI_BP_MSG_ID_COUNT || row.proc == nullptr) {
            return false;
        }
    }
    return true;
}
static_assert(RowsValid(), "every row names a BP message identifier and a procedure");
