/*
 * Link notification records as a tester writes them into the link
 * stand-in's FIFO (ROOT/run/napi.fifo) for the server to read.
 */
#ifndef LAPITEST_NAPIFIFO_H
#define LAPITEST_NAPIFIFO_H

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ServerFixture.h"
#include "zelnapi.h"

namespace lapitest {

/* One record of any length (NAPI_NOTIFY_MSG_LEN is the right one). */
inline std::vector<uint8_t> NapiRecord(uint16_t msgId, uint8_t napiLink,
                                       const std::string &name = "AGPS",
                                       size_t length = NAPI_NOTIFY_MSG_LEN) {
    NAPI_NOTIFY_MSG_S rec;
    memset(&rec, 0, sizeof(rec));
    rec.msgId = msgId;
    rec.linkId = napiLink;
    strncpy(rec.name, name.c_str(), sizeof(rec.name) - 1);
    std::vector<uint8_t> b(reinterpret_cast<uint8_t *>(&rec),
                           reinterpret_cast<uint8_t *>(&rec) + sizeof(rec));
    b.resize(length, 0);
    return b;
}

/* Writes bytes into the FIFO in one write; false when nobody reads it yet
 * (the server opens it with its first open request) or the write fails. */
inline bool WriteNapiFifo(const TempRoot &root, const std::vector<uint8_t> &bytes) {
    int fd = open(root.Path("/run/napi.fifo").c_str(), O_WRONLY | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

}  // namespace lapitest

#endif /* LAPITEST_NAPIFIFO_H */
