/*
 * subjectAltName check of the server certificate: walks the extensions for
 * a dNSName equal to the server name, case-sensitively and without any
 * wildcard handling.
 */
#include "LAPI_SRV_X509v3.h"

#include <string.h>

#include "LAPI_Log.h"
#include "zelcm.h"

namespace {

/* 2.5.29.17, subjectAltName */
constexpr uint8_t kSubjectAltNameOid[] = {0x55, 0x1D, 0x11};

constexpr uint8_t kTagBoolean = 1;
constexpr uint8_t kTagDnsName = 2;
constexpr uint8_t kTagOid = 6;

}  // namespace

int getvarlen(LAPI_Reader *pR, uint32_t *pLength, int *pCount) {
    uint8_t first = 0;
    if (pR->PeekU8(&first) != 0) {
        LAPI_SRV_ERR("DER length missing at the end of the data!");
        return -1;
    }
    if (pR->GetDerLength(pLength, pCount) != 0) {
        /* 0x80 (indefinite), 0x83 and up, or length octets cut off. */
        LAPI_SRV_ERR("DER length error : %02X!", first);
        return -1;
    }
    return 0;
}

int decode_one_tag(LAPI_Reader *pR, uint8_t *pTag, uint32_t *pLength, int *pHeaderLength) {
    uint8_t tag = 0;
    if (pR->GetU8(&tag) != 0) {
        LAPI_SRV_ERR("DER tag missing at the end of the data!");
        return -1;
    }
    uint32_t length = 0;
    int count = 0;
    if (getvarlen(pR, &length, &count) != 0) {
        LAPI_SRV_ERR("Get Variable Length Fail!");
        return -1;
    }
    if (length > pR->Left()) {
        LAPI_SRV_ERR("DER element of %u bytes runs past its container (%u left)!",
                     static_cast<unsigned>(length), static_cast<unsigned>(pR->Left()));
        return -1;
    }
    *pTag = tag & 0x1F;
    *pLength = length;
    *pHeaderLength = 1 + count;
    return 0;
}

int check_subaltname(LAPI_Reader r, const char *serverName, int *pFound) {
    const uint8_t *p = r.Pos();
    uint8_t tag;
    uint32_t length;
    int headerLength;
    if (decode_one_tag(&r, &tag, &length, &headerLength) != 0) {
        LAPI_SRV_ERR("Decode Extention tag error!");
        return -1;
    }
    LAPI_SRV_TRACE("subaltname tag : %02X, len : %d", tag, static_cast<int>(length));
    /* The list ends at p + header + length; offsets count from p, header
     * included, but the loop stops at the content length: the last
     * headerLength bytes of the list are never looked at. */
    const uint8_t *end = p + headerLength + length;
    size_t serverLength = strlen(serverName);
    uint32_t offset = static_cast<uint32_t>(headerLength);
    while (offset < length) {
        LAPI_Reader name(p + offset, end);
        uint8_t nameTag;
        uint32_t nameLength;
        int nameHeader;
        if (decode_one_tag(&name, &nameTag, &nameLength, &nameHeader) != 0) {
            LAPI_SRV_ERR("Decode Extention tag error!");
            return -1;
        }
        offset += static_cast<uint32_t>(nameHeader);
        LAPI_SRV_TRACE("dns tag : %02X, len : %d", nameTag, static_cast<int>(nameLength));
        if (nameTag == kTagDnsName && nameLength == serverLength &&
            memcmp(name.Pos(), serverName, serverLength) == 0) {
            *pFound = 1;
            return 0;
        }
        offset += nameLength;
    }
    return 0;
}

int check_extension(LAPI_Reader r, uint32_t *pSize, const char *serverName, int *pFound) {
    uint8_t tag;
    uint32_t length;
    int headerLength;
    if (decode_one_tag(&r, &tag, &length, &headerLength) != 0) {
        LAPI_SRV_ERR("Decode Extention tag error!");
        return -1;
    }
    *pSize = static_cast<uint32_t>(headerLength) + length;
    LAPI_SRV_TRACE("Extension tag : %02X, len : %d", tag, static_cast<int>(length));
    LAPI_Reader ext;
    r.Sub(length, &ext); /* fits: decode_one_tag checked it */

    if (decode_one_tag(&ext, &tag, &length, &headerLength) != 0) {
        LAPI_SRV_ERR("Decode Extention OID tag error!");
        return -1;
    }
    LAPI_SRV_TRACE("Extension OID tag : %02X, len : %d", tag, static_cast<int>(length));
    if (tag != kTagOid) {
        LAPI_SRV_ERR("Decode Extention tag should be OID tag!");
        return -1;
    }
    if (length != sizeof(kSubjectAltNameOid) ||
        memcmp(ext.Pos(), kSubjectAltNameOid, sizeof(kSubjectAltNameOid)) != 0) {
        return 0; /* not a subjectAltName: ignored */
    }
    ext.Skip(length);

    if (decode_one_tag(&ext, &tag, &length, &headerLength) != 0) {
        LAPI_SRV_ERR("Decode Extention OID tag error!");
        return -1;
    }
    if (tag == kTagBoolean) {
        /* critical */
        ext.Skip(length);
        if (decode_one_tag(&ext, &tag, &length, &headerLength) != 0) {
            LAPI_SRV_ERR("Decode Extention OID tag error!");
            return -1;
        }
    }
    /* The OCTET STRING wrapper: its content is the GeneralNames. */
    LAPI_Reader names;
    ext.Sub(length, &names);
    if (check_subaltname(names, serverName, pFound) != 0) {
        LAPI_SRV_ERR("Decode Extentions tag 1 error!");
        return -1;
    }
    return 0;
}

int check_extensions(const uint8_t *pExt, uint32_t extLength, const char *serverName, int *pFound) {
    LAPI_Reader r(pExt, extLength);
    uint8_t tag;
    uint32_t length;
    int headerLength;
    /* The explicit [3] wrapper; its tag is not checked. */
    if (decode_one_tag(&r, &tag, &length, &headerLength) != 0) {
        LAPI_SRV_ERR("Decode Extentions tag 1 error!");
        return -1;
    }
    LAPI_SRV_TRACE("Extensions tag 1 : %02X, len : %d", tag, static_cast<int>(length));
    uint32_t offset = static_cast<uint32_t>(headerLength);

    if (decode_one_tag(&r, &tag, &length, &headerLength) != 0) {
        LAPI_SRV_ERR("Decode Extentions tag 2 error!");
        return -1;
    }
    LAPI_SRV_TRACE("Extensions tag 2 : %02X, len : %d", tag, static_cast<int>(length));
    offset += static_cast<uint32_t>(headerLength);
    if (static_cast<uint64_t>(offset) + length > extLength) {
        LAPI_SRV_ERR("Extentions len error!");
        return -1;
    }

    const uint8_t *end = pExt + offset + length;
    const uint8_t *p = pExt + offset;
    while (p < end && *pFound == 0) {
        uint32_t size = 0;
        if (check_extension(LAPI_Reader(p, end), &size, serverName, pFound) != 0) {
            LAPI_SRV_ERR("Decode Extention error!");
            return -1;
        }
        p += size; /* size fits: check_extension read the whole Extension */
    }
    return 0;
}

int LAPI_SRV_CheckFQDN(const TLSBuffer *pCertificate, const char *serverName) {
    if (pCertificate == nullptr || pCertificate->data == nullptr || serverName == nullptr) {
        LAPI_SRV_ERR("Parse certificate fail!");
        return LAPI_SRV_FQDN_DECODE_FAIL;
    }
    CERT_PARSED_S parsed;
    memset(&parsed, 0, sizeof(parsed));
    if (cert_ParseCertificate(pCertificate->data, pCertificate->length, &parsed) != 0) {
        LAPI_SRV_ERR("Parse certificate fail!");
        return LAPI_SRV_FQDN_DECODE_FAIL;
    }
    LAPI_SRV_TRACE("Extensions len : %d", parsed.extensionsLength);
    if (parsed.extensionsOffset == 0) {
        LAPI_SRV_ERR("certificate have no extensions!");
        return LAPI_SRV_FQDN_DECODE_FAIL;
    }
    /* The extensions must lie inside the certificate the library parsed. */
    const uint8_t *pCertEnd = pCertificate->data + pCertificate->length;
    const uint8_t *pExt = parsed.pBase + parsed.extensionsOffset;
    int found = 0;
    if (parsed.pBase < pCertificate->data || pExt > pCertEnd ||
        parsed.extensionsLength > static_cast<size_t>(pCertEnd - pExt) ||
        check_extensions(pExt, parsed.extensionsLength, serverName, &found) != 0) {
        LAPI_SRV_ERR("decode extensions fail!");
        return LAPI_SRV_FQDN_DECODE_FAIL;
    }
    return found ? LAPI_SRV_FQDN_MATCH : LAPI_SRV_FQDN_NO_MATCH;
}
