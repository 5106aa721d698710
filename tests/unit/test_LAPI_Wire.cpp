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

/* One getter of the reader, applied to whatever the reader holds. */
struct Getter {
    const char *name;
    size_t width; /* bytes of a whole field */
    int (*get)(LAPI_Reader *pR);
};

const Getter kGetters[] = {
    {"GetU8", 1,
     [](LAPI_Reader *r) {
         uint8_t v;
         return r->GetU8(&v);
     }},
    {"PeekU8", 1,
     [](LAPI_Reader *r) {
         uint8_t v;
         return r->PeekU8(&v);
     }},
    {"GetBe16", 2,
     [](LAPI_Reader *r) {
         uint16_t v;
         return r->GetBe16(&v);
     }},
    {"GetBe32", 4,
     [](LAPI_Reader *r) {
         uint32_t v;
         return r->GetBe32(&v);
     }},
    {"GetBeI32", 4,
     [](LAPI_Reader *r) {
         int32_t v;
         return r->GetBeI32(&v);
     }},
    {"GetBe64", 8,
     [](LAPI_Reader *r) {
         uint64_t v;
         return r->GetBe64(&v);
     }},
    {"GetHost16", 2,
     [](LAPI_Reader *r) {
         uint16_t v;
         return r->GetHost16(&v);
     }},
    {"GetHost32", 4,
     [](LAPI_Reader *r) {
         uint32_t v;
         return r->GetHost32(&v);
     }},
    {"GetBpFixed", 8,
     [](LAPI_Reader *r) {
         double v;
         return r->GetBpFixed(&v);
     }},
    {"GetBytes", 5,
     [](LAPI_Reader *r) {
         uint8_t v[5];
         return r->GetBytes(v, sizeof(v));
     }},
    {"GetSpan", 5,
     [](LAPI_Reader *r) {
         const uint8_t *v;
         return r->GetSpan(&v, 5);
     }},
    {"GetBeN", 3,
     [](LAPI_Reader *r) {
         uint64_t v;
         return r->GetBeN(3, &v);
     }},
    {"GetReversed", 5,
     [](LAPI_Reader *r) {
         uint8_t v[5];
         return r->GetReversed(v, sizeof(v));
     }},
    {"Skip", 5, [](LAPI_Reader *r) { return r->Skip(5); }},
    {"Sub", 5,
     [](LAPI_Reader *r) {
         LAPI_Reader v;
         return r->Sub(5, &v);
     }},
};

TEST(Reader, EveryGetterFailsOnEveryProperPrefixAndLeavesTheCursor) {
    const uint8_t bytes[8] = {0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87};
    for (const Getter &g : kGetters) {
        for (size_t n = 0; n < g.width; ++n) {
            LAPI_Reader r(bytes, n);
            EXPECT_EQ(-1, g.get(&r)) << g.name << " on " << n << " bytes";
            EXPECT_EQ(n, r.Left()) << g.name;
            EXPECT_EQ(bytes, r.Pos()) << g.name;
        }
        LAPI_Reader whole(bytes, g.width);
        EXPECT_EQ(0, g.get(&whole)) << g.name;
    }
}

TEST(Reader, GetBeNReadsOneToEightBytesAndRefusesNine) {
    const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09};
    uint64_t v = 0;
    LAPI_Reader zero(bytes, sizeof(bytes));
    ASSERT_EQ(0, zero.GetBeN(0, &v));
    EXPECT_EQ(0u, v);
    EXPECT_EQ(sizeof(bytes), zero.Left());
    LAPI_Reader three(bytes, sizeof(bytes));
    ASSERT_EQ(0, three.GetBeN(3, &v));
    EXPECT_EQ(0x010203u, v);
    LAPI_Reader eight(bytes, sizeof(bytes));
    ASSERT_EQ(0, eight.GetBeN(8, &v));
    EXPECT_EQ(0x0102030405060708ull, v);
    LAPI_Reader nine(bytes, sizeof(bytes));
    v = 77;
    EXPECT_EQ(-1, nine.GetBeN(9, &v));
    EXPECT_EQ(77u, v);
    EXPECT_EQ(sizeof(bytes), nine.Left());
}

TEST(Reader, GetReversedTurnsABigEndianNumberIntoHostOrder) {
    const uint8_t bytes[] = {0x11, 0x22, 0x33, 0x44};
    LAPI_Reader r(bytes, sizeof(bytes));
    uint8_t out[3] = {0, 0, 0};
    ASSERT_EQ(0, r.GetReversed(out, 3));
    EXPECT_EQ(0x33, out[0]);
    EXPECT_EQ(0x22, out[1]);
    EXPECT_EQ(0x11, out[2]);
    EXPECT_EQ(1u, r.Left());
    EXPECT_EQ(-1, r.GetReversed(out, 2));
    EXPECT_EQ(0x33, out[0]) << "a refused read leaves the output alone";
    EXPECT_EQ(1u, r.Left());
}

TEST(Reader, DerLengthEveryProperPrefixFails) {
    const uint8_t longForm[] = {0x82, 0x01, 0x00};
    for (size_t n = 0; n < sizeof(longForm); ++n) {
        LAPI_Reader r(longForm, n);
        uint32_t length = 7;
        int count = 0;
        EXPECT_EQ(-1, r.GetDerLength(&length, &count)) << n;
        EXPECT_EQ(7u, length);
        EXPECT_EQ(n, r.Left());
    }
}

/* The push decoder reads a header value length of 31 as a uintvar that
 * starts at the 31 byte itself: one byte, value 31. */
TEST(Reader, ThirtyOneReadAsUintvarIsOneByteOfValue31) {
    const uint8_t bytes[] = {31, 0x85, 0x01};
    LAPI_Reader r(bytes, sizeof(bytes));
    uint32_t v = 0;
    int count = 0;
    ASSERT_EQ(0, r.GetUintvar(&v, &count));
    EXPECT_EQ(31u, v);
    EXPECT_EQ(1, count);
    EXPECT_EQ(2u, r.Left());
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
