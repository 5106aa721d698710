/*
 * Network link library of the handset ("libzelnapi.so").
 *
 * Brings up packet-data links by profile name and routes sockets over them.
 * Opening a link returns a handle at once; the outcome arrives later as a
 * notification record on the descriptor that NAPI_Init returned, which the
 * caller watches for reading.
 */
#ifndef ZELNAPI_H
#define ZELNAPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Message ids of the notification records. Other ids may arrive; they carry
 * nothing the server uses. */
enum {
    NAPI_RESULT_SUCCESS_MSGID = 16, /* the link is up */
    NAPI_RESULT_FAIL_MSGID = 17,    /* the link could not be brought up */
    NAPI_LINK_LOST_MSGID = 32,      /* a link that was up has gone down */
};

#define NAPI_NOTIFY_NAME_LEN 104
#define NAPI_NOTIFY_MSG_LEN 112

#pragma pack(push, 1)
/* One notification, exactly as read from the descriptor; host byte order. */
typedef struct NAPI_NOTIFY_MSG_S {
    uint16_t msgId;
    uint8_t linkId; /* the link handle the record is about */
    uint8_t reserved;
    char name[NAPI_NOTIFY_NAME_LEN]; /* profile name, NUL-terminated */
    uint16_t maincode;
    uint16_t subcode;
} NAPI_NOTIFY_MSG_S;
#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(NAPI_NOTIFY_MSG_S) == NAPI_NOTIFY_MSG_LEN, "NAPI_NOTIFY_MSG_S is 112 bytes");
#else
_Static_assert(sizeof(NAPI_NOTIFY_MSG_S) == NAPI_NOTIFY_MSG_LEN, "NAPI_NOTIFY_MSG_S is 112 bytes");
#endif

/* Connects to the link service. mode is the service's own selector (the
 * server passes 2). Returns the descriptor on which notifications arrive,
 * negative on failure. */
int NAPI_Init(int mode);

/* Ends the connection made by NAPI_Init and closes its descriptor. */
int NAPI_Fini(void);

/* Starts bringing up the link of the named profile. Returns its handle at
 * once (negative on failure); the outcome follows as a notification. */
int NAPI_OpenLink(const char *profileName);

/* Releases a link handle. */
int NAPI_CloseLink(int napiLink);

/* Routes the socket fd over the link. */
int NAPI_BindSocket2Link(int fd, int napiLink);

#ifdef __cplusplus
}
#endif

#endif /* ZELNAPI_H */
