/*
 * Shared set-up of the location service's end-to-end tests: a private root,
 * the BP simulator on its own thread linked at ROOT/dev/mux18, the host
 * server as a child process, and registered test clients.
 */
#ifndef LOCSVC_ENV_H
#define LOCSVC_ENV_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "ServerFixture.h"
#include "SimServerTest.h"
#include "TestClient.h"

namespace locsvc {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using lapitest::TestClient;
using lapitest::ToBytes;

constexpr int kWaitMs = 5000;

/* Service bits of registerReq. */
constexpr uint32_t LAPI_SERVICE_MTLR = 0x2;
constexpr uint32_t LAPI_SERVICE_STATUS = 0x4;

inline long MsSince(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

/* The body (after the header) of a packed request. */
template <typename T>
inline Bytes BodyOf(const T &v) {
    Bytes b = ToBytes(v);
    return Bytes(b.begin() + sizeof(MsgHeader), b.end());
}

inline MsgHeader Hdr(uint16_t msgId, uint16_t msgLen, uint32_t pid = 0) {
    MsgHeader h;
    h.pid = pid;
    h.msgId = msgId;
    h.msgLen = msgLen;
    return h;
}

/* A zeroed request of type T with its prefix: mode and the client's pair
 * (the header is made when it is sent). */
template <typename T>
inline T PrefixReq(uint16_t mode, uint8_t sid, uint8_t tid) {
    T r;
    memset(&r, 0, sizeof(r));
    r.mode = mode;
    r.sessionId = sid;
    r.transactionId = tid;
    return r;
}

/* A zeroed server message of type T with its header and the client's pair. */
template <typename T>
inline T PairMsg(uint16_t msgId, uint16_t msgLen, uint8_t sid, uint8_t tid) {
    T m;
    memset(&m, 0, sizeof(m));
    m.header = Hdr(msgId, msgLen);
    m.sessionId = sid;
    m.transactionId = tid;
    return m;
}

/* The 10-byte answers: invalidRequestRsp, timeOutRsp. */
inline Bytes PairRsp(uint16_t msgId, uint8_t sid, uint8_t tid) {
    Bytes b = ToBytes(Hdr(msgId, 2));
    b.push_back(sid);
    b.push_back(tid);
    return b;
}

/* The 14-byte answers: a pair and one i32. */
inline Bytes PairI32Rsp(uint16_t msgId, uint8_t sid, uint8_t tid, int32_t v) {
    Bytes b = PairRsp(msgId, sid, tid);
    b[6] = 6;
    Bytes iv = ToBytes(v);
    b.insert(b.end(), iv.begin(), iv.end());
    return b;
}

inline GetLocationReq MakeGetLocation(uint16_t mode, uint8_t sid, uint8_t tid,
                                      uint32_t responseTime = 1000, uint32_t reportCriteria = 0,
                                      uint32_t interval = 0) {
    GetLocationReq r = PrefixReq<GetLocationReq>(mode, sid, tid);
    r.responseTime = responseTime;
    r.horizontalAccuracy = 25;
    r.verticalAccuracy = 40;
    r.preferredPowerConsumption = 1;
    r.interval = interval;
    r.reportCriteria = reportCriteria;
    r.costAllowed = 1;
    r.addressInfoRequired = 1;
    r.speedAndCourseRequired = 0;
    r.altitudeRequired = 1;
    r.nmeaRequired = 1;
    return r;
}

/* A body made of the request prefix only. */
inline Bytes PrefixBody(uint16_t mode, uint8_t sid, uint8_t tid) {
    Bytes b = ToBytes(mode);
    b.push_back(sid);
    b.push_back(tid);
    return b;
}

/* The BP message of GEOLOCATION_APBP_REQ that a request must produce. */
inline Bytes ExpectedBpGetLocation(const GetLocationReq &r, uint8_t sid, uint8_t tid) {
    Bytes b = bpsim::MakeMsg(GEOLOCATION_APBP_REQ, sid, tid);
    bpsim::PutU32(&b, r.responseTime);
    bpsim::PutU32(&b, r.horizontalAccuracy);
    bpsim::PutU32(&b, r.verticalAccuracy);
    bpsim::PutU32(&b, r.preferredPowerConsumption);
    bpsim::PutU32(&b, r.interval);
    bpsim::PutU32(&b, r.reportCriteria);
    for (uint8_t v : {r.costAllowed, r.addressInfoRequired, r.speedAndCourseRequired,
                      r.altitudeRequired, r.nmeaRequired}) {
        b.push_back(v);
    }
    return b;
}

/* The getLocationRsp a client must receive for a fix of the simulator. */
inline Bytes ExpectedLocationRsp(uint8_t sid, uint8_t tid, const bpsim::Fix &fix) {
    auto decode = [](double x) {
        uint8_t f[8];
        LAPI_SRV_DoubleToBpFixed(x, f);
        return LAPI_SRV_BpFixedToDouble(f);
    };
    GetLocationRsp r =
        PairMsg<GetLocationRsp>(LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN, sid, tid);
    r.longitude = decode(fix.longitude);
    r.latitude = decode(fix.latitude);
    r.latLonAccuracy = decode(fix.latLonAccuracy);
    double ts;
    memcpy(&ts, &fix.timeStamp, 8);
    r.timeStamp = ts;
    r.altitude = decode(fix.altitude);
    r.speed = decode(fix.speed);
    r.travelDirection = decode(fix.travelDirection);
    r.pointingDirection = decode(fix.pointingDirection);
    r.horizontalAccuracy = decode(fix.horizontalAccuracy);
    r.verticalAccuracy = decode(fix.verticalAccuracy);
    r.course = decode(fix.course);
    r.locationMethod = fix.locationMethod;
    r.cause = fix.cause;
    r.ageOfFix = fix.ageOfFix;
    size_t n = std::min<size_t>(fix.nmea.size(), LAPI_MAX_NMEA_LEN);
    r.nmeaDataLength = static_cast<uint16_t>(n);
    memcpy(r.nmeaData, fix.nmea.data(), n);
    return ToBytes(r);
}

/* The body of LOCATION_NOTIFICATION_BPAP_IND: types 3 and 1, coding 0x48,
 * the name as UCS-2 characters, the address as it is. */
inline Bytes NotificationBody(const std::string &name, const std::string &addr) {
    Bytes body;
    bpsim::PutU32(&body, 3);                                    /* notificationType */
    bpsim::PutU32(&body, 1);                                    /* locationType */
    bpsim::PutU8(&body, 0x48);                                  /* dataCodingSchema */
    bpsim::PutU8(&body, static_cast<uint8_t>(2 * name.size())); /* nameLength */
    for (char ch : name) {
        bpsim::PutU16(&body, static_cast<uint16_t>(ch));
    }
    bpsim::PutU8(&body, static_cast<uint8_t>(addr.size()));
    body.insert(body.end(), addr.begin(), addr.end());
    return body;
}

inline bpsim::Fix SampleFix() {
    bpsim::Fix fix;
    fix.latitude = 48.8566;
    fix.longitude = 2.3522;
    fix.latLonAccuracy = 12.5;
    fix.timeStamp = 0x0000018B12345678ULL;
    fix.altitude = 35.25;
    fix.speed = 1.5;
    fix.travelDirection = 270.0;
    fix.pointingDirection = 90.5;
    fix.horizontalAccuracy = 8.0;
    fix.verticalAccuracy = 16.0;
    fix.course = 271.0;
    fix.locationMethod = 2;
    fix.cause = 0;
    fix.ageOfFix = 3;
    fix.nmea = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
    return fix;
}

/* One server with the simulator in front of it, linked to the BP channel
 * before the test begins; the server must end cleanly. */
class LocSvcTest : public lapitest::SimServerTest<> {
  protected:
    LocSvcTest() : SimServerTest(SampleFix()) {}

    void SetUp() override {
        SimServerTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    }

    void TearDown() override {
        if (srv_) {
            EXPECT_EQ(0, srv_->Stop());
            for (const std::string &line : srv_->StderrLines()) {
                /* The sanitizers report on standard error. */
                EXPECT_EQ(std::string::npos, line.find("Sanitizer")) << line;
                EXPECT_EQ(std::string::npos, line.find("runtime error")) << line;
            }
        }
        SimServerTest::TearDown();
    }

    std::unique_ptr<TestClient> NewClient(uint32_t service = 1) {
        auto c = std::make_unique<TestClient>(root_.Dir());
        EXPECT_TRUE(c->Handshake(service));
        return c;
    }

    /* The next message on a connection, as it travelled. */
    static Bytes Next(lapitest::Connection &conn, int timeoutMs = kWaitMs) {
        auto m = conn.RecvMsg(timeoutMs);
        return m ? m->Raw() : Bytes();
    }

    /* The next BP message of this kind that the server sent. */
    Bytes NextBp(uint8_t subCmdId, int timeoutMs = kWaitMs) {
        auto m = sim_.WaitForSubCmd(subCmdId, timeoutMs);
        return m ? m->bytes : Bytes();
    }
};

}  // namespace locsvc

#endif /* LOCSVC_ENV_H */
