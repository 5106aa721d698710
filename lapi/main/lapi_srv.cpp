/* The handset daemon: no options, no environment, the fixed paths. */
#include "LAPI_SRV_Main.h"

int main(void) { return LAPI_SRV_ServerMain(); }
