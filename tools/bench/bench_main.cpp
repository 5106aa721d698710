/*
 * lapi_bench: how much the location server costs on top of the bytes it
 * has to move.
 *
 * It starts lapi_srv_host on a private root with the BP simulator on a
 * pseudo-terminal, and beside it a bare relay (a child of the bench: one
 * select loop on the same kinds of descriptors, carrying the same bytes and
 * doing nothing else). Both are driven by the same code and measured in the
 * same run:
 *   (a) the fan-out of one status change to N status clients,
 *   (b) get-location round trips with 1..C clients, the BP answering at once,
 *   (c) private dirty memory idle and with the largest N of (a),
 * and every figure is printed with its ratio to the relay.
 *
 * Exit status: 0 every figure measured; 1 a set-up failure (nothing useful
 * measured); 2 usage error; 3 the table is printed but some figures are
 * missing (the notes say why); 130 interrupted.
 */
#include <errno.h>
#include <math.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "bench_conn.h"
#include "bench_proc.h"
#include "bench_profile.h"
#include "bench_relay.h"
#include "lapi_version.h"

#ifndef LAPI_BENCH_BUILD
#define LAPI_BENCH_BUILD "unknown"
#endif

namespace {

using bench::BenchClient;
using bench::Msg;
using bench::NowNs;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitPartial = 3;
constexpr int kExitInterrupted = 130;

constexpr int kServer = 0;
constexpr int kRelay = 1;
constexpr const char *kSideName[2] = {"server", "relay"};

constexpr uint32_t kServiceStatus = 4;
constexpr uint32_t kServicePlain = 1;
constexpr int kHandshakeMs = 5000;
constexpr int kBroadcastWaitMs = 2000;
constexpr int kStartMs = 10000;
constexpr int kStopMs = 5000;
/* Descriptors per process: two per client, both targets' clients in the
 * bench, and some room for the terminals, listeners and files. */
constexpr long kDescriptorRoom = 64;

volatile sig_atomic_t gStop = 0;

void OnStopSignal(int) {
    gStop = 1;
}

/* ---- options ---- */

struct Options {
    std::string binDir;
    bool quick = false;
    bool json = false;
    std::string jsonFile; /* empty: JSON after the table on stdout */
    std::vector<int> fanout = {1, 10, 60, 500};
    int broadcasts = 200;
    std::vector<int> rtClients = {1, 10, 100};
    double rtSeconds = 3.0;
    std::string serverLog = "/dev/null";
    bool verbose = false;
    /* Counting modes instead of the timed table. */
    bool profile = false;
    bool syscalls = false;
    std::string keepDir;
};

constexpr const char *kHelp =
    "usage: lapi_bench [OPTIONS]\n"
    "\n"
    "Measures the location server (lapi_srv_host, with the BP simulator on a\n"
    "pseudo-terminal) against a bare relay that moves the same bytes between\n"
    "the same kinds of descriptors and does nothing else, and prints a table:\n"
    "  (a) status change fan-out: one BP STATUS_CHANGE_BPAP_IND, broadcast as\n"
    "      statusChangeInd (42 bytes) to N status clients; median and p99 time\n"
    "      from the BP's write on the terminal to the first and to the last\n"
    "      client reading it, and the CPU time per broadcast\n"
    "  (b) get-location round trips: getLocationReq (single fix, mode sync)\n"
    "      from C clients in a closed loop, the BP answering at once; round\n"
    "      trips per second and latency p50/p99\n"
    "  (c) private dirty memory (smaps_rollup Private_Dirty) idle and with\n"
    "      each N of (a) connected; per client: from idle to the largest N\n"
    "      (the trace buffers that the first broadcasts fill are counted in),\n"
    "      and between the two largest N (what one more client costs)\n"
    "Every figure is also given as a ratio to the relay.\n"
    "\n"
    "Counting modes (instead of the timed table; the server alone, no relay):\n"
    "  --profile           runs the server under callgrind (valgrind) and prints\n"
    "                      (d) user-space instructions per get-location round\n"
    "                      trip and per status broadcast per extra client\n"
    "  --syscalls          runs the server under strace -c -f and prints\n"
    "                      (e) system calls per round trip and per status\n"
    "                      broadcast to 1, 10 and 60 clients\n"
    "  --keep DIR          keep each run's callgrind / strace output in DIR\n"
    "  Each figure is the difference of two runs that differ only in the\n"
    "  number of operations, over that number; --quick uses smaller runs.\n"
    "\n"
    "Options:\n"
    "  --bin-dir DIR       where lapi_srv_host is (default: this program's folder)\n"
    "  --quick             small counts, for a smoke test (N 1,10; 20 broadcasts;\n"
    "                      clients 1,10; 0.3 s per round-trip point)\n"
    "  --json[=FILE]       machine-readable results as well: after the table on\n"
    "                      standard output, or into FILE\n"
    "  --fanout LIST       status client counts for (a) (default 1,10,60,500)\n"
    "  --broadcasts K      measured broadcasts per N (default 200)\n"
    "  --rt-clients LIST   client counts for (b) (default 1,10,100)\n"
    "  --rt-seconds S      measured seconds per point of (b) (default 3)\n"
    "  --server-log FILE   the server's standard output and error (default\n"
    "                      /dev/null; a file costs the server more)\n"
    "  --verbose           progress on standard error\n"
    "  --help              this text\n"
    "  --version           the version\n"
    "\n"
    "Exit status: 0 all figures measured, 1 set-up failure, 2 usage error,\n"
    "3 some figures missing (see the notes), 130 interrupted.\n";

bool ParseList(const std::string &text, int maxValue, std::vector<int> *out) {
    out->clear();
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        std::string item =
            text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        char *end = nullptr;
        errno = 0;
        long v = strtol(item.c_str(), &end, 10);
        if (item.empty() || errno != 0 || *end != '\0' || v < 1 || v > maxValue) {
            return false;
        }
        out->push_back(static_cast<int>(v));
        if (comma == std::string::npos) {
            break;
        }
        pos = comma + 1;
    }
    return !out->empty();
}

/* 0 ok, 1 help shown, -1 usage error (message printed). */
int ParseOptions(int argc, char **argv, Options *o) {
    bool fanoutSet = false, bcSet = false, rtSet = false, secSet = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *name, std::string *v) {
            std::string prefix = std::string(name) + "=";
            if (a.rfind(prefix, 0) == 0) {
                *v = a.substr(prefix.size());
                return true;
            }
            if (a == name && i + 1 < argc) {
                *v = argv[++i];
                return true;
            }
            return false;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            fputs(kHelp, stdout);
            return 1;
        } else if (a == "--version") {
            printf("lapi_bench %s\n", LAPI_VERSION_STRING);
            return 1;
        } else if (a == "--quick") {
            o->quick = true;
        } else if (a == "--verbose") {
            o->verbose = true;
        } else if (a == "--profile") {
            o->profile = true;
        } else if (a == "--syscalls") {
            o->syscalls = true;
        } else if (a == "--json") {
            o->json = true;
        } else if (a.rfind("--json=", 0) == 0) {
            o->json = true;
            o->jsonFile = a.substr(strlen("--json="));
            if (o->jsonFile.empty()) {
                fprintf(stderr, "lapi_bench: --json= needs a file name\n");
                return -1;
            }
        } else if (value("--bin-dir", &v)) {
            o->binDir = v;
        } else if (value("--keep", &v)) {
            o->keepDir = v;
        } else if (value("--server-log", &v)) {
            o->serverLog = v;
        } else if (value("--fanout", &v)) {
            /* the server watches at most 1024 descriptors, two per client */
            if (!ParseList(v, 2000, &o->fanout)) {
                fprintf(stderr, "lapi_bench: --fanout wants counts 1..2000, e.g. 1,10,60,500\n");
                return -1;
            }
            fanoutSet = true;
        } else if (value("--rt-clients", &v)) {
            /* the relay names a client by the BP pair: 65536 at most */
            if (!ParseList(v, 2000, &o->rtClients)) {
                fprintf(stderr, "lapi_bench: --rt-clients wants counts 1..2000, e.g. 1,10,100\n");
                return -1;
            }
            rtSet = true;
        } else if (value("--broadcasts", &v)) {
            char *end = nullptr;
            long n = strtol(v.c_str(), &end, 10);
            if (v.empty() || *end != '\0' || n < 1 || n > 1000000) {
                fprintf(stderr, "lapi_bench: --broadcasts wants a count 1..1000000\n");
                return -1;
            }
            o->broadcasts = static_cast<int>(n);
            bcSet = true;
        } else if (value("--rt-seconds", &v)) {
            char *end = nullptr;
            double s = strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(s >= 0.05 && s <= 600)) {
                fprintf(stderr, "lapi_bench: --rt-seconds wants 0.05..600\n");
                return -1;
            }
            o->rtSeconds = s;
            secSet = true;
        } else {
            fprintf(stderr, "lapi_bench: unknown or incomplete option '%s' (see --help)\n",
                    a.c_str());
            return -1;
        }
    }
    if (o->quick) {
        if (!fanoutSet) {
            o->fanout = {1, 10};
        }
        if (!bcSet) {
            o->broadcasts = 20;
        }
        if (!rtSet) {
            o->rtClients = {1, 10};
        }
        if (!secSet) {
            o->rtSeconds = 0.3;
        }
    }
    std::sort(o->fanout.begin(), o->fanout.end());
    o->fanout.erase(std::unique(o->fanout.begin(), o->fanout.end()), o->fanout.end());
    if (o->binDir.empty()) {
        o->binDir = bench::SelfDir();
    }
    return 0;
}

/* ---- statistics ---- */

/* Nearest-rank percentile of sorted samples, in microseconds; NaN if none. */
double PercentileUs(const std::vector<int64_t> &sorted, double p) {
    if (sorted.empty()) {
        return NAN;
    }
    size_t rank = static_cast<size_t>(ceil(p / 100.0 * static_cast<double>(sorted.size())));
    rank = std::clamp<size_t>(rank, 1, sorted.size());
    return static_cast<double>(sorted[rank - 1]) / 1000.0;
}

/* ---- results ---- */

struct FanoutSide {
    bool ok = false;
    std::vector<int64_t> first, last; /* ns, sorted */
    double cpuUs = NAN;
    int lost = 0;
};

struct FanoutPoint {
    int n = 0;
    FanoutSide side[2];
};

struct RtSide {
    bool ok = false;
    int64_t done = 0;
    double seconds = 0;
    std::vector<int64_t> lat; /* ns, sorted */
    int errors = 0;
    double Rate() const { return ok && seconds > 0 ? static_cast<double>(done) / seconds : NAN; }
};

struct RtPoint {
    int clients = 0;
    RtSide side[2];
};

struct MemPoint {
    std::string state;
    int clients = 0; /* 0: idle */
    double kb[2] = {NAN, NAN};
};

/* ---- a measured process and its clients ---- */

struct Target {
    int index = 0;
    std::string root;
    std::string sock;
    pid_t pid = -1;
    bool alive = false;
    int baseFds = -1;
    std::unique_ptr<bpsim::Simulator> sim;
    std::vector<std::unique_ptr<BenchClient>> status;
};

struct Bench {
    Options opt;
    std::string base;
    Target t[2];
    std::vector<std::string> notes;
    bool cpuPrecise = true;
    /* CPU that processes other than the bench, the server and the relay
     * used during the run, in percent of one core (NaN when unknown). */
    double otherLoadPct = NAN;
    bool missing = false;

    std::vector<FanoutPoint> fanout;
    std::vector<RtPoint> rt;
    std::vector<MemPoint> mem;

    ~Bench() { Shutdown(); }

    void Note(const std::string &s) {
        notes.push_back(s);
        if (opt.verbose) {
            fprintf(stderr, "lapi_bench: note: %s\n", s.c_str());
        }
    }

    void Progress(const char *fmt, const std::string &what) {
        if (opt.verbose) {
            fprintf(stderr, fmt, what.c_str());
            fputc('\n', stderr);
        }
    }

    /* Stops what was started and removes the folder; safe to call twice. */
    void Shutdown() {
        for (Target &x : t) {
            x.status.clear();
            if (x.pid > 0) {
                int code = -1;
                std::string how = bench::StopChild(x.pid, kStopMs, &code);
                if (x.index == kServer && x.alive && code != 0) {
                    Note("the server ended with " + how + " on SIGTERM (expected exit 0)");
                }
                x.pid = -1;
                x.alive = false;
            }
            if (x.sim) {
                x.sim->Close();
                x.sim.reset();
            }
        }
        if (!base.empty()) {
            bench::RemoveTree(base);
            base.clear();
        }
    }

    /* False (with a note) when the target's process has ended. */
    bool CheckAlive(Target &x, const char *during) {
        if (!x.alive) {
            return false;
        }
        std::string how;
        if (bench::ChildEnded(x.pid, &how)) {
            x.alive = false;
            x.pid = -1;
            Note(std::string("the ") + kSideName[x.index] + " ended (" + how + ") during " +
                 during);
            return false;
        }
        return true;
    }
};

/* ---- start-up ---- */

bool StartTarget(Bench &b, Target &x, std::string *err) {
    x.root = b.base + (x.index == kServer ? "/s" : "/r");
    x.sock = x.root + "/tmp/lapisock";
    if (!bench::MakeDirs(x.root + "/tmp") || !bench::MakeDirs(x.root + "/dev")) {
        *err = "cannot create " + x.root + ": " + strerror(errno);
        return false;
    }
    bpsim::Options so;
    so.root = x.root;
    x.sim = std::make_unique<bpsim::Simulator>(so);
    if (!x.sim->Open(err)) {
        *err = "BP simulator: " + *err;
        return false;
    }
    /* Two descriptors per status client and some room; the server refuses
     * descriptors that select cannot watch by itself. */
    long noFile = 2L * b.opt.fanout.back() + kDescriptorRoom;
    if (x.index == kServer) {
        std::string host = b.opt.binDir + "/lapi_srv_host";
        int port = bench::FreeUdpPort();
        if (port == 0) {
            *err = "no free UDP port for the server's push intake";
            return false;
        }
        x.pid = bench::SpawnProgram({host, "--root", x.root, "--push-port", std::to_string(port)},
                                    b.opt.serverLog, std::max<long>(noFile, FD_SETSIZE), err);
        if (x.pid < 0) {
            *err += " (use --bin-dir DIR to name the folder of lapi_srv_host)";
            return false;
        }
    } else {
        std::string root = x.root;
        x.pid = bench::SpawnFunction([root] { return bench::RunRelay(root); }, FD_SETSIZE, err);
        if (x.pid < 0) {
            *err = "relay: " + *err;
            return false;
        }
    }
    x.alive = true;
    if (!bench::WaitConnectable(x.sock, x.pid, kStartMs, err)) {
        x.alive = false;
        *err = std::string(kSideName[x.index]) + ": " + *err;
        if (x.index == kServer && b.opt.serverLog == "/dev/null") {
            *err += " (its diagnostics went to /dev/null: see them with --server-log FILE)";
        }
        return false;
    }
    x.baseFds = bench::CountFds(x.pid);
    return true;
}

/* Waits until the target has closed what departed clients left (its
 * descriptor count is back to the idle one); a note when it does not. */
void WaitSettled(Bench &b, Target &x) {
    if (!x.alive || x.baseFds < 0) {
        return;
    }
    int64_t deadline = NowNs() + 3000000000LL;
    int n = -1;
    while (NowNs() < deadline && !gStop) {
        n = bench::CountFds(x.pid);
        if (n >= 0 && n <= x.baseFds) {
            return;
        }
        usleep(2000);
    }
    b.Note(std::string("the ") + kSideName[x.index] + " still holds " + std::to_string(n) +
           " descriptors 3 s after its clients left (idle: " + std::to_string(x.baseFds) + ")");
}

/* Brings the target's status clients up to n; false (with a note) when it
 * takes fewer. */
bool GrowStatusClients(Bench &b, Target &x, int n) {
    while (static_cast<int>(x.status.size()) < n && !gStop) {
        auto c = std::make_unique<BenchClient>();
        std::string err;
        if (!bench::Handshake(x.sock, kServiceStatus, static_cast<uint32_t>(getpid()), c.get(),
                              kHandshakeMs, &err)) {
            int fds = bench::CountFds(x.pid);
            std::string how;
            std::string state;
            if (bench::ChildEnded(x.pid, &how)) {
                state = "it ended (" + how + ")";
                x.alive = false;
                x.pid = -1;
            } else {
                state = "it holds " + std::to_string(fds) + " descriptors";
            }
            b.Note(std::string("the ") + kSideName[x.index] + " took " +
                   std::to_string(x.status.size()) + " of " + std::to_string(n) +
                   " status clients: client " + std::to_string(x.status.size() + 1) + ": " + err +
                   "; " + state);
            return false;
        }
        x.status.push_back(std::move(c));
    }
    return !gStop;
}

/* ---- (a) fan-out ---- */

std::vector<uint8_t> StatusFrame(int i) {
    bpsim::Bytes body;
    for (int f = 0; f < 8; ++f) {
        bpsim::PutU32(&body, static_cast<uint32_t>((i + f) & 7));
    }
    return bpsim::MakeFrame(bpsim::MakeMsg(STATUS_CHANGE_BPAP_IND, static_cast<uint8_t>(i),
                                           static_cast<uint8_t>(i >> 8), body));
}

bool WriteFrame(int fd, const std::vector<uint8_t> &frame, std::string *err) {
    size_t off = 0;
    while (off < frame.size()) {
        ssize_t w = write(fd, frame.data() + off, frame.size() - off);
        if (w > 0) {
            off += static_cast<size_t>(w);
        } else if (w < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        } else {
            *err = std::string("write on the terminal: ") + strerror(errno);
            return false;
        }
    }
    return true;
}

bool MeasureFanout(Bench &b, Target &x, int n, FanoutSide *out) {
    int master = x.sim->MasterFd();
    int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0) {
        b.Note(std::string("epoll_create1: ") + strerror(errno));
        return false;
    }
    for (int i = 0; i < n; ++i) {
        struct epoll_event ev;
        ev.events = EPOLLIN;
        ev.data.u32 = static_cast<uint32_t>(i);
        epoll_ctl(ep, EPOLL_CTL_ADD, x.status[static_cast<size_t>(i)]->async.Fd(), &ev);
    }
    int warmup = std::max(5, b.opt.broadcasts / 10);
    int total = warmup + b.opt.broadcasts;
    std::vector<int64_t> got(static_cast<size_t>(n));
    std::vector<struct epoll_event> events(static_cast<size_t>(std::min(n, 1024)));
    int64_t cpu0 = -1;
    bool precise = true;
    std::string err;
    bool ok = true;
    int lostInRow = 0;
    for (int k = 0; k < total && ok && !gStop; ++k) {
        if (k == warmup) {
            cpu0 = bench::CpuNs(x.pid, &precise);
        }
        std::vector<uint8_t> frame = StatusFrame(k);
        std::fill(got.begin(), got.end(), 0);
        int received = 0;
        int64_t t0 = NowNs();
        if (!WriteFrame(master, frame, &err)) {
            ok = false;
            break;
        }
        int64_t deadline = t0 + kBroadcastWaitMs * 1000000LL;
        while (received < n && ok && !gStop) {
            int64_t left = deadline - NowNs();
            if (left <= 0) {
                break;
            }
            int m = epoll_wait(ep, events.data(), static_cast<int>(events.size()),
                               static_cast<int>((left + 999999) / 1000000));
            if (m < 0 && errno != EINTR) {
                err = std::string("epoll_wait: ") + strerror(errno);
                ok = false;
                break;
            }
            for (int e = 0; e < m; ++e) {
                size_t ci = events[static_cast<size_t>(e)].data.u32;
                bench::Conn &conn = x.status[ci]->async;
                int r = conn.ReadAvailable(&err);
                int64_t now = NowNs();
                Msg msg;
                while (conn.Take(&msg)) {
                    if (msg.msgId == LAPI_STATUS_CHANGE_IND &&
                        msg.msgLen == LAPI_STATUS_CHANGE_IND_LEN && got[ci] == 0) {
                        got[ci] = now;
                        ++received;
                    }
                }
                if (r < 0) {
                    err = "status client " + std::to_string(ci + 1) + ": " + err;
                    ok = false;
                }
            }
        }
        if (!ok || gStop) {
            break;
        }
        if (received < n) {
            out->lost += n - received;
            if (++lostInRow >= 3) {
                err = "three broadcasts in a row did not reach every client within " +
                      std::to_string(kBroadcastWaitMs) + " ms";
                ok = false;
            }
            continue;
        }
        lostInRow = 0;
        if (k >= warmup) {
            int64_t first = INT64_MAX, last = 0;
            for (int64_t g : got) {
                first = std::min(first, g);
                last = std::max(last, g);
            }
            out->first.push_back(first - t0);
            out->last.push_back(last - t0);
        }
    }
    close(ep);
    if (ok && !gStop && cpu0 >= 0) {
        bool p2 = true;
        int64_t cpu1 = bench::CpuNs(x.pid, &p2);
        if (cpu1 >= 0 && !out->first.empty()) {
            out->cpuUs =
                static_cast<double>(cpu1 - cpu0) / 1000.0 / static_cast<double>(b.opt.broadcasts);
        }
        b.cpuPrecise = b.cpuPrecise && precise && p2;
    }
    if (!ok) {
        b.Note(std::string("fan-out to ") + std::to_string(n) + " clients, " + kSideName[x.index] +
               ": " + err);
    }
    if (out->lost > 0) {
        b.Note(std::string("fan-out to ") + std::to_string(n) + " clients, " + kSideName[x.index] +
               ": " + std::to_string(out->lost) +
               " deliveries missing (broadcasts not fully received are left out)");
    }
    std::sort(out->first.begin(), out->first.end());
    std::sort(out->last.begin(), out->last.end());
    out->ok = ok && !gStop && out->first.size() == static_cast<size_t>(b.opt.broadcasts);
    return ok;
}

/* ---- (b) round trips ---- */

bool SendLocationReq(BenchClient *c, std::string *err) {
    ++c->tid;
    std::vector<uint8_t> req = bench::LocationReq(c->tid);
    c->sentAt = NowNs();
    c->outstanding = true;
    return c->sync.SendAll(req.data(), req.size(), 1000, err);
}

bool MeasureRoundTrips(Bench &b, Target &x, int nClients, RtSide *out) {
    std::vector<std::unique_ptr<BenchClient>> clients;
    std::string err;
    for (int i = 0; i < nClients && !gStop; ++i) {
        auto c = std::make_unique<BenchClient>();
        if (!bench::Handshake(x.sock, kServicePlain, static_cast<uint32_t>(getpid()), c.get(),
                              kHandshakeMs, &err)) {
            b.Note(std::string("round trips with ") + std::to_string(nClients) + " clients, " +
                   kSideName[x.index] + ": client " + std::to_string(i + 1) + ": " + err);
            return false;
        }
        clients.push_back(std::move(c));
    }
    std::vector<struct pollfd> pfds;
    for (auto &c : clients) {
        pfds.push_back(pollfd{c->sync.Fd(), POLLIN, 0});
    }
    int64_t start = NowNs();
    int64_t warmupNs = static_cast<int64_t>(std::max(0.05, b.opt.rtSeconds / 10) * 1e9);
    int64_t measureFrom = start + warmupNs;
    int64_t end = measureFrom + static_cast<int64_t>(b.opt.rtSeconds * 1e9);
    int64_t drainUntil = end + 2000000000LL;
    int64_t lastProgress = start;
    bool ok = true;
    for (auto &c : clients) {
        if (!SendLocationReq(c.get(), &err)) {
            ok = false;
            break;
        }
    }
    int outstanding = static_cast<int>(clients.size());
    unsigned turns = 0;
    while (ok && !gStop) {
        int64_t now = NowNs();
        if (now >= end && outstanding == 0) {
            break;
        }
        if (now >= drainUntil) {
            err = std::to_string(outstanding) + " requests still unanswered 2 s after the end";
            ok = false;
            break;
        }
        if (now - lastProgress > 2000000000LL) {
            err = "no answer for 2 s (" + std::to_string(outstanding) + " requests outstanding)";
            ok = false;
            break;
        }
        if (x.sim->Poll(50, &pfds) < 0) {
            err = "the BP simulator's terminal failed";
            ok = false;
            break;
        }
        if ((++turns & 1023) == 0) {
            x.sim->ClearHistory();
            x.sim->ClearPending();
        }
        for (size_t i = 0; i < pfds.size() && ok; ++i) {
            if ((pfds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
                continue;
            }
            BenchClient *c = clients[i].get();
            int r = c->sync.ReadAvailable(&err);
            int64_t t = NowNs();
            Msg m;
            while (c->sync.Take(&m)) {
                bool answer = m.msgId == LAPI_GET_LOCATION_RSP &&
                              m.msgLen == LAPI_GET_LOCATION_RSP_LEN && m.body[0] == 1 &&
                              m.body[1] == c->tid;
                bool refusal =
                    (m.msgId == LAPI_TIME_OUT_RSP || m.msgId == LAPI_INVALID_REQUEST_RSP) &&
                    m.msgLen == 2 && m.body[1] == c->tid;
                if (!c->outstanding || (!answer && !refusal)) {
                    continue;
                }
                c->outstanding = false;
                --outstanding;
                lastProgress = t;
                if (refusal) {
                    ++out->errors;
                } else if (c->sentAt >= measureFrom && t <= end) {
                    out->lat.push_back(t - c->sentAt);
                    ++out->done;
                }
                if (t < end) {
                    if (!SendLocationReq(c, &err)) {
                        ok = false;
                        break;
                    }
                    ++outstanding;
                }
            }
            if (r < 0 && ok) {
                err = "client " + std::to_string(i + 1) + ": " + err;
                ok = false;
            }
        }
    }
    x.sim->ClearHistory();
    x.sim->ClearPending();
    clients.clear();
    out->seconds = static_cast<double>(end - measureFrom) / 1e9;
    std::sort(out->lat.begin(), out->lat.end());
    if (!ok) {
        b.Note(std::string("round trips with ") + std::to_string(nClients) + " clients, " +
               kSideName[x.index] + ": " + err);
    }
    if (out->errors > 0) {
        b.Note(std::string("round trips with ") + std::to_string(nClients) + " clients, " +
               kSideName[x.index] + ": " + std::to_string(out->errors) +
               " requests refused (timeOutRsp or invalidRequestRsp)");
    }
    out->ok = ok && !gStop && out->done > 0;
    WaitSettled(b, x);
    return ok;
}

/* ---- the table ---- */

std::string Num(double v) {
    if (std::isnan(v)) {
        return "n/a";
    }
    char buf[32];
    if (v >= 10000) {
        snprintf(buf, sizeof(buf), "%.0f", v);
    } else if (v >= 100) {
        snprintf(buf, sizeof(buf), "%.1f", v);
    } else {
        snprintf(buf, sizeof(buf), "%.2f", v);
    }
    return buf;
}

double Ratio(double a, double r) {
    return std::isnan(a) || std::isnan(r) || r <= 0 ? NAN : a / r;
}

void Row(FILE *f, const std::string &key, const char *figure, double s, double r) {
    fprintf(f, "  %-12s %-24s %12s %12s %8s\n", key.c_str(), figure, Num(s).c_str(), Num(r).c_str(),
            Num(Ratio(s, r)).c_str());
}

void Heading(FILE *f, const char *key) {
    fprintf(f, "  %-12s %-24s %12s %12s %8s\n", key, "figure", "server", "relay", "ratio");
}

std::string CpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            size_t colon = line.find(':');
            if (colon != std::string::npos) {
                return line.substr(line.find_first_not_of(" \t", colon + 1));
            }
        }
    }
    return "unknown CPU";
}

std::string LoadAvg() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

struct Machine {
    long cores = 0;
    std::string cpu;
    std::string kernel;
    std::string load;
};

Machine GetMachine() {
    Machine m;
    m.cores = sysconf(_SC_NPROCESSORS_ONLN);
    m.cpu = CpuModel();
    struct utsname u;
    if (uname(&u) == 0) {
        m.kernel = std::string(u.sysname) + " " + u.release;
    }
    m.load = LoadAvg();
    return m;
}

void PrintTable(const Bench &b, const Machine &m) {
    FILE *f = stdout;
    fprintf(f,
            "lapi_bench: LAPI SRV against a bare relay (same descriptors, same bytes, "
            "nothing else)\n");
    fprintf(f, "machine: %ld cores, %s, %s; load average at start %s\n", m.cores, m.cpu.c_str(),
            m.kernel.c_str(), m.load.c_str());
    fprintf(f, "build: %s; server: %s/lapi_srv_host, diagnostics to %s\n", LAPI_BENCH_BUILD,
            b.opt.binDir.c_str(), b.opt.serverLog.c_str());
    fprintf(f,
            "CPU outside the bench, the server and the relay during the run: %s%% of one core "
            "(other programs, interrupts, kernel threads; /proc/stat)\n",
            Num(b.otherLoadPct).c_str());
    fprintf(f, "times in microseconds; CPU time from /proc/PID/%s; ratio = server / relay\n",
            b.cpuPrecise ? "schedstat" : "stat (utime+stime, clock ticks)");

    fprintf(f,
            "\n(a) status change fan-out: BP STATUS_CHANGE_BPAP_IND -> statusChangeInd (42 bytes) "
            "to N status clients,\n    %d broadcasts per N; time from the BP's write on the "
            "terminal to the first / last client reading it\n",
            b.opt.broadcasts);
    Heading(f, "N");
    for (const FanoutPoint &p : b.fanout) {
        const FanoutSide &s = p.side[kServer];
        const FanoutSide &r = p.side[kRelay];
        std::string key = std::to_string(p.n);
        auto pick = [](const FanoutSide &x, const std::vector<int64_t> &v, double pc) {
            return x.ok ? PercentileUs(v, pc) : NAN;
        };
        Row(f, key, "first client p50 [us]", pick(s, s.first, 50), pick(r, r.first, 50));
        Row(f, key, "first client p99 [us]", pick(s, s.first, 99), pick(r, r.first, 99));
        Row(f, key, "last client p50 [us]", pick(s, s.last, 50), pick(r, r.last, 50));
        Row(f, key, "last client p99 [us]", pick(s, s.last, 99), pick(r, r.last, 99));
        Row(f, key, "CPU per broadcast [us]", s.ok ? s.cpuUs : NAN, r.ok ? r.cpuUs : NAN);
    }

    fprintf(f,
            "\n(b) get-location round trips: getLocationReq (single fix, mode sync) -> "
            "getLocationRsp (1022 bytes),\n    clients in a closed loop, the BP answering "
            "GEOLOCATION_APBP_RES at once; %.1f s per point\n",
            b.opt.rtSeconds);
    Heading(f, "clients");
    for (const RtPoint &p : b.rt) {
        const RtSide &s = p.side[kServer];
        const RtSide &r = p.side[kRelay];
        std::string key = std::to_string(p.clients);
        Row(f, key, "round trips per second", s.Rate(), r.Rate());
        Row(f, key, "latency p50 [us]", s.ok ? PercentileUs(s.lat, 50) : NAN,
            r.ok ? PercentileUs(r.lat, 50) : NAN);
        Row(f, key, "latency p99 [us]", s.ok ? PercentileUs(s.lat, 99) : NAN,
            r.ok ? PercentileUs(r.lat, 99) : NAN);
    }

    fprintf(f, "\n(c) private dirty memory: /proc/PID/smaps_rollup Private_Dirty\n");
    Heading(f, "state");
    for (const MemPoint &p : b.mem) {
        Row(f, p.state, "Private_Dirty [kB]", p.kb[kServer], p.kb[kRelay]);
    }
    /* Per client, from two readings: idle to the largest N, and the two
     * largest N. */
    auto perClient = [&](const MemPoint &first, const MemPoint &last) {
        double n = last.clients - first.clients;
        if (n > 0) {
            Row(f, std::to_string(first.clients) + "-" + std::to_string(last.clients),
                "per client [kB]", (last.kb[kServer] - first.kb[kServer]) / n,
                (last.kb[kRelay] - first.kb[kRelay]) / n);
        }
    };
    if (b.mem.size() >= 2) {
        perClient(b.mem.front(), b.mem.back());
    }
    if (b.mem.size() >= 3) {
        perClient(b.mem[b.mem.size() - 2], b.mem.back());
    }

    fprintf(f, "\nnotes:%s\n", b.notes.empty() ? " none" : "");
    for (const std::string &n : b.notes) {
        fprintf(f, "  - %s\n", n.c_str());
    }
    fflush(f);
}

/* ---- JSON ---- */

std::string JsonStr(const std::string &s) {
    std::string o = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
            o += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\u%04x", c);
            o += buf;
        } else {
            o += c;
        }
    }
    return o + "\"";
}

std::string JsonNum(double v) {
    if (std::isnan(v)) {
        return "null";
    }
    char buf[32];
    snprintf(buf, sizeof(buf), "%.3f", v);
    return buf;
}

/* The figures v[side][k] (named names[k]) of the server and of the relay,
 * each with its count countName, then their ratios: the members
 * , "server": {...}, "relay": {...}, "ratio": {...} of a point. */
template <size_t N>
std::string JsonSides(const double (&v)[2][N], const char *const (&names)[N], const char *countName,
                      const int (&count)[2]) {
    std::string j;
    for (int s = 0; s < 3; ++s) {
        j += std::string(", \"") + (s < 2 ? kSideName[s] : "ratio") + "\": {";
        for (size_t k = 0; k < N; ++k) {
            double val = s < 2 ? v[s][k] : Ratio(v[0][k], v[1][k]);
            j += std::string(k ? ", " : "") + "\"" + names[k] + "\": " + JsonNum(val);
        }
        if (s < 2) {
            j += std::string(", \"") + countName + "\": " + std::to_string(count[s]);
        }
        j += "}";
    }
    return j;
}

std::string Json(const Bench &b, const Machine &m) {
    std::string j = "{\n";
    j += "  \"machine\": {\"cores\": " + std::to_string(m.cores) + ", \"cpu\": " + JsonStr(m.cpu) +
         ", \"kernel\": " + JsonStr(m.kernel) + ", \"loadavg\": " + JsonStr(m.load) + "},\n";
    j += "  \"build\": " + JsonStr(LAPI_BENCH_BUILD) + ",\n";
    j += "  \"other_load_pct_of_one_core\": " + JsonNum(b.otherLoadPct) + ",\n";
    j += "  \"cpu_source\": " + JsonStr(b.cpuPrecise ? "schedstat" : "stat") + ",\n";
    j += "  \"broadcasts\": " + std::to_string(b.opt.broadcasts) + ",\n";
    j += "  \"rt_seconds\": " + JsonNum(b.opt.rtSeconds) + ",\n";
    j += "  \"fanout\": [";
    for (size_t i = 0; i < b.fanout.size(); ++i) {
        const FanoutPoint &p = b.fanout[i];
        j += i == 0 ? "\n" : ",\n";
        j += "    {\"n\": " + std::to_string(p.n);
        double v[2][5];
        for (int s = 0; s < 2; ++s) {
            const FanoutSide &x = p.side[s];
            v[s][0] = x.ok ? PercentileUs(x.first, 50) : NAN;
            v[s][1] = x.ok ? PercentileUs(x.first, 99) : NAN;
            v[s][2] = x.ok ? PercentileUs(x.last, 50) : NAN;
            v[s][3] = x.ok ? PercentileUs(x.last, 99) : NAN;
            v[s][4] = x.ok ? x.cpuUs : NAN;
        }
        const char *names[5] = {"first_p50_us", "first_p99_us", "last_p50_us", "last_p99_us",
                                "cpu_us_per_broadcast"};
        j += JsonSides(v, names, "lost", {p.side[0].lost, p.side[1].lost}) + "}";
    }
    j += "\n  ],\n  \"roundtrips\": [";
    for (size_t i = 0; i < b.rt.size(); ++i) {
        const RtPoint &p = b.rt[i];
        j += i == 0 ? "\n" : ",\n";
        j += "    {\"clients\": " + std::to_string(p.clients);
        double v[2][3];
        for (int s = 0; s < 2; ++s) {
            const RtSide &x = p.side[s];
            v[s][0] = x.Rate();
            v[s][1] = x.ok ? PercentileUs(x.lat, 50) : NAN;
            v[s][2] = x.ok ? PercentileUs(x.lat, 99) : NAN;
        }
        const char *names[3] = {"per_second", "p50_us", "p99_us"};
        j += JsonSides(v, names, "refused", {p.side[0].errors, p.side[1].errors}) + "}";
    }
    j += "\n  ],\n  \"memory\": [";
    for (size_t i = 0; i < b.mem.size(); ++i) {
        const MemPoint &p = b.mem[i];
        j += i == 0 ? "\n" : ",\n";
        j += "    {\"state\": " + JsonStr(p.state) +
             ", \"server_private_dirty_kb\": " + JsonNum(p.kb[kServer]) +
             ", \"relay_private_dirty_kb\": " + JsonNum(p.kb[kRelay]) +
             ", \"ratio\": " + JsonNum(Ratio(p.kb[kServer], p.kb[kRelay])) + "}";
    }
    j += "\n  ],\n  \"notes\": [";
    for (size_t i = 0; i < b.notes.size(); ++i) {
        j += (i == 0 ? "\n    " : ",\n    ") + JsonStr(b.notes[i]);
    }
    j += "\n  ]\n}\n";
    return j;
}

double MemKb(const Target &x) {
    if (!x.alive) {
        return NAN;
    }
    long kb = bench::PrivateDirtyKb(x.pid);
    return kb < 0 ? NAN : static_cast<double>(kb);
}

/* ---- the machine's other load ---- */

/* Busy CPU time of the whole machine in nanoseconds (/proc/stat), -1 when
 * unreadable. */
int64_t MachineBusyNs() {
    std::ifstream in("/proc/stat");
    std::string cpu;
    unsigned long long v[8] = {};
    if (!(in >> cpu) || cpu != "cpu") {
        return -1;
    }
    for (unsigned long long &x : v) {
        if (!(in >> x)) {
            return -1;
        }
    }
    /* user nice system idle iowait irq softirq steal: all but idle and iowait */
    unsigned long long busy = v[0] + v[1] + v[2] + v[5] + v[6] + v[7];
    long hz = sysconf(_SC_CLK_TCK);
    return static_cast<int64_t>(
        busy * (1000000000ULL / static_cast<unsigned long long>(hz > 0 ? hz : 100)));
}

int64_t SelfCpuNs() {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct LoadMark {
    int64_t wall = 0;
    int64_t busy = -1;
    int64_t self = 0;
};

LoadMark MarkLoad() {
    LoadMark m;
    m.wall = NowNs();
    m.busy = MachineBusyNs();
    m.self = SelfCpuNs();
    return m;
}

/* ---- the run ---- */

int Run(Bench &b) {
    std::string err;
    /* Both targets' status clients live in the bench at once, two
     * descriptors each, and then the round-trip clients of one target. */
    long maxRt = *std::max_element(b.opt.rtClients.begin(), b.opt.rtClients.end());
    long need = 4L * b.opt.fanout.back() + 2L * maxRt + kDescriptorRoom;
    long have = bench::RaiseNoFile(need);
    if (have < need) {
        fprintf(stderr,
                "lapi_bench: needs %ld descriptors but may open only %ld (hard limit); use a "
                "smaller --fanout or --rt-clients\n",
                need, have);
        return kExitFailed;
    }
    LoadMark start = MarkLoad();
    b.base = bench::MakeTempDir();
    if (b.base.empty()) {
        fprintf(stderr, "lapi_bench: cannot create a folder under /tmp: %s\n", strerror(errno));
        return kExitFailed;
    }
    /* The relay is forked first, while the bench is still small. */
    for (int i : {kRelay, kServer}) {
        b.t[i].index = i;
        if (!StartTarget(b, b.t[i], &err)) {
            fprintf(stderr, "lapi_bench: cannot start the %s: %s\n", kSideName[i], err.c_str());
            return kExitFailed;
        }
    }
    MemPoint idle;
    idle.state = "idle";
    for (int i : {kServer, kRelay}) {
        idle.kb[i] = MemKb(b.t[i]);
    }
    b.mem.push_back(idle);

    /* (a) */
    for (int n : b.opt.fanout) {
        if (gStop) {
            break;
        }
        FanoutPoint p;
        p.n = n;
        for (int i : {kServer, kRelay}) {
            Target &x = b.t[i];
            b.Progress("lapi_bench: fan-out to %s",
                       std::to_string(n) + " clients, " + kSideName[i]);
            if (!b.CheckAlive(x, "the fan-out") || !GrowStatusClients(b, x, n)) {
                continue;
            }
            MeasureFanout(b, x, n, &p.side[i]);
        }
        b.fanout.push_back(p);
        MemPoint loaded;
        loaded.state = std::to_string(n) + " clients";
        loaded.clients = n;
        for (int i : {kServer, kRelay}) {
            Target &x = b.t[i];
            if (static_cast<int>(x.status.size()) == n && b.CheckAlive(x, "the memory reading")) {
                loaded.kb[i] = MemKb(x);
            }
        }
        b.mem.push_back(loaded);
    }
    for (Target &x : b.t) {
        x.status.clear();
        WaitSettled(b, x);
    }

    /* (b) */
    for (int c : b.opt.rtClients) {
        if (gStop) {
            break;
        }
        RtPoint p;
        p.clients = c;
        for (int i : {kServer, kRelay}) {
            Target &x = b.t[i];
            b.Progress("lapi_bench: round trips with %s",
                       std::to_string(c) + " clients, " + kSideName[i]);
            if (!b.CheckAlive(x, "the round trips")) {
                continue;
            }
            MeasureRoundTrips(b, x, c, &p.side[i]);
        }
        b.rt.push_back(p);
    }
    if (gStop) {
        return kExitInterrupted;
    }
    LoadMark end = MarkLoad();
    int64_t ours = end.self - start.self;
    bool known = start.busy >= 0 && end.busy >= 0;
    for (Target &x : b.t) {
        bool precise = true;
        int64_t ns = x.alive ? bench::CpuNs(x.pid, &precise) : -1;
        known = known && ns >= 0;
        ours += ns;
    }
    if (known && end.wall > start.wall) {
        double other = static_cast<double>(end.busy - start.busy - ours);
        b.otherLoadPct = std::max(0.0, 100.0 * other / static_cast<double>(end.wall - start.wall));
    }
    for (const FanoutPoint &p : b.fanout) {
        b.missing = b.missing || !p.side[kServer].ok || !p.side[kRelay].ok;
    }
    for (const RtPoint &p : b.rt) {
        b.missing = b.missing || !p.side[kServer].ok || !p.side[kRelay].ok;
    }
    for (const MemPoint &p : b.mem) {
        b.missing = b.missing || std::isnan(p.kb[kServer]) || std::isnan(p.kb[kRelay]);
    }
    return b.missing ? kExitPartial : kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
    Bench b;
    int rc = ParseOptions(argc, argv, &b.opt);
    if (rc != 0) {
        return rc > 0 ? kExitOk : kExitUsage;
    }
    if (b.opt.profile || b.opt.syscalls) {
        signal(SIGPIPE, SIG_IGN);
        bench::ProfileOptions po;
        po.binDir = b.opt.binDir;
        po.serverLog = b.opt.serverLog;
        po.verbose = b.opt.verbose;
        po.quick = b.opt.quick;
        po.keepDir = b.opt.keepDir;
        int code = kExitOk;
        if (b.opt.profile) {
            code = std::max(code, bench::RunCountMode(po, bench::CountTool::Callgrind));
        }
        if (b.opt.syscalls) {
            code = std::max(code, bench::RunCountMode(po, bench::CountTool::Strace));
        }
        return code;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal; /* no SA_RESTART: waits return with EINTR */
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Machine m = GetMachine();
    int code = Run(b);
    /* The server's exit status on SIGTERM belongs to the notes. */
    b.Shutdown();
    if (code == kExitFailed) {
        return code;
    }
    if (code == kExitInterrupted) {
        fprintf(stderr, "lapi_bench: interrupted; everything it started is stopped\n");
        return code;
    }
    for (const std::string &n : b.notes) {
        if (n.find("on SIGTERM") != std::string::npos) {
            code = code == kExitOk ? kExitPartial : code;
        }
    }
    PrintTable(b, m);
    if (b.opt.json) {
        std::string j = Json(b, m);
        if (b.opt.jsonFile.empty()) {
            fputs("\n", stdout);
            fputs(j.c_str(), stdout);
        } else {
            FILE *f = fopen(b.opt.jsonFile.c_str(), "w");
            if (f == nullptr || fputs(j.c_str(), f) < 0 || fclose(f) != 0) {
                fprintf(stderr, "lapi_bench: cannot write %s: %s\n", b.opt.jsonFile.c_str(),
                        strerror(errno));
                return kExitFailed;
            }
        }
    }
    return code;
}
