/*
 * The one way to read and write bytes that came from, or go to, another
 * party: BP messages, client messages, link and telephony records, WAP push
 * PDUs and certificate DER.
 *
 * A LAPI_Reader is a cursor over [p, end). Every getter returns 0 and moves
 * the cursor past what it read, or returns -1 and leaves the cursor (and the
 * output) alone when the value would run past end. Nothing is ever read at
 * or beyond end, so a length taken from the bytes themselves can never make
 * a read leave the buffer.
 *
 * A LAPI_Writer is a cursor over a buffer of fixed capacity with the same
 * convention: a put that does not fit writes nothing and returns -1.
 *
 * Multi-byte BP and DER fields are big-endian; client messages are in host
 * order (GetHost16/GetHost32/PutHost16/PutHost32).
 */
#ifndef LAPI_WIRE_H
#define LAPI_WIRE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* Reals travel to and from the BP as 8-byte big-endian signed integers with
 * 23 fraction bits (declared with the BP message layouts). */
extern "C" {
void LAPI_SRV_DoubleToBpFixed(double x, uint8_t *pOut);
double LAPI_SRV_BpFixedToDouble(const uint8_t *pIn);
}

class LAPI_Reader {
  public:
    LAPI_Reader() : p_(nullptr), end_(nullptr) {}
    LAPI_Reader(const void *pData, size_t length)
        : p_(static_cast<const uint8_t *>(pData)), end_(p_ + (pData != nullptr ? length : 0)) {}
    LAPI_Reader(const uint8_t *p, const uint8_t *end) : p_(p), end_(end >= p ? end : p) {}

    /* Bytes not read yet. */
    size_t Left() const { return static_cast<size_t>(end_ - p_); }
    bool AtEnd() const { return p_ == end_; }
    const uint8_t *Pos() const { return p_; }
    const uint8_t *End() const { return end_; }

    /* The next byte without moving. */
    int PeekU8(uint8_t *pOut) const {
        if (p_ == end_) {
            return -1;
        }
        *pOut = *p_;
        return 0;
    }
    int GetU8(uint8_t *pOut) {
        if (PeekU8(pOut) != 0) {
            return -1;
        }
        ++p_;
        return 0;
    }
    int GetBe16(uint16_t *pOut) {
        uint64_t v;
        if (GetBe(2, &v) != 0) {
            return -1;
        }
        *pOut = static_cast<uint16_t>(v);
        return 0;
    }
    int GetBe32(uint32_t *pOut) {
        uint64_t v;
        if (GetBe(4, &v) != 0) {
            return -1;
        }
        *pOut = static_cast<uint32_t>(v);
        return 0;
    }
    int GetBe64(uint64_t *pOut) { return GetBe(8, pOut); }
    /* Signed views of the same big-endian fields (two's complement). */
    int GetBeI32(int32_t *pOut) {
        uint32_t v;
        if (GetBe32(&v) != 0) {
            return -1;
        }
        *pOut = static_cast<int32_t>(v);
        return 0;
    }
    /* Host-order fields of client messages. */
    int GetHost16(uint16_t *pOut) { return GetBytes(pOut, sizeof(*pOut)); }
    int GetHost32(uint32_t *pOut) { return GetBytes(pOut, sizeof(*pOut)); }
    /* One BP fixed-point real, decoded as the BP link decodes it. */
    int GetBpFixed(double *pOut) {
        if (Left() < 8) {
            return -1;
        }
        *pOut = LAPI_SRV_BpFixedToDouble(p_);
        p_ += 8;
        return 0;
    }
    /* Copies n bytes out. */
    int GetBytes(void *pOut, size_t n) {
        if (Left() < n) {
            return -1;
        }
        if (n > 0) {
            memcpy(pOut, p_, n);
        }
        p_ += n;
        return 0;
    }
    /* A big-endian unsigned number of n bytes (0 to 8). */
    int GetBeN(size_t n, uint64_t *pOut) {
        if (n > sizeof(*pOut)) {
            return -1;
        }
        return GetBe(n, pOut);
    }
    /* Copies n bytes out in reverse order: a big-endian number of any width
     * into host (little-endian) order. */
    int GetReversed(void *pOut, size_t n) {
        if (Left() < n) {
            return -1;
        }
        uint8_t *pDst = static_cast<uint8_t *>(pOut);
        for (size_t i = 0; i < n; ++i) {
            pDst[i] = p_[n - 1 - i];
        }
        p_ += n;
        return 0;
    }
    /* Points *ppOut at the next n bytes (no copy) and moves past them. */
    int GetSpan(const uint8_t **ppOut, size_t n) {
        if (Left() < n) {
            return -1;
        }
        *ppOut = p_;
        p_ += n;
        return 0;
    }
    int Skip(size_t n) {
        if (Left() < n) {
            return -1;
        }
        p_ += n;
        return 0;
    }
    /* A reader over the next n bytes, and this one moved past them. */
    int Sub(size_t n, LAPI_Reader *pOut) {
        if (Left() < n) {
            return -1;
        }
        *pOut = LAPI_Reader(p_, p_ + n);
        p_ += n;
        return 0;
    }

    /* WSP uintvar: big-endian groups of 7 bits, continuation in the top bit.
     * The push decoder puts no limit on the number of bytes (the value simply
     * wraps in 32 bits), but the cursor still stops at end: a uintvar whose
     * continuation bit runs off the end fails. *pCount gets the bytes read. */
    int GetUintvar(uint32_t *pValue, int *pCount) {
        uint32_t value = 0;
        const uint8_t *q = p_;
        for (;;) {
            if (q == end_) {
                return -1;
            }
            uint8_t b = *q++;
            value = (value << 7) | (b & 0x7Fu);
            if ((b & 0x80u) == 0) {
                break;
            }
        }
        *pValue = value;
        if (pCount != nullptr) {
            *pCount = static_cast<int>(q - p_);
        }
        p_ = q;
        return 0;
    }

    /* DER length octets as the certificate check accepts them: one octet
     * below 0x80, 0x81 + one octet, 0x82 + two octets (big-endian). 0x80
     * (indefinite) and 0x83 or more fail, as does a length cut off by end.
     * *pCount gets the number of length octets. The first octet can be
     * looked at with PeekU8 before the call to tell the two failures apart. */
    int GetDerLength(uint32_t *pLength, int *pCount) {
        uint8_t b;
        if (PeekU8(&b) != 0) {
            return -1;
        }
        uint32_t length;
        int count;
        if (b < 0x80) {
            length = b;
            count = 1;
        } else if (b == 0x81 || b == 0x82) {
            count = 1 + (b - 0x80);
            if (Left() < static_cast<size_t>(count)) {
                return -1;
            }
            length = 0;
            for (int i = 1; i < count; ++i) {
                length = (length << 8) | p_[i];
            }
        } else {
            return -1;
        }
        p_ += count;
        *pLength = length;
        if (pCount != nullptr) {
            *pCount = count;
        }
        return 0;
    }

  private:
    int GetBe(size_t n, uint64_t *pOut) {
        if (Left() < n) {
            return -1;
        }
        uint64_t v = 0;
        for (size_t i = 0; i < n; ++i) {
            v = (v << 8) | p_[i];
        }
        p_ += n;
        *pOut = v;
        return 0;
    }

    const uint8_t *p_;
    const uint8_t *end_;
};

class LAPI_Writer {
  public:
    LAPI_Writer(void *pBuf, size_t capacity)
        : start_(static_cast<uint8_t *>(pBuf)),
          p_(start_),
          end_(start_ + (pBuf != nullptr ? capacity : 0)) {}

    /* Bytes written so far, and room left. */
    size_t Size() const { return static_cast<size_t>(p_ - start_); }
    size_t Left() const { return static_cast<size_t>(end_ - p_); }
    uint8_t *Data() const { return start_; }
    uint8_t *Pos() const { return p_; }

    int PutU8(uint8_t v) { return PutBe(1, v); }
    int PutBe16(uint16_t v) { return PutBe(2, v); }
    int PutBe32(uint32_t v) { return PutBe(4, v); }
    int PutBe64(uint64_t v) { return PutBe(8, v); }
    int PutHost16(uint16_t v) { return PutBytes(&v, sizeof(v)); }
    int PutHost32(uint32_t v) { return PutBytes(&v, sizeof(v)); }
    /* One real as BP fixed point (truncated, saturated). */
    int PutBpFixed(double x) {
        if (Left() < 8) {
            return -1;
        }
        LAPI_SRV_DoubleToBpFixed(x, p_);
        p_ += 8;
        return 0;
    }
    int PutBytes(const void *pData, size_t n) {
        if (Left() < n) {
            return -1;
        }
        if (n > 0) {
            memcpy(p_, pData, n);
        }
        p_ += n;
        return 0;
    }
    int PutZeros(size_t n) {
        if (Left() < n) {
            return -1;
        }
        memset(p_, 0, n);
        p_ += n;
        return 0;
    }
    /* Reserves n bytes to be filled later (a length written after its
     * body); *ppOut points at them. */
    int Reserve(size_t n, uint8_t **ppOut) {
        if (Left() < n) {
            return -1;
        }
        *ppOut = p_;
        p_ += n;
        return 0;
    }

  private:
    int PutBe(size_t n, uint64_t v) {
        if (Left() < n) {
            return -1;
        }
        for (size_t i = 0; i < n; ++i) {
            p_[i] = static_cast<uint8_t>(v >> (8 * (n - 1 - i)));
        }
        p_ += n;
        return 0;
    }

    uint8_t *start_;
    uint8_t *p_;
    uint8_t *end_;
};

#endif /* LAPI_WIRE_H */
