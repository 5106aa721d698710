/*
 * bpsim: the BP end of the mux channel for a server run on a host machine.
 *
 *   bpsim --root DIR [--lat X --lon Y --alt Z] [--nmea FILE] [--script FILE] [--quiet]
 *
 * Links DIR/dev/mux18 to a raw pseudo-terminal, prints
 * "bpsim: ready DIR/dev/mux18" and answers every request of the server:
 * location requests with the given position, periodic ones at the interval
 * they ask for. Commands, one per line, come from standard input and from
 * the script file; the table kCommands below lists them. Unless --quiet,
 * every message is echoed on standard output as "bpsim: recv HEX" or
 * "bpsim: sent HEX". Every push indication is shown, quiet or not, as
 * "bpsim: push indication, N bytes: HEX" (its content), and every socket
 * answer and received-data indication of the server as "bpsim: socket ...".
 * SIGTERM and SIGINT end it cleanly, removing the link. One thread, one poll
 * loop.
 *
 * One simulator per root: DIR/dev/bpsim.lock is held (flock) for the whole
 * run, and a link DIR/dev/mux18 that still leads to a live terminal is not
 * taken over.
 */
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "BpSim.h"
#include "BpSimNet.h"
#include "lapi_version.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;
/* How long "quit" keeps serving so that the last messages reach the server. */
constexpr int kQuitGraceMs = 200;
/* The longest sleep of a script and the longest replay step: an hour. */
constexpr long kMaxWaitMs = 3600000;

const char kUsage[] =
    "usage: bpsim --root DIR [--lat X --lon Y --alt Z] [--nmea FILE] [--script FILE] [--quiet]\n";

const char kHelp[] =
    "Plays the BP end of the location server's mux channel.\n"
    "\n"
    "  --root DIR     the root of 'lapi_srv_host --root DIR': an absolute path to an\n"
    "                 existing folder; links DIR/dev/mux18 to the simulator's\n"
    "                 pseudo-terminal. One simulator per root (DIR/dev/bpsim.lock).\n"
    "  --lat X        latitude of the answers (degrees, -90 to 90, default 0)\n"
    "  --lon Y        longitude of the answers (degrees, -180 to 180, default 0)\n"
    "  --alt Z        altitude of the answers (metres, default 0)\n"
    "  --nmea FILE    NMEA sentences sent with every position\n"
    "  --script FILE  run the commands of FILE, one per line, from the start\n"
    "  --quiet        do not echo the messages (push indications are still shown)\n"
    "  -h, --help     this text\n"
    "  --version      the version\n"
    "\n"
    "Every request is answered at once: location and last-known requests with\n"
    "the position, periodic requests with a report at once and then one every\n"
    "interval that the request asks for, until its abort.\n"
    "\n"
    "Commands, one per line, on standard input and in a script:\n";

const char kHelpTail[] =
    "Numbers are decimal except subCmdIds and data (hex). In a script, a line\n"
    "that starts with '#' is a comment and 'sleep MS' waits before the next line;\n"
    "the channel is served meanwhile. Standard input and the script run side by\n"
    "side, each in its own order. A script ends with its last line (the\n"
    "simulator keeps serving) or with 'quit'.\n";

/* ---- parsing ---- */

bool ParseDouble(const std::string &s, double *out) {
    char *end = nullptr;
    errno = 0;
    double v = strtod(s.c_str(), &end);
    if (s.empty() || end == s.c_str() || *end != '\0' || errno != 0 || !isfinite(v)) {
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
bool ParseInts(std::istringstream &args, size_t count, int64_t lo, int64_t hi,
               std::vector<int64_t> *out) {
    out->clear();
    std::string tok;
    while (out->size() < count && args >> tok) {
        char *end = nullptr;
        errno = 0;
        long long v = strtoll(tok.c_str(), &end, 10);
        if (end == tok.c_str() || *end != '\0' || errno != 0 || v < lo || v > hi) {
            return false;
        }
        out->push_back(v);
    }
    return out->size() == count;
}

constexpr int64_t kI32Min = INT32_MIN;
constexpr int64_t kI32Max = INT32_MAX;

bpsim::Status StatusOf(const std::vector<int64_t> &v) {
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

/* ---- the running simulator and its command sources ---- */

/* Lines that run in order; "sleep" holds the rest back until resumeAt. */
struct LineSource {
    std::string name; /* "FILE" for messages, empty for standard input */
    std::deque<std::pair<int, std::string>> lines; /* line number, text */
    Clock::time_point resumeAt{};
};

/* A track being replayed: one position every stepMs. */
struct Replay {
    std::vector<bpsim::TrackPoint> track;
    size_t next = 0;
    int stepMs = 1000;
    Clock::time_point due{};
    bool active = false;
};

struct Session {
    bpsim::Simulator *sim = nullptr;
    bool quiet = false;
    bool quit = false;
    LineSource *source = nullptr; /* the source of the running command */
    Replay replay;
};

void Say(const Session &s, const std::string &line) {
    if (!s.quiet) {
        printf("bpsim: %s\n", line.c_str());
        fflush(stdout);
    }
}

/* A command's handler: "" when it ran, else what was wrong ("usage"
 * prints the row's usage). */
using Handler = std::string (*)(Session &s, const std::string &rest);

struct CommandRow {
    const char *name;
    const char *args;
    const char *help;
    Handler run;
};

std::string CmdSend(Session &s, const std::string &rest, bool raw) {
    auto bytes = bpsim::ParseHex(rest);
    if (!bytes || bytes->empty()) {
        return "bad hex:" + rest;
    }
    bool ok = raw ? s.sim->SendRaw(*bytes) : s.sim->Send(*bytes);
    return ok ? "" : "cannot send";
}

std::string CmdFramed(Session &s, const std::string &rest) {
    return CmdSend(s, rest, false);
}

std::string CmdRaw(Session &s, const std::string &rest) {
    return CmdSend(s, rest, true);
}

std::string CmdFix(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::string a, b, c;
    args >> a >> b >> c;
    bpsim::Fix fix = s.sim->GetFix();
    if (!ParseDouble(a, &fix.latitude) || !ParseDouble(b, &fix.longitude) ||
        !ParseDouble(c, &fix.altitude)) {
        return "usage";
    }
    s.sim->SetFix(fix);
    return "";
}

/* silent, delay and answer: the policy of one subCmdId. */
std::string SetAnswer(Session &s, const std::string &rest, bpsim::Answer answer) {
    std::istringstream args(rest);
    std::string id, ms;
    args >> id >> ms;
    uint8_t subCmdId = 0;
    if (!ParseId(id, &subCmdId)) {
        return "bad subCmdId: " + id;
    }
    bpsim::Policy policy;
    policy.answer = answer;
    if (answer == bpsim::Answer::After) {
        double delay = 0;
        if (!ParseDouble(ms, &delay) || delay < 0 || delay > kMaxWaitMs) {
            return "usage";
        }
        policy.delayMs = static_cast<int>(delay);
    }
    s.sim->SetPolicy(subCmdId, policy);
    return "";
}

std::string CmdSilent(Session &s, const std::string &rest) {
    return SetAnswer(s, rest, bpsim::Answer::Silent);
}
std::string CmdDelay(Session &s, const std::string &rest) {
    return SetAnswer(s, rest, bpsim::Answer::After);
}
std::string CmdAnswer(Session &s, const std::string &rest) {
    return SetAnswer(s, rest, bpsim::Answer::Now);
}

std::string CmdResult(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<int64_t> v;
    std::string id;
    args >> id;
    uint8_t subCmdId = 0;
    if (!ParseId(id, &subCmdId) || !ParseInts(args, 1, kI32Min, kI32Max, &v)) {
        return "usage";
    }
    bpsim::Results r = s.sim->GetResults();
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
            return "no result for subCmdId: " + id;
    }
    s.sim->SetResults(r);
    return "";
}

/* statusrsp and status: eight numbers. */
std::string ReadStatus(const std::string &rest, bpsim::Status *pStatus) {
    std::istringstream args(rest);
    std::vector<int64_t> v;
    if (!ParseInts(args, 8, kI32Min, kI32Max, &v)) {
        return "usage";
    }
    *pStatus = StatusOf(v);
    return "";
}

std::string CmdStatusRsp(Session &s, const std::string &rest) {
    bpsim::Results r = s.sim->GetResults();
    std::string err = ReadStatus(rest, &r.status);
    if (err.empty()) {
        s.sim->SetResults(r);
    }
    return err;
}

std::string CmdStatus(Session &s, const std::string &rest) {
    bpsim::Status st;
    std::string err = ReadStatus(rest, &st);
    if (err.empty()) {
        s.sim->SendStatusChange(st);
    }
    return err;
}

std::string CmdDistance(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::string d, a;
    args >> d >> a;
    bpsim::Results r = s.sim->GetResults();
    if (!ParseDouble(d, &r.distance) || !ParseDouble(a, &r.azimuth)) {
        return "usage";
    }
    s.sim->SetResults(r);
    return "";
}

std::string CmdDbFile(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    bpsim::Results r = s.sim->GetResults();
    std::string first;
    args >> first;
    if (first == "clear") {
        r.dbFiles.clear();
        s.sim->SetResults(r);
        return "";
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
        return "usage: dbfile ID HEX (1 to 4 bytes, at most 22 files)";
    }
    r.dbFiles.push_back(bpsim::DbFile{static_cast<uint32_t>(fileId), *data});
    s.sim->SetResults(r);
    return "";
}

std::string CmdPeriodic(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::string word;
    bpsim::Results r = s.sim->GetResults();
    if (args >> word && word == "request") {
        r.periodicMs = bpsim::Results::kPeriodicAsRequested;
    } else {
        std::istringstream again(rest);
        std::vector<int64_t> v;
        if (!ParseInts(again, 1, 0, kMaxWaitMs, &v)) {
            return "usage";
        }
        r.periodicMs = static_cast<int>(v[0]);
    }
    s.sim->SetResults(r);
    return "";
}

std::string CmdNotify(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<int64_t> ids;
    std::vector<int64_t> v;
    std::vector<int64_t> dcs;
    std::string name, addr;
    if (!ParseInts(args, 2, 0, 255, &ids) || !ParseInts(args, 2, kI32Min, kI32Max, &v) ||
        !ParseInts(args, 1, 0, 255, &dcs) || !(args >> name)) {
        return "usage";
    }
    args >> addr;
    if (name.size() > LAPI_BP_MAX_CLIENT_NAME_LEN / 2 ||
        addr.size() > LAPI_BP_MAX_CLIENT_ADDR_LEN) {
        return "name or address too long";
    }
    bpsim::Notification n;
    n.sessionId = static_cast<uint8_t>(ids[0]);
    n.transactionId = static_cast<uint8_t>(ids[1]);
    n.notificationType = static_cast<int32_t>(v[0]);
    n.locationType = static_cast<int32_t>(v[1]);
    n.dataCodingSchema = static_cast<uint8_t>(dcs[0]);
    n.name = bpsim::Ucs2(name);
    n.address = addr;
    s.sim->SendLocationNotification(n);
    return "";
}

std::string CmdNotifyStatus(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<int64_t> ids;
    std::vector<int64_t> v;
    if (!ParseInts(args, 2, 0, 255, &ids) || !ParseInts(args, 1, kI32Min, kI32Max, &v)) {
        return "usage";
    }
    s.sim->SendNotificationStatus(static_cast<uint8_t>(ids[0]), static_cast<uint8_t>(ids[1]),
                                  static_cast<int32_t>(v[0]));
    return "";
}

std::string CmdHit(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<int64_t> ids;
    if (!ParseInts(args, 2, 0, 255, &ids)) {
        if (rest.find_first_not_of(" \t") != std::string::npos) {
            return "usage";
        }
        auto areas = s.sim->Areas();
        if (areas.empty()) {
            return "no proximity area";
        }
        ids = {areas.front().first, areas.front().second};
    }
    s.sim->SendProximityHit(static_cast<uint8_t>(ids[0]), static_cast<uint8_t>(ids[1]));
    return "";
}

std::string CmdReport(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<int64_t> ids;
    if (!ParseInts(args, 2, 0, 255, &ids)) {
        return "usage";
    }
    s.sim->SendFix(static_cast<uint8_t>(ids[0]), static_cast<uint8_t>(ids[1]));
    return "";
}

std::string CmdAreas(Session &s, const std::string &) {
    std::string line = "bpsim: areas";
    for (const bpsim::Pair &a : s.sim->Areas()) {
        line += " " + std::to_string(a.first) + "," + std::to_string(a.second);
    }
    printf("%s\n", line.c_str());
    fflush(stdout);
    return "";
}

std::string CmdSleep(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::vector<int64_t> v;
    if (!ParseInts(args, 1, 0, kMaxWaitMs, &v)) {
        return "usage";
    }
    if (s.source != nullptr) {
        s.source->resumeAt = Clock::now() + std::chrono::milliseconds(v[0]);
    }
    return "";
}

void StepReplay(Session &s, Clock::time_point now) {
    Replay &r = s.replay;
    while (r.active && r.due <= now) {
        const bpsim::TrackPoint &p = r.track[r.next];
        s.sim->SetFix(bpsim::ApplyTrackPoint(s.sim->GetFix(), p));
        char line[96];
        snprintf(line, sizeof(line), "replay %zu/%zu %.7f %.7f", r.next + 1, r.track.size(),
                 p.latitude, p.longitude);
        Say(s, line);
        if (++r.next >= r.track.size()) {
            r.active = false;
            Say(s, "replay done");
        }
        r.due += std::chrono::milliseconds(r.stepMs);
    }
}

std::string CmdReplay(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    std::string file;
    std::string ms;
    args >> file >> ms;
    if (file == "stop") {
        s.replay.active = false;
        return "";
    }
    double stepMs = 1000;
    if (file.empty() ||
        (!ms.empty() && (!ParseDouble(ms, &stepMs) || stepMs < 1 || stepMs > kMaxWaitMs))) {
        return "usage";
    }
    std::string error;
    auto track = bpsim::LoadNmeaTrack(file, &error);
    if (!track) {
        return "replay: " + error;
    }
    s.replay.track = std::move(*track);
    s.replay.next = 0;
    s.replay.stepMs = static_cast<int>(stepMs);
    s.replay.due = Clock::now();
    s.replay.active = true;
    StepReplay(s, s.replay.due);
    return "";
}

std::string CmdQuit(Session &s, const std::string &) {
    s.quit = true;
    return "";
}

/* ---- the network side: the BP asking the server for TCP sockets ---- */

/* Each socket request gets session 1 and the next transaction id. */
uint8_t gSocketTid = 1;

/* LINK of a socket command: 1 to 4294967295 (0 names no socket). */
bool SocketLink(std::istringstream &args, uint32_t *pLinkId) {
    std::vector<int64_t> v;
    if (!ParseInts(args, 1, 1, UINT32_MAX, &v)) {
        return false;
    }
    *pLinkId = static_cast<uint32_t>(v[0]);
    return true;
}

std::string SendSocketReq(Session &s, const std::optional<bpsim::Bytes> &msg) {
    if (!msg) {
        return "name longer than 255 bytes";
    }
    return s.sim->Send(*msg) ? "" : "cannot send";
}

std::string CmdSockOpen(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    uint32_t linkId = 0;
    std::string host;
    std::vector<int64_t> port;
    if (!SocketLink(args, &linkId) || !(args >> host) || !ParseInts(args, 1, 0, 65535, &port)) {
        return "usage";
    }
    return SendSocketReq(s, bpsim::BuildOpenSocketReq(1, gSocketTid++, linkId, host,
                                                      static_cast<uint16_t>(port[0])));
}

std::string CmdSockData(Session &s, const std::string &rest, bool bText) {
    std::istringstream args(rest);
    uint32_t linkId = 0;
    if (!SocketLink(args, &linkId)) {
        return "usage";
    }
    std::string data;
    std::getline(args, data);
    std::optional<bpsim::Bytes> bytes;
    if (!bText) {
        bytes = bpsim::ParseHex(data);
    } else if (data.size() > 1) {
        bytes = bpsim::Bytes(data.begin() + 1, data.end()); /* after the one blank */
    }
    if (!bytes || bytes->empty() || bytes->size() > bpsim::kMaxSendData) {
        return "usage";
    }
    return SendSocketReq(s, bpsim::BuildSendDataReq(1, gSocketTid++, linkId, *bytes));
}

std::string CmdSockSend(Session &s, const std::string &rest) {
    return CmdSockData(s, rest, false);
}

std::string CmdSockText(Session &s, const std::string &rest) {
    return CmdSockData(s, rest, true);
}

std::string CmdSockClose(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    uint32_t linkId = 0;
    if (!SocketLink(args, &linkId)) {
        return "usage";
    }
    return SendSocketReq(s, bpsim::BuildCloseSocketReq(1, gSocketTid++, linkId));
}

std::string CmdSockTls(Session &s, const std::string &rest) {
    std::istringstream args(rest);
    uint32_t linkId = 0;
    std::string fqdn;
    if (!SocketLink(args, &linkId) || !(args >> fqdn)) {
        return "usage";
    }
    return SendSocketReq(s, bpsim::BuildTlsSessionReq(1, gSocketTid++, linkId, fqdn));
}

/* What the simulator received or sent: the raw echo unless quiet, every
 * push indication and every socket answer and indication of the server. */
void PrintTrace(bool quiet, const char *what, const bpsim::Bytes &bytes) {
    if (!quiet) {
        printf("bpsim: %s %s\n", what, bpsim::ToHex(bytes).c_str());
    }
    if (strcmp(what, "recv") == 0) {
        const bpsim::Message msg{bytes};
        /* The engine's network-initiated triggers. */
        auto content = bpsim::PushContent(msg);
        if (content) {
            printf("bpsim: push indication, %zu bytes: %s\n", content->size(),
                   bpsim::ToHex(*content).c_str());
        }
        auto m = bpsim::ParseSocketMsg(msg);
        if (m) {
            printf("bpsim: socket %s\n", bpsim::DescribeSocketMsg(*m).c_str());
        }
    }
    fflush(stdout);
}

/* Every command. A new one is one row here and one handler above. */
const CommandRow kCommands[] = {
    {"send", "HEX...", "frame the message (header first) and send it", CmdFramed},
    {"raw", "HEX...", "send the bytes as they are", CmdRaw},
    {"fix", "LAT LON ALT", "answer with this position from now on", CmdFix},
    {"silent", "ID", "never answer requests with this subCmdId (hex)", CmdSilent},
    {"delay", "ID MS", "answer them MS milliseconds late", CmdDelay},
    {"answer", "ID", "answer them at once again", CmdAnswer},
    {"result", "ID VALUE",
     "result/status of the built-in answer to ID (hex):\n"
     "02 abort, 04 db write, 06 db read, 19 add, 1b remove",
     CmdResult},
    {"statusrsp", "U H F E S C SIG ICON", "fields of the status answer", CmdStatusRsp},
    {"distance", "D A", "distance and azimuth answer", CmdDistance},
    {"dbfile", "ID HEX...", "add a file to the db read answer; 'dbfile clear'", CmdDbFile},
    {"periodic", "MS|request",
     "periodic reports every MS ms (0: only the first); 'request'\n"
     "(the default): every interval that the request asks for",
     CmdPeriodic},
    {"status", "U H F E S C SIG ICON", "send a status change", CmdStatus},
    {"notify", "SID TID NTYPE LTYPE DCS NAME [ADDR]", "send a notification", CmdNotify},
    {"notifystatus", "SID TID CAUSE", "send a notification status", CmdNotifyStatus},
    {"hit", "[SID TID]", "send a proximity hit (default: the oldest area)", CmdHit},
    {"report", "SID TID", "send one location response with the fix", CmdReport},
    {"areas", "", "print the proximity areas the simulator holds", CmdAreas},
    {"replay", "FILE [MS]|stop",
     "move the position along the GGA/RMC sentences of an NMEA\n"
     "track, one epoch every MS ms (default 1000); the sentences go\n"
     "with the position; the last position stays",
     CmdReplay},
    {"sockopen", "LINK HOST PORT",
     "have the server open socket LINK (1 or more) to HOST (IPv4\n"
     "address or host name) and PORT; answers and received data\n"
     "print as 'bpsim: socket open-rsp|send-rsp|close-rsp|tls-rsp\n"
     "sid S tid T link L result R' and 'bpsim: socket data link L\n"
     "len N result R [data HEX]', also with --quiet",
     CmdSockOpen},
    {"socksend", "LINK HEX...", "send bytes on socket LINK", CmdSockSend},
    {"socktext", "LINK TEXT", "send the rest of the line on socket LINK", CmdSockText},
    {"sockclose", "LINK", "close socket LINK", CmdSockClose},
    {"socktls", "LINK FQDN", "ask for TLS on socket LINK, checking the name FQDN", CmdSockTls},
    {"sleep", "MS", "wait MS ms before the next command of the same source", CmdSleep},
    {"quit", "", "leave (once what was sent has gone out)", CmdQuit},
};

const CommandRow *FindCommand(const std::string &name) {
    for (const CommandRow &row : kCommands) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

void PrintHelp() {
    fputs(kUsage, stdout);
    fputs(kHelp, stdout);
    for (const CommandRow &row : kCommands) {
        std::string head = std::string(row.name) + (row.args[0] != '\0' ? " " : "") + row.args;
        std::string help = row.help;
        size_t nl;
        bool first = true;
        do {
            nl = help.find('\n');
            std::string part = help.substr(0, nl);
            if (first && head.size() < 22) {
                printf("  %-22s %s\n", head.c_str(), part.c_str());
            } else if (first) {
                printf("  %s\n  %-22s %s\n", head.c_str(), "", part.c_str());
            } else {
                printf("  %-22s %s\n", "", part.c_str());
            }
            first = false;
            help = nl == std::string::npos ? "" : help.substr(nl + 1);
        } while (nl != std::string::npos);
    }
    fputs(kHelpTail, stdout);
}

/* Splits a line into its command word and the rest; "" for a blank line
 * or a comment. */
std::string CommandWord(const std::string &line, std::string *rest) {
    std::istringstream in(line);
    std::string cmd;
    in >> cmd;
    if (cmd.empty() || cmd[0] == '#') {
        return "";
    }
    std::getline(in, *rest);
    return cmd;
}

void RunLine(Session &s, LineSource &src, int lineNo, const std::string &line) {
    std::string rest;
    std::string cmd = CommandWord(line, &rest);
    if (cmd.empty()) {
        return;
    }
    std::string where = src.name.empty() ? "" : src.name + ":" + std::to_string(lineNo) + ": ";
    const CommandRow *row = FindCommand(cmd);
    if (row == nullptr) {
        fprintf(stderr, "bpsim: %sunknown command: %s\n", where.c_str(), cmd.c_str());
        return;
    }
    s.source = &src;
    std::string err = row->run(s, rest);
    s.source = nullptr;
    if (err == "usage") {
        err = std::string("usage: ") + row->name + (row->args[0] != '\0' ? " " : "") + row->args;
    }
    if (!err.empty()) {
        fprintf(stderr, "bpsim: %s%s\n", where.c_str(), err.c_str());
    }
}

/* Runs the lines of a source that are due; the time until the next one,
 * or -1 when it waits for nothing. */
int RunDue(Session &s, LineSource &src) {
    while (!src.lines.empty() && !s.quit) {
        auto now = Clock::now();
        if (src.resumeAt > now) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(src.resumeAt - now).count();
            return static_cast<int>(left) + 1;
        }
        auto [lineNo, line] = src.lines.front();
        src.lines.pop_front();
        RunLine(s, src, lineNo, line);
    }
    return -1;
}

int Earliest(int a, int b) {
    if (a < 0) {
        return b;
    }
    return (b < 0 || a < b) ? a : b;
}

/* ---- the command line ---- */

struct Config {
    bpsim::Options options;
    bool quiet = false;
    std::string nmeaFile;
    std::string scriptFile;
};

/* A refused command line: what is wrong with which argument. */
int Refuse(const std::string &text) {
    fprintf(stderr, "bpsim: %s\n%s", text.c_str(), kUsage);
    return kExitUsage;
}

/* 0 with cfg filled, or the exit status; -1 after --help. */
int ParseCommandLine(int argc, char **argv, Config *cfg) {
    struct Real {
        const char *name;
        double *pValue;
        double limit;
        const char *what;
    };
    const Real reals[] = {
        {"--lat", &cfg->options.fix.latitude, 90.0, "degrees from -90 to 90"},
        {"--lon", &cfg->options.fix.longitude, 180.0, "degrees from -180 to 180"},
        {"--alt", &cfg->options.fix.altitude, 1e7, "metres"},
    };
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            PrintHelp();
            return -1;
        }
        if (arg == "--version") {
            printf("bpsim %s\n", LAPI_VERSION_STRING);
            return -1;
        }
        if (arg == "--quiet") {
            cfg->quiet = true;
            continue;
        }
        std::string *pText = nullptr;
        const Real *pReal = nullptr;
        if (arg == "--root") {
            pText = &cfg->options.root;
        } else if (arg == "--nmea") {
            pText = &cfg->nmeaFile;
        } else if (arg == "--script") {
            pText = &cfg->scriptFile;
        } else {
            for (const Real &r : reals) {
                if (arg == r.name) {
                    pReal = &r;
                }
            }
            if (pReal == nullptr) {
                return Refuse("unknown option '" + arg + "'");
            }
        }
        if (i + 1 >= argc) {
            return Refuse(arg + " needs a value");
        }
        std::string value = argv[++i];
        if (pText != nullptr) {
            *pText = value;
            continue;
        }
        double v = 0;
        if (!ParseDouble(value, &v) || fabs(v) > pReal->limit) {
            return Refuse(arg + " wants " + pReal->what + ", not '" + value + "'");
        }
        *pReal->pValue = v;
    }
    const std::string &root = cfg->options.root;
    if (root.empty()) {
        return Refuse("--root DIR is required (the DIR of 'lapi_srv_host --root DIR')");
    }
    if (root[0] != '/') {
        return Refuse("--root wants an absolute path, not '" + root +
                      "' (the server's lapi_srv_host takes only absolute roots)");
    }
    struct stat st;
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return Refuse("--root '" + root +
                      "' is not an existing folder: create it first, or check for a typing "
                      "mistake (bpsim makes only DIR/dev)");
    }
    return 0;
}

/* Reads a file of lines for a source; the reason on failure. */
bool LoadLines(const std::string &path, LineSource *src, std::string *error) {
    std::ifstream in(path);
    if (!in) {
        *error = strerror(errno);
        return false;
    }
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        ++n;
        std::string rest;
        std::string cmd = CommandWord(line, &rest);
        if (!cmd.empty() && FindCommand(cmd) == nullptr) {
            *error = "line " + std::to_string(n) + ": unknown command '" + cmd + "'";
            return false;
        }
        src->lines.emplace_back(n, line);
    }
    src->name = path;
    return true;
}

/* ---- one simulator per root ---- */

/* Holds DIR/dev/bpsim.lock for the life of the simulator. A lock file
 * replaced under our feet (removed by a simulator that was ending) is
 * taken again, so two simulators never both believe they hold it. */
class RootLock {
  public:
    ~RootLock() {
        if (fd_ >= 0) {
            unlink(path_.c_str());
            close(fd_);
        }
    }
    /* "" when held; otherwise why not. */
    std::string Take(const std::string &root) {
        std::string dev = root + "/dev";
        if (mkdir(dev.c_str(), 0755) != 0 && errno != EEXIST) {
            return "cannot create " + dev + ": " + strerror(errno);
        }
        path_ = dev + "/bpsim.lock";
        for (int attempt = 0; attempt < 10; ++attempt) {
            int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) {
                return "cannot open " + path_ + ": " + strerror(errno);
            }
            if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
                char buf[32] = {0};
                ssize_t n = read(fd, buf, sizeof(buf) - 1);
                close(fd);
                std::string pid = n > 0 ? std::string(buf, static_cast<size_t>(n)) : "?";
                while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) {
                    pid.pop_back();
                }
                return "--root '" + root + "' is already served by another simulator (pid " + pid +
                       " holds " + path_ + "); stop that one first";
            }
            struct stat held;
            struct stat named;
            if (fstat(fd, &held) == 0 && stat(path_.c_str(), &named) == 0 &&
                held.st_ino == named.st_ino && held.st_dev == named.st_dev) {
                std::string pid = std::to_string(getpid()) + "\n";
                if (ftruncate(fd, 0) != 0 || write(fd, pid.data(), pid.size()) < 0) {
                    /* The pid is only for the message of a second simulator. */
                }
                fd_ = fd;
                return "";
            }
            close(fd);
        }
        return "cannot lock " + path_;
    }

  private:
    int fd_ = -1;
    std::string path_;
};

/* A link DIR/dev/mux18 that leads to a terminal that still exists belongs
 * to a BP end that some other program holds (a stale one leads nowhere). */
std::string CheckLink(const std::string &root) {
    std::string link = root + "/dev/mux18";
    char target[256];
    ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    if (n < 0) {
        return "";
    }
    target[n] = '\0';
    struct stat st;
    if (strncmp(target, "/dev/pts/", 9) == 0 && stat(target, &st) == 0 && S_ISCHR(st.st_mode)) {
        return "--root '" + root + "' is already served: " + link + " leads to the live terminal " +
               target + " of another BP end; stop it first (or remove the link if nothing holds " +
               "that terminal any more)";
    }
    return "";
}

}  // namespace

int main(int argc, char **argv) {
    Config cfg;
    int rc = ParseCommandLine(argc, argv, &cfg);
    if (rc != 0) {
        return rc < 0 ? 0 : rc;
    }
    if (!cfg.nmeaFile.empty()) {
        auto nmea = bpsim::LoadNmeaFile(cfg.nmeaFile);
        if (!nmea) {
            return Refuse("--nmea cannot read '" + cfg.nmeaFile + "': " + strerror(errno));
        }
        cfg.options.fix.nmea = *nmea;
    }
    LineSource script;
    if (!cfg.scriptFile.empty()) {
        std::string error;
        if (!LoadLines(cfg.scriptFile, &script, &error)) {
            return Refuse("--script '" + cfg.scriptFile + "': " + error);
        }
    }
    RootLock lock;
    std::string busy = lock.Take(cfg.options.root);
    if (busy.empty()) {
        busy = CheckLink(cfg.options.root);
    }
    if (!busy.empty()) {
        fprintf(stderr, "bpsim: %s\n", busy.c_str());
        return kExitFailure;
    }

    /* Signals arrive as readable data in the loop: no handler, no race
     * between a flag and poll. */
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    if (sigprocmask(SIG_BLOCK, &mask, nullptr) < 0) {
        perror("bpsim: sigprocmask");
        return kExitFailure;
    }
    int sigFd = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
    if (sigFd < 0) {
        perror("bpsim: signalfd");
        return kExitFailure;
    }
    signal(SIGPIPE, SIG_IGN);

    bpsim::Simulator sim(cfg.options);
    bpsim::Results results = sim.GetResults();
    results.periodicMs = bpsim::Results::kPeriodicAsRequested;
    sim.SetResults(results);
    /* Push indications and socket answers are shown even with --quiet. */
    sim.SetTrace([quiet = cfg.quiet](const char *what, const bpsim::Bytes &bytes) {
        PrintTrace(quiet, what, bytes);
    });
    std::string error;
    if (!sim.Open(&error)) {
        fprintf(stderr, "bpsim: %s\n", error.c_str());
        close(sigFd);
        return kExitFailure;
    }
    printf("bpsim: ready %s\n", sim.LinkPath().c_str());
    fflush(stdout);

    Session session;
    session.sim = &sim;
    session.quiet = cfg.quiet;
    LineSource input;
    bool stdinOpen = true;
    std::string pendingInput;
    bool running = true;
    Clock::time_point quitAt{};
    while (running) {
        int timeout = Earliest(RunDue(session, script), RunDue(session, input));
        if (session.replay.active) {
            StepReplay(session, Clock::now());
            if (session.replay.active) {
                auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                session.replay.due - Clock::now())
                                .count();
                timeout = Earliest(timeout, left < 0 ? 0 : static_cast<int>(left) + 1);
            }
        }
        if (session.quit) {
            /* What was sent last must still reach the server: serve the
             * channel until the output is out, and a moment longer for
             * the server to read it, before the terminal goes away. */
            auto now = Clock::now();
            if (quitAt == Clock::time_point{}) {
                quitAt = now + std::chrono::milliseconds(kQuitGraceMs);
            }
            if ((now >= quitAt && sim.PendingOutput() == 0) ||
                now >= quitAt + std::chrono::milliseconds(10 * kQuitGraceMs)) {
                break;
            }
            timeout = Earliest(timeout, kQuitGraceMs / 10);
        }
        std::vector<pollfd> extra;
        extra.push_back(pollfd{sigFd, POLLIN, 0});
        extra.push_back(pollfd{stdinOpen ? STDIN_FILENO : -1, POLLIN, 0});
        if (sim.Poll(timeout, &extra) < 0) {
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
                pendingInput.append(buf, static_cast<size_t>(n));
                size_t nl;
                while ((nl = pendingInput.find('\n')) != std::string::npos) {
                    input.lines.emplace_back(0, pendingInput.substr(0, nl));
                    pendingInput.erase(0, nl + 1);
                }
                if (pendingInput.size() > 65536) {
                    pendingInput.clear(); /* no command is that long */
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
