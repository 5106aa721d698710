/*
 * The text of one trace line, built field by field by the message tracers
 * (client messages on both sides, BP messages in the server) in a bounded
 * buffer of their own. Every append is cut, never written past the
 * buffer: a length field that lies makes a shorter line, not an overrun.
 * The text stays terminated after every append.
 */
#ifndef LAPI_TRACETEXT_H
#define LAPI_TRACETEXT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "LAPI_LogFmt.h"
#include "LAPI_SrvCli.h"

template <int kSize>
struct LAPI_TraceText {
    static_assert(kSize > static_cast<int>(lapi_fmt::kNumRoom));

    char text[kSize];
    int len;

    void Clear() {
        text[0] = '\0';
        len = 0;
    }

    /* Copies n characters of str; cut when the line is full. */
    void Append(const char *str, size_t n) {
        int room = kSize - len;
        if (room <= 1) {
            return;
        }
        if (n > static_cast<size_t>(room - 1)) {
            n = static_cast<size_t>(room - 1);
        }
        memcpy(text + len, str, n);
        len += static_cast<int>(n);
        text[len] = '\0';
    }

    /* A string literal: its length is known without counting. */
    template <size_t N>
    void Append(const char (&str)[N]) {
        Append(str, N - 1);
    }

    /* A string whose length must be counted. */
    void AppendCStr(const char *str) { Append(str, strlen(str)); }

    /* One number, formatted by fmt (one of lapi_fmt's), cut as text is. */
    template <typename Fmt, typename T>
    void AppendNum(Fmt fmt, T value) {
        char num[lapi_fmt::kNumRoom];
        char *end = fmt(num, value);
        Append(num, static_cast<size_t>(end - num));
    }

    /* "%d" */
    void AppendInt(int value) { AppendNum(lapi_fmt::Int, value); }

    /* "%u" */
    void AppendUInt(unsigned value) { AppendNum(lapi_fmt::UInt, value); }

    /* "0x" + two digits per byte in wire order + ", ", left out whole when
     * it would not fit. An empty field (no NMEA data, no name, no address)
     * goes to LAPI_FormatHexStr all the same: its error line tells that the
     * field was empty, and it adds nothing. */
    void AppendHex(const void *pData, int length, uint8_t side) {
        if (length > 0 && 2 * length + 5 > kSize - len) {
            return;
        }
        len += LAPI_FormatHexStr(pData, length, text + len, side);
    }

    /* Where a writer of a known short text (a message header) puts it; the
     * caller keeps to the room it was promised and adds what it wrote. */
    char *End() { return text + len; }
};

#endif /* LAPI_TRACETEXT_H */
