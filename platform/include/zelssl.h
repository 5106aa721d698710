/*
 * TLS library of the handset ("libzelssl.so").
 *
 * Client sessions over a transport that the caller provides: the library
 * reads and writes through the caller's I/O callbacks, draws random bytes
 * through the random callback, and asks the chain callback to accept the
 * server's certificate. Trusted roots come from the certificate manager
 * (zelcm.h). The context lives in memory that the caller allocates with
 * CD_malloc, TLSContextSize() bytes of it.
 *
 * Byte blocks travel as a TLSBuffer: a length and a pointer.
 */
#ifndef ZELSSL_H
#define ZELSSL_H

#include <stdint.h>

#include "zelcm.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TLSBuffer {
    uint32_t length; /* bytes at data (for an output buffer: its capacity) */
    uint8_t *data;
} TLSBuffer;

/* A session context: opaque, in caller-allocated memory. */
typedef struct TLSContext TLSContext;

/* Results of the library and of the callbacks. */
enum {
    TLS_RESULT_OK = 0,
    TLS_RESULT_CLOSED = 2,        /* the connection ended (after a handshake: done) */
    TLS_RESULT_IO_ERROR = 3,      /* the transport failed */
    TLS_RESULT_WOULD_BLOCK = 4,   /* wait for the transport and call again */
    TLS_RESULT_READ_OVERFLOW = 8, /* a record did not fit the read buffer */
};

#define TLS_VERSION_1_0 0x0301

/* TLSSetOption: do not insist on the basic-constraints extension of CA
 * certificates in the chain. */
#define TLS_OPTION_NO_ENFORCE_BASIC_CONSTRAINTS 1

/* Callbacks; pRef is the reference set next to each of them. */
typedef int (*TLSRandomFunc)(TLSBuffer *pRandom, void *pRef);
/* Fills up to pBuffer->length bytes, *pCount = bytes delivered. */
typedef int (*TLSReadFunc)(TLSBuffer *pBuffer, uint32_t *pCount, void *pRef);
/* Sends pBuffer->length bytes, *pCount = bytes taken. */
typedef int (*TLSWriteFunc)(TLSBuffer *pBuffer, uint32_t *pCount, void *pRef);
typedef int (*TLSAlertFunc)(uint8_t level, uint8_t description, void *pRef);
/* pCertificate is the server's certificate in DER; chainResult 0 and
 * chainTrusted non-zero mean the chain verified against a trusted root.
 * Return 0 to accept, non-zero to reject (the handshake then fails). */
typedef int (*TLSCheckCertChainFunc)(TLSContext *pCtx, const TLSBuffer *pCertificate,
                                     uint32_t chainLength, int32_t chainResult,
                                     uint8_t chainTrusted, void *pRef);

/* Memory for the library's objects. flags: 0. */
void *CD_malloc(uint32_t size, uint32_t flags);
void CD_free(void *p, uint32_t flags);

/* Bytes a context needs. */
uint32_t TLSContextSize(void);
/* Prepares a context in size bytes at pCtx. flags: 0. */
int TLSInitContext(TLSContext *pCtx, uint32_t size, uint32_t flags);
int TLSDeleteContext(TLSContext *pCtx);

/* Attaches the certificate manager: *pCmContext receives its handle. */
int TLSInitCMContext(TLSContext *pCtx, CM_CONTEXT_T *pCmContext);
int TLSDeleteCMContext(TLSContext *pCtx, CM_CONTEXT_T *pCmContext);
/* Trusts the manager's root certificates in this context. */
int TLSAddRootCertificates(TLSContext *pCtx, CM_CONTEXT_T *pCmContext);

/* Handshake, read and write return TLS_RESULT_WOULD_BLOCK instead of
 * waiting when the I/O callbacks do. */
int TLSEnableNonBlocking(TLSContext *pCtx);

int TLSSetRandomFunc(TLSContext *pCtx, TLSRandomFunc func);
int TLSSetRandomRef(TLSContext *pCtx, void *pRef);
int TLSSetReadFunc(TLSContext *pCtx, TLSReadFunc func);
int TLSSetWriteFunc(TLSContext *pCtx, TLSWriteFunc func);
int TLSSetIORef(TLSContext *pCtx, void *pRef);
int TLSSetAlertFunc(TLSContext *pCtx, TLSAlertFunc func);
int TLSSetAlertRef(TLSContext *pCtx, void *pRef);
int TLSSetCheckCertificateChainFunc(TLSContext *pCtx, TLSCheckCertChainFunc func);
int TLSSetCheckCertificateChainRef(TLSContext *pCtx, void *pRef);

/* The suites to offer, in order: pSuites holds 16-bit suite identifiers in
 * host order, length counts bytes (two per suite). */
int TLSSetCipherSuites(TLSContext *pCtx, const TLSBuffer *pSuites);
/* Highest protocol version to offer, e.g. TLS_VERSION_1_0. */
int TLSSetProtocolVersion(TLSContext *pCtx, uint16_t version);
int TLSSetOption(TLSContext *pCtx, uint32_t option);

/* Runs (or continues) the handshake. */
int TLSHandshake(TLSContext *pCtx);
/* After the handshake: the suite and the version agreed on. */
int TLSGetNegotiatedCipher(TLSContext *pCtx);
int TLSGetProtocolVersion(TLSContext *pCtx);

/* Application data: *pCount = bytes read into / taken from pBuffer. */
int TLSRead(TLSContext *pCtx, TLSBuffer *pBuffer, uint32_t *pCount);
int TLSWrite(TLSContext *pCtx, const TLSBuffer *pBuffer, uint32_t *pCount);
/* Ends the session (close notify); the context can then be deleted. */
int TLSClose(TLSContext *pCtx);

/* Name item of a DER certificate (item 0: the subject's common name, the
 * first one in encoding order when there are several) as the bytes of its
 * encoding (a BMPString as big-endian two-byte characters); pName->length
 * is the capacity on entry and the length of the item on return. An item
 * longer than the capacity is not copied: TLS_RESULT_READ_OVERFLOW. */
int TLSExtractCertificateNameItem(const TLSBuffer *pCertificate, uint32_t item, TLSBuffer *pName);

/* Fills pRandom->length random bytes; pSeed may be empty. flags: 0. */
int TLSGenerateRandom(const TLSBuffer *pSeed, TLSBuffer *pRandom, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* ZELSSL_H */
