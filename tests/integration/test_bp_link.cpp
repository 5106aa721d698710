/*
 * The BP link end to end: the host server against the BP simulator on a
 * raw pseudo-terminal linked at ROOT/dev/mux18, and the simulator itself
 * (its frame reader, its answers and policies, the bpsim program).
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stddef.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "ServerFixture.h"
#include "TestClient.h"

namespace {

using bpsim::Bytes;
using lapitest::ServerOptions;
using lapitest::ServerProcess;
using lapitest::Stream;
using lapitest::TempRoot;
using Clock = std::chrono::steady_clock;

constexpr int kWaitMs = 5000;
/* registerReq service bit for status broadcasts: any valid service will do. */
constexpr uint32_t kServiceStatus = 4;

/* ---- the server's side of the channel, played by the test ------------- */

/* Opens ROOT/dev/mux18 as the server does and reads frames from it. */
class DeviceEnd {
  public:
    explicit DeviceEnd(const std::string &path) {
        fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    }
    ~DeviceEnd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    DeviceEnd(const DeviceEnd &) = delete;
    DeviceEnd &operator=(const DeviceEnd &) = delete;

    bool ok() const { return fd_ >= 0; }
    bool Write(const Bytes &b) {
        return write(fd_, b.data(), b.size()) == static_cast<ssize_t>(b.size());
    }
    /* The next message the simulator sends, within timeoutMs. */
    std::optional<Bytes> NextMsg(int timeoutMs) {
        auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            if (auto m = reader_.Next()) {
                return m;
            }
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return std::nullopt;
            }
            struct pollfd pfd = {fd_, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left.count())) > 0) {
                uint8_t buf[2048];
                ssize_t n = read(fd_, buf, sizeof(buf));
                if (n > 0) {
                    reader_.Feed(buf, static_cast<size_t>(n));
                }
            }
        }
    }

  private:
    int fd_ = -1;
    bpsim::FrameReader reader_;
};

Bytes BpLocationReqMsg(uint8_t sid, uint8_t tid) {
    Bytes body(LAPI_BP_GET_LOCATION_REQ_LEN - LAPI_BP_MSG_HEADER_LEN, 0);
    return bpsim::MakeMsg(GEOLOCATION_APBP_REQ, sid, tid, body);
}

/* ======================================================================== */
/* The simulator                                                            */
/* ======================================================================== */

struct ReaderRow {
    const char *legend;
    Bytes stream;
    std::vector<Bytes> messages;
    size_t lostSync;
    size_t tooBig;
};

TEST(BpSim, FrameReaderResynchronisesLikeTheServer) {
    const Bytes a = bpsim::MakeMsg(GEOLOCATION_APBP_REQ, 2, 1, Bytes(29, 0));
    const Bytes b = bpsim::MakeMsg(GEOLOCATION_ABORT_APBP_REQ, 2, 1);
    const Bytes fa = bpsim::MakeFrame(a);
    const Bytes fb = bpsim::MakeFrame(b);
    auto cat = [](std::initializer_list<Bytes> parts) {
        Bytes out;
        for (const Bytes &p : parts) {
            out.insert(out.end(), p.begin(), p.end());
        }
        return out;
    };
    const ReaderRow rows[] = {
        {"two frames back to back", cat({fa, fb}), {a, b}, 0, 0},
        {"garbage without sync byte first", cat({{0x01, 0xCF, 0xB0}, fb}), {b}, 0, 0},
        {"false 0x50 hiding a real frame",
         cat({{0x50, 0x00, 0x10}, fb, {0x01, 0x02, 0x03, 0x04, 0x05}}),
         {b},
         1,
         0},
        {"declared length 1025", cat({{0x50, 0x04, 0x01}, fb}), {b}, 0, 1},
        {"declared length 0", cat({{0x50, 0x00, 0x00}, fb}), {b}, 1, 0},
        {"declared length 4", cat({{0x50, 0x00, 0x04}, fb}), {b}, 1, 0},
        {"wrong trailer", cat({Bytes(fb.begin(), fb.end() - 1), {0xB1}}), {}, 1, 0},
    };
    for (const ReaderRow &row : rows) {
        SCOPED_TRACE(row.legend);
        /* Whole, then one byte at a time: the same messages either way. */
        for (int bytewise = 0; bytewise < 2; ++bytewise) {
            bpsim::FrameReader reader;
            std::vector<Bytes> got;
            if (bytewise) {
                for (uint8_t byte : row.stream) {
                    reader.Feed(&byte, 1);
                    while (auto m = reader.Next()) {
                        got.push_back(*m);
                    }
                }
            } else {
                reader.Feed(row.stream);
                while (auto m = reader.Next()) {
                    got.push_back(*m);
                }
            }
            EXPECT_EQ(row.messages, got);
            EXPECT_EQ(row.lostSync, reader.LostSync());
            EXPECT_EQ(row.tooBig, reader.TooBig());
        }
    }
}

TEST(BpSim, BuildsLocationResponseWithTheFix) {
    bpsim::Fix fix;
    fix.latitude = -1.5;
    fix.longitude = 2.25;
    fix.timeStamp = 0x0102030405060708ULL;
    fix.nmea = "$GPGGA,1\r\n";
    bpsim::Message m{bpsim::BuildGetLocationRsp(7, 9, fix)};
    ASSERT_EQ(static_cast<size_t>(LAPI_BP_GET_LOCATION_RSP_MIN_LEN) + fix.nmea.size(), m.Size());
    EXPECT_EQ(GEOLOCATION_APBP_RES, m.SubCmdId());
    EXPECT_EQ(7, m.SessionId());
    EXPECT_EQ(9, m.TransactionId());
    EXPECT_EQ(0xFFFFFFFFFF400000ULL, m.U64(11)) << "latitude -1.5 in fixed point";
    EXPECT_EQ(0x0000000001200000ULL, m.U64(3)) << "longitude 2.25 in fixed point";
    EXPECT_EQ(fix.timeStamp, m.U64(27)) << "timeStamp is not scaled";
    EXPECT_EQ(fix.nmea.size(), m.U16(107));
    EXPECT_EQ(fix.nmea, std::string(m.bytes.begin() + 109, m.bytes.end()));
}

TEST(BpSim, LoadsNmeaFileAsWholeSentencesWithinTheLimit) {
    TempRoot root;
    std::string lines;
    for (int i = 0; i < 40; ++i) {
        lines += "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,," +
                 std::to_string(i % 10) + "\n";
    }
    ASSERT_TRUE(root.WriteFile("/nmea.txt", lines));
    auto nmea = bpsim::LoadNmeaFile(root.Path("/nmea.txt"));
    ASSERT_TRUE(nmea.has_value());
    EXPECT_LE(nmea->size(), static_cast<size_t>(LAPI_BP_MAX_NMEA_LEN));
    EXPECT_GT(nmea->size(), static_cast<size_t>(LAPI_BP_MAX_NMEA_LEN) - 80);
    EXPECT_EQ(0u, nmea->find("$GPGGA,"));
    EXPECT_EQ("\r\n", nmea->substr(nmea->size() - 2));
    EXPECT_FALSE(bpsim::LoadNmeaFile(root.Path("/missing.txt")).has_value());
}

TEST(BpSim, ParsesHexCommands) {
    EXPECT_EQ((Bytes{0x01, 0xab, 0xCD}), bpsim::ParseHex("01 ab CD"));
    EXPECT_EQ((Bytes{0x01, 0xab}), bpsim::ParseHex("01ab"));
    EXPECT_FALSE(bpsim::ParseHex("0 1"));
    EXPECT_FALSE(bpsim::ParseHex("0g"));
    EXPECT_EQ("01 ab", bpsim::ToHex({0x01, 0xab}));
}

class BpSimDevice : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(root_.ok());
        bpsim::Options options;
        options.root = root_.Dir();
        options.fix.latitude = 48.5;
        options.fix.longitude = 2.25;
        sim_ = std::make_unique<bpsim::Simulator>(options);
        std::string error;
        ASSERT_TRUE(sim_->Open(&error)) << error;
        ASSERT_TRUE(sim_->StartThread());
    }

    TempRoot root_;
    std::unique_ptr<bpsim::Simulator> sim_;
};

TEST_F(BpSimDevice, LinksDeviceToRawTerminal) {
    struct stat st;
    ASSERT_EQ(0, lstat(root_.Path("/dev/mux18").c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    char target[256] = {};
    ASSERT_GT(readlink(root_.Path("/dev/mux18").c_str(), target, sizeof(target) - 1), 0);
    EXPECT_EQ(sim_->SlavePath(), target);
    EXPECT_EQ(root_.Path("/dev/mux18"), sim_->LinkPath());
}

TEST_F(BpSimDevice, AnswersLocationRequestWithConfiguredPosition) {
    DeviceEnd dev(sim_->LinkPath());
    ASSERT_TRUE(dev.ok());
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(BpLocationReqMsg(5, 6))));
    auto rsp = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    bpsim::Message m{*rsp};
    EXPECT_EQ(GEOLOCATION_APBP_RES, m.SubCmdId());
    EXPECT_EQ(5, m.SessionId());
    EXPECT_EQ(6, m.TransactionId());
    EXPECT_EQ(static_cast<uint64_t>(48.5 * 8388608.0), m.U64(11));
    EXPECT_EQ(static_cast<uint64_t>(2.25 * 8388608.0), m.U64(3));
    /* The request itself is kept for inspection. */
    auto req = sim_->WaitForSubCmd(GEOLOCATION_APBP_REQ, kWaitMs);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(BpLocationReqMsg(5, 6), req->bytes);
}

TEST_F(BpSimDevice, AnswersLastKnownLocationAndAbort) {
    DeviceEnd dev(sim_->LinkPath());
    ASSERT_TRUE(dev.ok());
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(bpsim::MakeMsg(LAST_KNOWN_GEOLOCATION_APBP_REQ, 3, 4))));
    auto rsp = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(GEOLOCATION_APBP_RES, (*rsp)[0]);
    EXPECT_EQ(3, (*rsp)[1]);
    EXPECT_EQ(4, (*rsp)[2]);
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(bpsim::MakeMsg(GEOLOCATION_ABORT_APBP_REQ, 3, 4))));
    rsp = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ((Bytes{GEOLOCATION_ABORT_APBP_RES, 3, 4, 0, 0, 0, 0}), *rsp);
}

TEST_F(BpSimDevice, SilentPolicyRecordsButNeverAnswers) {
    bpsim::Policy silent;
    silent.answer = bpsim::Answer::Silent;
    sim_->SetPolicy(GEOLOCATION_APBP_REQ, silent);
    DeviceEnd dev(sim_->LinkPath());
    ASSERT_TRUE(dev.ok());
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(BpLocationReqMsg(2, 1))));
    ASSERT_TRUE(sim_->WaitForSubCmd(GEOLOCATION_APBP_REQ, kWaitMs).has_value());
    EXPECT_FALSE(dev.NextMsg(300).has_value());
}

TEST_F(BpSimDevice, DelayedPolicyAnswersAfterTheDelay) {
    bpsim::Policy late;
    late.answer = bpsim::Answer::After;
    late.delayMs = 300;
    sim_->SetPolicy(GEOLOCATION_ABORT_APBP_REQ, late);
    DeviceEnd dev(sim_->LinkPath());
    ASSERT_TRUE(dev.ok());
    auto start = Clock::now();
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(bpsim::MakeMsg(GEOLOCATION_ABORT_APBP_REQ, 2, 1))));
    auto rsp = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(GEOLOCATION_ABORT_APBP_RES, (*rsp)[0]);
}

TEST_F(BpSimDevice, CustomAnswerReplacesTheBuiltInOne) {
    bpsim::Policy custom;
    custom.build = [](const bpsim::Message &req) {
        return std::vector<Bytes>{
            bpsim::BuildI32Msg(GET_STATUS_APBP_RES, req.SessionId(), req.TransactionId(), 1),
            bpsim::BuildI32Msg(NOTIFICATION_STATUS_BPAP_IND, 0, 0, 2)};
    };
    sim_->SetPolicy(GET_STATUS_APBP_REQ, custom);
    DeviceEnd dev(sim_->LinkPath());
    ASSERT_TRUE(dev.ok());
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(bpsim::MakeMsg(GET_STATUS_APBP_REQ, 8, 9))));
    auto first = dev.NextMsg(kWaitMs);
    auto second = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(first.has_value());
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ((Bytes{GET_STATUS_APBP_RES, 8, 9, 0, 0, 0, 1}), *first);
    EXPECT_EQ((Bytes{NOTIFICATION_STATUS_BPAP_IND, 0, 0, 0, 0, 0, 2}), *second);
}

TEST_F(BpSimDevice, SendsAnyMessageAndRawBytesOnRequest) {
    DeviceEnd dev(sim_->LinkPath());
    ASSERT_TRUE(dev.ok());
    Bytes msg = bpsim::BuildI32Msg(PROXIMITY_ADD_APBP_RES, 1, 2, 0);
    ASSERT_TRUE(sim_->SendRaw({0x01, 0x02}));
    ASSERT_TRUE(sim_->Send(msg));
    auto got = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(msg, *got);
}

TEST_F(BpSimDevice, WaitForTimesOutWithoutMessage) {
    auto start = Clock::now();
    EXPECT_FALSE(sim_->WaitForAny(200).has_value());
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_TRUE(sim_->StaysQuiet(100));
}

TEST(BpSim, SingleThreadedWaitPollsByItself) {
    TempRoot root;
    bpsim::Options options;
    options.root = root.Dir();
    bpsim::Simulator sim(options);
    ASSERT_TRUE(sim.Open());
    DeviceEnd dev(sim.LinkPath());
    ASSERT_TRUE(dev.ok());
    ASSERT_TRUE(dev.Write(bpsim::MakeFrame(BpLocationReqMsg(2, 1))));
    auto req = sim.WaitForSubCmd(GEOLOCATION_APBP_REQ, kWaitMs);
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(1u, sim.History().size());
    auto rsp = dev.NextMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(GEOLOCATION_APBP_RES, (*rsp)[0]);
}

TEST(BpSim, ReplacesStaleLinkAndRemovesItsOwnOnClose) {
    TempRoot root;
    ASSERT_TRUE(root.MakeDirs("/dev"));
    ASSERT_EQ(0, symlink("/nonexistent/pts/99", root.Path("/dev/mux18").c_str()));
    bpsim::Options options;
    options.root = root.Dir();
    {
        bpsim::Simulator sim(options);
        ASSERT_TRUE(sim.Open());
        char target[256] = {};
        ASSERT_GT(readlink(root.Path("/dev/mux18").c_str(), target, sizeof(target) - 1), 0);
        EXPECT_EQ(sim.SlavePath(), target);
    }
    struct stat st;
    EXPECT_NE(0, lstat(root.Path("/dev/mux18").c_str(), &st));
}

TEST(BpSim, ProgramPrintsReadyAnswersAndLeavesCleanlyOnSigterm) {
    TempRoot root;
    ServerOptions options;
    options.binary = std::string(LAPI_BIN_DIR) + "/bpsim";
    ASSERT_TRUE(root.WriteFile("/fix.nmea", "$GPRMC,1\n$GPGGA,2\n"));
    options.rawArgs = std::vector<std::string>{
        "--root", root.Dir(), "--lat", "48.5", "--lon", "2.25", "--nmea", root.Path("/fix.nmea")};
    ServerProcess bp(root, options);
    ASSERT_TRUE(bp.Start());
    std::string ready = "bpsim: ready " + root.Dir() + "/dev/mux18";
    ASSERT_GE(bp.WaitForLine(
                  Stream::Stdout, [&](const std::string &l) { return l == ready; }, kWaitMs),
              0);
    {
        DeviceEnd dev(root.Path("/dev/mux18"));
        ASSERT_TRUE(dev.ok());
        ASSERT_TRUE(dev.Write(bpsim::MakeFrame(BpLocationReqMsg(2, 1))));
        auto rsp = dev.NextMsg(kWaitMs);
        ASSERT_TRUE(rsp.has_value());
        bpsim::Message m{*rsp};
        EXPECT_EQ(GEOLOCATION_APBP_RES, m.SubCmdId());
        EXPECT_EQ(static_cast<uint64_t>(48.5 * 8388608.0), m.U64(11));
        EXPECT_EQ("$GPRMC,1\r\n$GPGGA,2\r\n", std::string(m.bytes.begin() + 109, m.bytes.end()));
    }
    EXPECT_GE(bp.WaitForLineContaining(Stream::Stdout, "bpsim: recv 00 02 01", kWaitMs), 0);
    EXPECT_GE(bp.WaitForLineContaining(Stream::Stdout, "bpsim: sent 01 02 01", kWaitMs), 0);
    EXPECT_EQ(0, bp.Stop());
    struct stat st;
    EXPECT_NE(0, lstat(root.Path("/dev/mux18").c_str(), &st)) << "link removed";
}

TEST(BpSim, ProgramRefusesBadCommandLine) {
    TempRoot root;
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{}, std::vector<std::string>{"--lat", "x", "--root", "/tmp"},
          std::vector<std::string>{"--root"}, std::vector<std::string>{"--bogus"}}) {
        ServerOptions options;
        options.binary = std::string(LAPI_BIN_DIR) + "/bpsim";
        options.rawArgs = args;
        ServerProcess bp(root, options);
        ASSERT_TRUE(bp.Start());
        EXPECT_EQ(2, bp.WaitExit(kWaitMs));
    }
}

/* ======================================================================== */
/* The server against the simulator                                         */
/* ======================================================================== */

class BpLinkServer : public ::testing::Test {
  protected:
    /* The simulator, with its own thread, linked at ROOT/dev/mux18. */
    void StartSim() {
        bpsim::Options options;
        options.root = root_.Dir();
        sim_ = std::make_unique<bpsim::Simulator>(options);
        std::string error;
        ASSERT_TRUE(sim_->Open(&error)) << error;
        ASSERT_TRUE(sim_->StartThread());
    }
    void TearDown() override {
        if (srv_) {
            srv_->Stop();
        }
        srv_.reset();
        sim_.reset();
    }

    TempRoot root_;
    std::unique_ptr<bpsim::Simulator> sim_;
    std::unique_ptr<ServerProcess> srv_;
};

TEST_F(BpLinkServer, ConnectsAtStartWhenTerminalIsThere) {
    StartSim();
    srv_ = std::make_unique<ServerProcess>(root_);
    ASSERT_TRUE(srv_->StartAndWaitReady());
    EXPECT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    EXPECT_EQ(0u, srv_->CountErrors("Fail to connect mux channel!"));
}

TEST_F(BpLinkServer, FramesFromSimulatorReachDispatcher) {
    StartSim();
    srv_ = std::make_unique<ServerProcess>(root_);
    ASSERT_TRUE(srv_->StartAndWaitReady());
    ASSERT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    ASSERT_TRUE(sim_->Send(bpsim::MakeMsg(0x20, 1, 1, {0xAA})));
    EXPECT_TRUE(srv_->WaitForError("Received unknown BP Msg ID: 0x20, dataLen: 4!", kWaitMs));
    ASSERT_TRUE(sim_->Send(BpLocationReqMsg(2, 1)));
    EXPECT_TRUE(srv_->WaitForError("No procedure for BP Msg ID: 0x00, dataLen: 32!", kWaitMs));
}

TEST_F(BpLinkServer, RequestFrameReachesSimulatorAndItsAnswerReturns) {
    StartSim();
    bpsim::Fix fix;
    fix.latitude = 48.5;
    fix.longitude = 2.25;
    sim_->SetFix(fix);
    srv_ = std::make_unique<ServerProcess>(root_);
    ASSERT_TRUE(srv_->StartAndWaitReady());
    ASSERT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    lapitest::TestClient client(root_.Dir());
    ASSERT_TRUE(client.Handshake(kServiceStatus));

    GetLocationReq req{};
    req.mode = LAPI_MODE_SYNC;
    req.sessionId = 3;
    req.transactionId = 4;
    req.responseTime = 30000;
    req.horizontalAccuracy = 100;
    req.nmeaRequired = 1;
    lapitest::Bytes all = lapitest::ToBytes(req);
    ASSERT_TRUE(client.SendMsg(LAPI_GET_LOCATION_REQ,
                               lapitest::Bytes(all.begin() + LAPI_MSG_HEADER_LEN, all.end())));

    /* The server's frame arrives whole at the BP, in the BP's byte order. */
    auto bpReq = sim_->WaitForSubCmd(GEOLOCATION_APBP_REQ, kWaitMs);
    ASSERT_TRUE(bpReq.has_value());
    ASSERT_EQ(static_cast<size_t>(LAPI_BP_GET_LOCATION_REQ_LEN), bpReq->Size());
    EXPECT_EQ(30000u, bpReq->U32(3));
    EXPECT_EQ(100u, bpReq->U32(7));
    EXPECT_EQ(1, bpReq->bytes[31]);
    EXPECT_EQ(0u, sim_->LostSyncCount());

    /* The simulator's answer travels back to the client. */
    auto rsp = client.Sync().RecvMsg(kWaitMs);
    ASSERT_TRUE(rsp.has_value());
    EXPECT_EQ(LAPI_GET_LOCATION_RSP, rsp->msgId);
    auto lat = rsp->BodyField<double>(offsetof(GetLocationRsp, latitude) - LAPI_MSG_HEADER_LEN);
    auto lon = rsp->BodyField<double>(offsetof(GetLocationRsp, longitude) - LAPI_MSG_HEADER_LEN);
    ASSERT_TRUE(lat.has_value());
    ASSERT_TRUE(lon.has_value());
    EXPECT_DOUBLE_EQ((48.5 * 8388608.0 + 0.5) / 8388608.0, *lat);
    EXPECT_DOUBLE_EQ((2.25 * 8388608.0 + 0.5) / 8388608.0, *lon);
}

TEST_F(BpLinkServer, ServerResynchronisesAfterGarbageFromSimulator) {
    StartSim();
    srv_ = std::make_unique<ServerProcess>(root_);
    ASSERT_TRUE(srv_->StartAndWaitReady());
    ASSERT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    /* Garbage, then a false 0x50 declaring 16 bytes that hides a frame. */
    Bytes real = bpsim::MakeFrame(bpsim::MakeMsg(0x21, 1, 1));
    const Bytes head = {0x01, 0x02, 0x03, 0x50, 0x00, 0x10};
    const Bytes tail = {0x04, 0x05, 0x06, 0x07, 0x08};
    Bytes stream;
    for (const Bytes *part : std::initializer_list<const Bytes *>{&head, &real, &tail}) {
        stream.insert(stream.end(), part->begin(), part->end());
    }
    ASSERT_TRUE(sim_->SendRaw(stream));
    EXPECT_TRUE(srv_->WaitForError("BP Msg lost synchronizaion!", kWaitMs));
    EXPECT_TRUE(srv_->WaitForError("Received unknown BP Msg ID: 0x21, dataLen: 3!", kWaitMs));
}

TEST_F(BpLinkServer, ConnectsOnClientHandshakeWhenTerminalAppearsLater) {
    srv_ = std::make_unique<ServerProcess>(root_);
    ASSERT_TRUE(srv_->StartAndWaitReady());
    EXPECT_TRUE(srv_->WaitForErrorContaining("Fail to open ", kWaitMs));
    EXPECT_EQ(0u, srv_->CountTraces("Success to connect mux channel."));
    StartSim();
    const size_t trying = srv_->CountTraces("Trying to connect mux channel...");
    lapitest::TestClient client(root_.Dir());
    ASSERT_TRUE(client.Handshake(kServiceStatus));
    EXPECT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    /* And the channel works. */
    ASSERT_TRUE(sim_->Send(bpsim::MakeMsg(0x20, 1, 1)));
    EXPECT_TRUE(srv_->WaitForError("Received unknown BP Msg ID: 0x20, dataLen: 3!", kWaitMs));
    /* Every line up to that error has been read: exactly one more try. */
    EXPECT_EQ(trying + 1, srv_->CountTraces("Trying to connect mux channel..."));
}

TEST_F(BpLinkServer, NoReconnectionAfterChannelIsLost) {
    StartSim();
    srv_ = std::make_unique<ServerProcess>(root_);
    ASSERT_TRUE(srv_->StartAndWaitReady());
    ASSERT_TRUE(srv_->WaitForTrace("Success to connect mux channel.", kWaitMs));
    /* The BP goes away: the server's next read fails. */
    sim_.reset();
    EXPECT_TRUE(srv_->WaitForError("Fail to general read for pFdops!", kWaitMs));
    EXPECT_TRUE(srv_->WaitForError("Close LAPI_SRV_pMuxFdops, disconnection with BP!", kWaitMs));
    /* A new BP is there, but a client's handshake does not reopen it. */
    StartSim();
    const size_t tries = srv_->CountTraces("Enter LAPI_SRV_ConnectMuxChannel");
    const size_t trying = srv_->CountTraces("Trying to connect mux channel...");
    lapitest::TestClient client(root_.Dir());
    ASSERT_TRUE(client.Handshake(kServiceStatus));
    /* A request to the lost channel fails after the handshake has been
     * handled: once its error is read, so is everything before it. */
    ASSERT_TRUE(client.SendMsg(LAPI_GET_STATUS_REQ, {0x01, 0x00, 0x05, 0x06}));
    EXPECT_TRUE(srv_->WaitForError("LAPI_SRV_pMuxFdops == NULL!", kWaitMs));
    EXPECT_EQ(1u, tries);
    EXPECT_EQ(tries, srv_->CountTraces("Enter LAPI_SRV_ConnectMuxChannel"));
    EXPECT_EQ(trying, srv_->CountTraces("Trying to connect mux channel..."));
    EXPECT_EQ(1u, srv_->CountTraces("Success to connect mux channel."));
    EXPECT_TRUE(sim_->StaysQuiet(200));
}

}  // namespace
