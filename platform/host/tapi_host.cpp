/*
 * Host stand-in of the telephony library: SMS-port messages arrive on the
 * FIFO ROOT/run/tapi.fifo, which TAPI_CLIENT_Init opens (creating it when
 * missing) for reading and writing, non-blocking. A tester delivers one
 * message with one write of its 8-byte header (message id, body length, a
 * zero pointer slot, host byte order) followed by the body.
 *
 * Port registration has nothing to route on a host and always succeeds.
 */
#include "zeltapi.h"

#include <errno.h>
#include <unistd.h>

#include "HOST_Root.h"

namespace {

constexpr char kTapiFifo[] = "/run/tapi.fifo";

/* The client's descriptor, -1 while there is none. */
int gTapiFd = -1;

}  // namespace

extern "C" int TAPI_CLIENT_Init(const uint16_t *pMsgIds, int count) {
    (void)pMsgIds;
    (void)count;
    int fd = HOST_OpenFifo(kTapiFifo);
    if (fd < 0) {
        return -1;
    }
    if (gTapiFd >= 0) {
        close(gTapiFd);
    }
    gTapiFd = fd;
    return fd;
}

extern "C" int TAPI_CLIENT_Fini(void) {
    if (gTapiFd >= 0) {
        close(gTapiFd);
        gTapiFd = -1;
    }
    return 0;
}

extern "C" int TAPI_SMS_RegisterPortNumber(uint16_t port, int mode) {
    (void)port;
    (void)mode;
    return 0;
}

extern "C" int TAPI_SMS_DeregisterPortNumber(uint16_t port) {
    (void)port;
    return 0;
}

extern "C" int TAPI_ReadNFromSocket(int fd, void *pBuf, int n) {
    if (pBuf == nullptr || n < 0) {
        return -1;
    }
    uint8_t *p = static_cast<uint8_t *>(pBuf);
    int done = 0;
    while (done < n) {
        ssize_t got = read(fd, p + done, static_cast<size_t>(n - done));
        if (got > 0) {
            done += static_cast<int>(got);
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else {
            /* End of file, an error, or fewer bytes than promised. */
            return -1;
        }
    }
    return 0;
}
