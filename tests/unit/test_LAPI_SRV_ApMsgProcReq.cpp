/*
 * Request handlers and deadlines: what each client request sends to the BP
 * (byte for byte), which transaction it leaves behind, what the client is
 * answered when the request is refused, and how the timer scan ends
 * expired transactions.
 */
#include <gtest/gtest.h>

#include "LAPI_SRV_LocationLog.h"
#include "LocSvcTestHarness.h"

using namespace locsvc;

namespace {

/* Ticks from now until the transaction's deadline. */
int32_t TicksLeft(const Transaction *pTran) {
    return LAPI_SRV_TicksLeft(pTran->expireTime, LAPI_SRV_Times());
}

/* Deadline of a transaction made just now, checked to the second. */
void ExpectDeadlineSec(const Transaction *pTran, int seconds) {
    int32_t left = TicksLeft(pTran);
    EXPECT_LE(left, seconds * 100);
    EXPECT_GT(left, seconds * 100 - 100);
}

void Expire(Transaction *pTran) {
    LAPI_SRV_SetTranExpireTime(pTran,
                               static_cast<int32_t>(static_cast<uint32_t>(LAPI_SRV_Times()) - 1));
}

Bytes InvalidRsp(uint8_t sid, uint8_t tid) {
    InvalidRequestRsp r;
    r.header = MakeHeader(LAPI_INVALID_REQUEST_RSP, LAPI_INVALID_REQUEST_RSP_LEN, 0);
    r.sessionId = sid;
    r.transactionId = tid;
    return ToBytes(r);
}

Bytes TimeOutRspBytes(uint8_t sid, uint8_t tid) {
    TimeOutRsp r;
    r.header = MakeHeader(LAPI_TIME_OUT_RSP, LAPI_TIME_OUT_RSP_LEN, 0);
    r.sessionId = sid;
    r.transactionId = tid;
    return ToBytes(r);
}

class ApMsgProcReq : public ::testing::Test {
  protected:
    Harness h;
};

}  // namespace

/* ------------------------------------------------------------------------ */
/* getLocationReq                                                            */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcReq, GetLocationSendsGeolocationReqWithBpPair) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(7, 9, 1, 30000, 0);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));

    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    const Bytes want = {0x00, 2, 1, 0x00, 0x00, 0x75, 0x30, 0, 0, 0, 50, 0, 0, 0, 100, 0,
                        0,    0, 2, 0,    0,    0x03, 0xE8, 0, 0, 0, 0,  1, 0, 1, 1,   7};
    EXPECT_EQ(want, bp[0]);

    ASSERT_EQ(1u, h.TranCount());
    Transaction *pTran = h.Trans()[0];
    EXPECT_EQ(2, pTran->sid);
    EXPECT_EQ(1, pTran->tid);
    EXPECT_EQ(7, pTran->clientSid);
    EXPECT_EQ(9, pTran->clientTid);
    EXPECT_EQ(GEOLOCATION_APBP_REQ, pTran->subCmdId);
    EXPECT_EQ(0u, pTran->reqParam);
    EXPECT_EQ(1, pTran->isSync);
    EXPECT_EQ(c.pClient, pTran->pClient);
}

TEST_F(ApMsgProcReq, GetLocationFramesTheMessage) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(1, 1);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    Bytes raw = h.BpRaw();
    ASSERT_EQ(37u, raw.size());
    EXPECT_EQ(0x50, raw[0]);
    EXPECT_EQ(0x00, raw[1]);
    EXPECT_EQ(37, raw[2]);
    EXPECT_EQ(0xCF, raw[35]);
    EXPECT_EQ(0xB0, raw[36]);
}

TEST_F(ApMsgProcReq, ResponseTime30000GetsDeadline36sAhead) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(1, 1, 1, 30000, 0);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    ASSERT_EQ(1u, h.TranCount());
    ExpectDeadlineSec(h.Trans()[0], 36);
    EXPECT_EQ(36u, LAPI_SRV_GetLocationDeadlineSec(30000, 0));
}

TEST_F(ApMsgProcReq, ResponseTime999GetsDeadline6sAhead) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(1, 1, 1, 999, 0);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    ASSERT_EQ(1u, h.TranCount());
    ExpectDeadlineSec(h.Trans()[0], 6);
    EXPECT_EQ(6u, LAPI_SRV_GetLocationDeadlineSec(999, 2));
}

TEST_F(ApMsgProcReq, PeriodicRequestGetsSixtyDays) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(1, 1, 0, 1000, LAPI_REPORT_PERIODIC);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    ASSERT_EQ(1u, h.TranCount());
    Transaction *pTran = h.Trans()[0];
    ExpectDeadlineSec(pTran, 5184000);
    EXPECT_EQ(1u, pTran->reqParam);
    EXPECT_EQ(0, pTran->isSync);
}

TEST_F(ApMsgProcReq, GetLocationMsgLen32Or34Refused) {
    FakeClient c = h.AddClient();
    for (uint16_t len : {uint16_t{32}, uint16_t{34}}) {
        Bytes msg = ToBytes(MakeGetLocationReq(1, 1));
        msg.resize(8 + len, 0);
        memcpy(msg.data() + 6, &len, 2);
        StderrCapture cap;
        EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcGetLocationMsg, msg, c.pClient->pSyncFdops));
        EXPECT_TRUE(cap.HasError("Wrong get location msg length: " + std::to_string(len) +
                                 ", pid is: 4321!"))
            << cap.Text();
    }
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(ApMsgProcReq, WrongMsgIdRefused) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(1, 1);
    req.header.msgId = LAPI_ABORT_LOCATION_REQ;
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("pMsgHeader->msgId : 107 is not expected, pid : 4321!"));
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(ApMsgProcReq, SamePairTwiceSecondGetsInvalidRequestFirstRunsOn) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(3, 4, 1);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    h.BpMsgs();
    StderrCapture cap;
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Invalid client sid: 3, tid: 4, transaction exist! pid is : 4321!"));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(3, 4), msgs[0]);
    EXPECT_TRUE(h.BpMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(GEOLOCATION_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(ApMsgProcReq, InvalidRequestGoesToAsyncWhenModeIsNotOne) {
    FakeClient c = h.AddClient();
    GetLocationReq req = MakeGetLocationReq(3, 4, 2);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_TRUE(c.SyncMsgs().empty());
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(3, 4), msgs[0]);
}

TEST_F(ApMsgProcReq, SamePairFromAnotherClientIsIndependent) {
    FakeClient a = h.AddClient(1);
    FakeClient b = h.AddClient(2);
    GetLocationReq req = MakeGetLocationReq(3, 4);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), a.pClient->pSyncFdops));
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), b.pClient->pSyncFdops));
    EXPECT_EQ(2u, h.TranCount());
    EXPECT_EQ(2u, h.BpMsgs().size());
}

TEST_F(ApMsgProcReq, GetLocationWithoutChannelKeepsTransaction) {
    FakeClient c = h.AddClient();
    DestroyFdops(LAPI_SRV_pMuxFdops);
    LAPI_SRV_pMuxFdops = nullptr;
    StderrCapture cap;
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 2)),
                             c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Fail to send getLocation msg to BP, pid is : 4321!"));
    EXPECT_EQ(1u, h.TranCount());
}

TEST_F(ApMsgProcReq, GetLocationTracesTheTransaction) {
    FakeClient c = h.AddClient();
    StderrCapture cap;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 2)),
                             c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasTrace("PTran->pClient->pid=4321, pTran->sid=2, pTran->tid=1"));
}

/* ------------------------------------------------------------------------ */
/* abortLocationReq, abortAllLocationReq, lastKnownLocationReq               */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcReq, AbortRunningRequestSendsAbortAndKeepsTransaction) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(5, 6, 0)),
                             c.pClient->pSyncFdops));
    h.BpMsgs();
    auto abortReq = MakePrefixReq<AbortLocationReq>(LAPI_ABORT_LOCATION_REQ, 5, 6, 1);
    EXPECT_EQ(0,
              CallHandler(LAPI_SRV_ProcAbortLocationMsg, ToBytes(abortReq), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x02, 2, 1}), bp[0]);
    ASSERT_EQ(1u, h.TranCount());
    Transaction *pTran = h.Trans()[0];
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, pTran->subCmdId);
    EXPECT_EQ(1, pTran->isSync); /* the abort's answer goes where the abort asked */
    ExpectDeadlineSec(pTran, 5);
    EXPECT_TRUE(c.SyncMsgs().empty());
}

TEST_F(ApMsgProcReq, AbortOfRequestAlreadyBeingAbortedGetsInvalidRequest) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(5, 6)),
                             c.pClient->pSyncFdops));
    auto abortReq = MakePrefixReq<AbortLocationReq>(LAPI_ABORT_LOCATION_REQ, 5, 6, 1);
    ASSERT_EQ(0,
              CallHandler(LAPI_SRV_ProcAbortLocationMsg, ToBytes(abortReq), c.pClient->pSyncFdops));
    h.BpMsgs();
    StderrCapture cap;
    EXPECT_EQ(0,
              CallHandler(LAPI_SRV_ProcAbortLocationMsg, ToBytes(abortReq), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Invalid abort location msg, pid is : 4321!"));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(5, 6), msgs[0]);
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(ApMsgProcReq, AbortOfUnknownPairGetsInvalidRequest) {
    FakeClient c = h.AddClient();
    auto abortReq = MakePrefixReq<AbortLocationReq>(LAPI_ABORT_LOCATION_REQ, 1, 1, 0);
    EXPECT_EQ(0,
              CallHandler(LAPI_SRV_ProcAbortLocationMsg, ToBytes(abortReq), c.pClient->pSyncFdops));
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(1, 1), msgs[0]);
}

TEST_F(ApMsgProcReq, AbortWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakePrefixReq<AbortLocationReq>(LAPI_ABORT_LOCATION_REQ, 1, 1));
    msg[6] = 5;
    msg.push_back(0);
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcAbortLocationMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong abort location msg length: 5, pid is: 4321!"));
}

TEST_F(ApMsgProcReq, AbortAllAbortsRunningRequestsOfEveryClient) {
    FakeClient a = h.AddClient(1);
    FakeClient b = h.AddClient(2);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 1, 1)),
                             a.pClient->pSyncFdops));
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 1, 0)),
                             b.pClient->pSyncFdops));
    auto status = MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 2, 2);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetStatusMsg, ToBytes(status), a.pClient->pSyncFdops));
    h.BpMsgs();

    AbortAllLocationReq all;
    all.header = MakeHeader(LAPI_ABORT_ALL_LOCATION_REQ, 0, 2);
    EXPECT_EQ(0,
              CallHandler(LAPI_SRV_ProcAbortAllLocationMsg, ToBytes(all), b.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(2u, bp.size());
    EXPECT_EQ((Bytes{0x02, 2, 1}), bp[0]);
    EXPECT_EQ((Bytes{0x02, 2, 2}), bp[1]);
    std::vector<Transaction *> trans = h.Trans();
    ASSERT_EQ(3u, trans.size());
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, trans[0]->subCmdId);
    EXPECT_EQ(1, trans[0]->isSync); /* each keeps its own mode */
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, trans[1]->subCmdId);
    EXPECT_EQ(0, trans[1]->isSync);
    EXPECT_EQ(GET_STATUS_APBP_REQ, trans[2]->subCmdId);
}

TEST_F(ApMsgProcReq, AbortAllWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakeHeader(LAPI_ABORT_ALL_LOCATION_REQ, 1));
    msg.push_back(0);
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcAbortAllLocationMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong abort all location msg length: 1, pid is: 4321!"));
}

TEST_F(ApMsgProcReq, LastKnownSendsRequestWithFiveSecondDeadline) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<LastKnownLocationReq>(LAPI_LAST_KNOWN_LOCATION_REQ, 8, 9, 0);
    ASSERT_EQ(0,
              CallHandler(LAPI_SRV_ProcLastKnownLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x16, 2, 1}), bp[0]);
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(LAST_KNOWN_GEOLOCATION_APBP_REQ, h.Trans()[0]->subCmdId);
    ExpectDeadlineSec(h.Trans()[0], 5);
}

TEST_F(ApMsgProcReq, LastKnownPairInUseGetsInvalidRequest) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<LastKnownLocationReq>(LAPI_LAST_KNOWN_LOCATION_REQ, 8, 9, 1);
    ASSERT_EQ(0,
              CallHandler(LAPI_SRV_ProcLastKnownLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    StderrCapture cap;
    EXPECT_EQ(0,
              CallHandler(LAPI_SRV_ProcLastKnownLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Invalid client sid: 8, tid: 9, transaction exist! pid is : 4321!"));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(8, 9), msgs[0]);
}

TEST_F(ApMsgProcReq, LastKnownWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakePrefixReq<LastKnownLocationReq>(LAPI_LAST_KNOWN_LOCATION_REQ, 1, 1));
    msg.pop_back();
    msg[6] = 3;
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcLastKnownLocationMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong get last known location msg length: 3, pid is: 4321!"));
}

/* ------------------------------------------------------------------------ */
/* The timer scan                                                            */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcReq, NoTransactionsWaits3600s) {
    struct timeval tv = {1, 1};
    LAPI_SRV_ScanTranList(&tv);
    EXPECT_EQ(3600, tv.tv_sec);
    EXPECT_EQ(0, tv.tv_usec);
    LAPI_SRV_ScanTranList(nullptr); /* a null time value is allowed */
}

TEST_F(ApMsgProcReq, ScanWaitsForNearestDeadlineInTicks) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 1)),
                             c.pClient->pSyncFdops));
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 2)),
                             c.pClient->pSyncFdops));
    /* 250 ticks ahead (give the clock a tick or two to move). */
    LAPI_SRV_SetTranExpireTime(h.Trans()[1],
                               static_cast<int32_t>(static_cast<uint32_t>(LAPI_SRV_Times()) + 250));
    struct timeval tv;
    LAPI_SRV_ScanTranList(&tv);
    long ticks = tv.tv_sec * 100 + tv.tv_usec / 10000;
    EXPECT_EQ(0, tv.tv_usec % 10000);
    EXPECT_LE(ticks, 250);
    EXPECT_GE(ticks, 240);
    EXPECT_EQ(2u, h.TranCount());
}

TEST_F(ApMsgProcReq, ScanCapsWaitAtOneHour) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg,
                             ToBytes(MakeGetLocationReq(1, 1, 1, 1000, LAPI_REPORT_PERIODIC)),
                             c.pClient->pSyncFdops));
    struct timeval tv;
    LAPI_SRV_ScanTranList(&tv);
    EXPECT_EQ(3600, tv.tv_sec);
    EXPECT_EQ(0, tv.tv_usec);
}

TEST_F(ApMsgProcReq, SingleFixNeverAnsweredAbortsThenTimesOutWithClientPair) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(11, 12, 1)),
                             c.pClient->pSyncFdops));
    h.BpMsgs();
    Expire(h.Trans()[0]);
    struct timeval tv;
    LAPI_SRV_ScanTranList(&tv);

    /* The deadline aborts the request toward the BP, with 5 more seconds. */
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x02, 2, 1}), bp[0]);
    ASSERT_EQ(1u, h.TranCount());
    Transaction *pTran = h.Trans()[0];
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, pTran->subCmdId);
    ExpectDeadlineSec(pTran, 5);
    EXPECT_LE(tv.tv_sec, 5);
    EXPECT_GE(tv.tv_sec, 4);
    EXPECT_TRUE(c.SyncMsgs().empty());

    /* The BP stays silent: the client gets timeOutRsp with its own pair. */
    Expire(pTran);
    LAPI_SRV_ScanTranList(&tv);
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(TimeOutRspBytes(11, 12), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(h.BpMsgs().empty());
    EXPECT_EQ(3600, tv.tv_sec);
}

TEST_F(ApMsgProcReq, TimeOutRspFollowsTheTransactionsMode) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 4, 5, 0);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetStatusMsg, ToBytes(req), c.pClient->pSyncFdops));
    Expire(h.Trans()[0]);
    LAPI_SRV_ScanTranList(nullptr);
    EXPECT_TRUE(c.SyncMsgs().empty());
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(TimeOutRspBytes(4, 5), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(ApMsgProcReq, LastKnownTimesOutAfterFiveSecondsWithoutAbort) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<LastKnownLocationReq>(LAPI_LAST_KNOWN_LOCATION_REQ, 1, 2, 1);
    ASSERT_EQ(0,
              CallHandler(LAPI_SRV_ProcLastKnownLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
    h.BpMsgs();
    Expire(h.Trans()[0]);
    LAPI_SRV_ScanTranList(nullptr);
    EXPECT_TRUE(h.BpMsgs().empty());
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(TimeOutRspBytes(1, 2), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(ApMsgProcReq, ScanHandlesSeveralExpiredInOneTurn) {
    FakeClient c = h.AddClient();
    for (uint8_t t = 1; t <= 3; ++t) {
        auto req = MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 1, t, 1);
        ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetStatusMsg, ToBytes(req), c.pClient->pSyncFdops));
    }
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(2, 1)),
                             c.pClient->pSyncFdops));
    for (Transaction *pTran : h.Trans()) {
        Expire(pTran);
    }
    LAPI_SRV_ScanTranList(nullptr);
    EXPECT_EQ(3u, c.SyncMsgs().size());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(ApMsgProcReq, TimeOutToVanishedClientRemovesItAndItsTransactions) {
    FakeClient c = h.AddClient();
    for (uint8_t t = 1; t <= 2; ++t) {
        auto req = MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 1, t, 1);
        ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetStatusMsg, ToBytes(req), c.pClient->pSyncFdops));
    }
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(2, 1)),
                             c.pClient->pSyncFdops));
    h.BpMsgs();
    Expire(h.Trans()[0]);
    shutdown(c.syncPeer, SHUT_RDWR);
    StderrCapture cap;
    LAPI_SRV_ScanTranList(nullptr);
    EXPECT_TRUE(cap.HasError("Fail to send timeout response!")) << cap.Text();
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    /* The running location request was aborted once on the way out. */
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x02, 2, 3}), bp[0]);
}

TEST(ApMsgProcReqTicks, DeadlinesWrapModulo32Bits) {
    int32_t expire = static_cast<int32_t>(0x80000010u);
    EXPECT_EQ(0x20, LAPI_SRV_TicksLeft(expire, 0x7FFFFFF0L));
    EXPECT_EQ(-0x10, LAPI_SRV_TicksLeft(0x10, 0x20L));
    EXPECT_EQ(0, LAPI_SRV_TicksLeft(0x10, 0x10L));
}

/* ------------------------------------------------------------------------ */
/* Assistance data, status, notification answer, distance                    */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcReq, GetGpsDbDataSendsFileIdWithTenSecondDeadline) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<GetGpsDbDataReq>(LAPI_GET_GPS_DB_DATA_REQ, 1, 2);
    req.fileId = 0x01020304;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x06, 2, 1, 1, 2, 3, 4}), bp[0]);
    EXPECT_EQ(DB_READ_APBP_REQ, h.Trans()[0]->subCmdId);
    ExpectDeadlineSec(h.Trans()[0], 10);
}

TEST_F(ApMsgProcReq, GetGpsDbDataWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakePrefixReq<GetGpsDbDataReq>(LAPI_GET_GPS_DB_DATA_REQ, 1, 2));
    msg[6] = 9;
    msg.push_back(0);
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcGetGpsDbDataMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong get location state msg length: 9, pid is: 4321!"));
}

namespace {
SetGpsDbDataReq MakeSetDbReq(uint16_t numFiles) {
    auto req = MakePrefixReq<SetGpsDbDataReq>(LAPI_SET_GPS_DB_DATA_REQ, 1, 2);
    req.numFiles = numFiles;
    return req;
}
}  // namespace

TEST_F(ApMsgProcReq, SetGpsDbDataWritesEachEntryWithReversedData) {
    FakeClient c = h.AddClient();
    SetGpsDbDataReq req = MakeSetDbReq(2);
    req.dbFile[0].fileId = 0x0A0B0C0D;
    req.dbFile[0].length = 4;
    memcpy(req.dbFile[0].data, "\x11\x22\x33\x44", 4);
    req.dbFile[1].fileId = 7;
    req.dbFile[1].length = 2;
    memcpy(req.dbFile[1].data, "\x55\x66\x77\x88", 4);
    req.dbFile[2].fileId = 99; /* beyond numFiles: ignored */
    req.dbFile[2].length = 4;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    const Bytes want = {0x04, 2,    1,    0,    2,                            /* header, numFiles */
                        0x0A, 0x0B, 0x0C, 0x0D, 0, 4, 0x44, 0x33, 0x22, 0x11, /* file 0 */
                        0,    0,    0,    7,    0, 2, 0x66, 0x55};            /* file 1 */
    EXPECT_EQ(want, bp[0]);
    EXPECT_EQ(DB_WRITE_APBP_REQ, h.Trans()[0]->subCmdId);
    ExpectDeadlineSec(h.Trans()[0], 10);
}

TEST_F(ApMsgProcReq, SetGpsDbDataLengthAboveFourRunsIntoNextEntryReversed) {
    FakeClient c = h.AddClient();
    SetGpsDbDataReq req = MakeSetDbReq(1);
    req.dbFile[0].fileId = 1;
    req.dbFile[0].length = 8;
    memcpy(req.dbFile[0].data, "\x01\x02\x03\x04", 4);
    req.dbFile[1].fileId = 0x08070605; /* host order: bytes 05 06 07 08 */
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    const Bytes want = {0x04, 2, 1, 0, 1, 0, 0, 0, 1, 0, 8, 8, 7, 6, 5, 4, 3, 2, 1};
    EXPECT_EQ(want, bp[0]);
}

TEST_F(ApMsgProcReq, SetGpsDbDataReadsZerosBeyondTheMessage) {
    FakeClient c = h.AddClient();
    SetGpsDbDataReq req = MakeSetDbReq(24);
    req.dbFile[21].fileId = 0x21;
    req.dbFile[21].length = 6; /* two bytes past the end of the message */
    memcpy(req.dbFile[21].data, "\xA1\xA2\xA3\xA4", 4);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    /* 21 empty entries, entry 21 with 6 bytes, entries 22 and 23 all zero. */
    ASSERT_EQ(5u + 21 * 6 + 12 + 2 * 6, bp[0].size());
    Bytes e21(bp[0].begin() + 5 + 21 * 6, bp[0].begin() + 5 + 21 * 6 + 12);
    EXPECT_EQ((Bytes{0, 0, 0, 0x21, 0, 6, 0, 0, 0xA4, 0xA3, 0xA2, 0xA1}), e21);
    EXPECT_EQ(Bytes(12, 0), Bytes(bp[0].end() - 12, bp[0].end()));
}

TEST_F(ApMsgProcReq, SetGpsDbDataAccepted1019BytesExactly) {
    FakeClient c = h.AddClient();
    SetGpsDbDataReq req = MakeSetDbReq(1);
    req.dbFile[0].length = 1019 - 5 - 6;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ(1019u, bp[0].size());
}

TEST_F(ApMsgProcReq, SetGpsDbDataOver1019PayloadBytesClosesClient) {
    FakeClient c = h.AddClient();
    SetGpsDbDataReq req = MakeSetDbReq(2);
    req.dbFile[0].length = 500;
    req.dbFile[1].length = 509; /* 5 + 506 + 515 = 1026 */
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Buffer overflow when formating BP msg, pid is : 4321!"));
    EXPECT_TRUE(h.BpMsgs().empty());
    /* The transaction stays: removing the client (the -1) removes it. */
    EXPECT_EQ(1u, h.TranCount());
}

TEST_F(ApMsgProcReq, SetGpsDbDataHugeNumFilesStopsAtTheFrameLimit) {
    FakeClient c = h.AddClient();
    SetGpsDbDataReq req = MakeSetDbReq(0xFFFF);
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(req), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Buffer overflow when formating BP msg, pid is : 4321!"));
}

TEST_F(ApMsgProcReq, SetGpsDbDataAcceptedOnlyWithMsgLen226) {
    FakeClient c = h.AddClient();
    for (uint16_t len : {uint16_t{225}, uint16_t{227}}) {
        Bytes msg = ToBytes(MakeSetDbReq(0));
        msg.resize(8 + len, 0);
        memcpy(msg.data() + 6, &len, 2);
        StderrCapture cap;
        EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, msg, c.pClient->pSyncFdops));
        EXPECT_TRUE(cap.HasError("Wrong set location state msg length: " + std::to_string(len) +
                                 ", pid is: 4321!"));
    }
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcSetGpsDbDataMsg, ToBytes(MakeSetDbReq(0)),
                             c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x04, 2, 1, 0, 0}), bp[0]);
}

TEST_F(ApMsgProcReq, SetGpsDbDataWithMsgLenFittingNumFilesRefusedAndClientRemoved) {
    /* One entry is 16 bytes of body (prefix, numFiles, one dbFile); the
     * length is fixed all the same, and a refused request closes the client. */
    LAPI_SRV_InitApMsgProc();
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakeSetDbReq(1));
    const uint16_t len = 16;
    msg.resize(sizeof(MsgHeader) + len);
    memcpy(msg.data() + 6, &len, sizeof(len));
    ASSERT_EQ(static_cast<ssize_t>(msg.size()), write(c.syncPeer, msg.data(), msg.size()));
    StderrCapture cap;
    LAPI_SRV_SockReadProcAfterRegister(c.pClient->pSyncFdops);
    EXPECT_TRUE(cap.HasError("Wrong set location state msg length: 16, pid is: 4321!"))
        << cap.Text();
    EXPECT_TRUE(cap.HasTrace("remove client, pid = 4321")) << cap.Text();
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(h.BpMsgs().empty());
    /* Both connections are closed: their peers read the end of the stream. */
    for (int peer : {c.syncPeer, c.asyncPeer}) {
        ASSERT_EQ(0, fcntl(peer, F_SETFL, O_NONBLOCK));
        char byte;
        EXPECT_EQ(0, read(peer, &byte, 1)) << "peer " << peer << " still open";
    }
}

TEST_F(ApMsgProcReq, GetStatusSendsRequestWithFiveSecondDeadline) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 1, 2);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetStatusMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x11, 2, 1}), bp[0]);
    EXPECT_EQ(GET_STATUS_APBP_REQ, h.Trans()[0]->subCmdId);
    ExpectDeadlineSec(h.Trans()[0], 5);
}

TEST_F(ApMsgProcReq, GetStatusWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 1, 2));
    msg[6] = 0;
    msg.resize(8);
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcGetStatusMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong get status msg length: 0, pid is: 4321!"));
}

TEST_F(ApMsgProcReq, LocationNotificationCfmWithAnyPairForwardedWithoutRecord) {
    FakeClient c = h.AddClient();
    LocationNotificationCfm cfm;
    cfm.header = MakeHeader(LAPI_LOCATION_NOTIFICATION_CFM, LAPI_LOCATION_NOTIFICATION_CFM_LEN);
    cfm.sessionId = 0xEE;
    cfm.transactionId = 0x00;
    cfm.responseType = 0x01020304;
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcLocationNotificationCfmMsg, ToBytes(cfm),
                             c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x14, 0xEE, 0x00, 1, 2, 3, 4}), bp[0]);
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(c.SyncMsgs().empty());
}

TEST_F(ApMsgProcReq, LocationNotificationCfmSucceedsEvenWithoutChannel) {
    FakeClient c = h.AddClient();
    DestroyFdops(LAPI_SRV_pMuxFdops);
    LAPI_SRV_pMuxFdops = nullptr;
    LocationNotificationCfm cfm;
    cfm.header = MakeHeader(LAPI_LOCATION_NOTIFICATION_CFM, LAPI_LOCATION_NOTIFICATION_CFM_LEN);
    cfm.sessionId = 1;
    cfm.transactionId = 2;
    cfm.responseType = 0;
    StderrCapture cap;
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcLocationNotificationCfmMsg, ToBytes(cfm),
                             c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Fail to send locationNotificationCfm msg to BP, pid is : 4321!"));
}

TEST_F(ApMsgProcReq, LocationNotificationCfmWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakeHeader(LAPI_LOCATION_NOTIFICATION_CFM, 4));
    msg.resize(12, 0);
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcLocationNotificationCfmMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong location notification confirm msg length: 4, pid is: 4321!"));
}

TEST_F(ApMsgProcReq, DistanceAzimuthLatitudeOneAndMinusOneInFixedPoint) {
    FakeClient c = h.AddClient();
    auto req = MakePrefixReq<DistanceAzimuthReq>(LAPI_DISTANCE_AZIMUTH_REQ, 1, 2);
    req.latitude1 = 1.0;
    req.longitude1 = -1.0;
    req.latitude2 = -1.5;
    req.longitude2 = -0.0000001;
    req.distanceOnly = 1;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcDistanceAzimuthMsg, ToBytes(req), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    const Bytes want = {0x17, 2,    1,                                      /* header */
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00,     /* 1.0 */
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0x00, 0x00,     /* -1.0 */
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x40, 0x00, 0x00,     /* -1.5 */
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 1}; /* -1e-7 */
    EXPECT_EQ(want, bp[0]);
    EXPECT_EQ(DISTANCE_AND_AZIMUTH_APBP_REQ, h.Trans()[0]->subCmdId);
    ExpectDeadlineSec(h.Trans()[0], 10);
}

TEST_F(ApMsgProcReq, DistanceAzimuthWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakePrefixReq<DistanceAzimuthReq>(LAPI_DISTANCE_AZIMUTH_REQ, 1, 2));
    msg.pop_back();
    msg[6] = 36;
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcDistanceAzimuthMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong distance and azimuth req msg length: 36, pid is: 4321!"));
}

/* ------------------------------------------------------------------------ */
/* Proximity areas                                                           */
/* ------------------------------------------------------------------------ */

namespace {
AddProximityReq MakeAddProximity(uint8_t sid, uint8_t tid, uint16_t mode) {
    auto req = MakePrefixReq<AddProximityReq>(LAPI_ADD_PROXIMITY_REQ, sid, tid, mode);
    req.latitude = 1.0;
    req.longitude = 2.0;
    req.altitude = 0.5;
    req.radius = 100.0;
    return req;
}
RemoveProximityReq MakeRemoveProximity(uint8_t sid, uint8_t tid, uint16_t mode,
                                       uint32_t removeType) {
    auto req = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, sid, tid, mode);
    req.removeType = removeType;
    return req;
}
}  // namespace

TEST_F(ApMsgProcReq, AddProximitySendsFixedPointArea) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcAddProximityMsg, ToBytes(MakeAddProximity(1, 2, 1)),
                             c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    const Bytes want = {0x19, 2, 1, 0, 0, 0, 0,    0, 0x80, 0, 0, 0, 0, 0,    0, 1, 0, 0,
                        0,    0, 0, 0, 0, 0, 0x40, 0, 0,    0, 0, 0, 0, 0x32, 0, 0, 0};
    EXPECT_EQ(want, bp[0]);
    EXPECT_EQ(PROXIMITY_ADD_APBP_REQ, h.Trans()[0]->subCmdId);
    ExpectDeadlineSec(h.Trans()[0], 10);
}

TEST_F(ApMsgProcReq, AddProximityWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakeAddProximity(1, 2, 1));
    msg.push_back(0);
    msg[6] = 37;
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcAddProximityMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong add proximity req msg length: 37, pid is: 4321!"));
}

TEST_F(ApMsgProcReq, RemoveProximityOfPendingSyncAddRefused) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcAddProximityMsg, ToBytes(MakeAddProximity(1, 2, 1)),
                             c.pClient->pSyncFdops));
    h.BpMsgs();
    StderrCapture cap;
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                             ToBytes(MakeRemoveProximity(1, 2, 1, 0)), c.pClient->pSyncFdops));
    EXPECT_TRUE(
        cap.HasError("Invalid client sid: 1, tid: 2, proximity not exist or can not be "
                     "removed now! pid is : 4321!"));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(1, 2), msgs[0]);
    EXPECT_TRUE(h.BpMsgs().empty());
    EXPECT_EQ(PROXIMITY_ADD_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(ApMsgProcReq, RemoveProximityOfAsyncAddAccepted) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcAddProximityMsg, ToBytes(MakeAddProximity(1, 2, 0)),
                             c.pClient->pSyncFdops));
    h.BpMsgs();
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                             ToBytes(MakeRemoveProximity(1, 2, 1, 0)), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x1B, 2, 1, 0, 0, 0, 0}), bp[0]);
    ASSERT_EQ(1u, h.TranCount());
    Transaction *pTran = h.Trans()[0];
    EXPECT_EQ(PROXIMITY_REM_APBP_REQ, pTran->subCmdId);
    EXPECT_EQ(1, pTran->isSync); /* from the removal's own mode */
    EXPECT_EQ(0u, pTran->reqParam);
    ExpectDeadlineSec(pTran, 5);
}

TEST_F(ApMsgProcReq, RemoveProximityOfActiveAreaAccepted) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcAddProximityMsg, ToBytes(MakeAddProximity(1, 2, 1)),
                             c.pClient->pSyncFdops));
    h.Trans()[0]->subCmdId = PROXIMITY_ADD_APBP_RES; /* the BP accepted the area */
    h.BpMsgs();
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                             ToBytes(MakeRemoveProximity(1, 2, 0, 3)), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x1B, 2, 1, 0, 0, 0, 3}), bp[0]);
    EXPECT_EQ(3u, h.Trans()[0]->reqParam);
    EXPECT_EQ(0, h.Trans()[0]->isSync);
}

TEST_F(ApMsgProcReq, RemoveProximityOfUnknownAreaRefused) {
    FakeClient c = h.AddClient();
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                             ToBytes(MakeRemoveProximity(4, 4, 0, 0)), c.pClient->pSyncFdops));
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(4, 4), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(ApMsgProcReq, RemoveAllWithPairAlreadyInUseRefused) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcAddProximityMsg, ToBytes(MakeAddProximity(1, 2, 0)),
                             c.pClient->pSyncFdops));
    h.BpMsgs();
    StderrCapture cap;
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                             ToBytes(MakeRemoveProximity(1, 2, 1, 1)), c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Invalid client sid: 1, tid: 2, transaction exist! pid is : 4321!"));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(InvalidRsp(1, 2), msgs[0]);
    EXPECT_TRUE(h.BpMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(PROXIMITY_ADD_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(ApMsgProcReq, RemoveAllStartsItsOwnTransaction) {
    FakeClient c = h.AddClient();
    EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                             ToBytes(MakeRemoveProximity(9, 9, 1, 1)), c.pClient->pSyncFdops));
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{0x1B, 2, 1, 0, 0, 0, 1}), bp[0]);
    ASSERT_EQ(1u, h.TranCount());
    Transaction *pTran = h.Trans()[0];
    EXPECT_EQ(PROXIMITY_REM_APBP_REQ, pTran->subCmdId);
    EXPECT_EQ(1u, pTran->reqParam);
    EXPECT_EQ(9, pTran->clientSid);
    ExpectDeadlineSec(pTran, 5);
}

TEST_F(ApMsgProcReq, RemoveProximityWrongLengthRefused) {
    FakeClient c = h.AddClient();
    Bytes msg = ToBytes(MakeRemoveProximity(1, 2, 1, 1));
    msg.pop_back();
    msg[6] = 7;
    StderrCapture cap;
    EXPECT_EQ(-1, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, msg, c.pClient->pSyncFdops));
    EXPECT_TRUE(cap.HasError("Wrong remove proximity req msg length: 7, pid is: 4321!"));
}

/* ------------------------------------------------------------------------ */
/* The server's own short answers                                            */
/* ------------------------------------------------------------------------ */

TEST_F(ApMsgProcReq, InvalidReqResponseIsTenBytesWithPidZero) {
    FakeClient c = h.AddClient();
    EXPECT_EQ(0, LAPI_SRV_SendInvalidReqResponse(c.pClient->pSyncFdops, 0xAB, 0xCD));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 3, 0, 2, 0, 0xAB, 0xCD}), msgs[0]);
}

TEST_F(ApMsgProcReq, InvalidReqResponseFailureIsLoggedAndKeepsClient) {
    FakeClient c = h.AddClient();
    shutdown(c.syncPeer, SHUT_RDWR);
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_SendInvalidReqResponse(c.pClient->pSyncFdops, 1, 2));
    EXPECT_TRUE(cap.HasError("Fail to send invalidReq response!"));
    EXPECT_FALSE(List_IsEmpty(&LAPI_SRV_allClientList));
}

TEST_F(ApMsgProcReq, TimeOutResponseIsTenBytesWithPidZero) {
    FakeClient c = h.AddClient();
    EXPECT_EQ(0, LAPI_SRV_SendTimeOutReqResponse(c.pClient->pAsyncFdops, 1, 2));
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 2, 0, 2, 0, 1, 2}), msgs[0]);
}

TEST_F(ApMsgProcReq, TimeOutResponseFailureRemovesClient) {
    FakeClient c = h.AddClient();
    shutdown(c.asyncPeer, SHUT_RDWR);
    StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_SendTimeOutReqResponse(c.pClient->pAsyncFdops, 1, 2));
    EXPECT_TRUE(cap.HasError("Fail to send timeout response!"));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
}

TEST_F(ApMsgProcReq, AbortLocationReqWithoutChannelLogsAndFails) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 2)),
                             c.pClient->pSyncFdops));
    DestroyFdops(LAPI_SRV_pMuxFdops);
    LAPI_SRV_pMuxFdops = nullptr;
    StderrCapture cap;
    EXPECT_LT(LAPI_SRV_AbortLocationReq(h.Trans()[0], 0), 0);
    EXPECT_TRUE(cap.HasError("Fail to send abortLocation msg to BP, pid is : 4321!"));
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(ApMsgProcReq, ClientRemovedWithRunningRequestsAbortsEachOnce) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(MakeGetLocationReq(1, 1)),
                             c.pClient->pSyncFdops));
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg,
                             ToBytes(MakeGetLocationReq(1, 2, 1, 0, LAPI_REPORT_PERIODIC)),
                             c.pClient->pSyncFdops));
    auto status = MakePrefixReq<GetStatusReq>(LAPI_GET_STATUS_REQ, 1, 3);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcGetStatusMsg, ToBytes(status), c.pClient->pSyncFdops));
    h.BpMsgs();
    LAPI_SRV_RemoveClient(c.pClient);
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(2u, bp.size());
    EXPECT_EQ((Bytes{0x02, 2, 1}), bp[0]);
    EXPECT_EQ((Bytes{0x02, 2, 2}), bp[1]);
    EXPECT_EQ(0u, h.TranCount());
}

/* ------------------------------------------------------------------------ */
/* The handler a refusal names                                               */
/* ------------------------------------------------------------------------ */

namespace {

/* True when `text` holds the error line `msg` written by `func`. */
bool HasErrorFrom(const std::string &text, const std::string &func, const std::string &msg) {
    return text.find("\tLAPI Error SRV " + func + ": " + msg + "\n") != std::string::npos;
}

struct HandlerRow {
    const char *func;
    int (*handler)(uint8_t *, Fdops *);
    uint16_t msgId;
    uint16_t msgLen;
    const char *wrongLen; /* the wrong-length text up to its first number */
};

const HandlerRow kHandlerRows[] = {
    {"LAPI_SRV_ProcGetLocationMsg", LAPI_SRV_ProcGetLocationMsg, LAPI_GET_LOCATION_REQ, 33,
     "Wrong get location msg length: "},
    {"LAPI_SRV_ProcAbortLocationMsg", LAPI_SRV_ProcAbortLocationMsg, LAPI_ABORT_LOCATION_REQ, 4,
     "Wrong abort location msg length: "},
    {"LAPI_SRV_ProcAbortAllLocationMsg", LAPI_SRV_ProcAbortAllLocationMsg,
     LAPI_ABORT_ALL_LOCATION_REQ, 0, "Wrong abort all location msg length: "},
    {"LAPI_SRV_ProcLastKnownLocationMsg", LAPI_SRV_ProcLastKnownLocationMsg,
     LAPI_LAST_KNOWN_LOCATION_REQ, 4, "Wrong get last known location msg length: "},
    {"LAPI_SRV_ProcGetGpsDbDataMsg", LAPI_SRV_ProcGetGpsDbDataMsg, LAPI_GET_GPS_DB_DATA_REQ, 8,
     "Wrong get location state msg length: "},
    {"LAPI_SRV_ProcSetGpsDbDataMsg", LAPI_SRV_ProcSetGpsDbDataMsg, LAPI_SET_GPS_DB_DATA_REQ, 226,
     "Wrong set location state msg length: "},
    {"LAPI_SRV_ProcGetStatusMsg", LAPI_SRV_ProcGetStatusMsg, LAPI_GET_STATUS_REQ, 4,
     "Wrong get status msg length: "},
    {"LAPI_SRV_ProcLocationNotificationCfmMsg", LAPI_SRV_ProcLocationNotificationCfmMsg,
     LAPI_LOCATION_NOTIFICATION_CFM, 6, "Wrong location notification confirm msg length: "},
    {"LAPI_SRV_ProcDistanceAzimuthMsg", LAPI_SRV_ProcDistanceAzimuthMsg, LAPI_DISTANCE_AZIMUTH_REQ,
     37, "Wrong distance and azimuth req msg length: "},
    {"LAPI_SRV_ProcAddProximityMsg", LAPI_SRV_ProcAddProximityMsg, LAPI_ADD_PROXIMITY_REQ, 36,
     "Wrong add proximity req msg length: "},
    {"LAPI_SRV_ProcRemoveProximityMsg", LAPI_SRV_ProcRemoveProximityMsg, LAPI_REMOVE_PROXIMITY_REQ,
     8, "Wrong remove proximity req msg length: "},
    {"LAPI_SRV_ProcRemoveAllProximityMsg", LAPI_SRV_ProcRemoveAllProximityMsg,
     LAPI_REMOVE_PROXIMITY_REQ, 8, "Wrong remove proximity req msg length: "},
};

/* A zero-filled message with the given header. */
Bytes ZeroMsg(uint16_t msgId, uint16_t msgLen) {
    Bytes msg = ToBytes(MakeHeader(msgId, msgLen));
    msg.resize(sizeof(MsgHeader) + msgLen, 0);
    return msg;
}

}  // namespace

TEST_F(ApMsgProcReq, WrongLengthAndWrongIdErrorsNameTheHandler) {
    FakeClient c = h.AddClient();
    for (const HandlerRow &row : kHandlerRows) {
        const uint16_t len = static_cast<uint16_t>(row.msgLen + 1);
        StderrCapture lenCap;
        EXPECT_EQ(-1, CallHandler(row.handler, ZeroMsg(row.msgId, len), c.pClient->pSyncFdops));
        EXPECT_TRUE(HasErrorFrom(lenCap.Text(), row.func,
                                 row.wrongLen + std::to_string(len) + ", pid is: 4321!"))
            << lenCap.Text();

        StderrCapture idCap;
        EXPECT_EQ(-1, CallHandler(row.handler, ZeroMsg(LAPI_UNREGISTER_RSP, row.msgLen),
                                  c.pClient->pSyncFdops));
        EXPECT_TRUE(HasErrorFrom(idCap.Text(), row.func,
                                 "pMsgHeader->msgId : 105 is not expected, pid : 4321!"))
            << idCap.Text();
    }
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(h.BpMsgs().empty());
}

TEST_F(ApMsgProcReq, PairInUseErrorNamesTheHandler) {
    FakeClient c = h.AddClient();
    /* The handlers that start a transaction under the client's own pair; a
     * zero-filled body is a valid request for each of them. */
    const std::vector<const HandlerRow *> rows = {
        &kHandlerRows[0], &kHandlerRows[3], &kHandlerRows[4], &kHandlerRows[5],
        &kHandlerRows[6], &kHandlerRows[8], &kHandlerRows[9], &kHandlerRows[11]};
    uint8_t sid = 1;
    for (const HandlerRow *pRow : rows) {
        Bytes msg = ZeroMsg(pRow->msgId, pRow->msgLen);
        msg[8] = 1; /* mode: answers on the synchronous connection */
        msg[10] = sid;
        msg[11] = 7;
        if (pRow->handler == LAPI_SRV_ProcRemoveAllProximityMsg) {
            msg[12] = LAPI_REMOVE_ALL_PROXIMITY;
        }
        ASSERT_EQ(0, CallHandler(pRow->handler, msg, c.pClient->pSyncFdops)) << pRow->func;
        StderrCapture cap;
        EXPECT_EQ(0, CallHandler(pRow->handler, msg, c.pClient->pSyncFdops)) << pRow->func;
        EXPECT_TRUE(HasErrorFrom(cap.Text(), pRow->func,
                                 "Invalid client sid: " + std::to_string(sid) +
                                     ", tid: 7, transaction exist! pid is : 4321!"))
            << cap.Text();
        std::vector<Bytes> msgs = c.SyncMsgs();
        ASSERT_EQ(1u, msgs.size()) << pRow->func;
        EXPECT_EQ(InvalidRsp(sid, 7), msgs[0]);
        ++sid;
    }
    EXPECT_EQ(rows.size(), h.TranCount());
}

TEST_F(ApMsgProcReq, RemoveProximitySendFailureNamesTheHandler) {
    FakeClient c = h.AddClient();
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcAddProximityMsg, ToBytes(MakeAddProximity(1, 2, 0)),
                             c.pClient->pSyncFdops));
    DestroyFdops(LAPI_SRV_pMuxFdops);
    LAPI_SRV_pMuxFdops = nullptr;
    const std::string text = "Fail to send removeProximityReq msg to BP, pid is : 4321!";
    {
        StderrCapture cap;
        EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                                 ToBytes(MakeRemoveProximity(1, 2, 1, 0)), c.pClient->pSyncFdops));
        EXPECT_TRUE(HasErrorFrom(cap.Text(), "LAPI_SRV_ProcRemoveProximityMsg", text))
            << cap.Text();
    }
    {
        StderrCapture cap;
        EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg,
                                 ToBytes(MakeRemoveProximity(5, 5, 1, 1)), c.pClient->pSyncFdops));
        EXPECT_TRUE(HasErrorFrom(cap.Text(), "LAPI_SRV_ProcRemoveAllProximityMsg", text))
            << cap.Text();
    }
    /* Both wait for their deadline. */
    EXPECT_EQ(2u, h.TranCount());
}

/* Deadlines are kept modulo 2^32 so that a large tick count does not turn
 * them negative; as long as neither value has wrapped, "expired" means
 * exactly now >= expireTime. */
TEST(ApMsgProcReqTicks, TicksLeftMatchesSignedComparisonWithoutWrap) {
    const int64_t kMax = 0x7FFFFFFF;
    const int64_t edges[] = {0,      1,         99,          100,           500,
                             360000, 518400000, 1718219564,  kMax - 360000, kMax - 1,
                             kMax,   kMax / 2,  kMax / 2 + 1};
    std::vector<int64_t> values(std::begin(edges), std::end(edges));
    uint32_t x = 12345;
    for (int i = 0; i < 2000; ++i) {
        x = x * 1103515245u + 12345u;
        values.push_back(static_cast<int64_t>(x & 0x7FFFFFFFu));
    }
    for (int64_t now : values) {
        for (int64_t expire : values) {
            const int32_t left = LAPI_SRV_TicksLeft(static_cast<int32_t>(expire), now);
            ASSERT_EQ(now >= expire, left <= 0) << "now " << now << " expire " << expire;
            ASSERT_EQ(expire - now, left) << "now " << now << " expire " << expire;
        }
    }
}
