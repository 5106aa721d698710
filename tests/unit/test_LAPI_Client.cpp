/*
 * The client library without a real server: message decoding and length
 * checks, error texts, the handshake, request layouts and whole-message
 * reads, against the scripted fake server of LAPI_FakeServer.h.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "LAPI_FakeServer.h"
#include "LapiClientPtr.h"
#include "ServerFixture.h"
#include "lapi_client.h"

namespace {

using lapifake::Bytes;
using lapifake::ClientMsg;
using lapifake::FakeServer;
using lapifake::Make;
using lapitest::ClientPtr;
using lapitest::NowMs;

/* The fixed body length of every message the server sends. */
struct SrvMsg {
    int msgId;
    int bodyLen;
    const char *name;
};
const SrvMsg kSrvMsgs[] = {
    {0, 1014, "getLocationRsp"},
    {1, 6, "abortLocationRsp"},
    {2, 2, "timeOutRsp"},
    {3, 2, "invalidRequestRsp"},
    {4, 228, "getGpsDbDataRsp"},
    {5, 6, "setGpsDbDataRsp"},
    {6, 34, "getStatusRsp"},
    {7, 34, "statusChangeInd"},
    {8, 303, "locationNotificationInd"},
    {9, 6, "notificationStatusInd"},
    {10, 18, "distanceAzimuthRsp"},
    {11, 6, "addProximityRsp"},
    {12, 6, "removeProximityRsp"},
    {13, 98, "proximityHitInd"},
    {101, 4, "registerRsp"},
    {103, 0, "getAsyncFdRsp"},
    {105, 0, "unregisterRsp"},
};

Bytes MsgBytes(int msgId, int bodyLen, uint8_t fill = 0) {
    Bytes b(LAPI_MSG_HEADER_LEN + static_cast<size_t>(bodyLen), fill);
    MsgHeader h = {0, static_cast<uint16_t>(msgId), static_cast<uint16_t>(bodyLen)};
    memcpy(b.data(), &h, sizeof(h));
    return b;
}

/* A connected client on a fake server; the script's part after the
 * handshake runs in the server thread. */
struct Session {
    FakeServer server;
    ClientPtr client;
    int syncFd = -1;
    int asyncFd = -1;

    /* The script has ended and the server's side is closed before the
     * client goes, so closing the client does not wait for an answer. */
    ~Session() {
        server.Join();
        server.CloseAll();
        client.reset();
    }

    /* Opens the client; `after` runs in the server thread once the
     * handshake is done. */
    bool Open(std::function<void(Session &)> after, uint32_t service = LAPI_SERVICE_BASIC,
              int timeoutMs = 3000) {
        if (!server.Ok()) {
            return false;
        }
        server.Start([this, after](FakeServer &s) {
            if (s.Handshake(0x1234, &syncFd, &asyncFd)) {
                after(*this);
            }
        });
        lapi_client *p = nullptr;
        int rc = lapi_open(server.Path().c_str(), service, timeoutMs, &p);
        client.reset(p);
        return rc == LAPI_OK;
    }
};

/* ---- decoding ---- */

TEST(LapiClientDecode, AcceptsEveryServerMessageAtItsFixedLength) {
    for (const SrvMsg &m : kSrvMsgs) {
        Bytes b = MsgBytes(m.msgId, m.bodyLen, 0x5A);
        MsgHeader h = {0, static_cast<uint16_t>(m.msgId), static_cast<uint16_t>(m.bodyLen)};
        memcpy(b.data(), &h, sizeof(h));
        lapi_msg msg;
        size_t used = 0;
        EXPECT_EQ(lapi_decode_msg(b.data(), b.size(), &msg, &used), LAPI_OK) << m.name;
        EXPECT_EQ(used, b.size()) << m.name;
        EXPECT_EQ(+msg.msgId, m.msgId) << m.name;
        EXPECT_EQ(+msg.length, b.size()) << m.name;
        EXPECT_EQ(memcmp(msg.u.raw, b.data(), b.size()), 0) << m.name;
    }
}

TEST(LapiClientDecode, RefusesEveryOtherLength) {
    for (const SrvMsg &m : kSrvMsgs) {
        for (int len : {m.bodyLen - 1, m.bodyLen + 1}) {
            if (len < 0) {
                continue;
            }
            Bytes b = MsgBytes(m.msgId, len);
            lapi_msg msg;
            size_t used = 0;
            int rc = lapi_decode_msg(b.data(), b.size(), &msg, &used);
            if (LAPI_MSG_HEADER_LEN + len > LAPI_MAX_SRV_MSG_LEN) {
                EXPECT_EQ(rc, LAPI_E_PROTOCOL) << m.name << " len " << len;
            } else {
                EXPECT_EQ(rc, LAPI_E_BAD_LENGTH) << m.name << " len " << len;
                EXPECT_EQ(used, b.size()) << "a skipped message is consumed whole";
                EXPECT_EQ(+msg.msgId, m.msgId);
            }
        }
    }
}

TEST(LapiClientDecode, RefusesIdentifiersTheServerNeverSends) {
    for (int id : {14, 15, 99, 100, 102, 104, 106, 110, 116, 117, 200, 0xFFFF}) {
        Bytes b = MsgBytes(id, 4);
        lapi_msg msg;
        size_t used = 0;
        EXPECT_EQ(lapi_decode_msg(b.data(), b.size(), &msg, &used), LAPI_E_UNKNOWN_MSG) << id;
        EXPECT_EQ(used, b.size());
        EXPECT_EQ(+msg.msgId, id);
    }
}

TEST(LapiClientDecode, EveryProperPrefixIsShort) {
    Bytes b = MsgBytes(LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN);
    lapi_msg msg;
    size_t used = 99;
    for (size_t n = 0; n < b.size(); ++n) {
        /* An exact-size copy, so reading one byte too many is caught. */
        std::unique_ptr<uint8_t[]> copy(new uint8_t[n + 1]);
        memcpy(copy.get(), b.data(), n);
        ASSERT_EQ(lapi_decode_msg(copy.get(), n, &msg, &used), LAPI_E_SHORT) << n;
        EXPECT_EQ(used, 0u);
    }
    EXPECT_EQ(lapi_decode_msg(b.data(), b.size(), &msg, &used), LAPI_OK);
}

TEST(LapiClientDecode, LengthBeyondEveryServerMessageIsProtocolError) {
    for (uint16_t len :
         {static_cast<uint16_t>(LAPI_GET_LOCATION_RSP_LEN + 1), static_cast<uint16_t>(0xFFFF)}) {
        Bytes b(LAPI_MSG_HEADER_LEN + len, 0);
        MsgHeader h = {0, LAPI_STATUS_CHANGE_IND, len};
        memcpy(b.data(), &h, sizeof(h));
        lapi_msg msg;
        size_t used = 0;
        EXPECT_EQ(lapi_decode_msg(b.data(), b.size(), &msg, &used), LAPI_E_PROTOCOL);
        /* Refused from the header alone, before the body arrived. */
        EXPECT_EQ(lapi_decode_msg(b.data(), LAPI_MSG_HEADER_LEN, &msg, &used), LAPI_E_PROTOCOL);
    }
}

TEST(LapiClientDecode, TrailingBytesBelongToTheNextMessage) {
    Bytes b = MsgBytes(LAPI_TIME_OUT_RSP, LAPI_TIME_OUT_RSP_LEN);
    Bytes next = MsgBytes(LAPI_GET_ASYNC_FD_RSP, 0);
    b.insert(b.end(), next.begin(), next.end());
    lapi_msg msg;
    size_t used = 0;
    ASSERT_EQ(lapi_decode_msg(b.data(), b.size(), &msg, &used), LAPI_OK);
    EXPECT_EQ(used, LAPI_MSG_HEADER_LEN + 2u);
    EXPECT_EQ(+msg.msgId, LAPI_TIME_OUT_RSP);
}

TEST(LapiClientDecode, NullArgumentsAreRefused) {
    Bytes b = MsgBytes(LAPI_TIME_OUT_RSP, 2);
    lapi_msg msg;
    size_t used;
    EXPECT_EQ(lapi_decode_msg(nullptr, 10, &msg, &used), LAPI_E_INVAL);
    EXPECT_EQ(lapi_decode_msg(b.data(), b.size(), nullptr, &used), LAPI_E_INVAL);
    EXPECT_EQ(lapi_decode_msg(b.data(), b.size(), &msg, nullptr), LAPI_E_INVAL);
}

TEST(LapiClientDecode, NamesFollowTheProtocol) {
    for (const SrvMsg &m : kSrvMsgs) {
        ASSERT_NE(lapi_msg_name(m.msgId), nullptr);
        EXPECT_STREQ(lapi_msg_name(m.msgId), m.name);
    }
    EXPECT_STREQ(lapi_msg_name(LAPI_REGISTER_REQ), "registerReq");
    EXPECT_STREQ(lapi_msg_name(LAPI_REMOVE_PROXIMITY_REQ), "removeProximityReq");
    EXPECT_EQ(lapi_msg_name(14), nullptr);
    EXPECT_EQ(lapi_msg_name(117), nullptr);
    EXPECT_EQ(lapi_msg_name(-1), nullptr);
}

/* ---- error texts ---- */

TEST(LapiClientErrors, EveryCodeHasItsOwnText) {
    std::set<std::string> texts;
    for (int code = LAPI_OK; code >= LAPI_E_SHORT; --code) {
        const char *t = lapi_strerror(code);
        ASSERT_NE(t, nullptr);
        EXPECT_STRNE(t, "unknown error") << code;
        EXPECT_TRUE(texts.insert(t).second) << "text shared by code " << code << ": " << t;
    }
    EXPECT_STREQ(lapi_strerror(LAPI_E_CONNECT), "cannot connect to the location server");
    EXPECT_STREQ(lapi_strerror(LAPI_E_TIMEOUT), "timed out waiting for the location server");
}

TEST(LapiClientErrors, UnknownCodeHasGenericText) {
    EXPECT_STREQ(lapi_strerror(1), "unknown error");
    EXPECT_STREQ(lapi_strerror(-1000), "unknown error");
}

TEST(LapiClientErrors, CProgramUsesThePublicHeader) {
    std::string cmd = lapitest::EmulatorPrefix() + LAPI_BIN_DIR + "/lapi_c_check > /dev/null";
    int status = system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

/* ---- opening ---- */

TEST(LapiClientOpen, ServiceWithoutLowBitsIsRefusedBeforeConnecting) {
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    lapi_client *p = reinterpret_cast<lapi_client *>(1);
    EXPECT_EQ(lapi_open(server.Path().c_str(), 8, 1000, &p), LAPI_E_INVAL);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(server.Accept(100), -1) << "no connection for a refused mask";
}

TEST(LapiClientOpen, NoServerIsConnectError) {
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open("/tmp/no-such-dir-lapi/sock", LAPI_SERVICE_BASIC, 1000, &p),
              LAPI_E_CONNECT);
    EXPECT_EQ(p, nullptr);
}

TEST(LapiClientOpen, PathTooLongForSocketAddress) {
    std::string path = "/tmp/" + std::string(120, 'x');
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(path.c_str(), LAPI_SERVICE_BASIC, 1000, &p), LAPI_E_PATH);
    EXPECT_EQ(lapi_open("", LAPI_SERVICE_BASIC, 1000, &p), LAPI_E_PATH);
}

TEST(LapiClientOpen, BadArguments) {
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(nullptr, LAPI_SERVICE_BASIC, 1000, nullptr), LAPI_E_INVAL);
    EXPECT_EQ(lapi_open("/tmp/x", LAPI_SERVICE_BASIC, -1, &p), LAPI_E_INVAL);
}

TEST(LapiClientOpen, HandshakeRegistersThenAttachesTheSecondConnection) {
    RegisterReq reg;
    GetAsyncFdReq areq;
    bool handshook = false;
    int syncFd = -1;
    int asyncFd = -1;
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start(
        [&](FakeServer &s) { handshook = s.Handshake(0xCAFE01, &syncFd, &asyncFd, &reg, &areq); });
    lapi_client *p = nullptr;
    ASSERT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR, 3000, &p),
              LAPI_OK);
    ClientPtr client(p);
    server.Join();
    server.CloseAll(); /* so closing the client does not wait for unregisterRsp */
    ASSERT_TRUE(handshook);
    EXPECT_EQ(+reg.header.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(+reg.header.msgId, LAPI_REGISTER_REQ);
    EXPECT_EQ(+reg.header.msgLen, LAPI_REGISTER_REQ_LEN);
    EXPECT_EQ(+reg.service, LAPI_SERVICE_STATUS | LAPI_SERVICE_MTLR);
    EXPECT_EQ(+areq.header.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(+areq.header.msgId, LAPI_GET_ASYNC_FD_REQ);
    EXPECT_EQ(+areq.header.msgLen, LAPI_GET_ASYNC_FD_REQ_LEN);
    EXPECT_EQ(+areq.globalId, 0xCAFE01u);
    EXPECT_EQ(lapi_global_id(client.get()), 0xCAFE01u);
    EXPECT_GE(lapi_sync_fd(client.get()), 0);
    EXPECT_GE(lapi_async_fd(client.get()), 0);
    EXPECT_NE(lapi_sync_fd(client.get()), lapi_async_fd(client.get()));
}

TEST(LapiClientOpen, NothingElseIsSentBeforeRegisterRsp) {
    bool quietBeforeAnswer = false;
    bool secondConnectionEarly = true;
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([&](FakeServer &s) {
        RegisterReq reg;
        int syncFd = s.AcceptRequest(&reg);
        if (syncFd < 0) {
            return;
        }
        /* The client must wait: no more bytes, no second connection. */
        quietBeforeAnswer = !lapifake::WaitReadable(syncFd, 300);
        secondConnectionEarly = s.Accept(0) >= 0;
        RegisterRsp rsp = Make<RegisterRsp>(LAPI_REGISTER_RSP);
        rsp.globalId = 7;
        lapifake::WriteMsg(syncFd, rsp);
        GetAsyncFdReq areq;
        int asyncFd = s.AcceptRequest(&areq);
        if (asyncFd >= 0) {
            lapifake::WriteMsg(asyncFd, Make<GetAsyncFdRsp>(LAPI_GET_ASYNC_FD_RSP));
        }
    });
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_BASIC, 3000, &p), LAPI_OK);
    ClientPtr client(p);
    server.Join();
    server.CloseAll();
    EXPECT_TRUE(quietBeforeAnswer);
    EXPECT_FALSE(secondConnectionEarly);
}

TEST(LapiClientOpen, ServerClosingAfterRegisterReqIsRefusal) {
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([](FakeServer &s) {
        RegisterReq reg;
        int fd = s.AcceptRequest(&reg);
        if (fd >= 0) {
            s.Close(fd);
        }
    });
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_MTLR, 3000, &p), LAPI_E_REFUSED);
    EXPECT_EQ(p, nullptr);
}

TEST(LapiClientOpen, ServerClosingTheSecondConnectionIsRefusal) {
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([](FakeServer &s) {
        RegisterReq reg;
        int fd = s.AcceptRequest(&reg);
        if (fd < 0) {
            return;
        }
        lapifake::WriteMsg(fd, Make<RegisterRsp>(LAPI_REGISTER_RSP));
        GetAsyncFdReq areq;
        int afd = s.AcceptRequest(&areq);
        if (afd >= 0) {
            s.Close(afd);
        }
    });
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_BASIC, 3000, &p), LAPI_E_REFUSED);
    EXPECT_EQ(p, nullptr);
}

TEST(LapiClientOpen, SilentServerTimesOutTheHandshake) {
    std::atomic<bool> done{false};
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([&](FakeServer &s) {
        int fd = s.Accept();
        /* Never answer; hold the connection until the client gave up. */
        for (int i = 0; fd >= 0 && !done && i < 500; ++i) {
            if (lapifake::WaitReadable(fd, 20)) {
                char sink[64];
                if (read(fd, sink, sizeof(sink)) <= 0) {
                    break; /* the client gave up and closed */
                }
            }
        }
    });
    lapi_client *p = nullptr;
    int64_t start = NowMs();
    EXPECT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_BASIC, 400, &p), LAPI_E_TIMEOUT);
    int64_t spent = NowMs() - start;
    done = true;
    EXPECT_GE(spent, 390);
    EXPECT_LT(spent, 3000);
    EXPECT_EQ(p, nullptr);
}

TEST(LapiClientOpen, WrongHandshakeAnswerIsProtocolError) {
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([](FakeServer &s) {
        RegisterReq reg;
        int fd = s.AcceptRequest(&reg);
        if (fd >= 0) {
            lapifake::WriteMsg(fd, Make<GetAsyncFdRsp>(LAPI_GET_ASYNC_FD_RSP));
        }
    });
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_BASIC, 3000, &p), LAPI_E_PROTOCOL);
}

TEST(LapiClientOpen, RegisterRspOfWrongLengthIsProtocolError) {
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([](FakeServer &s) {
        RegisterReq reg;
        int fd = s.AcceptRequest(&reg);
        if (fd >= 0) {
            lapifake::WriteBytes(fd, MsgBytes(LAPI_REGISTER_RSP, 3));
        }
    });
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open(server.Path().c_str(), LAPI_SERVICE_BASIC, 3000, &p), LAPI_E_PROTOCOL);
}

/* ---- requests on the wire ---- */

TEST(LapiClientRequests, EveryRequestHasItsWireLayout) {
    std::vector<ClientMsg> got;
    Session s;
    s.server.Start([&](FakeServer &srv) {
        if (!srv.Handshake(1, &s.syncFd, &s.asyncFd)) {
            return;
        }
        ClientMsg m;
        while (got.size() < 13 && lapifake::ReadMsg(s.syncFd, &m)) {
            got.push_back(m);
        }
    });
    lapi_client *p = nullptr;
    ASSERT_EQ(lapi_open(s.server.Path().c_str(), LAPI_SERVICE_BASIC, 3000, &p), LAPI_OK);
    s.client.reset(p);
    lapi_client *c = s.client.get();

    lapi_location_params lp;
    lapi_location_params_init(&lp);
    EXPECT_EQ(+lp.mode, LAPI_MODE_SYNC);
    EXPECT_EQ(+lp.responseTime, 30000u);
    lp.mode = LAPI_MODE_ASYNC;
    lp.sessionId = 3;
    lp.transactionId = 4;
    lp.responseTime = 999;
    lp.horizontalAccuracy = 10;
    lp.verticalAccuracy = 20;
    lp.preferredPowerConsumption = 2;
    lp.interval = 5;
    lp.reportCriteria = LAPI_REPORT_PERIODIC;
    lp.costAllowed = 1;
    lp.addressInfoRequired = 1;
    lp.speedAndCourseRequired = 1;
    lp.altitudeRequired = 1;
    lp.nmeaRequired = 1;
    ASSERT_EQ(lapi_get_location(c, &lp), LAPI_OK);
    ASSERT_EQ(lapi_abort_location(c, LAPI_MODE_SYNC, 3, 4), LAPI_OK);
    ASSERT_EQ(lapi_abort_all_location(c), LAPI_OK);
    ASSERT_EQ(lapi_last_known_location(c, LAPI_MODE_SYNC, 5, 6), LAPI_OK);
    ASSERT_EQ(lapi_get_gps_db_data(c, LAPI_MODE_SYNC, 7, 8, 0xA1B2C3D4), LAPI_OK);
    DbFile files[2];
    memset(files, 0, sizeof(files));
    files[0] = {11, 2, {0xAA, 0xBB, 0, 0}};
    files[1] = {12, 4, {1, 2, 3, 4}};
    ASSERT_EQ(lapi_set_gps_db_data(c, LAPI_MODE_SYNC, 9, 10, files, 2), LAPI_OK);
    ASSERT_EQ(lapi_get_status(c, 2, 11, 12), LAPI_OK);
    ASSERT_EQ(lapi_location_notification_cfm(c, 200, 201, 3), LAPI_OK);
    ASSERT_EQ(lapi_distance_azimuth(c, LAPI_MODE_SYNC, 13, 14, 1.0, -2.5, 3.25, 4.0, 7), LAPI_OK);
    ASSERT_EQ(lapi_add_proximity(c, LAPI_MODE_SYNC, 15, 16, 48.5, 2.25, 35.0, 100.0), LAPI_OK);
    ASSERT_EQ(lapi_remove_proximity(c, LAPI_MODE_SYNC, 15, 16), LAPI_OK);
    ASSERT_EQ(lapi_remove_all_proximity(c, LAPI_MODE_ASYNC, 17, 18), LAPI_OK);
    lapi_set_timeout(c, 300);
    ASSERT_EQ(lapi_unregister(c), LAPI_E_TIMEOUT) << "the script never answers unregisterReq";
    s.server.Join();
    ASSERT_EQ(got.size(), 13u);

    const uint32_t pid = static_cast<uint32_t>(getpid());
    struct Expect {
        int msgId;
        int len;
    } expect[] = {{106, 33}, {107, 4},  {108, 0},  {109, 4}, {110, 8}, {111, 226}, {112, 4},
                  {113, 6},  {114, 37}, {115, 36}, {116, 8}, {116, 8}, {104, 0}};
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(+got[i].header.pid, pid) << i;
        EXPECT_EQ(+got[i].header.msgId, expect[i].msgId) << i;
        EXPECT_EQ(+got[i].header.msgLen, expect[i].len) << i;
        EXPECT_EQ(got[i].body.size(), static_cast<size_t>(expect[i].len)) << i;
    }
    auto gl = got[0].As<GetLocationReq>();
    EXPECT_EQ(+gl.mode, LAPI_MODE_ASYNC);
    EXPECT_EQ(+gl.sessionId, 3);
    EXPECT_EQ(+gl.transactionId, 4);
    EXPECT_EQ(+gl.responseTime, 999u);
    EXPECT_EQ(+gl.horizontalAccuracy, 10u);
    EXPECT_EQ(+gl.verticalAccuracy, 20u);
    EXPECT_EQ(+gl.preferredPowerConsumption, 2u);
    EXPECT_EQ(+gl.interval, 5u);
    EXPECT_EQ(+gl.reportCriteria, 1u);
    EXPECT_EQ(gl.costAllowed + gl.addressInfoRequired + gl.speedAndCourseRequired +
                  gl.altitudeRequired + gl.nmeaRequired,
              5);
    auto ab = got[1].As<AbortLocationReq>();
    EXPECT_EQ(+ab.mode, LAPI_MODE_SYNC);
    EXPECT_EQ(+ab.sessionId, 3);
    EXPECT_EQ(+ab.transactionId, 4);
    auto lk = got[3].As<LastKnownLocationReq>();
    EXPECT_EQ(+lk.sessionId, 5);
    EXPECT_EQ(+lk.transactionId, 6);
    auto dbg = got[4].As<GetGpsDbDataReq>();
    EXPECT_EQ(+dbg.fileId, 0xA1B2C3D4u);
    auto dbs = got[5].As<SetGpsDbDataReq>();
    EXPECT_EQ(+dbs.numFiles, 2);
    EXPECT_EQ(+dbs.dbFile[0].fileId, 11u);
    EXPECT_EQ(+dbs.dbFile[0].length, 2);
    EXPECT_EQ(+dbs.dbFile[0].data[0], 0xAA);
    EXPECT_EQ(+dbs.dbFile[0].data[1], 0xBB);
    EXPECT_EQ(+dbs.dbFile[0].data[2], 0) << "bytes past length are zero";
    EXPECT_EQ(+dbs.dbFile[1].data[3], 4);
    EXPECT_EQ(+dbs.dbFile[2].fileId, 0u) << "unused entries are zero";
    auto st = got[6].As<GetStatusReq>();
    EXPECT_EQ(+st.mode, 2) << "any mode value other than 1 travels unchanged";
    auto cfm = got[7].As<LocationNotificationCfm>();
    EXPECT_EQ(+cfm.sessionId, 200);
    EXPECT_EQ(+cfm.transactionId, 201);
    EXPECT_EQ(+cfm.responseType, 3u);
    auto da = got[8].As<DistanceAzimuthReq>();
    EXPECT_EQ(+da.latitude1, 1.0);
    EXPECT_EQ(+da.longitude1, -2.5);
    EXPECT_EQ(+da.latitude2, 3.25);
    EXPECT_EQ(+da.longitude2, 4.0);
    EXPECT_EQ(+da.distanceOnly, 1) << "a true flag travels as 1";
    auto ap = got[9].As<AddProximityReq>();
    EXPECT_EQ(+ap.latitude, 48.5);
    EXPECT_EQ(+ap.longitude, 2.25);
    EXPECT_EQ(+ap.altitude, 35.0);
    EXPECT_EQ(+ap.radius, 100.0);
    auto rp = got[10].As<RemoveProximityReq>();
    EXPECT_EQ(+rp.sessionId, 15);
    EXPECT_EQ(+rp.removeType, 0u);
    auto ra = got[11].As<RemoveProximityReq>();
    EXPECT_EQ(+ra.mode, LAPI_MODE_ASYNC);
    EXPECT_EQ(+ra.sessionId, 17);
    EXPECT_EQ(+ra.removeType, static_cast<uint32_t>(LAPI_REMOVE_ALL_PROXIMITY));
}

TEST(LapiClientRequests, SetGpsDbDataRefusesWhatTheProtocolCannotCarry) {
    bool quiet = false;
    Session s;
    ASSERT_TRUE(s.Open([&](Session &self) {
        /* Nothing of the refused requests may reach the server. */
        quiet = !lapifake::WaitReadable(self.syncFd, 500);
    }));
    DbFile files[LAPI_MAX_DB_FILES + 1];
    memset(files, 0, sizeof(files));
    for (auto &f : files) {
        f.length = 1;
    }
    lapi_client *c = s.client.get();
    EXPECT_EQ(lapi_set_gps_db_data(c, 1, 1, 1, files, LAPI_MAX_DB_FILES + 1), LAPI_E_INVAL);
    files[0].length = 0;
    EXPECT_EQ(lapi_set_gps_db_data(c, 1, 1, 1, files, 1), LAPI_E_INVAL);
    files[0].length = 5;
    EXPECT_EQ(lapi_set_gps_db_data(c, 1, 1, 1, files, 1), LAPI_E_INVAL);
    EXPECT_EQ(lapi_set_gps_db_data(c, 1, 1, 1, nullptr, 1), LAPI_E_INVAL);
    s.server.Join();
    EXPECT_TRUE(quiet);
}

TEST(LapiClientRequests, NullClientIsRefused) {
    lapi_location_params lp;
    lapi_location_params_init(&lp);
    EXPECT_EQ(lapi_get_location(nullptr, &lp), LAPI_E_INVAL);
    EXPECT_EQ(lapi_get_status(nullptr, 1, 1, 1), LAPI_E_INVAL);
    EXPECT_EQ(lapi_abort_all_location(nullptr), LAPI_E_INVAL);
    EXPECT_EQ(lapi_unregister(nullptr), LAPI_E_INVAL);
    EXPECT_EQ(lapi_sync_fd(nullptr), -1);
    lapi_close(nullptr);
}

TEST(LapiClientRequests, RequestToVanishedServerIsClosed) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) { self.server.CloseAll(); }));
    s.server.Join();
    int rc = lapi_get_status(s.client.get(), 1, 1, 1);
    EXPECT_EQ(rc, LAPI_E_CLOSED);
    /* The failure sticks: the client is unusable. */
    EXPECT_EQ(lapi_get_status(s.client.get(), 1, 2, 2), LAPI_E_CLOSED);
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 0), LAPI_E_CLOSED);
}

/* ---- receiving ---- */

TEST(LapiClientRecv, ReassemblesMessageSentByteByByte) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        DistanceAzimuthRsp rsp = Make<DistanceAzimuthRsp>(LAPI_DISTANCE_AZIMUTH_RSP);
        rsp.sessionId = 9;
        rsp.transactionId = 8;
        rsp.distance = 1000.5;
        rsp.azimuth = 45.0;
        Bytes b = lapifake::ToBytes(rsp);
        for (uint8_t byte : b) {
            lapifake::WriteAll(self.syncFd, &byte, 1);
            usleep(2000);
        }
    }));
    lapi_msg msg;
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_DISTANCE_AZIMUTH_RSP);
    EXPECT_EQ(+msg.conn, LAPI_CONN_SYNC);
    EXPECT_EQ(+msg.u.distanceAzimuthRsp.sessionId, 9);
    EXPECT_EQ(+msg.u.distanceAzimuthRsp.transactionId, 8);
    EXPECT_EQ(+msg.u.distanceAzimuthRsp.distance, 1000.5);
    EXPECT_EQ(+msg.u.distanceAzimuthRsp.azimuth, 45.0);
}

TEST(LapiClientRecv, PartialMessageIsKeptAcrossCalls) {
    std::atomic<int> step{0};
    Session s;
    ASSERT_TRUE(s.Open([&](Session &self) {
        Bytes b = lapifake::ToBytes(Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
        lapifake::WriteAll(self.syncFd, b.data(), 5);
        step = 1;
        for (int i = 0; i < 10000 && step != 2; ++i) {
            usleep(1000);
        }
        lapifake::WriteAll(self.syncFd, b.data() + 5, b.size() - 5);
    }));
    for (int i = 0; i < 10000 && step != 1; ++i) {
        usleep(1000);
    }
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 100), LAPI_E_TIMEOUT);
    step = 2;
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_TIME_OUT_RSP);
}

TEST(LapiClientRecv, TakesOnlyOneMessageOutOfTheSocket) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        Bytes b = lapifake::ToBytes(Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
        Bytes second = lapifake::ToBytes(Make<InvalidRequestRsp>(LAPI_INVALID_REQUEST_RSP));
        b.insert(b.end(), second.begin(), second.end());
        lapifake::WriteBytes(self.syncFd, b);
    }));
    s.server.Join();
    lapi_msg msg;
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_TIME_OUT_RSP);
    /* The second message is still in the socket, so poll() sees it. */
    EXPECT_TRUE(lapifake::WaitReadable(lapi_sync_fd(s.client.get()), 0));
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 0), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_INVALID_REQUEST_RSP);
    EXPECT_FALSE(lapifake::WaitReadable(lapi_sync_fd(s.client.get()), 0));
}

TEST(LapiClientRecv, TellsWhichConnectionCarriedTheMessage) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        StatusChangeInd ind = Make<StatusChangeInd>(LAPI_STATUS_CHANGE_IND);
        ind.userStatus = 3;
        ind.iconStatus = -7;
        lapifake::WriteMsg(self.asyncFd, ind);
    }));
    lapi_msg msg;
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_STATUS_CHANGE_IND);
    EXPECT_EQ(+msg.conn, LAPI_CONN_ASYNC);
    EXPECT_EQ(+msg.u.statusChangeInd.userStatus, 3);
    EXPECT_EQ(+msg.u.statusChangeInd.iconStatus, -7);
}

TEST(LapiClientRecv, RecvConnReadsOnlyThatConnection) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        lapifake::WriteMsg(self.asyncFd, Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
    }));
    s.server.Join();
    lapi_msg msg;
    EXPECT_EQ(lapi_recv_conn(s.client.get(), LAPI_CONN_SYNC, &msg, 100), LAPI_E_TIMEOUT);
    ASSERT_EQ(lapi_recv_conn(s.client.get(), LAPI_CONN_ASYNC, &msg, 1000), LAPI_OK);
    EXPECT_EQ(+msg.conn, LAPI_CONN_ASYNC);
    EXPECT_EQ(lapi_recv_conn(s.client.get(), 2, &msg, 0), LAPI_E_INVAL);
}

TEST(LapiClientRecv, BothConnectionsAreServedInTurn) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        for (int i = 0; i < 3; ++i) {
            lapifake::WriteMsg(self.syncFd, Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
            lapifake::WriteMsg(self.asyncFd, Make<InvalidRequestRsp>(LAPI_INVALID_REQUEST_RSP));
        }
    }));
    s.server.Join();
    int perConn[2] = {0, 0};
    lapi_msg msg;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(lapi_recv(s.client.get(), &msg, 1000), LAPI_OK);
        ++perConn[msg.conn];
    }
    EXPECT_EQ(perConn[0], 2);
    EXPECT_EQ(perConn[1], 2);
}

TEST(LapiClientRecv, WrongLengthIsSkippedAndTheNextMessageRead) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        lapifake::WriteBytes(self.syncFd, MsgBytes(LAPI_GET_STATUS_RSP, 33));
        lapifake::WriteMsg(self.syncFd, Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
    }));
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_E_BAD_LENGTH);
    EXPECT_EQ(+msg.msgId, LAPI_GET_STATUS_RSP);
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_TIME_OUT_RSP);
}

TEST(LapiClientRecv, UnknownIdentifierIsSkippedAndTheNextMessageRead) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        lapifake::WriteBytes(self.syncFd, MsgBytes(14, 6));
        lapifake::WriteBytes(self.syncFd, MsgBytes(LAPI_GET_LOCATION_REQ, 33));
        lapifake::WriteMsg(self.syncFd, Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
    }));
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_E_UNKNOWN_MSG);
    EXPECT_EQ(+msg.msgId, 14);
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_E_UNKNOWN_MSG);
    EXPECT_EQ(+msg.msgId, LAPI_GET_LOCATION_REQ);
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(+msg.msgId, LAPI_TIME_OUT_RSP);
}

TEST(LapiClientRecv, OversizedLengthMakesTheClientUnusable) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        MsgHeader h = {0, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN + 1};
        lapifake::WriteMsg(self.syncFd, h);
        lapifake::WriteMsg(self.syncFd, Make<TimeOutRsp>(LAPI_TIME_OUT_RSP));
    }));
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_E_PROTOCOL);
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 0), LAPI_E_PROTOCOL);
    EXPECT_EQ(lapi_get_status(s.client.get(), 1, 1, 1), LAPI_E_PROTOCOL);
}

TEST(LapiClientRecv, ServerGoingAwayMidMessageIsClosed) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        Bytes b = lapifake::ToBytes(Make<GetLocationRsp>(LAPI_GET_LOCATION_RSP));
        lapifake::WriteAll(self.syncFd, b.data(), 100);
        self.server.CloseAll();
    }));
    lapi_msg msg;
    int64_t start = NowMs();
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 5000), LAPI_E_CLOSED);
    EXPECT_LT(NowMs() - start, 4000) << "no wait for the rest of a message that cannot come";
}

TEST(LapiClientRecv, SilentServerTimesOut) {
    std::atomic<bool> done{false};
    Session s;
    ASSERT_TRUE(s.Open([&](Session &) {
        for (int i = 0; i < 2000 && !done; ++i) {
            usleep(5000);
        }
    }));
    lapi_msg msg;
    int64_t start = NowMs();
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 300), LAPI_E_TIMEOUT);
    int64_t spent = NowMs() - start;
    EXPECT_GE(spent, 290);
    EXPECT_LT(spent, 2000);
    start = NowMs();
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 0), LAPI_E_TIMEOUT);
    EXPECT_LT(NowMs() - start, 100);
    done = true;
}

void NoteSignal(int) {}

TEST(LapiClientRecv, SignalEndsTheWait) {
    struct sigaction sa;
    struct sigaction old;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = NoteSignal;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    pthread_t self = pthread_self();
    std::atomic<bool> done{false};
    Session s;
    ASSERT_TRUE(s.Open([&](Session &) {
        /* Keep signalling until the waiting thread noticed: a signal sent
         * before it entered poll() would be missed. */
        for (int i = 0; i < 200 && !done; ++i) {
            usleep(50000);
            pthread_kill(self, SIGUSR1);
        }
    }));
    lapi_msg msg;
    int rc = lapi_recv(s.client.get(), &msg, 5000);
    done = true;
    s.server.Join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(rc, LAPI_E_INTR);
}

/* ---- unregistering and closing ---- */

TEST(LapiClientClose, UnregisterWaitsForItsAnswerAndDropsOthers) {
    ClientMsg unreg;
    bool gotUnreg = false;
    Session s;
    ASSERT_TRUE(s.Open([&](Session &self) {
        gotUnreg = lapifake::ReadMsg(self.syncFd, &unreg);
        lapifake::WriteMsg(self.syncFd, Make<StatusChangeInd>(LAPI_STATUS_CHANGE_IND));
        lapifake::WriteMsg(self.syncFd, Make<UnregisterRsp>(LAPI_UNREGISTER_RSP));
    }));
    EXPECT_EQ(lapi_unregister(s.client.get()), LAPI_OK);
    s.server.Join();
    ASSERT_TRUE(gotUnreg);
    EXPECT_EQ(+unreg.header.msgId, LAPI_UNREGISTER_REQ);
    EXPECT_EQ(+unreg.header.msgLen, 0);
    EXPECT_EQ(lapi_sync_fd(s.client.get()), -1);
    EXPECT_EQ(lapi_async_fd(s.client.get()), -1);
    EXPECT_EQ(lapi_get_status(s.client.get(), 1, 1, 1), LAPI_E_STATE);
    EXPECT_EQ(lapi_unregister(s.client.get()), LAPI_E_STATE);
}

TEST(LapiClientClose, UnregisterWithSilentServerTimesOut) {
    std::atomic<bool> done{false};
    Session s;
    ASSERT_TRUE(s.Open([&](Session &) {
        for (int i = 0; i < 2000 && !done; ++i) {
            usleep(5000);
        }
    }));
    lapi_set_timeout(s.client.get(), 300);
    int64_t start = NowMs();
    EXPECT_EQ(lapi_unregister(s.client.get()), LAPI_E_TIMEOUT);
    EXPECT_LT(NowMs() - start, 2000);
    done = true;
}

TEST(LapiClientClose, UnregisterAfterServerLeftIsClosed) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        ClientMsg m;
        lapifake::ReadMsg(self.syncFd, &m);
        self.server.CloseAll();
    }));
    EXPECT_EQ(lapi_unregister(s.client.get()), LAPI_E_CLOSED);
}

TEST(LapiClientClose, CloseUnregistersFirst) {
    ClientMsg unreg;
    bool gotUnreg = false;
    Session s;
    ASSERT_TRUE(s.Open([&](Session &self) {
        gotUnreg = lapifake::ReadMsg(self.syncFd, &unreg);
        lapifake::WriteMsg(self.syncFd, Make<UnregisterRsp>(LAPI_UNREGISTER_RSP));
    }));
    s.client.reset();
    s.server.Join();
    ASSERT_TRUE(gotUnreg);
    EXPECT_EQ(+unreg.header.msgId, LAPI_UNREGISTER_REQ);
}

/* ---- tracing ---- */

using lapitest::StderrCapture;

TEST(LapiClientTrace, OffByDefault) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        lapifake::WriteBytes(self.syncFd, MsgBytes(LAPI_GET_STATUS_RSP, 33));
        lapifake::WriteMsg(self.syncFd, Make<GetStatusRsp>(LAPI_GET_STATUS_RSP));
    }));
    StderrCapture cap;
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_E_BAD_LENGTH);
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    EXPECT_EQ(cap.Stop(), "");
}

TEST(LapiClientTrace, ErrorsAreCliErrorLines) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        lapifake::WriteBytes(self.syncFd, MsgBytes(LAPI_GET_STATUS_RSP, 33));
    }));
    ASSERT_EQ(lapi_set_trace(s.client.get(), 1), LAPI_OK);
    StderrCapture cap;
    lapi_msg msg;
    EXPECT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_E_BAD_LENGTH);
    std::string text = cap.Stop();
    EXPECT_NE(text.find("\tLAPI Error CLI "), std::string::npos) << text;
    EXPECT_NE(text.find("Skipped msgId: 6, msgLen: 33"), std::string::npos) << text;
    EXPECT_EQ(text.find("LAPI Error SRV"), std::string::npos) << text;
}

TEST(LapiClientTrace, ReceivedAndSentMessagesAreCliTraceLines) {
    Session s;
    ASSERT_TRUE(s.Open([](Session &self) {
        ClientMsg m;
        if (lapifake::ReadMsg(self.syncFd, &m)) {
            GetStatusRsp rsp = Make<GetStatusRsp>(LAPI_GET_STATUS_RSP);
            rsp.sessionId = 4;
            rsp.transactionId = 5;
            lapifake::WriteMsg(self.syncFd, rsp);
        }
    }));
    ASSERT_EQ(lapi_set_trace(s.client.get(), 1), LAPI_OK);
    StderrCapture cap;
    ASSERT_EQ(lapi_get_status(s.client.get(), 1, 4, 5), LAPI_OK);
    lapi_msg msg;
    ASSERT_EQ(lapi_recv(s.client.get(), &msg, 3000), LAPI_OK);
    std::string text = cap.Stop();
    EXPECT_NE(text.find("\tLAPI CLI : C->S getStatusReq "), std::string::npos) << text;
    EXPECT_NE(text.find("\tLAPI CLI : S->C getStatusRsp "), std::string::npos) << text;
    EXPECT_EQ(text.find("LAPI SRV"), std::string::npos) << text;
}

TEST(LapiClientTrace, OpenWithTraceFlagTracesTheHandshake) {
    int syncFd = -1;
    int asyncFd = -1;
    FakeServer server;
    ASSERT_TRUE(server.Ok());
    server.Start([&](FakeServer &s) { s.Handshake(5, &syncFd, &asyncFd); });
    lapi_client *p = nullptr;
    StderrCapture cap;
    int rc = lapi_open_ex(server.Path().c_str(), LAPI_SERVICE_BASIC, 3000, LAPI_OPEN_TRACE, &p);
    std::string text = cap.Stop();
    ClientPtr client(p);
    server.Join();
    server.CloseAll();
    ASSERT_EQ(rc, LAPI_OK);
    EXPECT_NE(text.find("\tLAPI CLI : C->S registerReq "), std::string::npos) << text;
    EXPECT_NE(text.find("\tLAPI CLI : S->C registerRsp "), std::string::npos) << text;
    EXPECT_NE(text.find("\tLAPI CLI : C->S getAsyncFdReq "), std::string::npos) << text;
    EXPECT_NE(text.find("\tLAPI CLI : S->C getAsyncFdRsp "), std::string::npos) << text;
}

TEST(LapiClientOpen, UnknownOpenFlagsAreRefused) {
    lapi_client *p = nullptr;
    EXPECT_EQ(lapi_open_ex("/tmp/x", LAPI_SERVICE_BASIC, 1000, 0x80, &p), LAPI_E_INVAL);
    EXPECT_EQ(p, nullptr);
}

}  // namespace
