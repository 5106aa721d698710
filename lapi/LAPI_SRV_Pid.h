/* Single-instance guard and the pid file. */
#ifndef LAPI_SRV_PID_H
#define LAPI_SRV_PID_H

int LAPI_SRV_PidMutex(void);
int LAPI_SRV_SavePid(void);
void LAPI_SRV_RemovePid(void);
int GetPidFromFile(void);
int GetRunningServerPid(void);

#endif /* LAPI_SRV_PID_H */
