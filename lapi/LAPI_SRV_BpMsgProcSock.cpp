/*
 * The BP side of the network proxy: the BP's requests to open a socket,
 * send on it, close it and put TLS on it, and the answers and indications
 * that go back (socket responses, received data, TLS response).
 *
 * Each request arrives as one whole message (BpMsgHeader first) as it lies
 * in the channel's read buffer; nothing is read beyond msgLen, and lengths
 * that come inside the message are checked against it before use.
 */
#include <stdlib.h>
#include <string.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_tls.h"
#include "LAPI_Wire.h"

/* The send-data and close handlers report a wrong length in the words of
 * the open handler. */
static const char kOpenSocketLenFmt[] =
    "Received openSocket BP Msg length: %d is not expected: %d!";
static const char kTlsSessionLenFmt[] =
    "Received tls session BP Msg length: %d is not expected: %d!";

/* Frames the message that the writer built after the frame head and sends
 * it: 0, or -1 when it could not be sent. */
static int FrameAndSend(uint8_t *pFrame, const LAPI_Writer &w) {
    uint16_t frameLen = LAPI_SRV_SetUpBpMsgFrame(pFrame, static_cast<uint16_t>(w.Size()));
    if (frameLen == 0) {
        return -1;
    }
    return LAPI_SRV_SendMsgToBp(pFrame, frameLen);
}

/* BpMsgHeader + linkId: the start of every answer. */
static void PutSocketHead(LAPI_Writer *pW, uint8_t subCmdId, uint8_t sessionId,
                          uint8_t transactionId, uint32_t linkId) {
    pW->PutU8(subCmdId);
    pW->PutU8(sessionId);
    pW->PutU8(transactionId);
    pW->PutBe32(linkId);
}

/* BpMsgHeader + linkId: the start of every request. */
struct SockReqHead {
    uint8_t sessionId;
    uint8_t transactionId;
    uint32_t linkId;
};

/* Reads the head of a request and leaves r after it. The row's length check
 * has made every fixed field of the request present. */
static SockReqHead ReadSockReqHead(LAPI_Reader *pR) {
    SockReqHead head = {0, 0, 0};
    pR->Skip(1);
    pR->GetU8(&head.sessionId);
    pR->GetU8(&head.transactionId);
    pR->GetBe32(&head.linkId);
    return head;
}

/* ------------------------------------------------------------------------ */
/* Answers and indications                                                   */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_SendSocketRes(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId,
                            uint32_t linkId, int32_t result) {
    uint8_t frame[LAPI_BP_FRAME_OVERHEAD + LAPI_BP_SOCKET_RES_LEN];
    LAPI_Writer w(frame + LAPI_BP_FRAME_HEAD_LEN, LAPI_BP_SOCKET_RES_LEN);
    PutSocketHead(&w, subCmdId, sessionId, transactionId, linkId);
    w.PutBe32(static_cast<uint32_t>(result));
    LAPI_SRV_TRACE("SOCKET_MSG_RES_T size is %d", static_cast<int>(sizeof(SOCKET_MSG_RES_T)));
    if (FrameAndSend(frame, w) != 0) {
        LAPI_SRV_ERR("Fail to send socket response to BP!");
    }
}

void LAPI_SRV_SendTLSRes(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                         uint8_t result) {
    uint8_t frame[LAPI_BP_FRAME_OVERHEAD + LAPI_BP_TLS_RES_LEN];
    LAPI_Writer w(frame + LAPI_BP_FRAME_HEAD_LEN, LAPI_BP_TLS_RES_LEN);
    PutSocketHead(&w, TLS_SESSION_APBP_RES, sessionId, transactionId, linkId);
    w.PutU8(result);
    LAPI_SRV_TRACE("TLS_MSG_RES_T size is %d", static_cast<int>(sizeof(TLS_MSG_RES_T)));
    if (FrameAndSend(frame, w) != 0) {
        LAPI_SRV_ERR("Fail to send socket response to BP!");
    }
}

void LAPI_SRV_SendSocketDataInd(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                                uint32_t length, const uint8_t *pData, int32_t result) {
    if (pData == nullptr) {
        length = 0;
    }
    if (length > LAPI_BP_MSG_MAX_LEN - LAPI_BP_SOCKET_DATA_IND_MIN_LEN) {
        /* More than one frame can carry: the BP would refuse it anyway. */
        LAPI_SRV_ERR("Data length: %u > %d, discard!", length,
                     LAPI_BP_MSG_MAX_LEN - LAPI_BP_SOCKET_DATA_IND_MIN_LEN);
        return;
    }
    const size_t bodyLen = LAPI_BP_SOCKET_DATA_IND_MIN_LEN + length;
    uint8_t *pFrame = static_cast<uint8_t *>(malloc(length + 20));
    if (pFrame == nullptr) {
        LAPI_SRV_ERR("malloc fail!");
        return;
    }
    LAPI_SRV_TRACE("LEN:%d", static_cast<int>(length));
    LAPI_SRV_TRACE("recv data ind link id:%d", static_cast<int>(linkId));
    LAPI_Writer w(pFrame + LAPI_BP_FRAME_HEAD_LEN, bodyLen);
    PutSocketHead(&w, SOCKET_DATA_APBP_IND, sessionId, transactionId, linkId);
    w.PutBe32(length);
    w.PutBytes(pData, length);
    w.PutBe32(static_cast<uint32_t>(result));
    LAPI_SRV_TRACE("SIZEOF + LEN:%d", static_cast<int>(bodyLen));
    uint16_t frameLen = LAPI_SRV_SetUpBpMsgFrame(pFrame, static_cast<uint16_t>(bodyLen));
    LAPI_SRV_TRACE("frameLen:%d", frameLen);
    if (frameLen != 0) {
        LAPI_SRV_SendMsgToBp(pFrame, frameLen);
    }
    free(pFrame);
}

int LAPI_SRV_SendData(uint8_t sessionId, uint8_t transactionId, uint32_t linkId, uint32_t length,
                      const uint8_t *pData) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_SendData linkid : %d, length:%d", static_cast<int>(linkId),
                   static_cast<int>(length));
    /* Data bytes, not text: printed no further than length. */
    LAPI_SRV_TRACE("pData:%.*s", pData != nullptr ? static_cast<int>(length) : 0,
                   pData != nullptr ? reinterpret_cast<const char *>(pData) : "");
    SocketInfo *pSocketInfo = GetSocketInfoByLinkId(linkId);
    bool bOk = false;
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("Enter LAPI_SRV_SendData, pSocketInfo == NULL!");
    } else if (pData == nullptr || length == 0) {
        LAPI_SRV_ERR("(buf == NULL) || (length <= 0)!");
    } else if (pSocketInfo->pFdops == nullptr) {
        LAPI_SRV_ERR("Enter LAPI_SRV_SendData, pSocketInfo == NULL!");
    } else if (length > pSocketInfo->pFdops->wbuf.len) {
        /* Every request is written from wbuf in one piece. */
        LAPI_SRV_ERR("Send data length: %u > wbuf size: %d, refuse!", length,
                     pSocketInfo->pFdops->wbuf.len);
    } else if (pSocketInfo->pFdops->wbuf.idx == 0) {
        Fdops *pFdops = pSocketInfo->pFdops;
        pSocketInfo->sessionId = sessionId;
        pSocketInfo->transactionId = transactionId;
        memcpy(pFdops->wbuf.buf, pData, length);
        LAPI_SRV_TRACE("PDATA:%p, pData:%.*s", static_cast<void *>(pFdops->wbuf.buf),
                       static_cast<int>(length), reinterpret_cast<const char *>(pData));
        LAPI_SRV_TRACE("COUNT:%d", static_cast<int>(length));
        pFdops->wbuf.idx = static_cast<uint16_t>(length);
        LAPI_SRV_AddFdopsWriteList(pFdops);
        LAPI_SRV_WriteNetworkMsg(pFdops);
        return 0;
    } else if (LAPI_SRV_AddSendDataList(&pSocketInfo->sendDataList, pData, static_cast<int>(length),
                                        sessionId, transactionId) == 0) {
        bOk = true;
    }
    if (bOk) {
        return 0;
    }
    LAPI_SRV_SendSocketRes(SEND_DATA_APBP_RES, sessionId, transactionId, linkId, -1);
    return -1;
}

/* ------------------------------------------------------------------------ */
/* Requests                                                                  */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_ProcBpOpenSocketReqMsg(uint8_t *pMsg, uint16_t msgLen) {
    LAPI_LogBpMsg(pMsg, msgLen);
    LAPI_Reader r(pMsg, msgLen);
    const auto [sessionId, transactionId, linkId] = ReadSockReqHead(&r);
    uint8_t ipv4[4] = {0, 0, 0, 0};
    uint16_t port = 0;
    uint32_t addrType = 0;
    uint8_t fqdnLength = 0;
    const uint8_t *pFqdn = nullptr;
    r.GetBytes(ipv4, sizeof(ipv4));
    r.GetBe16(&port);
    r.GetBe32(&addrType);
    r.GetU8(&fqdnLength);
    if (addrType == LAPI_SRV_ADDR_FQDN && r.GetSpan(&pFqdn, fqdnLength) != 0) {
        /* The name would be read from beyond the message. */
        LAPI_SRV_ERR("fqdnLength: %d runs past the message end: %d, refuse!", fqdnLength, msgLen);
        LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, sessionId, transactionId, linkId, -1);
        return;
    }

    if (LAPI_SRV_napiConnected == 0 && Connect2Napi() < 0) {
        LAPI_SRV_ERR("not connect to napi");
        LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, sessionId, transactionId, linkId, -1);
        return;
    }
    SocketInfo *pSocketInfo = GetFreeSocketInfo();
    if (pSocketInfo == nullptr) {
        LAPI_SRV_TRACE("No available resource for new socket");
        LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, sessionId, transactionId, linkId, -1);
        return;
    }
    int napiLink = OpenNapiLink();
    if (napiLink < 0) {
        LAPI_SRV_SendSocketRes(OPEN_SOCKET_APBP_RES, sessionId, transactionId, linkId, -1);
        ReleaseSockInfoEle(pSocketInfo);
        return;
    }
    pSocketInfo->sessionId = sessionId;
    pSocketInfo->transactionId = transactionId;
    pSocketInfo->linkId = linkId;
    LAPI_SRV_TRACE("linkId:%d", static_cast<int>(linkId));
    pSocketInfo->napiLink = napiLink;
    pSocketInfo->fd = 0;
    pSocketInfo->dialCount = 0;
    pSocketInfo->port = port;
    pSocketInfo->addrType = addrType;
    memset(pSocketInfo->address, 0, sizeof(pSocketInfo->address));
    if (addrType == LAPI_SRV_ADDR_IPV4) {
        memcpy(pSocketInfo->address, ipv4, sizeof(ipv4));
    } else if (addrType == LAPI_SRV_ADDR_FQDN) {
        /* At most 255 bytes: the terminating zero always fits. */
        memcpy(pSocketInfo->address, pFqdn, fqdnLength);
    }
    List_Init(&pSocketInfo->sendDataList);
    /* Answered once the link and the connect have an outcome. */
}

void LAPI_SRV_ProcBpSendDataReqMsg(uint8_t *pMsg, uint16_t msgLen) {
    LAPI_Reader r(pMsg, msgLen);
    const auto [sessionId, transactionId, linkId] = ReadSockReqHead(&r);
    uint32_t length = 0;
    r.GetBe32(&length);
    const uint8_t *pData = nullptr;
    if (r.GetSpan(&pData, length) != 0) {
        /* Nothing is sent that the BP did not send. */
        LAPI_SRV_ERR("Send data length: %u > bytes received: %d, refuse!", length,
                     static_cast<int>(r.Left()));
        LAPI_SRV_SendSocketRes(SEND_DATA_APBP_RES, sessionId, transactionId, linkId, -1);
        return;
    }
    LAPI_SRV_SendData(sessionId, transactionId, linkId, length, pData);
    LAPI_SRV_TRACE("AFTER LAPI_SRV_SENDDATA");
}

void LAPI_SRV_ProcBpCloseSocketReqMsg(uint8_t *pMsg, uint16_t msgLen) {
    LAPI_Reader r(pMsg, msgLen);
    const auto [sessionId, transactionId, linkId] = ReadSockReqHead(&r);
    SocketInfo *pSocketInfo = GetSocketInfoByLinkId(linkId);
    if (pSocketInfo == nullptr) {
        LAPI_SRV_ERR("Failed to match the linkId");
    } else if (pSocketInfo->pFdops != nullptr && pSocketInfo->pFdops->wbuf.idx != 0) {
        /* Answered once the queued data is written. */
        pSocketInfo->closeSessionId = sessionId;
        pSocketInfo->closeTransactionId = transactionId;
        pSocketInfo->bClosePending = 1;
        return;
    } else {
        LAPI_SRV_CloseSocket(pSocketInfo);
    }
    LAPI_SRV_SendSocketRes(CLOSE_SOCKET_APBP_RES, sessionId, transactionId, linkId, 0);
}

void LAPI_SRV_ProcBpTlsSessionReqMsg(uint8_t *pMsg, uint16_t msgLen) {
    LAPI_Reader r(pMsg, msgLen);
    const auto [sessionId, transactionId, linkId] = ReadSockReqHead(&r);
    uint8_t fqdnLength = 0;
    r.GetU8(&fqdnLength);
    /* A private copy with its terminating zero: 255 bytes at most. */
    char fqdn[LAPI_SRV_SOCK_NAME_LEN];
    memset(fqdn, 0, sizeof(fqdn));
    if (r.GetBytes(fqdn, fqdnLength) != 0) {
        /* The name would be read from beyond the message. */
        LAPI_SRV_ERR("fqdnLength: %d runs past the message end: %d, refuse!", fqdnLength, msgLen);
        LAPI_SRV_SendTLSRes(sessionId, transactionId, linkId, LAPI_SRV_TLS_SETUP_FAILED);
        return;
    }
    LAPI_SRV_TRACE("pMsg->fqdnLength is %d, FQDN is %s", fqdnLength, fqdn);
    int result = LAPI_SRV_CreateTlsSession(sessionId, transactionId, linkId, fqdn, fqdnLength);
    /* 2 has answered already (or not at all), 3 answers from the loop. */
    if (result == LAPI_SRV_TLS_DONE || result == LAPI_SRV_TLS_SETUP_FAILED) {
        LAPI_SRV_SendTLSRes(sessionId, transactionId, linkId, static_cast<uint8_t>(result));
    }
}

/* ------------------------------------------------------------------------ */
/* Dispatch rows                                                             */
/* ------------------------------------------------------------------------ */

/* The length texts are the socket service's own (one text for open, send
 * and close, as the BP's documentation words them). */
constexpr LAPI_SRV_BpMsgRow LAPI_SRV_bpSocketRows[] = {
    LAPI_SRV_BP_ROW(OPEN_SOCKET_BPAP_REQ, LAPI_SRV_ProcBpOpenSocketReqMsg, LAPI_LEN_AT_LEAST,
                    LAPI_BP_OPEN_SOCKET_REQ_MIN_LEN, kOpenSocketLenFmt),
    LAPI_SRV_BP_ROW(SEND_DATA_BPAP_REQ, LAPI_SRV_ProcBpSendDataReqMsg, LAPI_LEN_AT_LEAST,
                    LAPI_BP_SEND_DATA_REQ_MIN_LEN, kOpenSocketLenFmt),
    LAPI_SRV_BP_ROW(CLOSE_SOCKET_BPAP_REQ, LAPI_SRV_ProcBpCloseSocketReqMsg, LAPI_LEN_EXACT,
                    LAPI_BP_CLOSE_SOCKET_REQ_LEN, kOpenSocketLenFmt),
    LAPI_SRV_BP_ROW(TLS_SESSION_BPAP_REQ, LAPI_SRV_ProcBpTlsSessionReqMsg, LAPI_LEN_AT_LEAST,
                    LAPI_BP_TLS_SESSION_REQ_MIN_LEN, kTlsSessionLenFmt),
};
const size_t LAPI_SRV_bpSocketRowCount =
    sizeof(LAPI_SRV_bpSocketRows) / sizeof(LAPI_SRV_bpSocketRows[0]);
