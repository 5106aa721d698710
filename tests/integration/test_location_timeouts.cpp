/*
 * Deadlines end to end: a BP that stays silent. These tests wait for real
 * deadlines (the shortest the server allows: a single fix with responseTime
 * below one second gets 6 s, an abort 5 s, the other requests 5 or 10 s),
 * so the requests of one test run side by side.
 */
#include <algorithm>

#include "LocSvcEnv.h"

using namespace locsvc;

namespace {

class LocationTimeouts : public LocSvcTest {};

/* Waits for the next message; records when it came (ms since start). */
Bytes NextTimed(lapitest::Connection &conn, Clock::time_point start, long *pMs,
                int timeoutMs = 15000) {
    auto m = conn.RecvMsg(timeoutMs);
    *pMs = MsSince(start);
    return m ? m->Raw() : Bytes();
}

}  // namespace

TEST_F(LocationTimeouts, SilentSingleFixAbortedAtDeadlineThenTimeOutRspFiveSecondsLater) {
    Silent(GEOLOCATION_APBP_REQ);
    Silent(GEOLOCATION_ABORT_APBP_REQ);
    auto c = NewClient();
    auto start = Clock::now();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 0x31, 0x32, 999))));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());

    /* 999 ms -> 0 + 6 s: the abort goes to the BP then. */
    auto abortMsg = sim_.WaitForSubCmd(GEOLOCATION_ABORT_APBP_REQ, 10000);
    long abortMs = MsSince(start);
    ASSERT_TRUE(abortMsg.has_value());
    EXPECT_EQ((Bytes{0x02, 2, 1}), abortMsg->bytes);
    EXPECT_GE(abortMs, 5900);
    EXPECT_LE(abortMs, 7500);
    EXPECT_TRUE(c->Sync().StaysSilent(10));

    /* The BP does not confirm: timeOutRsp with the client's own pair. */
    long rspMs = 0;
    EXPECT_EQ(PairRsp(LAPI_TIME_OUT_RSP, 0x31, 0x32), NextTimed(c->Sync(), start, &rspMs));
    EXPECT_GE(rspMs - abortMs, 4900);
    EXPECT_LE(rspMs - abortMs, 6500);
    EXPECT_TRUE(c->Async().StaysSilent(10));
    /* Nothing is left: a late fix meets no transaction. */
    ASSERT_TRUE(sim_.Send(bpsim::BuildGetLocationRsp(2, 1, SampleFix())));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
}

TEST_F(LocationTimeouts, SilentFixButAnsweredAbortGivesAbortLocationRsp) {
    Silent(GEOLOCATION_APBP_REQ);
    auto c = NewClient();
    auto start = Clock::now();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 1, 2, 0))));
    long ms = 0;
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 1, 2, 0), NextTimed(c->Async(), start, &ms));
    EXPECT_GE(ms, 5900);
    EXPECT_LE(ms, 7500);
    EXPECT_TRUE(c->Sync().StaysSilent(10));
}

TEST_F(LocationTimeouts, EveryOtherRequestGetsTimeOutRspAfterItsDeadline) {
    for (uint8_t id : {LAST_KNOWN_GEOLOCATION_APBP_REQ, GET_STATUS_APBP_REQ, DB_READ_APBP_REQ,
                       DB_WRITE_APBP_REQ, DISTANCE_AND_AZIMUTH_APBP_REQ, PROXIMITY_REM_APBP_REQ,
                       GEOLOCATION_APBP_REQ, GEOLOCATION_ABORT_APBP_REQ}) {
        Silent(id);
    }
    auto five = NewClient(); /* 5-second requests, answers on sync */
    auto ten = NewClient();  /* 10-second requests, answers on async */
    /* An area the BP accepts (its removal will go unanswered) and a running
     * location request (its abort will go unanswered). */
    AddProximityReq area = PrefixReq<AddProximityReq>(1, 1, 4);
    ASSERT_TRUE(five->SendMsg(LAPI_ADD_PROXIMITY_REQ, BodyOf(area)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 1, 4, 0), Next(five->Sync()));
    ASSERT_TRUE(five->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 1, 5, 30000))));
    ASSERT_FALSE(NextBp(GEOLOCATION_APBP_REQ).empty());

    auto start = Clock::now();
    ASSERT_TRUE(five->SendMsg(LAPI_LAST_KNOWN_LOCATION_REQ, PrefixBody(1, 1, 1)));
    ASSERT_TRUE(five->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 1, 2)));
    Bytes one = ToBytes(uint32_t{1});
    Bytes zero = ToBytes(uint32_t{0});
    Bytes removeAll = PrefixBody(1, 1, 3);
    removeAll.insert(removeAll.end(), one.begin(), one.end());
    ASSERT_TRUE(five->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, removeAll));
    Bytes removeOne = PrefixBody(1, 1, 4);
    removeOne.insert(removeOne.end(), zero.begin(), zero.end());
    ASSERT_TRUE(five->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, removeOne));
    ASSERT_TRUE(five->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(1, 1, 5)));

    Bytes dbRead = PrefixBody(0, 2, 1);
    dbRead.resize(8, 0);
    ASSERT_TRUE(ten->SendMsg(LAPI_GET_GPS_DB_DATA_REQ, dbRead));
    SetGpsDbDataReq dbWrite = PrefixReq<SetGpsDbDataReq>(0, 2, 2);
    ASSERT_TRUE(ten->SendMsg(LAPI_SET_GPS_DB_DATA_REQ, BodyOf(dbWrite)));
    DistanceAzimuthReq dist = PrefixReq<DistanceAzimuthReq>(0, 2, 3);
    ASSERT_TRUE(ten->SendMsg(LAPI_DISTANCE_AZIMUTH_REQ, BodyOf(dist)));
    Silent(PROXIMITY_ADD_APBP_REQ);
    AddProximityReq add = PrefixReq<AddProximityReq>(0, 2, 4);
    ASSERT_TRUE(ten->SendMsg(LAPI_ADD_PROXIMITY_REQ, BodyOf(add)));

    /* Deadlines that fall in the same tick may be served in list order, so
     * the answers are compared as a set. */
    auto collect = [&](lapitest::Connection &conn, size_t n, long minMs, long maxMs) {
        std::vector<Bytes> got;
        for (size_t i = 0; i < n; ++i) {
            long ms = 0;
            got.push_back(NextTimed(conn, start, &ms));
            EXPECT_GE(ms, minMs) << "answer " << i;
            EXPECT_LE(ms, maxMs) << "answer " << i;
        }
        std::sort(got.begin(), got.end());
        return got;
    };
    std::vector<Bytes> wantFive;
    for (uint8_t tid = 1; tid <= 5; ++tid) {
        wantFive.push_back(PairRsp(LAPI_TIME_OUT_RSP, 1, tid));
    }
    EXPECT_EQ(wantFive, collect(five->Sync(), 5, 4900, 6500));
    std::vector<Bytes> wantTen;
    for (uint8_t tid = 1; tid <= 4; ++tid) {
        wantTen.push_back(PairRsp(LAPI_TIME_OUT_RSP, 2, tid));
    }
    EXPECT_EQ(wantTen, collect(ten->Async(), 4, 9900, 11500));
    EXPECT_TRUE(five->Async().StaysSilent(10));
    EXPECT_TRUE(ten->Sync().StaysSilent(10));
    /* Only the one abort that the client asked for went to the BP. */
    EXPECT_EQ((Bytes{0x02, 2, 2}), NextBp(GEOLOCATION_ABORT_APBP_REQ, 10));
    EXPECT_FALSE(sim_.WaitForSubCmd(GEOLOCATION_ABORT_APBP_REQ, 10).has_value());
}

TEST_F(LocationTimeouts, AnswerArrivingAfterTimeOutIsDropped) {
    Silent(GET_STATUS_APBP_REQ);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 4, 4)));
    ASSERT_FALSE(NextBp(GET_STATUS_APBP_REQ).empty());
    EXPECT_EQ(PairRsp(LAPI_TIME_OUT_RSP, 4, 4), Next(c->Sync(), 8000));
    Bytes body(32, 0);
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(GET_STATUS_APBP_RES, 2, 1, body)));
    EXPECT_TRUE(srv_->WaitForError("Transaction timeout or not exist, sid: 2, tid: 1!", kWaitMs));
    EXPECT_TRUE(c->Sync().StaysSilent(200));
}

TEST_F(LocationTimeouts, BadAssistanceDataAnswerEndsInTimeOutRsp) {
    bpsim::Policy policy;
    policy.build = [](const bpsim::Message &m) {
        Bytes body;
        bpsim::PutU16(&body, 23); /* more files than a client message holds */
        bpsim::PutU32(&body, 0);
        return std::vector<Bytes>{
            bpsim::MakeMsg(DB_READ_APBP_RES, m.SessionId(), m.TransactionId(), body)};
    };
    sim_.SetPolicy(DB_READ_APBP_REQ, policy);
    auto c = NewClient();
    auto start = Clock::now();
    Bytes dbRead = PrefixBody(1, 8, 9);
    dbRead.resize(8, 0);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_GPS_DB_DATA_REQ, dbRead));
    EXPECT_TRUE(srv_->WaitForError("Invalid numFiles: 23!", kWaitMs));
    long ms = 0;
    EXPECT_EQ(PairRsp(LAPI_TIME_OUT_RSP, 8, 9), NextTimed(c->Sync(), start, &ms));
    EXPECT_GE(ms, 9900);
}
