/*
 * Certificate library of the handset ("libzelcm.so"): the certificate
 * manager that holds the trusted roots, and a parser that locates the parts
 * of a DER certificate.
 */
#ifndef ZELCM_H
#define ZELCM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Handle of a certificate-manager context (pointer-sized). */
typedef uintptr_t CM_CONTEXT_T;

/* What cert_ParseCertificate reports. Only these fields are public. */
typedef struct CERT_PARSED_S {
    const uint8_t *pBase;      /* start of the certificate data */
    uint16_t extensionsLength; /* bytes of the extensions element ([3] wrapper
                                  with its tag and length octets) */
    uint16_t extensionsOffset; /* where that element starts, from pBase; 0 when
                                  the certificate has no extensions */
} CERT_PARSED_S;

/* Parses the DER certificate of length bytes at pData. 0 on success. */
int cert_ParseCertificate(const uint8_t *pData, uint32_t length, CERT_PARSED_S *pParsed);

#ifdef __cplusplus
}
#endif

#endif /* ZELCM_H */
