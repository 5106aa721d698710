/*
 * BP fixed point, shared by the server, the client library and the tools
 * that play the BP: reals travel as 8-byte big-endian signed integers with
 * 23 fraction bits.
 */
#include <math.h>
#include <stdint.h>

#include "LAPI_BpMsg.h"

void LAPI_SRV_DoubleToBpFixed(double x, uint8_t *pOut) {
    if (pOut == nullptr) {
        return;
    }
    double scaled = x * LAPI_BP_FIXED_SCALE;
    int64_t n;
    /* 2^63 is exact in a double; anything at or beyond it, or NaN, has no
     * 64-bit value and would make the conversion undefined. */
    if (isnan(scaled)) {
        n = 0;
    } else if (scaled >= 9223372036854775808.0) {
        n = INT64_MAX;
    } else if (scaled < -9223372036854775808.0) {
        n = INT64_MIN;
    } else {
        n = static_cast<int64_t>(scaled); /* truncation toward zero */
    }
    LAPI_BpPutU64(pOut, static_cast<uint64_t>(n));
}

double LAPI_SRV_BpFixedToDouble(const uint8_t *pIn) {
    if (pIn == nullptr) {
        return 0.0;
    }
    int64_t n = static_cast<int64_t>(LAPI_BpGetU64(pIn));
    return (static_cast<double>(n) + 0.5) / LAPI_BP_FIXED_SCALE;
}
