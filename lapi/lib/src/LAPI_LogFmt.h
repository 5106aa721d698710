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
#include <stdio.h>
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
    if (biased == 0x7ff) {
        return nullptr; /* inf, nan: left to the general path */
    }
    if (biased == 0 && m == 0) {
        static constexpr char kZero[] = "0.000000000000000000000000000000e+00";
        if (bits >> 63) {
            *p++ = '-';
        }
        memcpy(p, kZero, sizeof(kZero) - 1);
        return p + sizeof(kZero) - 1;
    }
    int e = biased == 0 ? -1074 : biased - 1075;
    if (biased != 0) {
        m |= uint64_t{1} << 52;
    }
    int tz = __builtin_ctzll(m);
    m >>= tz;
    e += tz;
    /* v = m * 2^e = D / 10^scale with D = m * 5^-e (e < 0) or m * 2^e. D
     * is worked in limbs of nine digits, with 64-bit products only (no
     * 128-bit division, which would need the compiler's support library). */
    char digits[48];
    char *end;
    int scale = 0;
    if (e >= 0) {
        if (e >= 64 || (m >> (63 - e)) != 0) {
            return nullptr;
        }
        end = std::to_chars(digits, digits + sizeof(digits), m << e).ptr;
    } else {
        if (e < -27) {
            return nullptr; /* 5^27 is the last power of 5 below 2^63 */
        }
        scale = -e;
        constexpr uint64_t kBillion = 1000000000;
        uint64_t f = kPow5[static_cast<size_t>(scale)];
        uint64_t m1 = m / kBillion; /* < 2^53 / 10^9 */
        uint64_t m0 = m % kBillion;
        uint64_t f1 = f / kBillion; /* < 2^63 / 10^9 */
        uint64_t f0 = f % kBillion;
        uint64_t low = m0 * f0;           /* < 10^18 */
        uint64_t mid = m1 * f0 + m0 * f1; /* < 9.1e15 + 9.3e18 */
        mid += low / kBillion;
        uint64_t high = m1 * f1 + mid / kBillion; /* < 8.5e16 */
        uint32_t limb1 = static_cast<uint32_t>(mid % kBillion);
        uint32_t limb0 = static_cast<uint32_t>(low % kBillion);
        end = digits;
        if (high != 0) {
            end = std::to_chars(digits, digits + 20, high).ptr;
        }
        const uint32_t limbs[2] = {limb1, limb0};
        for (int i = 0; i < 2; ++i) {
            uint32_t limb = limbs[i];
            if (end == digits) {
                /* No digit yet: no leading zeros (D is never 0). */
                if (limb != 0 || i == 1) {
                    end = std::to_chars(digits, digits + 10, limb).ptr;
                }
                continue;
            }
            char nine[10];
            char *nineEnd = std::to_chars(nine, nine + sizeof(nine), limb).ptr;
            size_t n = static_cast<size_t>(nineEnd - nine);
            memset(end, '0', 9 - n);
            memcpy(end + (9 - n), nine, n);
            end += 9;
        }
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

/* "%.30e". What the exact path does not take (reals that need rounding,
 * inf, nan) goes to snprintf itself: the double overload of to_chars would
 * bring the whole shared C++ library into the server, some 100 kB of
 * private memory, for values the BP never sends. */
inline char *Sci30(char *p, double v) {
    char *end = Sci30Exact(p, v);
    if (end != nullptr) {
        return end;
    }
    int n = snprintf(p, kNumRoom, "%.30e", v);
    return p + (n > 0 ? (static_cast<size_t>(n) < kNumRoom ? n : kNumRoom - 1) : 0);
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
