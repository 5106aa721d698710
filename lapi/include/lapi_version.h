/*
 * Version of the location server, its client library and its tools.
 *
 * This file is the one place the version is written: the build reads the
 * three numbers from here for the shared library's file name and SONAME,
 * lapi.pc and the CMake package, and every tool prints LAPI_VERSION_STRING
 * for --version. Installed with lapi_client.h as <lapi/lapi_version.h>. A change of
 * LAPI_VERSION_MAJOR is a change of the library's ABI (liblapi.so.MAJOR).
 *
 * The header is C and C++.
 */
#ifndef LAPI_VERSION_H
#define LAPI_VERSION_H

#define LAPI_VERSION_MAJOR 1
#define LAPI_VERSION_MINOR 0
#define LAPI_VERSION_PATCH 0

#define LAPI_VERSION_STR_(x) #x
#define LAPI_VERSION_XSTR_(x) LAPI_VERSION_STR_(x)
/* "MAJOR.MINOR.PATCH" */
#define LAPI_VERSION_STRING                \
    LAPI_VERSION_XSTR_(LAPI_VERSION_MAJOR) \
    "." LAPI_VERSION_XSTR_(LAPI_VERSION_MINOR) "." LAPI_VERSION_XSTR_(LAPI_VERSION_PATCH)
/* One number for compile-time comparisons: 0xMMmmpp. */
#define LAPI_VERSION_NUMBER \
    ((LAPI_VERSION_MAJOR << 16) | (LAPI_VERSION_MINOR << 8) | LAPI_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* LAPI_VERSION_STRING of the library actually loaded, which may be newer
 * than the header a program was compiled with. */
const char *lapi_version(void);

#ifdef __cplusplus
}
#endif

#endif /* LAPI_VERSION_H */
