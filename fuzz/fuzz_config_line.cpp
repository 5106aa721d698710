/*
 * One configuration line (or piece of one) through find_entry. The input is
 * copied into a heap block of exactly its size plus the terminating zero and
 * the value goes to a heap block of exactly 64 bytes, so any read past the
 * line or write past the value block is caught at once.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_LocationLog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    /* find_entry traces every call; the trace stream would dominate the run. */
    LAPI_traceEnabled = 0;

    char *line = static_cast<char *>(malloc(size + 1));
    char *dst = static_cast<char *>(malloc(LAPI_SRV_CFG_VALUE_SIZE));
    if (line == nullptr || dst == nullptr) {
        free(line);
        free(dst);
        return 0;
    }
    if (size > 0) {
        memcpy(line, data, size);
    }
    line[size] = '\0';

    if (find_entry(line, "LogFileSize", dst) == 1) {
        /* A value was taken: it is zero-terminated inside the block, at least
         * two characters long, and without blanks at either end. */
        size_t len = strnlen(dst, LAPI_SRV_CFG_VALUE_SIZE);
        if (len < 2 || len > LAPI_SRV_CFG_VALUE_MAX_LEN) {
            abort();
        }
    }

    free(line);
    free(dst);
    return 0;
}
