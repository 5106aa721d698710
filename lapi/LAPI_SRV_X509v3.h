/*
 * The second host-name check of the assistance server's certificate: a
 * subjectAltName dNSName equal to the name the BP asked for, found by
 * walking the certificate's version 3 extensions with a small DER reader.
 * The certificate library only says where the extensions lie.
 *
 * Every walker reads through one LAPI_Reader whose end is the end of the
 * element it is in: an element whose length runs past its container (or
 * past the certificate) is a decode failure, never a read outside it.
 */
#ifndef LAPI_SRV_X509V3_H
#define LAPI_SRV_X509V3_H

#include <stdint.h>

#include "LAPI_Wire.h"
#include "zelssl.h"

/* LAPI_SRV_CheckFQDN results. */
enum {
    LAPI_SRV_FQDN_MATCH = 0,
    LAPI_SRV_FQDN_NO_MATCH = 4,
    LAPI_SRV_FQDN_DECODE_FAIL = -1,
};

/* 0 a dNSName equals serverName; 4 none does; -1 the certificate could not
 * be parsed or decoded (no extensions at all is -1 too). */
int LAPI_SRV_CheckFQDN(const TLSBuffer *pCertificate, const char *serverName);

/* The walkers, each on a reader positioned at its element; the reader's end
 * is the end of the enclosing element. 0 or -1; *pFound set on a match. */
int check_extensions(const uint8_t *pExt, uint32_t extLength, const char *serverName, int *pFound);
/* One Extension; *pSize gets its size with header. */
int check_extension(LAPI_Reader r, uint32_t *pSize, const char *serverName, int *pFound);
int check_subaltname(LAPI_Reader r, const char *serverName, int *pFound);
/* Tag number (first byte AND 0x1F), content length and header length of the
 * element at the reader, which moves past the header. */
int decode_one_tag(LAPI_Reader *pR, uint8_t *pTag, uint32_t *pLength, int *pHeaderLength);
/* DER length octets at the reader: *pCount gets how many. */
int getvarlen(LAPI_Reader *pR, uint32_t *pLength, int *pCount);

#endif /* LAPI_SRV_X509V3_H */
