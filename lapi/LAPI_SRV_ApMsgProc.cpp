/* Placeholder until the client service lands. */
#include "LAPI_SRV_ApMsgProc.h"

void LAPI_SRV_InitApMsgProc(void) {}
void LAPI_SRV_SockReadProcAfterConnect(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
void LAPI_SRV_SockReadProcAfterRegister(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
void LAPI_SRV_SockReadProcNull(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
void LAPI_SRV_ProcClientCrash(Fdops *pFdops) { LAPI_SRV_CloseFdops(pFdops); }
int LAPI_SRV_AbortLocationReq(Transaction *, uint32_t) { return 0; }
void LAPI_SRV_ScanTranList(struct timeval *pTimeout) {
    if (pTimeout != nullptr) {
        pTimeout->tv_sec = LAPI_SRV_MAX_TIMEOUT_TICKS / 100;
        pTimeout->tv_usec = 0;
    }
}
