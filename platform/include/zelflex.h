/*
 * Feature flags of the handset ("libzelflex.so").
 *
 * The platform keeps a table of numbered feature flags that say which
 * optional functions this handset model offers. A flag is either on or off;
 * the server asks for one flag by number and gets a byte back.
 */
#ifndef ZELFLEX_H
#define ZELFLEX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Feature numbers the server asks for. */
enum {
    DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE = 367, /* the location fix log */
};

/*
 * Reads feature flag flagId into *pValue: 1 when the feature is on, 0 when
 * it is off. Returns 0 when the flag was read, -1 when the query failed (then
 * *pValue is left as it was). pValue must point to one writable byte; a null
 * pValue is refused with -1.
 */
int getFlexBit(uint32_t flagId, uint8_t *pValue);

#ifdef __cplusplus
}
#endif

#endif /* ZELFLEX_H */
