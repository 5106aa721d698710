/*
 * The BP's answers and indications for the location service: location
 * fixes (single, periodic, last known), abort answers, assistance data,
 * status, distance and azimuth, proximity areas, and the indications the
 * BP starts on its own (status changes, network-initiated notifications,
 * notification status, proximity hits).
 *
 * Each procedure gets one whole message (BpMsgHeader first) as it lies in
 * the channel's read buffer, with its length. The length is checked before
 * any field is read, and no field is read beyond the message: the message
 * is followed by whatever else the buffer holds.
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

/* An active proximity area, and the seconds it is kept waiting for its hit. */
#define LAPI_SRV_PROXIMITY_ACTIVE PROXIMITY_ADD_APBP_RES
#define LAPI_SRV_PROXIMITY_DEADLINE_SEC 5184000

/* ------------------------------------------------------------------------ */
/* Helpers                                                                   */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_IncreasePtrAndCheck(const uint8_t **ppPos, const uint8_t *pEnd, int n) {
    if (ppPos == nullptr || *ppPos == nullptr || pEnd == nullptr || n < 0 || *ppPos > pEnd ||
        n > pEnd - *ppPos) {
        return -1;
    }
    *ppPos += n;
    return 0;
}

/* A big-endian field of width bytes into a host-order variable. */
static void GetNet(void *pHost, const uint8_t *pField, int width) {
    LAPI_SRV_ByteOrderNetToHost(pHost, pField, width);
}

static int32_t GetI32(const uint8_t *pField) {
    int32_t v;
    GetNet(&v, pField, sizeof(v));
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
#define BP_RSP_ERR(func, ...) LAPI_LogLine(1, 1, __FILE__, __LINE__, (func), __VA_ARGS__)

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

bool CheckBpMsg(const uint8_t *pMsg, uint16_t msgLen, uint8_t subCmdId, LenRule rule,
                uint16_t wantLen, const char *pLenFmt, const char *func) {
    if (pMsg == nullptr || msgLen < 1 || pMsg[0] != subCmdId) {
        BP_RSP_ERR(func, "pBpMsgHeader->subCmdId : 0x%02x is not expected, msgLen : %d!",
                   (pMsg != nullptr && msgLen >= 1) ? pMsg[0] : 0xFF, msgLen);
        return false;
    }
    bool bOk = rule == LEN_EXACT ? msgLen == wantLen : msgLen >= wantLen;
    if (!bOk) {
        BP_RSP_ERR(func, pLenFmt, msgLen, wantLen);
        return false;
    }
    return true;
}

/*
 * Takes the answered transaction off the list by the message's BP pair.
 * Returns null when there is none, or when it waits for another kind of
 * answer (it then goes back into the list, so that its own answer can still
 * arrive). wantSubCmd2 is a second accepted kind, or -1.
 */
static Transaction *TakeAnsweredTran(const uint8_t *pMsg, int wantSubCmd, int wantSubCmd2,
                                     const char *pNotExpectedFmt, const char *func) {
    uint8_t sid = pMsg[1];
    uint8_t tid = pMsg[2];
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

static void SetHeader(MsgHeader *pHdr, uint16_t msgId, uint16_t msgLen) {
    pHdr->pid = 0;
    pHdr->msgId = msgId;
    pHdr->msgLen = msgLen;
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

static Position ReadPosition(const uint8_t *pMsg) {
    Position pos;
    pos.longitude = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, longitude));
    pos.latitude = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, latitude));
    pos.latLonAccuracy =
        LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, latLonAccuracy));
    /* The time stamp is an integer that only changes byte order. */
    GetNet(&pos.timeStamp, pMsg + offsetof(BpGetLocationRsp, timeStamp), 8);
    pos.altitude = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, altitude));
    pos.speed = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, speed));
    pos.travelDirection =
        LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, travelDirection));
    pos.pointingDirection =
        LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, pointingDirection));
    pos.horizontalAccuracy =
        LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, horizontalAccuracy));
    pos.verticalAccuracy =
        LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, verticalAccuracy));
    pos.course = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpGetLocationRsp, course));
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
    if (!CheckBpMsg(pMsg, msgLen, GEOLOCATION_APBP_RES, LEN_AT_LEAST,
                    LAPI_BP_GET_LOCATION_RSP_MIN_LEN,
                    "Received getLocationRsp BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    /* Last-known requests are answered with an ordinary location response. */
    Transaction *pTran = TakeAnsweredTran(
        pMsg, GEOLOCATION_APBP_REQ, LAST_KNOWN_GEOLOCATION_APBP_REQ,
        "Received getLocationRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }

    GetLocationRsp rsp;
    memset(&rsp, 0, sizeof(rsp)); /* the NMEA area behind the data stays clear */
    SetHeader(&rsp.header, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN);
    rsp.sessionId = pTran->clientSid;
    rsp.transactionId = pTran->clientTid;
    StorePosition(&rsp, ReadPosition(pMsg));
    rsp.locationMethod = GetI32(pMsg + offsetof(BpGetLocationRsp, locationMethod));
    rsp.cause = GetI32(pMsg + offsetof(BpGetLocationRsp, cause));
    uint64_t ageOfFix;
    GetNet(&ageOfFix, pMsg + offsetof(BpGetLocationRsp, ageOfFix), sizeof(ageOfFix));
    rsp.ageOfFix = ageOfFix;
    uint16_t nmeaLen;
    GetNet(&nmeaLen, pMsg + offsetof(BpGetLocationRsp, nmeaDataLength), sizeof(nmeaLen));
    rsp.nmeaDataLength = nmeaLen;

    if (nmeaLen > LAPI_MAX_NMEA_LEN) {
        /* No answer at all, and a periodic request ends here too. */
        LAPI_SRV_TRACE("Received a nmea data too large");
        free(pTran);
        return;
    }
    /* A length beyond the message is cut to what the message holds; the
     * rest of the area stays zero. */
    size_t nmeaHave = msgLen - LAPI_BP_GET_LOCATION_RSP_MIN_LEN;
    size_t nmeaCopy = nmeaLen < nmeaHave ? nmeaLen : nmeaHave;
    if (nmeaCopy > 0) {
        memcpy(rsp.nmeaData, pMsg + LAPI_BP_GET_LOCATION_RSP_MIN_LEN, nmeaCopy);
    }

    LAPI_SRV_LOG_LocationRsp(&rsp, pMsg[1], pMsg[2]);

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
    if (!CheckBpMsg(pMsg, msgLen, GEOLOCATION_ABORT_APBP_RES, LEN_EXACT,
                    LAPI_BP_ABORT_LOCATION_RSP_LEN,
                    "Received abortLocationRsp BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran = TakeAnsweredTran(
        pMsg, GEOLOCATION_ABORT_APBP_REQ, -1,
        "Received abortLocationRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    AbortLocationRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    SetHeader(&rsp.header, LAPI_ABORT_LOCATION_RSP, LAPI_ABORT_LOCATION_RSP_LEN);
    rsp.sessionId = pTran->clientSid;
    rsp.transactionId = pTran->clientTid;
    rsp.result = GetI32(pMsg + offsetof(BpAbortLocationRsp, result));
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send abort location response to client!");
    }
    free(pTran);
}

/* ------------------------------------------------------------------------ */
/* Answers with a fixed layout                                               */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_ProcBpSetGpsDbDataRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, DB_WRITE_APBP_RES, LEN_EXACT, LAPI_BP_SET_GPS_DB_DATA_RSP_LEN,
                    "Received setGpsDbDataRsp BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran = TakeAnsweredTran(
        pMsg, DB_WRITE_APBP_REQ, -1,
        "Received setGpsDbDataRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    SetGpsDbDataRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    SetHeader(&rsp.header, LAPI_SET_GPS_DB_DATA_RSP, LAPI_SET_GPS_DB_DATA_RSP_LEN);
    rsp.sessionId = pTran->clientSid;
    rsp.transactionId = pTran->clientTid;
    rsp.result = GetI32(pMsg + offsetof(BpSetGpsDbDataRsp, result));
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send set location state response to client!");
    }
    free(pTran);
}

/* The eight status fields of GET_STATUS_APBP_RES and STATUS_CHANGE_BPAP_IND. */
static void ReadStatus(GetStatusRsp *pRsp, const uint8_t *pMsg) {
    pRsp->userStatus = GetI32(pMsg + offsetof(BpStatusInd, userStatus));
    pRsp->hwStatus = GetI32(pMsg + offsetof(BpStatusInd, hwStatus));
    pRsp->fixStatus = GetI32(pMsg + offsetof(BpStatusInd, fixStatus));
    pRsp->emergencyStatus = GetI32(pMsg + offsetof(BpStatusInd, emergencyStatus));
    pRsp->fixResultStatus.status = GetI32(pMsg + offsetof(BpStatusInd, fixResultStatusStatus));
    pRsp->fixResultStatus.cause = GetI32(pMsg + offsetof(BpStatusInd, fixResultStatusCause));
    pRsp->signalStatus = GetI32(pMsg + offsetof(BpStatusInd, signalStatus));
    pRsp->iconStatus = GetI32(pMsg + offsetof(BpStatusInd, iconStatus));
}

void LAPI_SRV_ProcBpGetStatusRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, GET_STATUS_APBP_RES, LEN_EXACT, LAPI_BP_STATUS_IND_LEN,
                    "Received getStatusRsp BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran =
        TakeAnsweredTran(pMsg, GET_STATUS_APBP_REQ, -1,
                         "Received getStatusRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    GetStatusRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    SetHeader(&rsp.header, LAPI_GET_STATUS_RSP, LAPI_GET_STATUS_RSP_LEN);
    rsp.sessionId = pTran->clientSid;
    rsp.transactionId = pTran->clientTid;
    ReadStatus(&rsp, pMsg);
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send get status response to client!");
    }
    free(pTran);
}

void LAPI_SRV_ProcBpDistanceAzimuthRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, DISTANCE_AND_AZIMUTH_APBP_RES, LEN_EXACT,
                    LAPI_BP_DISTANCE_AZIMUTH_RSP_LEN,
                    "Received distanceAzimuthRsp BP Msg length: %d is not expected: %d!",
                    __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran = TakeAnsweredTran(
        pMsg, DISTANCE_AND_AZIMUTH_APBP_REQ, -1,
        "Received distanceAzimuthRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    DistanceAzimuthRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    SetHeader(&rsp.header, LAPI_DISTANCE_AZIMUTH_RSP, LAPI_DISTANCE_AZIMUTH_RSP_LEN);
    rsp.sessionId = pTran->clientSid;
    rsp.transactionId = pTran->clientTid;
    rsp.distance = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpDistanceAzimuthRsp, distance));
    rsp.azimuth = LAPI_SRV_BpFixedToDouble(pMsg + offsetof(BpDistanceAzimuthRsp, azimuth));
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send distance azimuth response to client!");
    }
    free(pTran);
}

/* ------------------------------------------------------------------------ */
/* Assistance data read                                                      */
/* ------------------------------------------------------------------------ */

/* Parses DB_READ_APBP_RES into the client message: 0, or -1 after logging. */
static int ParseGpsDbDataRsp(const uint8_t *pMsg, uint16_t msgLen, GetGpsDbDataRsp *pRsp,
                             const char *func) {
    const uint8_t *pEnd = pMsg + msgLen;
    uint16_t numFiles;
    GetNet(&numFiles, pMsg + offsetof(BpGetGpsDbDataRsp, numFiles), sizeof(numFiles));
    pRsp->numFiles = numFiles;
    if (numFiles > LAPI_BP_MAX_DB_FILES) {
        BP_RSP_ERR(func, "Invalid numFiles: %d!", numFiles);
        return -1;
    }
    const uint8_t *pPos = pMsg + sizeof(BpGetGpsDbDataRsp);
    for (int i = 0; i < numFiles; ++i) {
        const uint8_t *pEntry = pPos;
        if (LAPI_SRV_IncreasePtrAndCheck(&pPos, pEnd, LAPI_BP_DB_FILE_HEAD_LEN) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 1!");
            return -1;
        }
        DbFile file;
        memset(&file, 0, sizeof(file));
        uint32_t fileId;
        uint16_t length;
        GetNet(&fileId, pEntry + offsetof(BpDbFileHead, fileId), sizeof(fileId));
        GetNet(&length, pEntry + offsetof(BpDbFileHead, length), sizeof(length));
        file.fileId = fileId;
        file.length = length;
        memcpy(&pRsp->dbFile[i], &file, sizeof(file));
        if (length > LAPI_BP_MAX_DB_FILE_DATA_LEN || length == 0) {
            BP_RSP_ERR(func, "pRsp->dbFile[%d].length: %d is invalid!", i, length);
            return -1;
        }
        const uint8_t *pData = pPos;
        if (LAPI_SRV_IncreasePtrAndCheck(&pPos, pEnd, length) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 2!");
            return -1;
        }
        /* The data is one big-endian number of `length` bytes. */
        GetNet(file.data, pData, length);
        memcpy(&pRsp->dbFile[i], &file, sizeof(file));
    }
    const uint8_t *pResult = pPos;
    if (LAPI_SRV_IncreasePtrAndCheck(&pPos, pEnd, 4) != 0) {
        BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 3!");
        return -1;
    }
    pRsp->result = GetI32(pResult);
    return 0;
}

void LAPI_SRV_ProcBpGetGpsDbDataRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, DB_READ_APBP_RES, LEN_AT_LEAST,
                    LAPI_BP_GET_GPS_DB_DATA_RSP_MIN_LEN,
                    "Received getGpsDbDataRsp BP Msg length: %d is less than: %d!", __func__)) {
        return;
    }
    Transaction *pTran = TakeAnsweredTran(
        pMsg, DB_READ_APBP_REQ, -1,
        "Received getGpsDbDataRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    GetGpsDbDataRsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    SetHeader(&rsp.header, LAPI_GET_GPS_DB_DATA_RSP, LAPI_GET_GPS_DB_DATA_RSP_LEN);
    rsp.sessionId = pTran->clientSid;
    rsp.transactionId = pTran->clientTid;
    if (ParseGpsDbDataRsp(pMsg, msgLen, &rsp, __func__) != 0) {
        /* Nothing is sent: the client gets the timeout answer instead. */
        RelinkTran(pTran, kRelinkFail, __func__);
        return;
    }
    /* Traced only once it has been parsed. */
    LAPI_LogBpMsg(pMsg, msgLen);
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &rsp, sizeof(rsp)) != 0) {
        LAPI_SRV_ERR("Fail to send get location state response to client!");
    }
    free(pTran);
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
static void SendProximityRsp(Fdops *pFdops, uint16_t msgId, uint8_t sid, uint8_t tid,
                             int32_t status, const char *pSendFail, const char *func) {
    AddProximityRsp rsp; /* removeProximityRsp has the same layout */
    static_assert(sizeof(AddProximityRsp) == sizeof(RemoveProximityRsp), "same layout");
    memset(&rsp, 0, sizeof(rsp));
    SetHeader(&rsp.header, msgId, LAPI_ADD_PROXIMITY_RSP_LEN);
    rsp.sessionId = sid;
    rsp.transactionId = tid;
    rsp.status = status;
    if (LAPI_SRV_SendMsgToClient(pFdops, &rsp, sizeof(rsp)) != 0) {
        BP_RSP_ERR(func, "%s", pSendFail);
    }
}

void LAPI_SRV_ProcBpAddProximityRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, PROXIMITY_ADD_APBP_RES, LEN_EXACT, LAPI_BP_ADD_PROXIMITY_RSP_LEN,
                    "Received addProximityRsp BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran = TakeAnsweredTran(
        pMsg, PROXIMITY_ADD_APBP_REQ, -1,
        "Received addProximityRsp BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    /* Chosen before the area switches to the asynchronous connection. */
    Fdops *pFdops = TranFdops(pTran);
    uint8_t clientSid = pTran->clientSid;
    uint8_t clientTid = pTran->clientTid;
    int32_t status = GetI32(pMsg + offsetof(BpAddProximityRsp, status));
    if (status == 0) {
        MakeAreaActive(pTran, __func__);
    } else {
        free(pTran);
    }
    SendProximityRsp(pFdops, LAPI_ADD_PROXIMITY_RSP, clientSid, clientTid, status,
                     "Fail to send add proximity response to client!", __func__);
}

void LAPI_SRV_ProcBpRemoveAllProximityRspMsg(uint8_t *pMsg) {
    if (pMsg == nullptr) {
        return;
    }
    int32_t status = GetI32(pMsg + offsetof(BpRemoveProximityRsp, status));
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
        SendProximityRsp(pFdops, LAPI_REMOVE_PROXIMITY_RSP, clientSid, clientTid, status,
                         "Fail to send remove proximity response to client!", __func__);
        if (LAPI_SRV_tranListChanged) {
            /* The send removed a client with its transactions. */
            pPos = List_GetHeadPos(&LAPI_SRV_tranList);
        }
    }
}

void LAPI_SRV_ProcBpRemoveProximityRspMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(
            pMsg, msgLen, PROXIMITY_REM_APBP_RES, LEN_EXACT, LAPI_BP_REMOVE_PROXIMITY_RSP_LEN,
            "Received removeProximityRsp BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran = TakeAnsweredTran(
        pMsg, PROXIMITY_REM_APBP_REQ, -1,
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
    int32_t status = GetI32(pMsg + offsetof(BpRemoveProximityRsp, status));
    if (status == 0) {
        free(pTran);
        if (bRemoveAll) {
            LAPI_SRV_ProcBpRemoveAllProximityRspMsg(pMsg);
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
    SendProximityRsp(pFdops, LAPI_REMOVE_PROXIMITY_RSP, clientSid, clientTid, status,
                     "Fail to send remove proximity response to client!", __func__);
}

void LAPI_SRV_ProcBpProximityHitIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, PROXIMITY_HIT_APBP_IND, LEN_EXACT, LAPI_BP_PROXIMITY_HIT_IND_LEN,
                    "Received proximityHitInd BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    Transaction *pTran = TakeAnsweredTran(
        pMsg, LAPI_SRV_PROXIMITY_ACTIVE, PROXIMITY_REM_APBP_REQ,
        "Received proximityHitInd BP Msg not expected, sid: %d, tid: %d!", __func__);
    if (pTran == nullptr) {
        return;
    }
    ProximityHitInd ind;
    memset(&ind, 0, sizeof(ind));
    SetHeader(&ind.header, LAPI_PROXIMITY_HIT_IND, LAPI_PROXIMITY_HIT_IND_LEN);
    ind.sessionId = pTran->clientSid;
    ind.transactionId = pTran->clientTid;
    StorePosition(&ind, ReadPosition(pMsg));
    ind.locationMethod = GetI32(pMsg + offsetof(BpProximityHitInd, locationMethod));
    uint64_t ageOfFix;
    GetNet(&ageOfFix, pMsg + offsetof(BpProximityHitInd, ageOfFix), sizeof(ageOfFix));
    ind.ageOfFix = static_cast<uint32_t>(ageOfFix);
    if (LAPI_SRV_SendMsgToClient(TranFdops(pTran), &ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR("Fail to send proximity hit indicator to client!");
    }
    /* An area reports one hit and is gone. */
    free(pTran);
}

/* ------------------------------------------------------------------------ */
/* Indications to client lists                                               */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_ProcBpStatusChangeIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, STATUS_CHANGE_BPAP_IND, LEN_EXACT, LAPI_BP_STATUS_IND_LEN,
                    "Received statusChangeInd BP Msg length: %d is not expected: %d!", __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    StatusChangeInd ind;
    memset(&ind, 0, sizeof(ind));
    SetHeader(&ind.header, LAPI_STATUS_CHANGE_IND, LAPI_STATUS_CHANGE_IND_LEN);
    ind.sessionId = pMsg[1];
    ind.transactionId = pMsg[2];
    ReadStatus(&ind, pMsg);
    if (LAPI_SRV_BroadcastMsgToStatusClient(&ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR("Fail to broadcast status change indicator to all status client!");
    }
}

void LAPI_SRV_ProcBpNotificationStatusIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, NOTIFICATION_STATUS_BPAP_IND, LEN_EXACT,
                    LAPI_BP_NOTIFICATION_STATUS_IND_LEN,
                    "Received mtlrNotificationStatusInd BP Msg length: %d is not expected: %d!",
                    __func__)) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    NotificationStatusInd ind;
    memset(&ind, 0, sizeof(ind));
    SetHeader(&ind.header, LAPI_NOTIFICATION_STATUS_IND, LAPI_NOTIFICATION_STATUS_IND_LEN);
    ind.sessionId = pMsg[1];
    ind.transactionId = pMsg[2];
    ind.cause = GetI32(pMsg + offsetof(BpNotificationStatusInd, cause));
    if (LAPI_SRV_BroadcastMsgToMtlrClient(&ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR("Fail to broadcast MT-LR notification status indicator to all MT-LR client!");
    }
}

/* Parses LOCATION_NOTIFICATION_BPAP_IND into the client message: 0, or -1
 * after logging. */
static int ParseLocationNotificationInd(const uint8_t *pMsg, uint16_t msgLen,
                                        LocationNotificationInd *pInd, const char *func) {
    const uint8_t *pEnd = pMsg + msgLen;
    pInd->notificationType = GetI32(pMsg + offsetof(BpLocationNotificationInd, notificationType));
    pInd->locationType = GetI32(pMsg + offsetof(BpLocationNotificationInd, locationType));
    pInd->dataCodingSchema = pMsg[offsetof(BpLocationNotificationInd, dataCodingSchema)];
    uint8_t nameLength = pMsg[offsetof(BpLocationNotificationInd, nameLength)];
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
    const uint8_t *pPos = pMsg + sizeof(BpLocationNotificationInd);
    if (nameLength != 0) {
        const uint8_t *pName = pPos;
        if (LAPI_SRV_IncreasePtrAndCheck(&pPos, pEnd, nameLength) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 1!");
            return -1;
        }
        /* UCS-2 characters, each from big-endian to host order. */
        for (int i = 0; i < nameLength; i += 2) {
            GetNet(&pInd->clientName[i], pName + i, 2);
        }
    }
    pInd->clientName[nameLength] = 0;
    pInd->clientName[nameLength + 1] = 0;

    const uint8_t *pAddrLen = pPos;
    if (LAPI_SRV_IncreasePtrAndCheck(&pPos, pEnd, 1) != 0) {
        BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 2!");
        return -1;
    }
    uint8_t addrLength = *pAddrLen;
    pInd->addrLength = addrLength;
    if (addrLength > LAPI_BP_MAX_CLIENT_ADDR_LEN) {
        BP_RSP_ERR(func, "pRsp->addrLength: %d > (sizeof(pRsp->clientExternalAddr) - 1): %d!",
                   addrLength, LAPI_BP_MAX_CLIENT_ADDR_LEN);
        return -1;
    }
    if (addrLength != 0) {
        const uint8_t *pAddr = pPos;
        if (LAPI_SRV_IncreasePtrAndCheck(&pPos, pEnd, addrLength) != 0) {
            BP_RSP_ERR(func, "LAPI_SRV_IncreasePtrAndCheck() Error 3!");
            return -1;
        }
        memcpy(pInd->clientExternalAddr, pAddr, addrLength);
    }
    pInd->clientExternalAddr[addrLength] = 0;
    return 0;
}

void LAPI_SRV_ProcBpLocationNotificationIndMsg(uint8_t *pMsg, uint16_t msgLen) {
    if (!CheckBpMsg(pMsg, msgLen, LOCATION_NOTIFICATION_BPAP_IND, LEN_AT_LEAST,
                    LAPI_BP_LOCATION_NOTIFICATION_IND_MIN_LEN,
                    "Received mtlrLocationNotificationInd BP Msg length: %d is less than: %d!",
                    __func__)) {
        return;
    }
    LocationNotificationInd ind;
    memset(&ind, 0, sizeof(ind));
    SetHeader(&ind.header, LAPI_LOCATION_NOTIFICATION_IND, LAPI_LOCATION_NOTIFICATION_IND_LEN);
    /* The BP's own pair: the MT-LR client answers with it. */
    ind.sessionId = pMsg[1];
    ind.transactionId = pMsg[2];
    if (ParseLocationNotificationInd(pMsg, msgLen, &ind, __func__) != 0) {
        return;
    }
    LAPI_LogBpMsg(pMsg, msgLen);
    if (LAPI_SRV_BroadcastMsgToMtlrClient(&ind, sizeof(ind)) != 0) {
        LAPI_SRV_ERR(
            "Fail to broadcast MT-LR location notification indicator to all MT-LR client!");
    }
}
