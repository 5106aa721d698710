/* Placeholder: the host launcher lands with the server foundation. */
#include "LAPI_SRV_Main.h"

int main(void) { return LAPI_SRV_ServerMain(); }
