/*
 * A C program that uses the client library through its public header,
 * built as C. It needs no server: it decodes a message built by hand,
 * checks error texts and the failure of a connection to a socket that does
 * not exist. Exit status 0 when every check holds.
 */
#include <stdio.h>
#include <string.h>

#include "lapi_client.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

int main(void) {
    DistanceAzimuthRsp rsp;
    lapi_msg msg;
    size_t used = 0;
    lapi_client *pClient = NULL;
    int rc;

    memset(&rsp, 0, sizeof(rsp));
    rsp.header.msgId = LAPI_DISTANCE_AZIMUTH_RSP;
    rsp.header.msgLen = LAPI_DISTANCE_AZIMUTH_RSP_LEN;
    rsp.sessionId = 7;
    rsp.transactionId = 9;
    rsp.distance = 1234.5;
    rsp.azimuth = 90.25;

    rc = lapi_decode_msg(&rsp, sizeof(rsp), &msg, &used);
    CHECK(rc == LAPI_OK);
    CHECK(used == sizeof(rsp));
    CHECK(msg.msgId == LAPI_DISTANCE_AZIMUTH_RSP);
    CHECK(msg.u.distanceAzimuthRsp.sessionId == 7);
    CHECK(msg.u.distanceAzimuthRsp.transactionId == 9);
    CHECK(msg.u.distanceAzimuthRsp.distance == 1234.5);
    CHECK(msg.u.distanceAzimuthRsp.azimuth == 90.25);
    CHECK(strcmp(lapi_msg_name(LAPI_DISTANCE_AZIMUTH_RSP), "distanceAzimuthRsp") == 0);

    CHECK(strcmp(lapi_strerror(LAPI_OK), "success") == 0);
    CHECK(strcmp(lapi_strerror(LAPI_E_CONNECT), lapi_strerror(LAPI_E_TIMEOUT)) != 0);

    rc = lapi_open("/nonexistent-lapi-dir/lapisock", LAPI_SERVICE_BASIC, 1000, &pClient);
    CHECK(rc == LAPI_E_CONNECT);
    CHECK(pClient == NULL);
    lapi_close(pClient);

    if (failures == 0) {
        printf("lapi_c_check: all checks passed\n");
        return 0;
    }
    return 1;
}
