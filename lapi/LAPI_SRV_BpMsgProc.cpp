/* Placeholder until the BP link lands. */
#include "LAPI_SRV_BpMsgProc.h"

int LAPI_SRV_ConnectMuxChannel(void) { return 0; }
uint8_t LAPI_SRV_IsMuxConnected(void) { return LAPI_SRV_muxConnected; }
uint16_t LAPI_SRV_SetUpBpMsgFrame(uint8_t *, uint16_t msgLen) { return msgLen + 5; }
int LAPI_SRV_SendMsgToBp(uint8_t *, uint16_t) { return -1; }
void LAPI_SRV_MuxFdReadProc(Fdops *) {}
int LAPI_SRV_BpMsgParse(Fdops *) { return 0; }
void LAPI_SRV_ProcessBpMsg(uint8_t *, uint16_t) {}
void LAPI_SRV_InitBpMsgProc(void) {}
void LAPI_SRV_InitBpMsgLogProc(void) {}
