/*
 * Push intake in process: the WSP decoder line by line, the push
 * indication's bytes, the telephony read procedure on a pipe, the UDP
 * intake on a real socket, the telephony stand-in, and every bound the
 * received bytes could push a read past.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HOST_Root.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_WAPPush.h"
#include "LocSvcTestHarness.h"
#include "PushPdu.h"
#include "ServerFixture.h"
#include "zeltapi.h"

namespace {

using lapitest::StdoutCapture;
using locsvc::Bytes;
using locsvc::Harness;

/* Parts of PDUs. */
Bytes Text(const std::string &s) {
    Bytes b(s.begin(), s.end());
    b.push_back(0);
    return b;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

/* TID, push type, a one-byte HeadersLen over headers, then body. */
Bytes Push(const Bytes &headers, const Bytes &body, uint8_t type = 0x06) {
    return Cat({{0x01, type, static_cast<uint8_t>(headers.size())}, headers, body});
}

const Bytes kSuplBody = {0x00, 0x2A, 0x02, 0x00, 0x00, 0x40, 0x01, 0x02, 0x03};

/* Calls the decoder with an exact-size heap copy, so a read past the PDU is
 * an address-sanitizer finding. */
int Parse(const Bytes &pdu) {
    uint8_t *p = static_cast<uint8_t *>(malloc(pdu.empty() ? 1 : pdu.size()));
    if (!pdu.empty()) {
        memcpy(p, pdu.data(), pdu.size());
    }
    int r = ParseWAPPushMsg(p, static_cast<uint16_t>(pdu.size()));
    free(p);
    return r;
}

/* The decoder's standard-output lines for one call. */
struct Decoded {
    int result = 0;
    std::vector<std::string> out;
    std::vector<std::string> errors;
    std::vector<std::string> traces;
};

Decoded ParseCaptured(const Bytes &pdu) {
    Decoded d;
    lapitest::StderrCapture err;
    StdoutCapture out;
    d.result = Parse(pdu);
    d.out = out.Lines();
    d.errors = err.Errors();
    d.traces = err.Traces();
    return d;
}

bool Has(const std::vector<std::string> &lines, const std::string &line) {
    for (const std::string &l : lines) {
        if (l == line) {
            return true;
        }
    }
    return false;
}

/* The push indication the BP must get for this content. */
Bytes Indication(const Bytes &content) {
    Bytes m = {WAP_PUSH_APBP_IND, 0, 0};
    locsvc::PutBe(m, content.size(), 4);
    m.insert(m.end(), content.begin(), content.end());
    return m;
}

class WspPush : public ::testing::Test {
  protected:
    void SetUp() override { LAPI_traceEnabled = 1; }
    Harness h_;
};

}  // namespace

/* ------------------------------------------------------------------------ */
/* PDU type and forwarding                                                   */
/* ------------------------------------------------------------------------ */

TEST_F(WspPush, PduTypeOtherThanPushIsDroppedAsNotAPush) {
    for (uint8_t type : {0x00, 0x01, 0x05, 0x07, 0x40, 0xFF}) {
        Decoded d = ParseCaptured(Push(Text("text/plain"), kSuplBody, type));
        EXPECT_EQ(d.result, -1) << int(type);
        EXPECT_TRUE(Has(d.traces, "it is not a wap push msg for supl init!")) << int(type);
        EXPECT_TRUE(d.out.empty()) << int(type);
    }
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(WspPush, PushWithAnyContentTypeAndAnyOrNoAppIdIsForwarded) {
    const std::vector<Bytes> headerSets = {
        Text("application/vnd.omaloc-supl-init"),
        Cat({Text("text/plain"), {0xAF, 0x90}}),
        {0xB2},                   /* short integer */
        {0x03, 0x02, 0x03, 0x12}, /* value-length: long integer 0x0312 */
        Cat({{0xB2}, {0xAF}, Text("x-oma-application:ulp.ua")}),
        Cat({{0xC4}, {0xAF, 0x85}}),
    };
    for (const Bytes &headers : headerSets) {
        Decoded d = ParseCaptured(Push(headers, kSuplBody));
        EXPECT_EQ(d.result, 0);
        EXPECT_TRUE(Has(d.traces, "recv supl init wap push msg!"));
        std::vector<Bytes> msgs = h_.BpMsgs();
        ASSERT_EQ(msgs.size(), 1u);
        EXPECT_EQ(msgs[0], Indication(kSuplBody));
    }
}

TEST_F(WspPush, DecoderLinesOfASuplInitPushInOrder) {
    Decoded d = ParseCaptured(lapipush::SuplInitPush(kSuplBody));
    EXPECT_EQ(d.result, 0);
    const std::vector<std::string> expected = {
        "content type is textual value : application/vnd.omaloc-supl-init",
        "well known header id : AF",
        "val id : 90",
        "hex value : 10",
        "content type : application/vnd.omaloc-supl-init",
        "content type : 0",
        "application id tag : 2F",
        "application id : ",
        "application id : 10",
    };
    EXPECT_EQ(d.out, expected);
    /* The two traces of the decoder, then the sender's. */
    size_t next = 0;
    for (const char *want :
         {"Enter ParseWAPPushMsg", "recv supl init wap push msg!", "Enter SendWapPushIndicator"}) {
        while (next < d.traces.size() && d.traces[next] != want) {
            ++next;
        }
        EXPECT_LT(next, d.traces.size()) << want;
    }
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
}

TEST_F(WspPush, XWapTodEndsTheHeaderWalkAndPrintsDecodeHeaderErrorYetBodyIsForwarded) {
    Bytes headers = Cat({{0xB2}, Text("x-wap.tod"), {0x04, 0x4A, 0x3B, 0x2C, 0x1D}});
    Decoded d = ParseCaptured(Push(headers, kSuplBody));
    EXPECT_EQ(d.result, 0);
    const std::vector<std::string> expected = {
        "content type is hex value : 32",
        "textual header id: x-wap.tod",
        "x-wap.tod",
        "content type : ",
        "content type : 32",
        "application id tag : 00",
        "application id : ",
        "application id : 0",
        "decode header error!",
    };
    EXPECT_EQ(d.out, expected);
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
}

TEST_F(WspPush, TwoByteHeadersLenMovesTheForwardedBodyOneByteEarly) {
    /* 130 bytes of headers: HeadersLen 0x81 0x02. */
    Bytes headers = Text(std::string(128, 'a'));
    headers.push_back(0xAF);
    headers.push_back(0x90);
    ASSERT_EQ(headers.size(), 131u);
    headers.pop_back();
    headers.back() = 0x85; /* a text content type of 128 chars + 0x85: 130 bytes */
    ASSERT_EQ(headers.size(), 130u);
    Bytes pdu = Cat({{0x01, 0x06}, lapipush::Uintvar(130), headers, kSuplBody});
    ASSERT_EQ(pdu[2], 0x81);
    Decoded d = ParseCaptured(pdu);
    EXPECT_EQ(d.result, 0);
    Bytes early = Cat({{headers.back()}, kSuplBody});
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(early)});
}

TEST_F(WspPush, PduOfExactlyTwoPlusHeadersLenPlusOneBytesForwardsEmptyContent) {
    Decoded d = ParseCaptured(Push(Text("text/plain"), {}));
    EXPECT_EQ(d.result, 0);
    std::vector<Bytes> msgs = h_.BpMsgs();
    ASSERT_EQ(msgs.size(), 1u);
    EXPECT_EQ(msgs[0], (Bytes{0x10, 0, 0, 0, 0, 0, 0}));
}

/* ------------------------------------------------------------------------ */
/* Content-Type forms                                                        */
/* ------------------------------------------------------------------------ */

struct CtCase {
    const char *name;
    Bytes ct;
    int consumed;
    uint32_t value;
    std::string text;
    std::vector<std::string> lines;
};

class ContentType : public ::testing::TestWithParam<CtCase> {};

TEST_P(ContentType, DecodesAsDesigned) {
    const CtCase &c = GetParam();
    /* Exact-size copy with a few bytes after it (the headers would follow). */
    Bytes buf = c.ct;
    uint8_t *p = static_cast<uint8_t *>(malloc(buf.size()));
    memcpy(p, buf.data(), buf.size());
    uint32_t value = 0;
    char text[LAPI_SRV_WSP_TEXT_SIZE] = {0};
    StdoutCapture out;
    int consumed = decode_content_type(&value, text, p, p + buf.size());
    std::vector<std::string> lines = out.Lines();
    out.Restore();
    free(p);
    EXPECT_EQ(consumed, c.consumed);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(std::string(text), c.text);
    EXPECT_EQ(lines, c.lines);
}

INSTANTIATE_TEST_SUITE_P(
    WspPush, ContentType,
    ::testing::Values(
        CtCase{"ShortInteger", {0xB2}, 1, 0x32, "", {"content type is hex value : 32"}},
        CtCase{"Textual",
               Text("text/plain"),
               11,
               0,
               "text/plain",
               {"content type is textual value : text/plain"}},
        CtCase{"TextualEmpty", {0x00}, 1, 0, "", {"content type is textual value : "}},
        CtCase{"LvShortInteger",
               {0x01, 0xB2},
               2,
               0x32,
               "",
               {"content type is LV", "value length field's length is : 1", "value length is : 1",
                "value is short integer : 32", "there is not any parameter!"}},
        CtCase{"LvTextWithParametersSkipped",
               Cat({{0x08}, Text("a/b"), {0x81, 0xEA, 0x00, 0x00}}),
               9,
               0,
               "a/b",
               {"content type is LV", "value length field's length is : 1", "value length is : 8",
                "value is textual string : a/b", "there are some parameters!"}},
        CtCase{"LvLongInteger",
               {0x03, 0x02, 0x03, 0x12},
               4,
               0x312,
               "",
               {"content type is LV", "value length field's length is : 1", "value length is : 3",
                "there is not any parameter!"}},
        CtCase{"LvLengthQuoteUintvar",
               {0x1F, 0x02, 0xB2, 0x01},
               4,
               0x32,
               "",
               {"content type is LV", "value length field's length is : 2", "value length is : 2",
                "value is short integer : 32", "there are some parameters!"}},
        CtCase{"LvValue31Stops",
               {0x02, 0x1F, 0x00},
               2,
               0,
               "",
               {"content type is LV", "value length field's length is : 1", "value length is : 2",
                "content type value is not textual string and not integer!"}},
        CtCase{"LvValueLengthAbove4Stops",
               {0x06, 0x05, 1, 2, 3, 4, 5},
               2,
               0,
               "",
               {"content type is LV", "value length field's length is : 1", "value length is : 6",
                "content type value length is larger than 4!"}},
        CtCase{"LvLenPlusOneAboveValueLength",
               {0x01, 0x02, 0x03, 0x12},
               4,
               0x312,
               "",
               {"content type is LV", "value length field's length is : 1", "value length is : 1",
                "Error!!! len + 1 > val_len"}},
        CtCase{
            "LvUintvarRunningOffTheEndStops", {0x1F, 0x81, 0x82}, 3, 0, "", {"content type is LV"}},
        CtCase{"TextWithoutTerminatorIsCutAtTheEnd",
               {'a', '/', 'b'},
               3,
               0,
               "a/b",
               {"content type is textual value : a/b"}},
        CtCase{"LvParametersPastTheEndAreCut",
               {0x10, 0xB2, 0x01},
               3,
               0x32,
               "",
               {"content type is LV", "value length field's length is : 1", "value length is : 16",
                "value is short integer : 32", "there are some parameters!"}}),
    [](const ::testing::TestParamInfo<CtCase> &info) { return std::string(info.param.name); });

/* ------------------------------------------------------------------------ */
/* Headers                                                                   */
/* ------------------------------------------------------------------------ */

namespace {

struct HeaderWalk {
    int offset = 0;
    WspAppId appId;
    std::vector<std::string> lines;
};

HeaderWalk Walk(const Bytes &headers, int length) {
    HeaderWalk w;
    memset(&w.appId, 0, sizeof(w.appId));
    uint8_t *p = static_cast<uint8_t *>(malloc(headers.empty() ? 1 : headers.size()));
    if (!headers.empty()) {
        memcpy(p, headers.data(), headers.size());
    }
    StdoutCapture out;
    w.offset = decode_headers(&w.appId, p, length, p + headers.size());
    w.lines = out.Lines();
    out.Restore();
    free(p);
    return w;
}

HeaderWalk Walk(const Bytes &headers) {
    return Walk(headers, static_cast<int>(headers.size()));
}

}  // namespace

TEST(WspHeaders, AppIdAsShortIntegerIsRecorded) {
    HeaderWalk w = Walk({0xAF, 0x90});
    EXPECT_EQ(w.offset, 2);
    EXPECT_EQ(w.appId.tag, '/');
    EXPECT_EQ(w.appId.value, 0x10);
    EXPECT_EQ(w.lines, (std::vector<std::string>{"well known header id : AF", "val id : 90",
                                                 "hex value : 10"}));
}

TEST(WspHeaders, AppIdAsTextIsRecorded) {
    HeaderWalk w = Walk(Cat({{0xAF}, Text("x-oma-application:ulp.ua")}));
    EXPECT_EQ(w.offset, 26);
    EXPECT_EQ(w.appId.tag, '/');
    EXPECT_STREQ(w.appId.text, "x-oma-application:ulp.ua");
    EXPECT_EQ(w.lines, (std::vector<std::string>{"well known header id : AF", "val id : 78",
                                                 "string value : x-oma-application:ulp.ua"}));
}

TEST(WspHeaders, OtherWellKnownHeaderIsNotAnAppId) {
    HeaderWalk w = Walk({0xB4, 0x81});
    EXPECT_EQ(w.offset, 2);
    EXPECT_EQ(w.appId.tag, 0);
}

TEST(WspHeaders, HeaderElementInValueLengthForm) {
    HeaderWalk w = Walk({0x85, 0x03, 0x0A, 0x0B, 0x0C});
    EXPECT_EQ(w.offset, 5);
    EXPECT_EQ(w.lines, (std::vector<std::string>{"well known header id : 85", "val id : 03",
                                                 "header element is LV",
                                                 "value length field's length is : 1",
                                                 "value length is : 3", "value : 0A 0B 0C"}));
}

TEST(WspHeaders, HeaderLengthQuote31IsReadAsAUintvarOfItself) {
    Bytes h = {0x85, 0x1F};
    for (int i = 0; i < 31; ++i) {
        h.push_back(static_cast<uint8_t>(i));
    }
    HeaderWalk w = Walk(h);
    EXPECT_EQ(w.offset, 33);
    ASSERT_GE(w.lines.size(), 5u);
    EXPECT_EQ(w.lines[3], "value length field's length is : 1");
    EXPECT_EQ(w.lines[4], "value length is : 31");
}

TEST(WspHeaders, TextualHeaderWithTextualValue) {
    HeaderWalk w = Walk(Cat({Text("X-Foo"), Text("bar"), {0xAF, 0x90}}));
    EXPECT_EQ(w.offset, 12);
    EXPECT_EQ(w.appId.value, 0x10);
    EXPECT_EQ(w.lines[0], "textual header id: X-Foo");
    EXPECT_EQ(w.lines[1], "textual header value : bar");
}

TEST(WspHeaders, TextualHeaderWithoutTextualValueStopsAtTheLength) {
    HeaderWalk w = Walk(Cat({Text("X-Foo"), {0x81, 0xAF, 0x90}}));
    EXPECT_EQ(w.offset, 9);
    EXPECT_EQ(w.appId.tag, 0);
    EXPECT_EQ(w.lines, (std::vector<std::string>{"textual header id: X-Foo",
                                                 "should be textual header value"}));
}

TEST(WspHeaders, XWapTodStopsWhereItStands) {
    HeaderWalk w = Walk(Cat({Text("x-wap.tod"), {0x04, 1, 2, 3, 4}}));
    EXPECT_EQ(w.offset, 10);
    EXPECT_EQ(w.lines, (std::vector<std::string>{"textual header id: x-wap.tod", "x-wap.tod"}));
}

TEST(WspHeaders, InvalidTextualHeaderStops) {
    HeaderWalk w = Walk({0x00, 0xAF, 0x90});
    EXPECT_EQ(w.offset, 3);
    EXPECT_EQ(w.appId.tag, 0);
    EXPECT_EQ(w.lines, std::vector<std::string>{"invalid textual header"});
}

TEST(WspHeaders, ShiftToAnotherCodePageStopsAtTheNextWellKnownHeader) {
    HeaderWalk w = Walk({0x7F, 0x02, 0xAF, 0x90});
    EXPECT_EQ(w.offset, 4);
    EXPECT_EQ(w.appId.tag, 0);
    EXPECT_EQ(w.lines, std::vector<std::string>{"well known header id : AF"});
}

TEST(WspHeaders, ShortCutShiftToAnotherCodePageStops) {
    HeaderWalk w = Walk({0x03, 0xAF, 0x90});
    EXPECT_EQ(w.offset, 3);
    EXPECT_EQ(w.appId.tag, 0);
}

TEST(WspHeaders, ShiftBackToCodePageOneDecodes) {
    HeaderWalk w = Walk({0x03, 0x01, 0xAF, 0x90});
    EXPECT_EQ(w.offset, 4);
    EXPECT_EQ(w.appId.value, 0x10);
}

TEST(WspHeaders, NegativeOrZeroLengthWalksNothing) {
    EXPECT_EQ(Walk({0xAF, 0x90}, 0).offset, 0);
    EXPECT_EQ(Walk({0xAF, 0x90}, -20).offset, 0);
}

TEST(WspHeaders, LengthBeyondTheBytesStopsAtTheEnd) {
    HeaderWalk w = Walk({0xAF, 0x90}, 100);
    EXPECT_EQ(w.offset, 2);
}

TEST(WspHeaders, HeaderValueLengthPastTheEndIsCut) {
    HeaderWalk w = Walk({0x85, 0x1E, 0x01, 0x02});
    EXPECT_EQ(w.offset, 4);
    EXPECT_EQ(w.lines.back(), "value : 01 02");
}

TEST(WspHeaders, WellKnownHeaderWithoutValueAtTheEnd) {
    HeaderWalk w = Walk({0xAF});
    EXPECT_EQ(w.offset, 1);
}

/* ------------------------------------------------------------------------ */
/* uintvar                                                                   */
/* ------------------------------------------------------------------------ */

TEST(WspUintvar, OneTwoAndFiveBytes) {
    struct {
        Bytes b;
        uint32_t value;
        int count;
    } rows[] = {{{0x00}, 0, 1},
                {{0x7F}, 127, 1},
                {{0x81, 0x00}, 128, 2},
                {{0x8F, 0xFF, 0xFF, 0xFF, 0x7F}, 0xFFFFFFFFu, 5}};
    for (const auto &r : rows) {
        uint32_t v = 0;
        EXPECT_EQ(get_uintvar(&v, r.b.data(), r.b.data() + r.b.size()), r.count);
        EXPECT_EQ(v, r.value);
    }
}

TEST(WspUintvar, NoLimitOnTheNumberOfBytesTheValueWraps) {
    Bytes b = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x05};
    uint32_t v = 99;
    EXPECT_EQ(get_uintvar(&v, b.data(), b.data() + b.size()), 7);
    EXPECT_EQ(v, 5u);
}

TEST(WspUintvar, EveryProperPrefixRunsOffTheEndAndFails) {
    Bytes b = {0x81, 0x82, 0x83, 0x04};
    for (size_t n = 0; n < b.size(); ++n) {
        uint8_t *p = static_cast<uint8_t *>(malloc(n == 0 ? 1 : n));
        memcpy(p, b.data(), n);
        uint32_t v = 7;
        EXPECT_EQ(get_uintvar(&v, p, p + n), -1) << n;
        EXPECT_EQ(v, 7u);
        free(p);
    }
}

/* ------------------------------------------------------------------------ */
/* Bounds the received bytes set                                             */
/* ------------------------------------------------------------------------ */

TEST_F(WspPush, ContentOf256BytesIsForwarded) {
    Bytes body(256, 0x5A);
    EXPECT_EQ(ParseCaptured(Push(Text("a/b"), body)).result, 0);
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(body)});
}

TEST_F(WspPush, ContentLongerThanThe256ByteBufferIsRefused) {
    Decoded d = ParseCaptured(Push(Text("a/b"), Bytes(257, 0x5A)));
    EXPECT_EQ(d.result, -1);
    EXPECT_TRUE(Has(d.errors, "push content: 257 bytes > buffer: 256 bytes, drop!"));
    EXPECT_TRUE(Has(d.traces, "it is not a wap push msg for supl init!"));
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(WspPush, HeadersLenPastTheEndOfThePduIsRefused) {
    Bytes pdu = {0x01, 0x06, 0x30, 0xB2, 0xAF, 0x90, 0x01};
    Decoded d = ParseCaptured(pdu);
    EXPECT_EQ(d.result, -1);
    EXPECT_TRUE(Has(d.errors, "HeadersLen: 48 runs past the end of the PDU: 7 bytes!"));
    EXPECT_TRUE(Has(d.out, "decode header error!"));
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(WspPush, HeadersLenOfAllOnesDoesNotWrapIntoAForward) {
    Bytes pdu = Cat({{0x01, 0x06, 0x8F, 0xFF, 0xFF, 0xFF, 0x7F, 0xB2}, kSuplBody});
    Decoded d = ParseCaptured(pdu);
    EXPECT_EQ(d.result, -1);
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(WspPush, HeadersLenZeroWithTextualContentTypeWalksNoHeaders) {
    /* The Content-Type alone is longer than HeadersLen: no header is walked,
     * the check reports it, and the body starts where HeadersLen says. */
    Bytes pdu = Cat({{0x01, 0x06, 0x00}, Text("a/b"), {0xAF, 0x90}});
    Decoded d = ParseCaptured(pdu);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.out, (std::vector<std::string>{
                         "content type is textual value : a/b", "content type : a/b",
                         "content type : 0", "application id tag : 00",
                         "application id : ", "application id : 0", "decode header error!"}));
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(Cat({Text("a/b"), {0xAF, 0x90}}))});
}

TEST_F(WspPush, HeadersLenUintvarRunningOffTheEndIsRefused) {
    Decoded d = ParseCaptured({0x01, 0x06, 0x81, 0x80});
    EXPECT_EQ(d.result, -1);
    EXPECT_TRUE(Has(d.errors, "HeadersLen runs off the end of the PDU!"));
    EXPECT_TRUE(d.out.empty());
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(WspPush, PduWithoutTidAndTypeIsRefused) {
    for (const Bytes &pdu : {Bytes{}, Bytes{0x01}}) {
        Decoded d = ParseCaptured(pdu);
        EXPECT_EQ(d.result, -1);
        EXPECT_TRUE(Has(d.traces, "it is not a wap push msg for supl init!"));
    }
    EXPECT_EQ(decode_push_pdu(nullptr, nullptr, nullptr, 0), -1);
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(WspPush, EveryPrefixAndOneByteMutationStaysInsideTheBytes) {
    LAPI_traceEnabled = 0;
    Bytes pdu = Push(Cat({{0x1F, 0x04, 0x03, 0x02, 0x03, 0x12},
                          Text("X-A"),
                          Text("v"),
                          {0xAF},
                          Text("id"),
                          {0x85, 0x02, 0x01, 0x02},
                          Text("x-wap.tod"),
                          {0x04, 1, 2, 3, 4}}),
                     kSuplBody);
    StdoutCapture out;
    lapitest::StderrCapture err;
    /* The channel is read after each call, so it never fills. */
    Bytes sent;
    auto parseAndTake = [&](const Bytes &m) {
        Parse(m);
        Bytes raw = h_.BpRaw();
        sent.insert(sent.end(), raw.begin(), raw.end());
    };
    for (size_t n = 0; n <= pdu.size(); ++n) {
        parseAndTake(Bytes(pdu.begin(), pdu.begin() + static_cast<long>(n)));
    }
    for (size_t i = 0; i < pdu.size(); ++i) {
        for (uint8_t v : {0x00, 0x1F, 0x20, 0x7F, 0x80, 0xFF}) {
            Bytes m = pdu;
            m[i] = v;
            parseAndTake(m);
        }
    }
    out.Restore();
    err.Restore();
    /* Every forward is a well-formed indication of at most 256 bytes. */
    std::vector<Bytes> msgs = locsvc::SplitBpFrames(sent);
    EXPECT_GT(msgs.size(), 0u);
    for (const Bytes &m : msgs) {
        ASSERT_GE(m.size(), 7u);
        EXPECT_LE(m.size(), 7u + 256u);
    }
    LAPI_traceEnabled = 1;
}

/* ------------------------------------------------------------------------ */
/* Push indication                                                           */
/* ------------------------------------------------------------------------ */

TEST_F(WspPush, PushIndicationIsFramedWithPairZeroAndNetworkOrderLength) {
    Bytes content(300, 0);
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<uint8_t>(i);
    }
    lapitest::StderrCapture err;
    EXPECT_EQ(SendWapPushIndicator(content.data(), static_cast<uint32_t>(content.size())), 0);
    Bytes raw = h_.BpRaw();
    ASSERT_EQ(raw.size(), 3u + 7u + 300u + 2u);
    EXPECT_EQ(raw[0], 0x50);
    EXPECT_EQ(raw[1], 0x01);
    EXPECT_EQ(raw[2], 0x38); /* 312: 7 + 300 + 5 */
    EXPECT_EQ(Bytes(raw.begin() + 3, raw.begin() + 10), (Bytes{0x10, 0, 0, 0, 0, 0x01, 0x2C}));
    EXPECT_EQ(raw[raw.size() - 2], 0xCF);
    EXPECT_EQ(raw[raw.size() - 1], 0xB0);
    EXPECT_TRUE(err.HasTrace("Enter SendWapPushIndicator"));
    /* The BP tracer has no entry for the push indication. */
    EXPECT_TRUE(err.HasError("No log procedure for BP Msg ID: 0x10!"));
}

TEST_F(WspPush, PushIndicationWithoutChannelReusesTheSocketWording) {
    DestroyFdops(LAPI_SRV_pMuxFdops);
    LAPI_SRV_pMuxFdops = nullptr;
    lapitest::StderrCapture err;
    EXPECT_EQ(SendWapPushIndicator(kSuplBody.data(), static_cast<uint32_t>(kSuplBody.size())), -1);
    EXPECT_TRUE(err.HasError("Fail to send socket response to BP!"));
}

TEST_F(WspPush, PushIndicationLargerThanAFrameIsRefused) {
    Bytes content(LAPI_BP_MSG_MAX_LEN, 1);
    lapitest::StderrCapture err;
    EXPECT_EQ(SendWapPushIndicator(content.data(), static_cast<uint32_t>(content.size())), -1);
    EXPECT_TRUE(err.HasError("Fail to send socket response to BP!"));
    EXPECT_TRUE(h_.BpRaw().empty());
}

/* ------------------------------------------------------------------------ */
/* Telephony read procedure                                                  */
/* ------------------------------------------------------------------------ */

namespace {

/* The telephony descriptor as a pipe: the server reads the one end, the
 * test writes records into the other. */
class TapiIntake : public ::testing::Test {
  protected:
    void SetUp() override {
        LAPI_traceEnabled = 1;
        ASSERT_TRUE(root_.ok());
        cfgPath_ = root_.Path("/zel_agps.cfg");
        savedCfg_ = LAPI_SRV_cfgFile;
        LAPI_SRV_cfgFile = cfgPath_.c_str();
        int p[2];
        ASSERT_EQ(pipe2(p, O_NONBLOCK | O_CLOEXEC), 0);
        writer_ = p[1];
        pFdops_ = LAPI_SRV_NewFdops(p[0], TAPI_MSG_HDR_LEN, 0, LAPI_SRV_ReadTApiMsg, nullptr,
                                    LAPI_SRV_CloseFdops);
        ASSERT_NE(pFdops_, nullptr);
        LAPI_SRV_tapiSkip = 0;
    }
    void TearDown() override {
        if (pFdops_ != nullptr) {
            DestroyFdops(pFdops_);
        }
        close(writer_);
        LAPI_SRV_cfgFile = savedCfg_;
        LAPI_SRV_tapiSkip = 0;
    }

    void Write(const Bytes &b) {
        ASSERT_EQ(write(writer_, b.data(), b.size()), static_cast<ssize_t>(b.size()));
    }
    /* One readiness of the descriptor. */
    void Read() { LAPI_SRV_ReadTApiMsg(pFdops_); }

    lapitest::TempRoot root_;
    std::string cfgPath_;
    const char *savedCfg_ = nullptr;
    int writer_ = -1;
    Fdops *pFdops_ = nullptr;
    Harness h_;
};

Bytes SmsPush(const Bytes &pdu, uint16_t port = 2948, const std::string &from = "+15550100") {
    return lapipush::TapiRecord(TAPI_SMS_PORT_MSGID, lapipush::SmsPortBody(pdu, port, from));
}

}  // namespace

TEST_F(TapiIntake, SmsPortPushFromAnySenderIsForwardedWhateverWAPPushSendingNumberSays) {
    ASSERT_TRUE(root_.WriteFile("/zel_agps.cfg", "WAPPushSendingNumber = 12345\n"));
    Bytes pdu = lapipush::SuplInitPush(kSuplBody);
    for (const char *from : {"+4912345", "+999", ""}) {
        Write(SmsPush(pdu, 2948, from));
        lapitest::StderrCapture err;
        StdoutCapture out;
        Read();
        out.Restore();
        EXPECT_TRUE(err.HasTrace("WAPPushSendingNumber = 12345"));
        EXPECT_TRUE(err.HasTrace(std::string("source address of port SMS is ") + from));
        EXPECT_TRUE(err.HasTrace("recv tapi msg len:" + std::to_string(114 + pdu.size())));
        EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)}) << from;
        EXPECT_EQ(pFdops_->rbuf.idx, 0);
    }
}

TEST_F(TapiIntake, MissingSendingNumberIsTracedAsNull) {
    Write(SmsPush(lapipush::SuplInitPush(kSuplBody)));
    lapitest::StderrCapture err;
    StdoutCapture out;
    Read();
    EXPECT_TRUE(err.HasTrace("WAPPushSendingNumber = (null)"));
    EXPECT_EQ(h_.BpMsgs().size(), 1u);
}

TEST_F(TapiIntake, SmsForAnotherPortIsIgnored) {
    Write(SmsPush(lapipush::SuplInitPush(kSuplBody), 2949));
    lapitest::StderrCapture err;
    Read();
    EXPECT_TRUE(err.HasTrace("Enter ParseTApiMsg"));
    EXPECT_FALSE(err.HasTrace("Enter ParseWAPPushMsg"));
    EXPECT_TRUE(h_.BpMsgs().empty());
    EXPECT_EQ(pFdops_->rbuf.idx, 0);
}

TEST_F(TapiIntake, HeaderWhoseBodyHasNotFullyArrivedIsKeptUntilEnoughBytes) {
    Bytes rec = SmsPush(lapipush::SuplInitPush(kSuplBody));
    Write(Bytes(rec.begin(), rec.begin() + 8 + 50));
    {
        lapitest::StderrCapture err;
        Read();
        EXPECT_TRUE(err.HasError("dataLen is not enough!"));
        Read();
        EXPECT_EQ(err.Errors().size(), 2u);
    }
    EXPECT_EQ(pFdops_->rbuf.idx, 8);
    EXPECT_TRUE(h_.BpMsgs().empty());
    Write(Bytes(rec.begin() + 8 + 50, rec.end()));
    StdoutCapture out;
    Read();
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
    EXPECT_EQ(pFdops_->rbuf.idx, 0);
}

TEST_F(TapiIntake, IncompleteHeaderWaitsForTheRest) {
    Bytes rec = SmsPush(lapipush::SuplInitPush(kSuplBody));
    Write(Bytes(rec.begin(), rec.begin() + 5));
    {
        lapitest::StderrCapture err;
        Read();
        EXPECT_TRUE(err.HasError("not a complete msg!"));
    }
    EXPECT_EQ(pFdops_->rbuf.idx, 5);
    Write(Bytes(rec.begin() + 5, rec.end()));
    StdoutCapture out;
    Read();
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
}

TEST_F(TapiIntake, OtherTelephonyMessageIdIsTracedAndIgnored) {
    Write(lapipush::TapiRecord(0x0401, lapipush::SmsPortBody(lapipush::SuplInitPush(kSuplBody))));
    Write(lapipush::TapiRecord(0x0302, {}));
    lapitest::StderrCapture err;
    Read();
    Read();
    EXPECT_TRUE(err.HasTrace("recv other tapi msg id : 1025"));
    EXPECT_TRUE(err.HasTrace("recv other tapi msg id : 770"));
    EXPECT_FALSE(err.HasTrace("Enter ParseWAPPushMsg"));
    EXPECT_TRUE(h_.BpMsgs().empty());
    /* The stream stays in step: a push after them is forwarded. */
    Write(SmsPush(lapipush::SuplInitPush(kSuplBody)));
    StdoutCapture out;
    Read();
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
}

TEST_F(TapiIntake, BodyLengthThatCanNeverArriveIsDroppedAndTheStreamStaysInStep) {
    ASSERT_EQ(fcntl(writer_, F_SETPIPE_SZ, 4096), 4096);
    Bytes body(5000, 0xEE);
    Bytes hdr = lapipush::TapiHeader(TAPI_SMS_PORT_MSGID, static_cast<uint16_t>(body.size()));
    Write(hdr);
    Write(Bytes(body.begin(), body.begin() + 3000));
    {
        lapitest::StderrCapture err;
        Read();
        EXPECT_TRUE(
            err.HasError("dataLen: 5000 > 4096 bytes the descriptor can hold, drop the msg!"));
    }
    EXPECT_EQ(pFdops_->rbuf.idx, 0);
    EXPECT_EQ(LAPI_SRV_tapiSkip, 2000u);
    Write(Bytes(body.begin() + 3000, body.end()));
    Write(SmsPush(lapipush::SuplInitPush(kSuplBody)));
    Read(); /* the rest of the refused body */
    EXPECT_EQ(LAPI_SRV_tapiSkip, 0u);
    StdoutCapture out;
    Read();
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
}

TEST_F(TapiIntake, SmsPortBodyTooShortForItsFieldsIsRefused) {
    for (size_t n : {0u, 11u, 60u, 113u}) {
        Write(lapipush::TapiRecord(TAPI_SMS_PORT_MSGID, Bytes(n, 0x31)));
        lapitest::StderrCapture err;
        Read();
        EXPECT_TRUE(err.HasError("SMS port msg body: " + std::to_string(n) + " bytes < 114, drop!"))
            << n;
        EXPECT_EQ(pFdops_->rbuf.idx, 0);
    }
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(TapiIntake, UserDataLengthPastTheBodyIsRefused) {
    Bytes pdu = lapipush::SuplInitPush(kSuplBody);
    Bytes body = lapipush::SmsPortBody(pdu);
    uint16_t lying = static_cast<uint16_t>(pdu.size() + 1);
    memcpy(body.data() + 112, &lying, 2);
    Write(lapipush::TapiRecord(TAPI_SMS_PORT_MSGID, body));
    lapitest::StderrCapture err;
    Read();
    EXPECT_TRUE(err.HasError("user data length: " + std::to_string(lying) + " > " +
                             std::to_string(pdu.size()) + " bytes left in the msg, drop!"));
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(TapiIntake, SourceAddressWithoutTerminatorIsCutAtItsField) {
    Bytes body = lapipush::SmsPortBody(lapipush::SuplInitPush(kSuplBody));
    memset(body.data() + 54, '7', 112 - 54);
    Write(lapipush::TapiRecord(TAPI_SMS_PORT_MSGID, body));
    lapitest::StderrCapture err;
    StdoutCapture out;
    Read();
    EXPECT_TRUE(err.HasTrace("source address of port SMS is " + std::string(58, '7')));
    EXPECT_EQ(h_.BpMsgs().size(), 1u);
}

TEST_F(TapiIntake, MissingBufferIsInvalid) {
    FreeFdBuf(&pFdops_->rbuf);
    lapitest::StderrCapture err;
    Read();
    EXPECT_TRUE(err.HasError("Invalid pdata or buf size!"));
    LAPI_SRV_ReadTApiMsg(nullptr);
    EXPECT_TRUE(err.HasError("Invalid pFdops!"));
}

TEST_F(TapiIntake, ParseTApiMsgWithoutAWholeHeaderIsRefused) {
    lapitest::StderrCapture err;
    EXPECT_EQ(ParseTApiMsg(pFdops_), -1);
    EXPECT_EQ(ParseTApiMsg(nullptr), -1);
    EXPECT_TRUE(err.HasError("Invalid pFdops!"));
}

/* ------------------------------------------------------------------------ */
/* Registration and the telephony stand-in                                   */
/* ------------------------------------------------------------------------ */

TEST(TapiHost, RegisterTAPIClientWatchesTheFifoWithAOneHeaderBuffer) {
    Harness h;
    lapitest::TempRoot root;
    ASSERT_TRUE(root.MakeDirs("/run"));
    ASSERT_EQ(HOST_SetRoot(root.Dir().c_str()), 0);
    uint32_t before = LAPI_SRV_readFdopsList.count;
    lapitest::StderrCapture err;
    ASSERT_EQ(LAPI_SRV_RegisterTAPIClient(), 0);
    EXPECT_TRUE(err.HasTrace("Enter LAPI_SRV_RegisterTAPIClient"));
    ASSERT_EQ(LAPI_SRV_readFdopsList.count, before + 1);
    Fdops *pFdops = static_cast<Fdops *>(LAPI_SRV_readFdopsList.tail->data);
    EXPECT_EQ(pFdops->rbuf.len, TAPI_MSG_HDR_LEN);
    EXPECT_EQ(pFdops->readProc, LAPI_SRV_ReadTApiMsg);
    EXPECT_EQ(pFdops->writeProc, nullptr);
    EXPECT_EQ(pFdops->closeProc, LAPI_SRV_CloseFdops);
    EXPECT_EQ(pFdops->pFdInfo, nullptr);
    EXPECT_NE(fcntl(pFdops->fd, F_GETFL) & O_NONBLOCK, 0);
    struct stat st;
    ASSERT_EQ(stat(root.Path("/run/tapi.fifo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    LAPI_SRV_CloseFdops(pFdops);
    HOST_SetRoot("");
}

TEST(TapiHost, RegisterTAPIClientFailsWithoutItsFolder) {
    lapitest::TempRoot root;
    ASSERT_EQ(HOST_SetRoot(root.Path("/missing").c_str()), 0);
    lapitest::StderrCapture err;
    EXPECT_EQ(LAPI_SRV_RegisterTAPIClient(), -1);
    EXPECT_TRUE(err.HasTrace("Failed to RegisterTapiClient"));
    HOST_SetRoot("");
}

TEST(TapiHost, ReadNFromSocketReadsExactlyNOrFails) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
    ASSERT_EQ(write(p[1], "abcdef", 6), 6);
    char buf[8] = {0};
    EXPECT_EQ(TAPI_ReadNFromSocket(p[0], buf, 4), 0);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_NE(TAPI_ReadNFromSocket(p[0], buf, 4), 0); /* only 2 left */
    EXPECT_EQ(TAPI_SMS_RegisterPortNumber(2948, 1), 0);
    EXPECT_EQ(TAPI_SMS_DeregisterPortNumber(2948), 0);
    close(p[0]);
    close(p[1]);
}

/* ------------------------------------------------------------------------ */
/* UDP intake                                                                */
/* ------------------------------------------------------------------------ */

namespace {

class UdpIntake : public ::testing::Test {
  protected:
    void SetUp() override {
        LAPI_traceEnabled = 1;
        savedPort_ = LAPI_SRV_pushPort;
        port_ = lapitest::PickFreeUdpPort();
        ASSERT_NE(port_, 0);
        LAPI_SRV_pushPort = static_cast<unsigned short>(port_);
    }
    void TearDown() override {
        if (pFdops_ != nullptr) {
            DestroyFdops(pFdops_);
        }
        LAPI_SRV_pushPort = savedPort_;
    }
    /* Starts the server's UDP intake and finds its Fdops. */
    void Start() {
        uint32_t before = LAPI_SRV_readFdopsList.count;
        ASSERT_EQ(LAPI_SRV_InitIPServer(), 0);
        ASSERT_EQ(LAPI_SRV_readFdopsList.count, before + 1);
        pFdops_ = static_cast<Fdops *>(LAPI_SRV_readFdopsList.tail->data);
    }
    void Send(const Bytes &b) {
        std::string error;
        ASSERT_TRUE(lapipush::SendUdp(port_, b, &error)) << error;
    }
    /* One readiness, once the datagram is there. */
    void ReadWhenReady() {
        for (int i = 0; i < 200 && LAPI_BytesInSocket(pFdops_->fd) <= 0; ++i) {
            usleep(5000);
        }
        LAPI_SRV_ReadIPMsg(pFdops_);
    }

    Harness h_;
    unsigned short savedPort_ = 0;
    int port_ = 0;
    Fdops *pFdops_ = nullptr;
};

}  // namespace

TEST_F(UdpIntake, DatagramPushIsForwarded) {
    Start();
    EXPECT_EQ(pFdops_->rbuf.len, 1024);
    EXPECT_EQ(pFdops_->readProc, LAPI_SRV_ReadIPMsg);
    Send(lapipush::SuplInitPush(kSuplBody));
    lapitest::StderrCapture err;
    StdoutCapture out;
    ReadWhenReady();
    EXPECT_TRUE(err.HasTrace("Error is 0, Success"));
    EXPECT_TRUE(err.HasTrace("Start to parse WAP Push message 47"));
    EXPECT_EQ(h_.BpMsgs(), std::vector<Bytes>{Indication(kSuplBody)});
    EXPECT_EQ(pFdops_->rbuf.idx, 0);
}

TEST_F(UdpIntake, NonPushDatagramIsDroppedWithBothDiagnostics) {
    Start();
    Send(Push(Text("a/b"), kSuplBody, 0x07));
    lapitest::StderrCapture err;
    ReadWhenReady();
    EXPECT_TRUE(err.HasTrace("it is not a wap push msg for supl init!"));
    EXPECT_TRUE(err.HasError("Fail to process message for pFdops!"));
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(UdpIntake, DatagramLargerThan1024BytesIsCutTo1024) {
    Start();
    Send(lapipush::SuplInitPush(Bytes(1500, 0x11)));
    lapitest::StderrCapture err;
    ReadWhenReady();
    EXPECT_TRUE(err.HasTrace("Start to parse WAP Push message 1024"));
    /* Cut, its body is still longer than the content buffer. */
    EXPECT_TRUE(err.HasError("push content: 986 bytes > buffer: 256 bytes, drop!"));
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(UdpIntake, FailedRecvfromIsNotPassedOnAsA16BitLength) {
    Start();
    lapitest::StderrCapture err;
    LAPI_SRV_ReadIPMsg(pFdops_); /* nothing there: EAGAIN */
    bool bEagain = false;
    for (const std::string &t : err.Traces()) {
        bEagain = bEagain || t.rfind("Error is 11, ", 0) == 0;
    }
    EXPECT_TRUE(bEagain);
    EXPECT_TRUE(err.HasError("recvfrom failed, no push to parse!"));
    EXPECT_FALSE(err.HasTrace("Enter ParseWAPPushMsg"));
    EXPECT_EQ(pFdops_->rbuf.idx, 0);
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(UdpIntake, EmptyDatagramIsNotAPush) {
    Start();
    Send({});
    lapitest::StderrCapture err;
    for (int i = 0; i < 200; ++i) {
        /* An empty datagram reads as 0 bytes pending: wait by polling. */
        pollfd pfd{pFdops_->fd, POLLIN, 0};
        if (poll(&pfd, 1, 10) > 0) {
            break;
        }
    }
    LAPI_SRV_ReadIPMsg(pFdops_);
    EXPECT_TRUE(err.HasTrace("Start to parse WAP Push message 0"));
    EXPECT_TRUE(err.HasTrace("it is not a wap push msg for supl init!"));
    EXPECT_TRUE(h_.BpMsgs().empty());
}

TEST_F(UdpIntake, BindFailureOfThePushPortIsReportedAndNotFatal) {
    int holder = lapitest::BindUdpPort(port_);
    ASSERT_GE(holder, 0);
    uint32_t before = LAPI_SRV_readFdopsList.count;
    lapitest::StderrCapture err;
    EXPECT_NE(LAPI_SRV_InitIPServer(), 0);
    EXPECT_TRUE(err.HasTrace("bind operation failed, nRet is -1,"));
    EXPECT_NE(err.Text().find("\n error is Address already in use!\n"), std::string::npos);
    EXPECT_TRUE(err.HasTrace("Failed to init IP server"));
    EXPECT_EQ(LAPI_SRV_readFdopsList.count, before);
    close(holder);
}

TEST_F(UdpIntake, MissingBufferIsReportedAndTheDatagramTakenIntoNothing) {
    Start();
    FreeFdBuf(&pFdops_->rbuf);
    Send(lapipush::SuplInitPush(kSuplBody));
    lapitest::StderrCapture err;
    ReadWhenReady();
    EXPECT_TRUE(err.HasError("Invalid pFdops!"));
    EXPECT_TRUE(err.HasTrace("Start to parse WAP Push message 0"));
    EXPECT_EQ(LAPI_BytesInSocket(pFdops_->fd), 0);
    EXPECT_TRUE(h_.BpMsgs().empty());
}
