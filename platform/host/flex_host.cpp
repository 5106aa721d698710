/*
 * Host stand-in of the feature-flag library: flag N is on when the file
 * ROOT/etc/flex/N exists (its content does not matter) and off otherwise.
 * The query itself never fails; only a null out-parameter is refused.
 */
#include "zelflex.h"

#include <stdio.h>
#include <sys/stat.h>

#include "HOST_Root.h"

extern "C" int getFlexBit(uint32_t flagId, uint8_t *pValue) {
    if (pValue == nullptr) {
        return -1;
    }
    char relPath[32];
    snprintf(relPath, sizeof(relPath), "/etc/flex/%u", static_cast<unsigned>(flagId));
    char path[512];
    struct stat st;
    /* A root too long for the path cannot hold the file: the flag is off. */
    *pValue = (HOST_Path(path, sizeof(path), relPath) == 0 && stat(path, &st) == 0) ? 1 : 0;
    return 0;
}
