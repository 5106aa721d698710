/* Push intake: WAP push over the SMS application port and the UDP port. */
#ifndef LAPI_SRV_WAPPUSH_H
#define LAPI_SRV_WAPPUSH_H

/* Non-zero on failure. */
int LAPI_SRV_InitIPServer(void);
int LAPI_SRV_RegisterTAPIClient(void);

#endif /* LAPI_SRV_WAPPUSH_H */
