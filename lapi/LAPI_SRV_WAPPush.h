/*
 * Push intake: WAP push arriving in an SMS for application port 2948 (from
 * the telephony library) or in a UDP datagram to the push port, decoded as
 * a connectionless WSP push PDU and forwarded to the BP as a push
 * indication.
 *
 * The WSP decoder writes its diagnosis as plain lines on standard output;
 * everything else uses the server's diagnostic lines. Every reader of
 * received bytes stops at the end of what was received.
 */
#ifndef LAPI_SRV_WAPPUSH_H
#define LAPI_SRV_WAPPUSH_H

#include <stdint.h>

#include "LAPI_SRV_Global.h"

enum {
    /* Application port of WAP push, for SMS and for UDP. */
    LAPI_SRV_WAP_PUSH_PORT = 2948,
    /* The buffer of the push content forwarded to the BP. */
    LAPI_SRV_PUSH_CONTENT_SIZE = 256,
    /* rbuf of the UDP descriptor: a longer datagram is cut by recvfrom. */
    LAPI_SRV_PUSH_UDP_RBUF_SIZE = 1024,
    /* Push indication: header, u32 content length, content. */
    LAPI_SRV_PUSH_IND_HEAD_LEN = 7,
    /* WSP PDU type of a push. */
    LAPI_SRV_WSP_PDU_TYPE_PUSH = 0x06,
    /* Field of X-WAP-Application-Id among the well-known headers. */
    LAPI_SRV_WSP_HEADER_APP_ID = 0x2F,
    /* Text of the decoded header record (terminator included). */
    LAPI_SRV_WSP_TEXT_SIZE = 256,
};

/* ------------------------------------------------------------------------ */
/* SMS-port and IP push intake                                               */
/* ------------------------------------------------------------------------ */

/* Registers the telephony client for SMS-port messages: 0 or -1. */
int LAPI_SRV_RegisterTAPIClient(void);
/* readProc of the telephony descriptor. */
void LAPI_SRV_ReadTApiMsg(Fdops *pFdops);
/* Handles the message whose header sits in pFdops->rbuf and whose body is
 * LAPI_SRV_tapiBody; resets rbuf.idx. 0. */
int ParseTApiMsg(Fdops *pFdops);

/* The UDP push socket bound to the push port, or -1. */
int InitServer(void);
/* Starts the UDP push server: 0, or non-zero when it cannot listen. */
int LAPI_SRV_InitIPServer(void);
/* readProc of the UDP descriptor. */
void LAPI_SRV_ReadIPMsg(Fdops *pFdops);

/* Sends the push indication with n content bytes to the BP: 0 or -1. */
int SendWapPushIndicator(const uint8_t *pContent, uint32_t n);

/*
 * The body of the telephony message whose header sits in the descriptor's
 * rbuf. The header's 4-byte pointer slot cannot hold an address on a
 * 64-bit host, so the address is kept here, beside the header, and the
 * header's bytes stay as they were read. Null when there is no body.
 */
extern uint8_t *LAPI_SRV_tapiBody;
/* Bytes of a refused telephony message still to be taken off the
 * descriptor and dropped before the next header. */
extern uint32_t LAPI_SRV_tapiSkip;

/* ------------------------------------------------------------------------ */
/* WSP push header decoding                                                  */
/* ------------------------------------------------------------------------ */

/* X-WAP-Application-Id as decoded (diagnostic only). */
struct WspAppId {
    uint8_t tag;   /* '/' once an X-WAP-Application-Id header was seen */
    uint8_t value; /* its short-integer value */
    char text[LAPI_SRV_WSP_TEXT_SIZE];
};

/* The decoded header section, zeroed before each decode. */
struct WspPushHeaders {
    uint32_t headersLen;
    uint32_t contentTypeValue;
    char contentTypeText[LAPI_SRV_WSP_TEXT_SIZE];
    WspAppId appId;
};

/* Decodes the push PDU of length bytes and forwards its content to the BP:
 * 0 forwarded, -1 not a push (or a push that cannot be forwarded). */
int ParseWAPPushMsg(const uint8_t *pPdu, uint16_t length);

/* Copies the push body into pContent (capacity *pContentLen on entry, its
 * length on return): 0, or -1 when the PDU is not a push or its body cannot
 * be taken. */
int decode_push_pdu(uint8_t *pContent, int *pContentLen, const uint8_t *pPdu, int length);

/* The decoders below take the bytes from p to pEnd, the end of the PDU, and
 * never read at or past pEnd. */

/* HeadersLen + 1 (as the body offset counts it), or -1 when HeadersLen
 * cannot be read. Fills *pHeaders. */
int64_t decode_push_headers(WspPushHeaders *pHeaders, const uint8_t *p, const uint8_t *pEnd);
/* Bytes of the Content-Type consumed. */
int decode_content_type(uint32_t *pValue, char *pText, const uint8_t *p, const uint8_t *pEnd);
/* Walks length bytes of headers; the offset reached. */
int decode_headers(WspAppId *pAppId, const uint8_t *p, int length, const uint8_t *pEnd);
/* Bytes of the well-known header at p (its field byte, then its value). */
int decode_header_value(WspAppId *pAppId, const uint8_t *p, const uint8_t *pEnd);
/* WSP uintvar: the bytes read, or -1 when it runs into pEnd. */
int get_uintvar(uint32_t *pValue, const uint8_t *p, const uint8_t *pEnd);

#endif /* LAPI_SRV_WAPPUSH_H */
