/* The handset daemon: no options, no environment, the fixed paths. Its
 * arguments are ignored. */
#include "LAPI_SRV_Main.h"

int main(void) {
    return LAPI_SRV_ServerMain();
}
