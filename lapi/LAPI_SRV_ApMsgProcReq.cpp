/* Placeholder until the location service lands: every request is refused. */
#include "LAPI_SRV_ApMsgProc.h"

int LAPI_SRV_ProcGetLocationMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcAbortLocationMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcAbortAllLocationMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcLastKnownLocationMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcGetGpsDbDataMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcSetGpsDbDataMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcGetStatusMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcLocationNotificationCfmMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcDistanceAzimuthMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcAddProximityMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_ProcRemoveProximityMsg(uint8_t *, Fdops *) { return -1; }
int LAPI_SRV_AbortLocationReq(Transaction *, uint32_t) { return 0; }
void LAPI_SRV_ScanTranList(struct timeval *pTimeout) {
    if (pTimeout != nullptr) {
        pTimeout->tv_sec = LAPI_SRV_MAX_TIMEOUT_TICKS / 100;
        pTimeout->tv_usec = 0;
    }
}
