/* Placeholder until the location service lands: BP answers are dropped. */
#include "LAPI_SRV_BpMsgProc.h"

void LAPI_SRV_ProcBpGetLocationRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpAbortLocationRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpSetGpsDbDataRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpGetGpsDbDataRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpStatusChangeIndMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpGetStatusRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpLocationNotificationIndMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpNotificationStatusIndMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpDistanceAzimuthRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpAddProximityRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpRemoveProximityRspMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_ProcBpProximityHitIndMsg(uint8_t *, uint16_t) {}
