/*
 * Push intake. The UDP push server and the SMS-port registration are not
 * built yet: start-up treats both as attached and goes on.
 */
#include "LAPI_SRV_WAPPush.h"

int LAPI_SRV_InitIPServer(void) {
    return 0;
}

int LAPI_SRV_RegisterTAPIClient(void) {
    return 0;
}
