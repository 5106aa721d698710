#include "bench_profile.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "ToolCommon.h"
#include "bench_conn.h"
#include "bench_proc.h"

namespace bench {
namespace {

constexpr uint32_t kServiceStatus = 4;
constexpr uint32_t kServicePlain = 1;
/* Under valgrind the server starts and runs some 50 times slower. */
constexpr int kStartMs = 60000;
constexpr int kWaitMs = 30000;
constexpr int kStopMs = 60000;

/* One run: status clients registered, broadcasts sent to them, then round
 * trips of one more client. */
struct Scenario {
    int statusClients = 0;
    int broadcasts = 0;
    int roundTrips = 0;
};

std::string FindInPath(const std::string &name) {
    const char *path = getenv("PATH");
    std::stringstream ss(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(ss, dir, ':')) {
        std::string full = (dir.empty() ? "." : dir) + "/" + name;
        if (access(full.c_str(), X_OK) == 0) {
            return full;
        }
    }
    return "";
}

/* The first number after "summary:" (callgrind's total of instructions). */
bool ParseCallgrind(const std::string &file, double *count) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("summary:", 0) == 0 || line.rfind("totals:", 0) == 0) {
            *count = strtod(line.c_str() + line.find(':') + 1, nullptr);
            return true;
        }
    }
    return false;
}

/* The calls column of strace -c's "total" line. */
bool ParseStrace(const std::string &file, double *count) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::vector<std::string> tok;
        std::string t;
        while (ls >> t) {
            tok.push_back(t);
        }
        if (tok.size() >= 5 && tok.back() == "total") {
            *count = strtod(tok[3].c_str(), nullptr);
            return true;
        }
    }
    return false;
}

bpsim::Bytes StatusMsg(int i) {
    bpsim::Bytes body;
    for (int f = 0; f < 8; ++f) {
        bpsim::PutU32(&body, static_cast<uint32_t>((i + f) & 7));
    }
    return bpsim::MakeMsg(STATUS_CHANGE_BPAP_IND, static_cast<uint8_t>(i),
                          static_cast<uint8_t>(i >> 8), body);
}

/* Waits for a message with this identifier, skipping others. */
bool WaitFor(Conn &conn, uint16_t msgId, std::string *err) {
    Msg m;
    do {
        if (!conn.WaitMsg(&m, kWaitMs, err)) {
            return false;
        }
    } while (m.msgId != msgId);
    return true;
}

/* Runs the scenario with the server under the tool; *count gets the
 * tool's figure for the whole run. */
bool RunOnce(const ProfileOptions &o, CountTool tool, const std::string &toolPath,
             const Scenario &sc, double *count, std::string *err) {
    std::string base = MakeTempDir();
    if (base.empty()) {
        *err = std::string("cannot create a folder under /tmp: ") + strerror(errno);
        return false;
    }
    struct Remove {
        std::string dir;
        ~Remove() { RemoveTree(dir); }
    } remove{base};
    std::string root = base + "/s";
    std::string sock = root + "/tmp/lapisock";
    if (!MakeDirs(root + "/tmp") || !MakeDirs(root + "/dev")) {
        *err = "cannot create " + root;
        return false;
    }
    bpsim::Options so;
    so.root = root;
    bpsim::Simulator sim(so);
    if (!sim.Open(err) || !sim.StartThread()) {
        *err = "BP simulator: " + *err;
        return false;
    }
    int port = FreeUdpPort();
    std::string out = base + "/count";
    std::vector<std::string> argv;
    if (tool == CountTool::Callgrind) {
        argv = {toolPath, "-q", "--tool=callgrind", "--callgrind-out-file=" + out};
    } else {
        argv = {toolPath, "-f", "-c", "-o", out};
    }
    for (const std::string &a : {o.binDir + "/lapi_srv_host", std::string("--root"), root,
                                 std::string("--push-port"), std::to_string(port)}) {
        argv.push_back(a);
    }
    long noFile = std::max<long>(2L * sc.statusClients + 64, FD_SETSIZE);
    pid_t pid = SpawnProgram(argv, o.serverLog, noFile, err);
    if (pid < 0) {
        return false;
    }
    std::vector<std::unique_ptr<BenchClient>> clients;
    bool ok = WaitConnectable(sock, pid, kStartMs, err);
    for (int i = 0; ok && i < sc.statusClients; ++i) {
        clients.push_back(std::make_unique<BenchClient>());
        ok = Handshake(sock, kServiceStatus, static_cast<uint32_t>(getpid()), clients.back().get(),
                       kWaitMs, err);
    }
    for (int k = 0; ok && k < sc.broadcasts; ++k) {
        ok = sim.Send(StatusMsg(k));
        for (size_t i = 0; ok && i < clients.size(); ++i) {
            ok = WaitFor(clients[i]->async, LAPI_STATUS_CHANGE_IND, err);
        }
    }
    if (ok && sc.roundTrips > 0) {
        clients.push_back(std::make_unique<BenchClient>());
        BenchClient *c = clients.back().get();
        ok = Handshake(sock, kServicePlain, static_cast<uint32_t>(getpid()), c, kWaitMs, err);
        for (int k = 0; ok && k < sc.roundTrips; ++k) {
            std::vector<uint8_t> req = LocationReq(static_cast<uint8_t>(k + 1));
            ok = c->sync.SendAll(req.data(), req.size(), kWaitMs, err) &&
                 WaitFor(c->sync, LAPI_GET_LOCATION_RSP, err);
        }
    }
    /* SIGTERM goes to the server itself (under strace it is a child of the
     * tool); the tool writes its figures when the server has exited. */
    pid_t serverPid = 0;
    {
        std::ifstream pf(root + "/tmp/lapi.pid");
        pf >> serverPid;
    }
    if (serverPid > 0) {
        kill(serverPid, SIGTERM);
    }
    std::string how;
    /* Only a child that has not ended is stopped: one already reaped must
     * not be signalled by its old pid. */
    if (!toolcommon::PollUntil([&] { return ChildEnded(pid, &how); }, kStopMs, 10)) {
        int code = 0;
        StopChild(pid, 1000, &code);
    }
    clients.clear();
    sim.Close();
    if (!ok) {
        return false;
    }
    bool parsed =
        tool == CountTool::Callgrind ? ParseCallgrind(out, count) : ParseStrace(out, count);
    if (!parsed) {
        *err = "no total in the tool's output " + out;
    }
    if (!o.keepDir.empty()) {
        std::string kept = o.keepDir + "/" +
                           (tool == CountTool::Callgrind ? "callgrind" : "strace") + ".s" +
                           std::to_string(sc.statusClients) + ".b" + std::to_string(sc.broadcasts) +
                           ".rt" + std::to_string(sc.roundTrips);
        if (rename(out.c_str(), kept.c_str()) != 0) {
            std::ifstream src(out, std::ios::binary);
            std::ofstream dst(kept, std::ios::binary);
            dst << src.rdbuf();
        }
    }
    return parsed;
}

struct Row {
    std::string figure;
    double value = -1;
    std::string target;
};

}  // namespace

int RunCountMode(const ProfileOptions &o, CountTool tool) {
    std::string host = o.binDir + "/lapi_srv_host";
    if (access(host.c_str(), X_OK) != 0) {
        fprintf(stderr, "lapi_bench: no lapi_srv_host at %s (use --bin-dir DIR)\n", host.c_str());
        return 1;
    }
    const char *toolName = tool == CountTool::Callgrind ? "valgrind" : "strace";
    std::string toolPath = FindInPath(toolName);
    if (toolPath.empty()) {
        fprintf(stderr, "lapi_bench: %s not found on PATH (scripts/deps.sh installs it)\n",
                toolName);
        return 1;
    }
    bool missing = false;
    auto run = [&](const Scenario &sc, double *count) {
        if (o.verbose) {
            fprintf(stderr,
                    "lapi_bench: %s run: %d status clients, %d broadcasts, %d round trips\n",
                    toolName, sc.statusClients, sc.broadcasts, sc.roundTrips);
        }
        std::string err;
        if (!RunOnce(o, tool, toolPath, sc, count, &err)) {
            fprintf(stderr, "lapi_bench: %s run failed: %s\n", toolName, err.c_str());
            missing = true;
            return false;
        }
        return true;
    };
    /* Per operation: the difference of two runs over the difference of
     * their operation counts. */
    auto perOp = [&](Scenario a, Scenario b, int ops) {
        double ca = 0;
        double cb = 0;
        if (!run(a, &ca) || !run(b, &cb) || ops == 0) {
            return -1.0;
        }
        return (cb - ca) / ops;
    };
    const int rt1 = o.quick ? 5 : 20;
    const int rt2 = o.quick ? 25 : 120;
    const int b1 = o.quick ? 5 : 10;
    const int b2 = o.quick ? 20 : 60;
    std::vector<Row> rows;
    const char *unit = tool == CountTool::Callgrind ? "instructions" : "system calls";
    {
        Scenario a;
        a.roundTrips = rt1;
        Scenario b = a;
        b.roundTrips = rt2;
        rows.push_back({std::string("get-location round trip [") + unit + "]",
                        perOp(a, b, rt2 - rt1),
                        tool == CountTool::Callgrind ? "<= 30000" : "<= 17"});
    }
    if (tool == CountTool::Callgrind) {
        const int n1 = 1;
        const int n2 = o.quick ? 6 : 11;
        double c[2][2] = {{0, 0}, {0, 0}};
        bool ok = true;
        for (int i = 0; i < 2 && ok; ++i) {
            for (int j = 0; j < 2 && ok; ++j) {
                Scenario s;
                s.statusClients = i == 0 ? n1 : n2;
                s.broadcasts = j == 0 ? b1 : b2;
                ok = run(s, &c[i][j]);
            }
        }
        double one = ok ? (c[0][1] - c[0][0]) / (b2 - b1) : -1;
        double extra = ok ? ((c[1][1] - c[1][0]) - (c[0][1] - c[0][0])) /
                                (static_cast<double>(b2 - b1) * (n2 - n1))
                          : -1;
        rows.push_back({"status broadcast to 1 client [instructions]", one, ""});
        rows.push_back({"status broadcast, per extra client [instructions]", extra, "<= 400"});
    } else {
        for (int n : o.quick ? std::vector<int>{1, 10} : std::vector<int>{1, 10, 60}) {
            Scenario a;
            a.statusClients = n;
            a.broadcasts = b1;
            Scenario b = a;
            b.broadcasts = b2;
            rows.push_back({"status broadcast to " + std::to_string(n) + " clients [system calls]",
                            perOp(a, b, b2 - b1), "<= " + std::to_string(n + 5)});
        }
    }
    printf("(%s) counted with %s, the server's diagnostics to %s\n",
           tool == CountTool::Callgrind ? "d" : "e",
           tool == CountTool::Callgrind ? "callgrind (user-space instructions)" : "strace -c -f",
           o.serverLog.c_str());
    printf("  %-52s %12s   %s\n", "figure", "server", "target");
    for (const Row &r : rows) {
        char value[32];
        if (r.value < 0) {
            snprintf(value, sizeof(value), "%s", "-");
        } else {
            snprintf(value, sizeof(value), "%.1f", r.value);
        }
        printf("  %-52s %12s   %s\n", r.figure.c_str(), value, r.target.c_str());
    }
    return missing ? 3 : 0;
}

}  // namespace bench
