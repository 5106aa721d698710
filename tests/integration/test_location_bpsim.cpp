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

#include "LocSvcEnv.h"

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

/* The bpsim program with a pipe on its standard input and output. */
class BpSimProgram {
  public:
    explicit BpSimProgram(const std::string &root) {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        std::string bin = std::string(LAPI_BIN_DIR) + "/bpsim";
        std::vector<char *> argv = lapitest::UnderEmulator(
            {bin.data(), const_cast<char *>("--root"), const_cast<char *>(root.c_str()),
             const_cast<char *>("--lat"), const_cast<char *>("48.8566"),
             const_cast<char *>("--lon"), const_cast<char *>("2.3522"), nullptr});
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        in_ = in[1];
        out_ = out[0];
        fcntl(out_, F_SETFL, O_NONBLOCK);
    }
    ~BpSimProgram() {
        if (in_ >= 0) {
            close(in_);
        }
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
        }
        if (out_ >= 0) {
            close(out_);
        }
    }
    BpSimProgram(const BpSimProgram &) = delete;
    BpSimProgram &operator=(const BpSimProgram &) = delete;

    bool Command(const std::string &line) {
        std::string l = line + "\n";
        return write(in_, l.data(), l.size()) == static_cast<ssize_t>(l.size());
    }
    /* Waits for an output line that starts with prefix; the line or "". */
    std::string WaitLine(const std::string &prefix, int timeoutMs = kWaitMs) {
        auto start = Clock::now();
        for (;;) {
            size_t nl;
            while ((nl = buf_.find('\n')) != std::string::npos) {
                std::string line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                if (line.rfind(prefix, 0) == 0) {
                    return line;
                }
            }
            long left = timeoutMs - MsSince(start);
            if (left <= 0) {
                return "";
            }
            struct pollfd pfd = {out_, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left)) > 0) {
                char tmp[4096];
                ssize_t n = read(out_, tmp, sizeof(tmp));
                if (n > 0) {
                    buf_.append(tmp, static_cast<size_t>(n));
                } else if (n == 0) {
                    return "";
                }
            }
        }
    }
    /* Returns once every command written before has run (the program reads
     * its commands and the channel in one loop). */
    bool Sync() { return Command("areas") && !WaitLine("bpsim: areas").empty(); }
    /* Terminates it; its exit status. */
    int Stop() {
        if (pid_ <= 0) {
            return -1;
        }
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buf_;
};

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
