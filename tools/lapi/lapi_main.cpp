/*
 * lapi: try every request of the location server by hand.
 *
 *   lapi [OPTIONS] COMMAND [ARGS] [OPTIONS]
 *
 * Exit status: 0 success, 1 the server answered with an error or no answer
 * came in time (or the connection was lost), 2 usage error, 3 the server
 * cannot be reached.
 */
#include <errno.h>
#include <math.h>
#include <signal.h>
#include <sys/stat.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lapi_client.h"
#include "lapi_format.h"

namespace {

using lapitool::Record;

constexpr int kExitOk = 0;
constexpr int kExitServerError = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoServer = 3;
constexpr int kInterrupted = -1; /* internal: a signal asked to stop */
constexpr int kSliceMs = 200;    /* longest single wait between looks at gStop */

volatile sig_atomic_t gStop = 0;

void OnStopSignal(int) {
    gStop = 1;
}

/* ---- command line ---- */

struct OptSpec {
    const char *name; /* without the leading "--" */
    bool hasArg;
};

const std::vector<OptSpec> kCommonOpts = {
    {"root", true}, {"socket", true}, {"json", false},  {"timeout", true}, {"mode", true},
    {"sid", true},  {"tid", true},    {"trace", false}, {"help", false},   {"verbose", false},
};

constexpr const char *kCommonHelp =
    "Common options (before or after the command):\n"
    "  --root DIR         the server started with 'lapi_srv_host --root DIR'\n"
    "                     (its socket is DIR/tmp/lapisock)\n"
    "  --socket PATH      the server's socket (default /tmp/lapisock)\n"
    "  --json             one JSON object per line instead of readable text, errors\n"
    "                     included (numbers stay numbers; keys are plain names)\n"
    "  --verbose          also show the protocol's identifiers (session and\n"
    "                     transaction ids, the connection of each answer)\n"
    "  --timeout MS       how long to wait for the server's answer (defaults below)\n"
    "  --mode sync|async  the connection that carries the answers (default sync)\n"
    "  --sid N, --tid N   the request's session and transaction ids, 0-255 (default 1, 1)\n"
    "  --trace            dump every message sent and received on standard error\n"
    "  -h, --help         show help\n"
    "\n"
    "Default timeouts: 5000 ms to connect and register; for the answer, locate\n"
    "waits (response time / 1000 + 15) s, 45 s by default, plus the interval for\n"
    "each periodic report; db-get, db-set, distance and geofence add 17 s; last,\n"
    "abort, status and geofence remove 12 s; the abort that ends a periodic locate\n"
    "10 s. The server itself gives the BP response time + 6 s for a fix (then\n"
    "aborts it and gives the abort 5 s), 5 s for the last known location, and\n"
    "answers timeOutRsp when the BP does not answer in time.\n";

struct Args {
    std::map<std::string, std::string> opts;
    std::vector<std::string> pos;
    bool Has(const char *name) const { return opts.count(name) != 0; }
    const std::string &Get(const char *name) const { return opts.at(name); }
};

struct Ctx {
    std::string socketPath = LAPI_DEFAULT_SOCKET_PATH;
    bool json = false;
    bool verbose = false;
    int timeoutMs = -1; /* -1: each command's own default */
    uint16_t mode = LAPI_MODE_SYNC;
    uint8_t sid = 1;
    uint8_t tid = 1;
    bool trace = false;
    std::string command;
};

struct Command;
using RunFn = int (*)(Ctx &, const Args &);

struct Command {
    const char *name;
    const char *synopsis;
    const char *help;
    std::vector<OptSpec> opts;
    size_t minPos;
    size_t maxPos;
    RunFn run;
};

bool LooksLikeNumber(const std::string &s) {
    return s.size() > 1 && s[0] == '-' &&
           (isdigit(static_cast<unsigned char>(s[1])) || s[1] == '.');
}

bool ParseLong(const std::string &s, long long min, long long max, long long *pOut) {
    if (s.empty()) {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(s.c_str(), &end, 0);
    if (errno != 0 || end == s.c_str() || *end != '\0' || v < min || v > max) {
        return false;
    }
    *pOut = v;
    return true;
}

bool ParseDouble(const std::string &s, double *pOut) {
    if (s.empty()) {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    double v = strtod(s.c_str(), &end);
    if (errno != 0 || end == s.c_str() || *end != '\0' || !isfinite(v)) {
        return false;
    }
    *pOut = v;
    return true;
}

/* A failure on standard error and, with --json, as one object on standard
 * output; hint, when given, says what most likely happened and what to
 * check. */
int Failure(const Ctx &ctx, int exitCode, const char *kind, const std::string &text,
            const std::string &hint = std::string()) {
    fprintf(stderr, "lapi: %s\n", text.c_str());
    if (!hint.empty()) {
        fprintf(stderr, "lapi: %s\n", hint.c_str());
    }
    if (ctx.json) {
        Record r("error", "");
        r.Str("error", kind).Str("message", text);
        if (!hint.empty()) {
            r.Str("hint", hint);
        }
        r.Int("exitStatus", exitCode);
        if (!ctx.command.empty()) {
            r.Str("command", ctx.command);
        }
        r.Print(stdout, true);
    }
    return exitCode;
}

int UsageError(const Ctx &ctx, const std::string &text) {
    std::string help = ctx.command.empty() ? std::string("Try 'lapi --help'.")
                                           : "Try 'lapi " + ctx.command + " --help'.";
    if (ctx.json) {
        return Failure(ctx, kExitUsage, "usage", text, help);
    }
    fprintf(stderr, "lapi: %s\n%s\n", text.c_str(), help.c_str());
    return kExitUsage;
}

const OptSpec *FindOpt(const std::vector<OptSpec> &specs, const std::string &name) {
    for (const OptSpec &o : specs) {
        if (name == o.name) {
            return &o;
        }
    }
    return nullptr;
}

/* Parses argv[*pI..] into options and positionals. "--" ends the options;
 * "-12.5" is a number, not an option. With stopAtWord, stops before the
 * first positional (the command word). */
bool ParseArgs(int argc, char **argv, int *pI, const std::vector<OptSpec> &specs, Args &args,
               std::string &err, bool stopAtWord = false) {
    bool optsDone = false;
    int &i = *pI;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (optsDone || a.empty() || a[0] != '-' || a == "-" || LooksLikeNumber(a)) {
            if (stopAtWord) {
                return true;
            }
            args.pos.push_back(a);
            continue;
        }
        if (a == "--") {
            optsDone = true;
            continue;
        }
        if (a == "-h") {
            a = "--help";
        }
        if (a.rfind("--", 0) != 0) {
            err = "unknown option '" + a + "'";
            return false;
        }
        std::string name = a.substr(2);
        std::string value;
        bool inlineValue = false;
        size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            inlineValue = true;
        }
        const OptSpec *spec = FindOpt(specs, name);
        if (spec == nullptr) {
            spec = FindOpt(kCommonOpts, name);
        }
        if (spec == nullptr) {
            err = "unknown option '--" + name + "'";
            return false;
        }
        if (spec->hasArg && !inlineValue) {
            if (i + 1 >= argc) {
                err = "option '--" + name + "' needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!spec->hasArg && inlineValue) {
            err = "option '--" + name + "' takes no value";
            return false;
        }
        args.opts[name] = value;
    }
    return true;
}

/* Applies the common options; returns 0 or the usage exit status. */
int ApplyCommon(Ctx &ctx, const Args &args) {
    if (args.Has("root") && args.Has("socket")) {
        return UsageError(ctx, "give either --root or --socket, not both");
    }
    if (args.Has("root")) {
        const std::string &root = args.Get("root");
        if (root.empty()) {
            return UsageError(ctx, "--root needs a directory");
        }
        ctx.socketPath = root + (root.back() == '/' ? "" : "/") + "tmp/lapisock";
    }
    if (args.Has("socket")) {
        ctx.socketPath = args.Get("socket");
        if (ctx.socketPath.empty()) {
            return UsageError(ctx, "--socket needs a path");
        }
    }
    if (args.Has("json")) {
        ctx.json = true;
    }
    if (args.Has("trace")) {
        ctx.trace = true;
    }
    if (args.Has("verbose")) {
        ctx.verbose = true;
    }
    long long v;
    if (args.Has("timeout")) {
        if (!ParseLong(args.Get("timeout"), 1, 24LL * 3600 * 1000, &v)) {
            return UsageError(
                ctx, "--timeout wants milliseconds, 1 or more: '" + args.Get("timeout") + "'");
        }
        ctx.timeoutMs = static_cast<int>(v);
    }
    if (args.Has("mode")) {
        const std::string &m = args.Get("mode");
        if (m == "sync") {
            ctx.mode = LAPI_MODE_SYNC;
        } else if (m == "async") {
            ctx.mode = LAPI_MODE_ASYNC;
        } else {
            return UsageError(ctx, "--mode is sync or async, not '" + m + "'");
        }
    }
    for (const char *name : {"sid", "tid"}) {
        if (args.Has(name)) {
            if (!ParseLong(args.Get(name), 0, 255, &v)) {
                return UsageError(
                    ctx, std::string("--") + name + " wants 0 to 255: '" + args.Get(name) + "'");
            }
            (name[0] == 's' ? ctx.sid : ctx.tid) = static_cast<uint8_t>(v);
        }
    }
    return kExitOk;
}

/* ---- talking to the server ---- */

struct ClientCloser {
    void operator()(lapi_client *p) const { lapi_close(p); }
};
using ClientPtr = std::unique_ptr<lapi_client, ClientCloser>;

/* The path of one of the server's files beside its socket: DIR + absPath
 * for the socket DIR/tmp/lapisock, as lapi_srv_host lays out its root;
 * unknown for a socket elsewhere. */
std::string ServerPath(const Ctx &ctx, const char *absPath, const char *unknown) {
    static const std::string kSock = "/tmp/lapisock";
    const std::string &path = ctx.socketPath;
    if (path.size() >= kSock.size() &&
        path.compare(path.size() - kSock.size(), kSock.size(), kSock) == 0) {
        return path.substr(0, path.size() - kSock.size()) + absPath;
    }
    return unknown;
}

std::string BpChannelOf(const Ctx &ctx) {
    return ServerPath(ctx, "/dev/mux18", "its BP channel");
}

/* The server closes a client whose registration it refuses; the two
 * reasons in practice are a BP channel that it cannot open and a second
 * taker of network location requests. */
std::string RefusedHint(const Ctx &ctx, uint32_t service) {
    std::string mux = BpChannelOf(ctx);
    struct stat st;
    bool bMuxMissing = mux[0] == '/' && stat(mux.c_str(), &st) != 0;
    std::string failOpen = "\"Fail to open " + mux + "\"";
    if (bMuxMissing) {
        std::string hint = "most likely no BP is attached: " + mux +
                           " does not exist, so the server cannot open its BP channel (its "
                           "diagnostics say " +
                           failOpen +
                           ") and refuses every client; start the BP simulator on the same root "
                           "('bpsim --root " +
                           ServerPath(ctx, "", "DIR") + "') and try again";
        if (service & LAPI_SERVICE_MTLR) {
            hint += "; also, only one client at a time may take network location requests";
        }
        return hint;
    }
    if (service & LAPI_SERVICE_MTLR) {
        return "most likely another client already takes network location requests (only one "
               "may; stop it or add --no-mtlr); otherwise check the server's diagnostics (its "
               "standard error) for " +
               failOpen;
    }
    return "most likely the server could not open its BP channel: check the server's "
           "diagnostics (its standard error) for " +
           failOpen + " and \"Fail to connect mux channel!\"";
}

/* What a timeOutRsp of the server means for this command. */
std::string ServerTimeoutHint(const Ctx &ctx) {
    std::string mux = BpChannelOf(ctx);
    if (ctx.command == "locate") {
        return "the server aborted the request at its deadline (response time + 6 s) and the "
               "BP did not answer the abort within 5 s either: the BP on " +
               mux +
               " has most likely gone away; check the BP simulator and the server's diagnostics";
    }
    return "the BP did not answer within the server's deadline: check that the BP on " + mux +
           " runs and answers this request (bpsim's 'silent' and 'delay' commands hold answers "
           "back), and the server's diagnostics";
}

/* What an answer that never came means. */
std::string NoAnswerHint(const Ctx &ctx) {
    return "the server answers every request itself (timeOutRsp) when the BP does not, so it is "
           "most likely stuck or very slow; check that it still runs (its pid file " +
           ServerPath(ctx, "/tmp/lapi.pid", "lapi.pid") +
           ") and its diagnostics, or allow more time with --timeout MS";
}

int TimeoutOr(const Ctx &ctx, int defaultMs) {
    return ctx.timeoutMs > 0 ? ctx.timeoutMs : defaultMs;
}

int Open(const Ctx &ctx, uint32_t service, ClientPtr &out) {
    lapi_client *p = nullptr;
    int handshakeMs = ctx.timeoutMs > 0 && ctx.timeoutMs < LAPI_DEFAULT_TIMEOUT_MS
                          ? ctx.timeoutMs
                          : LAPI_DEFAULT_TIMEOUT_MS;
    int rc = lapi_open_ex(ctx.socketPath.c_str(), service, handshakeMs,
                          ctx.trace ? LAPI_OPEN_TRACE : 0u, &p);
    if (rc != LAPI_OK) {
        std::string text = std::string(lapi_strerror(rc)) + " at " + ctx.socketPath;
        if (rc == LAPI_E_CONNECT || rc == LAPI_E_IO) {
            text += " (" + std::string(strerror(errno)) + ")";
        }
        if (rc == LAPI_E_PATH) {
            return Failure(ctx, kExitUsage, "usage", text);
        }
        if (rc == LAPI_E_REFUSED) {
            return Failure(ctx, kExitServerError, "refused", text, RefusedHint(ctx, service));
        }
        return Failure(ctx, kExitNoServer, "connect", text);
    }
    out.reset(p);
    return kExitOk;
}

int SendFailed(const Ctx &ctx, int rc, const char *what) {
    return Failure(ctx, kExitServerError, "send",
                   std::string("cannot send ") + what + ": " + lapi_strerror(rc));
}

/* A server message that ends the command with an error, and what it most
 * likely means: on standard error, and as a field of the JSON object. */
void PrintWithHint(const Ctx &ctx, const lapi_msg &msg, const std::string &hint) {
    Record r = lapitool::MessageRecord(msg);
    if (ctx.json) {
        r.Str("hint", hint);
    }
    r.Print(stdout, ctx.json, ctx.verbose);
    fprintf(stderr, "lapi: %s\n", hint.c_str());
}

/* The client pair of any answer (offsets 8 and 9 of every server message
 * that answers a request). */
bool PairOf(const lapi_msg &m, uint8_t *pSid, uint8_t *pTid) {
    if (m.length < LAPI_MSG_HEADER_LEN + 2 || m.msgId >= LAPI_SRV_MSG_COUNT) {
        return false;
    }
    *pSid = m.u.raw[8];
    *pTid = m.u.raw[9];
    return true;
}

/* Waits for an answer with one of msgIds and the pair (sid, tid).
 * timeOutRsp and invalidRequestRsp with the pair are printed and end the
 * wait with status 1. Returns 0 with *pMsg filled, an exit status, or
 * kInterrupted. */
int WaitAnswer(const Ctx &ctx, lapi_client *pClient, std::initializer_list<int> msgIds, uint8_t sid,
               uint8_t tid, int timeoutMs, lapi_msg *pMsg) {
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        int left = -1;
        if (timeoutMs >= 0) {
            struct timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            long long spent =
                (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
            left = spent >= timeoutMs ? 0 : static_cast<int>(timeoutMs - spent);
        }
        if (gStop) {
            return kInterrupted;
        }
        /* Short slices: a signal that lands just before poll() is still
         * seen within a moment. */
        int slice = (left < 0 || left > kSliceMs) ? kSliceMs : left;
        int rc = lapi_recv(pClient, pMsg, slice);
        if (rc == LAPI_E_INTR || (rc == LAPI_E_TIMEOUT && slice < left) ||
            (rc == LAPI_E_TIMEOUT && left < 0)) {
            continue;
        }
        if (rc == LAPI_E_TIMEOUT) {
            return Failure(ctx, kExitServerError, "timeout",
                           "no answer from the server within " + std::to_string(timeoutMs) + " ms",
                           NoAnswerHint(ctx));
        }
        if (rc == LAPI_E_UNKNOWN_MSG || rc == LAPI_E_BAD_LENGTH) {
            fprintf(stderr, "lapi: %s (msgId %u)\n", lapi_strerror(rc), pMsg->msgId);
            continue;
        }
        if (rc != LAPI_OK) {
            return Failure(ctx, kExitServerError, "connection",
                           std::string("lost the server: ") + lapi_strerror(rc));
        }
        uint8_t mSid = 0;
        uint8_t mTid = 0;
        if (!PairOf(*pMsg, &mSid, &mTid) || mSid != sid || mTid != tid) {
            continue;
        }
        if (pMsg->msgId == LAPI_TIME_OUT_RSP || pMsg->msgId == LAPI_INVALID_REQUEST_RSP) {
            std::string hint =
                pMsg->msgId == LAPI_TIME_OUT_RSP
                    ? ServerTimeoutHint(ctx)
                    : "this client has no request with this pair (a new lapi process owns none) "
                      "or the pair is already in use";
            PrintWithHint(ctx, *pMsg, hint);
            return kExitServerError;
        }
        for (int id : msgIds) {
            if (pMsg->msgId == id) {
                return kExitOk;
            }
        }
    }
}

/* Prints the answer; a nonzero result or status is the server's error. */
int PrintAnswer(const Ctx &ctx, const lapi_msg &m, int32_t result) {
    lapitool::PrintMessage(m, ctx.json, ctx.verbose);
    return result == 0 ? kExitOk : kExitServerError;
}

int StopByInterrupt(int rc) {
    return rc == kInterrupted ? kExitServerError : rc;
}

/* One request of the command's pair on a new connection: send makes the
 * library call (reqName names the request when it cannot go out), then the
 * wait for its answer answerId, defaultMs unless --timeout says otherwise.
 * kExitOk with the answer in *pMsg, or the command's exit status. */
template <typename Send>
int Request(const Ctx &ctx, ClientPtr &client, const char *reqName, Send send, int answerId,
            int defaultMs, lapi_msg *pMsg) {
    int rc = Open(ctx, LAPI_SERVICE_BASIC, client);
    if (rc != kExitOk) {
        return rc;
    }
    rc = send(client.get());
    if (rc != LAPI_OK) {
        return SendFailed(ctx, rc, reqName);
    }
    rc = WaitAnswer(ctx, client.get(), {answerId}, ctx.sid, ctx.tid, TimeoutOr(ctx, defaultMs),
                    pMsg);
    return rc != kExitOk ? StopByInterrupt(rc) : kExitOk;
}

/* ---- commands ---- */

/* An abort that this command did not ask for: the server's deadline for
 * the fix passed. */
std::string NoFixHint(const Ctx &ctx, uint32_t responseTimeMs) {
    return "no fix came in time: the server gives the BP the response time + 6 s (" +
           std::to_string(responseTimeMs / 1000 + 6) +
           " s here) for a fix, then aborts the request, and the abort's answer is shown; "
           "check that the BP on " +
           BpChannelOf(ctx) + " answers location requests, and the server's diagnostics";
}

int RunLocate(Ctx &ctx, const Args &args) {
    lapi_location_params p;
    lapi_location_params_init(&p);
    p.mode = ctx.mode;
    p.sessionId = ctx.sid;
    p.transactionId = ctx.tid;
    long long v;
    struct NumOpt {
        const char *name;
        uint32_t *pField;
    } numOpts[] = {{"response-time", &p.responseTime},
                   {"accuracy", &p.horizontalAccuracy},
                   {"vertical-accuracy", &p.verticalAccuracy},
                   {"power", &p.preferredPowerConsumption}};
    for (const NumOpt &o : numOpts) {
        if (args.Has(o.name)) {
            if (!ParseLong(args.Get(o.name), 0, UINT32_MAX, &v)) {
                return UsageError(ctx, std::string("--") + o.name + " wants a number: '" +
                                           args.Get(o.name) + "'");
            }
            *o.pField = static_cast<uint32_t>(v);
        }
    }
    p.nmeaRequired = args.Has("nmea") ? 1 : 0;
    p.speedAndCourseRequired = args.Has("speed") ? 1 : 0;
    p.altitudeRequired = args.Has("altitude") ? 1 : 0;
    p.addressInfoRequired = args.Has("address") ? 1 : 0;
    p.costAllowed = args.Has("cost") ? 1 : 0;
    long long count = 0;
    if (args.Has("count")) {
        if (!args.Has("periodic")) {
            return UsageError(ctx, "--count goes with --periodic");
        }
        if (!ParseLong(args.Get("count"), 1, 1000000, &count)) {
            return UsageError(ctx,
                              "--count wants a number, 1 or more: '" + args.Get("count") + "'");
        }
    }
    bool periodic = args.Has("periodic");
    if (periodic) {
        if (!ParseLong(args.Get("periodic"), 1, 86400, &v)) {
            return UsageError(
                ctx, "--periodic wants seconds, 1 to 86400: '" + args.Get("periodic") + "'");
        }
        p.interval = static_cast<uint32_t>(v);
        p.reportCriteria = LAPI_REPORT_PERIODIC;
    }
    ClientPtr client;
    int rc = Open(ctx, LAPI_SERVICE_BASIC, client);
    if (rc != kExitOk) {
        return rc;
    }
    rc = lapi_get_location(client.get(), &p);
    if (rc != LAPI_OK) {
        return SendFailed(ctx, rc, "getLocationReq");
    }
    /* The server gives a fix responseTime + 6 s, then 5 s to abort it. */
    int fixMs = static_cast<int>(p.responseTime / 1000 + 6 + 5 + 4) * 1000;
    lapi_msg msg;
    if (!periodic) {
        rc = WaitAnswer(ctx, client.get(), {LAPI_GET_LOCATION_RSP, LAPI_ABORT_LOCATION_RSP},
                        p.sessionId, p.transactionId, TimeoutOr(ctx, fixMs), &msg);
        if (rc != kExitOk) {
            return StopByInterrupt(rc);
        }
        if (msg.msgId == LAPI_GET_LOCATION_RSP) {
            lapitool::PrintMessage(msg, ctx.json, ctx.verbose);
            return kExitOk;
        }
        PrintWithHint(ctx, msg, NoFixHint(ctx, p.responseTime));
        return kExitServerError;
    }
    int reportMs = TimeoutOr(ctx, fixMs + static_cast<int>(p.interval) * 1000);
    long long received = 0;
    while (count == 0 || received < count) {
        rc = WaitAnswer(ctx, client.get(), {LAPI_GET_LOCATION_RSP, LAPI_ABORT_LOCATION_RSP},
                        p.sessionId, p.transactionId, reportMs, &msg);
        if (rc == kInterrupted) {
            break;
        }
        if (rc != kExitOk) {
            return rc;
        }
        lapitool::PrintMessage(msg, ctx.json, ctx.verbose);
        if (msg.msgId == LAPI_ABORT_LOCATION_RSP) {
            /* Another client's abort-all ended the reports. */
            return kExitOk;
        }
        ++received;
    }
    /* Stop the reports before leaving. */
    gStop = 0;
    rc = lapi_abort_location(client.get(), p.mode, p.sessionId, p.transactionId);
    if (rc != LAPI_OK) {
        return SendFailed(ctx, rc, "abortLocationReq");
    }
    rc = WaitAnswer(ctx, client.get(), {LAPI_ABORT_LOCATION_RSP}, p.sessionId, p.transactionId,
                    TimeoutOr(ctx, 10000), &msg);
    if (rc != kExitOk) {
        return StopByInterrupt(rc);
    }
    return PrintAnswer(ctx, msg, msg.u.abortLocationRsp.result);
}

int RunLast(Ctx &ctx, const Args &) {
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "lastKnownLocationReq",
        [&](lapi_client *pClient) {
            return lapi_last_known_location(pClient, ctx.mode, ctx.sid, ctx.tid);
        },
        LAPI_GET_LOCATION_RSP, 12000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, 0);
}

int RunAbort(Ctx &ctx, const Args &) {
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "abortLocationReq",
        [&](lapi_client *pClient) {
            return lapi_abort_location(pClient, ctx.mode, ctx.sid, ctx.tid);
        },
        LAPI_ABORT_LOCATION_RSP, 12000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, msg.u.abortLocationRsp.result);
}

int RunAbortAll(Ctx &ctx, const Args &) {
    ClientPtr client;
    int rc = Open(ctx, LAPI_SERVICE_BASIC, client);
    if (rc != kExitOk) {
        return rc;
    }
    rc = lapi_abort_all_location(client.get());
    if (rc != LAPI_OK) {
        return SendFailed(ctx, rc, "abortAllLocationReq");
    }
    /* abortAllLocationReq has no answer of its own; the server handles
     * requests in order, so its answer to unregisterReq shows that it took
     * the abort. */
    rc = lapi_unregister(client.get());
    if (rc != LAPI_OK) {
        return Failure(ctx, kExitServerError, "connection",
                       std::string("the server did not confirm: ") + lapi_strerror(rc));
    }
    Record r("abort-all", "abort-all: every running location request is being aborted");
    r.Bool("accepted", true);
    r.Print(stdout, ctx.json, ctx.verbose);
    return kExitOk;
}

int RunStatus(Ctx &ctx, const Args &) {
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "getStatusReq",
        [&](lapi_client *pClient) { return lapi_get_status(pClient, ctx.mode, ctx.sid, ctx.tid); },
        LAPI_GET_STATUS_RSP, 12000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, 0);
}

int RunWatch(Ctx &ctx, const Args &args) {
    uint32_t service = LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR;
    if (args.Has("no-mtlr")) {
        service &= ~LAPI_SERVICE_MTLR;
    }
    if (args.Has("no-status")) {
        service &= ~LAPI_SERVICE_STATUS;
    }
    if (service == 0) {
        return UsageError(ctx, "--no-mtlr and --no-status leave nothing to watch");
    }
    long long v;
    bool answer = args.Has("answer");
    uint32_t responseType = 0;
    if (answer) {
        if (!(service & LAPI_SERVICE_MTLR)) {
            return UsageError(ctx, "--answer needs network location requests (drop --no-mtlr)");
        }
        if (!ParseLong(args.Get("answer"), 0, UINT32_MAX, &v)) {
            return UsageError(
                ctx, "--answer wants a response type number: '" + args.Get("answer") + "'");
        }
        responseType = static_cast<uint32_t>(v);
    }
    long long count = 0;
    if (args.Has("count") && !ParseLong(args.Get("count"), 1, 1000000, &count)) {
        return UsageError(ctx, "--count wants a number, 1 or more: '" + args.Get("count") + "'");
    }
    ClientPtr client;
    int rc = Open(ctx, service, client);
    if (rc != kExitOk) {
        return rc;
    }
    /* On standard error in both formats: a script can wait for it before
     * it makes something happen. */
    fprintf(stderr, "lapi: watching%s%s%s; interrupt to stop\n",
            (service & LAPI_SERVICE_STATUS) ? " status changes" : "",
            service == (LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR) ? " and" : "",
            (service & LAPI_SERVICE_MTLR) ? " network location requests" : "");
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    long long seen = 0;
    lapi_msg msg;
    while (count == 0 || seen < count) {
        int left = -1;
        if (ctx.timeoutMs > 0) {
            struct timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            long long spent =
                (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
            if (spent >= ctx.timeoutMs) {
                break;
            }
            left = static_cast<int>(ctx.timeoutMs - spent);
        }
        if (gStop) {
            break;
        }
        int slice = (left < 0 || left > kSliceMs) ? kSliceMs : left;
        rc = lapi_recv(client.get(), &msg, slice);
        if (rc == LAPI_E_INTR || rc == LAPI_E_TIMEOUT) {
            continue; /* the duration is checked at the top */
        }
        if (rc == LAPI_E_UNKNOWN_MSG || rc == LAPI_E_BAD_LENGTH) {
            fprintf(stderr, "lapi: %s (msgId %u)\n", lapi_strerror(rc), msg.msgId);
            continue;
        }
        if (rc != LAPI_OK) {
            return Failure(ctx, kExitServerError, "connection",
                           std::string("lost the server: ") + lapi_strerror(rc));
        }
        lapitool::PrintMessage(msg, ctx.json, ctx.verbose);
        ++seen;
        if (answer && msg.msgId == LAPI_LOCATION_NOTIFICATION_IND) {
            const LocationNotificationInd &ind = msg.u.locationNotificationInd;
            rc = lapi_location_notification_cfm(client.get(), ind.sessionId, ind.transactionId,
                                                responseType);
            if (rc != LAPI_OK) {
                return SendFailed(ctx, rc, "locationNotificationCfm");
            }
            Record r("locationNotificationCfm", "Answered the network location request");
            r.Int("sessionId", ind.sessionId)
                .Internal()
                .Int("transactionId", ind.transactionId)
                .Internal()
                .Uint("responseType", responseType);
            r.Print(stdout, ctx.json, ctx.verbose);
        }
    }
    return kExitOk;
}

int RunDbGet(Ctx &ctx, const Args &args) {
    long long fileId;
    if (!ParseLong(args.pos[0], 0, UINT32_MAX, &fileId)) {
        return UsageError(ctx, "FILEID wants a number: '" + args.pos[0] + "'");
    }
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "getGpsDbDataReq",
        [&](lapi_client *pClient) {
            return lapi_get_gps_db_data(pClient, ctx.mode, ctx.sid, ctx.tid,
                                        static_cast<uint32_t>(fileId));
        },
        LAPI_GET_GPS_DB_DATA_RSP, 17000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, msg.u.getGpsDbDataRsp.result);
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

/* FILEID:HEX with 1 to 4 data bytes. */
bool ParseDbEntry(const std::string &s, DbFile *pFile) {
    size_t colon = s.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    long long fileId;
    if (!ParseLong(s.substr(0, colon), 0, UINT32_MAX, &fileId)) {
        return false;
    }
    std::string hex = s.substr(colon + 1);
    if (hex.rfind("0x", 0) == 0 || hex.rfind("0X", 0) == 0) {
        hex = hex.substr(2);
    }
    if (hex.empty() || hex.size() % 2 != 0 || hex.size() > 2 * LAPI_DB_FILE_DATA_LEN) {
        return false;
    }
    memset(pFile, 0, sizeof(*pFile));
    pFile->fileId = static_cast<uint32_t>(fileId);
    pFile->length = static_cast<uint16_t>(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = HexValue(hex[i]);
        int lo = HexValue(hex[i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        pFile->data[i / 2] = static_cast<uint8_t>(hi * 16 + lo);
    }
    return true;
}

int RunDbSet(Ctx &ctx, const Args &args) {
    if (args.pos.size() > LAPI_MAX_DB_FILES) {
        return UsageError(ctx, "at most " + std::to_string(LAPI_MAX_DB_FILES) + " files");
    }
    DbFile files[LAPI_MAX_DB_FILES];
    for (size_t i = 0; i < args.pos.size(); ++i) {
        if (!ParseDbEntry(args.pos[i], &files[i])) {
            return UsageError(ctx, "'" + args.pos[i] +
                                       "' is not FILEID:HEX with 1 to 4 data bytes (e.g. 3:0a0b)");
        }
    }
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "setGpsDbDataReq",
        [&](lapi_client *pClient) {
            return lapi_set_gps_db_data(pClient, ctx.mode, ctx.sid, ctx.tid, files,
                                        static_cast<uint16_t>(args.pos.size()));
        },
        LAPI_SET_GPS_DB_DATA_RSP, 17000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, msg.u.setGpsDbDataRsp.result);
}

bool ParseCoordinate(const Ctx &ctx, const std::string &s, const char *what, double limit,
                     double *pOut, int *pExit) {
    if (!ParseDouble(s, pOut) || *pOut < -limit || *pOut > limit) {
        char buf[160];
        snprintf(buf, sizeof(buf), "%s wants degrees from %g to %g: '%s'", what, -limit, limit,
                 s.c_str());
        *pExit = UsageError(ctx, buf);
        return false;
    }
    return true;
}

int RunDistance(Ctx &ctx, const Args &args) {
    double c[4];
    const char *names[4] = {"LAT1", "LON1", "LAT2", "LON2"};
    int exitCode = kExitOk;
    for (int i = 0; i < 4; ++i) {
        if (!ParseCoordinate(ctx, args.pos[static_cast<size_t>(i)], names[i],
                             (i % 2 == 0) ? 90.0 : 180.0, &c[i], &exitCode)) {
            return exitCode;
        }
    }
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "distanceAzimuthReq",
        [&](lapi_client *pClient) {
            return lapi_distance_azimuth(pClient, ctx.mode, ctx.sid, ctx.tid, c[0], c[1], c[2],
                                         c[3], args.Has("distance-only") ? 1 : 0);
        },
        LAPI_DISTANCE_AZIMUTH_RSP, 17000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, 0);
}

int RunGeofenceAdd(Ctx &ctx, const Args &args) {
    double lat;
    double lon;
    double radius;
    double altitude = 0.0;
    int exitCode = kExitOk;
    if (!ParseCoordinate(ctx, args.pos[0], "LAT", 90.0, &lat, &exitCode) ||
        !ParseCoordinate(ctx, args.pos[1], "LON", 180.0, &lon, &exitCode)) {
        return exitCode;
    }
    if (!ParseDouble(args.pos[2], &radius) || radius <= 0) {
        return UsageError(ctx, "RADIUS wants a positive number: '" + args.pos[2] + "'");
    }
    if (args.Has("altitude") && !ParseDouble(args.Get("altitude"), &altitude)) {
        return UsageError(ctx, "--altitude wants a number: '" + args.Get("altitude") + "'");
    }
    long long hitMs = -1;
    if (args.Has("hit-timeout")) {
        if (!args.Has("wait-hit")) {
            return UsageError(ctx, "--hit-timeout goes with --wait-hit");
        }
        if (!ParseLong(args.Get("hit-timeout"), 1, 24LL * 3600 * 1000, &hitMs)) {
            return UsageError(
                ctx, "--hit-timeout wants milliseconds: '" + args.Get("hit-timeout") + "'");
        }
    }
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "addProximityReq",
        [&](lapi_client *pClient) {
            return lapi_add_proximity(pClient, ctx.mode, ctx.sid, ctx.tid, lat, lon, altitude,
                                      radius);
        },
        LAPI_ADD_PROXIMITY_RSP, 17000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    int status = PrintAnswer(ctx, msg, msg.u.addProximityRsp.status);
    if (status != kExitOk || !args.Has("wait-hit")) {
        return status;
    }
    rc = WaitAnswer(ctx, client.get(), {LAPI_PROXIMITY_HIT_IND, LAPI_REMOVE_PROXIMITY_RSP}, ctx.sid,
                    ctx.tid, static_cast<int>(hitMs), &msg);
    if (rc == kInterrupted) {
        return kExitOk;
    }
    if (rc != kExitOk) {
        return rc;
    }
    if (msg.msgId == LAPI_REMOVE_PROXIMITY_RSP) {
        /* Another client removed every area before it was reached. */
        PrintAnswer(ctx, msg, 0);
        return kExitServerError;
    }
    return PrintAnswer(ctx, msg, 0);
}

int RunGeofenceRemove(Ctx &ctx, bool all) {
    ClientPtr client;
    lapi_msg msg;
    int rc = Request(
        ctx, client, "removeProximityReq",
        [&](lapi_client *pClient) {
            return all ? lapi_remove_all_proximity(pClient, ctx.mode, ctx.sid, ctx.tid)
                       : lapi_remove_proximity(pClient, ctx.mode, ctx.sid, ctx.tid);
        },
        LAPI_REMOVE_PROXIMITY_RSP, 12000, &msg);
    if (rc != kExitOk) {
        return rc;
    }
    return PrintAnswer(ctx, msg, msg.u.removeProximityRsp.status);
}

int RunGeofenceRemoveOne(Ctx &ctx, const Args &) {
    return RunGeofenceRemove(ctx, false);
}
int RunGeofenceRemoveAll(Ctx &ctx, const Args &) {
    return RunGeofenceRemove(ctx, true);
}

const std::vector<Command> &Commands() {
    static const std::vector<Command> kCommands = {
        {"locate",
         "lapi locate [--periodic SECONDS [--count N]] [OPTIONS]",
         "Asks for a location fix and prints it. With --periodic the server reports\n"
         "every SECONDS until --count reports arrived or the command is interrupted;\n"
         "then the request is aborted.\n\n"
         "Options:\n"
         "  --periodic SECONDS     periodic reports at this interval\n"
         "  --count N              stop after N reports (with --periodic)\n"
         "  --response-time MS     time allowed for a fix (default 30000); the server\n"
         "                         aborts the request after MS / 1000 + 6 s without\n"
         "                         one, and this command waits MS / 1000 + 15 s\n"
         "  --accuracy N           horizontal accuracy wanted\n"
         "  --vertical-accuracy N  vertical accuracy wanted\n"
         "  --power N              preferred power consumption\n"
         "  --nmea                 ask for NMEA sentences\n"
         "  --speed                ask for speed and course\n"
         "  --altitude             ask for the altitude\n"
         "  --address              ask for address information\n"
         "  --cost                 allow a fix that costs money\n",
         {{"periodic", true},
          {"count", true},
          {"response-time", true},
          {"accuracy", true},
          {"vertical-accuracy", true},
          {"power", true},
          {"nmea", false},
          {"speed", false},
          {"altitude", false},
          {"address", false},
          {"cost", false}},
         0,
         0,
         RunLocate},
        {"last", "lapi last [OPTIONS]", "Prints the last known location.\n", {}, 0, 0, RunLast},
        {"abort",
         "lapi abort --sid N --tid N [OPTIONS]",
         "Aborts the location request (--sid, --tid) of this client. A new client\n"
         "owns no request, so from the command line the server refuses it; the\n"
         "command is there to try the request.\n",
         {},
         0,
         0,
         RunAbort},
        {"abort-all",
         "lapi abort-all [OPTIONS]",
         "Aborts every running location request of every client. The owners get\n"
         "the abort answers; this command reports, as 'abort-all', that the server\n"
         "took it (the request has no answer of its own).\n",
         {},
         0,
         0,
         RunAbortAll},
        {"status",
         "lapi status [OPTIONS]",
         "Prints the positioning status.\n",
         {},
         0,
         0,
         RunStatus},
        {"watch",
         "lapi watch [--answer TYPE] [--count N] [OPTIONS]",
         "Prints status changes and network-initiated location requests as they\n"
         "arrive, until interrupted, --count messages, or --timeout MS has passed.\n"
         "Only one client at a time may take network location requests.\n\n"
         "Options:\n"
         "  --answer TYPE   answer every network location request with this response type:\n"
         "                  a number from 0 to 4294967295 that the server hands to the\n"
         "                  BP unchanged (the BP defines what each value means; the\n"
         "                  BP simulator takes any)\n"
         "  --count N       stop after N messages\n"
         "  --no-mtlr       do not take network location requests\n"
         "  --no-status     do not take status changes\n",
         {{"answer", true}, {"count", true}, {"no-mtlr", false}, {"no-status", false}},
         0,
         0,
         RunWatch},
        {"db-get",
         "lapi db-get FILEID [OPTIONS]",
         "Reads the assistance database file FILEID: a number from 0 to 4294967295\n"
         "(decimal, or hexadecimal with 0x) that the server hands to the BP\n"
         "unchanged; which files exist is the BP's matter. The BP simulator answers\n"
         "any FILEID with the data 01 02 03 04 unless told otherwise ('dbfile').\n",
         {},
         1,
         1,
         RunDbGet},
        {"db-set",
         "lapi db-set FILEID:HEX [FILEID:HEX...] [OPTIONS]",
         "Writes assistance database files, each with 1 to 4 data bytes given in\n"
         "hexadecimal (e.g. 3:0a0b). At most 22 files. FILEID is a number from 0 to\n"
         "4294967295 handed to the BP unchanged (see 'lapi db-get --help').\n",
         {},
         1,
         LAPI_MAX_DB_FILES,
         RunDbSet},
        {"distance",
         "lapi distance LAT1 LON1 LAT2 LON2 [--distance-only] [OPTIONS]",
         "Asks for the distance and azimuth from the first point to the second\n"
         "(degrees; south and west negative).\n\n"
         "Options:\n"
         "  --distance-only   ask for the distance only\n",
         {{"distance-only", false}},
         4,
         4,
         RunDistance},
        {"geofence add",
         "lapi geofence add LAT LON RADIUS [--altitude M] [--wait-hit] [OPTIONS]",
         "Adds a proximity area around (LAT, LON). The area belongs to this client\n"
         "and ends with it: --wait-hit keeps the command running until the area is\n"
         "reached (the hit is printed) or the command is interrupted.\n\n"
         "Options:\n"
         "  --altitude M        altitude of the centre\n"
         "  --wait-hit          wait for the proximity hit\n"
         "  --hit-timeout MS    give up waiting for the hit after MS (exit status 1)\n",
         {{"altitude", true}, {"wait-hit", false}, {"hit-timeout", true}},
         3,
         3,
         RunGeofenceAdd},
        {"geofence remove",
         "lapi geofence remove --sid N --tid N [OPTIONS]",
         "Removes the proximity area that this client added with the pair\n"
         "(--sid, --tid).\n",
         {},
         0,
         0,
         RunGeofenceRemoveOne},
        {"geofence remove-all",
         "lapi geofence remove-all [OPTIONS]",
         "Removes every proximity area of every client.\n",
         {},
         0,
         0,
         RunGeofenceRemoveAll},
    };
    return kCommands;
}

void PrintTopHelp(FILE *out) {
    fputs(
        "Usage: lapi [OPTIONS] COMMAND [ARGS] [OPTIONS]\n"
        "\n"
        "Sends requests to the location server and prints its answers.\n"
        "\n"
        "Commands:\n"
        "  locate                  get a location fix (--periodic SECONDS for reports)\n"
        "  last                    get the last known location\n"
        "  abort                   abort a location request (--sid, --tid)\n"
        "  abort-all               abort every running location request\n"
        "  status                  read the positioning status\n"
        "  watch                   print status changes and network location requests\n"
        "  db-get FILEID           read an assistance database file\n"
        "  db-set FILEID:HEX...    write assistance database files\n"
        "  distance LAT1 LON1 LAT2 LON2   distance and azimuth between two points\n"
        "  geofence add|remove|remove-all proximity areas\n"
        "\n",
        out);
    fputs(kCommonHelp, out);
    fputs(
        "\n"
        "Run 'lapi COMMAND --help' for the options of a command;\n"
        "'lapi --version' prints the version.\n"
        "\n"
        "Exit status: 0 success; 1 the server answered with an error, did not answer\n"
        "in time, or went away; 2 usage error; 3 the server cannot be reached.\n",
        out);
}

void PrintCommandHelp(const Command &c) {
    printf("Usage: %s\n\n%s\n%s", c.synopsis, c.help, kCommonHelp);
}

void PrintGeofenceHelp() {
    printf(
        "Usage: lapi geofence add|remove|remove-all [ARGS] [OPTIONS]\n\n"
        "Proximity areas:\n"
        "  add LAT LON RADIUS   add an area (see 'lapi geofence add --help')\n"
        "  remove               remove the area of the pair --sid, --tid\n"
        "  remove-all           remove every area\n\n%s",
        kCommonHelp);
}

}  // namespace

int main(int argc, char **argv) {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    /* No SA_RESTART: a signal must end the wait in poll(). */
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("lapi %s\n", lapi_version());
        return kExitOk;
    }
    Ctx ctx;
    /* --json anywhere asks for JSON from the first usage error on. */
    for (int k = 1; k < argc && strcmp(argv[k], "--") != 0; ++k) {
        if (strcmp(argv[k], "--json") == 0) {
            ctx.json = true;
        }
    }
    /* Common options before the command. */
    int i = 1;
    Args early;
    std::string err;
    if (!ParseArgs(argc, argv, &i, {}, early, err, true)) {
        return UsageError(ctx, err + " (command options go after the command)");
    }
    if (early.Has("help")) {
        PrintTopHelp(stdout);
        return kExitOk;
    }
    if (i >= argc) {
        if (ctx.json) {
            return UsageError(ctx, "no command given");
        }
        PrintTopHelp(stderr);
        return kExitUsage;
    }
    std::string name = argv[i++];
    if (name == "help") {
        PrintTopHelp(stdout);
        return kExitOk;
    }
    if (name == "geofence") {
        if (i >= argc || argv[i][0] == '-') {
            ctx.command = "geofence";
            bool wantsHelp =
                i < argc && (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0);
            if (wantsHelp) {
                PrintGeofenceHelp();
                return kExitOk;
            }
            return UsageError(ctx, "geofence wants add, remove or remove-all");
        }
        name += " ";
        name += argv[i++];
    }
    const Command *cmd = nullptr;
    for (const Command &c : Commands()) {
        if (name == c.name) {
            cmd = &c;
        }
    }
    if (cmd == nullptr) {
        return UsageError(ctx, "unknown command '" + name + "'");
    }
    ctx.command = cmd->name;
    Args args = early;
    if (!ParseArgs(argc, argv, &i, cmd->opts, args, err)) {
        return UsageError(ctx, err);
    }
    if (args.Has("help")) {
        PrintCommandHelp(*cmd);
        return kExitOk;
    }
    int rc = ApplyCommon(ctx, args);
    if (rc != kExitOk) {
        return rc;
    }
    if (args.pos.size() < cmd->minPos || args.pos.size() > cmd->maxPos) {
        if (cmd->maxPos == 0) {
            return UsageError(ctx, "unexpected argument '" + args.pos[0] + "'");
        }
        return UsageError(ctx, std::string("usage: ") + cmd->synopsis);
    }
    return cmd->run(ctx, args);
}
