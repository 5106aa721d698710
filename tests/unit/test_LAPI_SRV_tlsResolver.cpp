/*
 * Name resolution of the network proxy with the resolver and sleep wrapped
 * at link time (this executable only): a name that answers TRY_AGAIN is
 * looked up 8 times, 3 seconds apart, without the test waiting 21 seconds.
 */
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_tls.h"
#include "ServerFixture.h"

namespace {

/* What the wrapped resolver does: fail with failErrno for the first
 * failCount calls, then answer with address. */
int gCalls = 0;
int gFailCount = 0;
int gFailErrno = TRY_AGAIN;
std::vector<std::string> gNames;
std::vector<unsigned> gSleeps;

uint8_t gAddr[2][4] = {{10, 9, 8, 7}, {1, 2, 3, 4}};
char *gAddrList[3] = {reinterpret_cast<char *>(gAddr[0]), reinterpret_cast<char *>(gAddr[1]),
                      nullptr};
struct hostent gHost;

void Reset(int failCount, int failErrno) {
    gCalls = 0;
    gFailCount = failCount;
    gFailErrno = failErrno;
    gNames.clear();
    gSleeps.clear();
}

}  // namespace

extern "C" struct hostent *__wrap_gethostbyname(const char *name) {
    ++gCalls;
    gNames.emplace_back(name);
    if (gCalls <= gFailCount) {
        h_errno = gFailErrno;
        return nullptr;
    }
    memset(&gHost, 0, sizeof(gHost));
    gHost.h_addrtype = AF_INET;
    gHost.h_length = 4;
    gHost.h_addr_list = gAddrList;
    return &gHost;
}

extern "C" unsigned int __wrap_sleep(unsigned int seconds) {
    gSleeps.push_back(seconds);
    return 0;
}

namespace {

class Resolver : public ::testing::Test {
  protected:
    Resolver() {
        info_.addrType = LAPI_SRV_ADDR_FQDN;
        strcpy(info_.address, "supl.example");
        info_.port = 7275;
    }
    int Resolve() { return GetHostInfo(&info_, 12, ip_, &port_); }

    SocketInfo info_{};
    uint8_t ip_[4] = {};
    uint16_t port_ = 0;
};

TEST_F(Resolver, AHostNameThatNeverResolvesTakesEightLookupsThreeSecondsApart) {
    Reset(1000, TRY_AGAIN);
    lapitest::StderrCapture cap;
    EXPECT_EQ(-1, Resolve());
    EXPECT_EQ(8, gCalls);
    EXPECT_EQ(std::vector<unsigned>(7, 3u), gSleeps) << "about 21 s in all";
    EXPECT_EQ(std::vector<std::string>(8, "supl.example"), gNames);
    EXPECT_EQ(std::vector<std::string>{"Can not get host by name"}, cap.Errors());
    EXPECT_TRUE(cap.HasTrace("Enter GetHostInfo:12"));
    EXPECT_TRUE(cap.HasTrace("DNS Name : supl.example"));
}

TEST_F(Resolver, TryAgainTwiceThenTheThirdLookupResolves) {
    Reset(2, TRY_AGAIN);
    EXPECT_EQ(1, Resolve());
    EXPECT_EQ(3, gCalls);
    EXPECT_EQ(std::vector<unsigned>(2, 3u), gSleeps);
    EXPECT_EQ((std::vector<uint8_t>{10, 9, 8, 7}), std::vector<uint8_t>(ip_, ip_ + 4))
        << "the first address of the record";
    EXPECT_EQ(7275, port_);
}

TEST_F(Resolver, TheEighthLookupMayStillResolve) {
    Reset(7, TRY_AGAIN);
    EXPECT_EQ(1, Resolve());
    EXPECT_EQ(8, gCalls);
    EXPECT_EQ(7u, gSleeps.size());
}

TEST_F(Resolver, AnotherResolverErrorIsNotRetried) {
    Reset(1000, HOST_NOT_FOUND);
    lapitest::StderrCapture cap;
    EXPECT_EQ(-1, Resolve());
    EXPECT_EQ(1, gCalls);
    EXPECT_TRUE(gSleeps.empty());
    EXPECT_TRUE(cap.HasError("Can not get host by name"));
}

TEST_F(Resolver, AnIpv4EntryNeverAsksTheResolver) {
    Reset(0, 0);
    info_.addrType = LAPI_SRV_ADDR_IPV4;
    memcpy(info_.address, "\x7f\x00\x00\x01", 4);
    EXPECT_EQ(1, Resolve());
    EXPECT_EQ(0, gCalls);
    EXPECT_EQ((std::vector<uint8_t>{127, 0, 0, 1}), std::vector<uint8_t>(ip_, ip_ + 4));
}

}  // namespace
