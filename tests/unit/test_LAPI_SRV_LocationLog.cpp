/* Configuration file reader, location fix log and the feature-flag stand-in. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HOST_Root.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_SRV_Paths.h"
#include "ServerFixture.h"
#include "ToolCommon.h"
#include "zelflex.h"

namespace {

constexpr char kMarker[] = "<--offset, where updated last time\n";

std::string ReadFile(const std::string &path) {
    std::string out;
    FILE *fp = fopen(path.c_str(), "rb");
    if (fp == nullptr) {
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) {
        out.append(buf, n);
    }
    fclose(fp);
    return out;
}

void WriteFile(const std::string &path, const std::string &content) {
    FILE *fp = fopen(path.c_str(), "wb");
    ASSERT_NE(fp, nullptr) << path;
    ASSERT_EQ(fwrite(content.data(), 1, content.size(), fp), content.size());
    fclose(fp);
}

bool Exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

/* The number at the start of the log header. */
unsigned long HeaderNumber(const std::string &file) {
    return strtoul(file.c_str(), nullptr, 10);
}

/* A header as the log writes it: the number over the start of 40 blanks. */
std::string Header(unsigned number) {
    std::string h(40, ' ');
    std::string digits = std::to_string(number);
    h.replace(0, digits.size(), digits);
    return h + kMarker;
}

using lapitest::StderrCapture;
using lapitest::TempRoot;

/* Error and trace lines of this source, without the varying line number. */
constexpr auto &ErrLine = toolcommon::ErrorLineText;
constexpr auto &TraceLine = toolcommon::TraceLineText;

bool Contains(const std::string &haystack, const std::string &needle) {
    return haystack.find(needle) != std::string::npos;
}

/* Every ctime text (with the comma for its line feed) from t0 to t1. */
std::vector<std::string> CtimeTexts(time_t t0, time_t t1) {
    std::vector<std::string> out;
    for (time_t t = t0; t <= t1; ++t) {
        char buf[64];
        ctime_r(&t, buf);
        std::string s(buf);
        s.back() = ',';
        out.push_back(s);
    }
    return out;
}

class LocationLog : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.ok());
        cfgPath_ = dir_.Dir() + "/zel_agps.cfg";
        logPath_ = dir_.Dir() + "/location_fix.log";
        savedCfg_ = LAPI_SRV_cfgFile;
        savedLog_ = LAPI_SRV_fixLogFile;
        LAPI_SRV_cfgFile = cfgPath_.c_str();
        LAPI_SRV_fixLogFile = logPath_.c_str();
        ASSERT_EQ(HOST_SetRoot(dir_.Dir().c_str()), 0);
        ResetLog();
    }
    void TearDown() override {
        ResetLog();
        LAPI_SRV_cfgFile = savedCfg_;
        LAPI_SRV_fixLogFile = savedLog_;
        HOST_SetRoot("");
    }

    static void ResetLog() {
        LAPI_SRV_LOG_Close();
        gLogAvailable = 0;
        gMaxLogSize = 0;
        gLogoffset = 0;
    }

    void FlagOn() {
        std::filesystem::create_directories(dir_.Dir() + "/etc/flex");
        WriteFile(dir_.Dir() + "/etc/flex/367", "");
    }

    /* Flag on, LogFileSize as given, LAPI_SRV_LOG_Init run; returns stderr. */
    std::string InitWithSize(const std::string &size) {
        FlagOn();
        WriteFile(cfgPath_, "LogFileSize = " + size + "\n");
        StderrCapture cap;
        LAPI_SRV_LOG_Init();
        return cap.Stop();
    }

    /* LogFileSize = size is out of range: the log stays off, with the
     * error line. */
    void ExpectSizeRefused(const std::string &size) {
        std::string err = InitWithSize(size);
        EXPECT_EQ(gLogAvailable, 0) << "LogFileSize = " << size;
        EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Init", "log file size is unreasonable\n")))
            << err;
    }

    /* The log on with the given maximum size, nothing opened yet. */
    void LogOn(uint32_t maxSize) {
        gLogAvailable = 1;
        gMaxLogSize = maxSize;
    }

    /* get_entry_value over a configuration file with the given content. */
    std::string Lookup(const std::string &content, const char *key, bool *found) {
        WriteFile(cfgPath_, content);
        char *p = get_entry_value(cfgPath_.c_str(), key);
        *found = (p != nullptr);
        std::string v = p ? std::string(p) : std::string();
        free(p);
        return v;
    }

    TempRoot dir_;
    std::string cfgPath_, logPath_;
    const char *savedCfg_ = nullptr;
    const char *savedLog_ = nullptr;
};

/* ------------------------------------------------------------------------ */
/* Configuration file reader                                                 */
/* ------------------------------------------------------------------------ */

TEST_F(LocationLog, LogFileSizeWithLineFeedYields64) {
    bool found;
    EXPECT_EQ(Lookup("LogFileSize=64\n", "LogFileSize", &found), "64");
    EXPECT_TRUE(found);
}

TEST_F(LocationLog, BlanksAroundEqualsAndCrLfYield64) {
    bool found;
    EXPECT_EQ(Lookup("  LogFileSize \t=  64 \t\r\n", "LogFileSize", &found), "64");
    EXPECT_TRUE(found);
}

TEST_F(LocationLog, LastLineWithoutLineEndYieldsNothing) {
    bool found;
    StderrCapture cap;
    Lookup("LogFileSize = 64", "LogFileSize", &found);
    std::string err = cap.Stop();
    EXPECT_FALSE(found);
    EXPECT_TRUE(Contains(err, TraceLine("find_entry", "fail! pr == NULL && pn == NULL\n\n")));
}

TEST_F(LocationLog, OneCharacterValueYieldsNothing) {
    bool found;
    Lookup("LogFileSize = 8\n", "LogFileSize", &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(Lookup("LogFileSize = 08\n", "LogFileSize", &found), "08");
    EXPECT_TRUE(found);
}

TEST_F(LocationLog, EmptyAndBlankValuesYieldNothing) {
    bool found;
    Lookup("LogFileSize =\n", "LogFileSize", &found);
    EXPECT_FALSE(found);
    Lookup("LogFileSize =  \t \r\n", "LogFileSize", &found);
    EXPECT_FALSE(found);
}

TEST_F(LocationLog, FirstOfTwoMatchingLinesWins) {
    bool found;
    EXPECT_EQ(Lookup("LogFileSize = 16\nLogFileSize = 64\n", "LogFileSize", &found), "16");
}

TEST_F(LocationLog, CommentLineShadowsRealKey) {
    bool found;
    EXPECT_EQ(Lookup("# LogFileSize = 32\nLogFileSize = 64\n", "LogFileSize", &found), "32");
}

TEST_F(LocationLog, LongerKeyShadowsRealKey) {
    bool found;
    EXPECT_EQ(Lookup("MaxLogFileSize = 30\nLogFileSize = 64\n", "LogFileSize", &found), "30");
}

TEST_F(LocationLog, LineWithoutValueDoesNotShadow) {
    bool found;
    /* A one-character value yields nothing, so the search goes on. */
    EXPECT_EQ(Lookup("MaxLogFileSize = 3\nLogFileSize = 64\n", "LogFileSize", &found), "64");
}

TEST_F(LocationLog, OtherKeysAreFound) {
    bool found;
    std::string cfg =
        "LogFileSize = 64\nAGPSProfileName = myprofile\nWAPPushSendingNumber = 12345\n";
    EXPECT_EQ(Lookup(cfg, "AGPSProfileName", &found), "myprofile");
    EXPECT_EQ(Lookup(cfg, "WAPPushSendingNumber", &found), "12345");
    Lookup(cfg, "NoSuchKey", &found);
    EXPECT_FALSE(found);
}

TEST_F(LocationLog, MissingFileGivesNullForEveryKey) {
    StderrCapture cap;
    for (const char *key : {"LogFileSize", "AGPSProfileName", "WAPPushSendingNumber"}) {
        EXPECT_EQ(get_entry_value(cfgPath_.c_str(), key), nullptr) << key;
    }
    std::string err = cap.Stop();
    EXPECT_TRUE(Contains(err, TraceLine("get_entry_value", "entry get_entry_value functon\n\n")));
    EXPECT_TRUE(
        Contains(err, TraceLine("get_entry_value", "open config file " + cfgPath_ + " fail!\n\n")));
}

TEST_F(LocationLog, MissingFileSwitchesLogOff) {
    FlagOn();
    StderrCapture cap;
    LAPI_SRV_LOG_Init();
    std::string err = cap.Stop();
    EXPECT_EQ(gLogAvailable, 0);
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Init", "can not get agps log file size\n")));
}

TEST_F(LocationLog, NullArgumentsGiveNull) {
    StderrCapture cap;
    EXPECT_EQ(get_entry_value(nullptr, "LogFileSize"), nullptr);
    EXPECT_EQ(get_entry_value(cfgPath_.c_str(), nullptr), nullptr);
    char dst[LAPI_SRV_CFG_VALUE_SIZE];
    EXPECT_EQ(find_entry(nullptr, "LogFileSize", dst), 0);
    EXPECT_EQ(find_entry("LogFileSize = 64\n", nullptr, dst), 0);
    EXPECT_EQ(find_entry("LogFileSize = 64\n", "LogFileSize", nullptr), 0);
    std::string err = cap.Stop();
    EXPECT_TRUE(Contains(
        err, TraceLine("get_entry_value", "fail! filename == NULL || entry_name == NULL\n\n")));
    EXPECT_TRUE(Contains(err, TraceLine("find_entry", "fail! input parameter is null\n\n")));
}

TEST_F(LocationLog, FindEntryNeedsEqualsAfterKey) {
    char dst[LAPI_SRV_CFG_VALUE_SIZE] = {};
    EXPECT_EQ(find_entry("LogFileSize 64\n", "LogFileSize", dst), 0);
    EXPECT_EQ(find_entry("x = LogFileSize 64\n", "LogFileSize", dst), 0);
    EXPECT_EQ(find_entry("LogFileSize: 64 = 65\n", "LogFileSize", dst), 1);
    EXPECT_STREQ(dst, "65");
}

TEST_F(LocationLog, FindEntryValueEndsAtFirstLineEnd) {
    char dst[LAPI_SRV_CFG_VALUE_SIZE] = {};
    EXPECT_EQ(find_entry("LogFileSize = 6 4\r 99\n", "LogFileSize", dst), 1);
    EXPECT_STREQ(dst, "6 4");
    EXPECT_EQ(find_entry("LogFileSize = 12\n34\r", "LogFileSize", dst), 1);
    EXPECT_STREQ(dst, "12");
}

TEST_F(LocationLog, ValueOf63CharactersIsTakenWhole) {
    std::string value(LAPI_SRV_CFG_VALUE_MAX_LEN, 'a');
    bool found;
    EXPECT_EQ(Lookup("AGPSProfileName = " + value + "\n", "AGPSProfileName", &found), value);
    EXPECT_TRUE(found);
}

TEST_F(LocationLog, ValueOf64CharactersIsRefused) {
    std::string value(LAPI_SRV_CFG_VALUE_MAX_LEN + 1, 'a');
    bool found;
    StderrCapture cap;
    Lookup("AGPSProfileName = " + value + "\n", "AGPSProfileName", &found);
    std::string err = cap.Stop();
    EXPECT_FALSE(found);
    EXPECT_TRUE(
        Contains(err, TraceLine("find_entry", "fail! value longer than 63 characters\n\n")));
}

TEST_F(LocationLog, RefusedLongValueLetsLaterLineWin) {
    std::string value(100, 'b');
    bool found;
    EXPECT_EQ(Lookup("AGPSProfileName = " + value + "\nAGPSProfileName = short\n",
                     "AGPSProfileName", &found),
              "short");
}

TEST_F(LocationLog, LongValueInFindEntryLeavesDestinationBounded) {
    /* A destination of exactly 64 bytes: the refused value must not touch it. */
    std::vector<char> dst(LAPI_SRV_CFG_VALUE_SIZE, 'z');
    std::string line = "LogFileSize = " + std::string(110, '7') + "\n";
    EXPECT_EQ(find_entry(line.c_str(), "LogFileSize", dst.data()), 0);
    EXPECT_EQ(std::string(dst.begin(), dst.end()), std::string(LAPI_SRV_CFG_VALUE_SIZE, 'z'));
}

TEST_F(LocationLog, KeyStraddlingPieceBoundaryIsNotFound) {
    /* The first piece of a long line is 127 characters: the key starts at
     * offset 120 and is cut after "LogFile". */
    std::string line = std::string(120, 'x') + "LogFileSize = 64\n";
    ASSERT_LT(120u, LAPI_SRV_CFG_LINE_SIZE - 1u);
    ASSERT_GT(120u + strlen("LogFileSize"), LAPI_SRV_CFG_LINE_SIZE - 1u);
    bool found;
    Lookup(line, "LogFileSize", &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(Lookup(line + "LogFileSize = 32\n", "LogFileSize", &found), "32");
}

TEST_F(LocationLog, KeyInSecondPieceOfLongLineIsFound) {
    std::string line = std::string(130, 'x') + " LogFileSize = 64\n";
    bool found;
    EXPECT_EQ(Lookup(line, "LogFileSize", &found), "64");
    EXPECT_TRUE(found);
}

TEST_F(LocationLog, FirstPieceOfLongLineHasNoLineEnd) {
    /* Key and value inside the first 127 characters, but the line goes on:
     * the piece carries no line end and yields nothing; the second piece
     * holds no key. */
    std::string line = "LogFileSize = 64" + std::string(200, ' ') + "tail\n";
    bool found;
    Lookup(line, "LogFileSize", &found);
    EXPECT_FALSE(found);
}

TEST_F(LocationLog, LineOfExactly127CharactersIsOnePiece) {
    /* 126 characters and the line feed fill the buffer exactly. */
    std::string line = std::string(126 - strlen("LogFileSize = 64"), 'x') + "LogFileSize = 64\n";
    ASSERT_EQ(line.size(), LAPI_SRV_CFG_LINE_SIZE - 1u);
    bool found;
    EXPECT_EQ(Lookup(line, "LogFileSize", &found), "64");
}

/* ------------------------------------------------------------------------ */
/* LAPI_SRV_LOG_Init                                                         */
/* ------------------------------------------------------------------------ */

TEST_F(LocationLog, FlagOffLeavesLogOffAndCreatesNoFile) {
    WriteFile(cfgPath_, "LogFileSize = 64\n");
    StderrCapture cap;
    LAPI_SRV_LOG_Init();
    GetLocationReq req = {};
    LAPI_SRV_LOG_LocationReq(&req, 1, 2);
    GetLocationRsp rsp = {};
    LAPI_SRV_LOG_LocationRsp(&rsp, 1, 2);
    std::string err = cap.Stop();
    EXPECT_EQ(gLogAvailable, 0);
    EXPECT_TRUE(Contains(
        err, TraceLine("LAPI_SRV_LOG_Init", "DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE == FALSE")));
    EXPECT_FALSE(Exists(logPath_));
}

TEST_F(LocationLog, Size64Accepted) {
    InitWithSize("64");
    EXPECT_EQ(gLogAvailable, 1);
    EXPECT_EQ(gMaxLogSize, 64u * 1024u);
    EXPECT_FALSE(Exists(logPath_)); /* opened only by the first record */
}

TEST_F(LocationLog, Size512And01Accepted) {
    InitWithSize("512");
    EXPECT_EQ(gLogAvailable, 1);
    EXPECT_EQ(gMaxLogSize, 512u * 1024u);
    InitWithSize("01");
    EXPECT_EQ(gLogAvailable, 1);
    EXPECT_EQ(gMaxLogSize, 1024u);
}

TEST_F(LocationLog, SizeZeroSwitchesLogOff) {
    ExpectSizeRefused("00");
}

TEST_F(LocationLog, Size513SwitchesLogOff) {
    ExpectSizeRefused("513");
}

TEST_F(LocationLog, SizeMinusOneSwitchesLogOff) {
    ExpectSizeRefused("-1");
}

TEST_F(LocationLog, SizeBeyondIntRangeSwitchesLogOff) {
    /* 2^32 + 1 must not come back as 1. */
    ExpectSizeRefused("4294967297");
}

TEST_F(LocationLog, SizeNotANumberSwitchesLogOff) {
    ExpectSizeRefused("big");
}

TEST_F(LocationLog, SizeMissingSwitchesLogOff) {
    FlagOn();
    WriteFile(cfgPath_, "AGPSProfileName = myprofile\n");
    StderrCapture cap;
    LAPI_SRV_LOG_Init();
    std::string err = cap.Stop();
    EXPECT_EQ(gLogAvailable, 0);
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Init", "can not get agps log file size\n")));
    GetLocationReq req = {};
    LAPI_SRV_LOG_LocationReq(&req, 1, 2);
    EXPECT_FALSE(Exists(logPath_));
}

/* ------------------------------------------------------------------------ */
/* Open and write                                                            */
/* ------------------------------------------------------------------------ */

TEST_F(LocationLog, NewFileStartsWithHeaderHolding75) {
    LogOn(64 * 1024);
    ASSERT_EQ(LAPI_SRV_LOG_Open(), 0);
    EXPECT_EQ(gLogoffset, 75u);
    std::string file = ReadFile(logPath_);
    EXPECT_EQ(file.size(), 75u);
    EXPECT_EQ(file, Header(75));
    EXPECT_EQ(HeaderNumber(file), 75u);
}

TEST_F(LocationLog, RecordOf100BytesMovesHeaderTo175) {
    LogOn(64 * 1024);
    std::string record = std::string(99, 'r') + "\n";
    ASSERT_EQ(LAPI_SRV_LOG_Write(record.c_str()), 0);
    EXPECT_EQ(gLogoffset, 175u);
    std::string file = ReadFile(logPath_);
    EXPECT_EQ(file, Header(175) + record);
    /* The next record follows it. */
    ASSERT_EQ(LAPI_SRV_LOG_Write("second\n"), 0);
    EXPECT_EQ(ReadFile(logPath_), Header(182) + record + "second\n");
}

TEST_F(LocationLog, ExistingFileContinuesAtHeaderOffset) {
    WriteFile(logPath_, Header(80) + "older\n" + "stale-tail\n");
    LogOn(64 * 1024);
    ASSERT_EQ(LAPI_SRV_LOG_Write("new\n"), 0);
    EXPECT_EQ(ReadFile(logPath_), Header(84) + "oldernew\n" + "le-tail\n");
}

TEST_F(LocationLog, RecordPassingEndWrapsBehindHeader) {
    InitWithSize("01");
    ASSERT_EQ(gMaxLogSize, 1024u);
    /* Fill to byte 1000: 75 + 5 records of 185 bytes. */
    std::string filler = std::string(184, 'f') + "\n";
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(LAPI_SRV_LOG_Write(filler.c_str()), 0);
    }
    ASSERT_EQ(gLogoffset, 1000u);
    /* 25 bytes would end at 1025: written at 75 instead. */
    std::string record = std::string(24, 'w') + "\n";
    ASSERT_EQ(LAPI_SRV_LOG_Write(record.c_str()), 0);
    EXPECT_EQ(gLogoffset, 100u);
    std::string file = ReadFile(logPath_);
    EXPECT_EQ(file.size(), 1000u); /* nothing is truncated */
    EXPECT_EQ(HeaderNumber(file), 100u);
    EXPECT_EQ(file.substr(0, 75), Header(100));
    EXPECT_EQ(file.substr(75, 25), record);
    EXPECT_EQ(file.substr(100, 160), filler.substr(25)); /* the older line's rest stays */
}

TEST_F(LocationLog, RecordExactlyReachingEndIsWrittenAtEnd) {
    LogOn(1024);
    std::string filler = std::string(184, 'f') + "\n";
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(LAPI_SRV_LOG_Write(filler.c_str()), 0);
    }
    std::string record = std::string(23, 'e') + "\n"; /* 1000 + 24 = 1024 */
    ASSERT_EQ(LAPI_SRV_LOG_Write(record.c_str()), 0);
    EXPECT_EQ(gLogoffset, 1024u);
    std::string file = ReadFile(logPath_);
    EXPECT_EQ(file.size(), 1024u);
    EXPECT_EQ(file.substr(1000), record);
    EXPECT_EQ(HeaderNumber(file), 1024u);
    /* Any further record wraps. */
    ASSERT_EQ(LAPI_SRV_LOG_Write("x\n"), 0);
    EXPECT_EQ(gLogoffset, 77u);
    EXPECT_EQ(HeaderNumber(ReadFile(logPath_)), 77u);
}

TEST_F(LocationLog, HeaderOffsetAboveSizeFailsFirstWriteThenWraps) {
    /* The file was written with a larger size; the size is now 1 KiB. */
    WriteFile(logPath_, Header(5000) + std::string(5000 - 75, 'o'));
    LogOn(1024);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write("first\n"), -1);
    std::string err = cap.Stop();
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Open", "gLogoffset >= gMaxLogSize!")));
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Write", "LAPI_SRV_LOG_Open() failed!")));
    EXPECT_EQ(HeaderNumber(ReadFile(logPath_)), 5000u); /* nothing written */

    ASSERT_EQ(LAPI_SRV_LOG_Write("second\n"), 0);
    EXPECT_EQ(gLogoffset, 82u);
    std::string file = ReadFile(logPath_);
    EXPECT_EQ(file.substr(0, 75), Header(82));
    EXPECT_EQ(file.substr(75, 7), "second\n");
    EXPECT_EQ(file.size(), 5000u);
}

TEST_F(LocationLog, HeaderOffsetAtSizeFailsFirstWriteThenWraps) {
    WriteFile(logPath_, Header(1024) + std::string(1024 - 75, 'o'));
    LogOn(1024);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write("first\n"), -1);
    std::string err = cap.Stop();
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Open", "gLogoffset >= gMaxLogSize!")));
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Write", "LAPI_SRV_LOG_Open() failed!")));
    ASSERT_EQ(LAPI_SRV_LOG_Write("second\n"), 0);
    EXPECT_EQ(gLogoffset, 82u);
    EXPECT_EQ(ReadFile(logPath_).substr(0, 82), Header(82) + "second\n");
}

TEST_F(LocationLog, EmptyRecordAtTheEndAfterRefusedOpenStaysAtTheEnd) {
    /* Offset 1024 with size 1024: 1024 + 0 is not greater than the size,
     * so an empty record is written (as nothing) at the end, like any record
     * that exactly reaches it; the next real record wraps. */
    WriteFile(logPath_, Header(1024) + std::string(1024 - 75, 'o'));
    LogOn(1024);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write("first\n"), -1);
    cap.Stop();
    ASSERT_EQ(LAPI_SRV_LOG_Write(""), 0);
    EXPECT_EQ(gLogoffset, 1024u);
    EXPECT_EQ(HeaderNumber(ReadFile(logPath_)), 1024u);
    ASSERT_EQ(LAPI_SRV_LOG_Write("x\n"), 0);
    EXPECT_EQ(gLogoffset, 77u);
}

TEST_F(LocationLog, HeaderWithoutNumberKeepsTheCurrentOffset) {
    /* Nothing to read: the offset stays at its start value 0, so the record
     * goes to the top of the file and the header is written over it. */
    WriteFile(logPath_, std::string(40, ' ') + kMarker + "garbage\n");
    LogOn(1024);
    ASSERT_EQ(LAPI_SRV_LOG_Write("rec\n"), 0);
    EXPECT_EQ(gLogoffset, 4u);
    EXPECT_EQ(ReadFile(logPath_), Header(4) + "garbage\n");
}

TEST_F(LocationLog, HeaderNumberInsideHeaderIsTakenAsItStands) {
    WriteFile(logPath_, Header(3));
    LogOn(1024);
    ASSERT_EQ(LAPI_SRV_LOG_Write("rec\n"), 0);
    /* Written at byte 3, then covered by the rewritten header. */
    EXPECT_EQ(gLogoffset, 7u);
    EXPECT_EQ(ReadFile(logPath_), Header(7));
}

TEST_F(LocationLog, NegativeHeaderNumberIsBeyondSize) {
    /* -5 as a 32-bit position lies beyond any size: the first write fails,
     * the next one starts behind the header. */
    WriteFile(logPath_, "-5" + std::string(38, ' ') + kMarker);
    LogOn(1024);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write("first\n"), -1);
    EXPECT_TRUE(Contains(cap.Stop(), ErrLine("LAPI_SRV_LOG_Open", "gLogoffset >= gMaxLogSize!")));
    ASSERT_EQ(LAPI_SRV_LOG_Write("second\n"), 0);
    EXPECT_EQ(gLogoffset, 82u);
    EXPECT_EQ(ReadFile(logPath_).substr(0, 82), Header(82) + "second\n");
}

TEST_F(LocationLog, HeaderNumberAfterLeadingBlanksIsRead) {
    WriteFile(logPath_, "   90" + std::string(35, ' ') + kMarker + std::string(20, 'o'));
    LogOn(1024);
    ASSERT_EQ(LAPI_SRV_LOG_Write("n\n"), 0);
    EXPECT_EQ(gLogoffset, 92u);
}

TEST_F(LocationLog, HugeHeaderNumberIsBeyondSize) {
    WriteFile(logPath_, "99999999999999999999" + std::string(20, ' ') + kMarker);
    LogOn(1024);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write("first\n"), -1);
    EXPECT_TRUE(Contains(cap.Stop(), ErrLine("LAPI_SRV_LOG_Open", "gLogoffset >= gMaxLogSize!")));
    ASSERT_EQ(LAPI_SRV_LOG_Write("second\n"), 0);
    EXPECT_EQ(gLogoffset, 82u);
}

TEST_F(LocationLog, RecordOf400CharactersRefused) {
    LogOn(64 * 1024);
    std::string record(400, 'x');
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write(record.c_str()), -1);
    EXPECT_EQ(LAPI_SRV_LOG_Write(nullptr), -1);
    std::string err = cap.Stop();
    std::string line =
        ErrLine("LAPI_SRV_LOG_Write", "buffer == NULL || bufLen <= 0 in LAPI_SRV_LOG_Write!");
    size_t first = err.find(line);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(err.find(line, first + 1), std::string::npos);
    EXPECT_FALSE(Exists(logPath_));
}

TEST_F(LocationLog, RecordOf399CharactersWritten) {
    LogOn(64 * 1024);
    std::string record(399, 'x');
    ASSERT_EQ(LAPI_SRV_LOG_Write(record.c_str()), 0);
    EXPECT_EQ(gLogoffset, 75u + 399u);
}

TEST_F(LocationLog, FileThatCannotBeCreatedFailsEachRecord) {
    std::string badPath = dir_.Dir() + "/no/such/dir/location_fix.log";
    LAPI_SRV_fixLogFile = badPath.c_str();
    LogOn(64 * 1024);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_LOG_Write("rec\n"), -1);
    EXPECT_EQ(LAPI_SRV_LOG_Write("rec\n"), -1);
    std::string err = cap.Stop();
    std::string create = ErrLine(
        "LAPI_SRV_LOG_Open", "Fail to create " + badPath + ", errorNo such file or directory:!");
    size_t first = err.find(create);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(err.find(create, first + 1), std::string::npos); /* tried again */
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Write", "LAPI_SRV_LOG_Open() failed!")));
    LAPI_SRV_fixLogFile = logPath_.c_str();
}

/* ------------------------------------------------------------------------ */
/* Request and response records                                              */
/* ------------------------------------------------------------------------ */

/* Checks "<prefix><ctime text, comma><rest>" against the clock window. */
void ExpectRecord(const std::string &record, const std::string &prefix, const std::string &rest,
                  time_t t0, time_t t1) {
    ASSERT_EQ(record.compare(0, prefix.size(), prefix), 0) << record;
    bool matched = false;
    for (const std::string &when : CtimeTexts(t0, t1)) {
        if (record == prefix + when + rest) {
            matched = true;
        }
    }
    EXPECT_TRUE(matched) << record;
}

TEST_F(LocationLog, LocationReqLinePeriodicAgps) {
    LogOn(64 * 1024);
    GetLocationReq req = {};
    req.responseTime = 30000;
    req.horizontalAccuracy = 50;
    req.interval = 5;
    req.reportCriteria = 1;
    req.costAllowed = 1;
    req.speedAndCourseRequired = 1;
    req.altitudeRequired = 0;
    time_t t0 = time(nullptr);
    LAPI_SRV_LOG_LocationReq(&req, 7, 200);
    time_t t1 = time(nullptr);
    std::string file = ReadFile(logPath_);
    ASSERT_GT(file.size(), 75u);
    ExpectRecord(file.substr(75), "Location request:  ",
                 " sid:7, tid:200, responseTime:30000, horizontalAccuracy:50, "
                 "periodic interval:5, AGPS, speedAndCourseRequired:1, altitudeRequired:0\n",
                 t0, t1);
    EXPECT_EQ(HeaderNumber(file), file.size());
}

TEST_F(LocationLog, LocationReqLineSingleGps) {
    LogOn(64 * 1024);
    GetLocationReq req = {};
    req.responseTime = 0xFFFFFFFFu; /* printed as a signed number */
    req.horizontalAccuracy = 10;
    req.interval = 99;
    req.reportCriteria = 2;
    req.costAllowed = 2;
    req.speedAndCourseRequired = 0;
    req.altitudeRequired = 255;
    time_t t0 = time(nullptr);
    LAPI_SRV_LOG_LocationReq(&req, 0, 1);
    time_t t1 = time(nullptr);
    std::string file = ReadFile(logPath_);
    ASSERT_GT(file.size(), 75u);
    ExpectRecord(file.substr(75), "Location request:  ",
                 " sid:0, tid:1, responseTime:-1, horizontalAccuracy:10, Non-periodic, GPS, "
                 "speedAndCourseRequired:0, altitudeRequired:255\n",
                 t0, t1);
}

TEST_F(LocationLog, LocationRspLine) {
    LogOn(64 * 1024);
    GetLocationRsp rsp = {};
    rsp.latitude = 37.5;
    rsp.longitude = -122.25;
    rsp.horizontalAccuracy = 12.125;
    rsp.altitude = 100;
    rsp.speed = 1.5;
    rsp.course = 270;
    rsp.verticalAccuracy = 8;
    rsp.ageOfFix = 0x100000005ULL; /* only the low 32 bits are printed */
    time_t t0 = time(nullptr);
    LAPI_SRV_LOG_LocationRsp(&rsp, 3, 4);
    time_t t1 = time(nullptr);
    std::string file = ReadFile(logPath_);
    ASSERT_GT(file.size(), 75u);
    ExpectRecord(file.substr(75), "Location Response: ",
                 " sid:3, tid:4, latitude:37.500000, longitude:-122.250000, "
                 "horizontalAccuracy:12.125000, altitude:100.000000, speed:1.500000, "
                 "course:270.000000, verticalAccuracy:8.000000, ageOfFix:5\n",
                 t0, t1);
}

TEST_F(LocationLog, RequestThenResponseFollowEachOther) {
    LogOn(64 * 1024);
    GetLocationReq req = {};
    GetLocationRsp rsp = {};
    LAPI_SRV_LOG_LocationReq(&req, 1, 1);
    size_t afterReq = gLogoffset;
    LAPI_SRV_LOG_LocationRsp(&rsp, 1, 1);
    std::string file = ReadFile(logPath_);
    EXPECT_EQ(file.compare(75, 19, "Location request:  "), 0);
    EXPECT_EQ(file.compare(afterReq, 19, "Location Response: "), 0);
    EXPECT_EQ(HeaderNumber(file), file.size());
}

TEST_F(LocationLog, ResponseWithHugeValuesIsRefusedNotCut) {
    LogOn(64 * 1024);
    GetLocationRsp rsp = {};
    rsp.latitude = 1e300;
    StderrCapture cap;
    LAPI_SRV_LOG_LocationRsp(&rsp, 1, 1);
    std::string err = cap.Stop();
    EXPECT_TRUE(Contains(err, ErrLine("LAPI_SRV_LOG_Write",
                                      "buffer == NULL || bufLen <= 0 in LAPI_SRV_LOG_Write!")));
    EXPECT_FALSE(Exists(logPath_));
}

TEST_F(LocationLog, NullMessagesGiveErrors) {
    LogOn(64 * 1024);
    StderrCapture cap;
    LAPI_SRV_LOG_LocationReq(nullptr, 1, 2);
    LAPI_SRV_LOG_LocationRsp(nullptr, 1, 2);
    std::string err = cap.Stop();
    EXPECT_TRUE(Contains(
        err, ErrLine("LAPI_SRV_LOG_LocationReq", "pMsg is NULL in LAPI_SRV_LOG_LocationReq!")));
    EXPECT_TRUE(Contains(
        err, ErrLine("LAPI_SRV_LOG_LocationRsp", "pMsg is NULL in LAPI_SRV_LOG_LocationRsp!")));
    EXPECT_FALSE(Exists(logPath_));
}

TEST_F(LocationLog, RecordsDoNothingWhileLogOff) {
    gLogAvailable = 0;
    gMaxLogSize = 64 * 1024;
    GetLocationReq req = {};
    GetLocationRsp rsp = {};
    LAPI_SRV_LOG_LocationReq(&req, 1, 2);
    LAPI_SRV_LOG_LocationRsp(&rsp, 1, 2);
    EXPECT_FALSE(Exists(logPath_));
}

/* ------------------------------------------------------------------------ */
/* Feature-flag stand-in                                                     */
/* ------------------------------------------------------------------------ */

TEST_F(LocationLog, FlexFlagFollowsFileUnderRoot) {
    uint8_t value = 7;
    EXPECT_EQ(getFlexBit(DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE, &value), 0);
    EXPECT_EQ(value, 0);
    FlagOn();
    EXPECT_EQ(getFlexBit(DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE, &value), 0);
    EXPECT_EQ(value, 1);
    value = 7;
    EXPECT_EQ(getFlexBit(368, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(getFlexBit(DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE, nullptr), -1);
}

}  // namespace
