/*
 * The common-name rule. The first input byte chooses what the rest is:
 *   0 - a common name as the certificate library hands it: folded from
 *       two-byte text in an exact-size heap copy, so a read or write past
 *       the name is caught at once;
 *   1 - a whole certificate, checked by LAPI_SRV_CheckSubCommonName against
 *       a fixed server name (extraction, folding, comparison).
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_tls.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    LAPI_traceEnabled = 0;
    if (size < 1 || size > 0xFFFF) {
        return 0;
    }
    uint8_t mode = data[0];
    size_t n = size - 1;
    uint8_t *copy = static_cast<uint8_t *>(malloc(n > 0 ? n : 1));
    if (copy == nullptr) {
        return 0;
    }
    if (n > 0) {
        memcpy(copy, data + 1, n);
    }
    if (mode == 0) {
        uint32_t length = static_cast<uint32_t>(n);
        LAPI_SRV_FoldTwoByteText(copy, &length);
        /* Folding keeps the length or halves it, nothing else. */
        if (length != n && length != n / 2) {
            abort();
        }
    } else {
        TLSBuffer certificate = {static_cast<uint32_t>(n), copy};
        int r = LAPI_SRV_CheckSubCommonName(&certificate, "supl.example.test");
        if (r != 0 && r != 4) {
            abort();
        }
    }
    free(copy);
    return 0;
}
