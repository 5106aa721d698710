/*
 * Every client request of the location service end to end: the host
 * server between real client sockets and the BP simulator. For each
 * request, the BP message the server sends (byte for byte, with fixed-point
 * reals and reversed assistance data) and the answer the client receives
 * (byte for byte, on the connection that the request's mode chose).
 */
#include "LocSvcEnv.h"

using namespace locsvc;

namespace {

class LocationRequests : public LocSvcTest {};

}  // namespace

/* ------------------------------------------------------------------------ */
/* The frame on the wire                                                     */
/* ------------------------------------------------------------------------ */

TEST(LocationRequestFrame, GetLocationFrameBytesOnTheWire) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    lapitest::MuxPty mux(root);
    ASSERT_TRUE(mux.ok());
    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    ASSERT_TRUE(srv.WaitForTrace("Success to connect mux channel.", kWaitMs));
    TestClient c(root.Dir());
    ASSERT_TRUE(c.Handshake(1));
    GetLocationReq req = MakeGetLocation(1, 0x11, 0x22, 30000);
    req.interval = 0x01020304;
    ASSERT_TRUE(c.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(req)));
    Bytes frame;
    ASSERT_TRUE(mux.ReadExactly(37, &frame, kWaitMs));
    const Bytes want = {0x50, 0x00, 0x25,                          /* sync, frameLen 37 */
                        0x00, 0x02, 0x01,                          /* BP header */
                        0x00, 0x00, 0x75, 0x30,                    /* responseTime */
                        0x00, 0x00, 0x00, 0x19,                    /* horizontalAccuracy */
                        0x00, 0x00, 0x00, 0x28,                    /* verticalAccuracy */
                        0x00, 0x00, 0x00, 0x01,                    /* power */
                        0x01, 0x02, 0x03, 0x04,                    /* interval */
                        0x00, 0x00, 0x00, 0x00,                    /* reportCriteria */
                        0x01, 0x01, 0x00, 0x01, 0x01, 0xCF, 0xB0}; /* flags, trailer */
    EXPECT_EQ(want, frame);
    EXPECT_EQ(0, srv.Stop());
}

/* ------------------------------------------------------------------------ */
/* Location                                                                  */
/* ------------------------------------------------------------------------ */

TEST_F(LocationRequests, SingleFixAnsweredOnSyncConnection) {
    auto c = NewClient();
    GetLocationReq req = MakeGetLocation(1, 10, 20, 5000);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(req)));
    EXPECT_EQ(ExpectedBpGetLocation(req, 2, 1), NextBp(GEOLOCATION_APBP_REQ));
    EXPECT_EQ(ExpectedLocationRsp(10, 20, SampleFix()), Next(c->Sync()));
    EXPECT_TRUE(c->Async().StaysSilent(200));
}

TEST_F(LocationRequests, SingleFixAnsweredOnAsyncConnection) {
    auto c = NewClient();
    GetLocationReq req = MakeGetLocation(0, 10, 21, 5000);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(req)));
    EXPECT_EQ(ExpectedBpGetLocation(req, 2, 1), NextBp(GEOLOCATION_APBP_REQ));
    EXPECT_EQ(ExpectedLocationRsp(10, 21, SampleFix()), Next(c->Async()));
    EXPECT_TRUE(c->Sync().StaysSilent(200));
    /* The transaction is gone: a second answer for the pair meets nothing. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, SampleFix())));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
}

TEST_F(LocationRequests, PairInUseAnsweredWithInvalidRequestFirstRunsOn) {
    Silent(GEOLOCATION_APBP_REQ);
    auto c = NewClient();
    GetLocationReq req = MakeGetLocation(1, 3, 4);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(req)));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(req)));
    EXPECT_EQ(PairRsp(LAPI_INVALID_REQUEST_RSP, 3, 4), Next(c->Sync()));
    EXPECT_TRUE(sim_.StaysQuiet(200));
    /* The first one is still answered. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, SampleFix())));
    EXPECT_EQ(ExpectedLocationRsp(3, 4, SampleFix()), Next(c->Sync()));
}

TEST_F(LocationRequests, AbortAnsweredWithTheBpsResult) {
    Silent(GEOLOCATION_APBP_REQ);
    bpsim::Policy abortPolicy;
    abortPolicy.build = [](const bpsim::Message &m) {
        return std::vector<Bytes>{
            bpsim::BuildI32Msg(GEOLOCATION_ABORT_APBP_RES, m.SessionId(), m.TransactionId(), -7)};
    };
    sim_.SetPolicy(GEOLOCATION_ABORT_APBP_REQ, abortPolicy);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 5, 6))));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());
    /* The abort asks for its answer on the synchronous connection. */
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(1, 5, 6)));
    EXPECT_EQ((Bytes{0x02, 2, 1}), NextBp(GEOLOCATION_ABORT_APBP_REQ));
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 5, 6, -7), Next(c->Sync()));
    EXPECT_TRUE(c->Async().StaysSilent(200));
}

TEST_F(LocationRequests, AbortOfUnknownOrAbortingRequestIsInvalid) {
    Silent(GEOLOCATION_APBP_REQ);
    Silent(GEOLOCATION_ABORT_APBP_REQ);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(0, 9, 9)));
    EXPECT_EQ(PairRsp(LAPI_INVALID_REQUEST_RSP, 9, 9), Next(c->Async()));
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 5, 6))));
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(1, 5, 6)));
    ASSERT_FALSE(NextBp(GEOLOCATION_ABORT_APBP_REQ).empty());
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(1, 5, 6)));
    EXPECT_EQ(PairRsp(LAPI_INVALID_REQUEST_RSP, 5, 6), Next(c->Sync()));
    EXPECT_TRUE(srv_->WaitForErrorContaining("Invalid abort location msg, pid is : ", kWaitMs));
}

TEST_F(LocationRequests, AbortAllAbortsEveryClientsRunningRequests) {
    Silent(GEOLOCATION_APBP_REQ);
    auto a = NewClient();
    auto b = NewClient();
    auto other = NewClient();
    ASSERT_TRUE(a->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 1, 1))));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());
    ASSERT_TRUE(b->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 1, 1))));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());
    ASSERT_TRUE(other->SendMsg(LAPI_ABORT_ALL_LOCATION_REQ, Bytes()));
    EXPECT_EQ((Bytes{0x02, 2, 1}), NextBp(GEOLOCATION_ABORT_APBP_REQ));
    EXPECT_EQ((Bytes{0x02, 2, 2}), NextBp(GEOLOCATION_ABORT_APBP_REQ));
    /* Each answer goes where its own request asked. */
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 1, 1, 0), Next(a->Sync()));
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 1, 1, 0), Next(b->Async()));
    EXPECT_TRUE(other->Sync().StaysSilent(200));
    EXPECT_TRUE(other->Async().StaysSilent(10));
}

TEST_F(LocationRequests, LastKnownLocationAnsweredOnce) {
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_LAST_KNOWN_LOCATION_REQ, PrefixBody(1, 7, 8)));
    EXPECT_EQ((Bytes{0x16, 2, 1}), NextBp(LAST_KNOWN_GEOLOCATION_APBP_REQ));
    EXPECT_EQ(ExpectedLocationRsp(7, 8, SampleFix()), Next(c->Sync()));
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, SampleFix())));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
    EXPECT_TRUE(c->Sync().StaysSilent(100));
}

TEST_F(LocationRequests, LocationResponseWithLongestNmeaDelivered) {
    bpsim::Fix fix = SampleFix();
    fix.nmea = std::string(906, 'G');
    sim_.SetFix(fix);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 1, 2))));
    EXPECT_EQ(ExpectedLocationRsp(1, 2, fix), Next(c->Sync()));
}

/* ------------------------------------------------------------------------ */
/* Assistance data                                                           */
/* ------------------------------------------------------------------------ */

TEST_F(LocationRequests, GetGpsDbDataRoundTrip) {
    bpsim::Policy policy;
    policy.build = [](const bpsim::Message &m) {
        Bytes body;
        bpsim::PutU16(&body, 2);
        bpsim::PutU32(&body, 0x0A0B0C0D);
        bpsim::PutU16(&body, 3);
        body.insert(body.end(), {0x01, 0x02, 0x03});
        bpsim::PutU32(&body, 0x0E);
        bpsim::PutU16(&body, 1);
        body.push_back(0x99);
        bpsim::PutU32(&body, 0xFFFFFFFE); /* result -2 */
        return std::vector<Bytes>{
            bpsim::MakeMsg(DB_READ_APBP_RES, m.SessionId(), m.TransactionId(), body)};
    };
    sim_.SetPolicy(DB_READ_APBP_REQ, policy);
    auto c = NewClient();
    Bytes body = PrefixBody(0, 4, 5);
    uint32_t fileId = 0x00010203;
    Bytes fid = ToBytes(fileId);
    body.insert(body.end(), fid.begin(), fid.end());
    ASSERT_TRUE(c->SendMsg(LAPI_GET_GPS_DB_DATA_REQ, body));
    EXPECT_EQ((Bytes{0x06, 2, 1, 0x00, 0x01, 0x02, 0x03}), NextBp(DB_READ_APBP_REQ));

    GetGpsDbDataRsp want =
        PairMsg<GetGpsDbDataRsp>(LAPI_GET_GPS_DB_DATA_RSP, LAPI_GET_GPS_DB_DATA_RSP_LEN, 4, 5);
    want.numFiles = 2;
    want.dbFile[0].fileId = 0x0A0B0C0D;
    want.dbFile[0].length = 3;
    memcpy(want.dbFile[0].data, "\x03\x02\x01", 3); /* reversed */
    want.dbFile[1].fileId = 0x0E;
    want.dbFile[1].length = 1;
    want.dbFile[1].data[0] = 0x99;
    want.result = -2;
    EXPECT_EQ(ToBytes(want), Next(c->Async()));
}

TEST_F(LocationRequests, SetGpsDbDataSendsReversedDataAndReturnsResult) {
    bpsim::Policy policy;
    policy.build = [](const bpsim::Message &m) {
        return std::vector<Bytes>{
            bpsim::BuildI32Msg(DB_WRITE_APBP_RES, m.SessionId(), m.TransactionId(), 5)};
    };
    sim_.SetPolicy(DB_WRITE_APBP_REQ, policy);
    auto c = NewClient();
    SetGpsDbDataReq req = PrefixReq<SetGpsDbDataReq>(1, 6, 7);
    req.numFiles = 3;
    req.dbFile[0].fileId = 0x01020304;
    req.dbFile[0].length = 4;
    memcpy(req.dbFile[0].data, "\xA1\xA2\xA3\xA4", 4);
    req.dbFile[1].fileId = 2;
    req.dbFile[1].length = 1;
    memcpy(req.dbFile[1].data, "\xB1\xB2\xB3\xB4", 4);
    req.dbFile[2].fileId = 3;
    req.dbFile[2].length = 6; /* runs on into the next entry's fileId */
    memcpy(req.dbFile[2].data, "\xC1\xC2\xC3\xC4", 4);
    req.dbFile[3].fileId = 0xD2D1;
    ASSERT_TRUE(c->SendMsg(LAPI_SET_GPS_DB_DATA_REQ, BodyOf(req)));
    const Bytes want = {0x04, 2,    1,    0x00, 0x03,                               /* head */
                        0x01, 0x02, 0x03, 0x04, 0x00, 0x04, 0xA4, 0xA3, 0xA2, 0xA1, /* 0 */
                        0x00, 0x00, 0x00, 0x02, 0x00, 0x01, 0xB1,                   /* 1 */
                        0x00, 0x00, 0x00, 0x03, 0x00, 0x06, 0xD2, 0xD1, 0xC4, 0xC3, 0xC2, 0xC1};
    EXPECT_EQ(want, NextBp(DB_WRITE_APBP_REQ));
    EXPECT_EQ(PairI32Rsp(LAPI_SET_GPS_DB_DATA_RSP, 6, 7, 5), Next(c->Sync()));
}

TEST_F(LocationRequests, SetGpsDbDataTooLargeForOneFrameClosesTheClient) {
    auto c = NewClient();
    SetGpsDbDataReq req;
    memset(&req, 0, sizeof(req));
    req.mode = 1;
    req.numFiles = 2;
    req.dbFile[0].length = 600;
    req.dbFile[1].length = 600;
    ASSERT_TRUE(c->SendMsg(LAPI_SET_GPS_DB_DATA_REQ, BodyOf(req)));
    EXPECT_TRUE(c->Sync().IsClosedByPeer(kWaitMs));
    EXPECT_TRUE(
        srv_->WaitForErrorContaining("Buffer overflow when formating BP msg, pid is : ", kWaitMs));
    EXPECT_TRUE(sim_.StaysQuiet(200));
}

/* ------------------------------------------------------------------------ */
/* Status, distance                                                          */
/* ------------------------------------------------------------------------ */

TEST_F(LocationRequests, GetStatusRoundTrip) {
    bpsim::Policy policy;
    policy.build = [](const bpsim::Message &m) {
        Bytes body;
        for (uint32_t v : {1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu, 7u, 8u}) {
            bpsim::PutU32(&body, v);
        }
        return std::vector<Bytes>{
            bpsim::MakeMsg(GET_STATUS_APBP_RES, m.SessionId(), m.TransactionId(), body)};
    };
    sim_.SetPolicy(GET_STATUS_APBP_REQ, policy);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 0x21, 0x22)));
    EXPECT_EQ((Bytes{0x11, 2, 1}), NextBp(GET_STATUS_APBP_REQ));
    GetStatusRsp want =
        PairMsg<GetStatusRsp>(LAPI_GET_STATUS_RSP, LAPI_GET_STATUS_RSP_LEN, 0x21, 0x22);
    want.userStatus = 1;
    want.hwStatus = 2;
    want.fixStatus = 3;
    want.emergencyStatus = 4;
    want.fixResultStatus.status = 5;
    want.fixResultStatus.cause = -1;
    want.signalStatus = 7;
    want.iconStatus = 8;
    EXPECT_EQ(ToBytes(want), Next(c->Sync()));
}

TEST_F(LocationRequests, DistanceAzimuthInFixedPointBothWays) {
    bpsim::Policy policy;
    policy.build = [](const bpsim::Message &m) {
        Bytes body;
        bpsim::PutFixed(&body, 1234.5);
        bpsim::PutFixed(&body, -45.25);
        return std::vector<Bytes>{
            bpsim::MakeMsg(DISTANCE_AND_AZIMUTH_APBP_RES, m.SessionId(), m.TransactionId(), body)};
    };
    sim_.SetPolicy(DISTANCE_AND_AZIMUTH_APBP_REQ, policy);
    auto c = NewClient();
    DistanceAzimuthReq req = PrefixReq<DistanceAzimuthReq>(0, 1, 2);
    req.latitude1 = 1.0;
    req.longitude1 = -1.0;
    req.latitude2 = -1.5;
    req.longitude2 = -0.0000001;
    req.distanceOnly = 1;
    ASSERT_TRUE(c->SendMsg(LAPI_DISTANCE_AZIMUTH_REQ, BodyOf(req)));
    const Bytes want = {0x17, 2,    1,                                      /* header */
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00,     /* 1.0 */
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0x00, 0x00,     /* -1.0 */
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x40, 0x00, 0x00,     /* -1.5 */
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 1}; /* -1e-7 */
    EXPECT_EQ(want, NextBp(DISTANCE_AND_AZIMUTH_APBP_REQ));
    DistanceAzimuthRsp rsp =
        PairMsg<DistanceAzimuthRsp>(LAPI_DISTANCE_AZIMUTH_RSP, LAPI_DISTANCE_AZIMUTH_RSP_LEN, 1, 2);
    rsp.distance = 1234.5 + 0.5 / 8388608.0;
    rsp.azimuth = -45.25 + 0.5 / 8388608.0;
    EXPECT_EQ(ToBytes(rsp), Next(c->Async()));
}
