/*
 * What the BP starts, end to end: status changes to every status client,
 * network-initiated notifications to the MT-LR client and its answer back
 * to the BP, notification status, periodic reports on one transaction, the
 * life of a proximity area, and the clean-up after a client that vanishes
 * with requests running.
 */
#include "LocSvcEnv.h"

using namespace locsvc;

namespace {

class LocationIndications : public LocSvcTest {};

Bytes StatusBody() {
    Bytes body;
    for (uint32_t v : {0x10u, 0x20u, 0x30u, 0x40u, 0x50u, 0x60u, 0x70u, 0x80u}) {
        bpsim::PutU32(&body, v);
    }
    return body;
}

Bytes ExpectedStatusChange(uint8_t sid, uint8_t tid) {
    StatusChangeInd ind =
        PairMsg<StatusChangeInd>(LAPI_STATUS_CHANGE_IND, LAPI_STATUS_CHANGE_IND_LEN, sid, tid);
    ind.userStatus = 0x10;
    ind.hwStatus = 0x20;
    ind.fixStatus = 0x30;
    ind.emergencyStatus = 0x40;
    ind.fixResultStatus.status = 0x50;
    ind.fixResultStatus.cause = 0x60;
    ind.signalStatus = 0x70;
    ind.iconStatus = 0x80;
    return ToBytes(ind);
}

Bytes AddProximityBody(uint16_t mode, uint8_t sid, uint8_t tid) {
    AddProximityReq req = PrefixReq<AddProximityReq>(mode, sid, tid);
    req.latitude = 48.5;
    req.longitude = -2.25;
    req.altitude = 100.0;
    req.radius = 250.0;
    return BodyOf(req);
}

Bytes RemoveProximityBody(uint16_t mode, uint8_t sid, uint8_t tid, uint32_t removeType) {
    Bytes b = PrefixBody(mode, sid, tid);
    Bytes t = ToBytes(removeType);
    b.insert(b.end(), t.begin(), t.end());
    return b;
}

bpsim::Policy AnswerI32(uint8_t rspId, int32_t value) {
    bpsim::Policy p;
    p.build = [rspId, value](const bpsim::Message &m) {
        return std::vector<Bytes>{
            bpsim::BuildI32Msg(rspId, m.SessionId(), m.TransactionId(), value)};
    };
    return p;
}

Bytes HitMsg(uint8_t sid, uint8_t tid, const bpsim::Fix &fix) {
    Bytes full = bpsim::BuildGetLocationRsp(sid, tid, fix);
    /* Offsets 3 to 90 are the same; then locationMethod and ageOfFix. */
    Bytes hit(full.begin(), full.begin() + 91);
    hit[0] = PROXIMITY_HIT_APBP_IND;
    bpsim::PutU32(&hit, static_cast<uint32_t>(fix.locationMethod));
    bpsim::PutU64(&hit, fix.ageOfFix);
    return hit;
}

Bytes ExpectedHit(uint8_t sid, uint8_t tid, const bpsim::Fix &fix) {
    Bytes loc = ExpectedLocationRsp(sid, tid, fix);
    ProximityHitInd ind;
    memset(&ind, 0, sizeof(ind));
    memcpy(&ind, loc.data(), 98); /* header and the eleven doubles */
    ind.header = Hdr(LAPI_PROXIMITY_HIT_IND, LAPI_PROXIMITY_HIT_IND_LEN);
    ind.locationMethod = fix.locationMethod;
    ind.ageOfFix = static_cast<uint32_t>(fix.ageOfFix);
    return ToBytes(ind);
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* Broadcasts                                                                */
/* ------------------------------------------------------------------------ */

TEST_F(LocationIndications, StatusChangeReachesEveryStatusClient) {
    auto s1 = NewClient(LAPI_SERVICE_STATUS);
    auto s2 = NewClient(LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR);
    auto plain = NewClient(1);
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(STATUS_CHANGE_BPAP_IND, 0x0A, 0x0B, StatusBody())));
    EXPECT_EQ(ExpectedStatusChange(0x0A, 0x0B), Next(s1->Async()));
    EXPECT_EQ(ExpectedStatusChange(0x0A, 0x0B), Next(s2->Async()));
    EXPECT_TRUE(plain->Async().StaysSilent(200));
    EXPECT_TRUE(s1->Sync().StaysSilent(10));
    /* A malformed one reaches nobody. */
    Bytes bad = StatusBody();
    bad.pop_back();
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(STATUS_CHANGE_BPAP_IND, 1, 1, bad)));
    EXPECT_TRUE(srv_->WaitForError(
        "Received statusChangeInd BP Msg length: 34 is not expected: 35!", kWaitMs));
    EXPECT_TRUE(s1->Async().StaysSilent(100));
}

TEST_F(LocationIndications, NotificationReachesMtlrClientAndItsAnswerGoesBackWithBpPair) {
    auto mtlr = NewClient(LAPI_SERVICE_MTLR);
    auto status = NewClient(LAPI_SERVICE_STATUS);
    const std::string addr = "tel:+123";
    Bytes body = NotificationBody("Bob", addr);
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(LOCATION_NOTIFICATION_BPAP_IND, 0x30, 0x40, body)));

    LocationNotificationInd want = PairMsg<LocationNotificationInd>(
        LAPI_LOCATION_NOTIFICATION_IND, LAPI_LOCATION_NOTIFICATION_IND_LEN, 0x30, 0x40);
    want.notificationType = 3;
    want.locationType = 1;
    want.dataCodingSchema = 0x48;
    want.nameLength = 6;
    memcpy(want.clientName, "B\0o\0b\0", 6);
    want.addrLength = static_cast<uint8_t>(addr.size());
    memcpy(want.clientExternalAddr, addr.data(), addr.size());
    EXPECT_EQ(ToBytes(want), Next(mtlr->Async()));
    EXPECT_TRUE(status->Async().StaysSilent(200));

    /* The user's answer goes back with the BP's own pair. */
    Bytes cfm = {0x30, 0x40};
    Bytes rt = ToBytes(uint32_t{0x01020304});
    cfm.insert(cfm.end(), rt.begin(), rt.end());
    ASSERT_TRUE(mtlr->SendMsg(LAPI_LOCATION_NOTIFICATION_CFM, cfm));
    EXPECT_EQ((Bytes{0x14, 0x30, 0x40, 0x01, 0x02, 0x03, 0x04}),
              NextBp(LOCATION_NOTIFICATION_APBP_RES));
    EXPECT_TRUE(mtlr->Sync().StaysSilent(100));
}

TEST_F(LocationIndications, NotificationStatusReachesMtlrClient) {
    auto mtlr = NewClient(LAPI_SERVICE_MTLR | LAPI_SERVICE_STATUS);
    auto status = NewClient(LAPI_SERVICE_STATUS);
    ASSERT_TRUE(sim_.Send(bpsim::BuildI32Msg(NOTIFICATION_STATUS_BPAP_IND, 0x30, 0x40, -9)));
    EXPECT_EQ(PairI32Rsp(LAPI_NOTIFICATION_STATUS_IND, 0x30, 0x40, -9), Next(mtlr->Async()));
    EXPECT_TRUE(status->Async().StaysSilent(200));
}

/* ------------------------------------------------------------------------ */
/* Periodic reports                                                          */
/* ------------------------------------------------------------------------ */

TEST_F(LocationIndications, PeriodicReportsKeepArrivingOnOneTransactionUntilAborted) {
    auto c = NewClient();
    GetLocationReq req = MakeGetLocation(0, 0x0C, 0x0D, 1000, LAPI_REPORT_PERIODIC, 1000);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(req)));
    EXPECT_EQ(ExpectedBpGetLocation(req, 2, 1), NextBp(GEOLOCATION_APBP_REQ));
    bpsim::Fix fix = SampleFix();
    EXPECT_EQ(ExpectedLocationRsp(0x0C, 0x0D, fix), Next(c->Async()));
    for (int i = 1; i <= 3; ++i) {
        fix.latitude += 0.001;
        fix.ageOfFix = static_cast<uint64_t>(i);
        ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, fix)));
        EXPECT_EQ(ExpectedLocationRsp(0x0C, 0x0D, fix), Next(c->Async())) << "report " << i;
    }
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(0, 0x0C, 0x0D)));
    EXPECT_EQ((Bytes{0x02, 2, 1}), NextBp(GEOLOCATION_ABORT_APBP_REQ));
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 0x0C, 0x0D, 0), Next(c->Async()));
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, fix)));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
    EXPECT_TRUE(c->Async().StaysSilent(100));
}

TEST_F(LocationIndications, TooMuchNmeaEndsEvenAPeriodicRequest) {
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ,
                           BodyOf(MakeGetLocation(1, 1, 1, 1000, LAPI_REPORT_PERIODIC))));
    EXPECT_FALSE(Next(c->Sync()).empty());
    Bytes big = bpsim::BuildGetLocationRsp(2, 1, SampleFix());
    /* Declare 907 NMEA bytes (and carry them). */
    size_t lenAt = 107;
    big.resize(109);
    big[lenAt] = 0x03;
    big[lenAt + 1] = 0x8B;
    big.insert(big.end(), 907, 'N');
    ASSERT_TRUE(sim_.Send(big));
    EXPECT_TRUE(srv_->WaitForTrace("Received a nmea data too large", kWaitMs));
    EXPECT_TRUE(c->Sync().StaysSilent(200));
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, SampleFix())));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
}

/* ------------------------------------------------------------------------ */
/* Proximity areas                                                           */
/* ------------------------------------------------------------------------ */

TEST_F(LocationIndications, ProximityAreaLivesThroughAddAndHit) {
    sim_.SetPolicy(PROXIMITY_ADD_APBP_REQ, AnswerI32(PROXIMITY_ADD_APBP_RES, 0));
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 5, 6)));
    Bytes want = {0x19, 2, 1};
    for (double v : {48.5, -2.25, 100.0, 250.0}) {
        bpsim::PutFixed(&want, v);
    }
    EXPECT_EQ(want, NextBp(PROXIMITY_ADD_APBP_REQ));
    EXPECT_EQ((Bytes{0x19, 2, 1, 0, 0, 0, 0, 0x18, 0x40, 0, 0}),
              Bytes(want.begin(), want.begin() + 11)); /* 48.5 in fixed point */
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 5, 6, 0), Next(c->Sync()));

    /* The hit goes to the asynchronous connection and ends the area. */
    bpsim::Fix fix = SampleFix();
    ASSERT_TRUE(sim_.Send(HitMsg(2, 1, fix)));
    EXPECT_EQ(ExpectedHit(5, 6, fix), Next(c->Async()));
    ASSERT_TRUE(sim_.Send(HitMsg(2, 1, fix)));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
    /* The pair is free again. */
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 5, 6)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 5, 6, 0), Next(c->Sync()));
}

TEST_F(LocationIndications, ProximityAreaLivesThroughAddAndRemove) {
    Silent(PROXIMITY_ADD_APBP_REQ);
    sim_.SetPolicy(PROXIMITY_REM_APBP_REQ, AnswerI32(PROXIMITY_REM_APBP_RES, 0));
    auto c = NewClient();
    /* An add pending on the synchronous connection cannot be removed yet. */
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 5, 6)));
    ASSERT_FALSE(NextBp(PROXIMITY_ADD_APBP_REQ).empty());
    ASSERT_TRUE(c->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, RemoveProximityBody(1, 5, 6, 0)));
    EXPECT_EQ(PairRsp(LAPI_INVALID_REQUEST_RSP, 5, 6), Next(c->Sync()));
    /* The BP accepts the area; now it can be removed. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildI32Msg(PROXIMITY_ADD_APBP_RES, 2, 1, 0)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 5, 6, 0), Next(c->Sync()));
    ASSERT_TRUE(c->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, RemoveProximityBody(0, 5, 6, 0)));
    EXPECT_EQ((Bytes{0x1B, 2, 1, 0, 0, 0, 0}), NextBp(PROXIMITY_REM_APBP_REQ));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 5, 6, 0), Next(c->Async()));
    /* Gone: a hit finds nothing. */
    ASSERT_TRUE(sim_.Send(HitMsg(2, 1, SampleFix())));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
}

TEST_F(LocationIndications, AsyncPendingAddCanBeRemoved) {
    Silent(PROXIMITY_ADD_APBP_REQ);
    sim_.SetPolicy(PROXIMITY_REM_APBP_REQ, AnswerI32(PROXIMITY_REM_APBP_RES, 0));
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(0, 5, 6)));
    ASSERT_FALSE(NextBp(PROXIMITY_ADD_APBP_REQ).empty());
    ASSERT_TRUE(c->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, RemoveProximityBody(1, 5, 6, 0)));
    EXPECT_EQ((Bytes{0x1B, 2, 1, 0, 0, 0, 0}), NextBp(PROXIMITY_REM_APBP_REQ));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 5, 6, 0), Next(c->Sync()));
}

TEST_F(LocationIndications, RemoveAllAnswersEveryAreaOfEveryClient) {
    sim_.SetPolicy(PROXIMITY_ADD_APBP_REQ, AnswerI32(PROXIMITY_ADD_APBP_RES, 0));
    sim_.SetPolicy(PROXIMITY_REM_APBP_REQ, AnswerI32(PROXIMITY_REM_APBP_RES, 0));
    auto a = NewClient();
    auto b = NewClient();
    ASSERT_TRUE(a->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 1)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 1, 1, 0), Next(a->Sync()));
    ASSERT_TRUE(a->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 2)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 1, 2, 0), Next(a->Sync()));
    ASSERT_TRUE(b->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(0, 7, 7)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 7, 7, 0), Next(b->Async()));

    /* b removes them all with a pair of its own; answer on sync. */
    ASSERT_TRUE(b->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, RemoveProximityBody(1, 9, 9, 1)));
    EXPECT_EQ((Bytes{0x1B, 2, 4, 0, 0, 0, 1}), NextBp(PROXIMITY_REM_APBP_REQ));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 1, 1, 0), Next(a->Async()));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 1, 2, 0), Next(a->Async()));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 7, 7, 0), Next(b->Async()));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 9, 9, 0), Next(b->Sync()));
    /* Every area is gone. */
    ASSERT_TRUE(sim_.Send(HitMsg(2, 2, SampleFix())));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 2!", kWaitMs));
    /* A remove-all under a pair in use is refused. */
    ASSERT_TRUE(a->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(0, 3, 3)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 3, 3, 0), Next(a->Async()));
    ASSERT_TRUE(a->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, RemoveProximityBody(1, 3, 3, 1)));
    EXPECT_EQ(PairRsp(LAPI_INVALID_REQUEST_RSP, 3, 3), Next(a->Sync()));
}

/* ------------------------------------------------------------------------ */
/* A client that disappears                                                  */
/* ------------------------------------------------------------------------ */

TEST_F(LocationIndications, VanishedClientCausesOneAbortPerRunningRequestAndLeavesNothing) {
    Silent(GEOLOCATION_APBP_REQ);
    Silent(GEOLOCATION_ABORT_APBP_REQ);
    Silent(GET_STATUS_APBP_REQ);
    auto keeper = NewClient();
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 1, 1))));
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ,
                           BodyOf(MakeGetLocation(0, 1, 2, 1000, LAPI_REPORT_PERIODIC))));
    ASSERT_TRUE(c->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 1, 3)));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());
    ASSERT_FALSE(NextBp(GET_STATUS_APBP_REQ).empty());
    size_t from = srv_->LineCount(lapitest::Stream::Stderr);

    c->Sync().Close();
    c->Async().Close();
    EXPECT_EQ((Bytes{0x02, 2, 1}), NextBp(GEOLOCATION_ABORT_APBP_REQ));
    EXPECT_EQ((Bytes{0x02, 2, 2}), NextBp(GEOLOCATION_ABORT_APBP_REQ));
    EXPECT_TRUE(sim_.StaysQuiet(300));
    EXPECT_TRUE(srv_->WaitForTraceContaining("forgot to abort location", kWaitMs, from));

    /* No transaction is left behind: every late answer meets nothing. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildI32Msg(GEOLOCATION_ABORT_APBP_RES, 2, 1, 0)));
    EXPECT_TRUE(
        srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs, from));
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 2, SampleFix())));
    EXPECT_TRUE(
        srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 2!", kWaitMs, from));
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(GET_STATUS_APBP_RES, 2, 3, Bytes(32, 0))));
    EXPECT_TRUE(
        srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 3!", kWaitMs, from));
    /* The server goes on serving the others. */
    sim_.ClearPolicy(GEOLOCATION_APBP_REQ);
    ASSERT_TRUE(keeper->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 4, 4))));
    EXPECT_EQ(ExpectedLocationRsp(4, 4, SampleFix()), Next(keeper->Sync()));
}
