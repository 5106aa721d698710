/*
 * The client library against the real host server and the BP simulator:
 * every request's round trip, both connections, broadcasts, the server's
 * own answers (timeOutRsp, invalidRequestRsp), a server that goes away in
 * the middle of a request and a server that is slow to answer.
 */
#include <gtest/gtest.h>
#include <time.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "LapiClientPtr.h"
#include "ServerFixture.h"
#include "SimServerTest.h"
#include "lapi_client.h"

namespace {

using bpsim::Bytes;
using lapitest::ClientPtr;
using lapitest::NowMs;
using lapitest::StatusBody;

bpsim::Fix SampleFix() {
    bpsim::Fix fix;
    fix.latitude = 48.8566;
    fix.longitude = 2.3522;
    fix.altitude = 35.0;
    fix.horizontalAccuracy = 12.0;
    fix.locationMethod = 2;
    fix.ageOfFix = 3;
    fix.nmea = "$GPGGA,120000.00,4851.396,N,00221.132,E,1,08,0.9,35.0,M,,,,*00\r\n";
    return fix;
}

/* A private root, the BP simulator on its mux link, and the host server. */
class LibLapi : public lapitest::SimServerTest<> {
  protected:
    LibLapi() : SimServerTest(SampleFix()) {}

    std::string Sock() const { return root_.Path("/tmp/lapisock"); }

    ClientPtr Open(uint32_t service = LAPI_SERVICE_BASIC) {
        lapi_client *p = nullptr;
        int rc = lapi_open(Sock().c_str(), service, 5000, &p);
        EXPECT_EQ(rc, LAPI_OK) << lapi_strerror(rc);
        return ClientPtr(p);
    }
};

/* The next message; fails the test on anything but LAPI_OK. */
::testing::AssertionResult Next(lapi_client *c, lapi_msg *m, int timeoutMs = 5000) {
    int rc = lapi_recv(c, m, timeoutMs);
    if (rc != LAPI_OK) {
        return ::testing::AssertionFailure() << "lapi_recv: " << lapi_strerror(rc);
    }
    return ::testing::AssertionSuccess();
}

/* Waits for a message of this identifier, skipping others. */
::testing::AssertionResult NextOf(lapi_client *c, int msgId, lapi_msg *m, int timeoutMs = 5000) {
    int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        int left = static_cast<int>(deadline - NowMs());
        if (left <= 0) {
            return ::testing::AssertionFailure() << "no msgId " << msgId << " in time";
        }
        int rc = lapi_recv(c, m, left);
        if (rc != LAPI_OK) {
            return ::testing::AssertionFailure() << "lapi_recv: " << lapi_strerror(rc);
        }
        if (m->msgId == msgId) {
            return ::testing::AssertionSuccess();
        }
    }
}

/* ---- handshake ---- */

TEST_F(LibLapi, HandshakeAndUnregister) {
    ClientPtr c = Open(LAPI_SERVICE_BASIC);
    ASSERT_TRUE(c);
    EXPECT_GE(lapi_sync_fd(c.get()), 0);
    EXPECT_GE(lapi_async_fd(c.get()), 0);
    EXPECT_EQ(lapi_unregister(c.get()), LAPI_OK);
    EXPECT_EQ(lapi_get_status(c.get(), 1, 1, 1), LAPI_E_STATE);
}

TEST_F(LibLapi, TwoClientsGetDifferentGlobalIds) {
    ClientPtr a = Open();
    ClientPtr b = Open();
    ASSERT_TRUE(a && b);
    EXPECT_NE(lapi_global_id(a.get()), lapi_global_id(b.get()));
}

TEST_F(LibLapi, SecondNetworkRequestClientIsRefused) {
    ClientPtr first = Open(LAPI_SERVICE_MTLR);
    ASSERT_TRUE(first);
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(Sock().c_str(), LAPI_SERVICE_MTLR | LAPI_SERVICE_STATUS, 3000, &p),
              LAPI_E_REFUSED);
    EXPECT_EQ(p, nullptr);
}

TEST_F(LibLapi, NoServerIsConnectError) {
    srv_->Stop();
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(Sock().c_str(), LAPI_SERVICE_BASIC, 1000, &p), LAPI_E_CONNECT);
}

/* ---- location ---- */

TEST_F(LibLapi, SingleFixOnTheSyncConnection) {
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    lapi_location_params lp;
    lapi_location_params_init(&lp);
    lp.sessionId = 4;
    lp.transactionId = 5;
    lp.responseTime = 20000;
    lp.nmeaRequired = 1;
    ASSERT_EQ(lapi_get_location(c.get(), &lp), LAPI_OK);
    auto req = sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U32(3), 20000u);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_GET_LOCATION_RSP);
    EXPECT_EQ(+m.conn, LAPI_CONN_SYNC);
    const GetLocationRsp &r = m.u.getLocationRsp;
    EXPECT_EQ(+r.header.pid, 0u);
    EXPECT_EQ(+r.header.msgLen, LAPI_GET_LOCATION_RSP_LEN);
    EXPECT_EQ(+r.sessionId, 4);
    EXPECT_EQ(+r.transactionId, 5);
    EXPECT_NEAR(+r.latitude, 48.8566, 1e-6);
    EXPECT_NEAR(+r.longitude, 2.3522, 1e-6);
    EXPECT_NEAR(+r.altitude, 35.0, 1e-6);
    EXPECT_NEAR(+r.horizontalAccuracy, 12.0, 1e-6);
    EXPECT_EQ(+r.locationMethod, 2);
    EXPECT_EQ(+r.ageOfFix, 3u);
    std::string nmea(reinterpret_cast<const char *>(r.nmeaData), r.nmeaDataLength);
    EXPECT_EQ(nmea.rfind("$GPGGA,120000.00", 0), 0u) << nmea;
}

TEST_F(LibLapi, AsyncModeAnswersOnTheAsyncConnection) {
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    lapi_location_params lp;
    lapi_location_params_init(&lp);
    lp.mode = LAPI_MODE_ASYNC;
    ASSERT_EQ(lapi_get_location(c.get(), &lp), LAPI_OK);
    lapi_msg m;
    /* Only the asynchronous connection carries it. */
    EXPECT_EQ(lapi_recv_conn(c.get(), LAPI_CONN_SYNC, &m, 300), LAPI_E_TIMEOUT);
    ASSERT_EQ(lapi_recv_conn(c.get(), LAPI_CONN_ASYNC, &m, 5000), LAPI_OK);
    EXPECT_EQ(+m.msgId, LAPI_GET_LOCATION_RSP);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
}

TEST_F(LibLapi, PeriodicReportsUntilAborted) {
    Silent(GEOLOCATION_APBP_REQ);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    lapi_location_params lp;
    lapi_location_params_init(&lp);
    lp.reportCriteria = LAPI_REPORT_PERIODIC;
    lp.interval = 1;
    lp.sessionId = 8;
    lp.transactionId = 9;
    ASSERT_EQ(lapi_get_location(c.get(), &lp), LAPI_OK);
    auto req = sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    bpsim::Fix fix = sim_.GetFix();
    for (int i = 0; i < 3; ++i) {
        fix.latitude = 10.0 + i;
        ASSERT_TRUE(
            sim_.Send(bpsim::BuildGetLocationRsp(req->SessionId(), req->TransactionId(), fix)));
        lapi_msg m;
        ASSERT_TRUE(Next(c.get(), &m));
        ASSERT_EQ(+m.msgId, LAPI_GET_LOCATION_RSP);
        EXPECT_EQ(+m.u.getLocationRsp.sessionId, 8);
        EXPECT_NEAR(+m.u.getLocationRsp.latitude, 10.0 + i, 1e-6);
    }
    ASSERT_EQ(lapi_abort_location(c.get(), LAPI_MODE_SYNC, 8, 9), LAPI_OK);
    auto abortReq = sim_.WaitForSubCmd(GEOLOCATION_ABORT_APBP_REQ, 5000);
    ASSERT_TRUE(abortReq.has_value());
    EXPECT_EQ(abortReq->SessionId(), req->SessionId());
    EXPECT_EQ(abortReq->TransactionId(), req->TransactionId());
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_ABORT_LOCATION_RSP);
    EXPECT_EQ(+m.u.abortLocationRsp.sessionId, 8);
    EXPECT_EQ(+m.u.abortLocationRsp.transactionId, 9);
    EXPECT_EQ(+m.u.abortLocationRsp.result, 0);
    /* A late report after the abort reaches nobody. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(req->SessionId(), req->TransactionId(), fix)));
    EXPECT_EQ(lapi_recv(c.get(), &m, 300), LAPI_E_TIMEOUT);
}

TEST_F(LibLapi, AbortOfUnknownPairIsInvalidAndTheClientStays) {
    AnswerStatus(1);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_abort_location(c.get(), LAPI_MODE_SYNC, 9, 9), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_INVALID_REQUEST_RSP);
    EXPECT_EQ(+m.u.invalidRequestRsp.sessionId, 9);
    EXPECT_EQ(+m.u.invalidRequestRsp.transactionId, 9);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 1, 1), LAPI_OK);
    ASSERT_TRUE(Next(c.get(), &m));
    EXPECT_EQ(+m.msgId, LAPI_GET_STATUS_RSP);
}

TEST_F(LibLapi, AbortAllReachesEveryClientsRequests) {
    Silent(GEOLOCATION_APBP_REQ);
    ClientPtr a = Open();
    ClientPtr b = Open();
    ClientPtr boss = Open();
    ASSERT_TRUE(a && b && boss);
    lapi_location_params lp;
    lapi_location_params_init(&lp);
    ASSERT_EQ(lapi_get_location(a.get(), &lp), LAPI_OK);
    lp.mode = LAPI_MODE_ASYNC;
    ASSERT_EQ(lapi_get_location(b.get(), &lp), LAPI_OK);
    ASSERT_TRUE(sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 5000).has_value());
    ASSERT_TRUE(sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, 5000).has_value());
    ASSERT_EQ(lapi_abort_all_location(boss.get()), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(a.get(), &m));
    EXPECT_EQ(+m.msgId, LAPI_ABORT_LOCATION_RSP);
    EXPECT_EQ(+m.conn, LAPI_CONN_SYNC);
    ASSERT_TRUE(Next(b.get(), &m));
    EXPECT_EQ(+m.msgId, LAPI_ABORT_LOCATION_RSP);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
    /* abortAllLocationReq has no answer of its own. */
    EXPECT_EQ(lapi_recv(boss.get(), &m, 300), LAPI_E_TIMEOUT);
}

TEST_F(LibLapi, LastKnownLocation) {
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_last_known_location(c.get(), LAPI_MODE_SYNC, 2, 3), LAPI_OK);
    auto req = sim_.WaitForSubCmd(LAST_KNOWN_GEOLOCATION_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_GET_LOCATION_RSP);
    EXPECT_EQ(+m.u.getLocationRsp.sessionId, 2);
    EXPECT_EQ(+m.u.getLocationRsp.transactionId, 3);
    EXPECT_NEAR(+m.u.getLocationRsp.latitude, 48.8566, 1e-6);
}

/* ---- assistance data ---- */

TEST_F(LibLapi, GetGpsDbDataRoundTrip) {
    Answer(DB_READ_APBP_REQ, [](const bpsim::Message &r) {
        Bytes body;
        bpsim::PutU16(&body, 2);
        bpsim::PutU32(&body, 5);
        bpsim::PutU16(&body, 2);
        body.push_back(0x12);
        body.push_back(0x34);
        bpsim::PutU32(&body, 6);
        bpsim::PutU16(&body, 1);
        body.push_back(0x7F);
        bpsim::PutU32(&body, 0);
        return std::vector<Bytes>{
            bpsim::MakeMsg(DB_READ_APBP_RES, r.SessionId(), r.TransactionId(), body)};
    });
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_get_gps_db_data(c.get(), LAPI_MODE_SYNC, 1, 2, 5), LAPI_OK);
    auto req = sim_.WaitForSubCmd(DB_READ_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U32(3), 5u);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_GET_GPS_DB_DATA_RSP);
    const GetGpsDbDataRsp &r = m.u.getGpsDbDataRsp;
    EXPECT_EQ(+r.sessionId, 1);
    EXPECT_EQ(+r.transactionId, 2);
    EXPECT_EQ(+r.numFiles, 2);
    EXPECT_EQ(+r.dbFile[0].fileId, 5u);
    EXPECT_EQ(+r.dbFile[0].length, 2);
    /* The data travels as one big-endian number and arrives in host order. */
    EXPECT_EQ(+r.dbFile[0].data[0], 0x34);
    EXPECT_EQ(+r.dbFile[0].data[1], 0x12);
    EXPECT_EQ(+r.dbFile[1].fileId, 6u);
    EXPECT_EQ(+r.dbFile[1].data[0], 0x7F);
    EXPECT_EQ(+r.result, 0);
}

TEST_F(LibLapi, SetGpsDbDataRoundTrip) {
    Answer(DB_WRITE_APBP_REQ, [](const bpsim::Message &r) {
        return std::vector<Bytes>{
            bpsim::BuildI32Msg(DB_WRITE_APBP_RES, r.SessionId(), r.TransactionId(), 0)};
    });
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    DbFile f[1];
    memset(f, 0, sizeof(f));
    f[0].fileId = 3;
    f[0].length = 2;
    f[0].data[0] = 0x0A;
    f[0].data[1] = 0x0B;
    ASSERT_EQ(lapi_set_gps_db_data(c.get(), LAPI_MODE_ASYNC, 6, 7, f, 1), LAPI_OK);
    auto req = sim_.WaitForSubCmd(DB_WRITE_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U16(3), 1u);
    EXPECT_EQ(req->U32(5), 3u);
    EXPECT_EQ(req->U16(9), 2u);
    ASSERT_GE(req->Size(), 13u);
    EXPECT_EQ(+req->bytes[11], 0x0B);
    EXPECT_EQ(+req->bytes[12], 0x0A);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_SET_GPS_DB_DATA_RSP);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
    EXPECT_EQ(+m.u.setGpsDbDataRsp.sessionId, 6);
    EXPECT_EQ(+m.u.setGpsDbDataRsp.result, 0);
}

/* ---- status ---- */

TEST_F(LibLapi, GetStatusRoundTrip) {
    AnswerStatus(10);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 3, 4), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_GET_STATUS_RSP);
    const GetStatusRsp &r = m.u.getStatusRsp;
    EXPECT_EQ(+r.sessionId, 3);
    EXPECT_EQ(+r.transactionId, 4);
    EXPECT_EQ(+r.userStatus, 10);
    EXPECT_EQ(+r.hwStatus, 11);
    EXPECT_EQ(+r.fixStatus, 12);
    EXPECT_EQ(+r.emergencyStatus, 13);
    EXPECT_EQ(+r.fixResultStatus.status, 14);
    EXPECT_EQ(+r.fixResultStatus.cause, 15);
    EXPECT_EQ(+r.signalStatus, 16);
    EXPECT_EQ(+r.iconStatus, 17);
}

TEST_F(LibLapi, StatusChangeReachesOnlyStatusClientsOnTheAsyncConnection) {
    ClientPtr watcher = Open(LAPI_SERVICE_STATUS);
    ClientPtr other = Open(LAPI_SERVICE_BASIC);
    ASSERT_TRUE(watcher && other);
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(STATUS_CHANGE_BPAP_IND, 0x21, 0x22, StatusBody(-3))));
    lapi_msg m;
    ASSERT_TRUE(Next(watcher.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_STATUS_CHANGE_IND);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
    EXPECT_EQ(+m.u.statusChangeInd.sessionId, 0x21);
    EXPECT_EQ(+m.u.statusChangeInd.userStatus, -3);
    EXPECT_EQ(+m.u.statusChangeInd.iconStatus, 4);
    EXPECT_EQ(lapi_recv(other.get(), &m, 300), LAPI_E_TIMEOUT);
}

/* ---- network-initiated requests ---- */

TEST_F(LibLapi, NetworkNotificationIsAnsweredWithItsOwnPair) {
    ClientPtr c = Open(LAPI_SERVICE_MTLR);
    ASSERT_TRUE(c);
    Bytes body;
    bpsim::PutU32(&body, 1); /* notificationType */
    bpsim::PutU32(&body, 2); /* locationType */
    body.push_back(0x48);    /* dataCodingSchema */
    body.push_back(4);       /* nameLength: "AB" as UCS-2 */
    body.insert(body.end(), {0x00, 0x41, 0x00, 0x42});
    body.push_back(3); /* addrLength */
    body.insert(body.end(), {'x', '@', 'y'});
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(LOCATION_NOTIFICATION_BPAP_IND, 0x31, 0x32, body)));
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_LOCATION_NOTIFICATION_IND);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
    const LocationNotificationInd &ind = m.u.locationNotificationInd;
    EXPECT_EQ(+ind.sessionId, 0x31);
    EXPECT_EQ(+ind.transactionId, 0x32);
    EXPECT_EQ(+ind.notificationType, 1);
    EXPECT_EQ(+ind.locationType, 2);
    EXPECT_EQ(+ind.nameLength, 4);
    uint16_t unit;
    memcpy(&unit, ind.clientName, 2);
    EXPECT_EQ(unit, 0x41);
    EXPECT_EQ(+ind.addrLength, 3);
    EXPECT_EQ(memcmp(ind.clientExternalAddr, "x@y", 3), 0);
    ASSERT_EQ(lapi_location_notification_cfm(c.get(), ind.sessionId, ind.transactionId, 7),
              LAPI_OK);
    auto cfm = sim_.WaitForSubCmd(LOCATION_NOTIFICATION_APBP_RES, 5000);
    ASSERT_TRUE(cfm.has_value());
    EXPECT_EQ(cfm->SessionId(), 0x31);
    EXPECT_EQ(cfm->TransactionId(), 0x32);
    EXPECT_EQ(cfm->U32(3), 7u);
}

TEST_F(LibLapi, NotificationStatusReachesTheNetworkRequestClient) {
    ClientPtr c = Open(LAPI_SERVICE_MTLR);
    ASSERT_TRUE(c);
    ASSERT_TRUE(sim_.Send(bpsim::BuildI32Msg(NOTIFICATION_STATUS_BPAP_IND, 0x41, 0x42, -9)));
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_NOTIFICATION_STATUS_IND);
    EXPECT_EQ(+m.u.notificationStatusInd.sessionId, 0x41);
    EXPECT_EQ(+m.u.notificationStatusInd.cause, -9);
}

/* ---- distance ---- */

TEST_F(LibLapi, DistanceAzimuthRoundTrip) {
    Answer(DISTANCE_AND_AZIMUTH_APBP_REQ, [](const bpsim::Message &r) {
        Bytes body;
        bpsim::PutFixed(&body, 1234.5);
        bpsim::PutFixed(&body, 45.25);
        return std::vector<Bytes>{
            bpsim::MakeMsg(DISTANCE_AND_AZIMUTH_APBP_RES, r.SessionId(), r.TransactionId(), body)};
    });
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_distance_azimuth(c.get(), LAPI_MODE_SYNC, 5, 6, 1.0, -1.0, 2.5, 3.5, 1),
              LAPI_OK);
    auto req = sim_.WaitForSubCmd(DISTANCE_AND_AZIMUTH_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    ASSERT_EQ(req->Size(), 36u);
    EXPECT_EQ(req->U64(3), 0x0000000000800000ull) << "latitude1 1.0 in fixed point";
    EXPECT_EQ(req->U64(11), 0xFFFFFFFFFF800000ull) << "longitude1 -1.0 in fixed point";
    EXPECT_EQ(+req->bytes[35], 1);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_DISTANCE_AZIMUTH_RSP);
    EXPECT_EQ(+m.u.distanceAzimuthRsp.sessionId, 5);
    EXPECT_EQ(+m.u.distanceAzimuthRsp.transactionId, 6);
    EXPECT_NEAR(+m.u.distanceAzimuthRsp.distance, 1234.5, 1e-6);
    EXPECT_NEAR(+m.u.distanceAzimuthRsp.azimuth, 45.25, 1e-6);
}

/* ---- proximity areas ---- */

class LibLapiProximity : public LibLapi {
  protected:
    void SetUp() override {
        LibLapi::SetUp();
        Answer(PROXIMITY_ADD_APBP_REQ, [](const bpsim::Message &r) {
            return std::vector<Bytes>{
                bpsim::BuildI32Msg(PROXIMITY_ADD_APBP_RES, r.SessionId(), r.TransactionId(), 0)};
        });
        Answer(PROXIMITY_REM_APBP_REQ, [](const bpsim::Message &r) {
            return std::vector<Bytes>{
                bpsim::BuildI32Msg(PROXIMITY_REM_APBP_RES, r.SessionId(), r.TransactionId(), 0)};
        });
    }
};

TEST_F(LibLapiProximity, AddThenHit) {
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_add_proximity(c.get(), LAPI_MODE_SYNC, 1, 1, 48.5, 2.25, 35.0, 100.0), LAPI_OK);
    auto req = sim_.WaitForSubCmd(PROXIMITY_ADD_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    EXPECT_NEAR(req->Fixed(27).value_or(0), 100.0, 1e-6) << "radius";
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_ADD_PROXIMITY_RSP);
    EXPECT_EQ(+m.u.addProximityRsp.status, 0);
    /* The hit of an active area goes to the asynchronous connection. */
    Bytes hit = bpsim::BuildGetLocationRsp(req->SessionId(), req->TransactionId(), sim_.GetFix());
    /* PROXIMITY_HIT_APBP_IND: the location answer's fields without cause
     * and NMEA: header, 88 bytes of position, locationMethod, ageOfFix. */
    Bytes ind(hit.begin(), hit.begin() + 3 + 88 + 4);
    ind[0] = PROXIMITY_HIT_APBP_IND;
    bpsim::PutU64(&ind, 77);
    ASSERT_EQ(ind.size(), 103u);
    ASSERT_TRUE(sim_.Send(ind));
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_PROXIMITY_HIT_IND);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
    EXPECT_EQ(+m.u.proximityHitInd.sessionId, 1);
    EXPECT_NEAR(+m.u.proximityHitInd.latitude, 48.8566, 1e-6);
    EXPECT_EQ(+m.u.proximityHitInd.ageOfFix, 77u);
    /* A hit ends the area. */
    ASSERT_EQ(lapi_remove_proximity(c.get(), LAPI_MODE_SYNC, 1, 1), LAPI_OK);
    ASSERT_TRUE(Next(c.get(), &m));
    EXPECT_EQ(+m.msgId, LAPI_INVALID_REQUEST_RSP);
}

TEST_F(LibLapiProximity, AddThenRemove) {
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_add_proximity(c.get(), LAPI_MODE_SYNC, 2, 3, 1.0, 2.0, 0.0, 50.0), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_ADD_PROXIMITY_RSP);
    ASSERT_EQ(lapi_remove_proximity(c.get(), LAPI_MODE_SYNC, 2, 3), LAPI_OK);
    auto req = sim_.WaitForSubCmd(PROXIMITY_REM_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U32(3), 0u);
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_REMOVE_PROXIMITY_RSP);
    EXPECT_EQ(+m.u.removeProximityRsp.sessionId, 2);
    EXPECT_EQ(+m.u.removeProximityRsp.transactionId, 3);
    EXPECT_EQ(+m.u.removeProximityRsp.status, 0);
}

TEST_F(LibLapiProximity, RemoveAllAnswersEveryAreaOwner) {
    ClientPtr owner = Open();
    ClientPtr remover = Open();
    ASSERT_TRUE(owner && remover);
    ASSERT_EQ(lapi_add_proximity(owner.get(), LAPI_MODE_SYNC, 4, 4, 1.0, 2.0, 0.0, 50.0), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(owner.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_ADD_PROXIMITY_RSP);
    ASSERT_EQ(lapi_remove_all_proximity(remover.get(), LAPI_MODE_SYNC, 9, 9), LAPI_OK);
    auto req = sim_.WaitForSubCmd(PROXIMITY_REM_APBP_REQ, 5000);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->U32(3), static_cast<uint32_t>(LAPI_BP_REMOVE_ALL_PROXIMITY));
    ASSERT_TRUE(NextOf(remover.get(), LAPI_REMOVE_PROXIMITY_RSP, &m));
    EXPECT_EQ(+m.u.removeProximityRsp.sessionId, 9);
    EXPECT_EQ(+m.u.removeProximityRsp.status, 0);
    ASSERT_TRUE(Next(owner.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_REMOVE_PROXIMITY_RSP);
    EXPECT_EQ(+m.u.removeProximityRsp.sessionId, 4);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC) << "an active area's answers go to the async connection";
}

/* ---- the server's own answers, slow and vanishing servers ---- */

TEST_F(LibLapi, SamePairTwiceIsInvalid) {
    Silent(GET_STATUS_APBP_REQ);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 1, 1), LAPI_OK);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 1, 1), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    ASSERT_EQ(+m.msgId, LAPI_INVALID_REQUEST_RSP);
    EXPECT_EQ(+m.u.invalidRequestRsp.sessionId, 1);
    EXPECT_EQ(+m.u.invalidRequestRsp.transactionId, 1);
}

TEST_F(LibLapi, UnansweredRequestGetsTimeOutRsp) {
    Silent(GET_STATUS_APBP_REQ);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_ASYNC, 7, 8), LAPI_OK);
    lapi_msg m;
    int64_t start = NowMs();
    ASSERT_TRUE(Next(c.get(), &m, 9000));
    EXPECT_GE(NowMs() - start, 4000);
    ASSERT_EQ(+m.msgId, LAPI_TIME_OUT_RSP);
    EXPECT_EQ(+m.conn, LAPI_CONN_ASYNC);
    EXPECT_EQ(+m.u.timeOutRsp.sessionId, 7);
    EXPECT_EQ(+m.u.timeOutRsp.transactionId, 8);
}

TEST_F(LibLapi, SlowServerHitsTheLibraryTimeoutAndTheClientStays) {
    bpsim::Policy slow;
    slow.answer = bpsim::Answer::After;
    slow.delayMs = 1500;
    slow.build = [](const bpsim::Message &r) {
        return std::vector<Bytes>{
            bpsim::MakeMsg(GET_STATUS_APBP_RES, r.SessionId(), r.TransactionId(), StatusBody(0))};
    };
    sim_.SetPolicy(GET_STATUS_APBP_REQ, slow);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 1, 1), LAPI_OK);
    lapi_msg m;
    int64_t start = NowMs();
    EXPECT_EQ(lapi_recv(c.get(), &m, 300), LAPI_E_TIMEOUT);
    EXPECT_LT(NowMs() - start, 1400);
    ASSERT_TRUE(Next(c.get(), &m));
    EXPECT_EQ(+m.msgId, LAPI_GET_STATUS_RSP);
}

TEST_F(LibLapi, ServerGoingAwayMidRequestIsAClearErrorWithoutHanging) {
    Silent(GET_STATUS_APBP_REQ);
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 1, 1), LAPI_OK);
    ASSERT_TRUE(sim_.WaitForSubCmd(GET_STATUS_APBP_REQ, 5000).has_value());
    EXPECT_EQ(srv_->Stop(), 0);
    lapi_msg m;
    int64_t start = NowMs();
    EXPECT_EQ(lapi_recv(c.get(), &m, 10000), LAPI_E_CLOSED);
    EXPECT_LT(NowMs() - start, 3000);
    EXPECT_EQ(lapi_get_status(c.get(), LAPI_MODE_SYNC, 2, 2), LAPI_E_CLOSED);
    EXPECT_EQ(lapi_unregister(c.get()), LAPI_E_CLOSED);
}

TEST_F(LibLapi, TracingNamesEveryMessageAsCli) {
    ClientPtr c = Open();
    ASSERT_TRUE(c);
    ASSERT_EQ(lapi_set_trace(c.get(), 1), LAPI_OK);
    lapitest::StderrCapture cap;
    lapi_location_params lp;
    lapi_location_params_init(&lp);
    ASSERT_EQ(lapi_get_location(c.get(), &lp), LAPI_OK);
    lapi_msg m;
    ASSERT_TRUE(Next(c.get(), &m));
    cap.Restore();
    bool sent = false;
    bool received = false;
    for (const std::string &t : cap.Traces()) {
        sent = sent || t.rfind("C->S getLocationReq ", 0) == 0;
        received = received || t.rfind("S->C getLocationRsp ", 0) == 0;
    }
    EXPECT_TRUE(sent) << cap.Text();
    EXPECT_TRUE(received) << cap.Text();
    EXPECT_NE(cap.Text().find("\tLAPI CLI : "), std::string::npos);
    EXPECT_EQ(cap.Text().find("LAPI SRV"), std::string::npos);
}

}  // namespace
