/* Placeholder until the client service lands. */
#include "LAPI_SRV_ApMsgProc.h"

void LAPI_SRV_InitApMsgProc(void) {}
void LAPI_SRV_SockReadProcAfterConnect(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
void LAPI_SRV_SockReadProcAfterRegister(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
void LAPI_SRV_SockReadProcNull(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
void LAPI_SRV_ProcClientCrash(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
