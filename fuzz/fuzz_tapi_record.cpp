/*
 * One telephony record (the 8-byte header, then the body) through
 * ParseTApiMsg, the way the read procedure hands it over: the header in an
 * rbuf of exactly 8 bytes, the body in a heap block of exactly the length
 * the header announces. Pushes it finds go to a BP channel that is
 * /dev/null.
 */
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_WAPPush.h"
#include "zeltapi.h"

namespace {

Fdops *gTapiFdops = nullptr;

void SetUpOnce() {
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        dup2(null, 1);
        close(null);
    }
    LAPI_traceEnabled = 0;
    LAPI_SRV_cfgFile = "/nonexistent/zel_agps.cfg";
    LAPI_SRV_InitGlobals();
    LAPI_SRV_pMuxFdops =
        CreateFdops(open("/dev/null", O_WRONLY), LAPI_SRV_MUX_RBUF_SIZE, LAPI_SRV_MUX_WBUF_SIZE);
    gTapiFdops = CreateFdops(open("/dev/null", O_RDONLY), TAPI_MSG_HDR_LEN, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (gTapiFdops == nullptr) {
        SetUpOnce();
        if (gTapiFdops == nullptr) {
            return 0;
        }
    }
    if (size < TAPI_MSG_HDR_LEN || size - TAPI_MSG_HDR_LEN > UINT16_MAX) {
        return 0;
    }
    uint16_t bodyLen = static_cast<uint16_t>(size - TAPI_MSG_HDR_LEN);
    memcpy(gTapiFdops->rbuf.buf, data, TAPI_MSG_HDR_LEN);
    /* The read procedure reads exactly dataLen bytes: the header says how
     * many the body has. */
    memcpy(gTapiFdops->rbuf.buf + 2, &bodyLen, sizeof(bodyLen));
    gTapiFdops->rbuf.idx = TAPI_MSG_HDR_LEN;
    LAPI_SRV_tapiBody = nullptr;
    if (bodyLen > 0) {
        LAPI_SRV_tapiBody = static_cast<uint8_t *>(malloc(bodyLen));
        if (LAPI_SRV_tapiBody == nullptr) {
            return 0;
        }
        memcpy(LAPI_SRV_tapiBody, data + TAPI_MSG_HDR_LEN, bodyLen);
    }
    if (ParseTApiMsg(gTapiFdops) != 0 || gTapiFdops->rbuf.idx != 0) {
        abort();
    }
    free(LAPI_SRV_tapiBody);
    LAPI_SRV_tapiBody = nullptr;
    /* Frames the channel could not take at once must not pile up. */
    LAPI_SRV_pMuxFdops->wbuf.idx = 0;
    return 0;
}
