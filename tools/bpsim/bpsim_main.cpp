/*
 * bpsim: the BP end of the mux channel for a server run on a host machine.
 *
 *   bpsim --root DIR [--lat X --lon Y --alt Z] [--nmea FILE] [--quiet]
 *
 * Links DIR/dev/mux18 to a raw pseudo-terminal, prints
 * "bpsim: ready DIR/dev/mux18" and answers location requests with the given
 * position. Commands on standard input, one per line:
 *   send HEX...        frame the message (header first) and send it
 *   raw HEX...         send the bytes as they are
 *   fix LAT LON ALT    answer with this position from now on
 *   silent ID          never answer requests with this subCmdId (hex)
 *   delay ID MS        answer them MS milliseconds late
 *   answer ID          answer them at once again
 *   result ID VALUE    result or status of the built-in answer to requests
 *                      with this subCmdId (hex): 02 abort, 04 db write,
 *                      06 db read, 19 add proximity, 1b remove proximity
 *   statusrsp U H F E S C SIG ICON   the fields of the status answer
 *   distance D A       the distance and azimuth answer
 *   dbfile ID HEX...   add a file to the db read answer; "dbfile clear"
 *   periodic MS        reports of periodic requests every MS ms (0: one)
 *   status U H F E S C SIG ICON      send a status change
 *   notify SID TID NTYPE LTYPE DCS NAME [ADDR]   send a notification
 *   notifystatus SID TID CAUSE       send a notification status
 *   hit [SID TID]      send a proximity hit (default: the oldest area)
 *   report SID TID     send one location response with the fix
 *   areas              print the proximity areas the simulator holds
 *   quit               leave
 * Numbers are decimal except subCmdIds and data (hex).
 * Unless --quiet, every message is echoed on standard output as
 * "bpsim: recv HEX" or "bpsim: sent HEX". SIGTERM and SIGINT end it cleanly,
 * removing the link. One thread, one poll loop.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "BpSim.h"
#include "lapi_version.h"

namespace {

const char kUsage[] = "usage: bpsim --root DIR [--lat X --lon Y --alt Z] [--nmea FILE] [--quiet]\n";

const char kHelp[] =
    "Plays the BP end of the location server's mux channel.\n"
    "\n"
    "  --root DIR   link DIR/dev/mux18 to the simulator's pseudo-terminal\n"
    "  --lat X      latitude of the answers (degrees, default 0)\n"
    "  --lon Y      longitude of the answers (degrees, default 0)\n"
    "  --alt Z      altitude of the answers (metres, default 0)\n"
    "  --nmea FILE  NMEA sentences sent with every position\n"
    "  --quiet      do not echo the messages\n"
    "  --help       this text\n"
    "  --version    the version\n"
    "\n"
    "Commands on standard input, one per line:\n"
    "  send HEX...      frame the message (header first) and send it\n"
    "  raw HEX...       send the bytes as they are\n"
    "  fix LAT LON ALT  answer with this position from now on\n"
    "  silent ID        never answer requests with this subCmdId (hex)\n"
    "  delay ID MS      answer them MS milliseconds late\n"
    "  answer ID        answer them at once again\n"
    "  result ID VALUE  result/status of the built-in answer to ID (hex):\n"
    "                   02 abort, 04 db write, 06 db read, 19 add, 1b remove\n"
    "  statusrsp U H F E S C SIG ICON  fields of the status answer\n"
    "  distance D A     distance and azimuth answer\n"
    "  dbfile ID HEX... add a file to the db read answer; dbfile clear\n"
    "  periodic MS      reports of periodic requests every MS ms (0: one)\n"
    "  status U H F E S C SIG ICON     send a status change\n"
    "  notify SID TID NTYPE LTYPE DCS NAME [ADDR]  send a notification\n"
    "  notifystatus SID TID CAUSE      send a notification status\n"
    "  hit [SID TID]    send a proximity hit (default: the oldest area)\n"
    "  report SID TID   send one location response with the fix\n"
    "  areas            print the proximity areas the simulator holds\n"
    "  quit             leave\n"
    "Numbers are decimal except subCmdIds and data (hex).\n";

bool ParseDouble(const char *s, double *out) {
    char *end = nullptr;
    errno = 0;
    double v = strtod(s, &end);
    if (end == s || *end != '\0' || errno != 0) {
        return false;
    }
    *out = v;
    return true;
}

bool ParseId(const std::string &s, uint8_t *out) {
    char *end = nullptr;
    unsigned long v = strtoul(s.c_str(), &end, 16);
    if (s.empty() || *end != '\0' || v > 0xFF) {
        return false;
    }
    *out = static_cast<uint8_t>(v);
    return true;
}

/* Decimal integers of a command, all of them in range. */
bool ParseInts(std::istringstream &args, size_t count, long lo, long hi, std::vector<long> *out) {
    out->clear();
    std::string tok;
    while (out->size() < count && args >> tok) {
        char *end = nullptr;
        errno = 0;
        long v = strtol(tok.c_str(), &end, 10);
        if (end == tok.c_str() || *end != '\0' || errno != 0 || v < lo || v > hi) {
            return false;
        }
        out->push_back(v);
    }
    return out->size() == count;
}

constexpr long kI32Min = -2147483648L;
constexpr long kI32Max = 2147483647L;

bpsim::Status StatusOf(const std::vector<long> &v) {
    bpsim::Status st;
    st.userStatus = static_cast<int32_t>(v[0]);
    st.hwStatus = static_cast<int32_t>(v[1]);
    st.fixStatus = static_cast<int32_t>(v[2]);
    st.emergencyStatus = static_cast<int32_t>(v[3]);
    st.fixResultStatus = static_cast<int32_t>(v[4]);
    st.fixResultCause = static_cast<int32_t>(v[5]);
    st.signalStatus = static_cast<int32_t>(v[6]);
    st.iconStatus = static_cast<int32_t>(v[7]);
    return st;
}

/* The commands that set results or send indications; false when cmd is
 * not one of them. */
bool RunLocationCommand(bpsim::Simulator *sim, const std::string &cmd, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<long> v;
    if (cmd == "result") {
        std::string id;
        args >> id;
        uint8_t subCmdId = 0;
        bpsim::Results r = sim->GetResults();
        if (!ParseId(id, &subCmdId) || !ParseInts(args, 1, kI32Min, kI32Max, &v)) {
            fprintf(stderr, "bpsim: usage: result ID VALUE\n");
            return true;
        }
        int32_t value = static_cast<int32_t>(v[0]);
        switch (subCmdId) {
            case GEOLOCATION_ABORT_APBP_REQ:
                r.abortResult = value;
                break;
            case DB_WRITE_APBP_REQ:
                r.dbWriteResult = value;
                break;
            case DB_READ_APBP_REQ:
                r.dbReadResult = value;
                break;
            case PROXIMITY_ADD_APBP_REQ:
                r.addProximityStatus = value;
                break;
            case PROXIMITY_REM_APBP_REQ:
                r.removeProximityStatus = value;
                break;
            default:
                fprintf(stderr, "bpsim: no result for subCmdId: %s\n", id.c_str());
                return true;
        }
        sim->SetResults(r);
    } else if (cmd == "statusrsp" || cmd == "status") {
        if (!ParseInts(args, 8, kI32Min, kI32Max, &v)) {
            fprintf(stderr, "bpsim: usage: %s U H F E S C SIG ICON\n", cmd.c_str());
            return true;
        }
        if (cmd == "status") {
            sim->SendStatusChange(StatusOf(v));
        } else {
            bpsim::Results r = sim->GetResults();
            r.status = StatusOf(v);
            sim->SetResults(r);
        }
    } else if (cmd == "distance") {
        std::string d, a;
        args >> d >> a;
        bpsim::Results r = sim->GetResults();
        if (!ParseDouble(d.c_str(), &r.distance) || !ParseDouble(a.c_str(), &r.azimuth)) {
            fprintf(stderr, "bpsim: usage: distance D A\n");
            return true;
        }
        sim->SetResults(r);
    } else if (cmd == "dbfile") {
        bpsim::Results r = sim->GetResults();
        std::string first;
        args >> first;
        if (first == "clear") {
            r.dbFiles.clear();
            sim->SetResults(r);
            return true;
        }
        std::string hex;
        std::getline(args, hex);
        char *end = nullptr;
        errno = 0;
        unsigned long fileId = strtoul(first.c_str(), &end, 10);
        auto data = bpsim::ParseHex(hex);
        if (first.empty() || *end != '\0' || errno != 0 || fileId > 0xFFFFFFFFul || !data ||
            data->empty() || data->size() > LAPI_BP_MAX_DB_FILE_DATA_LEN ||
            r.dbFiles.size() >= LAPI_BP_MAX_DB_FILES) {
            fprintf(stderr, "bpsim: usage: dbfile ID HEX (1 to 4 bytes, at most 22 files)\n");
            return true;
        }
        r.dbFiles.push_back(bpsim::DbFile{static_cast<uint32_t>(fileId), *data});
        sim->SetResults(r);
    } else if (cmd == "periodic") {
        if (!ParseInts(args, 1, 0, 3600000, &v)) {
            fprintf(stderr, "bpsim: usage: periodic MS\n");
            return true;
        }
        bpsim::Results r = sim->GetResults();
        r.periodicMs = static_cast<int>(v[0]);
        sim->SetResults(r);
    } else if (cmd == "notify") {
        std::vector<long> ids;
        if (!ParseInts(args, 2, 0, 255, &ids) || !ParseInts(args, 2, kI32Min, kI32Max, &v)) {
            fprintf(stderr, "bpsim: usage: notify SID TID NTYPE LTYPE DCS NAME [ADDR]\n");
            return true;
        }
        std::vector<long> dcs;
        std::string name, addr;
        if (!ParseInts(args, 1, 0, 255, &dcs) || !(args >> name)) {
            fprintf(stderr, "bpsim: usage: notify SID TID NTYPE LTYPE DCS NAME [ADDR]\n");
            return true;
        }
        args >> addr;
        if (name.size() > LAPI_BP_MAX_CLIENT_NAME_LEN / 2 ||
            addr.size() > LAPI_BP_MAX_CLIENT_ADDR_LEN) {
            fprintf(stderr, "bpsim: name or address too long\n");
            return true;
        }
        bpsim::Notification n;
        n.sessionId = static_cast<uint8_t>(ids[0]);
        n.transactionId = static_cast<uint8_t>(ids[1]);
        n.notificationType = static_cast<int32_t>(v[0]);
        n.locationType = static_cast<int32_t>(v[1]);
        n.dataCodingSchema = static_cast<uint8_t>(dcs[0]);
        n.name = bpsim::Ucs2(name);
        n.address = addr;
        sim->SendLocationNotification(n);
    } else if (cmd == "notifystatus") {
        std::vector<long> ids;
        if (!ParseInts(args, 2, 0, 255, &ids) || !ParseInts(args, 1, kI32Min, kI32Max, &v)) {
            fprintf(stderr, "bpsim: usage: notifystatus SID TID CAUSE\n");
            return true;
        }
        sim->SendNotificationStatus(static_cast<uint8_t>(ids[0]), static_cast<uint8_t>(ids[1]),
                                    static_cast<int32_t>(v[0]));
    } else if (cmd == "hit" || cmd == "report") {
        std::vector<long> ids;
        bool bHaveIds = ParseInts(args, 2, 0, 255, &ids);
        if (!bHaveIds && cmd == "hit" && rest.find_first_not_of(" \t") == std::string::npos) {
            auto areas = sim->Areas();
            if (areas.empty()) {
                fprintf(stderr, "bpsim: no proximity area\n");
                return true;
            }
            ids = {areas.front().first, areas.front().second};
            bHaveIds = true;
        }
        if (!bHaveIds) {
            fprintf(stderr, "bpsim: usage: %s SID TID\n", cmd.c_str());
            return true;
        }
        uint8_t sid = static_cast<uint8_t>(ids[0]);
        uint8_t tid = static_cast<uint8_t>(ids[1]);
        if (cmd == "hit") {
            sim->SendProximityHit(sid, tid);
        } else {
            sim->SendFix(sid, tid);
        }
    } else if (cmd == "areas") {
        std::string line = "bpsim: areas";
        for (const bpsim::Pair &a : sim->Areas()) {
            line += " " + std::to_string(a.first) + "," + std::to_string(a.second);
        }
        printf("%s\n", line.c_str());
        fflush(stdout);
    } else {
        return false;
    }
    return true;
}

/* One command line; false for "quit". */
bool RunCommand(bpsim::Simulator *sim, const std::string &line) {
    std::istringstream in(line);
    std::string cmd;
    in >> cmd;
    if (cmd.empty()) {
        return true;
    }
    std::string rest;
    std::getline(in, rest);
    if (cmd == "quit") {
        return false;
    }
    if (cmd == "send" || cmd == "raw") {
        auto bytes = bpsim::ParseHex(rest);
        if (!bytes || bytes->empty()) {
            fprintf(stderr, "bpsim: bad hex: %s\n", rest.c_str());
            return true;
        }
        bool ok = cmd == "send" ? sim->Send(*bytes) : sim->SendRaw(*bytes);
        if (!ok) {
            fprintf(stderr, "bpsim: cannot send\n");
        }
        return true;
    }
    if (cmd == "fix") {
        std::istringstream args(rest);
        std::string a, b, c;
        args >> a >> b >> c;
        bpsim::Fix fix = sim->GetFix();
        if (!ParseDouble(a.c_str(), &fix.latitude) || !ParseDouble(b.c_str(), &fix.longitude) ||
            !ParseDouble(c.c_str(), &fix.altitude)) {
            fprintf(stderr, "bpsim: usage: fix LAT LON ALT\n");
            return true;
        }
        sim->SetFix(fix);
        return true;
    }
    if (cmd == "silent" || cmd == "answer" || cmd == "delay") {
        std::istringstream args(rest);
        std::string id, ms;
        args >> id >> ms;
        uint8_t subCmdId = 0;
        if (!ParseId(id, &subCmdId)) {
            fprintf(stderr, "bpsim: bad subCmdId: %s\n", id.c_str());
            return true;
        }
        bpsim::Policy policy;
        if (cmd == "silent") {
            policy.answer = bpsim::Answer::Silent;
        } else if (cmd == "delay") {
            double delay = 0;
            if (!ParseDouble(ms.c_str(), &delay) || delay < 0 || delay > 3600000) {
                fprintf(stderr, "bpsim: usage: delay ID MS\n");
                return true;
            }
            policy.answer = bpsim::Answer::After;
            policy.delayMs = static_cast<int>(delay);
        }
        sim->SetPolicy(subCmdId, policy);
        return true;
    }
    if (RunLocationCommand(sim, cmd, rest)) {
        return true;
    }
    fprintf(stderr, "bpsim: unknown command: %s\n", cmd.c_str());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    bpsim::Options options;
    bool quiet = false;
    std::string nmeaFile;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](const char **out) {
            if (i + 1 >= argc) {
                return false;
            }
            *out = argv[++i];
            return true;
        };
        const char *v = nullptr;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            fputs(kHelp, stdout);
            return 0;
        } else if (arg == "--version") {
            printf("bpsim %s\n", LAPI_VERSION_STRING);
            return 0;
        } else if (arg == "--quiet") {
            quiet = true;
        } else if (arg == "--root" && value(&v)) {
            options.root = v;
        } else if (arg == "--lat" && value(&v) && ParseDouble(v, &options.fix.latitude)) {
        } else if (arg == "--lon" && value(&v) && ParseDouble(v, &options.fix.longitude)) {
        } else if (arg == "--alt" && value(&v) && ParseDouble(v, &options.fix.altitude)) {
        } else if (arg == "--nmea" && value(&v)) {
            nmeaFile = v;
        } else {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    if (options.root.empty()) {
        fputs(kUsage, stderr);
        return 2;
    }
    if (!nmeaFile.empty()) {
        auto nmea = bpsim::LoadNmeaFile(nmeaFile);
        if (!nmea) {
            fprintf(stderr, "bpsim: cannot read %s: %s\n", nmeaFile.c_str(), strerror(errno));
            return 1;
        }
        options.fix.nmea = *nmea;
    }

    /* Signals arrive as readable data in the loop: no handler, no race
     * between a flag and poll. */
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    if (sigprocmask(SIG_BLOCK, &mask, nullptr) < 0) {
        perror("bpsim: sigprocmask");
        return 1;
    }
    int sigFd = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
    if (sigFd < 0) {
        perror("bpsim: signalfd");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);

    bpsim::Simulator sim(options);
    if (!quiet) {
        sim.SetTrace([](const char *what, const bpsim::Bytes &bytes) {
            printf("bpsim: %s %s\n", what, bpsim::ToHex(bytes).c_str());
            fflush(stdout);
        });
    }
    std::string error;
    if (!sim.Open(&error)) {
        fprintf(stderr, "bpsim: %s\n", error.c_str());
        close(sigFd);
        return 1;
    }
    printf("bpsim: ready %s\n", sim.LinkPath().c_str());
    fflush(stdout);

    bool stdinOpen = true;
    std::string input;
    bool running = true;
    while (running) {
        std::vector<pollfd> extra;
        extra.push_back(pollfd{sigFd, POLLIN, 0});
        extra.push_back(pollfd{stdinOpen ? STDIN_FILENO : -1, POLLIN, 0});
        if (sim.Poll(-1, &extra) < 0) {
            fprintf(stderr, "bpsim: poll: %s\n", strerror(errno));
            break;
        }
        if (extra[0].revents & POLLIN) {
            struct signalfd_siginfo si;
            if (read(sigFd, &si, sizeof(si)) > 0) {
                running = false;
            }
        }
        if (stdinOpen && (extra[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            char buf[4096];
            ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
            if (n > 0) {
                input.append(buf, static_cast<size_t>(n));
                size_t nl;
                while (running && (nl = input.find('\n')) != std::string::npos) {
                    std::string line = input.substr(0, nl);
                    input.erase(0, nl + 1);
                    running = RunCommand(&sim, line);
                }
                if (input.size() > 65536) {
                    input.clear(); /* no command is that long */
                }
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                /* End of input: keep serving the channel until a signal. */
                stdinOpen = false;
            }
        }
    }
    sim.Close();
    close(sigFd);
    return 0;
}
