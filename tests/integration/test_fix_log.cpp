/*
 * The location fix log through the server binary: feature flag 367 turns it
 * on, "LogFileSize" (KiB) bounds it; each location request and each fix
 * sent to a client becomes one line behind a 75-byte header that records
 * where the next line goes.
 */
#include <regex>

#include "LocSvcEnv.h"

using namespace locsvc;

namespace {

const char kLogFile[] = "/zellocal/download/appwrite/location_fix.log";
const char kCfgFile[] = "/zel_user/download/appwrite/setup/zel_agps.cfg";
constexpr size_t kHeaderLen = 75;

/* The number at the top of the file. */
long HeaderOffset(const std::string &file) {
    return strtol(file.c_str(), nullptr, 10);
}

/* The fixed text of the header behind the number. */
bool HeaderIsWellFormed(const std::string &file) {
    if (file.size() < kHeaderLen) {
        return false;
    }
    std::string tail = file.substr(40, kHeaderLen - 40);
    return tail == "<--offset, where updated last time\n";
}

/* ctime's text with its line feed replaced by a comma. */
const char kTime[] = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4},";

class FixLog : public LocSvcTest {
  protected:
    void PrepareRoot() override {
        ASSERT_TRUE(root_.SetFlag(367));
        ASSERT_TRUE(root_.WriteFile(kCfgFile, "LogFileSize = 01\n"));
    }

    /* Waits until the header number reaches at least minOffset. */
    std::string WaitForLog(long minOffset) {
        auto start = Clock::now();
        std::string file;
        while (MsSince(start) < kWaitMs) {
            auto f = root_.ReadFile(kLogFile);
            if (f && f->size() >= kHeaderLen && HeaderOffset(*f) >= minOffset) {
                return *f;
            }
            auto m = std::chrono::milliseconds(10);
            std::this_thread::sleep_for(m);
        }
        auto f = root_.ReadFile(kLogFile);
        return f ? *f : std::string();
    }

    /* One single fix, answered by the simulator. */
    void OneFix(TestClient &c, uint8_t sid, uint8_t tid) {
        ASSERT_TRUE(c.SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, sid, tid, 1000))));
        ASSERT_FALSE(Next(c.Sync()).empty());
    }
};

class FixLogOff : public LocSvcTest {
  protected:
    void PrepareRoot() override { ASSERT_TRUE(root_.WriteFile(kCfgFile, "LogFileSize = 01\n")); }
};

}  // namespace

TEST_F(FixLog, NewFileHasHeaderThenRequestAndResponseLines) {
    auto c = NewClient();
    OneFix(*c, 7, 8);
    std::string file = WaitForLog(kHeaderLen + 1);
    ASSERT_TRUE(HeaderIsWellFormed(file)) << file;
    /* The first record starts right behind the 75-byte header. */
    std::string records = file.substr(kHeaderLen);
    size_t nl = records.find('\n');
    ASSERT_NE(std::string::npos, nl);
    std::string reqLine = records.substr(0, nl + 1);
    std::string rspLine = records.substr(nl + 1);
    rspLine = rspLine.substr(0, rspLine.find('\n') + 1);
    EXPECT_TRUE(std::regex_match(
        reqLine, std::regex(std::string("Location request:  ") + kTime +
                            " sid:2, tid:1, responseTime:1000, horizontalAccuracy:25, "
                            "Non-periodic, AGPS, speedAndCourseRequired:0, altitudeRequired:1\n")))
        << reqLine;
    EXPECT_TRUE(std::regex_match(
        rspLine, std::regex(std::string("Location Response: ") + kTime +
                            " sid:2, tid:1, latitude:48\\.856600, longitude:2\\.352200, "
                            "horizontalAccuracy:8\\.000000, altitude:35\\.250000, "
                            "speed:1\\.500000, course:271\\.000000, verticalAccuracy:16\\.000000, "
                            "ageOfFix:3\n")))
        << rspLine;
    /* The header holds the end of the last record. */
    EXPECT_EQ(static_cast<long>(kHeaderLen + reqLine.size() + rspLine.size()), HeaderOffset(file));
    EXPECT_EQ(kHeaderLen + reqLine.size() + rspLine.size(), file.size());
}

TEST_F(FixLog, PeriodicRequestLineShowsTheInterval) {
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ,
                           BodyOf(MakeGetLocation(1, 1, 1, 1000, LAPI_REPORT_PERIODIC, 3000))));
    ASSERT_FALSE(Next(c->Sync()).empty());
    std::string file = WaitForLog(kHeaderLen + 1);
    EXPECT_NE(std::string::npos, file.find(" periodic interval:3000, AGPS, ")) << file;
}

TEST_F(FixLog, WrapsBehindTheHeaderAtTheConfiguredSize) {
    auto c = NewClient();
    long last = kHeaderLen;
    bool wrapped = false;
    for (int i = 0; i < 8 && !wrapped; ++i) {
        OneFix(*c, 1, static_cast<uint8_t>(i + 1));
        std::string file = WaitForLog(0);
        /* Each fix adds two lines; wait until both are counted. */
        auto start = Clock::now();
        while (MsSince(start) < kWaitMs && HeaderOffset(file) == last) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            file = *root_.ReadFile(kLogFile);
        }
        long now = HeaderOffset(file);
        EXPECT_LE(file.size(), 1024u);
        EXPECT_LE(now, 1024);
        if (now < last) {
            wrapped = true;
            /* The newest record sits at 75 and ends where the header says. */
            std::string newest = file.substr(kHeaderLen, static_cast<size_t>(now) - kHeaderLen);
            EXPECT_EQ(0u, newest.rfind("Location", 0)) << newest;
            EXPECT_EQ('\n', newest.back());
            EXPECT_TRUE(HeaderIsWellFormed(file));
        }
        last = now;
    }
    EXPECT_TRUE(wrapped);
}

TEST_F(FixLogOff, NoFileWhenTheFeatureFlagIsOff) {
    auto c = NewClient();
    ASSERT_TRUE(c->SendMsg(LAPI_GET_LOCATION_REQ, BodyOf(MakeGetLocation(1, 1, 1))));
    EXPECT_FALSE(Next(c->Sync()).empty());
    EXPECT_FALSE(root_.Exists(kLogFile));
    EXPECT_TRUE(srv_->WaitForTrace("DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE == FALSE", kWaitMs));
}
