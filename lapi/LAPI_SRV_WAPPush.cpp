/*
 * Push intake. A SUPL INIT reaches the handset as a WAP push, in an SMS for
 * application port 2948 (the telephony descriptor) or in a UDP datagram to
 * the push port. Both end in ParseWAPPushMsg, which walks the WSP header
 * section for diagnosis and forwards the body of every PDU of the push type
 * to the BP; the sender is never answered.
 *
 * Every received byte is read through LAPI_Reader, so a length taken from
 * the bytes themselves (HeadersLen, a value length, a uintvar, the user-data
 * length) can cut or refuse a decode but never move a read outside what was
 * received.
 */
#include "LAPI_SRV_WAPPush.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SrvCli.h"
#include "LAPI_Wire.h"
#include "zeltapi.h"

uint8_t *LAPI_SRV_tapiBody = nullptr;
uint32_t LAPI_SRV_tapiSkip = 0;

namespace {

/* The sender searched for when "WAPPushSendingNumber" is not configured. */
constexpr char kDefaultSendingNumber[] = "900210101";

/* The source address ends where the user-data length begins. */
constexpr int kTapiSrcAddrMaxLen = TAPI_SMS_PORT_UD_LEN_OFFSET - TAPI_SMS_PORT_SRC_ADDR_OFFSET;

/* Bytes taken off the telephony descriptor per read while a refused body is
 * dropped. */
constexpr size_t kTapiSkipChunk = 1024;

static_assert(LAPI_SRV_PUSH_IND_HEAD_LEN == LAPI_BP_MSG_HEADER_LEN + 4,
              "push indication: header and a u32 content length");
static_assert(LAPI_SRV_PUSH_IND_HEAD_LEN + LAPI_SRV_PUSH_CONTENT_SIZE <= LAPI_BP_MSG_MAX_LEN,
              "a full push content fits one BP frame");

/* The decoder's plain lines on standard output, written at once so that a
 * reader of the stream sees them in step with the diagnostics. */
__attribute__((format(printf, 1, 2))) void WspPrint(const char *fmt, ...) {
    char text[2048];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    if (n < 0) {
        return;
    }
    if (static_cast<size_t>(n) < sizeof(text)) {
        LAPI_LogStdout(text, static_cast<size_t>(n));
        return;
    }
    /* A long text value of an SMS-port push (its body may be far longer
     * than a datagram): never cut. */
    char *pLong = static_cast<char *>(malloc(static_cast<size_t>(n) + 1));
    if (pLong == nullptr) {
        LAPI_LogStdout(text, sizeof(text) - 1);
        return;
    }
    va_start(ap, fmt);
    vsnprintf(pLong, static_cast<size_t>(n) + 1, fmt, ap);
    va_end(ap);
    LAPI_LogStdout(pLong, static_cast<size_t>(n));
    free(pLong);
}

/* A NUL-terminated text starting at p: its length without the terminator,
 * and whether the terminator comes before pEnd. An unterminated text runs to
 * pEnd and no further. */
struct WspText {
    const char *p;
    int len;
    bool terminated;
    /* Bytes it occupies in the PDU. */
    int Size() const { return len + (terminated ? 1 : 0); }
};

WspText TextAt(const uint8_t *p, const uint8_t *pEnd) {
    size_t left = pEnd > p ? static_cast<size_t>(pEnd - p) : 0;
    const void *pZero = left > 0 ? memchr(p, 0, left) : nullptr;
    WspText t;
    t.p = reinterpret_cast<const char *>(p);
    t.len = pZero != nullptr ? static_cast<int>(static_cast<const uint8_t *>(pZero) - p)
                             : static_cast<int>(left);
    t.terminated = pZero != nullptr;
    if (!t.terminated) {
        LAPI_SRV_ERR("text runs off the end of the PDU!");
    }
    return t;
}

/* Copies a text into a record field of LAPI_SRV_WSP_TEXT_SIZE bytes, cut to
 * fit; the record is for diagnosis only. */
void CopyText(char *pDst, const WspText &t) {
    int n = t.len < LAPI_SRV_WSP_TEXT_SIZE - 1 ? t.len : LAPI_SRV_WSP_TEXT_SIZE - 1;
    memcpy(pDst, t.p, static_cast<size_t>(n));
    pDst[n] = '\0';
}

int BytesLeft(const uint8_t *p, const uint8_t *pEnd) {
    return pEnd > p ? static_cast<int>(pEnd - p) : 0;
}

/* How many bytes the descriptor can hold at once: a body longer than that
 * can never be reported as present. -1 when the descriptor does not say. */
int DescriptorCapacity(int fd) {
    int size = fcntl(fd, F_GETPIPE_SZ);
    if (size > 0) {
        return size;
    }
    int rcvBuf = 0;
    socklen_t optLen = sizeof(rcvBuf);
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvBuf, &optLen) == 0 && rcvBuf > 0) {
        /* The kernel reports twice the payload room (its own bookkeeping
         * takes the other half). */
        return rcvBuf / 2;
    }
    return -1;
}

/* Takes the rest of a refused telephony message off the descriptor as it
 * arrives. 0 while the descriptor is usable (the rest may still be owed),
 * -1 when reading failed. */
int DropRefusedBody(Fdops *pFdops) {
    uint8_t scratch[kTapiSkipChunk];
    while (LAPI_SRV_tapiSkip > 0) {
        size_t want = LAPI_SRV_tapiSkip < sizeof(scratch) ? LAPI_SRV_tapiSkip : sizeof(scratch);
        ssize_t n = read(pFdops->fd, scratch, want);
        if (n > 0) {
            LAPI_SRV_tapiSkip -= static_cast<uint32_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else {
            return -1;
        }
    }
    if (LAPI_SRV_tapiSkip == 0) {
        LAPI_SRV_TRACE("refused tapi msg dropped");
    }
    return 0;
}

void CloseTapiFdops(Fdops *pFdops) {
    LAPI_SRV_tapiSkip = 0;
    if (pFdops->closeProc != nullptr) {
        pFdops->closeProc(pFdops);
    }
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* SMS-port intake                                                           */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_RegisterTAPIClient(void) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_RegisterTAPIClient");
    static const uint16_t kMsgIds[] = {TAPI_SMS_PORT_MSGID};
    int fd = TAPI_CLIENT_Init(kMsgIds, 1);
    if (fd < 0) {
        LAPI_SRV_TRACE("Failed to RegisterTapiClient");
        return -1;
    }
    int ret = TAPI_SMS_RegisterPortNumber(LAPI_SRV_WAP_PUSH_PORT, 1);
    if (ret != 0) {
        LAPI_SRV_TRACE("TAPI_SMS_RegisterPortNumber failed : %d", ret);
        TAPI_CLIENT_Fini();
        return -1;
    }
    SetFdBlocking(fd, false);
    /* An rbuf of exactly one header: the body is read on its own. */
    Fdops *pFdops = LAPI_SRV_NewFdops(fd, TAPI_MSG_HDR_LEN, 0, LAPI_SRV_ReadTApiMsg, nullptr,
                                      LAPI_SRV_CloseFdops);
    if (pFdops == nullptr) {
        LAPI_SRV_TRACE("Aha, CreateFdops failed");
        TAPI_SMS_DeregisterPortNumber(LAPI_SRV_WAP_PUSH_PORT);
        TAPI_CLIENT_Fini();
        return -1;
    }
    LAPI_SRV_tapiBody = nullptr;
    LAPI_SRV_tapiSkip = 0;
    return 0;
}

void LAPI_SRV_ReadTApiMsg(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_ReadTapiMsg");
    if (pFdops == nullptr) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return;
    }
    if (pFdops->rbuf.buf == nullptr || pFdops->rbuf.len == 0) {
        LAPI_SRV_ERR("Invalid pdata or buf size!");
        return;
    }
    if (LAPI_SRV_tapiSkip > 0) {
        /* The next header starts after the refused message. */
        if (DropRefusedBody(pFdops) < 0) {
            LAPI_SRV_ERR("Fail to general read for pFdops!");
            CloseTapiFdops(pFdops);
        }
        return;
    }
    if (LAPI_SRV_GeneralRead(pFdops) < 0) {
        LAPI_SRV_ERR("Fail to general read for pFdops!");
        CloseTapiFdops(pFdops);
        return;
    }
    if (pFdops->rbuf.idx != TAPI_MSG_HDR_LEN) {
        LAPI_SRV_ERR("not a complete msg!");
        return;
    }

    LAPI_Reader header(pFdops->rbuf.buf, TAPI_MSG_HDR_LEN);
    uint16_t msgId = 0;
    uint16_t dataLen = 0;
    header.GetHost16(&msgId);
    header.GetHost16(&dataLen);
    if (dataLen != 0) {
        int capacity = DescriptorCapacity(pFdops->fd);
        if (capacity > 0 && dataLen > capacity) {
            /* Waiting would never end: the descriptor cannot hold the whole
             * body at once. Drop the message as it passes through. */
            LAPI_SRV_ERR("dataLen: %d > %d bytes the descriptor can hold, drop the msg!", dataLen,
                         capacity);
            LAPI_SRV_tapiSkip = dataLen;
            pFdops->rbuf.idx = 0;
            DropRefusedBody(pFdops);
            return;
        }
        if (LAPI_BytesInSocket(pFdops->fd) < dataLen) {
            /* The header stays; the body is read on a later readiness. */
            LAPI_SRV_ERR("dataLen is not enough!");
            return;
        }
        LAPI_SRV_tapiBody = static_cast<uint8_t *>(malloc(dataLen));
        if (LAPI_SRV_tapiBody == nullptr) {
            LAPI_SRV_ERR("cannot allocate mem");
            CloseTapiFdops(pFdops);
            return;
        }
        if (TAPI_ReadNFromSocket(pFdops->fd, LAPI_SRV_tapiBody, dataLen) != 0) {
            free(LAPI_SRV_tapiBody);
            LAPI_SRV_tapiBody = nullptr;
            dataLen = 0;
            LAPI_Writer clear(pFdops->rbuf.buf + 2, 2);
            clear.PutHost16(0);
        }
    } else {
        LAPI_SRV_tapiBody = nullptr;
    }

    LAPI_SRV_TRACE("recv tapi msg len:%d", dataLen);
    LAPI_DebugHex(LAPI_SRV_tapiBody, dataLen, 1);
    if (ParseTApiMsg(pFdops) < 0) {
        LAPI_SRV_ERR("Fail to process message for pFdops!");
    }
    free(LAPI_SRV_tapiBody);
    LAPI_SRV_tapiBody = nullptr;
}

int ParseTApiMsg(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter ParseTApiMsg");
    if (pFdops == nullptr || pFdops->rbuf.buf == nullptr || pFdops->rbuf.idx < TAPI_MSG_HDR_LEN) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return -1;
    }
    LAPI_Reader header(pFdops->rbuf.buf, TAPI_MSG_HDR_LEN);
    uint16_t msgId = 0;
    uint16_t dataLen = 0;
    header.GetHost16(&msgId);
    header.GetHost16(&dataLen);

    if (msgId != TAPI_SMS_PORT_MSGID) {
        LAPI_SRV_TRACE("recv other tapi msg id : %d", msgId);
    } else {
        const uint8_t *pBody = LAPI_SRV_tapiBody;
        int bodyLen = pBody != nullptr ? dataLen : 0;

        char *pNumber = get_entry_value(LAPI_SRV_cfgFile, "WAPPushSendingNumber");
        LAPI_SRV_TRACE("WAPPushSendingNumber = %s", pNumber != nullptr ? pNumber : "(null)");

        /* The source address, cut at the end of its field or of the body. */
        char source[kTapiSrcAddrMaxLen + 1] = {0};
        LAPI_Reader body(pBody, static_cast<size_t>(bodyLen));
        LAPI_Reader field;
        if (body.Skip(TAPI_SMS_PORT_SRC_ADDR_OFFSET) == 0) {
            size_t n = body.Left() < static_cast<size_t>(kTapiSrcAddrMaxLen)
                           ? body.Left()
                           : static_cast<size_t>(kTapiSrcAddrMaxLen);
            body.Sub(n, &field);
            field.GetBytes(source, n);
        }
        LAPI_SRV_TRACE("source address of port SMS is %s", source);

        /* The sender is looked up and the outcome deliberately not used:
         * every sender's push is handled. */
        const char *pWanted = pNumber != nullptr ? pNumber : kDefaultSendingNumber;
        bool bFromPushSender = strstr(source, pWanted) != nullptr;
        (void)bFromPushSender;

        LAPI_Reader msg(pBody, static_cast<size_t>(bodyLen));
        uint16_t destPort = 0;
        uint16_t udLen = 0;
        LAPI_Reader at = msg;
        if (at.Skip(TAPI_SMS_PORT_DEST_PORT_OFFSET) != 0 || at.GetHost16(&destPort) != 0 ||
            msg.Skip(TAPI_SMS_PORT_UD_LEN_OFFSET) != 0 || msg.GetHost16(&udLen) != 0) {
            LAPI_SRV_ERR("SMS port msg body: %d bytes < %d, drop!", bodyLen,
                         static_cast<int>(TAPI_SMS_PORT_UD_OFFSET));
        } else if (destPort == LAPI_SRV_WAP_PUSH_PORT) {
            const uint8_t *pUserData = nullptr;
            if (msg.GetSpan(&pUserData, udLen) != 0) {
                LAPI_SRV_ERR("user data length: %d > %d bytes left in the msg, drop!", udLen,
                             static_cast<int>(msg.Left()));
            } else {
                ParseWAPPushMsg(pUserData, udLen);
            }
        }
        free(pNumber);
    }
    pFdops->rbuf.idx = 0;
    return 0;
}

/* ------------------------------------------------------------------------ */
/* IP intake                                                                 */
/* ------------------------------------------------------------------------ */

int InitServer(void) {
    LAPI_SRV_TRACE("Enter InitServer");
    /* Not checked on its own: a failed socket fails the bind below. */
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(LAPI_SRV_pushPort);
    int nRet = bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
    if (nRet < 0) {
        int err = errno;
        LAPI_SRV_TRACE("bind operation failed, nRet is %d,\n error is %s!\n", nRet, strerror(err));
        CloseFd(fd);
        return -1;
    }
    SetFdBlocking(fd, false);
    return fd;
}

int LAPI_SRV_InitIPServer(void) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_InitIPServer");
    int fd = InitServer();
    if (fd < 0) {
        LAPI_SRV_TRACE("Failed to init IP server");
        return -1;
    }
    Fdops *pFdops = LAPI_SRV_NewFdops(fd, LAPI_SRV_PUSH_UDP_RBUF_SIZE, 0, LAPI_SRV_ReadIPMsg,
                                      nullptr, LAPI_SRV_CloseFdops);
    if (pFdops == nullptr) {
        LAPI_SRV_TRACE("Failed to create fdops");
        CloseFd(fd);
        return -1;
    }
    return 0;
}

void LAPI_SRV_ReadIPMsg(Fdops *pFdops) {
    LAPI_SRV_TRACE("Enter LAPI_SRV_ReadIPMsg");
    if (pFdops == nullptr) {
        LAPI_SRV_ERR("Invalid pFdops!");
        return;
    }
    if (pFdops->rbuf.buf == nullptr) {
        /* Goes on: the datagram is taken off the socket into nothing. */
        LAPI_SRV_ERR("Invalid pFdops!");
    }
    size_t room = pFdops->rbuf.buf != nullptr ? pFdops->rbuf.len : 0;
    struct sockaddr_in from;
    socklen_t fromLen;
    ssize_t n;
    /* The trace below reports this call's outcome, not an older one. */
    errno = 0;
    do {
        fromLen = sizeof(from);
        n = recvfrom(pFdops->fd, pFdops->rbuf.buf, room, 0, reinterpret_cast<sockaddr *>(&from),
                     &fromLen);
    } while (n < 0 && errno == EINTR);
    int err = errno;
    LAPI_SRV_TRACE("Error is %d, %s", err, strerror(err));
    if (n < 0) {
        /* Nothing was received: the buffer holds no datagram to decode. */
        LAPI_SRV_ERR("recvfrom failed, no push to parse!");
        pFdops->rbuf.idx = 0;
        return;
    }
    pFdops->rbuf.idx = static_cast<uint16_t>(n);
    LAPI_SRV_TRACE("Start to parse WAP Push message %d", pFdops->rbuf.idx);
    LAPI_DebugHex(pFdops->rbuf.buf, pFdops->rbuf.idx, 1);
    if (ParseWAPPushMsg(pFdops->rbuf.buf, pFdops->rbuf.idx) < 0) {
        LAPI_SRV_ERR("Fail to process message for pFdops!");
    }
    pFdops->rbuf.idx = 0;
}

int SendWapPushIndicator(const uint8_t *pContent, uint32_t n) {
    LAPI_SRV_TRACE("Enter SendWapPushIndicator");
    uint8_t frame[LAPI_BP_FRAME_MAX_LEN];
    LAPI_Writer w(frame + LAPI_BP_FRAME_HEAD_LEN, LAPI_BP_MSG_MAX_LEN);
    bool built = w.PutU8(WAP_PUSH_APBP_IND) == 0 && w.PutU8(0) == 0 && w.PutU8(0) == 0 &&
                 w.PutBe32(n) == 0 && (n == 0 || pContent != nullptr) &&
                 w.PutBytes(pContent, n) == 0;
    if (built) {
        uint16_t frameLen = LAPI_SRV_SetUpBpMsgFrame(frame, static_cast<uint16_t>(w.Size()));
        if (frameLen != 0 && LAPI_SRV_SendMsgToBp(frame, frameLen) == 0) {
            return 0;
        }
    }
    LAPI_SRV_ERR("Fail to send socket response to BP!");
    return -1;
}

/* ------------------------------------------------------------------------ */
/* WSP push decoding                                                         */
/* ------------------------------------------------------------------------ */

int ParseWAPPushMsg(const uint8_t *pPdu, uint16_t length) {
    LAPI_SRV_TRACE("Enter ParseWAPPushMsg");
    LAPI_DebugHex(pPdu, length, 1);
    uint8_t content[LAPI_SRV_PUSH_CONTENT_SIZE];
    memset(content, 0, sizeof(content));
    int contentLen = LAPI_SRV_PUSH_CONTENT_SIZE;
    if (decode_push_pdu(content, &contentLen, pPdu, length) < 0) {
        LAPI_SRV_TRACE("it is not a wap push msg for supl init!");
        return -1;
    }
    LAPI_SRV_TRACE("recv supl init wap push msg!");
    LAPI_DebugHex(content, contentLen, 1);
    SendWapPushIndicator(content, static_cast<uint32_t>(contentLen));
    return 0;
}

int decode_push_pdu(uint8_t *pContent, int *pContentLen, const uint8_t *pPdu, int length) {
    if (pContent == nullptr || pContentLen == nullptr) {
        return -1;
    }
    LAPI_Reader pdu(pPdu, length > 0 ? static_cast<size_t>(length) : 0);
    uint8_t tid = 0;
    uint8_t pduType = 0;
    if (pdu.GetU8(&tid) != 0 || pdu.GetU8(&pduType) != 0) {
        LAPI_SRV_ERR("PDU of %d bytes has no TID and PDU type!", length);
        return -1;
    }
    if (pduType != LAPI_SRV_WSP_PDU_TYPE_PUSH) {
        return -1;
    }
    WspPushHeaders headers;
    int64_t headersLenPlusOne = decode_push_headers(&headers, pdu.Pos(), pdu.End());
    if (headersLenPlusOne < 0) {
        return -1;
    }
    /* The body offset counts a HeadersLen field of one byte: a longer field
     * moves the body start into the headers. Kept as it is. */
    int64_t offset = 2 + headersLenPlusOne;
    if (offset > length) {
        LAPI_SRV_ERR("HeadersLen: %u runs past the end of the PDU: %d bytes!", headers.headersLen,
                     length);
        return -1;
    }
    int64_t n = length - offset;
    if (n > *pContentLen) {
        /* A cut SUPL INIT would be a different message: drop it whole. */
        LAPI_SRV_ERR("push content: %d bytes > buffer: %d bytes, drop!", static_cast<int>(n),
                     *pContentLen);
        return -1;
    }
    memcpy(pContent, pPdu + offset, static_cast<size_t>(n));
    *pContentLen = static_cast<int>(n);
    return 0;
}

int64_t decode_push_headers(WspPushHeaders *pHeaders, const uint8_t *p, const uint8_t *pEnd) {
    memset(pHeaders, 0, sizeof(*pHeaders));
    uint32_t headersLen = 0;
    int uintvarBytes = get_uintvar(&headersLen, p, pEnd);
    if (uintvarBytes < 0) {
        LAPI_SRV_ERR("HeadersLen runs off the end of the PDU!");
        return -1;
    }
    pHeaders->headersLen = headersLen;
    const uint8_t *pType = p + uintvarBytes;
    int typeBytes =
        decode_content_type(&pHeaders->contentTypeValue, pHeaders->contentTypeText, pType, pEnd);
    const uint8_t *pFields = pType + typeBytes;
    /* HeadersLen counts the Content-Type and the headers; a Content-Type
     * that reaches past it leaves no header to walk. */
    int64_t fieldsLen = static_cast<int64_t>(headersLen) - (uintvarBytes + typeBytes) + 1;
    int fieldBytes = 0;
    if (fieldsLen > 0) {
        int left = BytesLeft(pFields, pEnd);
        int walk = fieldsLen < left ? static_cast<int>(fieldsLen) : left;
        fieldBytes = decode_headers(&pHeaders->appId, pFields, walk, pEnd);
    }
    WspPrint("content type : %s\n", pHeaders->contentTypeText);
    WspPrint("content type : %X\n", pHeaders->contentTypeValue);
    WspPrint("application id tag : %02X\n", pHeaders->appId.tag);
    WspPrint("application id : %s\n", pHeaders->appId.text);
    WspPrint("application id : %X\n", pHeaders->appId.value);
    if (static_cast<int64_t>(uintvarBytes) + typeBytes + fieldBytes !=
        static_cast<int64_t>(headersLen) + 1) {
        WspPrint("decode header error!\n");
    }
    return static_cast<int64_t>(headersLen) + 1;
}

int decode_content_type(uint32_t *pValue, char *pText, const uint8_t *p, const uint8_t *pEnd) {
    LAPI_Reader r(p, pEnd);
    uint8_t b = 0;
    if (r.GetU8(&b) != 0) {
        return 0;
    }
    if (b >= 0x80) {
        *pValue = b & 0x7Fu;
        WspPrint("content type is hex value : %02X\n", *pValue);
        return 1;
    }
    if (b == 0 || b > 31) {
        WspText t = TextAt(p, pEnd);
        WspPrint("content type is textual value : %.*s\n", t.len, t.p);
        CopyText(pText, t);
        return t.Size();
    }

    /* 1..31: value-length form. */
    WspPrint("content type is LV\n");
    uint32_t valueLen = b;
    int lenFieldLen = 1;
    if (b == 31) {
        int count = 0;
        if (r.GetUintvar(&valueLen, &count) != 0) {
            LAPI_SRV_ERR("uintvar runs off the end of the PDU!");
            return BytesLeft(p, pEnd);
        }
        lenFieldLen += count;
    }
    WspPrint("value length field's length is : %d\n", lenFieldLen);
    WspPrint("value length is : %d\n", static_cast<int>(valueLen));

    const uint8_t *pValueStart = r.Pos();
    uint8_t c = 0;
    if (r.PeekU8(&c) != 0) {
        LAPI_SRV_ERR("content type value runs off the end of the PDU!");
        return lenFieldLen;
    }
    int n = 0;    /* value bytes after its first octet */
    int step = 0; /* bytes of the value decoded */
    if (c == 0 || (c >= 32 && c <= 127)) {
        WspText t = TextAt(pValueStart, pEnd);
        WspPrint("value is textual string : %.*s\n", t.len, t.p);
        CopyText(pText, t);
        n = t.len;
        step = t.Size();
    } else if (c == 31) {
        WspPrint("content type value is not textual string and not integer!\n");
        /* Stops: the length field and the octet looked at are consumed. */
        return lenFieldLen + 1;
    } else if (c >= 0x80) {
        *pValue = c & 0x7Fu;
        WspPrint("value is short integer : %02X\n", *pValue);
        n = 0;
        step = 1;
    } else if (c <= 4) {
        /* Long integer: c octets, big-endian. */
        r.Skip(1);
        uint64_t value = 0;
        if (r.GetBeN(c, &value) != 0) {
            LAPI_SRV_ERR("long integer runs off the end of the PDU!");
            return BytesLeft(p, pEnd);
        }
        *pValue = static_cast<uint32_t>(value);
        n = c;
        step = c + 1;
    } else {
        WspPrint("content type value length is larger than 4!\n");
        return lenFieldLen + 1;
    }

    int consumed = lenFieldLen + step;
    if (static_cast<int64_t>(n) + 1 < valueLen) {
        WspPrint("there are some parameters!\n");
        /* Parameters are skipped undecoded, at most to the end of the PDU. */
        int64_t rest = static_cast<int64_t>(valueLen) - n - 1;
        int left = BytesLeft(p + consumed, pEnd);
        if (rest > left) {
            LAPI_SRV_ERR("content type parameters run off the end of the PDU!");
            rest = left;
        }
        consumed += static_cast<int>(rest);
    } else if (static_cast<int64_t>(n) + 1 > valueLen) {
        WspPrint("Error!!! len + 1 > val_len\n");
    } else {
        WspPrint("there is not any parameter!\n");
    }
    return consumed;
}

int decode_headers(WspAppId *pAppId, const uint8_t *p, int length, const uint8_t *pEnd) {
    int codePage = 1;
    int offset = 0;
    while (offset < length) {
        const uint8_t *pAt = p + offset;
        uint8_t b = 0;
        if (LAPI_Reader(pAt, pEnd).PeekU8(&b) != 0) {
            break;
        }
        if (b == 0x7F) {
            /* Shift to the code page in the next octet. */
            uint8_t page = 0;
            LAPI_Reader shift(pAt + 1, pEnd);
            if (shift.GetU8(&page) != 0) {
                offset += 1;
                break;
            }
            codePage = page;
            offset += 2;
        } else if (b == 0) {
            WspPrint("invalid textual header\n");
            offset = length;
        } else if (b <= 31) {
            /* Short-cut shift. */
            codePage = b;
            offset += 1;
        } else if (b <= 127) {
            WspText name = TextAt(pAt, pEnd);
            WspPrint("textual header id: %.*s\n", name.len, name.p);
            offset += name.Size();
            uint8_t v = 0;
            if (LAPI_Reader(p + offset, pEnd).PeekU8(&v) == 0 && v >= 32 && v <= 127) {
                WspText value = TextAt(p + offset, pEnd);
                WspPrint("textual header value : %.*s\n", value.len, value.p);
                offset += value.Size();
                continue;
            }
            if (name.terminated && name.len == 9 && memcmp(name.p, "x-wap.tod", 9) == 0) {
                /* The time-of-day header ends the walk where it stands, so
                 * the check after the walk reports the headers left. */
                WspPrint("x-wap.tod\n");
                return offset;
            }
            WspPrint("should be textual header value\n");
            offset = length;
        } else {
            WspPrint("well known header id : %02X\n", b);
            if (codePage != 1) {
                offset = length;
            } else {
                offset += decode_header_value(pAppId, pAt, pEnd);
            }
        }
    }
    return offset;
}

int decode_header_value(WspAppId *pAppId, const uint8_t *p, const uint8_t *pEnd) {
    LAPI_Reader r(p, pEnd);
    uint8_t field = 0;
    uint8_t v = 0;
    if (r.GetU8(&field) != 0) {
        return 0;
    }
    if (r.PeekU8(&v) != 0) {
        LAPI_SRV_ERR("header value runs off the end of the PDU!");
        return 1;
    }
    WspPrint("val id : %02X\n", v);
    bool bAppId = (field & 0x7F) == LAPI_SRV_WSP_HEADER_APP_ID;
    if (v >= 0x80) {
        WspPrint("hex value : %02X\n", v & 0x7Fu);
        if (bAppId) {
            pAppId->tag = '/';
            pAppId->value = static_cast<uint8_t>(v & 0x7F);
        }
        return 2;
    }
    if (v >= 32) {
        WspText t = TextAt(r.Pos(), pEnd);
        WspPrint("string value : %.*s\n", t.len, t.p);
        if (bAppId) {
            pAppId->tag = '/';
            CopyText(pAppId->text, t);
        }
        return 1 + t.Size();
    }

    WspPrint("header element is LV\n");
    uint32_t valueLen = v;
    int lenFieldLen = 1;
    if (v == 31) {
        /* Read as a uintvar from the 31 octet itself, which yields 31 in one
         * byte. Kept as it is. */
        lenFieldLen = get_uintvar(&valueLen, r.Pos(), pEnd);
    }
    r.Skip(static_cast<size_t>(lenFieldLen));
    WspPrint("value length field's length is : %d\n", lenFieldLen);
    WspPrint("value length is : %d\n", static_cast<int>(valueLen));
    int avail = static_cast<int>(r.Left());
    int shown = static_cast<int64_t>(valueLen) < avail ? static_cast<int>(valueLen) : avail;
    WspPrint("value :");
    LAPI_Reader value;
    r.Sub(static_cast<size_t>(shown), &value);
    for (uint8_t octet = 0; value.GetU8(&octet) == 0;) {
        WspPrint(" %02X", octet);
    }
    WspPrint("\n");
    if (shown < static_cast<int64_t>(valueLen)) {
        LAPI_SRV_ERR("header value runs off the end of the PDU!");
    }
    return 1 + lenFieldLen + shown;
}

int get_uintvar(uint32_t *pValue, const uint8_t *p, const uint8_t *pEnd) {
    LAPI_Reader r(p, pEnd);
    int count = 0;
    if (r.GetUintvar(pValue, &count) != 0) {
        return -1;
    }
    return count;
}
