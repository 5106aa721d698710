/*
 * The fixed paths and ports of the server, in one place.
 *
 * The handset daemon (lapi_srv) uses them as they stand. The host launcher
 * (lapi_srv_host) repoints them below its --root before start-up; nothing
 * else writes them. Plain pointers, so that exit from the signal handler
 * never runs a destructor.
 */
#ifndef LAPI_SRV_PATHS_H
#define LAPI_SRV_PATHS_H

#define LAPI_SRV_PID_FILE "/tmp/lapi.pid"
#define LAPI_SRV_SOCK_PATH "/tmp/lapisock"
#define LAPI_SRV_MUX_DEVICE "/dev/mux18"
#define LAPI_SRV_CFG_FILE "/zel_user/download/appwrite/setup/zel_agps.cfg"
#define LAPI_SRV_FIX_LOG_FILE "/zellocal/download/appwrite/location_fix.log"
#define LAPI_SRV_PUSH_PORT 2948

extern const char *LAPI_SRV_pidFile;     /* "/tmp/lapi.pid" */
extern const char *LAPI_SRV_sockPath;    /* "/tmp/lapisock" */
extern const char *LAPI_SRV_muxDevice;   /* "/dev/mux18" */
extern const char *LAPI_SRV_cfgFile;     /* "/zel_user/download/appwrite/setup/zel_agps.cfg" */
extern const char *LAPI_SRV_fixLogFile;  /* "/zellocal/download/appwrite/location_fix.log" */
extern unsigned short LAPI_SRV_pushPort; /* 2948, the UDP port of the push intake */

#endif /* LAPI_SRV_PATHS_H */
