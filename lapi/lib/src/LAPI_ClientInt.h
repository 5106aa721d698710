/* Internals shared by the client library's own sources. */
#ifndef LAPI_CLIENTINT_H
#define LAPI_CLIENTINT_H

/* The fixed body length of a message the server sends, or -1 when the
 * identifier is not one the server sends. */
int LAPI_CLI_ServerBodyLen(int msgId);

#endif /* LAPI_CLIENTINT_H */
