/* Placeholder until the configuration reader and fix log land. */
#include "LAPI_SRV_LocationLog.h"

char *get_entry_value(const char *, const char *) { return nullptr; }
void LAPI_SRV_LOG_Init(void) {}
void LAPI_SRV_LOG_LocationReq(const GetLocationReq *, uint8_t, uint8_t) {}
void LAPI_SRV_LOG_LocationRsp(const GetLocationRsp *, uint8_t, uint8_t) {}
