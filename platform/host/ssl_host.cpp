/*
 * Host stand-in of the TLS library ("libzelssl.so") and of the certificate
 * manager and parser ("libzelcm.so"), built on OpenSSL 3.
 *
 * - OpenSSL is loaded with dlopen by the first call that needs it, not at
 *   start-up: most servers never open a TLS session, and just having
 *   libcrypto and libssl mapped costs an idle server some 460 kB of private
 *   dirty memory (their relocated read-only data). Every OpenSSL function is
 *   called through a pointer of the table below; the library is not linked,
 *   so a direct call left anywhere in this file fails to link.
 * - A context is a HostTlsContext placed in the caller's CD_malloc memory;
 *   the OpenSSL objects are made at the first TLSHandshake, once every
 *   setter has run.
 * - No socket of OpenSSL's: a BIO of our own calls the read and write
 *   callbacks that the caller installed, so whether anything blocks is the
 *   caller's business. A callback's "would block" (4) becomes OpenSSL's
 *   retry, and OpenSSL's WANT_READ / WANT_WRITE becomes 4 again.
 * - The protocol version set is the highest offered; TLS 1.0 and the old
 *   suites need OpenSSL's security level 0. Suites OpenSSL no longer knows
 *   (the library's private and elliptic-curve numbers, export suites) are
 *   left out of the offer; the rest keep the caller's order.
 * - The certificate manager's roots are every PEM file in ROOT/etc/certs/.
 *   The chain callback sees the peer's certificate in DER with the verdict
 *   of OpenSSL's chain verification, and decides.
 */
#include "zelssl.h"

#include <dirent.h>
#include <dlfcn.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "HOST_Root.h"

/* The libraries' files as the build found them (full paths, so that a
 * cross build finds OpenSSL where it was unpacked, off every default
 * library path), and their sonames to fall back on. */
#ifndef LAPI_OPENSSL_CRYPTO_PATH
#define LAPI_OPENSSL_CRYPTO_PATH ""
#endif
#ifndef LAPI_OPENSSL_SSL_PATH
#define LAPI_OPENSSL_SSL_PATH ""
#endif
#define LAPI_OPENSSL_CRYPTO_SONAME "libcrypto.so.3"
#define LAPI_OPENSSL_SSL_SONAME "libssl.so.3"

/* Every OpenSSL function this file calls, by library, including those that
 * OpenSSL's own macros expand to (SSL_CTX_set_mode is SSL_CTX_ctrl,
 * BIO_set_retry_read is BIO_set_flags, OPENSSL_free is CRYPTO_free, ...). */
/* clang-format off */
#define LAPI_OPENSSL_CRYPTO_FUNCTIONS(X) \
    X(ASN1_STRING_get0_data)             \
    X(ASN1_STRING_length)                \
    X(BIO_clear_flags)                   \
    X(BIO_get_data)                      \
    X(BIO_get_new_index)                 \
    X(BIO_meth_new)                      \
    X(BIO_meth_set_ctrl)                 \
    X(BIO_meth_set_read)                 \
    X(BIO_meth_set_write)                \
    X(BIO_new)                           \
    X(BIO_set_data)                      \
    X(BIO_set_flags)                     \
    X(BIO_set_init)                      \
    X(CRYPTO_free)                       \
    X(CRYPTO_get_ex_new_index)           \
    X(ERR_clear_error)                   \
    X(OPENSSL_sk_num)                    \
    X(RAND_add)                          \
    X(RAND_bytes)                        \
    X(X509_NAME_ENTRY_get_data)          \
    X(X509_NAME_get_entry)               \
    X(X509_NAME_get_index_by_NID)        \
    X(X509_STORE_CTX_get0_cert)          \
    X(X509_STORE_CTX_get0_untrusted)     \
    X(X509_STORE_CTX_get_error)          \
    X(X509_STORE_CTX_get_ex_data)        \
    X(X509_STORE_CTX_set_error)          \
    X(X509_STORE_free)                   \
    X(X509_STORE_load_file)              \
    X(X509_STORE_new)                    \
    X(X509_STORE_up_ref)                 \
    X(X509_free)                         \
    X(X509_get_subject_name)             \
    X(X509_verify_cert)                  \
    X(d2i_X509)                          \
    X(i2d_X509)
#define LAPI_OPENSSL_SSL_FUNCTIONS(X)     \
    X(SSL_CIPHER_get_protocol_id)         \
    X(SSL_CTX_ctrl)                       \
    X(SSL_CTX_free)                       \
    X(SSL_CTX_new)                        \
    X(SSL_CTX_set_cert_store)             \
    X(SSL_CTX_set_cert_verify_callback)   \
    X(SSL_CTX_set_cipher_list)            \
    X(SSL_CTX_set_info_callback)          \
    X(SSL_CTX_set_options)                \
    X(SSL_CTX_set_security_level)         \
    X(SSL_CTX_set_verify)                 \
    X(SSL_do_handshake)                   \
    X(SSL_free)                           \
    X(SSL_get_current_cipher)             \
    X(SSL_get_error)                      \
    X(SSL_get_ex_data)                    \
    X(SSL_get_ex_data_X509_STORE_CTX_idx) \
    X(SSL_new)                            \
    X(SSL_read_ex)                        \
    X(SSL_set_bio)                        \
    X(SSL_set_connect_state)              \
    X(SSL_set_ex_data)                    \
    X(SSL_shutdown)                       \
    X(SSL_version)                        \
    X(SSL_write_ex)                       \
    X(TLS_client_method)
/* clang-format on */

namespace {

struct OpenSslApi {
#define LAPI_OPENSSL_POINTER(name) decltype(&::name) name;
    LAPI_OPENSSL_CRYPTO_FUNCTIONS(LAPI_OPENSSL_POINTER)
    LAPI_OPENSSL_SSL_FUNCTIONS(LAPI_OPENSSL_POINTER)
#undef LAPI_OPENSSL_POINTER
};
OpenSslApi g_openSsl;

/* Opens one library, by its full path first, then by its soname. Returns
 * null with dlerror() describing the last attempt. */
void *OpenLibrary(const char *path, const char *soname) {
#ifdef LAPI_SSL_HOST_TEST_HOOKS
    /* The load failure tests name a library of their own; this build only. */
    const char *envName =
        strcmp(soname, LAPI_OPENSSL_SSL_SONAME) == 0 ? "LAPI_TEST_LIBSSL" : "LAPI_TEST_LIBCRYPTO";
    if (const char *pTest = getenv(envName)) {
        return dlopen(pTest, RTLD_NOW | RTLD_GLOBAL);
    }
#endif
    void *pHandle = path[0] != '\0' ? dlopen(path, RTLD_NOW | RTLD_GLOBAL) : nullptr;
    return pHandle != nullptr ? pHandle : dlopen(soname, RTLD_NOW | RTLD_GLOBAL);
}

/* Looks up every name of one library's list; the first one missing is
 * reported. */
#define LAPI_OPENSSL_RESOLVE(name)                                                          \
    if ((g_openSsl.name = reinterpret_cast<decltype(&::name)>(dlsym(pHandle, #name))) ==    \
        nullptr) {                                                                          \
        fprintf(stderr, "zelssl: OpenSSL's %s has no %s: %s\n", library, #name, dlerror()); \
        return false;                                                                       \
    }

bool ResolveCrypto(void *pHandle, const char *library) {
    LAPI_OPENSSL_CRYPTO_FUNCTIONS(LAPI_OPENSSL_RESOLVE)
    return true;
}

bool ResolveSsl(void *pHandle, const char *library) {
    LAPI_OPENSSL_SSL_FUNCTIONS(LAPI_OPENSSL_RESOLVE)
    return true;
}
#undef LAPI_OPENSSL_RESOLVE

bool LoadOpenSsl() {
    /* libcrypto first and global, so that libssl's own need of it is met by
     * the copy already loaded, wherever that came from. */
    void *pCrypto = OpenLibrary(LAPI_OPENSSL_CRYPTO_PATH, LAPI_OPENSSL_CRYPTO_SONAME);
    if (pCrypto == nullptr) {
        fprintf(stderr, "zelssl: cannot load OpenSSL's libcrypto: %s\n", dlerror());
        return false;
    }
    /* A libcrypto that is not OpenSSL's is told as such, before libssl
     * fails to find the real one. */
    if (!ResolveCrypto(pCrypto, "libcrypto")) {
        return false;
    }
    void *pSsl = OpenLibrary(LAPI_OPENSSL_SSL_PATH, LAPI_OPENSSL_SSL_SONAME);
    if (pSsl == nullptr) {
        fprintf(stderr, "zelssl: cannot load OpenSSL's libssl: %s\n", dlerror());
        return false;
    }
    /* The handles stay open for the life of the process: OpenSSL cleans up
     * at exit on its own. */
    return ResolveSsl(pSsl, "libssl");
}

/* Whether OpenSSL can be used, loading it on the first call. A failure is
 * final: the load is not tried again on every call, so a handset without
 * the libraries gets one line about it, not one per request, and every
 * call that needs OpenSSL fails as it would with an unusable context.
 * Single-threaded, as the server is. */
bool OpenSslReady() {
    enum class State { kNotTried, kLoaded, kFailed };
    static State state = State::kNotTried;
    if (state == State::kNotTried) {
        state = LoadOpenSsl() ? State::kLoaded : State::kFailed;
    }
    return state == State::kLoaded;
}

}  // namespace

/* From here on every OpenSSL name is a call through the table; OpenSSL's
 * macros expand to these names and reach the table too. */
#define ASN1_STRING_get0_data (g_openSsl.ASN1_STRING_get0_data)
#define ASN1_STRING_length (g_openSsl.ASN1_STRING_length)
#define BIO_clear_flags (g_openSsl.BIO_clear_flags)
#define BIO_get_data (g_openSsl.BIO_get_data)
#define BIO_get_new_index (g_openSsl.BIO_get_new_index)
#define BIO_meth_new (g_openSsl.BIO_meth_new)
#define BIO_meth_set_ctrl (g_openSsl.BIO_meth_set_ctrl)
#define BIO_meth_set_read (g_openSsl.BIO_meth_set_read)
#define BIO_meth_set_write (g_openSsl.BIO_meth_set_write)
#define BIO_new (g_openSsl.BIO_new)
#define BIO_set_data (g_openSsl.BIO_set_data)
#define BIO_set_flags (g_openSsl.BIO_set_flags)
#define BIO_set_init (g_openSsl.BIO_set_init)
#define CRYPTO_free (g_openSsl.CRYPTO_free)
#define CRYPTO_get_ex_new_index (g_openSsl.CRYPTO_get_ex_new_index)
#define ERR_clear_error (g_openSsl.ERR_clear_error)
#define OPENSSL_sk_num (g_openSsl.OPENSSL_sk_num)
#define RAND_add (g_openSsl.RAND_add)
#define RAND_bytes (g_openSsl.RAND_bytes)
#define SSL_CIPHER_get_protocol_id (g_openSsl.SSL_CIPHER_get_protocol_id)
#define SSL_CTX_ctrl (g_openSsl.SSL_CTX_ctrl)
#define SSL_CTX_free (g_openSsl.SSL_CTX_free)
#define SSL_CTX_new (g_openSsl.SSL_CTX_new)
#define SSL_CTX_set_cert_store (g_openSsl.SSL_CTX_set_cert_store)
#define SSL_CTX_set_cert_verify_callback (g_openSsl.SSL_CTX_set_cert_verify_callback)
#define SSL_CTX_set_cipher_list (g_openSsl.SSL_CTX_set_cipher_list)
#define SSL_CTX_set_info_callback (g_openSsl.SSL_CTX_set_info_callback)
#define SSL_CTX_set_options (g_openSsl.SSL_CTX_set_options)
#define SSL_CTX_set_security_level (g_openSsl.SSL_CTX_set_security_level)
#define SSL_CTX_set_verify (g_openSsl.SSL_CTX_set_verify)
#define SSL_do_handshake (g_openSsl.SSL_do_handshake)
#define SSL_free (g_openSsl.SSL_free)
#define SSL_get_current_cipher (g_openSsl.SSL_get_current_cipher)
#define SSL_get_error (g_openSsl.SSL_get_error)
#define SSL_get_ex_data (g_openSsl.SSL_get_ex_data)
#define SSL_get_ex_data_X509_STORE_CTX_idx (g_openSsl.SSL_get_ex_data_X509_STORE_CTX_idx)
#define SSL_new (g_openSsl.SSL_new)
#define SSL_read_ex (g_openSsl.SSL_read_ex)
#define SSL_set_bio (g_openSsl.SSL_set_bio)
#define SSL_set_connect_state (g_openSsl.SSL_set_connect_state)
#define SSL_set_ex_data (g_openSsl.SSL_set_ex_data)
#define SSL_shutdown (g_openSsl.SSL_shutdown)
#define SSL_version (g_openSsl.SSL_version)
#define SSL_write_ex (g_openSsl.SSL_write_ex)
#define TLS_client_method (g_openSsl.TLS_client_method)
#define X509_NAME_ENTRY_get_data (g_openSsl.X509_NAME_ENTRY_get_data)
#define X509_NAME_get_entry (g_openSsl.X509_NAME_get_entry)
#define X509_NAME_get_index_by_NID (g_openSsl.X509_NAME_get_index_by_NID)
#define X509_STORE_CTX_get0_cert (g_openSsl.X509_STORE_CTX_get0_cert)
#define X509_STORE_CTX_get0_untrusted (g_openSsl.X509_STORE_CTX_get0_untrusted)
#define X509_STORE_CTX_get_error (g_openSsl.X509_STORE_CTX_get_error)
#define X509_STORE_CTX_get_ex_data (g_openSsl.X509_STORE_CTX_get_ex_data)
#define X509_STORE_CTX_set_error (g_openSsl.X509_STORE_CTX_set_error)
#define X509_STORE_free (g_openSsl.X509_STORE_free)
#define X509_STORE_load_file (g_openSsl.X509_STORE_load_file)
#define X509_STORE_new (g_openSsl.X509_STORE_new)
#define X509_STORE_up_ref (g_openSsl.X509_STORE_up_ref)
#define X509_free (g_openSsl.X509_free)
#define X509_get_subject_name (g_openSsl.X509_get_subject_name)
#define X509_verify_cert (g_openSsl.X509_verify_cert)
#define d2i_X509 (g_openSsl.d2i_X509)
#define i2d_X509 (g_openSsl.i2d_X509)

namespace {

constexpr uint32_t kContextSize = 20480;
constexpr uint32_t kMagic = 0x544C5343u; /* "TLSC" */

/* Failure codes of the stand-in beyond the designed ones: anything that is
 * not 0, 2, 4 or 8 is a failure for the caller. */
constexpr int kFail = 1;
constexpr int kTransportFail = TLS_RESULT_IO_ERROR;

struct HostTlsContext {
    uint32_t magic;
    bool bNonBlocking;
    bool bHandshakeDone;
    bool bCalledRandom;
    uint16_t version;
    uint32_t options;
    TLSRandomFunc randomFunc;
    void *pRandomRef;
    TLSReadFunc readFunc;
    TLSWriteFunc writeFunc;
    void *pIORef;
    TLSAlertFunc alertFunc;
    void *pAlertRef;
    TLSCheckCertChainFunc chainFunc;
    void *pChainRef;
    X509_STORE *pStore;
    char cipherList[512];
    SSL_CTX *pSslCtx;
    SSL *pSsl;
};
static_assert(sizeof(HostTlsContext) <= kContextSize, "a context must fit TLSContextSize()");

HostTlsContext *Ctx(TLSContext *pCtx) {
    auto *p = reinterpret_cast<HostTlsContext *>(pCtx);
    return (p != nullptr && p->magic == kMagic) ? p : nullptr;
}

/* The suites OpenSSL can still offer, by their 16-bit identifiers. The
 * other identifiers of the handset's list have no OpenSSL counterpart. */
struct SuiteName {
    uint16_t id;
    const char *name;
};
constexpr SuiteName kSuites[] = {
    {0x0001, "NULL-MD5"},   {0x0002, "NULL-SHA"},      {0x0003, "EXP-RC4-MD5"},
    {0x0004, "RC4-MD5"},    {0x000A, "DES-CBC3-SHA"},  {0x002F, "AES128-SHA"},
    {0x0035, "AES256-SHA"}, {0x003C, "AES128-SHA256"},
};

constexpr size_t kSuiteCount = sizeof(kSuites) / sizeof(kSuites[0]);

/* The suite's place in kSuites, or kSuiteCount. */
size_t SuiteIndexOf(uint16_t id) {
    size_t i = 0;
    while (i < kSuiteCount && kSuites[i].id != id) {
        ++i;
    }
    return i;
}

/* Whether this OpenSSL build accepts the suite at security level 0. The
 * answer depends on the build alone, so each suite is tried once per
 * process: a trial takes a context of its own, which costs more than the
 * rest of a session's set-up. 0 not tried yet, 1 accepted, -1 refused. */
int8_t g_suiteKnown[kSuiteCount];

bool OpenSslKnows(size_t index) {
    if (g_suiteKnown[index] != 0) {
        return g_suiteKnown[index] > 0;
    }
    SSL_CTX *pTry = SSL_CTX_new(TLS_client_method());
    if (pTry == nullptr) {
        return false; /* out of memory, perhaps: tried again next time */
    }
    char list[128];
    int n = snprintf(list, sizeof(list), "%s:@SECLEVEL=0", kSuites[index].name);
    bool ok =
        n > 0 && static_cast<size_t>(n) < sizeof(list) && SSL_CTX_set_cipher_list(pTry, list) == 1;
    SSL_CTX_free(pTry);
    ERR_clear_error();
    g_suiteKnown[index] = ok ? 1 : -1;
    return ok;
}

/* --- the BIO over the caller's callbacks -------------------------------- */

HostTlsContext *BioOwner(BIO *pBio) {
    return static_cast<HostTlsContext *>(BIO_get_data(pBio));
}

int BioRead(BIO *pBio, char *pOut, int outLen) {
    BIO_clear_retry_flags(pBio);
    HostTlsContext *p = BioOwner(pBio);
    if (p == nullptr || p->readFunc == nullptr || outLen <= 0) {
        return -1;
    }
    TLSBuffer buffer{static_cast<uint32_t>(outLen), reinterpret_cast<uint8_t *>(pOut)};
    uint32_t count = 0;
    int result = p->readFunc(&buffer, &count, p->pIORef);
    if (count > static_cast<uint32_t>(outLen)) {
        return -1; /* a callback that claims more than it was given */
    }
    if (result == TLS_RESULT_OK) {
        if (count == 0) {
            BIO_set_retry_read(pBio);
            return -1;
        }
        return static_cast<int>(count);
    }
    if (result == TLS_RESULT_WOULD_BLOCK) {
        BIO_set_retry_read(pBio);
        return -1;
    }
    /* Closed or failed: what arrived before still counts; the next read
     * reports the end. */
    if (count > 0) {
        return static_cast<int>(count);
    }
    return result == TLS_RESULT_CLOSED ? 0 : -1;
}

int BioWrite(BIO *pBio, const char *pIn, int inLen) {
    BIO_clear_retry_flags(pBio);
    HostTlsContext *p = BioOwner(pBio);
    if (p == nullptr || p->writeFunc == nullptr || inLen <= 0) {
        return -1;
    }
    TLSBuffer buffer{static_cast<uint32_t>(inLen),
                     reinterpret_cast<uint8_t *>(const_cast<char *>(pIn))};
    uint32_t count = 0;
    int result = p->writeFunc(&buffer, &count, p->pIORef);
    if (count > static_cast<uint32_t>(inLen)) {
        return -1;
    }
    if ((result == TLS_RESULT_OK || result == TLS_RESULT_WOULD_BLOCK) && count == 0) {
        BIO_set_retry_write(pBio);
        return -1;
    }
    if (result == TLS_RESULT_OK) {
        return static_cast<int>(count);
    }
    return count > 0 ? static_cast<int>(count) : -1;
}

long BioCtrl(BIO *, int cmd, long, void *) {
    return cmd == BIO_CTRL_FLUSH ? 1 : 0;
}

/* Made on first use and kept: one per process. (A plain pointer rather
 * than a function-local static: the stand-in is used from one thread, and
 * the server binaries carry none of the C++ runtime's guards.) */
BIO_METHOD *g_bioMethod = nullptr;

BIO_METHOD *CallbackBioMethod() {
    if (g_bioMethod == nullptr) {
        BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "zelssl io");
        if (m == nullptr) {
            return nullptr;
        }
        BIO_meth_set_read(m, BioRead);
        BIO_meth_set_write(m, BioWrite);
        BIO_meth_set_ctrl(m, BioCtrl);
        g_bioMethod = m;
    }
    return g_bioMethod;
}

/* --- certificate verdict and alerts ------------------------------------- */

int g_sslIndex = -1;

HostTlsContext *SslOwner(const SSL *pSsl) {
    return static_cast<HostTlsContext *>(SSL_get_ex_data(pSsl, g_sslIndex));
}

int VerifyChain(X509_STORE_CTX *pStoreCtx, void *) {
    SSL *pSsl = static_cast<SSL *>(
        X509_STORE_CTX_get_ex_data(pStoreCtx, SSL_get_ex_data_X509_STORE_CTX_idx()));
    HostTlsContext *p = pSsl != nullptr ? SslOwner(pSsl) : nullptr;
    int trusted = X509_verify_cert(pStoreCtx) == 1 ? 1 : 0;
    int chainResult = X509_STORE_CTX_get_error(pStoreCtx);
    if (p == nullptr || p->chainFunc == nullptr) {
        return trusted;
    }
    X509 *pLeaf = X509_STORE_CTX_get0_cert(pStoreCtx);
    unsigned char *pDer = nullptr;
    int derLen = pLeaf != nullptr ? i2d_X509(pLeaf, &pDer) : -1;
    if (derLen <= 0) {
        X509_STORE_CTX_set_error(pStoreCtx, X509_V_ERR_UNSPECIFIED);
        return 0;
    }
    TLSBuffer cert{static_cast<uint32_t>(derLen), pDer};
    STACK_OF(X509) *pChain = X509_STORE_CTX_get0_untrusted(pStoreCtx);
    uint32_t chainLength = pChain != nullptr ? static_cast<uint32_t>(sk_X509_num(pChain)) : 1;
    int verdict = p->chainFunc(reinterpret_cast<TLSContext *>(p), &cert, chainLength, chainResult,
                               static_cast<uint8_t>(trusted), p->pChainRef);
    OPENSSL_free(pDer);
    if (verdict != 0) {
        X509_STORE_CTX_set_error(pStoreCtx, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
    return 1;
}

void InfoCallback(const SSL *pSsl, int where, int value) {
    if ((where & SSL_CB_ALERT) == 0) {
        return;
    }
    HostTlsContext *p = SslOwner(pSsl);
    if (p != nullptr && p->alertFunc != nullptr) {
        p->alertFunc(static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF),
                     p->pAlertRef);
    }
}

/* The session, made from what the setters recorded. */
int MakeSession(HostTlsContext *p) {
    if (g_sslIndex < 0) {
        g_sslIndex = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    }
    p->pSslCtx = SSL_CTX_new(TLS_client_method());
    if (p->pSslCtx == nullptr) {
        return kFail;
    }
    SSL_CTX_set_security_level(p->pSslCtx, 0);
    SSL_CTX_set_min_proto_version(p->pSslCtx, TLS1_VERSION);
    if (p->version != 0) {
        SSL_CTX_set_max_proto_version(p->pSslCtx, p->version);
    }
    if (p->cipherList[0] != '\0' && SSL_CTX_set_cipher_list(p->pSslCtx, p->cipherList) != 1) {
        return kFail;
    }
    SSL_CTX_set_mode(p->pSslCtx,
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    /* A peer that just closes the connection ends the session like a close
     * notify does (result 2), as the handset library reports it. */
    SSL_CTX_set_options(p->pSslCtx, SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_verify(p->pSslCtx, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(p->pSslCtx, VerifyChain, nullptr);
    SSL_CTX_set_info_callback(p->pSslCtx, InfoCallback);
    if (p->pStore != nullptr) {
        X509_STORE_up_ref(p->pStore);
        SSL_CTX_set_cert_store(p->pSslCtx, p->pStore);
    }
    p->pSsl = SSL_new(p->pSslCtx);
    if (p->pSsl == nullptr) {
        return kFail;
    }
    SSL_set_ex_data(p->pSsl, g_sslIndex, p);
    BIO *pBio = BIO_new(CallbackBioMethod());
    if (pBio == nullptr) {
        return kFail;
    }
    BIO_set_data(pBio, p);
    BIO_set_init(pBio, 1);
    SSL_set_bio(p->pSsl, pBio, pBio);
    SSL_set_connect_state(p->pSsl);
    return 0;
}

/* OpenSSL's outcome of a handshake, read or write, as the library's code. */
int MapResult(HostTlsContext *p, int ret) {
    int err = SSL_get_error(p->pSsl, ret);
    ERR_clear_error();
    switch (err) {
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            return TLS_RESULT_WOULD_BLOCK;
        case SSL_ERROR_ZERO_RETURN:
            return TLS_RESULT_CLOSED;
        case SSL_ERROR_SYSCALL:
            return kTransportFail;
        default:
            return kFail;
    }
}

/* Minimal DER walk for cert_ParseCertificate: one element's header. */
struct DerElement {
    uint8_t tag;
    size_t headerLength;
    size_t length;
};

int ReadElement(const uint8_t *p, size_t left, DerElement *pOut) {
    if (left < 2) {
        return -1;
    }
    size_t length = p[1];
    size_t header = 2;
    if (length & 0x80) {
        size_t n = length & 0x7F;
        if (n == 0 || n > 4 || left < 2 + n) {
            return -1;
        }
        length = 0;
        for (size_t i = 0; i < n; ++i) {
            length = (length << 8) | p[2 + i];
        }
        header += n;
    }
    if (length > left - header) {
        return -1;
    }
    *pOut = DerElement{p[0], header, length};
    return 0;
}

}  // namespace

extern "C" {

void *CD_malloc(uint32_t size, uint32_t) {
    return size != 0 ? malloc(size) : nullptr;
}

void CD_free(void *p, uint32_t) {
    free(p);
}

uint32_t TLSContextSize(void) {
    return kContextSize;
}

int TLSInitContext(TLSContext *pCtx, uint32_t size, uint32_t) {
    if (pCtx == nullptr || size < sizeof(HostTlsContext)) {
        return kFail;
    }
    auto *p = new (pCtx) HostTlsContext{};
    p->magic = kMagic;
    return 0;
}

int TLSDeleteContext(TLSContext *pCtx) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr) {
        return kFail;
    }
    if (p->pSsl != nullptr) {
        SSL_free(p->pSsl); /* frees the BIO too */
    }
    if (p->pSslCtx != nullptr) {
        SSL_CTX_free(p->pSslCtx);
    }
    if (p->pStore != nullptr) {
        X509_STORE_free(p->pStore);
    }
    p->magic = 0;
    return 0;
}

int TLSInitCMContext(TLSContext *pCtx, CM_CONTEXT_T *pCmContext) {
    if (Ctx(pCtx) == nullptr || pCmContext == nullptr || !OpenSslReady()) {
        return kFail;
    }
    X509_STORE *pStore = X509_STORE_new();
    if (pStore == nullptr) {
        return kFail;
    }
    /* Every PEM file of the folder; a folder that is missing or holds no
     * certificate just trusts nothing. */
    char dirPath[512];
    if (HOST_Path(dirPath, sizeof(dirPath), "/etc/certs") == 0) {
        if (DIR *pDir = opendir(dirPath)) {
            while (struct dirent *pEntry = readdir(pDir)) {
                size_t n = strlen(pEntry->d_name);
                if (n < 5 || strcmp(pEntry->d_name + n - 4, ".pem") != 0) {
                    continue;
                }
                char file[sizeof(dirPath) + sizeof(pEntry->d_name) + 1];
                int len = snprintf(file, sizeof(file), "%s/%s", dirPath, pEntry->d_name);
                if (len > 0 && static_cast<size_t>(len) < sizeof(file)) {
                    X509_STORE_load_file(pStore, file);
                }
            }
            closedir(pDir);
        }
    }
    ERR_clear_error();
    *pCmContext = reinterpret_cast<CM_CONTEXT_T>(pStore);
    return 0;
}

int TLSDeleteCMContext(TLSContext *, CM_CONTEXT_T *pCmContext) {
    if (pCmContext == nullptr) {
        return kFail;
    }
    /* A store was only ever made with OpenSSL loaded. */
    if (*pCmContext != 0) {
        X509_STORE_free(reinterpret_cast<X509_STORE *>(*pCmContext));
    }
    *pCmContext = 0;
    return 0;
}

int TLSAddRootCertificates(TLSContext *pCtx, CM_CONTEXT_T *pCmContext) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || pCmContext == nullptr || *pCmContext == 0 || p->pSsl != nullptr) {
        return kFail;
    }
    auto *pStore = reinterpret_cast<X509_STORE *>(*pCmContext);
    X509_STORE_up_ref(pStore);
    if (p->pStore != nullptr) {
        X509_STORE_free(p->pStore);
    }
    p->pStore = pStore;
    return 0;
}

int TLSEnableNonBlocking(TLSContext *pCtx) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr) {
        return kFail;
    }
    p->bNonBlocking = true;
    return 0;
}

#define LAPI_HOST_SETTER(fn, type, field)         \
    int fn(TLSContext *pCtx, type value) {        \
        HostTlsContext *p = Ctx(pCtx);            \
        if (p == nullptr || p->pSsl != nullptr) { \
            return kFail;                         \
        }                                         \
        p->field = value;                         \
        return 0;                                 \
    }

LAPI_HOST_SETTER(TLSSetRandomFunc, TLSRandomFunc, randomFunc)
LAPI_HOST_SETTER(TLSSetRandomRef, void *, pRandomRef)
LAPI_HOST_SETTER(TLSSetReadFunc, TLSReadFunc, readFunc)
LAPI_HOST_SETTER(TLSSetWriteFunc, TLSWriteFunc, writeFunc)
LAPI_HOST_SETTER(TLSSetIORef, void *, pIORef)
LAPI_HOST_SETTER(TLSSetAlertFunc, TLSAlertFunc, alertFunc)
LAPI_HOST_SETTER(TLSSetAlertRef, void *, pAlertRef)
LAPI_HOST_SETTER(TLSSetCheckCertificateChainFunc, TLSCheckCertChainFunc, chainFunc)
LAPI_HOST_SETTER(TLSSetCheckCertificateChainRef, void *, pChainRef)

int TLSSetCipherSuites(TLSContext *pCtx, const TLSBuffer *pSuites) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || p->pSsl != nullptr || pSuites == nullptr || pSuites->data == nullptr ||
        pSuites->length < 2 || pSuites->length % 2 != 0 || !OpenSslReady()) {
        return kFail;
    }
    /* Built aside: a list too long for the context leaves it as it was. */
    char list[sizeof(p->cipherList)];
    size_t len = 0;
    bool any = false;
    auto append = [&](const char *text) {
        size_t n = strlen(text);
        if (len < sizeof(list)) {
            memcpy(list + len, text, n < sizeof(list) - len ? n : sizeof(list) - len);
        }
        len += n;
    };
    for (uint32_t i = 0; i + 1 < pSuites->length; i += 2) {
        uint16_t id;
        memcpy(&id, pSuites->data + i, sizeof(id));
        size_t index = SuiteIndexOf(id);
        if (index == kSuiteCount || !OpenSslKnows(index)) {
            continue;
        }
        append(kSuites[index].name);
        append(":");
        any = true;
    }
    if (!any) {
        return kFail; /* nothing left to offer */
    }
    append("@SECLEVEL=0");
    if (len >= sizeof(p->cipherList)) {
        return kFail;
    }
    memcpy(p->cipherList, list, len);
    p->cipherList[len] = '\0';
    return 0;
}

int TLSSetProtocolVersion(TLSContext *pCtx, uint16_t version) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || p->pSsl != nullptr || version < TLS1_VERSION || version > TLS1_3_VERSION) {
        return kFail;
    }
    p->version = version;
    return 0;
}

int TLSSetOption(TLSContext *pCtx, uint32_t option) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || option != TLS_OPTION_NO_ENFORCE_BASIC_CONSTRAINTS) {
        return kFail;
    }
    /* OpenSSL checks basic constraints of CA certificates only in strict
     * mode, which is never turned on here: nothing more to do. */
    p->options |= 1u << option;
    return 0;
}

int TLSHandshake(TLSContext *pCtx) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || p->readFunc == nullptr || p->writeFunc == nullptr) {
        return kFail;
    }
    if (p->pSsl == nullptr && !OpenSslReady()) {
        return kFail;
    }
    if (p->pSsl == nullptr && MakeSession(p) != 0) {
        ERR_clear_error();
        return kFail;
    }
    if (!p->bCalledRandom && p->randomFunc != nullptr) {
        /* The caller's random source adds to OpenSSL's own. */
        uint8_t seed[32];
        TLSBuffer buffer{sizeof(seed), seed};
        p->bCalledRandom = true;
        if (p->randomFunc(&buffer, p->pRandomRef) == 0) {
            RAND_add(seed, sizeof(seed), sizeof(seed) / 2.0);
        }
    }
    if (p->bHandshakeDone) {
        return 0;
    }
    int ret = SSL_do_handshake(p->pSsl);
    if (ret == 1) {
        p->bHandshakeDone = true;
        return 0;
    }
    int result = MapResult(p, ret);
    /* The caller takes 2 from a handshake as done: a peer that ends the
     * connection before the handshake is over has failed it. */
    return result == TLS_RESULT_CLOSED ? kTransportFail : result;
}

int TLSGetNegotiatedCipher(TLSContext *pCtx) {
    HostTlsContext *p = Ctx(pCtx);
    const SSL_CIPHER *pCipher =
        (p != nullptr && p->pSsl != nullptr) ? SSL_get_current_cipher(p->pSsl) : nullptr;
    return pCipher != nullptr ? static_cast<int>(SSL_CIPHER_get_protocol_id(pCipher)) : 0;
}

int TLSGetProtocolVersion(TLSContext *pCtx) {
    HostTlsContext *p = Ctx(pCtx);
    return (p != nullptr && p->pSsl != nullptr && p->bHandshakeDone) ? SSL_version(p->pSsl) : 0;
}

int TLSRead(TLSContext *pCtx, TLSBuffer *pBuffer, uint32_t *pCount) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || p->pSsl == nullptr || !p->bHandshakeDone || pBuffer == nullptr ||
        pCount == nullptr || (pBuffer->data == nullptr && pBuffer->length != 0)) {
        return kFail;
    }
    *pCount = 0;
    size_t got = 0;
    int ret = SSL_read_ex(p->pSsl, pBuffer->data, pBuffer->length, &got);
    if (ret == 1) {
        *pCount = static_cast<uint32_t>(got);
        return 0;
    }
    return MapResult(p, ret);
}

int TLSWrite(TLSContext *pCtx, const TLSBuffer *pBuffer, uint32_t *pCount) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr || p->pSsl == nullptr || !p->bHandshakeDone || pBuffer == nullptr ||
        pCount == nullptr || pBuffer->data == nullptr || pBuffer->length == 0) {
        return kFail;
    }
    *pCount = 0;
    size_t put = 0;
    int ret = SSL_write_ex(p->pSsl, pBuffer->data, pBuffer->length, &put);
    if (ret == 1) {
        *pCount = static_cast<uint32_t>(put);
        return 0;
    }
    return MapResult(p, ret);
}

int TLSClose(TLSContext *pCtx) {
    HostTlsContext *p = Ctx(pCtx);
    if (p == nullptr) {
        return kFail;
    }
    if (p->pSsl != nullptr && p->bHandshakeDone) {
        /* One close notify; the peer's answer is not waited for. */
        SSL_shutdown(p->pSsl);
        ERR_clear_error();
    }
    return 0;
}

int TLSExtractCertificateNameItem(const TLSBuffer *pCertificate, uint32_t item, TLSBuffer *pName) {
    if (pCertificate == nullptr || pCertificate->data == nullptr || pName == nullptr ||
        pName->data == nullptr || item != 0 || !OpenSslReady()) {
        return kFail;
    }
    const unsigned char *pDer = pCertificate->data;
    X509 *pCert = d2i_X509(nullptr, &pDer, pCertificate->length);
    if (pCert == nullptr) {
        ERR_clear_error();
        return kFail;
    }
    /* Item 0 is the first common name of the subject in encoding order. */
    X509_NAME *pSubject = X509_get_subject_name(pCert);
    int index = X509_NAME_get_index_by_NID(pSubject, NID_commonName, -1);
    int result = kFail;
    if (index >= 0) {
        const ASN1_STRING *pValue = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(pSubject, index));
        int length = ASN1_STRING_length(pValue);
        if (length >= 0 && static_cast<uint32_t>(length) <= pName->length) {
            memcpy(pName->data, ASN1_STRING_get0_data(pValue), static_cast<size_t>(length));
            pName->length = static_cast<uint32_t>(length);
            result = 0;
        } else {
            result = TLS_RESULT_READ_OVERFLOW; /* does not fit: nothing copied */
        }
    }
    X509_free(pCert);
    return result;
}

int TLSGenerateRandom(const TLSBuffer *, TLSBuffer *pRandom, uint32_t) {
    if (pRandom == nullptr || (pRandom->data == nullptr && pRandom->length != 0) ||
        pRandom->length > 0x7FFFFFFFu || !OpenSslReady()) {
        return kFail;
    }
    return RAND_bytes(pRandom->data, static_cast<int>(pRandom->length)) == 1 ? 0 : kFail;
}

int cert_ParseCertificate(const uint8_t *pData, uint32_t length, CERT_PARSED_S *pParsed) {
    if (pData == nullptr || pParsed == nullptr || !OpenSslReady()) {
        return kFail;
    }
    /* Only a certificate OpenSSL accepts is located. */
    const unsigned char *pDer = pData;
    X509 *pCert = d2i_X509(nullptr, &pDer, length);
    if (pCert == nullptr) {
        ERR_clear_error();
        return kFail;
    }
    X509_free(pCert);
    /* Certificate ::= SEQUENCE { tbsCertificate SEQUENCE { ... [3] ... } ... } */
    DerElement outer, tbs;
    if (ReadElement(pData, length, &outer) != 0 ||
        ReadElement(pData + outer.headerLength, outer.length, &tbs) != 0) {
        return kFail;
    }
    size_t offset = outer.headerLength + tbs.headerLength;
    size_t end = outer.headerLength + tbs.headerLength + tbs.length;
    *pParsed = CERT_PARSED_S{pData, 0, 0};
    while (offset < end) {
        DerElement e;
        if (ReadElement(pData + offset, end - offset, &e) != 0) {
            return kFail;
        }
        if (e.tag == 0xA3) {
            size_t total = e.headerLength + e.length;
            if (total > 0xFFFF || offset > 0xFFFF) {
                return kFail;
            }
            pParsed->extensionsLength = static_cast<uint16_t>(total);
            pParsed->extensionsOffset = static_cast<uint16_t>(offset);
            return 0;
        }
        offset += e.headerLength + e.length;
    }
    return 0;
}

}  // extern "C"
