/*
 * The BP's answers and indications: each is matched to its transaction (or
 * broadcast), converted to the client message byte for byte, and refused
 * with its own diagnostic when it is too short, of the wrong kind or for a
 * pair nobody waits for. Every BP message is handed over in an exact-size
 * heap block, so a read beyond its end is caught by the address sanitizer.
 */
#include <gtest/gtest.h>

#include <cmath>

#include "LocSvcTestHarness.h"

using namespace locsvc;

namespace {

constexpr double kHalfStep = 0.5 / 8388608.0;

class BpMsgProcRsp : public ::testing::Test {
  protected:
    Harness h;

    /* A client with one transaction of the given kind, made by the real
     * request handler; returns the transaction. */
    Transaction *StartGetLocation(FakeClient &c, uint8_t sid, uint8_t tid, uint16_t mode,
                                  uint32_t reportCriteria = 0) {
        GetLocationReq req = MakeGetLocationReq(sid, tid, mode, 1000, reportCriteria);
        EXPECT_EQ(0, CallHandler(LAPI_SRV_ProcGetLocationMsg, ToBytes(req), c.pClient->pSyncFdops));
        h.BpMsgs();
        return h.Trans().back();
    }
    template <typename T>
    Transaction *StartPrefixReq(FakeClient &c, int (*handler)(uint8_t *, Fdops *), uint16_t msgId,
                                uint8_t sid, uint8_t tid, uint16_t mode) {
        T req = MakePrefixReq<T>(msgId, sid, tid, mode);
        EXPECT_EQ(0, CallHandler(handler, ToBytes(req), c.pClient->pSyncFdops));
        h.BpMsgs();
        return h.Trans().back();
    }
    Transaction *StartAddProximity(FakeClient &c, uint8_t sid, uint8_t tid, uint16_t mode) {
        return StartPrefixReq<AddProximityReq>(c, LAPI_SRV_ProcAddProximityMsg,
                                               LAPI_ADD_PROXIMITY_REQ, sid, tid, mode);
    }
    /* An area that the BP accepted. */
    Transaction *ActiveArea(FakeClient &c, uint8_t sid, uint8_t tid, uint16_t mode = 1) {
        Transaction *pTran = StartAddProximity(c, sid, tid, mode);
        CallBp(LAPI_SRV_ProcBpAddProximityRspMsg,
               MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, pTran->sid, pTran->tid, 0));
        c.SyncMsgs();
        c.AsyncMsgs();
        return pTran;
    }
    /* A periodic report for sid/tid whose write to the client fails: the
     * client is removed and the request is stopped at the BP. The trace of
     * a broken pipe appears only when the write failed with EPIPE. */
    void ExpectLostReportStoppedAtBp(uint8_t sid, uint8_t tid, bool brokenPipe) {
        StderrCapture cap;
        CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(sid, tid));
        EXPECT_TRUE(cap.HasError("Fail to send get location response to client!")) << cap.Text();
        EXPECT_EQ(brokenPipe, cap.HasTrace("Broken pipe error happen when sending get location "
                                           "response to client"));
        std::vector<Bytes> bp = h.BpMsgs();
        ASSERT_EQ(1u, bp.size());
        EXPECT_EQ((Bytes{0x02, sid, tid}), bp[0]);
        EXPECT_EQ(0u, h.TranCount());
        EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    }
};

GetLocationRsp ParseLocationRsp(const Bytes &msg) {
    return FromBytes<GetLocationRsp>(msg);
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* Location responses                                                        */
/* ------------------------------------------------------------------------ */

TEST_F(BpMsgProcRsp, SingleFixIsConvertedAndEndsTheTransaction) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 21, 22, 1);
    Bytes bp = MakeBpLocationRsp(pTran->sid, pTran->tid, "$GPGGA,1*00\r\n");
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, bp);

    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(1022u, msgs[0].size());
    GetLocationRsp rsp = ParseLocationRsp(msgs[0]);
    EXPECT_EQ(0u, +rsp.header.pid);
    EXPECT_EQ(LAPI_GET_LOCATION_RSP, +rsp.header.msgId);
    EXPECT_EQ(1014, +rsp.header.msgLen);
    EXPECT_EQ(21, +rsp.sessionId);
    EXPECT_EQ(22, +rsp.transactionId);
    EXPECT_DOUBLE_EQ(12.5 + kHalfStep, +rsp.longitude);
    EXPECT_DOUBLE_EQ(48.25 + kHalfStep, +rsp.latitude);
    EXPECT_DOUBLE_EQ(3.0 + kHalfStep, +rsp.latLonAccuracy);
    uint64_t ts;
    memcpy(&ts, msgs[0].data() + 34, 8);
    EXPECT_EQ(0x0102030405060708ULL, ts); /* byte-reversed, never scaled */
    EXPECT_DOUBLE_EQ(500.0 + kHalfStep, +rsp.altitude);
    EXPECT_DOUBLE_EQ(1.5 + kHalfStep, +rsp.speed);
    EXPECT_DOUBLE_EQ(90.0 + kHalfStep, +rsp.travelDirection);
    EXPECT_DOUBLE_EQ(45.0 + kHalfStep, +rsp.pointingDirection);
    EXPECT_DOUBLE_EQ(10.0 + kHalfStep, +rsp.horizontalAccuracy);
    EXPECT_DOUBLE_EQ(20.0 + kHalfStep, +rsp.verticalAccuracy);
    EXPECT_DOUBLE_EQ(180.0 + kHalfStep, +rsp.course);
    EXPECT_EQ(2, +rsp.locationMethod);
    EXPECT_EQ(0, +rsp.cause);
    EXPECT_EQ(0x1122334455667788ULL, +rsp.ageOfFix);
    EXPECT_EQ(13, +rsp.nmeaDataLength);
    EXPECT_EQ(0, memcmp(+rsp.nmeaData, "$GPGGA,1*00\r\n", 13));
    EXPECT_EQ(0, +rsp.nmeaData[13]);
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_TRUE(c.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, LocationRspAlwaysHasMsgLen1014EvenWithoutNmea) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 0);
    Bytes bp = MakeBpLocationRsp(pTran->sid, pTran->tid);
    ASSERT_EQ(109u, bp.size());
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, bp);
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(1022u, msgs[0].size());
    EXPECT_EQ(1014, +Header(msgs[0]).msgLen);
    EXPECT_EQ(0, ParseLocationRsp(msgs[0]).nmeaDataLength);
}

TEST_F(BpMsgProcRsp, LocationRspOf108BytesRefused109Accepted) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    Bytes bp = MakeBpLocationRsp(pTran->sid, pTran->tid);
    Bytes shortMsg(bp.begin(), bp.end() - 1);
    {
        StderrCapture cap;
        CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, shortMsg);
        EXPECT_TRUE(
            cap.HasError("Received getLocationRsp BP Msg length: 108 is not expected: 109!"));
    }
    EXPECT_TRUE(c.SyncMsgs().empty());
    EXPECT_EQ(1u, h.TranCount());
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, bp);
    EXPECT_EQ(1u, c.SyncMsgs().size());
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, WrongSubCmdIdRefused) {
    Bytes bp = MakeBpLocationRsp(2, 1);
    bp[0] = 0x03;
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, bp);
    EXPECT_TRUE(cap.HasError("pBpMsgHeader->subCmdId : 0x03 is not expected, msgLen : 109!"));
}

TEST_F(BpMsgProcRsp, LocationRspForUnknownPairLogsAndChangesNothing) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(9, 8));
    EXPECT_TRUE(cap.HasError("Transaction timeout or not exist, sid: 9, tid: 8!")) << cap.Text();
    EXPECT_TRUE(c.SyncMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(pTran, h.Trans()[0]);
    EXPECT_EQ(GEOLOCATION_APBP_REQ, pTran->subCmdId);
}

TEST_F(BpMsgProcRsp, LocationRspForPendingAbortRefusedAndAbortStays) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    LAPI_SRV_AbortLocationReq(pTran, 1);
    h.BpMsgs();
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(pTran->sid, pTran->tid));
    EXPECT_TRUE(cap.HasError("Received getLocationRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_TRUE(c.SyncMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(BpMsgProcRsp, Nmea906BytesDelivered) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    std::string nmea(906, 'N');
    nmea.back() = 'Z';
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(pTran->sid, pTran->tid, nmea));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(1022u, msgs[0].size());
    EXPECT_EQ(906, ParseLocationRsp(msgs[0]).nmeaDataLength);
    EXPECT_EQ('N', msgs[0][116]);
    EXPECT_EQ('Z', msgs[0][1021]);
}

TEST_F(BpMsgProcRsp, Nmea907DroppedWithTraceAndEndsEvenPeriodic) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1, LAPI_REPORT_PERIODIC);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg,
           MakeBpLocationRsp(pTran->sid, pTran->tid, std::string(907, 'N')));
    EXPECT_TRUE(cap.HasTrace("Received a nmea data too large"));
    EXPECT_FALSE(cap.HasError("Received a nmea data too large"));
    EXPECT_TRUE(c.SyncMsgs().empty());
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, NmeaLengthBeyondTheMessageIsCut) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    /* Declares 200 NMEA bytes but carries 5. */
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg,
           MakeBpLocationRsp(pTran->sid, pTran->tid, "ABCDE", uint16_t{200}));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(200, ParseLocationRsp(msgs[0]).nmeaDataLength);
    EXPECT_EQ(Bytes({'A', 'B', 'C', 'D', 'E', 0}),
              Bytes(msgs[0].begin() + 116, msgs[0].begin() + 122));
    EXPECT_EQ(Bytes(1022 - 121, 0), Bytes(msgs[0].begin() + 121, msgs[0].end()));
}

TEST_F(BpMsgProcRsp, PeriodicRequestReceivesEveryReportOnSameTransaction) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 5, 6, 0, LAPI_REPORT_PERIODIC);
    int32_t expire = pTran->expireTime;
    for (int i = 0; i < 3; ++i) {
        CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(pTran->sid, pTran->tid));
        std::vector<Bytes> msgs = c.AsyncMsgs();
        ASSERT_EQ(1u, msgs.size()) << "report " << i;
        EXPECT_EQ(5, msgs[0][8]);
        EXPECT_EQ(6, msgs[0][9]);
        ASSERT_EQ(1u, h.TranCount());
        EXPECT_EQ(pTran, h.Trans()[0]);
        EXPECT_EQ(expire, pTran->expireTime);
    }
    /* Aborted: the abort's answer ends it, and later reports find nothing. */
    LAPI_SRV_AbortLocationReq(pTran, 0);
    CallBp(LAPI_SRV_ProcBpAbortLocationRspMsg,
           MakeBpI32Msg(GEOLOCATION_ABORT_APBP_RES, pTran->sid, pTran->tid, 0));
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(LAPI_ABORT_LOCATION_RSP, +Header(msgs[0]).msgId);
    EXPECT_EQ(0u, h.TranCount());
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(2, 1));
    EXPECT_TRUE(cap.HasError("Transaction timeout or not exist, sid: 2, tid: 1!"));
}

TEST_F(BpMsgProcRsp, PeriodicRequestThatExpiresIsAbortedAndTakesNoMoreReports) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 5, 6, 0, LAPI_REPORT_PERIODIC);
    const uint8_t sid = pTran->sid;
    const uint8_t tid = pTran->tid;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(sid, tid));
    ASSERT_EQ(1u, c.AsyncMsgs().size());
    ASSERT_EQ(1u, h.TranCount());

    /* Its sixty days are over: the next scan stops it at the BP. */
    LAPI_SRV_SetTranExpireTime(pTran,
                               static_cast<int32_t>(static_cast<uint32_t>(LAPI_SRV_Times()) - 1));
    LAPI_SRV_ScanTranList(nullptr);
    std::vector<Bytes> bp = h.BpMsgs();
    ASSERT_EQ(1u, bp.size());
    EXPECT_EQ((Bytes{GEOLOCATION_ABORT_APBP_REQ, sid, tid}), bp[0]);
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(pTran, h.Trans()[0]);
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, pTran->subCmdId);
    EXPECT_TRUE(c.SyncMsgs().empty());
    EXPECT_TRUE(c.AsyncMsgs().empty());

    /* A report still on its way is refused and reaches nobody. */
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(sid, tid));
    EXPECT_TRUE(cap.HasError("Received getLocationRsp BP Msg not expected, sid: " +
                             std::to_string(sid) + ", tid: " + std::to_string(tid) + "!"))
        << cap.Text();
    EXPECT_TRUE(c.SyncMsgs().empty());
    EXPECT_TRUE(c.AsyncMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(BpMsgProcRsp, LastKnownAnsweredByLocationResponseOnce) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<LastKnownLocationReq>(
        c, LAPI_SRV_ProcLastKnownLocationMsg, LAPI_LAST_KNOWN_LOCATION_REQ, 3, 4, 1);
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(pTran->sid, pTran->tid));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(3, msgs[0][8]);
    EXPECT_EQ(4, msgs[0][9]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, BrokenPipeCausesAbortRequestToBp) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 0, LAPI_REPORT_PERIODIC);
    uint8_t sid = pTran->sid;
    uint8_t tid = pTran->tid;
    shutdown(c.asyncPeer, SHUT_RDWR);
    ExpectLostReportStoppedAtBp(sid, tid, true);
}

TEST_F(BpMsgProcRsp, PeriodicReportLostOtherThanByBrokenPipeStopsAtBpWhenClientIsGone) {
    /* Any failed write removes the client; a periodic request kept for it
     * would point at a freed client, so it is stopped at the BP instead. */
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 0, LAPI_REPORT_PERIODIC);
    uint8_t sid = pTran->sid;
    uint8_t tid = pTran->tid;
    /* Writing now fails with EBADF, not EPIPE. */
    int readOnly = open("/dev/null", O_RDONLY);
    ASSERT_GE(readOnly, 0);
    ASSERT_GE(dup2(readOnly, c.pClient->pAsyncFdops->fd), 0);
    close(readOnly);
    ExpectLostReportStoppedAtBp(sid, tid, false);
}

TEST_F(BpMsgProcRsp, PeriodicReportThatCannotBeSentToALiveClientKeepsTheTransaction) {
    /* No asynchronous connection yet: the send fails, the client stays, and
     * so does its periodic request. */
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 0, LAPI_REPORT_PERIODIC);
    Fdops *pAsync = c.pClient->pAsyncFdops;
    c.pClient->pAsyncFdops = nullptr;
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(pTran->sid, pTran->tid));
    c.pClient->pAsyncFdops = pAsync;
    EXPECT_TRUE(cap.HasError("Fail to send get location response to client!")) << cap.Text();
    EXPECT_TRUE(h.BpMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(pTran, h.Trans()[0]);
}

TEST_F(BpMsgProcRsp, RefusalsNameTheProcedureThatRefused) {
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetStatusRspMsg, MakeBpI32Msg(GET_STATUS_APBP_RES, 2, 1, 0));
    CallBp(LAPI_SRV_ProcBpAddProximityRspMsg, MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, 9, 9, 0));
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, MakeBpI32Msg(DB_WRITE_APBP_RES, 2, 1, 0));
    const std::string &text = cap.Text();
    EXPECT_NE(std::string::npos,
              text.find("\tLAPI Error SRV LAPI_SRV_ProcBpGetStatusRspMsg: Received getStatusRsp "
                        "BP Msg length: 7 is not expected: 35!\n"))
        << text;
    EXPECT_NE(std::string::npos,
              text.find("\tLAPI Error SRV LAPI_SRV_ProcBpAddProximityRspMsg: Transaction timeout "
                        "or not exist, sid: 9, tid: 9!\n"))
        << text;
    EXPECT_NE(std::string::npos,
              text.find("\tLAPI Error SRV LAPI_SRV_ProcBpGetGpsDbDataRspMsg: "
                        "pBpMsgHeader->subCmdId : 0x05 is not expected, msgLen : 7!\n"))
        << text;
}

TEST_F(BpMsgProcRsp, AbortRspAnswersClientAndEndsTransaction) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 7, 8, 0);
    LAPI_SRV_AbortLocationReq(pTran, 1);
    CallBp(LAPI_SRV_ProcBpAbortLocationRspMsg,
           MakeBpI32Msg(GEOLOCATION_ABORT_APBP_RES, pTran->sid, pTran->tid, -3));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    AbortLocationRsp want;
    want.header = MakeHeader(LAPI_ABORT_LOCATION_RSP, 6, 0);
    want.sessionId = 7;
    want.transactionId = 8;
    want.result = -3;
    EXPECT_EQ(ToBytes(want), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, AbortRspForRunningRequestRefusedAndKept) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 7, 8, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpAbortLocationRspMsg,
           MakeBpI32Msg(GEOLOCATION_ABORT_APBP_RES, pTran->sid, pTran->tid, 0));
    EXPECT_TRUE(cap.HasError("Received abortLocationRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_EQ(1u, h.TranCount());
    EXPECT_TRUE(c.SyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, AbortRspWrongLengthRefused) {
    StderrCapture cap;
    Bytes bp = MakeBpI32Msg(GEOLOCATION_ABORT_APBP_RES, 2, 1, 0);
    bp.push_back(0);
    CallBp(LAPI_SRV_ProcBpAbortLocationRspMsg, bp);
    EXPECT_TRUE(cap.HasError("Received abortLocationRsp BP Msg length: 8 is not expected: 7!"));
}

TEST_F(BpMsgProcRsp, AbortRspAfterClientRemovalFindsNothing) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 7, 8, 1);
    uint8_t sid = pTran->sid;
    uint8_t tid = pTran->tid;
    LAPI_SRV_RemoveClient(c.pClient);
    EXPECT_EQ(1u, h.BpMsgs().size()); /* the abort on the way out */
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpAbortLocationRspMsg,
           MakeBpI32Msg(GEOLOCATION_ABORT_APBP_RES, sid, tid, 0));
    EXPECT_TRUE(cap.HasError("Transaction timeout or not exist, sid: 2, tid: 1!"));
}

/* ------------------------------------------------------------------------ */
/* Fixed-layout answers                                                      */
/* ------------------------------------------------------------------------ */

TEST_F(BpMsgProcRsp, SetGpsDbDataRspCarriesResult) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<SetGpsDbDataReq>(c, LAPI_SRV_ProcSetGpsDbDataMsg,
                                                         LAPI_SET_GPS_DB_DATA_REQ, 1, 2, 0);
    CallBp(LAPI_SRV_ProcBpSetGpsDbDataRspMsg,
           MakeBpI32Msg(DB_WRITE_APBP_RES, pTran->sid, pTran->tid, 0x01020304));
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 5, 0, 6, 0, 1, 2, 4, 3, 2, 1}), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, SetGpsDbDataRspChecks) {
    FakeClient c = h.AddClient();
    Transaction *pTran =
        StartPrefixReq<GetStatusReq>(c, LAPI_SRV_ProcGetStatusMsg, LAPI_GET_STATUS_REQ, 1, 2, 0);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpSetGpsDbDataRspMsg, Bytes{DB_WRITE_APBP_RES, 2, 1});
    CallBp(LAPI_SRV_ProcBpSetGpsDbDataRspMsg,
           MakeBpI32Msg(DB_WRITE_APBP_RES, pTran->sid, pTran->tid, 0));
    EXPECT_TRUE(cap.HasError("Received setGpsDbDataRsp BP Msg length: 3 is not expected: 7!"));
    EXPECT_TRUE(cap.HasError("Received setGpsDbDataRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_EQ(1u, h.TranCount());
}

namespace {
Bytes MakeBpStatus(uint8_t subCmdId, uint8_t sid, uint8_t tid) {
    Bytes b = BpHeader(subCmdId, sid, tid);
    for (uint32_t i = 1; i <= 8; ++i) {
        PutBe(b, i * 0x01010101u, 4);
    }
    return b;
}
void ExpectStatusBody(const Bytes &msg) {
    for (int i = 0; i < 8; ++i) {
        int32_t v;
        memcpy(&v, msg.data() + 10 + 4 * i, 4);
        EXPECT_EQ(static_cast<int32_t>((i + 1) * 0x01010101u), v) << "field " << i;
    }
}
}  // namespace

TEST_F(BpMsgProcRsp, GetStatusRspCarriesEightFields) {
    FakeClient c = h.AddClient();
    Transaction *pTran =
        StartPrefixReq<GetStatusReq>(c, LAPI_SRV_ProcGetStatusMsg, LAPI_GET_STATUS_REQ, 4, 5, 1);
    CallBp(LAPI_SRV_ProcBpGetStatusRspMsg,
           MakeBpStatus(GET_STATUS_APBP_RES, pTran->sid, pTran->tid));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(42u, msgs[0].size());
    EXPECT_EQ(LAPI_GET_STATUS_RSP, +Header(msgs[0]).msgId);
    EXPECT_EQ(34, +Header(msgs[0]).msgLen);
    EXPECT_EQ(0u, +Header(msgs[0]).pid);
    EXPECT_EQ(4, msgs[0][8]);
    EXPECT_EQ(5, msgs[0][9]);
    ExpectStatusBody(msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, GetStatusRspChecks) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    StderrCapture cap;
    Bytes bp = MakeBpStatus(GET_STATUS_APBP_RES, pTran->sid, pTran->tid);
    bp.pop_back();
    CallBp(LAPI_SRV_ProcBpGetStatusRspMsg, bp);
    CallBp(LAPI_SRV_ProcBpGetStatusRspMsg,
           MakeBpStatus(GET_STATUS_APBP_RES, pTran->sid, pTran->tid));
    EXPECT_TRUE(cap.HasError("Received getStatusRsp BP Msg length: 34 is not expected: 35!"));
    EXPECT_TRUE(cap.HasError("Received getStatusRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_EQ(1u, h.TranCount());
    EXPECT_TRUE(c.SyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, DistanceAzimuthRspDecodesFixedPoint) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<DistanceAzimuthReq>(c, LAPI_SRV_ProcDistanceAzimuthMsg,
                                                            LAPI_DISTANCE_AZIMUTH_REQ, 1, 2, 1);
    Bytes bp = BpHeader(DISTANCE_AND_AZIMUTH_APBP_RES, pTran->sid, pTran->tid);
    PutBe(bp, 0, 8);                  /* distance: N = 0 */
    PutBe(bp, 0xFFFFFFFFFF400000, 8); /* azimuth: N = -1.5 * 2^23 */
    CallBp(LAPI_SRV_ProcBpDistanceAzimuthRspMsg, bp);
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(26u, msgs[0].size());
    DistanceAzimuthRsp rsp = FromBytes<DistanceAzimuthRsp>(msgs[0]);
    EXPECT_EQ(10, +rsp.header.msgId);
    EXPECT_EQ(18, +rsp.header.msgLen);
    EXPECT_EQ(0.5 / 8388608.0, +rsp.distance); /* zero decodes to half a step */
    EXPECT_EQ(-1.5 + kHalfStep, +rsp.azimuth);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, DistanceAzimuthRspChecks) {
    StderrCapture cap;
    Bytes bp = BpHeader(DISTANCE_AND_AZIMUTH_APBP_RES, 2, 1);
    bp.resize(20, 0);
    CallBp(LAPI_SRV_ProcBpDistanceAzimuthRspMsg, bp);
    bp.resize(19);
    CallBp(LAPI_SRV_ProcBpDistanceAzimuthRspMsg, bp);
    EXPECT_TRUE(cap.HasError("Received distanceAzimuthRsp BP Msg length: 20 is not expected: 19!"));
    EXPECT_TRUE(cap.HasError("Transaction timeout or not exist, sid: 2, tid: 1!"));
}

/* ------------------------------------------------------------------------ */
/* Assistance data read                                                      */
/* ------------------------------------------------------------------------ */

namespace {
struct DbEntry {
    uint32_t fileId;
    Bytes data;
    std::optional<uint16_t> declared;
};
Bytes MakeBpDbRead(uint8_t sid, uint8_t tid, uint16_t numFiles, const std::vector<DbEntry> &files,
                   bool withResult = true, int32_t result = 0) {
    Bytes b = BpHeader(DB_READ_APBP_RES, sid, tid);
    PutBe(b, numFiles, 2);
    for (const DbEntry &f : files) {
        PutBe(b, f.fileId, 4);
        PutBe(b, f.declared.value_or(static_cast<uint16_t>(f.data.size())), 2);
        b.insert(b.end(), f.data.begin(), f.data.end());
    }
    if (withResult) {
        PutBe(b, static_cast<uint32_t>(result), 4);
    }
    return b;
}
}  // namespace

TEST_F(BpMsgProcRsp, GetGpsDbDataRspReversesEachFilesData) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<GetGpsDbDataReq>(c, LAPI_SRV_ProcGetGpsDbDataMsg,
                                                         LAPI_GET_GPS_DB_DATA_REQ, 6, 7, 0);
    Bytes bp = MakeBpDbRead(pTran->sid, pTran->tid, 2,
                            {{0x0A0B0C0D, {1, 2, 3, 4}, {}}, {5, {0xEE}, {}}}, true, -2);
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, bp);
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(236u, msgs[0].size());
    GetGpsDbDataRsp rsp = FromBytes<GetGpsDbDataRsp>(msgs[0]);
    EXPECT_EQ(4, +rsp.header.msgId);
    EXPECT_EQ(228, +rsp.header.msgLen);
    EXPECT_EQ(6, +rsp.sessionId);
    EXPECT_EQ(7, +rsp.transactionId);
    EXPECT_EQ(2, +rsp.numFiles);
    EXPECT_EQ(0x0A0B0C0Du, +rsp.dbFile[0].fileId);
    EXPECT_EQ(4, +rsp.dbFile[0].length);
    EXPECT_EQ((Bytes{4, 3, 2, 1}), Bytes(+rsp.dbFile[0].data, +rsp.dbFile[0].data + 4));
    EXPECT_EQ(5u, +rsp.dbFile[1].fileId);
    EXPECT_EQ(1, +rsp.dbFile[1].length);
    EXPECT_EQ((Bytes{0xEE, 0, 0, 0}), Bytes(+rsp.dbFile[1].data, +rsp.dbFile[1].data + 4));
    EXPECT_EQ(-2, +rsp.result);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, GetGpsDbDataRspWithNumFiles23SendsNothingAndLaterTimesOut) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<GetGpsDbDataReq>(c, LAPI_SRV_ProcGetGpsDbDataMsg,
                                                         LAPI_GET_GPS_DB_DATA_REQ, 6, 7, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, MakeBpDbRead(pTran->sid, pTran->tid, 23, {}));
    EXPECT_TRUE(cap.HasError("Invalid numFiles: 23!"));
    EXPECT_TRUE(c.SyncMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    /* The deadline answers instead. */
    LAPI_SRV_SetTranExpireTime(h.Trans()[0],
                               static_cast<int32_t>(static_cast<uint32_t>(LAPI_SRV_Times()) - 1));
    LAPI_SRV_ScanTranList(nullptr);
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 2, 0, 2, 0, 6, 7}), msgs[0]);
}

TEST_F(BpMsgProcRsp, DbFileLength0Or5IsInvalid) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<GetGpsDbDataReq>(c, LAPI_SRV_ProcGetGpsDbDataMsg,
                                                         LAPI_GET_GPS_DB_DATA_REQ, 6, 7, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg,
           MakeBpDbRead(pTran->sid, pTran->tid, 1, {{1, {}, {}}}));
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg,
           MakeBpDbRead(pTran->sid, pTran->tid, 2, {{1, {1}, {}}, {2, {1, 2, 3, 4, 5}, {}}}));
    EXPECT_TRUE(cap.HasError("pRsp->dbFile[0].length: 0 is invalid!"));
    EXPECT_TRUE(cap.HasError("pRsp->dbFile[1].length: 5 is invalid!"));
    EXPECT_TRUE(c.SyncMsgs().empty());
    EXPECT_EQ(1u, h.TranCount());
}

TEST_F(BpMsgProcRsp, GetGpsDbDataRspOverrunsAreCaught) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartPrefixReq<GetGpsDbDataReq>(c, LAPI_SRV_ProcGetGpsDbDataMsg,
                                                         LAPI_GET_GPS_DB_DATA_REQ, 6, 7, 1);
    uint8_t sid = pTran->sid;
    uint8_t tid = pTran->tid;
    StderrCapture cap;
    /* Entry head cut short. */
    Bytes b1 = MakeBpDbRead(sid, tid, 1, {}, false);
    b1.insert(b1.end(), {0, 0, 0, 1, 0});
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, b1);
    /* Data shorter than its length. */
    Bytes b2 = MakeBpDbRead(sid, tid, 1, {{1, {9, 9}, uint16_t{3}}}, false);
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, b2);
    /* No room for the result. */
    Bytes b3 = MakeBpDbRead(sid, tid, 1, {{1, {9, 9}, {}}}, false);
    b3.insert(b3.end(), {0, 0, 0});
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, b3);
    /* Too short for numFiles. */
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, Bytes{DB_READ_APBP_RES, sid, tid, 0});
    EXPECT_TRUE(cap.HasError("LAPI_SRV_IncreasePtrAndCheck() Error 1!"));
    EXPECT_TRUE(cap.HasError("LAPI_SRV_IncreasePtrAndCheck() Error 2!"));
    EXPECT_TRUE(cap.HasError("LAPI_SRV_IncreasePtrAndCheck() Error 3!"));
    EXPECT_TRUE(cap.HasError("Received getGpsDbDataRsp BP Msg length: 4 is less than: 5!"));
    EXPECT_TRUE(c.SyncMsgs().empty());
    EXPECT_EQ(1u, h.TranCount());
    /* The exact message still gets through afterwards. */
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, MakeBpDbRead(sid, tid, 0, {}));
    EXPECT_EQ(1u, c.SyncMsgs().size());
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, GetGpsDbDataRspNotExpectedIsKept) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartGetLocation(c, 1, 1, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpGetGpsDbDataRspMsg, MakeBpDbRead(pTran->sid, pTran->tid, 0, {}));
    EXPECT_TRUE(cap.HasError("Received getGpsDbDataRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_EQ(1u, h.TranCount());
}

/* ------------------------------------------------------------------------ */
/* Proximity areas                                                           */
/* ------------------------------------------------------------------------ */

TEST_F(BpMsgProcRsp, SuccessfulAddKeepsAreaSixtyDaysOnAsync) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartAddProximity(c, 3, 4, 1);
    CallBp(LAPI_SRV_ProcBpAddProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, pTran->sid, pTran->tid, 0));
    std::vector<Bytes> msgs = c.SyncMsgs(); /* the answer goes where the add asked */
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 11, 0, 6, 0, 3, 4, 0, 0, 0, 0}), msgs[0]);
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(PROXIMITY_ADD_APBP_RES, pTran->subCmdId);
    EXPECT_EQ(0, pTran->isSync);
    int32_t left = LAPI_SRV_TicksLeft(pTran->expireTime, LAPI_SRV_Times());
    EXPECT_GT(left, 518400000 - 100);
    EXPECT_LE(left, 518400000);
}

TEST_F(BpMsgProcRsp, FailedAddEndsTheArea) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartAddProximity(c, 3, 4, 0);
    CallBp(LAPI_SRV_ProcBpAddProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, pTran->sid, pTran->tid, 7));
    std::vector<Bytes> msgs = c.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 11, 0, 6, 0, 3, 4, 7, 0, 0, 0}), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, AddProximityRspChecks) {
    FakeClient c = h.AddClient();
    Transaction *pTran = ActiveArea(c, 1, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpAddProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, pTran->sid, pTran->tid, 0));
    Bytes bp = MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, pTran->sid, pTran->tid, 0);
    bp.pop_back();
    CallBp(LAPI_SRV_ProcBpAddProximityRspMsg, bp);
    EXPECT_TRUE(cap.HasError("Received addProximityRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_TRUE(cap.HasError("Received addProximityRsp BP Msg length: 6 is not expected: 7!"));
    EXPECT_EQ(1u, h.TranCount());
}

namespace {
Bytes MakeBpHit(uint8_t sid, uint8_t tid) {
    Bytes b = BpHeader(PROXIMITY_HIT_APBP_IND, sid, tid);
    for (int i = 0; i < 11; ++i) {
        if (i == 3) {
            PutBe(b, 0x1112131415161718ULL, 8);
        } else {
            PutFixedBe(b, i + 0.25);
        }
    }
    PutBe(b, 3, 4);                     /* locationMethod */
    PutBe(b, 0xAABBCCDD00000042ULL, 8); /* ageOfFix */
    return b;
}
}  // namespace

TEST_F(BpMsgProcRsp, ProximityHitIsReportedOnceAndEndsTheArea) {
    FakeClient c = h.AddClient();
    Transaction *pTran = ActiveArea(c, 3, 4, 1);
    Bytes hit = MakeBpHit(pTran->sid, pTran->tid);
    ASSERT_EQ(103u, hit.size());
    CallBp(LAPI_SRV_ProcBpProximityHitIndMsg, hit);
    EXPECT_TRUE(c.SyncMsgs().empty());
    std::vector<Bytes> msgs = c.AsyncMsgs(); /* active areas report on async */
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(106u, msgs[0].size());
    ProximityHitInd ind = FromBytes<ProximityHitInd>(msgs[0]);
    EXPECT_EQ(13, +ind.header.msgId);
    EXPECT_EQ(98, +ind.header.msgLen);
    EXPECT_EQ(3, +ind.sessionId);
    EXPECT_EQ(4, +ind.transactionId);
    EXPECT_EQ(0.25 + kHalfStep, +ind.longitude);
    EXPECT_EQ(10.25 + kHalfStep, +ind.course);
    uint64_t ts;
    memcpy(&ts, msgs[0].data() + 34, 8);
    EXPECT_EQ(0x1112131415161718ULL, ts);
    EXPECT_EQ(3, +ind.locationMethod);
    EXPECT_EQ(0x42u, +ind.ageOfFix); /* the low four bytes */
    EXPECT_EQ(0u, h.TranCount());
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpProximityHitIndMsg, hit);
    EXPECT_TRUE(cap.HasError("Transaction timeout or not exist, sid: 2, tid: 1!"));
}

TEST_F(BpMsgProcRsp, ProximityHitForPendingAddRefusedAsNotExpected) {
    FakeClient c = h.AddClient();
    Transaction *pTran = StartAddProximity(c, 3, 4, 0);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpProximityHitIndMsg, MakeBpHit(pTran->sid, pTran->tid));
    EXPECT_TRUE(cap.HasError("Received proximityHitInd BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_TRUE(c.AsyncMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(PROXIMITY_ADD_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(BpMsgProcRsp, ProximityHitDuringPendingRemovalIsDelivered) {
    FakeClient c = h.AddClient();
    Transaction *pTran = ActiveArea(c, 3, 4);
    RemoveProximityReq rem = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 3, 4, 1);
    rem.removeType = 0;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(rem), c.pClient->pSyncFdops));
    CallBp(LAPI_SRV_ProcBpProximityHitIndMsg, MakeBpHit(pTran->sid, pTran->tid));
    std::vector<Bytes> msgs = c.SyncMsgs(); /* the removal switched it to sync */
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(LAPI_PROXIMITY_HIT_IND, +Header(msgs[0]).msgId);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, ProximityHitWrongLengthRefused) {
    StderrCapture cap;
    Bytes hit = MakeBpHit(2, 1);
    hit.pop_back();
    CallBp(LAPI_SRV_ProcBpProximityHitIndMsg, hit);
    EXPECT_TRUE(cap.HasError("Received proximityHitInd BP Msg length: 102 is not expected: 103!"));
}

TEST_F(BpMsgProcRsp, RemoveOneAreaSuccessEndsIt) {
    FakeClient c = h.AddClient();
    Transaction *pTran = ActiveArea(c, 3, 4);
    uint8_t sid = pTran->sid;
    uint8_t tid = pTran->tid;
    RemoveProximityReq rem = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 3, 4, 1);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(rem), c.pClient->pSyncFdops));
    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg, MakeBpI32Msg(PROXIMITY_REM_APBP_RES, sid, tid, 0));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 12, 0, 6, 0, 3, 4, 0, 0, 0, 0}), msgs[0]);
    EXPECT_EQ(0u, h.TranCount());
}

TEST_F(BpMsgProcRsp, RemoveOneAreaFailureKeepsItActive) {
    FakeClient c = h.AddClient();
    Transaction *pTran = ActiveArea(c, 3, 4);
    RemoveProximityReq rem = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 3, 4, 1);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(rem), c.pClient->pSyncFdops));
    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_REM_APBP_RES, pTran->sid, pTran->tid, 5));
    std::vector<Bytes> msgs = c.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 12, 0, 6, 0, 3, 4, 5, 0, 0, 0}), msgs[0]);
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(PROXIMITY_ADD_APBP_RES, pTran->subCmdId);
    EXPECT_EQ(0, pTran->isSync);
    EXPECT_GT(LAPI_SRV_TicksLeft(pTran->expireTime, LAPI_SRV_Times()), 518400000 - 100);
}

TEST_F(BpMsgProcRsp, RemoveAllStatus0AnswersEveryAreaOfEveryClient) {
    FakeClient a = h.AddClient(1);
    FakeClient b = h.AddClient(2);
    ActiveArea(a, 1, 1);                     /* active, async */
    StartAddProximity(b, 2, 2, 0);           /* pending add, async */
    Transaction *pRem = ActiveArea(b, 2, 3); /* pending removal, sync */
    RemoveProximityReq rem = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 2, 3, 1);
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(rem), b.pClient->pSyncFdops));
    EXPECT_EQ(PROXIMITY_REM_APBP_REQ, pRem->subCmdId);
    Transaction *pStatus =
        StartPrefixReq<GetStatusReq>(a, LAPI_SRV_ProcGetStatusMsg, LAPI_GET_STATUS_REQ, 8, 8, 1);
    (void)pStatus;
    /* a removes everything, answer on async. */
    RemoveProximityReq all = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 9, 9, 0);
    all.removeType = 1;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(all), a.pClient->pSyncFdops));
    Transaction *pAll = h.Trans().back();
    ASSERT_EQ(5u, h.TranCount());
    h.BpMsgs();

    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_REM_APBP_RES, pAll->sid, pAll->tid, 0));

    auto rsp = [](uint8_t sid, uint8_t tid) {
        return Bytes{0, 0, 0, 0, 12, 0, 6, 0, sid, tid, 0, 0, 0, 0};
    };
    /* a: its area, then its own remove-all answer last. */
    std::vector<Bytes> aMsgs = a.AsyncMsgs();
    ASSERT_EQ(2u, aMsgs.size());
    EXPECT_EQ(rsp(1, 1), aMsgs[0]);
    EXPECT_EQ(rsp(9, 9), aMsgs[1]);
    /* b: the pending add on async, the pending removal on sync. */
    std::vector<Bytes> bAsync = b.AsyncMsgs();
    ASSERT_EQ(1u, bAsync.size());
    EXPECT_EQ(rsp(2, 2), bAsync[0]);
    std::vector<Bytes> bSync = b.SyncMsgs();
    ASSERT_EQ(1u, bSync.size());
    EXPECT_EQ(rsp(2, 3), bSync[0]);
    /* Only the unrelated status request is left. */
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(GET_STATUS_APBP_REQ, h.Trans()[0]->subCmdId);
}

TEST_F(BpMsgProcRsp, RemoveAllFailureLeavesAreasAlone) {
    FakeClient a = h.AddClient(1);
    ActiveArea(a, 1, 1);
    RemoveProximityReq all = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 9, 9, 1);
    all.removeType = 1;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(all), a.pClient->pSyncFdops));
    Transaction *pAll = h.Trans().back();
    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_REM_APBP_RES, pAll->sid, pAll->tid, 4));
    std::vector<Bytes> msgs = a.SyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 12, 0, 6, 0, 9, 9, 4, 0, 0, 0}), msgs[0]);
    EXPECT_TRUE(a.AsyncMsgs().empty());
    ASSERT_EQ(1u, h.TranCount());
    EXPECT_EQ(PROXIMITY_ADD_APBP_RES, h.Trans()[0]->subCmdId);
}

TEST_F(BpMsgProcRsp, RemoveAllSurvivesARemoverThatVanishes) {
    FakeClient a = h.AddClient(1);
    FakeClient b = h.AddClient(2);
    ActiveArea(a, 1, 1);
    ActiveArea(b, 1, 1);
    RemoveProximityReq all = MakePrefixReq<RemoveProximityReq>(LAPI_REMOVE_PROXIMITY_REQ, 9, 9, 0);
    all.removeType = 1;
    ASSERT_EQ(0, CallHandler(LAPI_SRV_ProcRemoveProximityMsg, ToBytes(all), a.pClient->pSyncFdops));
    Transaction *pAll = h.Trans().back();
    shutdown(a.asyncPeer, SHUT_RDWR); /* the remover's answers cannot be written */
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_REM_APBP_RES, pAll->sid, pAll->tid, 0));
    EXPECT_TRUE(cap.HasError("Fail to send remove proximity response to client!"));
    EXPECT_EQ(1u, b.AsyncMsgs().size());
    EXPECT_EQ(0u, h.TranCount());
    EXPECT_EQ(1u, LAPI_SRV_allClientList.count);
}

TEST_F(BpMsgProcRsp, RemoveProximityRspChecks) {
    FakeClient c = h.AddClient();
    Transaction *pTran = ActiveArea(c, 1, 1);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg,
           MakeBpI32Msg(PROXIMITY_REM_APBP_RES, pTran->sid, pTran->tid, 0));
    Bytes bp = MakeBpI32Msg(PROXIMITY_REM_APBP_RES, pTran->sid, pTran->tid, 0);
    bp.push_back(1);
    CallBp(LAPI_SRV_ProcBpRemoveProximityRspMsg, bp);
    EXPECT_TRUE(cap.HasError("Received removeProximityRsp BP Msg not expected, sid: 2, tid: 1!"));
    EXPECT_TRUE(cap.HasError("Received removeProximityRsp BP Msg length: 8 is not expected: 7!"));
    EXPECT_EQ(1u, h.TranCount());
}

/* ------------------------------------------------------------------------ */
/* Indications                                                               */
/* ------------------------------------------------------------------------ */

TEST_F(BpMsgProcRsp, StatusChangeReachesEveryStatusClient) {
    FakeClient s1 = h.AddClient(1, LAPI_SERVICE_STATUS);
    FakeClient plain = h.AddClient(2, 1);
    FakeClient s2 = h.AddClient(3, LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR);
    CallBp(LAPI_SRV_ProcBpStatusChangeIndMsg, MakeBpStatus(STATUS_CHANGE_BPAP_IND, 0x33, 0x44));
    for (FakeClient *c : {&s1, &s2}) {
        std::vector<Bytes> msgs = c->AsyncMsgs();
        ASSERT_EQ(1u, msgs.size());
        ASSERT_EQ(42u, msgs[0].size());
        EXPECT_EQ(LAPI_STATUS_CHANGE_IND, +Header(msgs[0]).msgId);
        EXPECT_EQ(34, +Header(msgs[0]).msgLen);
        EXPECT_EQ(0x33, msgs[0][8]);
        EXPECT_EQ(0x44, msgs[0][9]);
        ExpectStatusBody(msgs[0]);
        EXPECT_TRUE(c->SyncMsgs().empty());
    }
    EXPECT_TRUE(plain.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, StatusChangeWrongLengthRefused) {
    FakeClient s1 = h.AddClient(1, LAPI_SERVICE_STATUS);
    Bytes bp = MakeBpStatus(STATUS_CHANGE_BPAP_IND, 0, 0);
    bp.push_back(0);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpStatusChangeIndMsg, bp);
    EXPECT_TRUE(cap.HasError("Received statusChangeInd BP Msg length: 36 is not expected: 35!"));
    EXPECT_TRUE(s1.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, StatusChangeBroadcastFailureIsLogged) {
    FakeClient s1 = h.AddClient(1, LAPI_SERVICE_STATUS);
    FakeClient s2 = h.AddClient(2, LAPI_SERVICE_STATUS);
    shutdown(s1.asyncPeer, SHUT_RDWR);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpStatusChangeIndMsg, MakeBpStatus(STATUS_CHANGE_BPAP_IND, 0, 0));
    EXPECT_TRUE(cap.HasError("Fail to broadcast status change indicator to all status client!"));
    EXPECT_EQ(1u, s2.AsyncMsgs().size());
}

TEST_F(BpMsgProcRsp, NotificationStatusReachesTheMtlrClient) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    FakeClient s = h.AddClient(2, LAPI_SERVICE_STATUS);
    CallBp(LAPI_SRV_ProcBpNotificationStatusIndMsg,
           MakeBpI32Msg(NOTIFICATION_STATUS_BPAP_IND, 0x10, 0x20, 0x0A0B0C0D));
    std::vector<Bytes> msgs = m.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 9, 0, 6, 0, 0x10, 0x20, 0x0D, 0x0C, 0x0B, 0x0A}), msgs[0]);
    EXPECT_TRUE(s.AsyncMsgs().empty());
    StderrCapture cap;
    Bytes bp = MakeBpI32Msg(NOTIFICATION_STATUS_BPAP_IND, 0, 0, 0);
    bp.pop_back();
    CallBp(LAPI_SRV_ProcBpNotificationStatusIndMsg, bp);
    EXPECT_TRUE(
        cap.HasError("Received mtlrNotificationStatusInd BP Msg length: 6 is not expected: 7!"));
}

namespace {
/* LOCATION_NOTIFICATION_BPAP_IND with nameLength bytes of name (characters
 * 0x0041, 0x0042, ... big-endian) and the address, or cut after `cut` bytes. */
Bytes MakeBpNotification(uint8_t nameLength, std::optional<uint8_t> addrLength,
                         const std::string &addr = "") {
    Bytes b = BpHeader(LOCATION_NOTIFICATION_BPAP_IND, 0x55, 0x66);
    PutBe(b, 1, 4);     /* notificationType */
    PutBe(b, 0x202, 4); /* locationType */
    b.push_back(0x48);  /* dataCodingSchema */
    b.push_back(nameLength);
    for (int i = 0; i < nameLength; ++i) {
        b.push_back(i % 2 == 0 ? 0x00 : static_cast<uint8_t>(0x41 + i / 2));
    }
    if (addrLength.has_value()) {
        b.push_back(*addrLength);
        b.insert(b.end(), addr.begin(), addr.end());
    }
    return b;
}
}  // namespace

TEST_F(BpMsgProcRsp, NotificationReachesMtlrClientWithNameAndAddress) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(4, 3, "tel"));
    std::vector<Bytes> msgs = m.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    ASSERT_EQ(311u, msgs[0].size());
    LocationNotificationInd ind = FromBytes<LocationNotificationInd>(msgs[0]);
    EXPECT_EQ(8, +ind.header.msgId);
    EXPECT_EQ(303, +ind.header.msgLen);
    EXPECT_EQ(0x55, +ind.sessionId);
    EXPECT_EQ(0x66, +ind.transactionId);
    EXPECT_EQ(1, +ind.notificationType);
    EXPECT_EQ(0x202, +ind.locationType);
    EXPECT_EQ(0x48, +ind.dataCodingSchema);
    EXPECT_EQ(4, +ind.nameLength);
    /* UCS-2 in host order (little-endian): 'A' 0, 'B' 0, then the 0 0 end. */
    EXPECT_EQ((Bytes{0x41, 0, 0x42, 0, 0, 0}), Bytes(+ind.clientName, +ind.clientName + 6));
    EXPECT_EQ(3, +ind.addrLength);
    EXPECT_EQ((Bytes{'t', 'e', 'l', 0}),
              Bytes(+ind.clientExternalAddr, +ind.clientExternalAddr + 4));
}

TEST_F(BpMsgProcRsp, NotificationNameLength143RefusedAsOdd) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(143, 0));
    EXPECT_TRUE(cap.HasError("pRsp->nameLength: 143 module 2 != 0!"));
    EXPECT_TRUE(m.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, NotificationNameLength142Accepted) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg,
           MakeBpNotification(142, 144, std::string(144, 'x')));
    std::vector<Bytes> msgs = m.AsyncMsgs();
    ASSERT_EQ(1u, msgs.size());
    LocationNotificationInd ind = FromBytes<LocationNotificationInd>(msgs[0]);
    EXPECT_EQ(142, +ind.nameLength);
    EXPECT_EQ(0x41 + 70, +ind.clientName[140]);
    EXPECT_EQ(0, +ind.clientName[142]);
    EXPECT_EQ(0, +ind.clientName[143]);
    EXPECT_EQ(144, +ind.addrLength);
    EXPECT_EQ('x', +ind.clientExternalAddr[143]);
    EXPECT_EQ(0, +ind.clientExternalAddr[144]);
}

TEST_F(BpMsgProcRsp, NotificationNameLength144RefusedAsTooLong) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(144, 0));
    EXPECT_TRUE(cap.HasError("pRsp->nameLength: 144 > (sizeof(pRsp->clientName) - 2): 143!"));
    EXPECT_TRUE(m.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, NotificationAddrLength145RefusedAsTooLong) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg,
           MakeBpNotification(0, 145, std::string(145, 'x')));
    EXPECT_TRUE(
        cap.HasError("pRsp->addrLength: 145 > (sizeof(pRsp->clientExternalAddr) - 1): 144!"));
    EXPECT_TRUE(m.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, NotificationEndingRightAfterNameFailsWithError2) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(4, std::nullopt));
    EXPECT_TRUE(cap.HasError("LAPI_SRV_IncreasePtrAndCheck() Error 2!"));
    EXPECT_TRUE(m.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, NotificationEndingRightAfterAddrLength0Accepted) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    Bytes bp = MakeBpNotification(0, 0);
    ASSERT_EQ(14u, bp.size());
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, bp);
    EXPECT_EQ(1u, m.AsyncMsgs().size());
}

TEST_F(BpMsgProcRsp, NotificationOverrunsAreCaught) {
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR);
    StderrCapture cap;
    Bytes cutName = MakeBpNotification(8, std::nullopt);
    cutName.resize(cutName.size() - 2);
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, cutName);
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(2, 5, "abcd"));
    Bytes tooShort = MakeBpNotification(0, std::nullopt);
    tooShort.pop_back();
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, tooShort);
    EXPECT_TRUE(cap.HasError("LAPI_SRV_IncreasePtrAndCheck() Error 1!"));
    EXPECT_TRUE(cap.HasError("LAPI_SRV_IncreasePtrAndCheck() Error 3!"));
    EXPECT_TRUE(
        cap.HasError("Received mtlrLocationNotificationInd BP Msg length: 12 is less than: 13!"));
    EXPECT_TRUE(m.AsyncMsgs().empty());
}

TEST_F(BpMsgProcRsp, NotificationWithoutMtlrClientIsDroppedQuietly) {
    FakeClient s = h.AddClient(1, LAPI_SERVICE_STATUS);
    StderrCapture cap;
    CallBp(LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(0, 0));
    /* Only the trace's report of the empty name and address: no broadcast
     * failure for an empty MT-LR list. */
    EXPECT_EQ(std::vector<std::string>(2, "(pData == NULL) || (pBuf == NULL) || (length <= 0)!"),
              cap.Errors())
        << cap.Text();
    EXPECT_TRUE(s.AsyncMsgs().empty());
}

/* ------------------------------------------------------------------------ */
/* The bounded reader                                                        */
/* ------------------------------------------------------------------------ */

TEST(BpMsgProcRspReader, IncreasePtrAndCheckAllowsReachingTheEndExactly) {
    uint8_t buf[8] = {};
    const uint8_t *p = buf;
    EXPECT_EQ(0, LAPI_SRV_IncreasePtrAndCheck(&p, buf + 8, 8));
    EXPECT_EQ(buf + 8, p);
    EXPECT_EQ(0, LAPI_SRV_IncreasePtrAndCheck(&p, buf + 8, 0));
    EXPECT_EQ(-1, LAPI_SRV_IncreasePtrAndCheck(&p, buf + 8, 1));
    EXPECT_EQ(buf + 8, p);
    p = buf + 3;
    EXPECT_EQ(-1, LAPI_SRV_IncreasePtrAndCheck(&p, buf + 8, 6));
    EXPECT_EQ(buf + 3, p);
    EXPECT_EQ(-1, LAPI_SRV_IncreasePtrAndCheck(&p, buf + 8, -1));
    EXPECT_EQ(-1, LAPI_SRV_IncreasePtrAndCheck(nullptr, buf + 8, 1));
}

TEST(BpMsgProcRspReader, EveryPrefixOfEveryMessageIsSafe) {
    /* Every BP procedure with every proper prefix of a valid message: no
     * crash, no read beyond the block (checked by the sanitizer). */
    Harness h;
    FakeClient m = h.AddClient(1, LAPI_SERVICE_MTLR | LAPI_SERVICE_STATUS);
    struct Row {
        void (*proc)(uint8_t *, uint16_t);
        Bytes msg;
    };
    std::vector<Row> rows = {
        {LAPI_SRV_ProcBpGetLocationRspMsg, MakeBpLocationRsp(2, 1, "abc")},
        {LAPI_SRV_ProcBpAbortLocationRspMsg, MakeBpI32Msg(GEOLOCATION_ABORT_APBP_RES, 2, 1, 0)},
        {LAPI_SRV_ProcBpSetGpsDbDataRspMsg, MakeBpI32Msg(DB_WRITE_APBP_RES, 2, 1, 0)},
        {LAPI_SRV_ProcBpGetGpsDbDataRspMsg, MakeBpDbRead(2, 1, 1, {{1, {1, 2}, {}}})},
        {LAPI_SRV_ProcBpStatusChangeIndMsg, MakeBpStatus(STATUS_CHANGE_BPAP_IND, 2, 1)},
        {LAPI_SRV_ProcBpGetStatusRspMsg, MakeBpStatus(GET_STATUS_APBP_RES, 2, 1)},
        {LAPI_SRV_ProcBpLocationNotificationIndMsg, MakeBpNotification(4, 2, "ab")},
        {LAPI_SRV_ProcBpNotificationStatusIndMsg,
         MakeBpI32Msg(NOTIFICATION_STATUS_BPAP_IND, 2, 1, 0)},
        {LAPI_SRV_ProcBpAddProximityRspMsg, MakeBpI32Msg(PROXIMITY_ADD_APBP_RES, 2, 1, 0)},
        {LAPI_SRV_ProcBpRemoveProximityRspMsg, MakeBpI32Msg(PROXIMITY_REM_APBP_RES, 2, 1, 0)},
        {LAPI_SRV_ProcBpProximityHitIndMsg, MakeBpHit(2, 1)},
    };
    StderrCapture cap;
    for (const Row &row : rows) {
        for (size_t n = 1; n < row.msg.size(); ++n) {
            CallBp(row.proc, Bytes(row.msg.begin(), row.msg.begin() + n));
        }
    }
    cap.Stop();
    /* No prefix is a whole message: nothing reached the client. */
    EXPECT_TRUE(m.AsyncMsgs().empty());
}
