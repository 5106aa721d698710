#include "PushPdu.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace lapipush {

namespace {

void PutHost16(Bytes *b, size_t offset, uint16_t v) {
    memcpy(b->data() + offset, &v, sizeof(v));
}

std::string Reason(const char *what) {
    return std::string(what) + ": " + strerror(errno);
}

}  // namespace

Bytes Uintvar(uint32_t value) {
    Bytes groups;
    do {
        groups.insert(groups.begin(), static_cast<uint8_t>(value & 0x7F));
        value >>= 7;
    } while (value != 0);
    for (size_t i = 0; i + 1 < groups.size(); ++i) {
        groups[i] |= 0x80;
    }
    return groups;
}

Bytes SuplInitPush(const Bytes &body, uint8_t tid) {
    Bytes headers(kSuplInitContentType, kSuplInitContentType + sizeof(kSuplInitContentType));
    headers.push_back(0x80 | 0x2F); /* X-WAP-Application-Id */
    headers.push_back(0x80 | kSuplAppId);
    Bytes pdu{tid, 0x06};
    Bytes len = Uintvar(static_cast<uint32_t>(headers.size()));
    pdu.insert(pdu.end(), len.begin(), len.end());
    pdu.insert(pdu.end(), headers.begin(), headers.end());
    pdu.insert(pdu.end(), body.begin(), body.end());
    return pdu;
}

Bytes TapiHeader(uint16_t msgId, uint16_t dataLen) {
    Bytes h(kTapiHeaderLen, 0);
    PutHost16(&h, 0, msgId);
    PutHost16(&h, 2, dataLen);
    return h;
}

Bytes SmsPortBody(const Bytes &userData, uint16_t destPort, const std::string &source) {
    Bytes body(kUserDataOffset, 0);
    PutHost16(&body, kDestPortOffset, destPort);
    size_t n = source.size() < kUserDataLenOffset - kSourceOffset - 1
                   ? source.size()
                   : kUserDataLenOffset - kSourceOffset - 1;
    memcpy(body.data() + kSourceOffset, source.data(), n);
    PutHost16(&body, kUserDataLenOffset, static_cast<uint16_t>(userData.size()));
    body.insert(body.end(), userData.begin(), userData.end());
    return body;
}

Bytes TapiRecord(uint16_t msgId, const Bytes &body) {
    Bytes rec = TapiHeader(msgId, static_cast<uint16_t>(body.size()));
    rec.insert(rec.end(), body.begin(), body.end());
    return rec;
}

bool SendUdp(int port, const Bytes &pdu, std::string *error) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = Reason("socket");
        return false;
    }
    sockaddr_in to;
    memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    ssize_t n =
        sendto(fd, pdu.data(), pdu.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    bool ok = n == static_cast<ssize_t>(pdu.size());
    if (!ok) {
        *error = Reason("sendto");
    }
    close(fd);
    return ok;
}

std::string TapiFifoPath(const std::string &root) {
    return root + "/run/tapi.fifo";
}

int OpenTapiFifo(const std::string &root, std::string *error) {
    std::string path = TapiFifoPath(root);
    /* Non-blocking open: without a reader it fails at once instead of
     * waiting for a server. Writes then block as usual. */
    int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = Reason(path.c_str());
        return -1;
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) {
        *error = Reason("fcntl");
        close(fd);
        return -1;
    }
    return fd;
}

bool WriteAll(int fd, const Bytes &bytes, std::string *error) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            *error = Reason("write");
            return false;
        }
    }
    return true;
}

bool SendTapi(const std::string &root, const Bytes &record, std::string *error) {
    int fd = OpenTapiFifo(root, error);
    if (fd < 0) {
        return false;
    }
    bool ok = WriteAll(fd, record, error);
    close(fd);
    return ok;
}

}  // namespace lapipush
