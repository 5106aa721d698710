/*
 * Push intake end to end: pushes delivered to lapi_srv_host as UDP
 * datagrams on its --push-port and as SMS-port messages through the
 * telephony FIFO of its root, and the push indications the BP simulator
 * receives; the decoder's lines on the server's standard output; the
 * lapi_push tool and bpsim's push lines.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "PushPdu.h"
#include "ServerFixture.h"
#include "SimServerTest.h"
#include "TestClient.h"

namespace {

using bpsim::Bytes;
using lapitest::Stream;

constexpr int kWaitMs = 5000;

Bytes Body(uint8_t seq, size_t n = 24) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>(seq + i);
    }
    return b;
}

class PushIntake : public lapitest::SimServerTest<> {
  protected:
    /* The socket accepts connections before start-up has opened the
     * telephony FIFO: a push written in between would find no reader. */
    void SetUp() override {
        SimServerTest::SetUp();
        ASSERT_TRUE(srv_->WaitIdle(kWaitMs));
    }
    void SendUdp(const Bytes &pdu) {
        std::string error;
        ASSERT_TRUE(lapipush::SendUdp(srv_->PushPort(), pdu, &error)) << error;
    }
    void SendSms(const Bytes &pdu, uint16_t port = 2948, const std::string &from = "+15550100",
                 uint16_t msgId = 0x0307) {
        std::string error;
        Bytes rec = lapipush::TapiRecord(msgId, lapipush::SmsPortBody(pdu, port, from));
        ASSERT_TRUE(lapipush::SendTapi(root_.Dir(), rec, &error)) << error;
    }
    /* The content of the next push indication the BP receives. */
    std::optional<Bytes> NextPush(int timeoutMs = kWaitMs) {
        auto msg = sim_.WaitForSubCmd(WAP_PUSH_APBP_IND, timeoutMs);
        if (!msg) {
            return std::nullopt;
        }
        EXPECT_EQ(msg->SessionId(), 0);
        EXPECT_EQ(msg->TransactionId(), 0);
        return bpsim::PushContent(*msg);
    }
    bool NoPush(int windowMs = 300) {
        return !sim_.WaitForSubCmd(WAP_PUSH_APBP_IND, windowMs).has_value();
    }
};

}  // namespace

TEST_F(PushIntake, UdpPushIsForwardedWithTheExactContentBytes) {
    Bytes body = Body(1, 256);
    SendUdp(lapipush::SuplInitPush(body));
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, body);
    EXPECT_TRUE(srv_->WaitForTrace("Enter LAPI_SRV_ReadIPMsg"));
    EXPECT_TRUE(srv_->WaitForTrace("Start to parse WAP Push message 294"));
}

TEST_F(PushIntake, SmsPortPushIsForwardedWithTheExactContentBytes) {
    Bytes body = Body(7, 100);
    SendSms(lapipush::SuplInitPush(body));
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, body);
    EXPECT_TRUE(srv_->WaitForTrace("recv tapi msg len:252"));
    EXPECT_TRUE(srv_->WaitForTrace("source address of port SMS is +15550100"));
}

TEST_F(PushIntake, NonPushPduTypesAreDroppedWithTheDesignedTrace) {
    Bytes pdu = lapipush::SuplInitPush(Body(1));
    pdu[1] = 0x07;
    SendUdp(pdu);
    EXPECT_TRUE(srv_->WaitForTrace("it is not a wap push msg for supl init!"));
    EXPECT_TRUE(srv_->WaitForError("Fail to process message for pFdops!"));
    pdu[1] = 0x00;
    size_t from = srv_->LineCount(Stream::Stderr);
    SendSms(pdu);
    EXPECT_TRUE(srv_->WaitForTrace("it is not a wap push msg for supl init!", kWaitMs, from));
    EXPECT_TRUE(NoPush());
}

TEST_F(PushIntake, SmsForOtherPortsIsIgnored) {
    SendSms(lapipush::SuplInitPush(Body(1)), 2949);
    SendSms(lapipush::SuplInitPush(Body(2)), 0);
    ASSERT_TRUE(srv_->WaitForLine(
                    Stream::Stderr,
                    [](const std::string &l) {
                        return l.find("source address of port SMS is") != std::string::npos;
                    },
                    kWaitMs, 0) >= 0);
    EXPECT_TRUE(NoPush());
    EXPECT_EQ(srv_->CountTraces("Enter ParseWAPPushMsg"), 0u);
    /* A push for 2948 afterwards still goes through. */
    SendSms(lapipush::SuplInitPush(Body(3)));
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, Body(3));
}

class PushIntakeWithSender : public PushIntake {
  protected:
    void PrepareRoot() override {
        ASSERT_TRUE(root_.WriteFile("/zel_user/download/appwrite/setup/zel_agps.cfg",
                                    "WAPPushSendingNumber = 900210101\n"));
    }
};

TEST_F(PushIntakeWithSender, AnySenderIsAcceptedWhateverWAPPushSendingNumberSays) {
    const char *senders[] = {"+44900210101", "+15550100", ""};
    for (const char *from : senders) {
        size_t mark = srv_->LineCount(Stream::Stderr);
        Bytes body = Body(static_cast<uint8_t>(strlen(from)));
        SendSms(lapipush::SuplInitPush(body), 2948, from);
        auto content = NextPush();
        ASSERT_TRUE(content.has_value()) << from;
        EXPECT_EQ(*content, body);
        EXPECT_TRUE(srv_->WaitForTrace("WAPPushSendingNumber = 900210101", kWaitMs, mark));
        EXPECT_TRUE(srv_->WaitForTrace(std::string("source address of port SMS is ") + from,
                                       kWaitMs, mark));
    }
}

TEST_F(PushIntake, TelephonyBodyArrivingAfterItsHeaderIsForwarded) {
    Bytes body = Body(9, 40);
    Bytes rec = lapipush::TapiRecord(0x0307, lapipush::SmsPortBody(lapipush::SuplInitPush(body)));
    std::string error;
    int fd = lapipush::OpenTapiFifo(root_.Dir(), &error);
    ASSERT_GE(fd, 0) << error;
    ASSERT_TRUE(lapipush::WriteAll(fd, Bytes(rec.begin(), rec.begin() + 20), &error)) << error;
    EXPECT_TRUE(srv_->WaitForError("dataLen is not enough!"));
    EXPECT_TRUE(NoPush(100));
    ASSERT_TRUE(lapipush::WriteAll(fd, Bytes(rec.begin() + 20, rec.end()), &error)) << error;
    close(fd);
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, body);
}

TEST_F(PushIntake, OtherTelephonyMessageIdsAreTracedAndIgnored) {
    SendSms(lapipush::SuplInitPush(Body(1)), 2948, "+15550100", 0x0401);
    std::string error;
    ASSERT_TRUE(lapipush::SendTapi(root_.Dir(), lapipush::TapiHeader(0x0001, 0), &error));
    EXPECT_TRUE(srv_->WaitForTrace("recv other tapi msg id : 1025"));
    EXPECT_TRUE(srv_->WaitForTrace("recv other tapi msg id : 1"));
    EXPECT_TRUE(NoPush());
    SendSms(lapipush::SuplInitPush(Body(2)));
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, Body(2));
}

TEST_F(PushIntake, SeveralPushesArriveInOrder) {
    for (uint8_t i = 0; i < 5; ++i) {
        SendUdp(lapipush::SuplInitPush(Body(static_cast<uint8_t>(10 * i))));
    }
    for (uint8_t i = 0; i < 5; ++i) {
        auto content = NextPush();
        ASSERT_TRUE(content.has_value()) << int(i);
        EXPECT_EQ(*content, Body(static_cast<uint8_t>(10 * i)));
    }
    for (uint8_t i = 0; i < 5; ++i) {
        SendSms(lapipush::SuplInitPush(Body(static_cast<uint8_t>(100 + i))));
    }
    for (uint8_t i = 0; i < 5; ++i) {
        auto content = NextPush();
        ASSERT_TRUE(content.has_value()) << int(i);
        EXPECT_EQ(*content, Body(static_cast<uint8_t>(100 + i)));
    }
}

TEST_F(PushIntake, DecoderLinesAppearOnStandardOutputInOrder) {
    Bytes headers = {0x03, 0x02, 0x03, 0x12, 0xAF};
    Bytes id = {'x', '-', 'o', 'm', 'a', 0};
    headers.insert(headers.end(), id.begin(), id.end());
    Bytes pdu = {0x2A, 0x06, static_cast<uint8_t>(headers.size())};
    pdu.insert(pdu.end(), headers.begin(), headers.end());
    Bytes body = Body(5);
    pdu.insert(pdu.end(), body.begin(), body.end());
    SendUdp(pdu);
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, body);
    ASSERT_GE(srv_->WaitForLine(Stream::Stdout,
                                [](const std::string &l) { return l == "application id : 0"; }),
              0);
    const std::vector<std::string> expected = {
        "content type is LV",        "value length field's length is : 1",
        "value length is : 3",       "there is not any parameter!",
        "well known header id : AF", "val id : 78",
        "string value : x-oma",      "content type : ",
        "content type : 312",        "application id tag : 2F",
        "application id : x-oma",    "application id : 0",
    };
    EXPECT_EQ(srv_->StdoutLines(), expected);
}

TEST(PushIntakeStartUp, FailedBindOfThePushPortLeavesTheServerServingClients) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    bpsim::Options o;
    o.root = root.Dir();
    bpsim::Simulator sim(o);
    ASSERT_TRUE(sim.Open());
    ASSERT_TRUE(sim.StartThread());

    int port = lapitest::PickFreeUdpPort();
    ASSERT_NE(port, 0);
    int holder = lapitest::BindUdpPort(port);
    ASSERT_GE(holder, 0);

    lapitest::ServerOptions opts;
    opts.pushPort = port;
    lapitest::ServerProcess srv(root, opts);
    ASSERT_TRUE(srv.StartAndWaitReady());
    EXPECT_TRUE(srv.WaitForTrace("bind operation failed, nRet is -1,"));
    EXPECT_TRUE(srv.WaitForTrace("Failed to init IP server"));
    EXPECT_TRUE(srv.WaitForError("LAPI SRV IP server initialization failure!"));

    lapitest::TestClient client(root.Dir());
    EXPECT_TRUE(client.Handshake(4));
    /* The SMS port still works. */
    std::string error;
    Bytes body = Body(3);
    ASSERT_TRUE(lapipush::SendTapi(
        root.Dir(),
        lapipush::TapiRecord(0x0307, lapipush::SmsPortBody(lapipush::SuplInitPush(body))), &error))
        << error;
    auto msg = sim.WaitForSubCmd(WAP_PUSH_APBP_IND, kWaitMs);
    ASSERT_TRUE(msg.has_value());
    EXPECT_EQ(bpsim::PushContent(*msg), body);
    EXPECT_TRUE(srv.Running());
    EXPECT_EQ(srv.Stop(), 0);
    close(holder);
    sim.Close();
}

/* ------------------------------------------------------------------------ */
/* The tools                                                                 */
/* ------------------------------------------------------------------------ */

namespace {

/* Runs a program to its end; its exit code and standard output. */
int RunTool(const std::vector<std::string> &args, std::string *out) {
    int p[2];
    if (pipe(p) != 0) {
        return -1;
    }
    std::vector<char *> argv;
    for (const std::string &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
    }
    argv.push_back(nullptr);
    argv = lapitest::UnderEmulator(std::move(argv));
    pid_t pid = fork();
    if (pid == 0) {
        dup2(p[1], 1);
        close(p[0]);
        close(p[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(p[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof(buf))) > 0) {
        out->append(buf, static_cast<size_t>(n));
    }
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::string kPushBin = std::string(LAPI_BIN_DIR) + "/lapi_push";

}  // namespace

TEST_F(PushIntake, LapiPushToolDeliversByUdpAndThroughTheTelephonyFifo) {
    std::string out;
    ASSERT_EQ(RunTool({kPushBin, "--udp", std::to_string(srv_->PushPort()), "--supl-init", "--hex",
                       "0a 0b 0c"},
                      &out),
              0)
        << out;
    auto content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, (Bytes{0x0a, 0x0b, 0x0c}));

    out.clear();
    std::string pduHex = bpsim::ToHex(lapipush::SuplInitPush(Bytes{0x01, 0x02}));
    ASSERT_EQ(RunTool({kPushBin, "--root", root_.Dir(), "--hex", pduHex}, &out), 0) << out;
    content = NextPush();
    ASSERT_TRUE(content.has_value());
    EXPECT_EQ(*content, (Bytes{0x01, 0x02}));
    EXPECT_NE(out.find("as an SMS for port 2948"), std::string::npos);
}

TEST(LapiPushTool, HelpDryRunAndBadCommandLines) {
    std::string out;
    EXPECT_EQ(RunTool({kPushBin, "--help"}, &out), 0);
    EXPECT_NE(out.find("usage: lapi_push"), std::string::npos);
    out.clear();
    EXPECT_EQ(RunTool({kPushBin, "--udp", "2948", "--supl-init", "--hex", "aa", "--dry-run"}, &out),
              0);
    EXPECT_EQ(out, bpsim::ToHex(lapipush::SuplInitPush(Bytes{0xaa})) + "\n");
    out.clear();
    EXPECT_EQ(RunTool({kPushBin, "--root", "/nonexistent", "--hex", "0106", "--dry-run"}, &out), 0);
    EXPECT_EQ(out.substr(0, 24), "07 03 74 00 00 00 00 00 ");
    EXPECT_EQ(RunTool({kPushBin, "--hex", "0106"}, &out), 2);
    EXPECT_EQ(RunTool({kPushBin, "--udp", "0", "--hex", "0106"}, &out), 2);
    EXPECT_EQ(RunTool({kPushBin, "--udp", "5", "--hex", "zz"}, &out), 2);
    EXPECT_EQ(RunTool({kPushBin, "--root", "/nonexistent", "--hex", "0106"}, &out), 1);
}

TEST(BpsimProgram, ShowsEachPushIndicationEvenWhenQuiet) {
    lapitest::TempRoot root;
    ASSERT_TRUE(root.ok());
    int toSim[2];
    int fromSim[2];
    ASSERT_EQ(pipe(toSim), 0);
    ASSERT_EQ(pipe(fromSim), 0);
    std::string bin = std::string(LAPI_BIN_DIR) + "/bpsim";
    std::string rootDir = root.Dir();
    std::vector<char *> argv =
        lapitest::UnderEmulator({bin.data(), const_cast<char *>("--root"), rootDir.data(),
                                 const_cast<char *>("--quiet"), nullptr});
    pid_t simPid = fork();
    if (simPid == 0) {
        dup2(toSim[0], 0);
        dup2(fromSim[1], 1);
        for (int fd : {toSim[0], toSim[1], fromSim[0], fromSim[1]}) {
            close(fd);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(toSim[0]);
    close(fromSim[1]);
    std::string out;
    auto waitFor = [&](const std::string &text) {
        int64_t deadline = lapitest::NowMs() + kWaitMs;
        while (out.find(text) == std::string::npos && lapitest::NowMs() < deadline) {
            pollfd pfd{fromSim[0], POLLIN, 0};
            if (poll(&pfd, 1, 100) > 0) {
                char buf[1024];
                ssize_t n = read(fromSim[0], buf, sizeof(buf));
                if (n <= 0) {
                    break;
                }
                out.append(buf, static_cast<size_t>(n));
            }
        }
        return out.find(text) != std::string::npos;
    };
    ASSERT_TRUE(waitFor("bpsim: ready"));
    {
        lapitest::ServerProcess srv(root);
        ASSERT_TRUE(srv.StartAndWaitReady());
        std::string error;
        ASSERT_TRUE(
            lapipush::SendUdp(srv.PushPort(), lapipush::SuplInitPush(Bytes{0xde, 0xad}), &error));
        EXPECT_TRUE(waitFor("bpsim: push indication, 2 bytes: de ad\n"));
        EXPECT_EQ(srv.Stop(), 0);
    }
    /* Quiet: no other message is echoed. */
    EXPECT_EQ(out.find("bpsim: recv"), std::string::npos);
    close(toSim[1]);
    kill(simPid, SIGTERM);
    int status = 0;
    waitpid(simPid, &status, 0);
    close(fromSim[0]);
}
