/*
 * The BP simulator as the location service's counterpart: its built-in
 * answers to every request the server sends, their configurable results,
 * automatic periodic reports, proximity areas, and the indications it
 * sends on request, through the library and through the bpsim program's
 * command interface, with the real server between it and the clients.
 */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include "BpSimProgram.h"
#include "LocSvcEnv.h"
#include "ToolCommon.h"

using namespace locsvc;

namespace {

class BpSimLocation : public LocSvcTest {};

Bytes OneU32Body(uint16_t mode, uint8_t sid, uint8_t tid, uint32_t v) {
    Bytes b = PrefixBody(mode, sid, tid);
    Bytes t = ToBytes(v);
    b.insert(b.end(), t.begin(), t.end());
    return b;
}

Bytes AddProximityBody(uint16_t mode, uint8_t sid, uint8_t tid) {
    AddProximityReq req = PrefixReq<AddProximityReq>(mode, sid, tid);
    req.latitude = 1.0;
    req.longitude = 2.0;
    req.radius = 50.0;
    return BodyOf(req);
}

Bytes StatusRsp(uint16_t msgId, uint8_t sid, uint8_t tid, const bpsim::Status &st) {
    GetStatusRsp r = PairMsg<GetStatusRsp>(msgId, LAPI_GET_STATUS_RSP_LEN, sid, tid);
    r.userStatus = st.userStatus;
    r.hwStatus = st.hwStatus;
    r.fixStatus = st.fixStatus;
    r.emergencyStatus = st.emergencyStatus;
    r.fixResultStatus.status = st.fixResultStatus;
    r.fixResultStatus.cause = st.fixResultCause;
    r.signalStatus = st.signalStatus;
    r.iconStatus = st.iconStatus;
    return ToBytes(r);
}

Bytes HitInd(uint8_t sid, uint8_t tid, const bpsim::Fix &fix) {
    Bytes loc = ExpectedLocationRsp(sid, tid, fix);
    ProximityHitInd ind;
    memset(&ind, 0, sizeof(ind));
    memcpy(&ind, loc.data(), 98);
    ind.header = Hdr(LAPI_PROXIMITY_HIT_IND, LAPI_PROXIMITY_HIT_IND_LEN);
    ind.locationMethod = fix.locationMethod;
    ind.ageOfFix = static_cast<uint32_t>(fix.ageOfFix);
    return ToBytes(ind);
}

Bytes NotificationInd(uint8_t sid, uint8_t tid, int32_t ntype, int32_t ltype, uint8_t dcs,
                      const std::string &name, const std::string &addr) {
    LocationNotificationInd ind = PairMsg<LocationNotificationInd>(
        LAPI_LOCATION_NOTIFICATION_IND, LAPI_LOCATION_NOTIFICATION_IND_LEN, sid, tid);
    ind.notificationType = ntype;
    ind.locationType = ltype;
    ind.dataCodingSchema = dcs;
    ind.nameLength = static_cast<uint8_t>(name.size() * 2);
    for (size_t i = 0; i < name.size(); ++i) {
        ind.clientName[2 * i] = static_cast<uint8_t>(name[i]);
    }
    ind.addrLength = static_cast<uint8_t>(addr.size());
    memcpy(ind.clientExternalAddr, addr.data(), addr.size());
    return ToBytes(ind);
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* Built-in answers and results (library)                                   */
/* ------------------------------------------------------------------------ */

TEST_F(BpSimLocation, AnswersEveryRequestWithItsDefaults) {
    auto c = NewClient();
    /* Assistance data read: the requested file with data 01 02 03 04. */
    ASSERT_TRUE(c->SendMsg(LAPI_GET_GPS_DB_DATA_REQ, OneU32Body(1, 1, 1, 42)));
    GetGpsDbDataRsp db =
        PairMsg<GetGpsDbDataRsp>(LAPI_GET_GPS_DB_DATA_RSP, LAPI_GET_GPS_DB_DATA_RSP_LEN, 1, 1);
    db.numFiles = 1;
    db.dbFile[0].fileId = 42;
    db.dbFile[0].length = 4;
    memcpy(db.dbFile[0].data, "\x04\x03\x02\x01", 4);
    EXPECT_EQ(ToBytes(db), Next(c->Sync()));
    /* Assistance data write. */
    SetGpsDbDataReq w = PrefixReq<SetGpsDbDataReq>(1, 1, 2);
    ASSERT_TRUE(c->SendMsg(LAPI_SET_GPS_DB_DATA_REQ, BodyOf(w)));
    EXPECT_EQ(PairI32Rsp(LAPI_SET_GPS_DB_DATA_RSP, 1, 2, 0), Next(c->Sync()));
    /* Status. */
    ASSERT_TRUE(c->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 1, 3)));
    EXPECT_EQ(StatusRsp(LAPI_GET_STATUS_RSP, 1, 3, bpsim::Status()), Next(c->Sync()));
    /* Distance and azimuth. */
    DistanceAzimuthReq d = PrefixReq<DistanceAzimuthReq>(1, 1, 4);
    ASSERT_TRUE(c->SendMsg(LAPI_DISTANCE_AZIMUTH_REQ, BodyOf(d)));
    DistanceAzimuthRsp dr =
        PairMsg<DistanceAzimuthRsp>(LAPI_DISTANCE_AZIMUTH_RSP, LAPI_DISTANCE_AZIMUTH_RSP_LEN, 1, 4);
    dr.distance = 1000.0 + 0.5 / 8388608.0;
    dr.azimuth = 90.0 + 0.5 / 8388608.0;
    EXPECT_EQ(ToBytes(dr), Next(c->Sync()));
    /* Proximity: accepted, remembered, removed. */
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 5)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 1, 5, 0), Next(c->Sync()));
    EXPECT_EQ((std::vector<bpsim::Pair>{{2, 5}}), sim_.Areas());
    ASSERT_TRUE(c->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, OneU32Body(1, 1, 5, 0)));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 1, 5, 0), Next(c->Sync()));
    EXPECT_TRUE(sim_.Areas().empty());
    /* Last known and abort. */
    ASSERT_TRUE(c->SendMsg(LAPI_LAST_KNOWN_LOCATION_REQ, PrefixBody(1, 1, 6)));
    EXPECT_EQ(ExpectedLocationRsp(1, 6, SampleFix()), Next(c->Sync()));
    /* A notification answer is itself an answer: nothing comes back. */
    ASSERT_TRUE(c->SendMsg(LAPI_LOCATION_NOTIFICATION_CFM, {9, 9, 0, 0, 0, 0}));
    EXPECT_FALSE(NextBp(LOCATION_NOTIFICATION_APBP_RES).empty());
    EXPECT_TRUE(c->Sync().StaysSilent(200));
}

TEST_F(BpSimLocation, ResultsAreConfigurable) {
    bpsim::Results r;
    r.abortResult = -5;
    r.dbWriteResult = 6;
    r.dbFiles = {{7, {0x0A, 0x0B}}, {8, {0x0C}}};
    r.dbReadResult = -1;
    r.status.userStatus = 11;
    r.status.iconStatus = -12;
    r.distance = 3.5;
    r.azimuth = -7.25;
    r.addProximityStatus = 3;
    sim_.SetResults(r);
    Silent(GEOLOCATION_APBP_REQ);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 2, 1))));
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(0, 2, 1)));
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 2, 1, -5), Next(c->Async()));
    SetGpsDbDataReq w = PrefixReq<SetGpsDbDataReq>(0, 2, 2);
    ASSERT_TRUE(c->SendMsg(LAPI_SET_GPS_DB_DATA_REQ, BodyOf(w)));
    EXPECT_EQ(PairI32Rsp(LAPI_SET_GPS_DB_DATA_RSP, 2, 2, 6), Next(c->Async()));
    ASSERT_TRUE(c->SendMsg(LAPI_GET_GPS_DB_DATA_REQ, OneU32Body(0, 2, 3, 1)));
    Bytes db = Next(c->Async());
    ASSERT_EQ(236u, db.size());
    GetGpsDbDataRsp dbRsp;
    memcpy(&dbRsp, db.data(), sizeof(dbRsp));
    EXPECT_EQ(2, +dbRsp.numFiles);
    EXPECT_EQ(7u, +dbRsp.dbFile[0].fileId);
    EXPECT_EQ((Bytes{0x0B, 0x0A, 0, 0}), Bytes(db.begin() + 18, db.begin() + 22));
    EXPECT_EQ(8u, +dbRsp.dbFile[1].fileId);
    EXPECT_EQ(-1, +dbRsp.result);
    ASSERT_TRUE(c->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(0, 2, 4)));
    EXPECT_EQ(StatusRsp(LAPI_GET_STATUS_RSP, 2, 4, r.status), Next(c->Async()));
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(0, 2, 5)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 2, 5, 3), Next(c->Async()));
    EXPECT_TRUE(sim_.Areas().empty()); /* a refused area is not kept */
}

TEST_F(BpSimLocation, DelayedAnswerArrivesLate) {
    bpsim::Policy late;
    late.answer = bpsim::Answer::After;
    late.delayMs = 400;
    sim_.SetPolicy(GET_STATUS_APBP_REQ, late);
    auto c = NewClient();
    auto start = Clock::now();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 1, 1)));
    EXPECT_EQ(StatusRsp(LAPI_GET_STATUS_RSP, 1, 1, bpsim::Status()), Next(c->Sync()));
    EXPECT_GE(MsSince(start), 400);
}

TEST_F(BpSimLocation, PeriodicReportsArriveAutomaticallyUntilAborted) {
    bpsim::Results r;
    r.periodicMs = 100;
    sim_.SetResults(r);
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ,
                           BodyOf(MakeGetLocation(0, 6, 6, 1000, LAPI_REPORT_PERIODIC, 100))));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ExpectedLocationRsp(6, 6, SampleFix()), Next(c->Async())) << "report " << i;
    }
    EXPECT_EQ((std::vector<bpsim::Pair>{{2, 1}}), sim_.PeriodicSessions());
    ASSERT_TRUE(c->SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(1, 6, 6)));
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 6, 6, 0), Next(c->Sync()));
    EXPECT_TRUE(sim_.PeriodicSessions().empty());
    /* Reports already on their way may still arrive; then nothing. */
    while (c->Async().RecvMsg(300)) {
    }
    EXPECT_TRUE(c->Async().StaysSilent(300));
    /* A single fix never starts a periodic session. */
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 7, 7))));
    EXPECT_EQ(ExpectedLocationRsp(7, 7, SampleFix()), Next(c->Async()));
    EXPECT_TRUE(sim_.PeriodicSessions().empty());
}

TEST_F(BpSimLocation, IndicationsOnRequest) {
    auto both = NewClient(LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR);
    bpsim::Status st;
    st.userStatus = 1;
    st.hwStatus = 2;
    st.signalStatus = -3;
    ASSERT_TRUE(sim_.SendStatusChange(st, 4, 5));
    EXPECT_EQ(StatusRsp(LAPI_STATUS_CHANGE_IND, 4, 5, st), Next(both->Async()));

    bpsim::Notification n;
    n.sessionId = 0x33;
    n.transactionId = 0x44;
    n.notificationType = 2;
    n.locationType = 1;
    n.dataCodingSchema = 0x48;
    n.name = bpsim::Ucs2("Eve");
    n.address = "sip:x";
    ASSERT_TRUE(sim_.SendLocationNotification(n));
    EXPECT_EQ(NotificationInd(0x33, 0x44, 2, 1, 0x48, "Eve", "sip:x"), Next(both->Async()));

    ASSERT_TRUE(sim_.SendNotificationStatus(0x33, 0x44, 17));
    EXPECT_EQ(PairI32Rsp(LAPI_NOTIFICATION_STATUS_IND, 0x33, 0x44, 17), Next(both->Async()));

    ASSERT_TRUE(both->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 8, 8)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 8, 8, 0), Next(both->Sync()));
    ASSERT_EQ(1u, sim_.Areas().size());
    bpsim::Pair area = sim_.Areas()[0];
    ASSERT_TRUE(sim_.SendProximityHit(area.first, area.second));
    EXPECT_EQ(HitInd(8, 8, SampleFix()), Next(both->Async()));
    EXPECT_TRUE(sim_.Areas().empty());
}

TEST_F(BpSimLocation, RemoveAllForgetsEveryArea) {
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 1)));
    EXPECT_FALSE(Next(c->Sync()).empty());
    ASSERT_TRUE(c->SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 2)));
    EXPECT_FALSE(Next(c->Sync()).empty());
    EXPECT_EQ(2u, sim_.Areas().size());
    ASSERT_TRUE(c->SendMsg(LAPI_REMOVE_PROXIMITY_REQ, OneU32Body(1, 1, 3, 1)));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 1, 1, 0), Next(c->Async()));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 1, 2, 0), Next(c->Async()));
    EXPECT_EQ(PairI32Rsp(LAPI_REMOVE_PROXIMITY_RSP, 1, 3, 0), Next(c->Sync()));
    EXPECT_TRUE(sim_.Areas().empty());
}

/* ------------------------------------------------------------------------ */
/* The bpsim program's commands                                              */
/* ------------------------------------------------------------------------ */

namespace {

using lapitest::BpSimProgram;

}  // namespace

TEST(BpSimProgramCommands, ResultsIndicationsAndReportsThroughTheCommandLine) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    BpSimProgram bp(root.Dir());
    ASSERT_EQ("bpsim: ready " + root.Dir() + "/dev/mux18", bp.WaitLine("bpsim: ready"));
    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    ASSERT_TRUE(srv.WaitForTrace("Success to connect mux channel.", kWaitMs));
    TestClient c(root.Dir());
    ASSERT_TRUE(c.Handshake(LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR));
    auto next = [](lapitest::Connection &conn) {
        auto m = conn.RecvMsg(kWaitMs);
        return m ? m->Raw() : Bytes();
    };

    /* Indications. */
    ASSERT_TRUE(bp.Command("status 1 2 3 4 5 -6 7 8"));
    bpsim::Status st{1, 2, 3, 4, 5, -6, 7, 8};
    EXPECT_EQ(StatusRsp(LAPI_STATUS_CHANGE_IND, 0, 0, st), next(c.Async()));
    ASSERT_TRUE(bp.Command("notify 48 64 3 1 72 Bob tel:1"));
    EXPECT_EQ(NotificationInd(48, 64, 3, 1, 72, "Bob", "tel:1"), next(c.Async()));
    ASSERT_TRUE(bp.Command("notifystatus 48 64 -3"));
    EXPECT_EQ(PairI32Rsp(LAPI_NOTIFICATION_STATUS_IND, 48, 64, -3), next(c.Async()));
    /* The answer to the notification goes back to the BP. */
    ASSERT_TRUE(c.SendMsg(LAPI_LOCATION_NOTIFICATION_CFM, {48, 64, 1, 0, 0, 0}));
    EXPECT_EQ("bpsim: recv 14 30 40 00 00 00 01", bp.WaitLine("bpsim: recv 14"));

    /* Results of the built-in answers. */
    ASSERT_TRUE(bp.Command("statusrsp 9 9 9 9 9 9 9 -9"));
    ASSERT_TRUE(bp.Sync());
    ASSERT_TRUE(c.SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(1, 1, 1)));
    EXPECT_EQ(StatusRsp(LAPI_GET_STATUS_RSP, 1, 1, bpsim::Status{9, 9, 9, 9, 9, 9, 9, -9}),
              next(c.Sync()));
    ASSERT_TRUE(bp.Command("dbfile 7 0a0b"));
    ASSERT_TRUE(bp.Command("result 06 -2"));
    ASSERT_TRUE(bp.Sync());
    ASSERT_TRUE(c.SendMsg(LAPI_GET_GPS_DB_DATA_REQ, OneU32Body(1, 1, 2, 7)));
    Bytes db = next(c.Sync());
    ASSERT_EQ(236u, db.size());
    EXPECT_EQ((Bytes{1, 0, 7, 0, 0, 0, 2, 0, 0x0B, 0x0A}), Bytes(db.begin() + 10, db.begin() + 20));
    EXPECT_EQ((Bytes{0xFE, 0xFF, 0xFF, 0xFF}), Bytes(db.begin() + 232, db.end()));
    ASSERT_TRUE(bp.Command("distance 10 20"));
    ASSERT_TRUE(bp.Sync());
    DistanceAzimuthReq d = PrefixReq<DistanceAzimuthReq>(1, 1, 3);
    ASSERT_TRUE(c.SendMsg(LAPI_DISTANCE_AZIMUTH_REQ, BodyOf(d)));
    Bytes dist = next(c.Sync());
    ASSERT_EQ(26u, dist.size());
    double dv;
    memcpy(&dv, dist.data() + 10, 8);
    EXPECT_EQ(10.0 + 0.5 / 8388608.0, dv);

    /* Proximity areas: add, list, hit. */
    ASSERT_TRUE(c.SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 4)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 1, 4, 0), next(c.Sync()));
    ASSERT_TRUE(bp.Command("areas"));
    EXPECT_EQ("bpsim: areas 2,4", bp.WaitLine("bpsim: areas"));
    ASSERT_TRUE(bp.Command("hit"));
    Bytes hit = next(c.Async());
    ASSERT_EQ(106u, hit.size());
    EXPECT_EQ(LAPI_PROXIMITY_HIT_IND, hit[4]);
    EXPECT_EQ(1, hit[8]);
    EXPECT_EQ(4, hit[9]);
    ASSERT_TRUE(bp.Command("result 19 5"));
    ASSERT_TRUE(bp.Sync());
    ASSERT_TRUE(c.SendMsg(LAPI_ADD_PROXIMITY_REQ, AddProximityBody(1, 1, 5)));
    EXPECT_EQ(PairI32Rsp(LAPI_ADD_PROXIMITY_RSP, 1, 5, 5), next(c.Sync()));

    /* Periodic reports, one more on request, and silence after the abort. */
    ASSERT_TRUE(bp.Command("periodic 100"));
    ASSERT_TRUE(bp.Command("areas")); /* the commands before it have run */
    ASSERT_EQ("bpsim: areas", bp.WaitLine("bpsim: areas"));
    ASSERT_TRUE(c.SendMsg(LAPI_GET_LOCATION_REQ,
                          BodyOf(MakeGetLocation(0, 2, 2, 1000, LAPI_REPORT_PERIODIC, 100))));
    for (int i = 0; i < 3; ++i) {
        Bytes rep = next(c.Async());
        ASSERT_EQ(1022u, rep.size()) << "report " << i;
        EXPECT_EQ(2, rep[8]);
        EXPECT_EQ(2, rep[9]);
    }
    ASSERT_TRUE(bp.Command("result 02 -4"));
    ASSERT_TRUE(bp.Sync());
    ASSERT_TRUE(c.SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(1, 2, 2)));
    EXPECT_EQ(PairI32Rsp(LAPI_ABORT_LOCATION_RSP, 2, 2, -4), next(c.Sync()));
    while (c.Async().RecvMsg(300)) {
    }
    EXPECT_TRUE(c.Async().StaysSilent(300));

    /* Bad commands are refused without harm. */
    ASSERT_TRUE(bp.Command("result 11 1"));
    ASSERT_TRUE(bp.Command("status 1 2"));
    ASSERT_TRUE(bp.Command("notify 300 1 1 1 1 x"));
    ASSERT_TRUE(bp.Command("hit 1"));
    ASSERT_TRUE(bp.Command("areas"));
    EXPECT_EQ("bpsim: areas", bp.WaitLine("bpsim: areas"));

    EXPECT_EQ(0, srv.Stop());
    EXPECT_EQ(0, bp.Stop());
}

/* ------------------------------------------------------------------------ */
/* The bpsim program's command line and scripts                              */
/* ------------------------------------------------------------------------ */

namespace {

const std::string kBpSimBin = std::string(LAPI_BIN_DIR) + "/bpsim";
const std::string kLapiBin = std::string(LAPI_BIN_DIR) + "/lapi";

/* Runs bpsim with exactly these arguments, expecting it to refuse them;
 * its exit status, and its standard error in *pErr. */
int RunRefused(const lapitest::TempRoot &root, const std::vector<std::string> &args,
               std::string *pErr) {
    lapitest::ServerOptions o;
    o.binary = kBpSimBin;
    o.rawArgs = args;
    lapitest::ServerProcess p(root, o);
    if (!p.Start()) {
        return -1;
    }
    int rc = p.WaitExit(kWaitMs);
    p.WaitOutputClosed();
    *pErr = p.Text(lapitest::Stream::Stderr);
    return rc;
}

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/* A lapi command's output lines, each with the time it arrived. */
struct TimedLine {
    int64_t ms;
    std::string text;
};

std::vector<TimedLine> RunLapiTimed(const std::string &args) {
    std::vector<TimedLine> lines;
    std::string cmd = lapitest::EmulatorPrefix() + kLapiBin + " " + args + " 2>/dev/null";
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        return lines;
    }
    char buf[4096];
    while (fgets(buf, sizeof(buf), p) != nullptr) {
        lines.push_back({lapitest::NowMs(), buf});
    }
    pclose(p);
    return lines;
}

/* The value of a JSON number field of one line of lapi --json. */
std::string JsonField(const std::string &line, const std::string &name) {
    size_t at = line.find("\"" + name + "\":");
    if (at == std::string::npos) {
        return "";
    }
    at += name.size() + 3;
    return line.substr(at, line.find_first_of(",}", at) - at);
}

}  // namespace

TEST(BpSimCommandLine, RefusesARelativeRoot) {
    lapitest::TempRoot root;
    std::string err;
    EXPECT_EQ(2, RunRefused(root, {"--root", "relative/dir"}, &err));
    EXPECT_TRUE(Has(err, "bpsim: --root wants an absolute path, not 'relative/dir'")) << err;
    EXPECT_TRUE(Has(err, "usage: bpsim --root DIR")) << err;
}

TEST(BpSimCommandLine, RefusesARootThatDoesNotExist) {
    lapitest::TempRoot root;
    std::string missing = root.Dir() + "/typo";
    std::string err;
    EXPECT_EQ(2, RunRefused(root, {"--root", missing}, &err));
    EXPECT_TRUE(Has(err, "bpsim: --root '" + missing + "' is not an existing folder")) << err;
    EXPECT_FALSE(root.Exists("/typo")) << "a mistyped root is not created";
}

TEST(BpSimCommandLine, RefusesARootAnotherSimulatorServes) {
    lapitest::TempRoot root;
    BpSimProgram first(root.Dir());
    ASSERT_EQ("bpsim: ready " + root.Dir() + "/dev/mux18", first.WaitLine("bpsim: ready"));
    char before[256] = {0};
    ASSERT_GT(readlink(root.Path("/dev/mux18").c_str(), before, sizeof(before) - 1), 0);
    std::string err;
    EXPECT_EQ(1, RunRefused(root, {"--root", root.Dir()}, &err));
    EXPECT_TRUE(
        Has(err, "bpsim: --root '" + root.Dir() + "' is already served by another simulator (pid " +
                     std::to_string(first.Pid()) + " holds " + root.Dir() + "/dev/bpsim.lock)"))
        << err;
    /* The refused one left the first one's link alone. */
    char after[256] = {0};
    ASSERT_GT(readlink(root.Path("/dev/mux18").c_str(), after, sizeof(after) - 1), 0);
    EXPECT_STREQ(before, after);
    EXPECT_EQ(0, first.Stop());
    EXPECT_FALSE(root.Exists("/dev/mux18"));
    EXPECT_FALSE(root.Exists("/dev/bpsim.lock"));
}

TEST(BpSimCommandLine, RefusesALinkToALiveTerminal) {
    lapitest::TempRoot root;
    lapitest::MuxPty pty(root); /* another BP end holds DIR/dev/mux18 */
    ASSERT_TRUE(pty.ok());
    std::string err;
    EXPECT_EQ(1, RunRefused(root, {"--root", root.Dir()}, &err));
    EXPECT_TRUE(Has(err, "is already served: " + root.Dir() +
                             "/dev/mux18 leads to the live "
                             "terminal"))
        << err;
}

TEST(BpSimCommandLine, ReplacesAStaleLink) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.MakeDirs("/dev"));
    ASSERT_EQ(0, symlink("/dev/pts/987654", root.Path("/dev/mux18").c_str()));
    BpSimProgram bp(root.Dir());
    EXPECT_EQ("bpsim: ready " + root.Dir() + "/dev/mux18", bp.WaitLine("bpsim: ready"));
    EXPECT_EQ(0, bp.Stop());
}

TEST(BpSimCommandLine, BadNumbersNameTheArgument) {
    lapitest::TempRoot root;
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"--lat", "north"}, "bpsim: --lat wants degrees from -90 to 90, not 'north'"},
        {{"--lat", "90.5"}, "bpsim: --lat wants degrees from -90 to 90, not '90.5'"},
        {{"--lon", "-181"}, "bpsim: --lon wants degrees from -180 to 180, not '-181'"},
        {{"--alt", "1e400"}, "bpsim: --alt wants metres, not '1e400'"},
        {{"--lat"}, "bpsim: --lat needs a value"},
        {{"--speed", "1"}, "bpsim: unknown option '--speed'"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = {"--root", root.Dir()};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::string err;
        EXPECT_EQ(2, RunRefused(root, args, &err)) << c.message;
        EXPECT_TRUE(Has(err, c.message)) << err;
    }
    std::string err;
    EXPECT_EQ(2, RunRefused(root, {}, &err));
    EXPECT_TRUE(Has(err, "bpsim: --root DIR is required")) << err;
}

TEST(BpSimCommandLine, MissingNmeaFileIsAnError) {
    lapitest::TempRoot root;
    std::string err;
    EXPECT_EQ(2, RunRefused(root, {"--root", root.Dir(), "--nmea", root.Dir() + "/no.nmea"}, &err));
    EXPECT_TRUE(Has(
        err, "bpsim: --nmea cannot read '" + root.Dir() + "/no.nmea': No such file or directory"))
        << err;
    EXPECT_FALSE(root.Exists("/dev/mux18"));
}

TEST(BpSimCommandLine, MissingOrBadScriptIsAnError) {
    lapitest::TempRoot root;
    std::string err;
    EXPECT_EQ(2,
              RunRefused(root, {"--root", root.Dir(), "--script", root.Dir() + "/no.txt"}, &err));
    EXPECT_TRUE(Has(err, "bpsim: --script '" + root.Dir() + "/no.txt': No such file")) << err;
    ASSERT_TRUE(root.WriteFile("/bad.txt", "# fine\nfix 1 2 3\nteleport 4 5\n"));
    EXPECT_EQ(2, RunRefused(root, {"--root", root.Dir(), "--script", root.Path("/bad.txt")}, &err));
    EXPECT_TRUE(Has(err, "line 3: unknown command 'teleport'")) << err;
}

TEST(BpSimCommandLine, HelpListsEveryCommand) {
    FILE *p = popen((lapitest::EmulatorPrefix() + kBpSimBin + " --help").c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[512];
    while (fgets(buf, sizeof(buf), p) != nullptr) {
        out += buf;
    }
    EXPECT_EQ(0, pclose(p));
    for (const char *cmd :
         {"send",      "raw",      "fix",    "silent",   "delay",  "answer", "result",
          "statusrsp", "distance", "dbfile", "periodic", "status", "notify", "notifystatus",
          "hit",       "report",   "areas",  "replay",   "sleep",  "quit"}) {
        EXPECT_TRUE(Has(out, std::string("\n  ") + cmd + " ") ||
                    Has(out, std::string("\n  ") + cmd + "\n"))
            << cmd;
    }
    EXPECT_TRUE(Has(out, "--script FILE")) << out;
}

/* The server's periodic reports come as often as the request asks, with
 * no command to the simulator. */
TEST(BpSimPeriodic, DefaultSimulatorReportsAtTheRequestedInterval) {
    lapitest::TempRoot root;
    BpSimProgram bp(root.Dir(), {"--quiet"});
    ASSERT_FALSE(bp.WaitLine("bpsim: ready").empty());
    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    auto lines = RunLapiTimed("--root " + root.Dir() + " locate --periodic 1 --count 3 --json");
    std::vector<int64_t> fixes;
    for (const TimedLine &l : lines) {
        if (l.text.rfind("{\"type\":\"getLocationRsp\"", 0) == 0) {
            fixes.push_back(l.ms);
        }
    }
    ASSERT_EQ(3u, fixes.size());
    /* About a second apart: the first at once, the next two on the
     * request's interval. */
    EXPECT_GE(fixes[1] - fixes[0], 800);
    EXPECT_GE(fixes[2] - fixes[1], 800);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(0u, lines.back().text.find("{\"type\":\"abortLocationRsp\""));
    EXPECT_EQ(0, srv.Stop());
    EXPECT_EQ(0, bp.Stop());
}

/* A script: comments, sleep, commands of every kind, and the end. */
TEST(BpSimScript, RunsCommandsInOrderWithSleeps) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.WriteFile("/s.txt",
                               "# set up the answers\n"
                               "\n"
                               "fix 10.5 20.25 30\n"
                               "statusrsp 1 2 3 4 5 6 7 8\n"
                               "distance 1500 45\n"
                               "dbfile 9 0a0b\n"
                               "result 06 0\n"
                               "silent 16\n"
                               "answer 16\n"
                               "delay 0e 10\n"
                               "answer 0e\n"
                               "periodic request\n"
                               "areas\n"
                               "sleep 400\n"
                               "   # indented comment\n"
                               "areas\n"
                               "fix 1 2\n"));
    BpSimProgram bp(root.Dir(), {"--script", root.Path("/s.txt")});
    ASSERT_FALSE(bp.WaitLine("bpsim: ready").empty());
    int64_t first = 0;
    ASSERT_EQ("bpsim: areas", bp.WaitLine("bpsim: areas"));
    first = lapitest::NowMs();
    ASSERT_EQ("bpsim: areas", bp.WaitLine("bpsim: areas"));
    EXPECT_GE(lapitest::NowMs() - first, 350) << "sleep 400 held the second 'areas' back";
    /* A bad line names the file and the line, and the script goes on. */
    EXPECT_EQ("bpsim: " + root.Path("/s.txt") + ":17: usage: fix LAT LON ALT",
              bp.WaitLine("bpsim: " + root.Path("/s.txt")));

    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    auto lines = RunLapiTimed("--root " + root.Dir() + " locate --json");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("10.5", JsonField(lines[0].text, "latitude"));
    EXPECT_EQ("20.25", JsonField(lines[0].text, "longitude"));
    lines = RunLapiTimed("--root " + root.Dir() + " distance 1 2 3 4 --json");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("1500", JsonField(lines[0].text, "distance"));
    lines = RunLapiTimed("--root " + root.Dir() + " status --json");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("8", JsonField(lines[0].text, "iconStatus"));
    EXPECT_EQ(0, srv.Stop());
    EXPECT_EQ(0, bp.Stop());
}

TEST(BpSimScript, IndicationsFromAScriptReachTheClients) {
    lapitest::TempRoot root;
    lapitest::ServerProcess srv(root);
    /* The script waits for the client below to register. */
    ASSERT_TRUE(root.WriteFile("/s.txt",
                               "sleep 2000\n"
                               "status 1 2 3 4 5 -6 7 8\n"
                               "notify 48 64 3 1 72 Bob tel:1\n"
                               "notifystatus 48 64 -3\n"
                               "send 08 00 00 00 00 00 09 00 00 00 09 00 00 00 09 00 00 00 09 "
                               "00 00 00 09 00 00 00 09 00 00 00 09 00 00 00 09\n"
                               "raw 50\n"
                               "quit\n"));
    BpSimProgram bp(root.Dir(), {"--script", root.Path("/s.txt"), "--quiet"});
    ASSERT_FALSE(bp.WaitLine("bpsim: ready").empty());
    ASSERT_TRUE(srv.StartAndWaitReady());
    TestClient c(root.Dir());
    ASSERT_TRUE(c.Handshake(LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR));
    auto next = [&c]() {
        auto m = c.Async().RecvMsg(kWaitMs);
        return m ? m->Raw() : Bytes();
    };
    EXPECT_EQ(StatusRsp(LAPI_STATUS_CHANGE_IND, 0, 0, bpsim::Status{1, 2, 3, 4, 5, -6, 7, 8}),
              next());
    EXPECT_EQ(NotificationInd(48, 64, 3, 1, 72, "Bob", "tel:1"), next());
    EXPECT_EQ(PairI32Rsp(LAPI_NOTIFICATION_STATUS_IND, 48, 64, -3), next());
    EXPECT_EQ(StatusRsp(LAPI_STATUS_CHANGE_IND, 0, 0, bpsim::Status{9, 9, 9, 9, 9, 9, 9, 9}),
              next());
    /* quit ends the simulator. */
    EXPECT_EQ(0, bp.WaitExit(kWaitMs));
    EXPECT_EQ(0, srv.Stop());
}

/* A track replayed from a script moves the position that the periodic
 * reports carry. */
TEST(BpSimScript, ReplayMovesThePosition) {
    lapitest::TempRoot root;
    std::string track;
    for (int i = 0; i < 8; ++i) {
        char line[128];
        /* 48 deg 51.000 + i minutes north: each step is 1/60 degree. */
        snprintf(line, sizeof(line),
                 "$GPGGA,1200%02d.00,48%02d.000,N,00221.132,E,1,08,0.9,%d.0,M,45.0,M,,*00\r\n", i,
                 51 + i, 35 + i);
        track += line;
        snprintf(line, sizeof(line),
                 "$GPRMC,1200%02d.00,A,48%02d.000,N,00221.132,E,10.0,90.0,"
                 "010124,,*00\r\n",
                 i, 51 + i);
        track += line;
    }
    track += "$GPGSV,1,1,00*79\r\n";
    ASSERT_TRUE(root.WriteFile("/track.nmea", track));
    ASSERT_TRUE(root.WriteFile("/s.txt", "replay " + root.Path("/track.nmea") + " 400\n"));
    BpSimProgram bp(root.Dir(), {"--script", root.Path("/s.txt")});
    ASSERT_FALSE(bp.WaitLine("bpsim: ready").empty());
    EXPECT_EQ("bpsim: replay 1/8 48.8500000 2.3522000", bp.WaitLine("bpsim: replay"));
    lapitest::ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    auto lines =
        RunLapiTimed("--root " + root.Dir() + " locate --periodic 1 --count 3 --nmea --json");
    std::vector<double> lats;
    for (const TimedLine &l : lines) {
        if (l.text.rfind("{\"type\":\"getLocationRsp\"", 0) == 0) {
            lats.push_back(atof(JsonField(l.text, "latitude").c_str()));
            EXPECT_TRUE(Has(l.text, "$GPRMC,1200")) << "the epoch's sentences go along";
            EXPECT_EQ("5.144", JsonField(l.text, "speed").substr(0, 5)) << "10 knots in m/s";
        }
    }
    ASSERT_EQ(3u, lats.size());
    EXPECT_LT(lats[0], lats[1]);
    EXPECT_LT(lats[1], lats[2]);
    EXPECT_FALSE(bp.WaitLine("bpsim: replay done").empty());
    EXPECT_EQ(0, srv.Stop());
    EXPECT_EQ(0, bp.Stop());
}

TEST(BpSimScript, ReplayOfAFileWithoutPositionsIsRefused) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.WriteFile("/empty.nmea", "$GPGSV,1,1,00*79\r\n$GPGGA,1,,,,,0,,,,,,,,*00\r\n"));
    ASSERT_TRUE(root.WriteFile("/s.txt", "replay " + root.Path("/empty.nmea") + "\nreplay " +
                                             root.Path("/none.nmea") + "\nreplay x 0\nareas\n"));
    BpSimProgram bp(root.Dir(), {"--script", root.Path("/s.txt")});
    ASSERT_FALSE(bp.WaitLine("bpsim: ready").empty());
    std::string where = "bpsim: " + root.Path("/s.txt") + ":";
    EXPECT_EQ(where + "1: replay: '" + root.Path("/empty.nmea") +
                  "' holds no GGA or RMC sentence with a valid position",
              bp.WaitLine(where + "1:"));
    EXPECT_EQ(where + "2: replay: cannot read '" + root.Path("/none.nmea") +
                  "': No such file or directory",
              bp.WaitLine(where + "2:"));
    EXPECT_EQ(where + "3: usage: replay FILE [MS]|stop", bp.WaitLine(where + "3:"));
    EXPECT_EQ("bpsim: areas", bp.WaitLine("bpsim: areas"));
    EXPECT_EQ(0, bp.Stop());
}
