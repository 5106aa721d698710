/*
 * Telephony library of the handset ("libzeltapi.so"), the part that
 * delivers SMS messages addressed to an application port.
 *
 * A telephony client gets a descriptor on which the messages it registered
 * for arrive: each is a TAPI_MSG_HDR_S followed by dataLen bytes of body.
 */
#ifndef ZELTAPI_H
#define ZELTAPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Message id of an SMS for a registered application port. */
#define TAPI_SMS_PORT_MSGID 0x0307

#pragma pack(push, 1)
/* Header of every message on the descriptor; host byte order. */
typedef struct TAPI_MSG_HDR_S {
    uint16_t msgId;
    uint16_t dataLen; /* body bytes that follow the header */
    uint32_t pData;   /* slot for the address of the body once the reader has
                         stored it; 0 on the descriptor */
} TAPI_MSG_HDR_S;
#pragma pack(pop)

#define TAPI_MSG_HDR_LEN 8
#ifdef __cplusplus
static_assert(sizeof(TAPI_MSG_HDR_S) == TAPI_MSG_HDR_LEN, "TAPI_MSG_HDR_S is 8 bytes");
#else
_Static_assert(sizeof(TAPI_MSG_HDR_S) == TAPI_MSG_HDR_LEN, "TAPI_MSG_HDR_S is 8 bytes");
#endif

/* Where the fields the server reads lie in the body of an SMS-port message
 * (TAPI_SMS_PORT_MSGID); the rest of the record is the library's own. */
enum {
    TAPI_SMS_PORT_DEST_PORT_OFFSET = 10, /* u16, host order: destination port */
    TAPI_SMS_PORT_SRC_ADDR_OFFSET = 54,  /* source address, NUL-terminated text */
    TAPI_SMS_PORT_UD_LEN_OFFSET = 112,   /* u16, host order: user-data length */
    TAPI_SMS_PORT_UD_OFFSET = 114,       /* the user data */
};

/* Registers a telephony client for the count message ids in pMsgIds.
 * Returns the descriptor the messages arrive on, negative on failure. */
int TAPI_CLIENT_Init(const uint16_t *pMsgIds, int count);

/* Ends the client and closes its descriptor. */
int TAPI_CLIENT_Fini(void);

/* Routes SMS for the application port to this client (mode is the
 * library's own selector; the server passes 1). 0 on success. */
int TAPI_SMS_RegisterPortNumber(uint16_t port, int mode);

/* Undoes TAPI_SMS_RegisterPortNumber. 0 on success. */
int TAPI_SMS_DeregisterPortNumber(uint16_t port);

/* Reads exactly n bytes of a message body from fd into pBuf. 0 when all n
 * bytes were read, non-zero otherwise. */
int TAPI_ReadNFromSocket(int fd, void *pBuf, int n);

#ifdef __cplusplus
}
#endif

#endif /* ZELTAPI_H */
