/* Process start-up, shutdown, the listening socket and the event loop. */
#ifndef LAPI_SRV_MAIN_H
#define LAPI_SRV_MAIN_H

#include <stdint.h>
#include <sys/time.h>

#include "LAPI_SRV_Global.h"

/* Everything main does: never returns normally (the loop, or exit). */
int LAPI_SRV_ServerMain(void);

int LAPI_SRV_Init(void);
int LAPI_SRV_TypeCheck(void);
int LAPI_SRV_TestPackedStruct(uint8_t full);
void LAPI_SRV_InitSignal(void);
void LAPI_SRV_SigHandler(int sig);
int LAPI_SRV_InitSrvSock(void);
void LAPI_SRV_ListenSockReadProc(Fdops *pFdops);
void LAPI_SRV_CloseAll(void);
/* Start-up hardening: 0, 1 and 2 opened on /dev/null when closed; the soft
 * descriptor limit raised above FD_SETSIZE (within the hard limit). */
void LAPI_SRV_OpenStdFds(void);
void LAPI_SRV_RaiseFdLimit(void);

/* One turn of the event loop (the loop is this, for ever). */
void LAPI_SRV_LoopOnce(void);

/* For the tests; the server never sets the hook. When set, it is called
 * with each pattern byte before LAPI_SRV_TestPackedStruct uses it. */
extern void (*LAPI_SRV_packedTestHook)(uint8_t pattern);
/* What the last turn passed to select: nfds and the time-out that the
 * transaction scan left. */
extern int LAPI_SRV_loopNfds;
extern struct timeval LAPI_SRV_loopTimeout;

#endif /* LAPI_SRV_MAIN_H */
