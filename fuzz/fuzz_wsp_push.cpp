/*
 * One WSP push PDU through the decoder. The PDU is copied into a heap block
 * of exactly its size and the content goes to a heap block of exactly the
 * 256 bytes the decoder may fill, so any read past the PDU or write past the
 * content buffer is caught at once.
 */
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_WAPPush.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool bQuiet = false;
    if (!bQuiet) {
        /* The decoder's lines go to standard output: away with them. */
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, 1);
            close(null);
        }
        LAPI_traceEnabled = 0;
        bQuiet = true;
    }
    if (size > UINT16_MAX) {
        return 0; /* the intake hands on at most a 16-bit length */
    }
    uint8_t *pdu = static_cast<uint8_t *>(malloc(size == 0 ? 1 : size));
    uint8_t *content = static_cast<uint8_t *>(malloc(LAPI_SRV_PUSH_CONTENT_SIZE));
    if (pdu == nullptr || content == nullptr) {
        free(pdu);
        free(content);
        return 0;
    }
    if (size > 0) {
        memcpy(pdu, data, size);
    }
    int contentLen = LAPI_SRV_PUSH_CONTENT_SIZE;
    int r = decode_push_pdu(content, &contentLen, pdu, static_cast<int>(size));
    if (r == 0) {
        /* Forwarded: the type byte says push, and the content is the tail of
         * the PDU, at most the buffer. */
        if (size < 3 || pdu[1] != LAPI_SRV_WSP_PDU_TYPE_PUSH || contentLen < 0 ||
            contentLen > LAPI_SRV_PUSH_CONTENT_SIZE || static_cast<size_t>(contentLen) > size - 3 ||
            memcmp(content, pdu + size - static_cast<size_t>(contentLen),
                   static_cast<size_t>(contentLen)) != 0) {
            abort();
        }
    } else if (contentLen != LAPI_SRV_PUSH_CONTENT_SIZE) {
        abort(); /* a refusal leaves the length alone */
    }
    free(pdu);
    free(content);
    return 0;
}
