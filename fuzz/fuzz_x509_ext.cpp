/*
 * The subjectAltName walk. The input is copied into a heap block of exactly
 * its size and handed to check_extensions as the extensions element, so any
 * read past the element is caught at once; an input that is a whole
 * certificate also goes through LAPI_SRV_CheckFQDN, which locates the
 * element itself. The seeds are extensions elements and whole certificates
 * of the kinds the tests make (names, critical, several names, none).
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_X509v3.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    LAPI_traceEnabled = 0;
    if (size > 0xFFFF) {
        return 0; /* no certificate element is longer */
    }
    uint8_t *copy = static_cast<uint8_t *>(malloc(size > 0 ? size : 1));
    if (copy == nullptr) {
        return 0;
    }
    if (size > 0) {
        memcpy(copy, data, size);
    }
    static const char kServerName[] = "supl.example.test";

    int found = 0;
    int r = check_extensions(copy, static_cast<uint32_t>(size), kServerName, &found);
    if (r != 0 && r != -1) {
        abort();
    }
    if (found != 0 && found != 1) {
        abort();
    }

    TLSBuffer certificate = {static_cast<uint32_t>(size), copy};
    r = LAPI_SRV_CheckFQDN(&certificate, kServerName);
    if (r != 0 && r != 4 && r != -1) {
        abort();
    }
    free(copy);
    return 0;
}
