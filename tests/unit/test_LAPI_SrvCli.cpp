/*
 * Client-message tracing and the hex helpers: the exact text of the traced
 * lines, the refusals, and the bounds on every length field a message
 * carries.
 */
#include <gtest/gtest.h>

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "LAPI_SrvCli.h"
#include "ServerFixture.h"
#include "TestClient.h"

namespace {

using lapitest::ToBytes;

/* What a call wrote to standard error and standard output. */
struct Output {
    std::string err;
    std::string out;
};

Output Capture(const std::function<void()> &fn) {
    fflush(stdout);
    fflush(stderr);
    lapitest::StderrCapture err;
    lapitest::StdoutCapture out;
    fn();
    Output o;
    o.out = out.Stop();
    o.err = err.Stop();
    return o;
}

/* Source lines move with every edit: compare "LAPI_SrvCli.cpp:N". */
std::string NormalizeLines(const std::string &text) {
    static const std::regex kLine("LAPI_SrvCli\\.cpp:[0-9]+");
    return std::regex_replace(text, kLine, "LAPI_SrvCli.cpp:N");
}

MsgHeader Header(uint32_t pid, uint16_t msgId, uint16_t msgLen) {
    MsgHeader h;
    h.pid = pid;
    h.msgId = msgId;
    h.msgLen = msgLen;
    return h;
}

std::string TraceOf(const std::vector<uint8_t> &msg, uint8_t side = 1) {
    return NormalizeLines(
        Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), side); }).err);
}

const char kHexError[] =
    "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_FormatHexStr: (pData == NULL) || (pBuf == NULL) "
    "|| (length <= 0)!\n";

class SrvCliTest : public ::testing::Test {
  protected:
    void SetUp() override { LAPI_InitApMsgLogProc(); }
    void TearDown() override { LAPI_InitApMsgLogProc(); }
};

/* ------------------------------------------------------------------------ */
/* Hex helpers                                                               */
/* ------------------------------------------------------------------------ */

TEST_F(SrvCliTest, FormatHexStrWritesPrefixDigitsAndSeparator) {
    const uint8_t data[] = {0x01, 0xab, 0x00, 0xff};
    char buf[64];
    int n = LAPI_FormatHexStr(data, 4, buf, 1);
    EXPECT_EQ(std::string("0x01ab00ff, "), std::string(buf));
    EXPECT_EQ(12, n);
}

TEST_F(SrvCliTest, FormatHexStrZeroLengthPrintsErrorAndContributesNothing) {
    const uint8_t data[] = {0x01};
    char buf[16] = "unchanged";
    int n = 0;
    Output o = Capture([&] { n = LAPI_FormatHexStr(data, 0, buf, 1); });
    EXPECT_EQ(0, n);
    EXPECT_STREQ("unchanged", buf);
    EXPECT_EQ(kHexError, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, FormatHexStrNegativeLengthPrintsError) {
    const uint8_t data[] = {0x01};
    char buf[16] = "unchanged";
    int n = 0;
    Output o = Capture([&] { n = LAPI_FormatHexStr(data, -3, buf, 1); });
    EXPECT_EQ(0, n);
    EXPECT_STREQ("unchanged", buf);
    EXPECT_EQ(kHexError, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, FormatHexStrNullDataPrintsErrorAndContributesNothing) {
    char buf[16] = "unchanged";
    int n = 0;
    Output o = Capture([&] { n = LAPI_FormatHexStr(nullptr, 4, buf, 1); });
    EXPECT_EQ(0, n);
    EXPECT_STREQ("unchanged", buf);
    EXPECT_EQ(kHexError, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, FormatHexStrNullBufferPrintsError) {
    const uint8_t data[] = {0x01};
    int n = 1;
    Output o = Capture([&] { n = LAPI_FormatHexStr(data, 1, nullptr, 1); });
    EXPECT_EQ(0, n);
    EXPECT_EQ(kHexError, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, ClientSideErrorsSayCli) {
    char buf[16];
    Output o = Capture([&] { LAPI_FormatHexStr(nullptr, 1, buf, 0); });
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error CLI LAPI_FormatHexStr: (pData == NULL) || (pBuf == "
        "NULL) || (length <= 0)!\n",
        NormalizeLines(o.err));
}

TEST_F(SrvCliTest, DebugHexPrintsTwoDigitsAndBlankPerByte) {
    const uint8_t data[] = {0x01, 0x02, 0xff};
    Output o = Capture([&] { LAPI_DebugHex(data, 3, 1); });
    EXPECT_EQ("{5} LAPI_SrvCli.cpp:N, LAPI_DebugHex()\tLAPI SRV : 01 02 ff \n",
              NormalizeLines(o.err));
}

TEST_F(SrvCliTest, DebugHexClientSideSaysCli) {
    const uint8_t data[] = {0x7f};
    Output o = Capture([&] { LAPI_DebugHex(data, 1, 0); });
    EXPECT_EQ("{5} LAPI_SrvCli.cpp:N, LAPI_DebugHex()\tLAPI CLI : 7f \n", NormalizeLines(o.err));
}

TEST_F(SrvCliTest, DebugHexSplitsLinesAt1365Bytes) {
    std::vector<uint8_t> data(1366, 0xaa);
    data[1365] = 0x5b;
    Output o = Capture([&] { LAPI_DebugHex(data.data(), 1366, 1); });
    std::string prefix = "{5} LAPI_SrvCli.cpp:N, LAPI_DebugHex()\tLAPI SRV : ";
    std::string first;
    for (int i = 0; i < 1365; i++) {
        first += "aa ";
    }
    EXPECT_EQ(4095u, first.size());
    EXPECT_EQ(prefix + first + "\n" + prefix + "5b \n", NormalizeLines(o.err));
}

TEST_F(SrvCliTest, DebugHexExactly1365BytesIsOneLine) {
    std::vector<uint8_t> data(1365, 0x10);
    Output o = Capture([&] { LAPI_DebugHex(data.data(), 1365, 1); });
    EXPECT_EQ(1u, std::count(o.err.begin(), o.err.end(), '\n'));
}

TEST_F(SrvCliTest, DebugHexZeroOrNegativeLengthPrintsNothing) {
    const uint8_t data[] = {0x01};
    Output o = Capture([&] {
        LAPI_DebugHex(data, 0, 1);
        LAPI_DebugHex(data, -1, 1);
        LAPI_DebugHex(nullptr, 4, 1);
    });
    EXPECT_EQ("", o.err);
}

TEST_F(SrvCliTest, LogApMsgHeaderText) {
    MsgHeader h = Header(1234, 106, 33);
    char buf[64];
    int n = LAPI_LogApMsgHeader(&h, buf, 1);
    EXPECT_STREQ("pid: 1234, msgId: 106, msgLen: 33, ", buf);
    EXPECT_EQ(static_cast<int>(strlen(buf)), n);
}

TEST_F(SrvCliTest, LogApMsgHeaderReadsAnUnalignedHeader) {
    uint8_t raw[1 + sizeof(MsgHeader)];
    MsgHeader h = Header(7, 2, 2);
    std::memcpy(raw + 1, &h, sizeof(h));
    char buf[64];
    LAPI_LogApMsgHeader(reinterpret_cast<const MsgHeader *>(raw + 1), buf, 1);
    EXPECT_STREQ("pid: 7, msgId: 2, msgLen: 2, ", buf);
}

TEST_F(SrvCliTest, LogApMsgHeaderNullArgumentsPrintError) {
    MsgHeader h = Header(1, 2, 3);
    char buf[64];
    int a = 1, b = 1;
    Output o = Capture([&] {
        a = LAPI_LogApMsgHeader(nullptr, buf, 1);
        b = LAPI_LogApMsgHeader(&h, nullptr, 1);
    });
    EXPECT_EQ(0, a);
    EXPECT_EQ(0, b);
    std::string line =
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsgHeader: (pMsgHeader == NULL) || "
        "(pBuf == NULL)!\n";
    EXPECT_EQ(line + line, NormalizeLines(o.err));
}

/* ------------------------------------------------------------------------ */
/* LAPI_LogApMsg: refusals                                                   */
/* ------------------------------------------------------------------------ */

TEST_F(SrvCliTest, LogApMsgNullOrEmptyBufferRefused) {
    uint8_t one = 0;
    Output o = Capture([&] {
        LAPI_LogApMsg(nullptr, 10, 1);
        LAPI_LogApMsg(&one, 0, 1);
    });
    std::string line =
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: (pBuf == NULL) || (length <= 0) !\n";
    EXPECT_EQ(line + line, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, MessageLongerThan1024NotDumpedErrorNames1024) {
    std::vector<uint8_t> msg(1025, 0);
    MsgHeader h = Header(0, LAPI_GET_LOCATION_RSP, 1017);
    std::memcpy(msg.data(), &h, sizeof(h));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: length: 1025 > sizeof(buf): 1024, "
        "msgId: 0!\n",
        TraceOf(msg));
}

TEST_F(SrvCliTest, MessageOf1024BytesIsStillDumped) {
    GetLocationRsp rsp;
    std::memset(&rsp, 0, sizeof(rsp));
    rsp.header = Header(0, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN);
    std::vector<uint8_t> msg = ToBytes(rsp);
    msg.resize(1024, 0xee);
    std::string text;
    Output o = Capture([&] { LAPI_LogApMsg(msg.data(), 1024, 1); });
    EXPECT_NE(std::string::npos, o.err.find("S->C getLocationRsp pid: 0, msgId: 0, msgLen: 1014"));
}

TEST_F(SrvCliTest, ServerMsgId14ReportedUnknown) {
    std::vector<uint8_t> msg = ToBytes(Header(55, 14, 0));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: Unknown msgId: 14, pid is: 55!\n",
        TraceOf(msg));
}

TEST_F(SrvCliTest, MsgId99ReportedUnknown) {
    std::vector<uint8_t> msg = ToBytes(Header(0, 99, 0));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: Unknown msgId: 99, pid is: 0!\n",
        TraceOf(msg));
}

TEST_F(SrvCliTest, ClientMsgId117ReportedUnknown) {
    std::vector<uint8_t> msg = ToBytes(Header(42, 117, 0));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: Unknown msgId: 117, pid is: 42!\n",
        TraceOf(msg));
}

TEST_F(SrvCliTest, MsgId65535ReportedUnknown) {
    std::vector<uint8_t> msg = ToBytes(Header(1, 65535, 0));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: Unknown msgId: 65535, pid is: 1!\n",
        TraceOf(msg));
}

TEST_F(SrvCliTest, EmptyTableEntryReportsNoLogProcedure) {
    LAPI_srvMsgLogProcTable[LAPI_TIME_OUT_RSP] = nullptr;
    LAPI_cliMsgLogProcTable[LAPI_GET_STATUS_REQ - LAPI_CLI_MSG_BASE] = nullptr;
    std::string a = TraceOf(ToBytes(Header(3, LAPI_TIME_OUT_RSP, 2)));
    std::string b = TraceOf(ToBytes(Header(4, LAPI_GET_STATUS_REQ, 4)));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: No log procedure for msgId: 2, pid "
        "is: 3!\n",
        a);
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogApMsg: No log procedure for msgId: 112, "
        "pid is: 4!\n",
        b);
}

TEST_F(SrvCliTest, InitFillsEveryEntryOfBothTables) {
    memset(LAPI_srvMsgLogProcTable, 0, sizeof(LAPI_srvMsgLogProcTable));
    memset(LAPI_cliMsgLogProcTable, 0, sizeof(LAPI_cliMsgLogProcTable));
    LAPI_InitApMsgLogProc();
    for (int i = 0; i < LAPI_SRV_MSG_COUNT; i++) {
        EXPECT_NE(nullptr, LAPI_srvMsgLogProcTable[i]) << "msgId " << i;
    }
    for (int i = 0; i < LAPI_CLI_MSG_COUNT; i++) {
        EXPECT_NE(nullptr, LAPI_cliMsgLogProcTable[i]) << "msgId " << 100 + i;
    }
    EXPECT_EQ(&LAPI_LogTimeOutRsp, LAPI_srvMsgLogProcTable[LAPI_TIME_OUT_RSP]);
    EXPECT_EQ(&LAPI_LogRemoveProximityReq,
              LAPI_cliMsgLogProcTable[LAPI_REMOVE_PROXIMITY_REQ - LAPI_CLI_MSG_BASE]);
}

/* ------------------------------------------------------------------------ */
/* Every procedure: its prefix, its own identifier, its own length           */
/* ------------------------------------------------------------------------ */

struct ProcRow {
    uint16_t msgId;
    uint16_t msgLen;
    const char *name;
    const char *prefix;
    LAPI_ApMsgLogProc proc;
};

const ProcRow kRows[] = {
    {100, 4, "registerReq", "C->S registerReq ", LAPI_LogRegisterReq},
    {101, 4, "registerRsp", "S->C registerRsp ", LAPI_LogRegisterRsp},
    {102, 4, "getAsyncFdReq", "C->S getAsyncFdReq ", LAPI_LogGetAsyncFdReq},
    {103, 0, "getAsyncFdRsp", "S->C getAsyncFdRsp ", LAPI_LogGetAsyncFdRsp},
    {104, 0, "unregisterReq", "C->S unregisterReq ", LAPI_LogUnregisterReq},
    {105, 0, "unregisterRsp", "S->C unregisterRsp ", LAPI_LogUnregisterRsp},
    {106, 33, "getLocationReq", "C->S getLocationReq ", LAPI_LogGetLocationReq},
    {107, 4, "abortLocationReq", "C->S abortLocationReq ", LAPI_LogAbortLocationReq},
    {108, 0, "abortAllLocationReq", "C->S abortAllLocationReq ", LAPI_LogAbortAllLocationReq},
    {109, 4, "lastKnownLocationReq", "C->S lastKnownLocationReq ", LAPI_LogLastKnownLocationReq},
    {110, 8, "getGpsDbDataReq", "C->S getGpsDbDataReq ", LAPI_LogGetGpsDbDataReq},
    {111, 226, "setGpsDbDataReq", "C->S setGpsDbDataReq ", LAPI_LogSetGpsDbDataReq},
    {112, 4, "getStatusReq", "C->S getStatusReq ", LAPI_LogGetStatusReq},
    {113, 6, "locationNotificationCfm", "C->S locationNotificationCfm ",
     LAPI_LogLocationNotificationCfm},
    {114, 37, "distanceAzimuthReq", "C->S distanceAzimuthReq ", LAPI_LogDistanceAzimuthReq},
    {115, 36, "addProximityReq", "C->S addProximityReq ", LAPI_LogAddProximityReq},
    {116, 8, "removeProximityReq", "C->S removeProximityReq ", LAPI_LogRemoveProximityReq},
    {0, 1014, "getLocationRsp", "S->C getLocationRsp ", LAPI_LogGetLocationRsp},
    {1, 6, "abortLocationRsp", "S->C abortLocationRsp ", LAPI_LogAbortLocationRsp},
    {2, 2, "timeOutRsp", "S->C timeOutRsp ", LAPI_LogTimeOutRsp},
    {3, 2, "invalidRequestRsp", "S->C invalidRequestRsp ", LAPI_LogInvalidRequestRsp},
    {4, 228, "getGpsDbDataRsp", "S->C getGpsDbDataRsp ", LAPI_LogGetGpsDbDataRsp},
    {5, 6, "setGpsDbDataRsp", "S->C setGpsDbDataRsp ", LAPI_LogSetGpsDbDataRsp},
    {6, 34, "getStatusRsp", "S->C getStatusRsp ", LAPI_LogGetStatusRsp},
    {7, 34, "statusChangeInd", "S->C statusChangeInd ", LAPI_LogStatusChangeInd},
    {8, 303, "locationNotificationInd", "S->C locationNotificationInd ",
     LAPI_LogLocationNotificationInd},
    {9, 6, "notificationStatusInd", "S->C notificationStatusInd ", LAPI_LogNotificationStatusInd},
    {10, 18, "distanceAzimuthRsp", "S->C distanceAzimuthRsp ", LAPI_LogDistanceAzimuthRsp},
    {11, 6, "addProximityRsp", "S->C addProximityRsp ", LAPI_LogAddProximityRsp},
    {12, 6, "removeProximityRsp", "S->C removeProximityRsp ", LAPI_LogRemoveProximityRsp},
    {13, 98, "proximityHitInd", "S->C proximityHitInd ", LAPI_LogProximityHitInd},
};

std::vector<uint8_t> ZeroMsg(uint16_t msgId, uint16_t msgLen, uint32_t pid = 0) {
    return lapitest::MakeMsg(msgId, std::vector<uint8_t>(msgLen, 0), pid);
}

TEST_F(SrvCliTest, ThirtyOneProceduresEachTraceTheirOwnPrefix) {
    EXPECT_EQ(31u, sizeof(kRows) / sizeof(kRows[0]));
    for (const ProcRow &row : kRows) {
        std::vector<uint8_t> msg = ZeroMsg(row.msgId, row.msgLen, 9);
        std::string text = TraceOf(msg);
        std::string expectedStart = std::string("\tLAPI SRV : ") + row.prefix +
                                    "pid: 9, msgId: " + std::to_string(row.msgId) +
                                    ", msgLen: " + std::to_string(row.msgLen) + ", ";
        EXPECT_NE(std::string::npos, text.find(expectedStart)) << row.name << ": " << text;
        EXPECT_EQ(std::string::npos, text.find("LAPI Error SRV LAPI_LogApMsg")) << row.name;
    }
}

TEST_F(SrvCliTest, EachProcedureNamesItsOwnMessageInWrongLength) {
    for (const ProcRow &row : kRows) {
        std::vector<uint8_t> msg = ZeroMsg(row.msgId, row.msgLen + 1, 77);
        std::string expected = std::string("Wrong ") + row.name +
                               " msg length: " + std::to_string(row.msgLen + 1) + ", pid is: 77!\n";
        std::string text = TraceOf(msg);
        EXPECT_NE(std::string::npos, text.find(expected)) << row.name << ": " << text;
        EXPECT_EQ(std::string::npos, text.find(row.prefix)) << row.name << " was dumped";
    }
}

TEST_F(SrvCliTest, EachProcedureRefusesAnotherMsgId) {
    for (const ProcRow &row : kRows) {
        uint16_t other = row.msgId == 2 ? 3 : 2;
        std::vector<uint8_t> msg = ZeroMsg(other, row.msgLen, 5);
        msg.resize(LAPI_LOG_MSG_MAX_LEN, 0);
        int ret = 0;
        Output o = Capture([&] { ret = row.proc(msg.data(), 1); });
        EXPECT_EQ(-1, ret) << row.name;
        EXPECT_NE(std::string::npos, o.err.find("LAPI Error SRV ")) << row.name;
        EXPECT_NE(std::string::npos, o.err.find("pMsgHeader->msgId : " + std::to_string(other) +
                                                " is not expected, pid : 5!"))
            << row.name;
    }
}

TEST_F(SrvCliTest, GetLocationReqMsgLen32Refused) {
    std::string text = TraceOf(ZeroMsg(LAPI_GET_LOCATION_REQ, 32, 300));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogGetLocationReq: Wrong getLocationReq msg "
        "length: 32, pid is: 300!\n",
        text);
}

TEST_F(SrvCliTest, GetLocationReqMsgLen34Refused) {
    std::string text = TraceOf(ZeroMsg(LAPI_GET_LOCATION_REQ, 34, 300));
    EXPECT_EQ(
        "{1} LAPI_SrvCli.cpp:N\tLAPI Error SRV LAPI_LogGetLocationReq: Wrong getLocationReq msg "
        "length: 34, pid is: 300!\n",
        text);
}

TEST_F(SrvCliTest, SetGpsDbDataReqTracedOnlyWithMsgLen226) {
    EXPECT_NE(std::string::npos,
              TraceOf(ZeroMsg(LAPI_SET_GPS_DB_DATA_REQ, 226)).find("C->S setGpsDbDataReq "));
    EXPECT_NE(std::string::npos, TraceOf(ZeroMsg(LAPI_SET_GPS_DB_DATA_REQ, 225))
                                     .find("Wrong setGpsDbDataReq msg length: 225"));
}

TEST_F(SrvCliTest, ProcedureReturnsCharactersOfTheText) {
    TimeOutRsp rsp;
    rsp.header = Header(0, LAPI_TIME_OUT_RSP, LAPI_TIME_OUT_RSP_LEN);
    rsp.sessionId = 5;
    rsp.transactionId = 7;
    std::vector<uint8_t> msg = ToBytes(rsp);
    int n = 0;
    Capture([&] { n = LAPI_LogTimeOutRsp(msg.data(), 1); });
    EXPECT_EQ(static_cast<int>(strlen("S->C timeOutRsp pid: 0, msgId: 2, msgLen: 2, sessionId: 5, "
                                      "transactionId: 7, 0x0507, ")),
              n);
}

/* ------------------------------------------------------------------------ */
/* Server messages, byte for byte                                            */
/* ------------------------------------------------------------------------ */

TEST_F(SrvCliTest, RegisterRspTraceByteForByte) {
    RegisterRsp rsp;
    rsp.header = Header(0, LAPI_REGISTER_RSP, LAPI_REGISTER_RSP_LEN);
    rsp.globalId = 0x12345678;
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogRegisterRsp()\tLAPI SRV : S->C registerRsp pid: 0, "
        "msgId: 101, msgLen: 4, globalId: 305419896, 0x78563412, \n",
        TraceOf(ToBytes(rsp)));
}

TEST_F(SrvCliTest, TimeOutRspTraceByteForByte) {
    TimeOutRsp rsp;
    rsp.header = Header(0, LAPI_TIME_OUT_RSP, LAPI_TIME_OUT_RSP_LEN);
    rsp.sessionId = 5;
    rsp.transactionId = 7;
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogTimeOutRsp()\tLAPI SRV : S->C timeOutRsp pid: 0, msgId: "
        "2, msgLen: 2, sessionId: 5, transactionId: 7, 0x0507, \n",
        TraceOf(ToBytes(rsp)));
}

TEST_F(SrvCliTest, GetStatusRspTraceByteForByte) {
    GetStatusRsp rsp;
    rsp.header = Header(0, LAPI_GET_STATUS_RSP, LAPI_GET_STATUS_RSP_LEN);
    rsp.sessionId = 1;
    rsp.transactionId = 2;
    rsp.userStatus = 1;
    rsp.hwStatus = -1;
    rsp.fixStatus = 3;
    rsp.emergencyStatus = 0;
    rsp.fixResultStatus.status = 4;
    rsp.fixResultStatus.cause = 258;
    rsp.signalStatus = 9; /* travels, not traced */
    rsp.iconStatus = 10;
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogGetStatusRsp()\tLAPI SRV : S->C getStatusRsp pid: 0, "
        "msgId: 6, msgLen: 34, sessionId: 1, transactionId: 2, 0x0102, userStatus: 1, "
        "0x01000000, hwStatus: -1, 0xffffffff, fixStatus: 3, 0x03000000, emergencyStatus: 0, "
        "0x00000000, fixResultStatus.status: 4, 0x04000000, fixResultStatus.cause: 258, "
        "0x02010000, \n",
        TraceOf(ToBytes(rsp)));
}

GetLocationRsp SampleLocationRsp() {
    GetLocationRsp rsp;
    std::memset(&rsp, 0, sizeof(rsp));
    rsp.header = Header(0, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN);
    rsp.sessionId = 3;
    rsp.transactionId = 4;
    rsp.longitude = 1.5;
    rsp.latitude = -2.25;
    rsp.latLonAccuracy = 0.1;
    rsp.timeStamp = 1234567890.0;
    rsp.altitude = 100.0;
    rsp.speed = 0.0;
    rsp.travelDirection = 90.0;
    rsp.pointingDirection = 0.5;
    rsp.horizontalAccuracy = 10.0;
    rsp.verticalAccuracy = 20.0;
    rsp.course = 359.0;
    rsp.locationMethod = 2;
    rsp.cause = -1;
    rsp.ageOfFix = 0x100000005ULL;        /* traced as its low 32 bits */
    const char nmea[] = "$GPGLL,A*3CXYZ"; /* only the first 11 bytes count */
    std::memcpy(rsp.nmeaData, nmea, sizeof(nmea));
    rsp.nmeaDataLength = 11;
    return rsp;
}

TEST_F(SrvCliTest, GetLocationRspTraceByteForByteWithNmea) {
    GetLocationRsp rsp = SampleLocationRsp();
    std::vector<uint8_t> msg = ToBytes(rsp);
    Output o = Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 1); });
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogGetLocationRsp()\tLAPI SRV : S->C getLocationRsp pid: 0, "
        "msgId: 0, msgLen: 1014, sessionId: 3, transactionId: 4, 0x0304, "
        "longitude: 1.500000000000000000000000000000e+00, 0x000000000000f83f, "
        "latitude: -2.250000000000000000000000000000e+00, 0x00000000000002c0, "
        "latLonAccuracy: 1.000000000000000055511151231258e-01, 0x9a9999999999b93f, "
        "timeStamp: 1.234567890000000000000000000000e+09, 0x000080b48065d241, "
        "altitude: 1.000000000000000000000000000000e+02, 0x0000000000005940, "
        "speed: 0.000000000000000000000000000000e+00, 0x0000000000000000, "
        "travelDirection: 9.000000000000000000000000000000e+01, 0x0000000000805640, "
        "pointingDirection: 5.000000000000000000000000000000e-01, 0x000000000000e03f, "
        "horizontalAccuracy: 1.000000000000000000000000000000e+01, 0x0000000000002440, "
        "verticalAccuracy: 2.000000000000000000000000000000e+01, 0x0000000000003440, "
        "course: 3.590000000000000000000000000000e+02, 0x0000000000707640, "
        "locationMethod: 2, 0x02000000, cause: -1, 0xffffffff, "
        "ageOfFix: 5, 0x0500000001000000, nmeaDataLength: 11, \n0x0b00, "
        "nmeaData: $GPGLL,A*3C, \nnmeaData: 0x244750474c4c2c412a3343, nmea end\n\n",
        NormalizeLines(o.err));
    EXPECT_EQ("\n LAPI_SrvCli.cpp, LAPI_LogGetLocationRsp, pMsg->nmeaDataLength:11\n", o.out);
}

TEST_F(SrvCliTest, GetLocationRspClientSideSaysCli) {
    GetLocationRsp rsp = SampleLocationRsp();
    std::vector<uint8_t> msg = ToBytes(rsp);
    Output o = Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 0); });
    EXPECT_EQ(0u, o.err.find("{5} LAPI_SrvCli.cpp:"));
    EXPECT_NE(std::string::npos,
              o.err.find(", LAPI_LogGetLocationRsp()\tLAPI CLI : S->C getLocationRsp pid: 0, "));
    EXPECT_EQ("\n LAPI_SrvCli.cpp, LAPI_LogGetLocationRsp, pMsg->nmeaDataLength:11\n", o.out);
}

TEST_F(SrvCliTest, GetLocationRspZeroNmeaLengthContributesNoHex) {
    GetLocationRsp rsp = SampleLocationRsp();
    rsp.nmeaDataLength = 0;
    std::vector<uint8_t> msg = ToBytes(rsp);
    Output o = Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 1); });
    std::string err = NormalizeLines(o.err);
    EXPECT_EQ(0u, err.find(kHexError)) << err;
    EXPECT_NE(std::string::npos,
              err.find("nmeaDataLength: 0, \n0x0000, nmeaData: , \nnmeaData: nmea end\n\n"));
    EXPECT_EQ("\n LAPI_SrvCli.cpp, LAPI_LogGetLocationRsp, pMsg->nmeaDataLength:0\n", o.out);
}

TEST_F(SrvCliTest, GetLocationRspNmeaLengthAbove906IsCutTo906) {
    GetLocationRsp rsp = SampleLocationRsp();
    std::memset(rsp.nmeaData, 'N', sizeof(rsp.nmeaData));
    rsp.nmeaDataLength = 65535;
    std::vector<uint8_t> msg = ToBytes(rsp);
    Output o = Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 1); });
    std::string text(906, 'N');
    std::string hex;
    for (int i = 0; i < 906; i++) {
        hex += "4e";
    }
    EXPECT_NE(std::string::npos, o.err.find("nmeaDataLength: 65535, \n0xffff, nmeaData: " + text +
                                            ", \nnmeaData: 0x" + hex + ", nmea end\n\n"));
    EXPECT_EQ("\n LAPI_SrvCli.cpp, LAPI_LogGetLocationRsp, pMsg->nmeaDataLength:65535\n", o.out);
}

TEST_F(SrvCliTest, GetLocationRspTextStopsAtNulInNmea) {
    GetLocationRsp rsp = SampleLocationRsp();
    rsp.nmeaData[3] = '\0';
    std::vector<uint8_t> msg = ToBytes(rsp);
    Output o = Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 1); });
    EXPECT_NE(std::string::npos,
              o.err.find("nmeaData: $GP, \nnmeaData: 0x244750004c4c2c412a3343, nmea end\n"));
}

/* ------------------------------------------------------------------------ */
/* Other procedures and the bounds of their length fields                    */
/* ------------------------------------------------------------------------ */

TEST_F(SrvCliTest, RegisterReqTraceText) {
    RegisterReq req;
    req.header = Header(4321, LAPI_REGISTER_REQ, LAPI_REGISTER_REQ_LEN);
    req.service = 6;
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogRegisterReq()\tLAPI SRV : C->S registerReq pid: 4321, "
        "msgId: 100, msgLen: 4, service: 6, 0x06000000, \n",
        TraceOf(ToBytes(req)));
}

TEST_F(SrvCliTest, GetLocationReqTraceText) {
    GetLocationReq req;
    std::memset(&req, 0, sizeof(req));
    req.header = Header(10, LAPI_GET_LOCATION_REQ, LAPI_GET_LOCATION_REQ_LEN);
    req.mode = 1;
    req.sessionId = 2;
    req.transactionId = 3;
    req.responseTime = 30000;
    req.horizontalAccuracy = 50;
    req.verticalAccuracy = 60;
    req.preferredPowerConsumption = 1;
    req.interval = 5;
    req.reportCriteria = 1;
    req.costAllowed = 1;
    req.addressInfoRequired = 0;
    req.speedAndCourseRequired = 1;
    req.altitudeRequired = 255;
    req.nmeaRequired = 1; /* travels, not traced */
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogGetLocationReq()\tLAPI SRV : C->S getLocationReq pid: "
        "10, msgId: 106, msgLen: 33, mode: 1, sessionId: 2, transactionId: 3, 0x01000203, "
        "responseTime: 30000, 0x30750000, horizontalAccuracy: 50, 0x32000000, "
        "verticalAccuracy: 60, 0x3c000000, preferredPowerConsumption: 1, 0x01000000, "
        "interval: 5, 0x05000000, reportCriteria: 1, 0x01000000, costAllowed: 1, 0x01, "
        "addressInfoRequired: 0, 0x00, speedAndCourseRequired: 1, 0x01, altitudeRequired: 255, "
        "0xff, \n",
        TraceOf(ToBytes(req)));
}

TEST_F(SrvCliTest, SetGpsDbDataReqNumFilesCutTo22AndDataTo4) {
    SetGpsDbDataReq req;
    std::memset(&req, 0, sizeof(req));
    req.header = Header(1, LAPI_SET_GPS_DB_DATA_REQ, LAPI_SET_GPS_DB_DATA_REQ_LEN);
    req.numFiles = 300;
    for (int i = 0; i < LAPI_MAX_DB_FILES; i++) {
        req.dbFile[i].fileId = static_cast<uint32_t>(i);
        req.dbFile[i].length = 9;
        std::memset(req.dbFile[i].data, 0x11, sizeof(req.dbFile[i].data));
    }
    std::string text = TraceOf(ToBytes(req));
    EXPECT_NE(std::string::npos, text.find("numFiles: 300, 0x2c01, dbFile[0]: fileId: 0, "));
    EXPECT_NE(std::string::npos,
              text.find("dbFile[21]: fileId: 21, 0x15000000, length: 9, 0x0900, data: "
                        "0x11111111, \n"));
    EXPECT_EQ(std::string::npos, text.find("dbFile[22]"));
}

TEST_F(SrvCliTest, GetGpsDbDataRspEntriesThenResult) {
    GetGpsDbDataRsp rsp;
    std::memset(&rsp, 0, sizeof(rsp));
    rsp.header = Header(0, LAPI_GET_GPS_DB_DATA_RSP, LAPI_GET_GPS_DB_DATA_RSP_LEN);
    rsp.sessionId = 1;
    rsp.transactionId = 1;
    rsp.numFiles = 1;
    rsp.dbFile[0].fileId = 7;
    rsp.dbFile[0].length = 2;
    rsp.dbFile[0].data[0] = 0xab;
    rsp.dbFile[0].data[1] = 0xcd;
    rsp.result = 0;
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogGetGpsDbDataRsp()\tLAPI SRV : S->C getGpsDbDataRsp pid: "
        "0, msgId: 4, msgLen: 228, sessionId: 1, transactionId: 1, 0x0101, numFiles: 1, 0x0100, "
        "dbFile[0]: fileId: 7, 0x07000000, length: 2, 0x0200, data: 0xabcd, result: 0, "
        "0x00000000, \n",
        TraceOf(ToBytes(rsp)));
}

TEST_F(SrvCliTest, LocationNotificationIndLengthsCutToArrays) {
    LocationNotificationInd ind;
    std::memset(&ind, 0x41, sizeof(ind));
    ind.header = Header(0, LAPI_LOCATION_NOTIFICATION_IND, LAPI_LOCATION_NOTIFICATION_IND_LEN);
    ind.nameLength = 255;
    ind.addrLength = 200;
    std::string text = TraceOf(ToBytes(ind));
    std::string name = "0x";
    for (int i = 0; i < LAPI_CLIENT_NAME_LEN; i++) {
        name += "41";
    }
    EXPECT_NE(std::string::npos, text.find("nameLength: 255, clientName: " + name + ", "));
    EXPECT_NE(std::string::npos,
              text.find("addrLength: 200, clientExternalAddr: " + name + ", \n"));
}

TEST_F(SrvCliTest, LocationNotificationIndEmptyNameContributesNothing) {
    LocationNotificationInd ind;
    std::memset(&ind, 0, sizeof(ind));
    ind.header = Header(0, LAPI_LOCATION_NOTIFICATION_IND, LAPI_LOCATION_NOTIFICATION_IND_LEN);
    ind.sessionId = 9;
    ind.transactionId = 8;
    ind.notificationType = 1;
    ind.locationType = 2;
    ind.dataCodingSchema = 3;
    ind.nameLength = 0;
    ind.addrLength = 2;
    ind.clientExternalAddr[0] = 0x31;
    ind.clientExternalAddr[1] = 0x32;
    std::string text = TraceOf(ToBytes(ind));
    EXPECT_EQ(std::string(kHexError) +
                  "{5} LAPI_SrvCli.cpp:N, LAPI_LogLocationNotificationInd()\tLAPI SRV : S->C "
                  "locationNotificationInd pid: 0, msgId: 8, msgLen: 303, sessionId: 9, "
                  "transactionId: 8, 0x0908, notificationType: 1, 0x01000000, locationType: 2, "
                  "0x02000000, dataCodingSchema: 3, 0x03, nameLength: 0, clientName: "
                  "addrLength: 2, clientExternalAddr: 0x3132, \n",
              text);
}

TEST_F(SrvCliTest, ProximityHitIndAgeOfFixIsFourBytes) {
    ProximityHitInd ind;
    std::memset(&ind, 0, sizeof(ind));
    ind.header = Header(0, LAPI_PROXIMITY_HIT_IND, LAPI_PROXIMITY_HIT_IND_LEN);
    ind.locationMethod = -2;
    ind.ageOfFix = 4000000000u;
    std::string text = TraceOf(ToBytes(ind));
    EXPECT_NE(std::string::npos,
              text.find("course: 0.000000000000000000000000000000e+00, 0x0000000000000000, "
                        "locationMethod: -2, 0xfeffffff, ageOfFix: 4000000000, 0x00286bee, \n"));
}

TEST_F(SrvCliTest, LocationNotificationCfmPrintsPairWithoutMode) {
    LocationNotificationCfm cfm;
    cfm.header = Header(88, LAPI_LOCATION_NOTIFICATION_CFM, LAPI_LOCATION_NOTIFICATION_CFM_LEN);
    cfm.sessionId = 200;
    cfm.transactionId = 201;
    cfm.responseType = 1;
    EXPECT_EQ(
        "{5} LAPI_SrvCli.cpp:N, LAPI_LogLocationNotificationCfm()\tLAPI SRV : C->S "
        "locationNotificationCfm pid: 88, msgId: 113, msgLen: 6, sessionId: 200, transactionId: "
        "201, 0xc8c9, responseType: 1, 0x01000000, \n",
        TraceOf(ToBytes(cfm)));
}

TEST_F(SrvCliTest, ShortBufferReadsZerosNeverPastTheCopy) {
    /* Header says getStatusRsp of 34 bytes, only the header arrives. */
    std::vector<uint8_t> exact = ZeroMsg(LAPI_GET_STATUS_RSP, 0);
    MsgHeader h = Header(0, LAPI_GET_STATUS_RSP, LAPI_GET_STATUS_RSP_LEN);
    std::memcpy(exact.data(), &h, sizeof(h));
    std::string text = TraceOf(exact);
    EXPECT_NE(std::string::npos, text.find("S->C getStatusRsp pid: 0, msgId: 6, msgLen: 34, "
                                           "sessionId: 0, transactionId: 0, 0x0000, "));
}

TEST_F(SrvCliTest, OneByteMessageDoesNotOverread) {
    std::vector<uint8_t> one = {0x00};
    std::string text = TraceOf(one);
    /* Reads as msgId 0 with length 0: refused by the getLocationRsp tracer. */
    EXPECT_NE(std::string::npos, text.find("Wrong getLocationRsp msg length: 0, pid is: 0!"));
}

TEST_F(SrvCliTest, MessageAtOddAddressIsTraced) {
    TimeOutRsp rsp;
    rsp.header = Header(0, LAPI_TIME_OUT_RSP, LAPI_TIME_OUT_RSP_LEN);
    rsp.sessionId = 1;
    rsp.transactionId = 2;
    std::vector<uint8_t> buf(1 + sizeof(rsp));
    std::memcpy(buf.data() + 1, &rsp, sizeof(rsp));
    Output o = Capture([&] { LAPI_LogApMsg(buf.data() + 1, sizeof(rsp), 1); });
    EXPECT_NE(std::string::npos, o.err.find("sessionId: 1, transactionId: 2, 0x0102, \n"));
}

TEST_F(SrvCliTest, DoublesAreNotRoundedAwayAndNanIsPrinted) {
    DistanceAzimuthRsp rsp;
    rsp.header = Header(0, LAPI_DISTANCE_AZIMUTH_RSP, LAPI_DISTANCE_AZIMUTH_RSP_LEN);
    rsp.sessionId = 0;
    rsp.transactionId = 0;
    rsp.distance = -1.0e308;
    rsp.azimuth = __builtin_nan("");
    std::string text = TraceOf(ToBytes(rsp));
    EXPECT_NE(std::string::npos, text.find("distance: -1.000000000000000010979063629440e+308, "));
    EXPECT_NE(std::string::npos, text.find("azimuth: nan, 0x000000000000f87f, \n"));
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* One message to many recipients, one frame dumped twice                    */
/* ------------------------------------------------------------------------ */

namespace {

/* The output of tracing each message in turn while a broadcast runs. */
Output TraceRepeated(const std::vector<std::vector<uint8_t>> &msgs) {
    return Capture([&] {
        LAPI_LogApMsgRepeat(1);
        for (const std::vector<uint8_t> &m : msgs) {
            LAPI_LogApMsg(m.data(), static_cast<int>(m.size()), 1);
        }
        LAPI_LogApMsgRepeat(0);
    });
}

std::vector<uint8_t> StatusChange(int32_t userStatus) {
    StatusChangeInd ind;
    std::memset(&ind, 0, sizeof(ind));
    ind.header = Header(0, LAPI_STATUS_CHANGE_IND, LAPI_STATUS_CHANGE_IND_LEN);
    ind.sessionId = 1;
    ind.userStatus = userStatus;
    return ToBytes(ind);
}

}  // namespace

TEST_F(SrvCliTest, BroadcastTraceIsTheSameLineForEveryRecipient) {
    std::vector<uint8_t> msg = StatusChange(7);
    std::string once = TraceOf(msg);
    Output o = TraceRepeated({msg, msg, msg});
    EXPECT_EQ(once + once + once, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, BroadcastOfAnotherMessageIsTracedAnew) {
    std::vector<uint8_t> a = StatusChange(1);
    std::vector<uint8_t> b = StatusChange(2);
    Output o = TraceRepeated({a, a, b, b, a});
    EXPECT_EQ(TraceOf(a) + TraceOf(a) + TraceOf(b) + TraceOf(b) + TraceOf(a),
              NormalizeLines(o.err));
}

TEST_F(SrvCliTest, BroadcastKeepsTheErrorLineOfAnEmptyFieldForEveryRecipient) {
    LocationNotificationInd ind;
    std::memset(&ind, 0, sizeof(ind));
    ind.header = Header(0, LAPI_LOCATION_NOTIFICATION_IND, LAPI_LOCATION_NOTIFICATION_IND_LEN);
    ind.nameLength = 0;
    ind.addrLength = 1;
    std::vector<uint8_t> msg = ToBytes(ind);
    std::string once = TraceOf(msg);
    ASSERT_NE(std::string::npos, once.find(kHexError));
    Output o = TraceRepeated({msg, msg});
    EXPECT_EQ(once + once, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, RepeatedGetLocationRspPrintsItsStandardOutputLineEachTime) {
    GetLocationRsp rsp;
    std::memset(&rsp, 0, sizeof(rsp));
    rsp.header = Header(0, LAPI_GET_LOCATION_RSP, LAPI_GET_LOCATION_RSP_LEN);
    rsp.nmeaDataLength = 2;
    rsp.nmeaData[0] = 'G';
    rsp.nmeaData[1] = 'P';
    std::vector<uint8_t> msg = ToBytes(rsp);
    Output once = Capture([&] { LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 1); });
    Output o = TraceRepeated({msg, msg});
    EXPECT_EQ(once.out + once.out, o.out);
    EXPECT_EQ(NormalizeLines(once.err + once.err), NormalizeLines(o.err));
}

TEST_F(SrvCliTest, ClientSideRepeatIsTracedAsTheClientSide) {
    std::vector<uint8_t> msg = StatusChange(3);
    Output o = Capture([&] {
        LAPI_LogApMsgRepeat(1);
        LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 1);
        LAPI_LogApMsg(msg.data(), static_cast<int>(msg.size()), 0);
        LAPI_LogApMsgRepeat(0);
    });
    EXPECT_EQ(TraceOf(msg, 1) + TraceOf(msg, 0), NormalizeLines(o.err));
}

TEST_F(SrvCliTest, DebugHexOfTheSameBytesTwiceGivesTheSameLine) {
    const uint8_t frame[] = {0x50, 0x00, 0x08, 0x02, 0x02, 0x02, 0xcf, 0xb0};
    Output o = Capture([&] {
        LAPI_DebugHex(frame, 8, 1);
        LAPI_DebugHex(frame, 8, 1);
    });
    std::string line =
        "{5} LAPI_SrvCli.cpp:N, LAPI_DebugHex()\tLAPI SRV : 50 00 08 02 02 02 cf b0 \n";
    EXPECT_EQ(line + line, NormalizeLines(o.err));
}

TEST_F(SrvCliTest, DebugHexOfChangedBytesOfTheSameLengthIsDumpedAnew) {
    uint8_t frame[] = {0x01, 0x02, 0x03};
    Output o = Capture([&] {
        LAPI_DebugHex(frame, 3, 1);
        frame[2] = 0x04;
        LAPI_DebugHex(frame, 3, 1);
        LAPI_DebugHex(frame, 2, 1);
    });
    std::string prefix = "{5} LAPI_SrvCli.cpp:N, LAPI_DebugHex()\tLAPI SRV : ";
    EXPECT_EQ(prefix + "01 02 03 \n" + prefix + "01 02 04 \n" + prefix + "01 02 \n",
              NormalizeLines(o.err));
}
