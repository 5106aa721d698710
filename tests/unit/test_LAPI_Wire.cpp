/* The shared reader and writer: every getter stops at the end of its bytes,
 * every put at the end of its buffer. */
#include <gtest/gtest.h>

#include <vector>

#include "LAPI_Wire.h"

namespace {

TEST(Reader, ReadsBigEndianFields) {
    const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                             0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
    LAPI_Reader r(bytes, sizeof(bytes));
    uint8_t u8;
    uint16_t u16;
    uint32_t u32;
    uint64_t u64;
    ASSERT_EQ(0, r.GetU8(&u8));
    EXPECT_EQ(0x01, u8);
    ASSERT_EQ(0, r.GetBe16(&u16));
    EXPECT_EQ(0x0203, u16);
    ASSERT_EQ(0, r.GetBe32(&u32));
    EXPECT_EQ(0x04050607u, u32);
    ASSERT_EQ(0, r.GetBe64(&u64));
    EXPECT_EQ(0x08090a0b0c0d0e0full, u64);
    EXPECT_TRUE(r.AtEnd());
    EXPECT_EQ(-1, r.GetU8(&u8));
}

TEST(Reader, FailedGetLeavesCursorAndOutputAlone) {
    const uint8_t bytes[] = {0xAA, 0xBB, 0xCC};
    LAPI_Reader r(bytes, sizeof(bytes));
    uint32_t u32 = 77;
    EXPECT_EQ(-1, r.GetBe32(&u32));
    EXPECT_EQ(77u, u32);
    EXPECT_EQ(3u, r.Left());
}

TEST(Reader, EveryProperPrefixOfAFieldFails) {
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (size_t n = 0; n < 8; ++n) {
        LAPI_Reader r(bytes, n);
        uint64_t v;
        EXPECT_EQ(-1, r.GetBe64(&v)) << n;
        double d;
        EXPECT_EQ(-1, r.GetBpFixed(&d)) << n;
        EXPECT_EQ(n, r.Left());
    }
}

TEST(Reader, UintvarTruncationEveryProperPrefixFails) {
    const uint8_t bytes[] = {0x81, 0x80, 0x80, 0x01};
    for (size_t n = 0; n < sizeof(bytes); ++n) {
        LAPI_Reader r(bytes, n);
        uint32_t v = 0;
        int count = 0;
        EXPECT_EQ(-1, r.GetUintvar(&v, &count)) << n;
        EXPECT_EQ(n, r.Left());
    }
    LAPI_Reader r(bytes, sizeof(bytes));
    uint32_t v = 0;
    int count = 0;
    ASSERT_EQ(0, r.GetUintvar(&v, &count));
    EXPECT_EQ(4, count);
    EXPECT_EQ((1u << 21) | 1u, v);
}

TEST(Reader, UintvarHasNoByteLimitButStopsAtEnd) {
    /* Seven continuation bytes: the decoder keeps going (the value wraps in
     * 32 bits) instead of refusing a uintvar longer than five bytes. */
    const uint8_t bytes[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F};
    LAPI_Reader r(bytes, sizeof(bytes));
    uint32_t v = 0;
    int count = 0;
    ASSERT_EQ(0, r.GetUintvar(&v, &count));
    EXPECT_EQ(8, count);
    EXPECT_EQ(0xFFFFFFFFu, v);
}

TEST(Reader, DerLengthForms) {
    struct Row {
        const char *legend;
        std::vector<uint8_t> bytes;
        int rc;
        uint32_t length;
        int count;
    };
    const Row rows[] = {
        {"short form", {0x05}, 0, 5, 1},
        {"short form maximum", {0x7F}, 0, 127, 1},
        {"one length octet", {0x81, 0xC8}, 0, 200, 2},
        {"two length octets", {0x82, 0x01, 0x00}, 0, 256, 3},
        {"indefinite refused", {0x80}, -1, 0, 0},
        {"three length octets refused", {0x83, 0x01, 0x00, 0x00}, -1, 0, 0},
        {"one length octet cut off", {0x81}, -1, 0, 0},
        {"two length octets cut off", {0x82, 0x01}, -1, 0, 0},
        {"nothing at all", {}, -1, 0, 0},
    };
    for (const Row &row : rows) {
        LAPI_Reader r(row.bytes.data(), row.bytes.size());
        uint32_t length = 0;
        int count = 0;
        EXPECT_EQ(row.rc, r.GetDerLength(&length, &count)) << row.legend;
        if (row.rc == 0) {
            EXPECT_EQ(row.length, length) << row.legend;
            EXPECT_EQ(row.count, count) << row.legend;
        } else {
            EXPECT_EQ(row.bytes.size(), r.Left()) << row.legend;
        }
    }
}

TEST(Reader, SpansSkipsAndSubReadersStayInside) {
    const uint8_t bytes[] = {1, 2, 3, 4, 5};
    LAPI_Reader r(bytes, sizeof(bytes));
    LAPI_Reader sub;
    ASSERT_EQ(0, r.Sub(3, &sub));
    EXPECT_EQ(3u, sub.Left());
    EXPECT_EQ(-1, sub.Skip(4));
    const uint8_t *p = nullptr;
    ASSERT_EQ(0, sub.GetSpan(&p, 3));
    EXPECT_EQ(bytes, p);
    EXPECT_EQ(-1, r.Sub(3, &sub));
    EXPECT_EQ(0, r.Skip(2));
    EXPECT_TRUE(r.AtEnd());
}

TEST(Writer, PutsBigEndianAndRefusesWhatDoesNotFit) {
    uint8_t buf[7] = {};
    LAPI_Writer w(buf, sizeof(buf));
    ASSERT_EQ(0, w.PutU8(0x11));
    ASSERT_EQ(0, w.PutBe16(0x2233));
    ASSERT_EQ(0, w.PutBe32(0x44556677));
    EXPECT_EQ(-1, w.PutU8(0x88));
    EXPECT_EQ(7u, w.Size());
    const uint8_t want[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    EXPECT_EQ(0, memcmp(want, buf, sizeof(want)));
}

TEST(Writer, FailedPutWritesNothing) {
    uint8_t buf[4] = {9, 9, 9, 9};
    LAPI_Writer w(buf, 3);
    EXPECT_EQ(-1, w.PutBe32(0));
    EXPECT_EQ(-1, w.PutBytes("abcd", 4));
    EXPECT_EQ(-1, w.PutZeros(4));
    EXPECT_EQ(0u, w.Size());
    EXPECT_EQ(9, buf[0]);
    EXPECT_EQ(9, buf[3]);
}

TEST(Writer, FixedPointRoundTripsThroughTheReader) {
    uint8_t buf[8];
    LAPI_Writer w(buf, sizeof(buf));
    ASSERT_EQ(0, w.PutBpFixed(-33.75));
    LAPI_Reader r(buf, sizeof(buf));
    double d = 0;
    ASSERT_EQ(0, r.GetBpFixed(&d));
    EXPECT_NEAR(-33.75, d, 1.0 / 8388608);
}

}  // namespace
