/* Configuration file reader and the location fix log. */
#ifndef LAPI_SRV_LOCATIONLOG_H
#define LAPI_SRV_LOCATIONLOG_H

#include <stdint.h>

#include "LAPI_Msg.h"

/* A new zero-filled 64-byte block with the key's value (caller frees), or null. */
char *get_entry_value(const char *filename, const char *entry_name);

void LAPI_SRV_LOG_Init(void);
/* One fix-log line for a client's location request / a fix sent to a client. */
void LAPI_SRV_LOG_LocationReq(const GetLocationReq *pMsg, uint8_t sid, uint8_t tid);
void LAPI_SRV_LOG_LocationRsp(const GetLocationRsp *pMsg, uint8_t sid, uint8_t tid);

#endif /* LAPI_SRV_LOCATIONLOG_H */
