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
/* Opens the FIFO ROOT + absPath (made, with its folder, when missing) for
 * reading and writing, so that it never reports end of file while no tester
 * has it open; non-blocking, closed on exec. Returns the descriptor, or -1
 * (also when something other than a FIFO is in its place). */
int HOST_OpenFifo(const char *absPath);

#ifdef __cplusplus
}
#endif

#endif /* HOST_ROOT_H */
