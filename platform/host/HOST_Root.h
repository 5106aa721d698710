/*
 * Root folder of the host stand-ins: every fixed absolute path of the
 * handset's platform libraries is taken below it. Empty for lapi_srv,
 * the launcher's --root DIR for lapi_srv_host.
 */
#ifndef HOST_ROOT_H
#define HOST_ROOT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the root (copied; at most 200 bytes). Returns 0, or -1 when too long. */
int HOST_SetRoot(const char *root);
const char *HOST_Root(void);
/* Writes ROOT + absPath into dst. Returns 0, or -1 when it does not fit. */
int HOST_Path(char *dst, size_t dstSize, const char *absPath);

#ifdef __cplusplus
}
#endif

#endif /* HOST_ROOT_H */
