#include "LAPI_SrvCli.h"

/* Placeholder until client-message tracing lands. */
extern "C" void LAPI_DebugHex(const void *, int, uint8_t) {}
extern "C" int LAPI_FormatHexStr(const void *, int, char *, uint8_t) { return 0; }
extern "C" int LAPI_LogApMsgHeader(const MsgHeader *, char *, uint8_t) { return 0; }
extern "C" void LAPI_LogApMsg(const void *, int, uint8_t) {}
extern "C" void LAPI_InitApMsgLogProc(void) {}
