#include "lapi_format.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace lapitool {

namespace {

std::string Printf(const char *fmt, double v) {
    char buf[64];
    snprintf(buf, sizeof(buf), fmt, v);
    return buf;
}

/* Fixed point of the BP: 23 fraction bits. */
constexpr double kFixedScale = 8388608.0;
/* Beyond this a double no longer holds N + 0.5 exactly. */
constexpr double kFixedExactLimit = 4503599627370496.0; /* 2^52 */

std::string JsonDouble(double v) {
    if (!isfinite(v)) {
        return "null";
    }
    char buf[64];
    snprintf(buf, sizeof(buf), "%.17g", v);
    return buf;
}

/* UCS-2 units in host order to UTF-8; nameLength counts bytes. */
std::string Ucs2ToUtf8(const uint8_t *p, size_t bytes) {
    std::string out;
    for (size_t i = 0; i + 1 < bytes; i += 2) {
        uint16_t u;
        memcpy(&u, p + i, 2);
        if (u == 0) {
            break;
        }
        if (u < 0x80) {
            out += static_cast<char>(u);
        } else if (u < 0x800) {
            out += static_cast<char>(0xC0 | (u >> 6));
            out += static_cast<char>(0x80 | (u & 0x3F));
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            out += "\xEF\xBF\xBD"; /* a lone surrogate: the replacement character */
        } else {
            out += static_cast<char>(0xE0 | (u >> 12));
            out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (u & 0x3F));
        }
    }
    return out;
}

bool Printable(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] < 0x20 || p[i] >= 0x7F) {
            return false;
        }
    }
    return true;
}

void AddPair(Record &r, uint8_t sessionId, uint8_t transactionId) {
    r.Int("sessionId", sessionId).Internal().Int("transactionId", transactionId).Internal();
}

/* A record whose first fields are the message's session and transaction. */
template <typename Msg>
Record PairRecord(const std::string &type, const char *title, const Msg &m) {
    Record r(type, title);
    AddPair(r, m.sessionId, m.transactionId);
    return r;
}

/* Every real of a fix travelled as BP fixed point except timeStamp, whose
 * eight bytes the server only reverses. */
template <typename Fix>
void AddFix(Record &r, const Fix &m) {
    r.Fixed("latitude", m.latitude)
        .Fixed("longitude", m.longitude)
        .Fixed("altitude", m.altitude)
        .Fixed("latLonAccuracy", m.latLonAccuracy)
        .Fixed("horizontalAccuracy", m.horizontalAccuracy)
        .Fixed("verticalAccuracy", m.verticalAccuracy)
        .Fixed("speed", m.speed)
        .Fixed("course", m.course)
        .Fixed("travelDirection", m.travelDirection)
        .Fixed("pointingDirection", m.pointingDirection)
        .Double("timeStamp", m.timeStamp, "%.17g")
        .Code("locationMethod", m.locationMethod, kMethodCodes);
}

/* fixResultStatus is a pair: one JSON object, two readable lines. */
void AddStatus(Record &r, const GetStatusRsp &m) {
    AddPair(r, m.sessionId, m.transactionId);
    r.Code("userStatus", m.userStatus, kStatusCodes)
        .Code("hwStatus", m.hwStatus, kStatusCodes)
        .Code("fixStatus", m.fixStatus, kStatusCodes)
        .Code("emergencyStatus", m.emergencyStatus, kStatusCodes)
        .Raw("fixResultStatus",
             "{\"status\":" + std::to_string(m.fixResultStatus.status) +
                 ",\"cause\":" + std::to_string(m.fixResultStatus.cause) + "}",
             kResultCodes.Text(m.fixResultStatus.status) + "; cause " +
                 kCauseCodes.Text(m.fixResultStatus.cause))
        .Code("signalStatus", m.signalStatus, kStatusCodes)
        .Code("iconStatus", m.iconStatus, kStatusCodes);
}

void AddDbFiles(Record &r, uint16_t numFiles, const DbFile *files) {
    std::string json = "[";
    std::string text;
    size_t n = std::min<size_t>(numFiles, LAPI_MAX_DB_FILES);
    for (size_t i = 0; i < n; ++i) {
        size_t len = std::min<size_t>(files[i].length, LAPI_DB_FILE_DATA_LEN);
        std::string hex = HexBytes(files[i].data, len);
        if (i > 0) {
            json += ",";
        }
        json += "{\"fileId\":" + std::to_string(files[i].fileId) +
                ",\"length\":" + std::to_string(files[i].length) + ",\"data\":\"" + hex + "\"}";
        char line[96];
        snprintf(line, sizeof(line), "\n    file %u: length %u, data %s", files[i].fileId,
                 files[i].length, hex.empty() ? "-" : hex.c_str());
        text += line;
    }
    json += "]";
    r.Raw("dbFile", json, n == 0 ? "none" : text);
}

constexpr CodeName kResultRows[] = {{0, "success"}};
constexpr CodeName kCauseRows[] = {{0, "none"}};

}  // namespace

/* The server passes these numbers through; only the zeros that every
 * answer of the BP uses for "no error" have a name of ours. */
const CodeTable kResultCodes = {kResultRows, std::size(kResultRows), "failed, BP code"};
const CodeTable kCauseCodes = {kCauseRows, std::size(kCauseRows), "BP cause"};
const CodeTable kMethodCodes = {nullptr, 0, "BP method"};
const CodeTable kStatusCodes = {nullptr, 0, "BP value"};

std::string CodeTable::Text(int64_t value) const {
    for (size_t i = 0; i < count; ++i) {
        if (rows[i].value == value) {
            return std::string(rows[i].name) + " (" + std::to_string(value) + ")";
        }
    }
    return std::string(unknown) + " " + std::to_string(value);
}

std::string FixedText(double value) {
    double scaled = value * kFixedScale;
    if (!isfinite(value) || fabs(scaled) >= kFixedExactLimit) {
        return JsonDouble(value);
    }
    /* The N the BP sent: the decoded value is N + 0.5 steps, and a value
     * from elsewhere lies in the step of its own truncation. */
    double n = floor(scaled);
    if (scaled == n) {
        n = trunc(scaled);
    }
    for (int digits = 0; digits <= 9; ++digits) {
        char buf[64];
        snprintf(buf, sizeof(buf), "%.*f", digits, value);
        double back = strtod(buf, nullptr);
        if (trunc(back * kFixedScale) == n) {
            std::string s = buf;
            if (s == "-0") {
                s = "0";
            }
            return s;
        }
    }
    return JsonDouble(value);
}

Record::Record(std::string type, std::string title)
    : type_(std::move(type)), title_(std::move(title)) {}

Record &Record::Str(const char *name, const std::string &value) {
    fields_.push_back({name, JsonString(value), value});
    return *this;
}

Record &Record::Int(const char *name, int64_t value) {
    std::string v = std::to_string(value);
    fields_.push_back({name, v, v});
    return *this;
}

Record &Record::Uint(const char *name, uint64_t value) {
    std::string v = std::to_string(value);
    fields_.push_back({name, v, v});
    return *this;
}

Record &Record::Double(const char *name, double value, const char *fmt) {
    fields_.push_back({name, JsonDouble(value), Printf(fmt, value)});
    return *this;
}

Record &Record::Fixed(const char *name, double value) {
    std::string v = FixedText(value);
    fields_.push_back({name, v, v});
    return *this;
}

Record &Record::Code(const char *name, int64_t value, const CodeTable &kind) {
    fields_.push_back({name, std::to_string(value), kind.Text(value)});
    return *this;
}

Record &Record::Internal() {
    if (!fields_.empty()) {
        fields_.back().internal = true;
    }
    return *this;
}

Record &Record::Bool(const char *name, bool value) {
    fields_.push_back({name, value ? "true" : "false", value ? "yes" : "no"});
    return *this;
}

Record &Record::Raw(const char *name, const std::string &json, const std::string &text) {
    fields_.push_back({name, json, text});
    return *this;
}

Record &Record::Note(const std::string &text) {
    note_ = text;
    return *this;
}

std::string Record::Json() const {
    std::string s = "{\"type\":" + JsonString(type_);
    for (const Field &f : fields_) {
        s += "," + JsonString(f.name) + ":" + f.json;
    }
    s += "}";
    return s;
}

std::string Record::Text(bool verbose) const {
    std::string s = title_;
    if (!note_.empty()) {
        s += " " + note_;
    }
    s += "\n";
    size_t width = 0;
    for (const Field &f : fields_) {
        if (verbose || !f.internal) {
            width = std::max(width, f.name.size());
        }
    }
    for (const Field &f : fields_) {
        if (f.internal && !verbose) {
            continue;
        }
        /* A value of several lines starts on the line after its name. */
        std::string pad = (!f.text.empty() && f.text[0] == '\n')
                              ? std::string()
                              : std::string(width - f.name.size() + 1, ' ');
        s += "  " + f.name + ":" + pad + f.text + "\n";
    }
    return s;
}

void Record::Print(FILE *out, bool json, bool verbose) const {
    std::string s = json ? Json() + "\n" : Text(verbose);
    fputs(s.c_str(), out);
    fflush(out);
}

std::string JsonString(const std::string &s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char buf[8];
                    snprintf(buf, sizeof(buf), "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += "\"";
    return out;
}

std::string HexBytes(const uint8_t *p, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += kDigits[p[i] >> 4];
        s += kDigits[p[i] & 0xF];
    }
    return s;
}

Record MessageRecord(const lapi_msg &msg) {
    const char *name = lapi_msg_name(msg.msgId);
    std::string type = name != nullptr ? name : "msgId" + std::to_string(msg.msgId);
    const char *conn = msg.conn == LAPI_CONN_ASYNC ? "async" : "sync";
    switch (msg.msgId) {
        case LAPI_GET_LOCATION_RSP: {
            const GetLocationRsp &m = msg.u.getLocationRsp;
            Record r = PairRecord(type, "Location fix", m);
            AddFix(r, m);
            r.Code("cause", m.cause, kCauseCodes).Uint("ageOfFix", m.ageOfFix);
            size_t n = std::min<size_t>(m.nmeaDataLength, LAPI_MAX_NMEA_LEN);
            std::string nmea(reinterpret_cast<const char *>(m.nmeaData), n);
            std::string text;
            size_t start = 0;
            while (start < nmea.size()) {
                size_t end = nmea.find_first_of("\r\n", start);
                std::string line = nmea.substr(start, end == std::string::npos ? end : end - start);
                if (!line.empty()) {
                    text += "\n    " + line;
                }
                if (end == std::string::npos) {
                    break;
                }
                start = end + 1;
            }
            r.Raw("nmea", JsonString(nmea), text.empty() ? "none" : text);
            return r.Str("conn", conn).Internal();
        }
        case LAPI_ABORT_LOCATION_RSP: {
            const AbortLocationRsp &m = msg.u.abortLocationRsp;
            return PairRecord(type, "Location request aborted", m)
                .Code("result", m.result, kResultCodes)
                .Str("conn", conn)
                .Internal();
        }
        case LAPI_TIME_OUT_RSP:
            return PairRecord(type, "The server timed the request out", msg.u.timeOutRsp)
                .Str("conn", conn)
                .Internal();
        case LAPI_INVALID_REQUEST_RSP:
            return PairRecord(type, "The server refused the request as invalid",
                              msg.u.invalidRequestRsp)
                .Str("conn", conn)
                .Internal();
        case LAPI_GET_GPS_DB_DATA_RSP: {
            const GetGpsDbDataRsp &m = msg.u.getGpsDbDataRsp;
            Record r = PairRecord(type, "Assistance data", m);
            r.Int("numFiles", m.numFiles);
            AddDbFiles(r, m.numFiles, m.dbFile);
            return r.Code("result", m.result, kResultCodes).Str("conn", conn).Internal();
        }
        case LAPI_SET_GPS_DB_DATA_RSP: {
            const SetGpsDbDataRsp &m = msg.u.setGpsDbDataRsp;
            return PairRecord(type, "Assistance data written", m)
                .Code("result", m.result, kResultCodes)
                .Str("conn", conn)
                .Internal();
        }
        case LAPI_GET_STATUS_RSP:
        case LAPI_STATUS_CHANGE_IND: {
            Record r(type, msg.msgId == LAPI_GET_STATUS_RSP ? "Positioning status"
                                                            : "Positioning status changed");
            AddStatus(r, msg.u.getStatusRsp);
            return r.Str("conn", conn).Internal();
        }
        case LAPI_LOCATION_NOTIFICATION_IND: {
            const LocationNotificationInd &m = msg.u.locationNotificationInd;
            Record r = PairRecord(type, "Network location request", m);
            r.Int("notificationType", m.notificationType)
                .Int("locationType", m.locationType)
                .Int("dataCodingSchema", m.dataCodingSchema);
            size_t nameLen = std::min<size_t>(m.nameLength, LAPI_CLIENT_NAME_LEN);
            r.Str("clientName", Ucs2ToUtf8(m.clientName, nameLen));
            size_t addrLen = std::min<size_t>(m.addrLength, LAPI_CLIENT_ADDR_LEN);
            if (Printable(m.clientExternalAddr, addrLen)) {
                r.Str("clientExternalAddr",
                      std::string(reinterpret_cast<const char *>(m.clientExternalAddr), addrLen));
            } else {
                r.Str("clientExternalAddr", HexBytes(m.clientExternalAddr, addrLen));
            }
            return r.Str("conn", conn).Internal();
        }
        case LAPI_NOTIFICATION_STATUS_IND: {
            const NotificationStatusInd &m = msg.u.notificationStatusInd;
            return PairRecord(type, "Network location request status", m)
                .Code("cause", m.cause, kCauseCodes)
                .Str("conn", conn)
                .Internal();
        }
        case LAPI_DISTANCE_AZIMUTH_RSP: {
            const DistanceAzimuthRsp &m = msg.u.distanceAzimuthRsp;
            return PairRecord(type, "Distance and azimuth", m)
                .Fixed("distance", m.distance)
                .Fixed("azimuth", m.azimuth)
                .Str("conn", conn)
                .Internal();
        }
        case LAPI_ADD_PROXIMITY_RSP: {
            const AddProximityRsp &m = msg.u.addProximityRsp;
            return PairRecord(type, "Proximity area added", m)
                .Code("status", m.status, kResultCodes)
                .Str("conn", conn)
                .Internal();
        }
        case LAPI_REMOVE_PROXIMITY_RSP: {
            const RemoveProximityRsp &m = msg.u.removeProximityRsp;
            return PairRecord(type, "Proximity area removed", m)
                .Code("status", m.status, kResultCodes)
                .Str("conn", conn)
                .Internal();
        }
        case LAPI_PROXIMITY_HIT_IND: {
            const ProximityHitInd &m = msg.u.proximityHitInd;
            Record r = PairRecord(type, "Proximity area reached", m);
            AddFix(r, m);
            return r.Uint("ageOfFix", m.ageOfFix).Str("conn", conn).Internal();
        }
        default: {
            Record r(type, "Message " + type);
            return r.Int("msgId", msg.msgId)
                .Int("msgLen", msg.u.header.msgLen)
                .Str("conn", conn)
                .Internal();
        }
    }
}

void PrintMessage(const lapi_msg &msg, bool json, bool verbose) {
    MessageRecord(msg).Print(stdout, json, verbose);
}

}  // namespace lapitool
