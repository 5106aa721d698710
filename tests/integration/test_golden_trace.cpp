/*
 * Golden trace: one scripted session through the real server and the BP
 * simulator, whose whole standard error and standard output must equal the
 * committed files tests/golden/session.stderr and tests/golden/session.stdout.
 *
 * The session goes through every client request, every BP answer and
 * indication, a broadcast to two clients, an unknown BP message, a request
 * whose deadline passes, a client that vanishes with a request running, an
 * unregistration and the final SIGTERM. Every step waits for all of its
 * consequences (and for the server to sit idle in its select) before the
 * next one starts, so the lines come out in one order only.
 *
 * What is masked, and nothing else:
 *   - source line numbers of diagnostic lines ("FILE:123" -> "FILE:N");
 *   - pointer values printed by the send queue ("list:0x..." -> "list:PTR");
 *   - the private root folder, which holds a random name ("ROOT");
 *   - the server's pid wherever it stands alone as a number ("PID");
 *   - the loop's bookkeeping lines "AFTER READPROC n" and "END WHILE(1)",
 *     whose count depends on how the kernel hands over the bytes.
 * The clients put fixed pids into their messages, so those stay.
 *
 * To accept a deliberate change of the diagnostics, regenerate the files:
 *   LAPI_GOLDEN_UPDATE=1 ctest --test-dir build -R GoldenTrace
 * and review the difference with git diff before committing it. Without the
 * variable a mismatch fails and leaves the masked output next to the
 * executable ("golden_actual.stderr", "golden_actual.stdout") for diff.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "LocSvcEnv.h"

using namespace locsvc;

namespace {

constexpr uint32_t kPidA = 4101;
constexpr uint32_t kPidB = 4202;
constexpr uint32_t kPidC = 4303;
constexpr int kDeadlineWaitMs = 12000;

bpsim::Fix GoldenFix() {
    bpsim::Fix fix = SampleFix();
    fix.nmea =
        "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n"
        "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n";
    return fix;
}

std::string ReadWhole(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool WriteWhole(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

/* Replaces every occurrence of from by to. */
std::string ReplaceAll(std::string s, const std::string &from, const std::string &to) {
    if (from.empty()) {
        return s;
    }
    for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) {
        s.replace(at, from.size(), to);
    }
    return s;
}

bool IsBookkeeping(const std::string &line) {
    lapitest::DiagLine d;
    if (!lapitest::ParseDiagLine(line, &d) || d.isError) {
        return false;
    }
    return d.message == "END WHILE(1)" || d.message.rfind("AFTER READPROC ", 0) == 0;
}

/* The masked text of a stream: one line per captured line. */
std::string Masked(const std::vector<std::string> &lines, const std::string &root, pid_t pid) {
    static const std::regex kLineNo(R"(^(\{[0-9]+\} [^:\t ]+):[0-9]+)");
    static const std::regex kPointer(R"((list:|pData:|buf:|len:)(0x[0-9a-f]+|\(nil\)))");
    const std::regex kPid("(^|[^0-9])" + std::to_string(pid) + "([^0-9]|$)");
    std::string out;
    for (const std::string &raw : lines) {
        if (IsBookkeeping(raw)) {
            continue;
        }
        std::string line = std::regex_replace(raw, kLineNo, "$1:N");
        line = std::regex_replace(line, kPointer, "$1PTR");
        line = ReplaceAll(line, root, "ROOT");
        line = std::regex_replace(line, kPid, "$1PID$2");
        out += line;
        out += '\n';
    }
    return out;
}

/* The first differing line of two texts, with its number, for the failure
 * message. */
std::string FirstDifference(const std::string &want, const std::string &got) {
    std::istringstream w(want);
    std::istringstream g(got);
    std::string lw;
    std::string lg;
    for (int n = 1;; ++n) {
        bool hw = static_cast<bool>(std::getline(w, lw));
        bool hg = static_cast<bool>(std::getline(g, lg));
        if (!hw && !hg) {
            return "no difference";
        }
        if (!hw || !hg || lw != lg) {
            return "line " + std::to_string(n) + "\n  golden: " + (hw ? lw : "<end>") +
                   "\n  actual: " + (hg ? lg : "<end>");
        }
    }
}

class GoldenTrace : public lapitest::SimServerTest<> {
  protected:
    GoldenTrace() : SimServerTest(GoldenFix()) {}

    /* Every step ends with the server back in its select, all of its lines
     * written. */
    void Settle() {
        ASSERT_TRUE(srv_->WaitIdle(kWaitMs));
        sim_.ClearPending();
    }

    static Bytes Next(lapitest::Connection &conn, int timeoutMs = kWaitMs) {
        auto m = conn.RecvMsg(timeoutMs);
        return m ? m->Raw() : Bytes();
    }
    static uint16_t NextId(lapitest::Connection &conn, int timeoutMs = kWaitMs) {
        auto m = conn.RecvMsg(timeoutMs);
        return m ? m->msgId : 0xFFFF;
    }
    bool Bp(uint8_t subCmdId, int timeoutMs = kWaitMs) {
        return sim_.WaitForSubCmd(subCmdId, timeoutMs).has_value();
    }

    void Compare(const std::string &name, const std::string &actual) {
        const std::string golden = std::string(LAPI_GOLDEN_DIR) + "/" + name;
        const char *update = getenv("LAPI_GOLDEN_UPDATE");
        if (update != nullptr && update[0] != '\0' && update[0] != '0') {
            ASSERT_TRUE(WriteWhole(golden, actual)) << golden;
            std::cout << "golden file rewritten: " << golden << "\n";
            return;
        }
        const std::string want = ReadWhole(golden);
        if (want != actual) {
            const std::string keep = "golden_actual." + name.substr(name.rfind('.') + 1);
            WriteWhole(keep, actual);
            ADD_FAILURE() << name << " differs from the golden file, first at "
                          << FirstDifference(want, actual) << "\n(actual output kept in " << keep
                          << "; LAPI_GOLDEN_UPDATE=1 rewrites the golden file)";
        }
    }
};

Bytes DbSetBody() {
    SetGpsDbDataReq req = PrefixReq<SetGpsDbDataReq>(LAPI_MODE_SYNC, 0x21, 0x22);
    req.numFiles = 2;
    req.dbFile[0].fileId = 7;
    req.dbFile[0].length = 4;
    memcpy(req.dbFile[0].data, "\x01\x02\x03\x04", 4);
    req.dbFile[1].fileId = 9;
    req.dbFile[1].length = 2;
    memcpy(req.dbFile[1].data, "\xaa\xbb", 2);
    return BodyOf(req);
}

}  // namespace

TEST_F(GoldenTrace, WholeSessionMatchesTheGoldenFiles) {
    ASSERT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    Settle();

    /* Two clients: A takes status and MT-LR broadcasts, B status only. */
    TestClient a(root_.Dir(), kPidA);
    ASSERT_TRUE(a.Handshake(LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR));
    Settle();
    TestClient b(root_.Dir(), kPidB);
    ASSERT_TRUE(b.Handshake(LAPI_SERVICE_STATUS));
    Settle();

    /* A single fix, answered on the synchronous connection. */
    ASSERT_TRUE(a.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(LAPI_MODE_SYNC, 1, 1))));
    EXPECT_EQ(LAPI_GET_LOCATION_RSP, NextId(a.Sync()));
    Settle();

    /* A periodic request: its first report on the asynchronous connection,
     * a further report, then the abort. */
    ASSERT_TRUE(a.SendMsg(LAPI_GET_LOCATION_REQ,
                          BodyOf(MakeGetLocation(0, 2, 2, 1000, LAPI_REPORT_PERIODIC, 1000))));
    auto periodic = sim_.WaitForSubCmd(GEOLOCATION_APBP_REQ, kWaitMs);
    ASSERT_TRUE(periodic.has_value());
    EXPECT_EQ(LAPI_GET_LOCATION_RSP, NextId(a.Async()));
    Settle();
    ASSERT_TRUE(sim_.SendFix(periodic->SessionId(), periodic->TransactionId()));
    EXPECT_EQ(LAPI_GET_LOCATION_RSP, NextId(a.Async()));
    Settle();
    ASSERT_TRUE(a.SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(0, 2, 2)));
    EXPECT_EQ(LAPI_ABORT_LOCATION_RSP, NextId(a.Async()));
    Settle();

    /* Last known location, both database requests, status. */
    ASSERT_TRUE(a.SendMsg(LAPI_LAST_KNOWN_LOCATION_REQ, PrefixBody(LAPI_MODE_SYNC, 3, 3)));
    EXPECT_EQ(LAPI_GET_LOCATION_RSP, NextId(a.Sync()));
    Settle();
    {
        Bytes body = PrefixBody(LAPI_MODE_SYNC, 4, 4);
        Bytes fileId = ToBytes(uint32_t{7});
        body.insert(body.end(), fileId.begin(), fileId.end());
        ASSERT_TRUE(a.SendMsg(LAPI_GET_GPS_DB_DATA_REQ, body));
        EXPECT_EQ(LAPI_GET_GPS_DB_DATA_RSP, NextId(a.Sync()));
        Settle();
    }
    ASSERT_TRUE(a.SendMsg(LAPI_SET_GPS_DB_DATA_REQ, DbSetBody()));
    EXPECT_EQ(LAPI_SET_GPS_DB_DATA_RSP, NextId(a.Sync()));
    Settle();
    AnswerStatus(0x10);
    ASSERT_TRUE(a.SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(LAPI_MODE_SYNC, 5, 5)));
    EXPECT_EQ(LAPI_GET_STATUS_RSP, NextId(a.Sync()));
    Settle();

    /* Distance and azimuth; a proximity area that is hit, one removed. */
    {
        DistanceAzimuthReq req = PrefixReq<DistanceAzimuthReq>(LAPI_MODE_SYNC, 6, 6);
        req.latitude1 = 48.8566;
        req.longitude1 = 2.3522;
        req.latitude2 = -33.8688;
        req.longitude2 = 151.2093;
        req.distanceOnly = 0;
        ASSERT_TRUE(a.SendMsg(LAPI_DISTANCE_AZIMUTH_REQ, BodyOf(req)));
        EXPECT_EQ(LAPI_DISTANCE_AZIMUTH_RSP, NextId(a.Sync()));
        Settle();
    }
    for (uint8_t id : {7, 8}) {
        AddProximityReq req = PrefixReq<AddProximityReq>(LAPI_MODE_SYNC, id, id);
        req.latitude = 48.5;
        req.longitude = -2.25;
        req.altitude = 100.0;
        req.radius = 1.0 / 3.0;
        ASSERT_TRUE(a.SendMsg(LAPI_ADD_PROXIMITY_REQ, BodyOf(req)));
        EXPECT_EQ(LAPI_ADD_PROXIMITY_RSP, NextId(a.Sync()));
        Settle();
    }
    std::vector<bpsim::Pair> areas = sim_.Areas();
    ASSERT_EQ(2u, areas.size());
    ASSERT_TRUE(sim_.SendProximityHit(areas[0].first, areas[0].second));
    EXPECT_EQ(LAPI_PROXIMITY_HIT_IND, NextId(a.Async()));
    Settle();
    {
        Bytes body = PrefixBody(LAPI_MODE_SYNC, 8, 8);
        Bytes type = ToBytes(uint32_t{0});
        body.insert(body.end(), type.begin(), type.end());
        ASSERT_TRUE(a.SendMsg(LAPI_REMOVE_PROXIMITY_REQ, body));
        EXPECT_EQ(LAPI_REMOVE_PROXIMITY_RSP, NextId(a.Sync()));
        Settle();
    }

    /* Indications the BP starts: a status change to both clients, a
     * notification to A and A's answer, the notification's status. */
    {
        bpsim::Status st;
        st.userStatus = 1;
        st.hwStatus = 2;
        st.fixStatus = 3;
        st.emergencyStatus = 4;
        st.fixResultStatus = 5;
        st.fixResultCause = 6;
        st.signalStatus = 7;
        st.iconStatus = 8;
        ASSERT_TRUE(sim_.SendStatusChange(st, 0x0A, 0x0B));
        EXPECT_EQ(LAPI_STATUS_CHANGE_IND, NextId(a.Async()));
        EXPECT_EQ(LAPI_STATUS_CHANGE_IND, NextId(b.Async()));
        Settle();
    }
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(LOCATION_NOTIFICATION_BPAP_IND, 0x30, 0x40,
                                         NotificationBody("Bob", "tel:+123"))));
    EXPECT_EQ(LAPI_LOCATION_NOTIFICATION_IND, NextId(a.Async()));
    Settle();
    {
        Bytes cfm = {0x30, 0x40};
        Bytes rt = ToBytes(uint32_t{1});
        cfm.insert(cfm.end(), rt.begin(), rt.end());
        ASSERT_TRUE(a.SendMsg(LAPI_LOCATION_NOTIFICATION_CFM, cfm));
        EXPECT_TRUE(Bp(LOCATION_NOTIFICATION_APBP_RES));
        Settle();
    }
    ASSERT_TRUE(sim_.SendNotificationStatus(0x30, 0x40, -9));
    EXPECT_EQ(LAPI_NOTIFICATION_STATUS_IND, NextId(a.Async()));
    Settle();

    /* An identifier the server has no procedure for, and an abort of a
     * request that does not exist. */
    ASSERT_TRUE(sim_.Send(bpsim::MakeMsg(0x21, 1, 1, Bytes{1, 2, 3})));
    ASSERT_TRUE(srv_->WaitForError("Received unknown BP Msg ID: 0x21, dataLen: 6!", kWaitMs));
    Settle();
    ASSERT_TRUE(a.SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(LAPI_MODE_SYNC, 9, 9)));
    EXPECT_EQ(LAPI_GET_STATUS_RSP, NextId(a.Sync()));
    Settle();
    ASSERT_TRUE(a.SendMsg(LAPI_ABORT_LOCATION_REQ, PrefixBody(LAPI_MODE_SYNC, 9, 9)));
    EXPECT_EQ(LAPI_INVALID_REQUEST_RSP, NextId(a.Sync()));
    Settle();

    /* Abort-all of a request that the BP keeps running: the BP gets the
     * abort, and its answer ends the transaction. */
    Silent(GEOLOCATION_APBP_REQ);
    ASSERT_TRUE(a.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 10, 10))));
    EXPECT_TRUE(Bp(GEOLOCATION_APBP_REQ));
    Settle();
    {
        size_t from = srv_->LineCount(lapitest::Stream::Stderr);
        ASSERT_TRUE(a.SendMsg(LAPI_ABORT_ALL_LOCATION_REQ, Bytes()));
        EXPECT_TRUE(Bp(GEOLOCATION_ABORT_APBP_REQ));
        ASSERT_TRUE(srv_->WaitForTraceContaining("BP->AP bpAbortLocationRsp", kWaitMs, from));
        Settle();
    }
    sim_.ClearPolicy(GEOLOCATION_APBP_REQ);

    /* A deadline: the BP never answers a status request. */
    Silent(GET_STATUS_APBP_REQ);
    ASSERT_TRUE(b.SendMsg(LAPI_GET_STATUS_REQ, PrefixBody(LAPI_MODE_SYNC, 11, 11)));
    EXPECT_TRUE(Bp(GET_STATUS_APBP_REQ));
    EXPECT_EQ(LAPI_TIME_OUT_RSP, NextId(b.Sync(), kDeadlineWaitMs));
    Settle();

    /* B leaves properly. */
    ASSERT_TRUE(b.SendMsg(LAPI_UNREGISTER_REQ, Bytes()));
    EXPECT_EQ(LAPI_UNREGISTER_RSP, NextId(b.Sync()));
    Settle();

    /* C vanishes with a location request running: the server aborts it at
     * the BP and forgets the client. */
    Silent(GEOLOCATION_APBP_REQ);
    {
        TestClient c(root_.Dir(), kPidC);
        ASSERT_TRUE(c.Handshake(1));
        Settle();
        ASSERT_TRUE(c.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(0, 12, 12))));
        EXPECT_TRUE(Bp(GEOLOCATION_APBP_REQ));
        Settle();
        size_t from = srv_->LineCount(lapitest::Stream::Stderr);
        c.Sync().Close();
        EXPECT_TRUE(Bp(GEOLOCATION_ABORT_APBP_REQ));
        ASSERT_TRUE(srv_->WaitForTraceContaining("BP->AP bpAbortLocationRsp", kWaitMs, from));
        Settle();
    }
    Settle();

    EXPECT_EQ(0, srv_->Stop());
    ASSERT_TRUE(srv_->WaitOutputClosed());
    const pid_t pid = srv_->Pid();
    Compare("session.stderr", Masked(srv_->StderrLines(), root_.Dir(), pid));
    Compare("session.stdout", Masked(srv_->StdoutLines(), root_.Dir(), pid));
    srv_.reset();
}
