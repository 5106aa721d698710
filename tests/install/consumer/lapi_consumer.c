/*
 * A program of another project that uses the installed client library:
 * built by the install test with pkg-config and with find_package(lapi)
 * against the installed tree only.
 *
 *   lapi_consumer SOCKET
 *
 * Prints "header VERSION", "library VERSION", then asks the server behind
 * SOCKET for one location fix and prints "fix LAT LON". Exit status 0 when
 * the fix arrived and the header and library versions agree.
 */
#include <stdio.h>
#include <string.h>

#include <lapi/lapi_client.h>

int main(int argc, char **argv) {
    lapi_client *pClient = NULL;
    lapi_location_params params;
    lapi_msg msg;
    int rc;

    if (argc != 2) {
        fprintf(stderr, "usage: lapi_consumer SOCKET\n");
        return 2;
    }
    printf("header %s\n", LAPI_VERSION_STRING);
    printf("library %s\n", lapi_version());
    if (strcmp(LAPI_VERSION_STRING, lapi_version()) != 0) {
        fprintf(stderr, "header and library versions differ\n");
        return 1;
    }
    rc = lapi_open(argv[1], LAPI_SERVICE_BASIC, 5000, &pClient);
    if (rc != LAPI_OK) {
        fprintf(stderr, "lapi_open: %s\n", lapi_strerror(rc));
        return 1;
    }
    lapi_location_params_init(&params);
    rc = lapi_get_location(pClient, &params);
    if (rc == LAPI_OK) {
        rc = lapi_recv(pClient, &msg, 10000);
    }
    if (rc != LAPI_OK || msg.msgId != LAPI_GET_LOCATION_RSP) {
        fprintf(stderr, "no location fix: %s\n",
                rc != LAPI_OK ? lapi_strerror(rc) : "other message");
        lapi_close(pClient);
        return 1;
    }
    printf("fix %.4f %.4f\n", msg.u.getLocationRsp.latitude, msg.u.getLocationRsp.longitude);
    lapi_close(pClient);
    return 0;
}
