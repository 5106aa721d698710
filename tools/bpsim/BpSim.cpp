#include "BpSim.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace bpsim {

/* ------------------------------------------------------------------------ */
/* Messages                                                                  */
/* ------------------------------------------------------------------------ */

std::optional<uint16_t> Message::U16(size_t offset) const {
    if (offset + 2 > bytes.size()) {
        return std::nullopt;
    }
    return LAPI_BpGetU16(bytes.data() + offset);
}

std::optional<uint32_t> Message::U32(size_t offset) const {
    if (offset + 4 > bytes.size()) {
        return std::nullopt;
    }
    return LAPI_BpGetU32(bytes.data() + offset);
}

std::optional<uint64_t> Message::U64(size_t offset) const {
    if (offset + 8 > bytes.size()) {
        return std::nullopt;
    }
    return LAPI_BpGetU64(bytes.data() + offset);
}

std::optional<double> Message::Fixed(size_t offset) const {
    if (offset + LAPI_BP_FIXED_LEN > bytes.size()) {
        return std::nullopt;
    }
    return LAPI_SRV_BpFixedToDouble(bytes.data() + offset);
}

Bytes MakeFrame(const Bytes &msg) {
    size_t frameLen = msg.size() + LAPI_BP_FRAME_OVERHEAD;
    Bytes frame;
    frame.reserve(frameLen);
    frame.push_back(LAPI_BP_FRAME_SYNC);
    PutU16(&frame, static_cast<uint16_t>(frameLen));
    frame.insert(frame.end(), msg.begin(), msg.end());
    frame.push_back(LAPI_BP_FRAME_TRAILER0);
    frame.push_back(LAPI_BP_FRAME_TRAILER1);
    return frame;
}

Bytes MakeMsg(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId, const Bytes &body) {
    Bytes msg{subCmdId, sessionId, transactionId};
    msg.insert(msg.end(), body.begin(), body.end());
    return msg;
}

void PutU8(Bytes *b, uint8_t v) {
    b->push_back(v);
}

void PutU16(Bytes *b, uint16_t v) {
    uint8_t tmp[2];
    LAPI_BpPutU16(tmp, v);
    b->insert(b->end(), tmp, tmp + 2);
}

void PutU32(Bytes *b, uint32_t v) {
    uint8_t tmp[4];
    LAPI_BpPutU32(tmp, v);
    b->insert(b->end(), tmp, tmp + 4);
}

void PutU64(Bytes *b, uint64_t v) {
    uint8_t tmp[8];
    LAPI_BpPutU64(tmp, v);
    b->insert(b->end(), tmp, tmp + 8);
}

void PutFixed(Bytes *b, double v) {
    uint8_t tmp[LAPI_BP_FIXED_LEN];
    LAPI_SRV_DoubleToBpFixed(v, tmp);
    b->insert(b->end(), tmp, tmp + LAPI_BP_FIXED_LEN);
}

Bytes BuildGetLocationRsp(uint8_t sessionId, uint8_t transactionId, const Fix &fix) {
    Bytes body;
    PutFixed(&body, fix.longitude);
    PutFixed(&body, fix.latitude);
    PutFixed(&body, fix.latLonAccuracy);
    PutU64(&body, fix.timeStamp);
    PutFixed(&body, fix.altitude);
    PutFixed(&body, fix.speed);
    PutFixed(&body, fix.travelDirection);
    PutFixed(&body, fix.pointingDirection);
    PutFixed(&body, fix.horizontalAccuracy);
    PutFixed(&body, fix.verticalAccuracy);
    PutFixed(&body, fix.course);
    PutU32(&body, static_cast<uint32_t>(fix.locationMethod));
    PutU32(&body, static_cast<uint32_t>(fix.cause));
    PutU64(&body, fix.ageOfFix);
    size_t nmeaLen = std::min<size_t>(fix.nmea.size(), LAPI_BP_MAX_NMEA_LEN);
    PutU16(&body, static_cast<uint16_t>(nmeaLen));
    body.insert(body.end(), fix.nmea.begin(), fix.nmea.begin() + static_cast<long>(nmeaLen));
    return MakeMsg(GEOLOCATION_APBP_RES, sessionId, transactionId, body);
}

Bytes BuildI32Msg(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId, int32_t value) {
    Bytes body;
    PutU32(&body, static_cast<uint32_t>(value));
    return MakeMsg(subCmdId, sessionId, transactionId, body);
}

Bytes BuildStatusMsg(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId,
                     const Status &status) {
    Bytes body;
    for (int32_t v :
         {status.userStatus, status.hwStatus, status.fixStatus, status.emergencyStatus,
          status.fixResultStatus, status.fixResultCause, status.signalStatus, status.iconStatus}) {
        PutU32(&body, static_cast<uint32_t>(v));
    }
    return MakeMsg(subCmdId, sessionId, transactionId, body);
}

Bytes BuildGetGpsDbDataRsp(uint8_t sessionId, uint8_t transactionId,
                           const std::vector<DbFile> &files, int32_t result) {
    Bytes body;
    PutU16(&body, static_cast<uint16_t>(files.size()));
    for (const DbFile &f : files) {
        PutU32(&body, f.fileId);
        PutU16(&body, static_cast<uint16_t>(f.data.size()));
        body.insert(body.end(), f.data.begin(), f.data.end());
    }
    PutU32(&body, static_cast<uint32_t>(result));
    return MakeMsg(DB_READ_APBP_RES, sessionId, transactionId, body);
}

Bytes BuildDistanceAzimuthRsp(uint8_t sessionId, uint8_t transactionId, double distance,
                              double azimuth) {
    Bytes body;
    PutFixed(&body, distance);
    PutFixed(&body, azimuth);
    return MakeMsg(DISTANCE_AND_AZIMUTH_APBP_RES, sessionId, transactionId, body);
}

Bytes BuildLocationNotificationInd(const Notification &n) {
    Bytes body;
    PutU32(&body, static_cast<uint32_t>(n.notificationType));
    PutU32(&body, static_cast<uint32_t>(n.locationType));
    PutU8(&body, n.dataCodingSchema);
    PutU8(&body, static_cast<uint8_t>(n.name.size() * 2));
    for (uint16_t ch : n.name) {
        PutU16(&body, ch);
    }
    PutU8(&body, static_cast<uint8_t>(n.address.size()));
    body.insert(body.end(), n.address.begin(), n.address.end());
    return MakeMsg(LOCATION_NOTIFICATION_BPAP_IND, n.sessionId, n.transactionId, body);
}

Bytes BuildProximityHitInd(uint8_t sessionId, uint8_t transactionId, const Fix &fix) {
    /* The position fields are those of a location response, without cause
     * and NMEA. */
    Bytes full = BuildGetLocationRsp(sessionId, transactionId, fix);
    Bytes hit(full.begin(), full.begin() + offsetof(BpProximityHitInd, locationMethod));
    hit[0] = PROXIMITY_HIT_APBP_IND;
    PutU32(&hit, static_cast<uint32_t>(fix.locationMethod));
    PutU64(&hit, fix.ageOfFix);
    return hit;
}

std::vector<uint16_t> Ucs2(const std::string &text) {
    std::vector<uint16_t> out;
    for (unsigned char ch : text) {
        out.push_back(ch);
    }
    return out;
}

std::optional<std::string> LoadNmeaFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string out;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        /* Sentences travel with CR LF, as a receiver emits them. */
        if (out.size() + line.size() + 2 > static_cast<size_t>(LAPI_BP_MAX_NMEA_LEN)) {
            break;
        }
        out += line;
        out += "\r\n";
    }
    return out;
}

namespace {

/* ddmm.mmmm (or dddmm.mmmm) and a hemisphere letter to signed degrees. */
std::optional<double> NmeaDegrees(const std::string &value, const std::string &hemi, char neg,
                                  char pos, double limit) {
    if (value.empty() || hemi.size() != 1 || (hemi[0] != neg && hemi[0] != pos)) {
        return std::nullopt;
    }
    char *end = nullptr;
    double raw = strtod(value.c_str(), &end);
    if (end == value.c_str() || *end != '\0' || raw < 0) {
        return std::nullopt;
    }
    double deg = static_cast<int>(raw / 100) + fmod(raw, 100.0) / 60.0;
    if (deg > limit) {
        return std::nullopt;
    }
    return hemi[0] == neg ? -deg : deg;
}

std::optional<double> NmeaNumber(const std::string &value) {
    char *end = nullptr;
    double v = strtod(value.c_str(), &end);
    if (value.empty() || end == value.c_str() || *end != '\0' || !std::isfinite(v)) {
        return std::nullopt;
    }
    return v;
}

constexpr double kKnotInMetresPerSecond = 1852.0 / 3600.0;

}  // namespace

std::optional<std::vector<TrackPoint>> LoadNmeaTrack(const std::string &path, std::string *error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read '" + path + "': " + strerror(errno);
        return std::nullopt;
    }
    std::vector<TrackPoint> track;
    std::string lastTime;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.size() < 7 || line[0] != '$') {
            continue;
        }
        std::string body = line.substr(0, line.find('*'));
        std::vector<std::string> f;
        std::stringstream ss(body);
        std::string field;
        while (std::getline(ss, field, ',')) {
            f.push_back(field);
        }
        if (!body.empty() && body.back() == ',') {
            f.push_back("");
        }
        std::string kind = f[0].size() >= 6 ? f[0].substr(3, 3) : "";
        std::optional<double> lat;
        std::optional<double> lon;
        TrackPoint p;
        if (kind == "GGA" && f.size() >= 10 && f[6] != "0") {
            lat = NmeaDegrees(f[2], f[3], 'S', 'N', 90.0);
            lon = NmeaDegrees(f[4], f[5], 'W', 'E', 180.0);
            p.altitude = NmeaNumber(f[9]);
        } else if (kind == "RMC" && f.size() >= 9 && f[2] == "A") {
            lat = NmeaDegrees(f[3], f[4], 'S', 'N', 90.0);
            lon = NmeaDegrees(f[5], f[6], 'W', 'E', 180.0);
            if (auto knots = NmeaNumber(f[7])) {
                p.speed = *knots * kKnotInMetresPerSecond;
            }
            p.course = NmeaNumber(f[8]);
        }
        if (!lat || !lon) {
            continue;
        }
        p.latitude = *lat;
        p.longitude = *lon;
        p.nmea = line + "\r\n";
        const std::string &time = f[1];
        if (!track.empty() && !time.empty() && time == lastTime &&
            track.back().nmea.size() + p.nmea.size() <= static_cast<size_t>(LAPI_BP_MAX_NMEA_LEN)) {
            TrackPoint &prev = track.back();
            prev.nmea += p.nmea;
            prev.altitude = prev.altitude ? prev.altitude : p.altitude;
            prev.speed = prev.speed ? prev.speed : p.speed;
            prev.course = prev.course ? prev.course : p.course;
            continue;
        }
        lastTime = time;
        track.push_back(std::move(p));
    }
    if (track.empty()) {
        *error = "'" + path + "' holds no GGA or RMC sentence with a valid position";
        return std::nullopt;
    }
    return track;
}

Fix ApplyTrackPoint(Fix fix, const TrackPoint &point) {
    fix.latitude = point.latitude;
    fix.longitude = point.longitude;
    fix.altitude = point.altitude.value_or(fix.altitude);
    fix.speed = point.speed.value_or(fix.speed);
    fix.course = point.course.value_or(fix.course);
    fix.nmea = point.nmea.substr(0, LAPI_BP_MAX_NMEA_LEN);
    return fix;
}

std::optional<Bytes> PushContent(const Message &msg) {
    constexpr size_t kHeadLen = LAPI_BP_MSG_HEADER_LEN + 4;
    if (msg.SubCmdId() != WAP_PUSH_APBP_IND || msg.Size() < kHeadLen) {
        return std::nullopt;
    }
    if (msg.U32(LAPI_BP_MSG_HEADER_LEN).value_or(0) != msg.Size() - kHeadLen) {
        return std::nullopt;
    }
    return Bytes(msg.bytes.begin() + kHeadLen, msg.bytes.end());
}

std::optional<Bytes> ParseHex(const std::string &text) {
    Bytes out;
    int hi = -1;
    for (char c : text) {
        int v;
        if (c >= '0' && c <= '9') {
            v = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            v = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            v = c - 'A' + 10;
        } else if (c == ' ' || c == '\t' || c == ',' || c == ':') {
            if (hi >= 0) {
                return std::nullopt; /* a lone digit */
            }
            continue;
        } else {
            return std::nullopt;
        }
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi * 16 + v));
            hi = -1;
        }
    }
    if (hi >= 0) {
        return std::nullopt;
    }
    return out;
}

std::string ToHex(const Bytes &bytes) {
    std::string s;
    char tmp[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        snprintf(tmp, sizeof(tmp), i == 0 ? "%02x" : " %02x", bytes[i]);
        s += tmp;
    }
    return s;
}

/* ------------------------------------------------------------------------ */
/* Frame reader                                                              */
/* ------------------------------------------------------------------------ */

void FrameReader::Feed(const uint8_t *data, size_t len) {
    if (pos_ > 0 && pos_ >= buf_.size() / 2) {
        buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(pos_));
        pos_ = 0;
    }
    buf_.insert(buf_.end(), data, data + len);
}

std::optional<Bytes> FrameReader::Next() {
    for (;;) {
        /* Skip to the next sync byte; bytes before it are silently dropped. */
        while (pos_ < buf_.size() && buf_[pos_] != LAPI_BP_FRAME_SYNC) {
            ++pos_;
        }
        size_t avail = buf_.size() - pos_;
        if (avail < LAPI_BP_FRAME_OVERHEAD) {
            return std::nullopt;
        }
        size_t frameLen = static_cast<size_t>(buf_[pos_ + 1]) * 256 + buf_[pos_ + 2];
        if (frameLen > LAPI_BP_FRAME_MAX_LEN) {
            ++tooBig_;
            ++pos_;
            continue;
        }
        if (frameLen < LAPI_BP_FRAME_OVERHEAD) {
            ++lostSync_;
            ++pos_;
            continue;
        }
        if (avail < frameLen) {
            return std::nullopt;
        }
        if (buf_[pos_ + frameLen - 2] != LAPI_BP_FRAME_TRAILER0 ||
            buf_[pos_ + frameLen - 1] != LAPI_BP_FRAME_TRAILER1) {
            ++lostSync_;
            ++pos_;
            continue;
        }
        auto first = buf_.begin() + static_cast<long>(pos_ + LAPI_BP_FRAME_HEAD_LEN);
        Bytes msg(first, first + static_cast<long>(frameLen - LAPI_BP_FRAME_OVERHEAD));
        pos_ += frameLen;
        return msg;
    }
}

void FrameReader::Reset() {
    buf_.clear();
    pos_ = 0;
    lostSync_ = 0;
    tooBig_ = 0;
}

/* ------------------------------------------------------------------------ */
/* Simulator                                                                 */
/* ------------------------------------------------------------------------ */

namespace {

void CloseIfOpen(int *fd) {
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

bool MakeDirs(const std::string &path) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    if (!path.empty() && path[0] == '/') {
        cur = "/";
    }
    while (std::getline(ss, part, '/')) {
        if (part.empty()) {
            continue;
        }
        cur += part;
        if (mkdir(cur.c_str(), 0755) < 0 && errno != EEXIST) {
            return false;
        }
        cur += "/";
    }
    return true;
}

std::string ErrnoText(const char *what) {
    return std::string(what) + ": " + strerror(errno);
}

}  // namespace

Simulator::Simulator(Options options) : options_(std::move(options)) {}

Simulator::~Simulator() {
    Close();
}

bool Simulator::Open(std::string *error) {
    std::string dummy;
    std::string &err = error != nullptr ? *error : dummy;
    if (IsOpen()) {
        return true;
    }
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (master < 0) {
        err = ErrnoText("posix_openpt");
        return false;
    }
    char name[128];
    if (grantpt(master) < 0 || unlockpt(master) < 0 || ptsname_r(master, name, sizeof(name)) != 0) {
        err = ErrnoText("pty set-up");
        close(master);
        return false;
    }
    fcntl(master, F_SETFD, FD_CLOEXEC);
    int slave = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (slave < 0) {
        err = ErrnoText("open slave");
        close(master);
        return false;
    }
    /* Raw before anything travels: no echo, no line editing, no translation. */
    struct termios tio;
    if (tcgetattr(slave, &tio) < 0) {
        err = ErrnoText("tcgetattr");
        close(slave);
        close(master);
        return false;
    }
    cfmakeraw(&tio);
    if (tcsetattr(slave, TCSANOW, &tio) < 0) {
        err = ErrnoText("tcsetattr");
        close(slave);
        close(master);
        return false;
    }
    int wake[2];
    if (pipe2(wake, O_NONBLOCK | O_CLOEXEC) < 0) {
        err = ErrnoText("pipe2");
        close(slave);
        close(master);
        return false;
    }
    std::string link;
    if (!options_.root.empty()) {
        std::string dev = options_.root + "/dev";
        link = dev + "/mux18";
        std::string tmp = dev + "/.mux18." + std::to_string(getpid()) + "." +
                          std::to_string(reinterpret_cast<uintptr_t>(this));
        unlink(tmp.c_str());
        /* Link under a private name, then rename: the server never sees a
         * half-made or missing device while a stale one is replaced. */
        if (!MakeDirs(dev) || symlink(name, tmp.c_str()) < 0 ||
            rename(tmp.c_str(), link.c_str()) < 0) {
            err = ErrnoText(("link " + link).c_str());
            unlink(tmp.c_str());
            close(wake[0]);
            close(wake[1]);
            close(slave);
            close(master);
            return false;
        }
    }
    if (!options_.holdSlave) {
        close(slave);
        slave = -1;
    }
    std::lock_guard<std::mutex> lock(mu_);
    master_ = master;
    slave_ = slave;
    wake_[0] = wake[0];
    wake_[1] = wake[1];
    slavePath_ = name;
    linkPath_ = link;
    hangup_ = false;
    reader_.Reset();
    out_.clear();
    return true;
}

void Simulator::Close() {
    StopThread();
    std::lock_guard<std::mutex> lock(mu_);
    if (master_ < 0) {
        return;
    }
    if (!linkPath_.empty()) {
        char target[256];
        ssize_t n = readlink(linkPath_.c_str(), target, sizeof(target) - 1);
        if (n >= 0) {
            target[n] = '\0';
            if (slavePath_ == target) {
                unlink(linkPath_.c_str());
            }
        }
    }
    CloseIfOpen(&slave_);
    CloseIfOpen(&master_);
    CloseIfOpen(&wake_[0]);
    CloseIfOpen(&wake_[1]);
    delayed_.clear();
    periodic_.clear();
    out_.clear();
    cv_.notify_all();
}

bool Simulator::IsOpen() const {
    std::lock_guard<std::mutex> lock(mu_);
    return master_ >= 0;
}

std::string Simulator::LinkPath() const {
    std::lock_guard<std::mutex> lock(mu_);
    if (!linkPath_.empty()) {
        return linkPath_;
    }
    return options_.root.empty() ? std::string() : options_.root + "/dev/mux18";
}

std::string Simulator::SlavePath() const {
    std::lock_guard<std::mutex> lock(mu_);
    return slavePath_;
}

int Simulator::MasterFd() const {
    std::lock_guard<std::mutex> lock(mu_);
    return master_;
}

void Simulator::SetFix(const Fix &fix) {
    std::lock_guard<std::mutex> lock(mu_);
    options_.fix = fix;
}

Fix Simulator::GetFix() const {
    std::lock_guard<std::mutex> lock(mu_);
    return options_.fix;
}

void Simulator::SetPolicy(uint8_t subCmdId, Policy policy) {
    std::lock_guard<std::mutex> lock(mu_);
    policies_[subCmdId] = std::move(policy);
}

void Simulator::ClearPolicy(uint8_t subCmdId) {
    std::lock_guard<std::mutex> lock(mu_);
    policies_[subCmdId].reset();
}

void Simulator::SetTrace(std::function<void(const char *, const Bytes &)> trace) {
    std::lock_guard<std::mutex> lock(mu_);
    trace_ = std::move(trace);
}

void Simulator::SetResults(const Results &results) {
    std::lock_guard<std::mutex> lock(mu_);
    results_ = results;
}

Results Simulator::GetResults() const {
    std::lock_guard<std::mutex> lock(mu_);
    return results_;
}

std::vector<Pair> Simulator::Areas() const {
    std::lock_guard<std::mutex> lock(mu_);
    return areas_;
}

std::vector<Pair> Simulator::PeriodicSessions() const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<Pair> out;
    for (const Periodic &p : periodic_) {
        out.push_back(p.pair);
    }
    return out;
}

bool Simulator::SendStatusChange(const Status &status, uint8_t sessionId, uint8_t transactionId) {
    return Send(BuildStatusMsg(STATUS_CHANGE_BPAP_IND, sessionId, transactionId, status));
}

bool Simulator::SendLocationNotification(const Notification &notification) {
    return Send(BuildLocationNotificationInd(notification));
}

bool Simulator::SendNotificationStatus(uint8_t sessionId, uint8_t transactionId, int32_t cause) {
    return Send(BuildI32Msg(NOTIFICATION_STATUS_BPAP_IND, sessionId, transactionId, cause));
}

bool Simulator::SendProximityHit(uint8_t sessionId, uint8_t transactionId) {
    Bytes hit;
    {
        std::lock_guard<std::mutex> lock(mu_);
        hit = BuildProximityHitInd(sessionId, transactionId, options_.fix);
        /* An area reports one hit and is gone. */
        areas_.erase(std::remove(areas_.begin(), areas_.end(), Pair(sessionId, transactionId)),
                     areas_.end());
    }
    return Send(hit);
}

bool Simulator::SendFix(uint8_t sessionId, uint8_t transactionId) {
    Bytes rsp;
    {
        std::lock_guard<std::mutex> lock(mu_);
        rsp = BuildGetLocationRsp(sessionId, transactionId, options_.fix);
    }
    return Send(rsp);
}

bool Simulator::Send(const Bytes &msg) {
    std::unique_lock<std::mutex> lock(mu_);
    if (master_ < 0) {
        return false;
    }
    QueueMsgLocked(msg);
    FlushLocked();
    lock.unlock();
    Wake();
    return true;
}

bool Simulator::SendRaw(const Bytes &bytes) {
    std::unique_lock<std::mutex> lock(mu_);
    if (master_ < 0) {
        return false;
    }
    if (trace_) {
        trace_("raw", bytes);
    }
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    FlushLocked();
    lock.unlock();
    Wake();
    return true;
}

size_t Simulator::PendingOutput() const {
    std::lock_guard<std::mutex> lock(mu_);
    return out_.size();
}

void Simulator::QueueMsgLocked(const Bytes &msg) {
    if (trace_) {
        trace_("sent", msg);
    }
    Bytes frame = MakeFrame(msg);
    out_.insert(out_.end(), frame.begin(), frame.end());
}

void Simulator::FlushLocked() {
    while (!out_.empty() && master_ >= 0) {
        ssize_t n = write(master_, out_.data(), out_.size());
        if (n > 0) {
            out_.erase(out_.begin(), out_.begin() + n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break; /* EAGAIN: the terminal is full, the loop retries */
        }
    }
}

void Simulator::ReadLocked() {
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = read(master_, buf, sizeof(buf));
        if (n > 0) {
            hangup_ = false;
            reader_.Feed(buf, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EIO) {
            /* Nobody holds the slave: wait for the server to open it. */
            hangup_ = true;
        }
        break;
    }
    while (auto msg = reader_.Next()) {
        Message m{std::move(*msg)};
        if (trace_) {
            trace_("recv", m.bytes);
        }
        history_.push_back(m);
        pending_.push_back(m);
        HandleLocked(m);
    }
    cv_.notify_all();
}

std::vector<Bytes> Simulator::DefaultAnswerLocked(const Message &msg) {
    const uint8_t sid = msg.SessionId();
    const uint8_t tid = msg.TransactionId();
    switch (msg.SubCmdId()) {
        case GEOLOCATION_APBP_REQ:
        case LAST_KNOWN_GEOLOCATION_APBP_REQ:
            return {BuildGetLocationRsp(sid, tid, options_.fix)};
        case GEOLOCATION_ABORT_APBP_REQ:
            return {BuildI32Msg(GEOLOCATION_ABORT_APBP_RES, sid, tid, results_.abortResult)};
        case DB_WRITE_APBP_REQ:
            return {BuildI32Msg(DB_WRITE_APBP_RES, sid, tid, results_.dbWriteResult)};
        case DB_READ_APBP_REQ: {
            std::vector<DbFile> files = results_.dbFiles;
            if (files.empty()) {
                files.push_back(DbFile{msg.U32(3).value_or(0), Bytes{0x01, 0x02, 0x03, 0x04}});
            }
            return {BuildGetGpsDbDataRsp(sid, tid, files, results_.dbReadResult)};
        }
        case GET_STATUS_APBP_REQ:
            return {BuildStatusMsg(GET_STATUS_APBP_RES, sid, tid, results_.status)};
        case DISTANCE_AND_AZIMUTH_APBP_REQ:
            return {BuildDistanceAzimuthRsp(sid, tid, results_.distance, results_.azimuth)};
        case PROXIMITY_ADD_APBP_REQ:
            if (results_.addProximityStatus == 0) {
                areas_.push_back(Pair(sid, tid));
            }
            return {BuildI32Msg(PROXIMITY_ADD_APBP_RES, sid, tid, results_.addProximityStatus)};
        case PROXIMITY_REM_APBP_REQ:
            if (results_.removeProximityStatus == 0) {
                if (msg.U32(3).value_or(0) == LAPI_BP_REMOVE_ALL_PROXIMITY) {
                    areas_.clear();
                } else {
                    areas_.erase(std::remove(areas_.begin(), areas_.end(), Pair(sid, tid)),
                                 areas_.end());
                }
            }
            return {BuildI32Msg(PROXIMITY_REM_APBP_RES, sid, tid, results_.removeProximityStatus)};
        default:
            /* LOCATION_NOTIFICATION_APBP_RES is itself an answer. */
            return {};
    }
}

/* Periodic sessions: started by a periodic request answered by the built-in
 * answer, ended by any abort of that pair. */
void Simulator::TrackLocked(const Message &msg, const Policy &policy) {
    const Pair pair(msg.SessionId(), msg.TransactionId());
    if (msg.SubCmdId() == GEOLOCATION_ABORT_APBP_REQ) {
        periodic_.erase(std::remove_if(periodic_.begin(), periodic_.end(),
                                       [&](const Periodic &p) { return p.pair == pair; }),
                        periodic_.end());
        return;
    }
    if (msg.SubCmdId() != GEOLOCATION_APBP_REQ || policy.answer == Answer::Silent || policy.build ||
        msg.U32(offsetof(BpGetLocationReq, reportCriteria)).value_or(0) != 1) {
        return;
    }
    int intervalMs = results_.periodicMs;
    if (intervalMs == Results::kPeriodicAsRequested) {
        /* The request's interval is in seconds; a day at most keeps the
         * product in range. */
        uint32_t seconds = msg.U32(offsetof(BpGetLocationReq, interval)).value_or(0);
        intervalMs = static_cast<int>(std::min<uint32_t>(seconds, 86400) * 1000);
    }
    if (intervalMs <= 0) {
        return;
    }
    int delay = policy.answer == Answer::After ? policy.delayMs : 0;
    periodic_.push_back(
        Periodic{pair, intervalMs, Clock::now() + std::chrono::milliseconds(delay + intervalMs)});
}

void Simulator::HandleLocked(const Message &msg) {
    Policy policy;
    if (policies_[msg.SubCmdId()].has_value()) {
        policy = *policies_[msg.SubCmdId()];
    }
    TrackLocked(msg, policy);
    if (policy.answer == Answer::Silent) {
        return;
    }
    std::vector<Bytes> answers = policy.build ? policy.build(msg) : DefaultAnswerLocked(msg);
    if (answers.empty()) {
        return;
    }
    if (policy.answer == Answer::After && policy.delayMs > 0) {
        delayed_.push_back(
            Delayed{Clock::now() + std::chrono::milliseconds(policy.delayMs), std::move(answers)});
        return;
    }
    for (const Bytes &a : answers) {
        QueueMsgLocked(a);
    }
}

void Simulator::RunDueLocked(Clock::time_point now) {
    /* In order of due time; equal times keep the order of the requests. */
    std::stable_sort(delayed_.begin(), delayed_.end(),
                     [](const Delayed &a, const Delayed &b) { return a.due < b.due; });
    size_t done = 0;
    while (done < delayed_.size() && delayed_[done].due <= now) {
        for (const Bytes &a : delayed_[done].msgs) {
            QueueMsgLocked(a);
        }
        ++done;
    }
    delayed_.erase(delayed_.begin(), delayed_.begin() + static_cast<long>(done));
    for (Periodic &p : periodic_) {
        while (p.due <= now) {
            QueueMsgLocked(BuildGetLocationRsp(p.pair.first, p.pair.second, options_.fix));
            p.due += std::chrono::milliseconds(p.intervalMs);
        }
    }
}

int Simulator::TimeoutLocked(int timeoutMs, Clock::time_point now) const {
    int t = timeoutMs;
    auto until = [&](Clock::time_point due) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due - now).count();
        int ms = left <= 0 ? 0 : static_cast<int>(std::min<long long>(left + 1, 1 << 30));
        if (t < 0 || ms < t) {
            t = ms;
        }
    };
    for (const Delayed &d : delayed_) {
        until(d.due);
    }
    for (const Periodic &p : periodic_) {
        until(p.due);
    }
    if (hangup_ && (t < 0 || t > 20)) {
        /* The master reports a hang-up until the slave is opened again:
         * look again soon instead of spinning on it. */
        t = 20;
    }
    return t;
}

int Simulator::Poll(int timeoutMs, std::vector<pollfd> *extra) {
    std::vector<pollfd> fds;
    int timeout;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (master_ < 0) {
            return -1;
        }
        short events = POLLIN;
        if (!out_.empty()) {
            events |= POLLOUT;
        }
        /* After a hang-up the master stays readable-with-HUP until the
         * slave is opened again: leave it out and look again after a while. */
        fds.push_back(pollfd{hangup_ ? -1 : master_, events, 0});
        fds.push_back(pollfd{wake_[0], POLLIN, 0});
        timeout = TimeoutLocked(timeoutMs, Clock::now());
    }
    size_t base = fds.size();
    if (extra != nullptr) {
        for (pollfd &p : *extra) {
            p.revents = 0;
            fds.push_back(p);
        }
    }
    int n = poll(fds.data(), fds.size(), timeout);
    if (n < 0 && errno != EINTR) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (master_ < 0) {
        return -1;
    }
    if (n > 0 && (fds[1].revents & POLLIN)) {
        char drain[64];
        while (read(wake_[0], drain, sizeof(drain)) > 0) {
        }
    }
    if (hangup_ || (n > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)))) {
        ReadLocked();
    }
    RunDueLocked(Clock::now());
    FlushLocked();
    if (extra != nullptr) {
        for (size_t i = 0; i < extra->size(); ++i) {
            (*extra)[i].revents = fds[base + i].revents;
        }
    }
    return n < 0 ? 0 : n;
}

void Simulator::Wake() {
    std::lock_guard<std::mutex> lock(mu_);
    if (wake_[1] >= 0) {
        char c = 1;
        ssize_t r = write(wake_[1], &c, 1);
        (void)r; /* a full pipe already wakes the loop */
    }
}

bool Simulator::StartThread() {
    std::lock_guard<std::mutex> lock(mu_);
    if (master_ < 0 || threadRunning_) {
        return threadRunning_;
    }
    stop_ = false;
    threadRunning_ = true;
    thread_ = std::thread([this] { ThreadMain(); });
    return true;
}

void Simulator::ThreadMain() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (stop_) {
                return;
            }
        }
        Poll(-1);
    }
}

void Simulator::StopThread() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (!threadRunning_) {
            return;
        }
        stop_ = true;
    }
    Wake();
    thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    threadRunning_ = false;
}

void Simulator::WaitStepLocked(std::unique_lock<std::mutex> &lock, Clock::time_point now,
                               Clock::time_point deadline) {
    if (threadRunning_) {
        cv_.wait_until(lock, deadline);
        return;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    lock.unlock();
    Poll(static_cast<int>(left.count()) + 1);
    lock.lock();
}

std::optional<Message> Simulator::WaitFor(const Matcher &match, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        for (auto it = pending_.begin(); it != pending_.end(); ++it) {
            if (!match || match(*it)) {
                Message m = std::move(*it);
                pending_.erase(it);
                return m;
            }
        }
        auto now = Clock::now();
        if (now >= deadline || master_ < 0) {
            return std::nullopt;
        }
        WaitStepLocked(lock, now, deadline);
    }
}

std::optional<Message> Simulator::WaitForSubCmd(uint8_t subCmdId, int timeoutMs) {
    return WaitFor([subCmdId](const Message &m) { return m.SubCmdId() == subCmdId; }, timeoutMs);
}

bool Simulator::StaysQuiet(int windowMs) {
    size_t before;
    {
        std::lock_guard<std::mutex> lock(mu_);
        before = history_.size();
    }
    auto deadline = Clock::now() + std::chrono::milliseconds(windowMs);
    std::unique_lock<std::mutex> lock(mu_);
    while (history_.size() == before) {
        auto now = Clock::now();
        if (now >= deadline || master_ < 0) {
            break;
        }
        WaitStepLocked(lock, now, deadline);
    }
    return history_.size() == before;
}

std::vector<Message> Simulator::History() const {
    std::lock_guard<std::mutex> lock(mu_);
    return history_;
}

void Simulator::ClearHistory() {
    std::lock_guard<std::mutex> lock(mu_);
    history_.clear();
}

size_t Simulator::PendingCount() const {
    std::lock_guard<std::mutex> lock(mu_);
    return pending_.size();
}

void Simulator::ClearPending() {
    std::lock_guard<std::mutex> lock(mu_);
    pending_.clear();
}

size_t Simulator::LostSyncCount() const {
    std::lock_guard<std::mutex> lock(mu_);
    return reader_.LostSync();
}

size_t Simulator::TooBigCount() const {
    std::lock_guard<std::mutex> lock(mu_);
    return reader_.TooBig();
}

}  // namespace bpsim
