/*
 * Host stand-in of the network link library.
 *
 * NAPI_Init opens (creating it) the FIFO ROOT/run/napi.fifo for reading and
 * writing. Every NAPI_OpenLink takes the lowest handle from 1 that is not
 * open and writes one notification record for it into the FIFO: "link up"
 * (16), or "link failed" (17) for a profile whose name begins with "FAIL".
 * A tester can write records of its own (link lost, wrong lengths, unknown
 * handles) into the same FIFO.
 */
#include "zelnapi.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <array>

#include "HOST_Root.h"

namespace {

/* Handles 1..kMaxLinks - 1 can be open at once; handle 0 is never used. */
constexpr int kMaxLinks = 256;

int gNapiFd = -1;
std::array<bool, kMaxLinks> gLinkOpen{};

/* One record in a single write: a FIFO never splits a write this small. */
void WriteRecord(int napiLink, const char *profileName) {
    if (gNapiFd < 0) {
        return;
    }
    NAPI_NOTIFY_MSG_S msg;
    memset(&msg, 0, sizeof(msg));
    msg.msgId =
        strncmp(profileName, "FAIL", 4) == 0 ? NAPI_RESULT_FAIL_MSGID : NAPI_RESULT_SUCCESS_MSGID;
    msg.linkId = static_cast<uint8_t>(napiLink);
    strncpy(msg.name, profileName, sizeof(msg.name) - 1);
    ssize_t n;
    do {
        n = write(gNapiFd, &msg, sizeof(msg));
    } while (n < 0 && errno == EINTR);
}

}  // namespace

extern "C" int NAPI_Init(int /*mode*/) {
    if (gNapiFd >= 0) {
        return gNapiFd;
    }
    int fd = HOST_OpenFifo("/run/napi.fifo");
    if (fd < 0) {
        return -1;
    }
    gNapiFd = fd;
    return fd;
}

extern "C" int NAPI_Fini(void) {
    if (gNapiFd >= 0) {
        close(gNapiFd);
        gNapiFd = -1;
    }
    return 0;
}

extern "C" int NAPI_OpenLink(const char *profileName) {
    if (profileName == nullptr) {
        return -1;
    }
    for (int link = 1; link < kMaxLinks; ++link) {
        if (!gLinkOpen[link]) {
            gLinkOpen[link] = true;
            WriteRecord(link, profileName);
            return link;
        }
    }
    return -1;
}

extern "C" int NAPI_CloseLink(int napiLink) {
    if (napiLink <= 0 || napiLink >= kMaxLinks || !gLinkOpen[napiLink]) {
        return -1;
    }
    gLinkOpen[napiLink] = false;
    return 0;
}

extern "C" int NAPI_BindSocket2Link(int /*fd*/, int /*napiLink*/) {
    return 0;
}
