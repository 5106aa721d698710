/*
 * BP simulator: plays the positioning engine at the far end of the mux
 * channel, for tests and for running the server on a host machine.
 *
 * It holds the master side of a raw pseudo-terminal and links
 * ROOT/dev/mux18 to the slave side, where the server opens it as its mux
 * device. Frames that the server writes are reassembled (resynchronising
 * after garbage exactly as the server does), kept in order for inspection,
 * and answered according to a policy per subCmdId: at once, after a delay,
 * or never. Any message, or any raw byte sequence, can be sent on request.
 *
 * Two ways to drive it:
 *   - single-threaded: call Poll() from your own loop (the bpsim program);
 *     the Wait* calls then poll by themselves while they wait;
 *   - background thread: StartThread() runs the loop; every public call is
 *     then safe from any thread, and the Wait* calls block on the queue.
 *
 * Callbacks (Policy::build, the trace hook) run inside the loop with the
 * simulator's lock held: they must not call back into the simulator.
 */
#ifndef BPSIM_BPSIM_H
#define BPSIM_BPSIM_H

#include <poll.h>
#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LAPI_BpMsg.h"

namespace bpsim {

using Bytes = std::vector<uint8_t>;

/* One BP message (header first), without the frame bytes. */
struct Message {
    Bytes bytes;

    uint8_t SubCmdId() const { return bytes.size() > 0 ? bytes[0] : 0xFF; }
    uint8_t SessionId() const { return bytes.size() > 1 ? bytes[1] : 0; }
    uint8_t TransactionId() const { return bytes.size() > 2 ? bytes[2] : 0; }
    size_t Size() const { return bytes.size(); }
    /* Big-endian field at a message offset; nullopt past the end. */
    std::optional<uint16_t> U16(size_t offset) const;
    std::optional<uint32_t> U32(size_t offset) const;
    std::optional<uint64_t> U64(size_t offset) const;
    /* Fixed-point real at a message offset, decoded as the server does. */
    std::optional<double> Fixed(size_t offset) const;
};

/* The content of a push indication (WAP_PUSH_APBP_IND): the bytes after its
 * u32 length. nullopt for another message, or when the length does not match
 * what the message holds. */
std::optional<Bytes> PushContent(const Message &msg);

/* ---- building messages and frames ---- */

/* 0x50, frameLen (big-endian), msg, 0xCF 0xB0. */
Bytes MakeFrame(const Bytes &msg);
/* Header + body. */
Bytes MakeMsg(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId, const Bytes &body = {});
/* Appends big-endian integers or a fixed-point real to a body. */
void PutU8(Bytes *b, uint8_t v);
void PutU16(Bytes *b, uint16_t v);
void PutU32(Bytes *b, uint32_t v);
void PutU64(Bytes *b, uint64_t v);
void PutFixed(Bytes *b, double v);

/* A position as the engine reports it. */
struct Fix {
    double longitude = 0.0;
    double latitude = 0.0;
    double latLonAccuracy = 5.0;
    uint64_t timeStamp = 0; /* sent as an integer, not scaled */
    double altitude = 0.0;
    double speed = 0.0;
    double travelDirection = 0.0;
    double pointingDirection = 0.0;
    double horizontalAccuracy = 5.0;
    double verticalAccuracy = 10.0;
    double course = 0.0;
    int32_t locationMethod = 0;
    int32_t cause = 0;
    uint64_t ageOfFix = 0;
    std::string nmea; /* sent as it is, cut at LAPI_BP_MAX_NMEA_LEN bytes */
};

/* GEOLOCATION_APBP_RES for the pair. */
Bytes BuildGetLocationRsp(uint8_t sessionId, uint8_t transactionId, const Fix &fix);
/* The 7-byte answers: subCmdId, pair, one i32 (result, status or cause). */
Bytes BuildI32Msg(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId, int32_t value);

/* The eight status fields of GET_STATUS_APBP_RES and STATUS_CHANGE_BPAP_IND. */
struct Status {
    int32_t userStatus = 0;
    int32_t hwStatus = 0;
    int32_t fixStatus = 0;
    int32_t emergencyStatus = 0;
    int32_t fixResultStatus = 0; /* fixResultStatus.status */
    int32_t fixResultCause = 0;  /* fixResultStatus.cause */
    int32_t signalStatus = 0;
    int32_t iconStatus = 0;
};

/* One assistance-database file of DB_READ_APBP_RES: 1 to 4 data bytes, sent
 * as they are (one big-endian number). */
struct DbFile {
    uint32_t fileId = 0;
    Bytes data;
};

/* A network-initiated location notification (LOCATION_NOTIFICATION_BPAP_IND). */
struct Notification {
    uint8_t sessionId = 0; /* the BP's own pair, echoed in the answer */
    uint8_t transactionId = 0;
    int32_t notificationType = 0;
    int32_t locationType = 0;
    uint8_t dataCodingSchema = 0;
    std::vector<uint16_t> name; /* UCS-2 characters, sent big-endian */
    std::string address;        /* sent as it is */
};

/* subCmdId, pair and the eight status fields. */
Bytes BuildStatusMsg(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId,
                     const Status &status);
/* DB_READ_APBP_RES: numFiles, the files, the result. */
Bytes BuildGetGpsDbDataRsp(uint8_t sessionId, uint8_t transactionId,
                           const std::vector<DbFile> &files, int32_t result);
/* DISTANCE_AND_AZIMUTH_APBP_RES in fixed point. */
Bytes BuildDistanceAzimuthRsp(uint8_t sessionId, uint8_t transactionId, double distance,
                              double azimuth);
/* LOCATION_NOTIFICATION_BPAP_IND; nameLength is twice the characters. */
Bytes BuildLocationNotificationInd(const Notification &n);
/* PROXIMITY_HIT_APBP_IND with the position of the fix. */
Bytes BuildProximityHitInd(uint8_t sessionId, uint8_t transactionId, const Fix &fix);
/* ASCII text as UCS-2 characters. */
std::vector<uint16_t> Ucs2(const std::string &text);

/* Reads NMEA sentences from a file, keeping whole lines within
 * LAPI_BP_MAX_NMEA_LEN bytes. nullopt when the file cannot be read. */
std::optional<std::string> LoadNmeaFile(const std::string &path);

/* One position of an NMEA track: the sentences of one epoch (same time
 * field) that carry a position, merged. */
struct TrackPoint {
    double latitude = 0.0;
    double longitude = 0.0;
    std::optional<double> altitude; /* from GGA, metres */
    std::optional<double> speed;    /* from RMC, knots converted to m/s */
    std::optional<double> course;   /* from RMC, degrees */
    std::string nmea;               /* the epoch's sentences, CR LF after each */
};

/* Reads a track of GGA and RMC sentences (any talker): one point per epoch
 * with a valid position; other sentences are skipped. nullopt with a reason
 * in *error when the file cannot be read or holds no position. */
std::optional<std::vector<TrackPoint>> LoadNmeaTrack(const std::string &path, std::string *error);
/* The fix with the point's position, and its sentences as NMEA data. */
Fix ApplyTrackPoint(Fix fix, const TrackPoint &point);

/* "01 02 ab" or "0102ab" -> bytes; nullopt on anything else. */
std::optional<Bytes> ParseHex(const std::string &text);
/* Bytes -> "01 02 ab". */
std::string ToHex(const Bytes &bytes);

/* ---- frame reader ---- */

/*
 * Cuts BP messages out of a byte stream with the server's rules: search the
 * sync byte, read the length, wait for the whole frame, check the trailer;
 * a length above 1024 or below 5, or a wrong trailer, costs exactly one byte
 * and the search goes on from the byte after the sync byte.
 */
class FrameReader {
  public:
    void Feed(const uint8_t *data, size_t len);
    void Feed(const Bytes &bytes) { Feed(bytes.data(), bytes.size()); }
    /* The next whole message, or nullopt until more bytes arrive. */
    std::optional<Bytes> Next();
    /* Bytes held for an incomplete frame. */
    size_t Buffered() const { return buf_.size() - pos_; }
    /* Frames refused: wrong trailer or a length below the overhead. */
    size_t LostSync() const { return lostSync_; }
    /* Frames refused for a length above LAPI_BP_FRAME_MAX_LEN. */
    size_t TooBig() const { return tooBig_; }
    void Reset();

  private:
    Bytes buf_;
    size_t pos_ = 0;
    size_t lostSync_ = 0;
    size_t tooBig_ = 0;
};

/* ---- answer policy ---- */

enum class Answer {
    Now,    /* answer as soon as the request is read */
    After,  /* answer delayMs after the request was read */
    Silent, /* read and record the request, never answer */
};

struct Policy {
    Answer answer = Answer::Now;
    int delayMs = 0;
    /* When set, replaces the built-in answer: returns the messages (without
     * frame bytes) to send for this request, possibly none. */
    std::function<std::vector<Bytes>(const Message &request)> build;
};

/* ---- what the built-in answers carry ---- */

/*
 * Without a policy of its own, every request the server sends is answered:
 * location and last-known requests with the fix, the others with these
 * results. Areas that an add accepted (status 0) are remembered until a
 * removal, a remove-all or a hit ends them.
 */
struct Results {
    int32_t abortResult = 0;   /* GEOLOCATION_ABORT_APBP_RES */
    int32_t dbWriteResult = 0; /* DB_WRITE_APBP_RES */
    /* DB_READ_APBP_RES; empty: one file with the requested fileId and the
     * data 01 02 03 04. */
    std::vector<DbFile> dbFiles;
    int32_t dbReadResult = 0;
    Status status; /* GET_STATUS_APBP_RES */
    double distance = 1000.0;
    double azimuth = 90.0;
    int32_t addProximityStatus = 0;    /* PROXIMITY_ADD_APBP_RES */
    int32_t removeProximityStatus = 0; /* PROXIMITY_REM_APBP_RES */
    /* A periodic location request (reportCriteria 1) gets a report at once
     * and then one every periodicMs until its abort arrives; 0: only the
     * first report; kPeriodicAsRequested: every interval seconds of the
     * request itself (the bpsim program's default). */
    static constexpr int kPeriodicAsRequested = -1;
    int periodicMs = 0;
};

/* A BP pair (sessionId, transactionId). */
using Pair = std::pair<uint8_t, uint8_t>;

/* ---- the simulator ---- */

struct Options {
    /* Links ROOT/dev/mux18 to the slave (creating ROOT/dev); empty: no link. */
    std::string root;
    /* Keep the slave open too, so that the master never sees a hang-up while
     * the server has not opened the channel or has closed it. */
    bool holdSlave = true;
    /* The position of the built-in location answers. */
    Fix fix;
};

class Simulator {
  public:
    Simulator() : Simulator(Options()) {}
    explicit Simulator(Options options);
    ~Simulator();
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    /* Opens the raw pseudo-terminal and makes the link (replacing a stale
     * one). False, with a reason in *error, on failure. */
    bool Open(std::string *error = nullptr);
    /* Stops the thread, removes the link (if it is still ours), closes. */
    void Close();
    bool IsOpen() const;
    /* ROOT/dev/mux18, or empty without a root. */
    std::string LinkPath() const;
    std::string SlavePath() const;
    int MasterFd() const;

    /* ---- behaviour ---- */
    void SetFix(const Fix &fix);
    Fix GetFix() const;
    /* Policy for requests with this subCmdId (any 0..255). */
    void SetPolicy(uint8_t subCmdId, Policy policy);
    void ClearPolicy(uint8_t subCmdId);
    /* Called for every message received ("recv") and sent ("sent"), and for
     * raw bytes sent ("raw"), with the lock held. */
    void SetTrace(std::function<void(const char *what, const Bytes &bytes)> trace);
    /* Results of the built-in answers. */
    void SetResults(const Results &results);
    Results GetResults() const;
    /* Proximity areas accepted by the built-in answer and not yet ended. */
    std::vector<Pair> Areas() const;
    /* Periodic requests whose reports the simulator keeps sending. */
    std::vector<Pair> PeriodicSessions() const;

    /* ---- sending ---- */
    /* Frames the message and sends it (queued behind earlier output). */
    bool Send(const Bytes &msg);
    /* Sends bytes as they are: garbage, split or merged frames. */
    bool SendRaw(const Bytes &bytes);
    /* Indications the BP starts on its own, and single answers on demand. */
    bool SendStatusChange(const Status &status, uint8_t sessionId = 0, uint8_t transactionId = 0);
    bool SendLocationNotification(const Notification &notification);
    bool SendNotificationStatus(uint8_t sessionId, uint8_t transactionId, int32_t cause);
    /* A hit with the current fix; the area ends. */
    bool SendProximityHit(uint8_t sessionId, uint8_t transactionId);
    /* One location response with the current fix (a further periodic report). */
    bool SendFix(uint8_t sessionId, uint8_t transactionId);
    /* Bytes accepted by Send/SendRaw and not yet taken by the terminal. */
    size_t PendingOutput() const;

    /* ---- the loop ---- */
    /* One turn: waits up to timeoutMs (-1: until something happens) for the
     * channel, the output and the extra descriptors (their revents are filled
     * in), reads and answers, writes what is pending and sends the delayed
     * answers that are due. Returns poll's result (-1 on error). */
    int Poll(int timeoutMs, std::vector<pollfd> *extra = nullptr);
    bool StartThread();
    void StopThread();

    /* ---- what was received ---- */
    using Matcher = std::function<bool(const Message &)>;
    /* Takes the first received message not yet taken that matches (any when
     * match is empty), waiting up to timeoutMs; nullopt on timeout. */
    std::optional<Message> WaitFor(const Matcher &match, int timeoutMs);
    std::optional<Message> WaitForSubCmd(uint8_t subCmdId, int timeoutMs);
    std::optional<Message> WaitForAny(int timeoutMs) { return WaitFor(Matcher(), timeoutMs); }
    /* True when no message arrives within windowMs (none is taken). */
    bool StaysQuiet(int windowMs);
    /* Every message received since Open (or ClearHistory), in order. */
    std::vector<Message> History() const;
    void ClearHistory();
    /* Messages received and not yet taken by a Wait* call. */
    size_t PendingCount() const;
    void ClearPending();
    /* Frames that the reader refused (lost synchronisation, too big). */
    size_t LostSyncCount() const;
    size_t TooBigCount() const;

  private:
    using Clock = std::chrono::steady_clock;
    struct Delayed {
        Clock::time_point due;
        std::vector<Bytes> msgs;
    };

    void ReadLocked();
    void HandleLocked(const Message &msg);
    std::vector<Bytes> DefaultAnswerLocked(const Message &msg);
    void QueueMsgLocked(const Bytes &msg);
    void FlushLocked();
    void RunDueLocked(Clock::time_point now);
    int TimeoutLocked(int timeoutMs, Clock::time_point now) const;
    /* One wait of WaitFor/StaysQuiet, from now (before deadline) up to
     * deadline: on the condition while the thread runs the loop, else by
     * running one turn of it here. */
    void WaitStepLocked(std::unique_lock<std::mutex> &lock, Clock::time_point now,
                        Clock::time_point deadline);
    void Wake();
    void ThreadMain();

    Options options_;
    int master_ = -1;
    int slave_ = -1;
    int wake_[2] = {-1, -1};
    bool hangup_ = false;
    std::string slavePath_;
    std::string linkPath_;

    mutable std::mutex mu_;
    std::condition_variable cv_;
    FrameReader reader_;
    Bytes out_;
    std::deque<Message> pending_;
    std::vector<Message> history_;
    std::vector<Delayed> delayed_;
    std::optional<Policy> policies_[256];
    struct Periodic {
        Pair pair;
        int intervalMs;
        Clock::time_point due;
    };
    void TrackLocked(const Message &msg, const Policy &policy);
    Results results_;
    std::vector<Pair> areas_;
    std::vector<Periodic> periodic_;
    std::function<void(const char *, const Bytes &)> trace_;

    std::thread thread_;
    bool threadRunning_ = false;
    bool stop_ = false;
};

}  // namespace bpsim

#endif /* BPSIM_BPSIM_H */
