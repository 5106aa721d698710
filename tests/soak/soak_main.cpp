/*
 * lapi_soak [--server BIN] [--seconds N] [--sigterm-runs N] [--seed N]
 *
 * Fault injection against the real server, bounded in time:
 *   1. random bytes and near-valid frames on the BP channel;
 *   2. malformed client connections (random bytes, lying lengths, cut
 *      messages);
 *   3. clients dying at random points with requests pending at the BP;
 *   4. SIGTERM at random moments under load: every run must exit 0 within
 *      a second and remove the pid file;
 *   5. a standard error whose reader has gone, and one that nobody reads.
 * Between phases the server must still serve a client, and its descriptors
 * must be back where they were. Every figure is printed at the end; the exit
 * status is 0 only when every check held.
 */
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "ServerFixture.h"
#include "TestClient.h"
#include "ToolCommon.h"

using lapitest::Bytes;
using lapitest::ServerOptions;
using lapitest::ServerProcess;
using lapitest::TempRoot;
using lapitest::TestClient;

namespace {

struct Config {
    std::string server = LAPI_SRV_HOST_BIN;
    int seconds = 8; /* per phase */
    int sigtermRuns = 100;
    unsigned seed = 20261123;
};

struct Figures {
    uint64_t bpBytes = 0;
    uint64_t bpFrames = 0;
    uint64_t malformedConns = 0;
    uint64_t malformedBytes = 0;
    uint64_t dyingClients = 0;
    uint64_t pendingRequests = 0;
    int sigtermRuns = 0;
    int sigtermClean = 0;
    int64_t sigtermWorstMs = 0;
    uint64_t closedStderrRoundTrips = 0;
    uint64_t fullStderrRoundTrips = 0;
    int64_t fullStderrExitMs = 0;
    int fdsBefore = -1;
    int fdsAfter = -1;
    long dirtyBeforeKb = -1;
    long dirtyAfterKb = -1;
    std::vector<std::string> failures;
};

Figures gFig;

void Fail(const std::string &what) {
    fprintf(stderr, "soak: FAIL: %s\n", what.c_str());
    gFig.failures.push_back(what);
}

long PrivateDirtyKb(pid_t pid) {
    std::string path = "/proc/" + std::to_string(pid) + "/smaps_rollup";
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr) {
        return -1;
    }
    char line[256];
    long total = 0;
    while (fgets(line, sizeof(line), f) != nullptr) {
        long v = 0;
        if (sscanf(line, "Private_Dirty: %ld kB", &v) == 1) {
            total += v;
        }
    }
    fclose(f);
    return total;
}

ServerOptions Options(const Config &cfg) {
    ServerOptions o;
    o.binary = cfg.server;
    return o;
}

bool RoundTrip(TestClient &c, uint8_t sid, uint8_t tid, int timeoutMs = 3000) {
    GetLocationReq r;
    memset(&r, 0, sizeof(r));
    r.mode = LAPI_MODE_SYNC;
    r.sessionId = sid;
    r.transactionId = tid;
    r.responseTime = 1000;
    Bytes b = lapitest::ToBytes(r);
    if (!c.SendMsg(LAPI_GET_LOCATION_REQ, Bytes(b.begin() + sizeof(MsgHeader), b.end()))) {
        return false;
    }
    auto m = c.Sync().RecvMsg(timeoutMs);
    return m && m->msgId == LAPI_GET_LOCATION_RSP;
}

/* Sanitizer reports and a non-zero exit are failures of the phase. */
void CheckStop(ServerProcess &srv, const std::string &phase) {
    int code = srv.Stop();
    if (code != 0) {
        Fail(phase + ": server exit status " + std::to_string(code));
    }
    for (const std::string &line : srv.StderrLines()) {
        if (line.find("Sanitizer") != std::string::npos ||
            line.find("runtime error") != std::string::npos) {
            Fail(phase + ": " + line);
            break;
        }
    }
}

/* A server with the simulator on the BP channel; location requests stay
 * pending when silent is set. */
struct SimServer {
    TempRoot root;
    std::unique_ptr<bpsim::Simulator> sim;
    std::unique_ptr<ServerProcess> srv;

    /* watchTrace: wait for the channel's trace (only when the fixture
     * captures standard error). */
    bool Start(const ServerOptions &o, bool silent, bool watchTrace = true) {
        bpsim::Options so;
        so.root = root.Dir();
        sim = std::make_unique<bpsim::Simulator>(so);
        if (!sim->Open() || !sim->StartThread()) {
            return false;
        }
        if (silent) {
            bpsim::Policy p;
            p.answer = bpsim::Answer::Silent;
            sim->SetPolicy(GEOLOCATION_APBP_REQ, p);
        }
        srv = std::make_unique<ServerProcess>(root, o);
        return srv->StartAndWaitReady() &&
               (!watchTrace || srv->WaitForTrace("Success to connect mux channel."));
    }
    ~SimServer() {
        srv.reset();
        if (sim) {
            sim->Close();
        }
    }
};

/* ------------------------------------------------------------------------ */
/* 1. The BP channel                                                         */
/* ------------------------------------------------------------------------ */

Bytes NearValidFrame(std::mt19937 &rng) {
    size_t bodyLen = rng() % 64;
    Bytes m = {static_cast<uint8_t>(rng() % 40), static_cast<uint8_t>(rng()),
               static_cast<uint8_t>(rng())};
    for (size_t i = 0; i < bodyLen; ++i) {
        m.push_back(static_cast<uint8_t>(rng()));
    }
    Bytes f = {0x50, 0, 0};
    f.insert(f.end(), m.begin(), m.end());
    f.push_back(0xCF);
    f.push_back(0xB0);
    uint16_t len = static_cast<uint16_t>(f.size());
    f[1] = static_cast<uint8_t>(len >> 8);
    f[2] = static_cast<uint8_t>(len);
    switch (rng() % 6) {
        case 0: /* lying length */
            f[1] = static_cast<uint8_t>(rng());
            f[2] = static_cast<uint8_t>(rng());
            break;
        case 1: /* bad trailer */
            f.back() = static_cast<uint8_t>(rng());
            break;
        case 2: /* cut short */
            f.resize(rng() % f.size());
            break;
        default:
            break;
    }
    return f;
}

void PhaseBpNoise(const Config &cfg, std::mt19937 &rng) {
    TempRoot root;
    lapitest::MuxPty mux(root);
    ServerProcess srv(root, Options(cfg));
    if (!srv.StartAndWaitReady()) {
        Fail("bp noise: server did not start");
        return;
    }
    srv.WaitForTrace("Success to connect mux channel.");
    /* A reader on the BP side keeps the server's frames flowing. */
    std::atomic<bool> stop{false};
    std::thread drain([&] {
        while (!stop.load()) {
            mux.ReadAvailable(20);
        }
    });
    int64_t end = lapitest::NowMs() + cfg.seconds * 1000;
    while (lapitest::NowMs() < end) {
        Bytes chunk;
        if (rng() % 2 == 0) {
            chunk.resize(1 + rng() % 512);
            for (auto &b : chunk) {
                b = static_cast<uint8_t>(rng());
            }
        } else {
            for (int i = 0; i < 16; ++i) {
                Bytes f = NearValidFrame(rng);
                chunk.insert(chunk.end(), f.begin(), f.end());
                ++gFig.bpFrames;
            }
        }
        if (!mux.Write(chunk)) {
            Fail("bp noise: the channel stopped taking bytes");
            break;
        }
        gFig.bpBytes += chunk.size();
    }
    stop = true;
    drain.join();
    TestClient c(root.Dir());
    if (!c.Handshake(1, 3000)) {
        Fail("bp noise: no client served afterwards");
    }
    CheckStop(srv, "bp noise");
}

/* ------------------------------------------------------------------------ */
/* 2, 3. Malformed connections and dying clients                             */
/* ------------------------------------------------------------------------ */

void MalformedConnection(const std::string &root, std::mt19937 &rng) {
    lapitest::Connection conn;
    if (!conn.Connect(root, 200)) {
        return;
    }
    ++gFig.malformedConns;
    Bytes b;
    switch (rng() % 4) {
        case 0: /* random bytes */
            b.resize(1 + rng() % 300);
            for (auto &x : b) {
                x = static_cast<uint8_t>(rng());
            }
            break;
        case 1: { /* a known id with a lying length */
            Bytes body(rng() % 64);
            b = lapitest::MakeMsg(static_cast<uint16_t>(100 + rng() % 17), body, 1,
                                  static_cast<uint16_t>(rng()));
            break;
        }
        case 2: /* a header cut short */
            b = lapitest::MakeMsg(LAPI_REGISTER_REQ, lapitest::U32Body(1), 1);
            b.resize(rng() % b.size());
            break;
        default: /* an unknown id */
            b = lapitest::MakeMsg(static_cast<uint16_t>(rng()), Bytes(rng() % 32), 1);
            break;
    }
    conn.SendRaw(b);
    gFig.malformedBytes += b.size();
}

void DyingClient(const std::string &root, std::mt19937 &rng, uint8_t &tid) {
    TestClient c(root);
    /* Short: once the server is gone, the load must stop at once. */
    if (!c.Handshake(1, 300)) {
        return;
    }
    ++gFig.dyingClients;
    int n = static_cast<int>(rng() % 8);
    for (int i = 0; i < n; ++i) {
        GetLocationReq r;
        memset(&r, 0, sizeof(r));
        r.mode = static_cast<uint16_t>(rng() % 2);
        r.sessionId = 1;
        r.transactionId = tid++;
        r.reportCriteria = rng() % 2;
        r.interval = 60;
        r.responseTime = 1000;
        Bytes b = lapitest::ToBytes(r);
        Bytes body(b.begin() + sizeof(MsgHeader), b.end());
        if (i == n - 1 && rng() % 3 == 0) {
            /* dies in the middle of a message */
            Bytes m = lapitest::MakeMsg(LAPI_GET_LOCATION_REQ, body, c.Pid());
            m.resize(rng() % m.size());
            c.Sync().SendRaw(m);
        } else {
            c.SendMsg(LAPI_GET_LOCATION_REQ, body);
            ++gFig.pendingRequests;
        }
    }
    if (rng() % 2 == 0) {
        c.Async().Close(); /* the asynchronous connection goes first */
    }
}

void PhaseClients(const Config &cfg, std::mt19937 &rng) {
    SimServer s;
    if (!s.Start(Options(cfg), true)) {
        Fail("clients: server did not start");
        return;
    }
    pid_t pid = s.srv->Pid();
    {
        TestClient warm(s.root.Dir());
        warm.Handshake(1);
    }
    s.srv->WaitIdle();
    gFig.fdsBefore = toolcommon::CountOpenFds(pid);
    gFig.dirtyBeforeKb = PrivateDirtyKb(pid);

    int64_t end = lapitest::NowMs() + cfg.seconds * 1000;
    uint8_t tid = 1;
    while (lapitest::NowMs() < end) {
        if (rng() % 2 == 0) {
            MalformedConnection(s.root.Dir(), rng);
        } else {
            DyingClient(s.root.Dir(), rng, tid);
        }
    }
    /* Every connection is gone: back to the descriptors of the start. */
    int64_t settle = lapitest::NowMs() + 5000;
    while (toolcommon::CountOpenFds(pid) != gFig.fdsBefore && lapitest::NowMs() < settle) {
        s.srv->WaitIdle(200);
    }
    gFig.fdsAfter = toolcommon::CountOpenFds(pid);
    gFig.dirtyAfterKb = PrivateDirtyKb(pid);
    if (gFig.fdsAfter != gFig.fdsBefore) {
        Fail("clients: descriptors " + std::to_string(gFig.fdsBefore) + " before, " +
             std::to_string(gFig.fdsAfter) + " after");
    }
    s.sim->ClearPolicy(GEOLOCATION_APBP_REQ);
    TestClient c(s.root.Dir());
    if (!c.Handshake(1, 3000) || !RoundTrip(c, 1, 1)) {
        Fail("clients: no round trip afterwards");
    }
    CheckStop(*s.srv, "clients");
}

/* ------------------------------------------------------------------------ */
/* 4. SIGTERM at random moments under load                                   */
/* ------------------------------------------------------------------------ */

void PhaseSigterm(const Config &cfg, std::mt19937 &rng) {
    for (int run = 0; run < cfg.sigtermRuns; ++run) {
        ++gFig.sigtermRuns;
        SimServer s;
        if (!s.Start(Options(cfg), run % 2 == 0)) {
            Fail("sigterm run " + std::to_string(run) + ": server did not start");
            continue;
        }
        std::atomic<bool> stop{false};
        std::thread load([&, seed = rng()] {
            std::mt19937 r(seed);
            uint8_t tid = 1;
            while (!stop.load()) {
                if (r() % 3 == 0) {
                    MalformedConnection(s.root.Dir(), r);
                } else {
                    DyingClient(s.root.Dir(), r, tid);
                }
            }
        });
        usleep(static_cast<useconds_t>(5000 + rng() % 40000));
        int64_t t0 = lapitest::NowMs();
        kill(s.srv->Pid(), SIGTERM);
        int code = s.srv->WaitExit(1000);
        int64_t took = lapitest::NowMs() - t0;
        stop = true;
        load.join();
        gFig.sigtermWorstMs = std::max(gFig.sigtermWorstMs, took);
        bool pidGone = !s.root.Exists("/tmp/lapi.pid");
        if (code == 0 && pidGone) {
            ++gFig.sigtermClean;
        } else {
            Fail("sigterm run " + std::to_string(run) + ": exit " + std::to_string(code) +
                 (pidGone ? "" : ", pid file left"));
            if (code == lapitest::kNotExited) {
                kill(s.srv->Pid(), SIGKILL);
                s.srv->WaitExit(5000);
            }
        }
        for (const std::string &line : s.srv->StderrLines()) {
            if (line.find("Sanitizer") != std::string::npos) {
                Fail("sigterm run " + std::to_string(run) + ": " + line);
                break;
            }
        }
    }
}

/* ------------------------------------------------------------------------ */
/* 5. Standard error closed, and full                                        */
/* ------------------------------------------------------------------------ */

void PhaseStderr(const Config &cfg, bool closedReader) {
    const std::string phase = closedReader ? "closed stderr" : "full stderr";
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) {
        Fail(phase + ": pipe");
        return;
    }
    ServerOptions o = Options(cfg);
    int writeEnd = p[1];
    o.childSetup = [writeEnd] { dup2(writeEnd, 2); };
    if (closedReader) {
        close(p[0]);
    }
    SimServer s;
    bool started = s.Start(o, false, false);
    close(p[1]);
    if (!started) {
        Fail(phase + ": server did not start");
        if (!closedReader) {
            close(p[0]);
        }
        return;
    }
    TestClient c(s.root.Dir());
    if (!c.Handshake(1, 3000)) {
        Fail(phase + ": no handshake");
    }
    uint64_t &count = closedReader ? gFig.closedStderrRoundTrips : gFig.fullStderrRoundTrips;
    int64_t end = lapitest::NowMs() + cfg.seconds * 1000 / 2;
    uint8_t tid = 1;
    while (lapitest::NowMs() < end) {
        if (!RoundTrip(c, 1, tid)) {
            Fail(phase + ": a round trip failed");
            break;
        }
        tid = static_cast<uint8_t>(tid % 255 + 1);
        ++count;
    }
    int64_t t0 = lapitest::NowMs();
    kill(s.srv->Pid(), SIGTERM);
    int code = s.srv->WaitExit(1000);
    if (!closedReader) {
        gFig.fullStderrExitMs = lapitest::NowMs() - t0;
        close(p[0]);
    }
    if (code != 0 || s.root.Exists("/tmp/lapi.pid")) {
        Fail(phase + ": exit " + std::to_string(code));
        if (code == lapitest::kNotExited) {
            kill(s.srv->Pid(), SIGKILL);
            s.srv->WaitExit(5000);
        }
    }
}

/* ------------------------------------------------------------------------ */
/* --bench: drain time and round-trip cost against live transactions        */
/* ------------------------------------------------------------------------ */

/* Server CPU time in microseconds (/proc/PID/schedstat, nanoseconds). */
double CpuUs(pid_t pid) {
    std::string path = "/proc/" + std::to_string(pid) + "/schedstat";
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr) {
        return 0;
    }
    unsigned long long ns = 0;
    if (fscanf(f, "%llu", &ns) != 1) {
        ns = 0;
    }
    fclose(f);
    return static_cast<double>(ns) / 1000.0;
}

Bytes LocationReqMsg(uint32_t pid, uint8_t sid, uint8_t tid, uint32_t reportCriteria) {
    GetLocationReq r;
    memset(&r, 0, sizeof(r));
    r.mode = LAPI_MODE_SYNC;
    r.sessionId = sid;
    r.transactionId = tid;
    r.responseTime = 1000;
    r.reportCriteria = reportCriteria;
    r.interval = 3600;
    Bytes b = lapitest::ToBytes(r);
    return lapitest::MakeMsg(LAPI_GET_LOCATION_REQ, Bytes(b.begin() + sizeof(MsgHeader), b.end()),
                             pid);
}

/* 240 holder clients (whatever the count, so that the descriptors the loop
 * watches are the same in every row) with `count` periodic requests between
 * them that the BP keeps pending, at most 250 each (below the per-client
 * limit). */
bool HoldTransactions(SimServer &s, int count, std::vector<std::unique_ptr<TestClient>> *pHolders) {
    constexpr int kHolders = 240;
    for (int k = 0, done = 0; k < kHolders; ++k) {
        auto c = std::make_unique<TestClient>(s.root.Dir());
        if (!c->Handshake(1, 3000)) {
            return false;
        }
        int n = std::min(250, count - done);
        if (n <= 0) {
            pHolders->push_back(std::move(c));
            continue;
        }
        Bytes all;
        for (int i = 0; i < n; ++i) {
            Bytes m = LocationReqMsg(c->Pid(), 1, static_cast<uint8_t>(i + 1), 1);
            all.insert(all.end(), m.begin(), m.end());
        }
        if (!c->Sync().SendRaw(all)) {
            return false;
        }
        done += n;
        pHolders->push_back(std::move(c));
    }
    for (int seen = 0; seen < count; ++seen) {
        if (!s.sim->WaitForSubCmd(GEOLOCATION_APBP_REQ, 10000)) {
            return false;
        }
    }
    return true;
}

void BenchRoundTrips(const Config &cfg) {
    printf(
        "round trip with N transactions alive (getLocationReq single fix; the BP answers from "
        "the bench thread)\n");
    printf(
        "  240 holder clients in every row; alive = the holders' pending requests + the probe's\n");
    printf("  %-8s %14s %14s %18s\n", "alive", "p50 [us]", "p99 [us]", "server CPU [us]");
    for (int alive : {1, 1000, 60000}) {
        SimServer s;
        ServerOptions o = Options(cfg);
        /* Diagnostics cost the same whatever is alive; /dev/null keeps the
         * pipe out of the figure. */
        o.childSetup = [] {
            int fd = open("/dev/null", O_WRONLY);
            dup2(fd, 2);
            dup2(fd, 1);
        };
        if (!s.Start(o, true, false)) {
            Fail("bench: server did not start");
            return;
        }
        std::vector<std::unique_ptr<TestClient>> holders;
        if (!HoldTransactions(s, alive - 1, &holders)) {
            Fail("bench: could not hold " + std::to_string(alive) + " transactions");
            return;
        }
        TestClient probe(s.root.Dir());
        probe.Handshake(1, 3000);
        s.sim->ClearPending();
        constexpr int kTrips = 2000;
        std::vector<double> lat;
        double cpu0 = CpuUs(s.srv->Pid());
        for (int i = 0; i < kTrips; ++i) {
            auto t0 = std::chrono::steady_clock::now();
            Bytes m = LocationReqMsg(probe.Pid(), 2, static_cast<uint8_t>(i % 255 + 1), 0);
            probe.Sync().SendRaw(m);
            auto req = s.sim->WaitForSubCmd(GEOLOCATION_APBP_REQ, 3000);
            if (!req) {
                Fail("bench: request lost");
                return;
            }
            s.sim->SendFix(req->SessionId(), req->TransactionId());
            auto rsp = probe.Sync().RecvMsg(3000);
            if (!rsp) {
                Fail("bench: answer lost");
                return;
            }
            lat.push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0)
                    .count());
        }
        double cpu = (CpuUs(s.srv->Pid()) - cpu0) / kTrips;
        std::sort(lat.begin(), lat.end());
        printf("  %-8d %14.1f %14.1f %18.1f\n", alive, lat[lat.size() / 2],
               lat[lat.size() * 99 / 100], cpu);
        fflush(stdout);
        s.srv->Stop();
    }
}

void BenchDrain(const Config &cfg) {
    printf(
        "drain: N getLocationReq queued by 80 clients while the BP does not read, then the "
        "BP reads everything\n");
    printf("  %-8s %18s %22s\n", "queued", "wall time [ms]", "server CPU [ms]");
    for (int queued : {5000, 20000}) {
        TempRoot root;
        lapitest::MuxPty mux(root);
        ServerOptions o = Options(cfg);
        o.childSetup = [] {
            int fd = open("/dev/null", O_WRONLY);
            dup2(fd, 2);
            dup2(fd, 1);
        };
        ServerProcess srv(root, o);
        if (!srv.StartAndWaitReady()) {
            Fail("bench drain: server did not start");
            return;
        }
        std::vector<std::unique_ptr<TestClient>> clients;
        for (int k = 0; k < 80; ++k) {
            auto c = std::make_unique<TestClient>(root.Dir());
            c->Handshake(1, 3000);
            clients.push_back(std::move(c));
        }
        double cpu0 = CpuUs(srv.Pid());
        auto t0 = std::chrono::steady_clock::now();
        int per = queued / 80;
        for (auto &c : clients) {
            Bytes all;
            for (int i = 0; i < per; ++i) {
                Bytes m = LocationReqMsg(c->Pid(), static_cast<uint8_t>(1 + i / 255),
                                         static_cast<uint8_t>(i % 255 + 1), 1);
                all.insert(all.end(), m.begin(), m.end());
            }
            c->Sync().SendRaw(all);
        }
        /* Each GEOLOCATION_APBP_REQ frame is 37 bytes. */
        size_t want = static_cast<size_t>(per) * 80 * 37;
        size_t got = 0;
        while (got < want) {
            std::vector<uint8_t> b = mux.ReadAvailable(5000);
            if (b.empty()) {
                break;
            }
            got += b.size();
        }
        double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                        .count();
        double cpu = (CpuUs(srv.Pid()) - cpu0) / 1000.0;
        if (got < want) {
            Fail("bench drain: " + std::to_string(got) + " of " + std::to_string(want) + " bytes");
        }
        printf("  %-8d %18.1f %22.1f\n", per * 80, ms, cpu);
        fflush(stdout);
        clients.clear();
        srv.Stop();
    }
}

void Usage(FILE *f) {
    fprintf(f,
            "usage: lapi_soak [--server BIN] [--seconds N] [--sigterm-runs N] [--seed N]\n"
            "       lapi_soak --bench [--server BIN]\n"
            "  --bench            figures only: time to drain queued requests, and the cost\n"
            "                     of one round trip with 1, 1000 and 60000 transactions alive\n"
            "  --server BIN       the server to test (default: this build's lapi_srv_host)\n"
            "  --seconds N        length of each timed phase (default 8)\n"
            "  --sigterm-runs N   SIGTERM runs under load (default 100)\n"
            "  --seed N           seed of the random faults (default 20261123)\n");
}

}  // namespace

int main(int argc, char **argv) {
    Config cfg;
    bool bench = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            Usage(stdout);
            return 0;
        }
        if (a == "--bench") {
            bench = true;
            continue;
        }
        if (i + 1 >= argc) {
            Usage(stderr);
            return 2;
        }
        std::string v = argv[++i];
        if (a == "--server") {
            cfg.server = v;
        } else if (a == "--seconds") {
            cfg.seconds = std::max(1, atoi(v.c_str()));
        } else if (a == "--sigterm-runs") {
            cfg.sigtermRuns = std::max(0, atoi(v.c_str()));
        } else if (a == "--seed") {
            cfg.seed = static_cast<unsigned>(strtoul(v.c_str(), nullptr, 10));
        } else {
            Usage(stderr);
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    if (bench) {
        BenchDrain(cfg);
        BenchRoundTrips(cfg);
        for (const std::string &f : gFig.failures) {
            printf("    %s\n", f.c_str());
        }
        return gFig.failures.empty() ? 0 : 1;
    }
    std::mt19937 rng(cfg.seed);
    int64_t t0 = lapitest::NowMs();

    printf("soak: BP channel noise...\n");
    fflush(stdout);
    PhaseBpNoise(cfg, rng);
    printf("soak: malformed connections and dying clients...\n");
    fflush(stdout);
    PhaseClients(cfg, rng);
    printf("soak: SIGTERM under load, %d runs...\n", cfg.sigtermRuns);
    fflush(stdout);
    PhaseSigterm(cfg, rng);
    printf("soak: standard error closed, then full...\n");
    fflush(stdout);
    PhaseStderr(cfg, true);
    PhaseStderr(cfg, false);

    printf("\nsoak figures (seed %u, %d s per phase, %.1f s in all)\n", cfg.seed, cfg.seconds,
           static_cast<double>(lapitest::NowMs() - t0) / 1000.0);
    printf("  BP channel: bytes written            %llu\n",
           static_cast<unsigned long long>(gFig.bpBytes));
    printf("  BP channel: near-valid frames        %llu\n",
           static_cast<unsigned long long>(gFig.bpFrames));
    printf("  malformed connections                %llu (%llu bytes)\n",
           static_cast<unsigned long long>(gFig.malformedConns),
           static_cast<unsigned long long>(gFig.malformedBytes));
    printf("  clients dying at random points       %llu (%llu requests pending)\n",
           static_cast<unsigned long long>(gFig.dyingClients),
           static_cast<unsigned long long>(gFig.pendingRequests));
    printf("  server descriptors before / after    %d / %d\n", gFig.fdsBefore, gFig.fdsAfter);
    printf("  server Private_Dirty before / after  %ld / %ld kB\n", gFig.dirtyBeforeKb,
           gFig.dirtyAfterKb);
    printf("  SIGTERM runs: clean / all            %d / %d (slowest exit %lld ms)\n",
           gFig.sigtermClean, gFig.sigtermRuns, static_cast<long long>(gFig.sigtermWorstMs));
    printf("  round trips, stderr reader gone      %llu\n",
           static_cast<unsigned long long>(gFig.closedStderrRoundTrips));
    printf("  round trips, stderr full             %llu (exit %lld ms after SIGTERM)\n",
           static_cast<unsigned long long>(gFig.fullStderrRoundTrips),
           static_cast<long long>(gFig.fullStderrExitMs));
    printf("  failures                             %zu\n", gFig.failures.size());
    for (const std::string &f : gFig.failures) {
        printf("    %s\n", f.c_str());
    }
    return gFig.failures.empty() ? 0 : 1;
}
