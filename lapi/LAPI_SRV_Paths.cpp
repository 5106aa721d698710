#include "LAPI_SRV_Paths.h"

const char *LAPI_SRV_pidFile = LAPI_SRV_PID_FILE;
const char *LAPI_SRV_sockPath = LAPI_SRV_SOCK_PATH;
const char *LAPI_SRV_muxDevice = LAPI_SRV_MUX_DEVICE;
const char *LAPI_SRV_cfgFile = LAPI_SRV_CFG_FILE;
const char *LAPI_SRV_fixLogFile = LAPI_SRV_FIX_LOG_FILE;
unsigned short LAPI_SRV_pushPort = LAPI_SRV_PUSH_PORT;
