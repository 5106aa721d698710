/*
 * Numbers and bytes as text for the message tracers, without printf: the
 * tracers write every line of every message, so each field costs what a
 * copy costs. The output equals what printf gives for the conversions
 * named below (the unit tests compare them over large samples).
 */
#ifndef LAPI_LOGFMT_H
#define LAPI_LOGFMT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <array>
#include <charconv>

namespace lapi_fmt {

/* Room that any one number below needs: "%.30e" of a double is at most
 * 38 characters ("-1." + 30 digits + "e+308"). */
constexpr size_t kNumRoom = 48;

/* "%d" */
inline char *Int(char *p, int v) {
    return std::to_chars(p, p + kNumRoom, v).ptr;
}

/* "%u" */
inline char *UInt(char *p, unsigned v) {
    return std::to_chars(p, p + kNumRoom, v).ptr;
}

/* 5^0 .. 5^27: the powers of five that fit 63 bits. */
inline constexpr std::array<uint64_t, 28> kPow5 = [] {
    std::array<uint64_t, 28> t{};
    t[0] = 1;
    for (size_t i = 1; i < t.size(); ++i) {
        t[i] = t[i - 1] * 5;
    }
    return t;
}();

/* "%.30e" of a double that is an exact decimal of at most 31 significant
 * digits, as every real the BP sends is ((N + 0.5) / 2^23 has at most 23
 * fraction digits): the digits come from one integer product, with no
 * rounding to do. nullptr when v is not such a number. */
inline char *Sci30Exact(char *p, double v) {
    uint64_t bits;
    memcpy(&bits, &v, sizeof(bits));
    int biased = static_cast<int>((bits >> 52) & 0x7ff);
    uint64_t m = bits & ((uint64_t{1} << 52) - 1);
    if (biased == 0x7ff || (biased == 0 && m == 0)) {
        return nullptr; /* inf, nan, zero: left to the general path */
    }
    int e = biased == 0 ? -1074 : biased - 1075;
    if (biased != 0) {
        m |= uint64_t{1} << 52;
    }
    int tz = __builtin_ctzll(m);
    m >>= tz;
    e += tz;
    /* v = m * 2^e = D / 10^scale with D = m * 5^-e (e < 0) or m * 2^e. */
    unsigned __int128 d;
    int scale = 0;
    if (e >= 0) {
        if (e > 127 - 53) {
            return nullptr;
        }
        d = static_cast<unsigned __int128>(m) << e;
    } else {
        if (e < -27) {
            return nullptr; /* 5^27 is the last power of 5 below 2^63 */
        }
        d = static_cast<unsigned __int128>(m) * kPow5[-e]; /* < 2^53 * 2^63 */
        scale = -e;
    }
    /* The decimal digits of D. */
    char digits[48];
    char *end;
    constexpr uint64_t kTen19 = 10000000000000000000ULL;
    if (d <= UINT64_MAX) {
        end = std::to_chars(digits, digits + sizeof(digits), static_cast<uint64_t>(d)).ptr;
    } else {
        uint64_t hi = static_cast<uint64_t>(d / kTen19);
        uint64_t lo = static_cast<uint64_t>(d % kTen19);
        end = std::to_chars(digits, digits + sizeof(digits), hi).ptr;
        char low[20];
        char *lowEnd = std::to_chars(low, low + sizeof(low), lo).ptr;
        size_t lowLen = static_cast<size_t>(lowEnd - low);
        memset(end, '0', 19 - lowLen);
        memcpy(end + (19 - lowLen), low, lowLen);
        end += 19;
    }
    int len = static_cast<int>(end - digits);
    if (len > 31) {
        return nullptr; /* would need rounding */
    }
    int exp10 = len - 1 - scale;
    if (bits >> 63) {
        *p++ = '-';
    }
    *p++ = digits[0];
    *p++ = '.';
    memcpy(p, digits + 1, static_cast<size_t>(len - 1));
    memset(p + len - 1, '0', static_cast<size_t>(31 - len));
    p += 30;
    *p++ = 'e';
    *p++ = exp10 < 0 ? '-' : '+';
    int a = exp10 < 0 ? -exp10 : exp10;
    if (a < 10) {
        *p++ = '0';
    }
    return std::to_chars(p, p + 4, a).ptr;
}

/* "%.30e" */
inline char *Sci30(char *p, double v) {
    char *end = Sci30Exact(p, v);
    if (end != nullptr) {
        return end;
    }
    return std::to_chars(p, p + kNumRoom, v, std::chars_format::scientific, 30).ptr;
}

/* Two lower-case hexadecimal digits for every byte value. */
inline constexpr std::array<char, 512> kHexPairs = [] {
    std::array<char, 512> t{};
    const char *digits = "0123456789abcdef";
    for (int i = 0; i < 256; ++i) {
        t[2 * i] = digits[i >> 4];
        t[2 * i + 1] = digits[i & 0x0f];
    }
    return t;
}();

/* "%02x" for each byte, back to back; returns the end. */
inline char *Hex(char *p, const uint8_t *pData, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        memcpy(p, &kHexPairs[2 * pData[i]], 2);
        p += 2;
    }
    return p;
}

/* "%02x " for each byte; returns the end. */
inline char *HexSpaced(char *p, const uint8_t *pData, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        memcpy(p, &kHexPairs[2 * pData[i]], 2);
        p[2] = ' ';
        p += 3;
    }
    return p;
}

}  // namespace lapi_fmt

#endif /* LAPI_LOGFMT_H */
