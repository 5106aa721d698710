/*
 * Both host-name checks of the server certificate: the common-name rule and
 * the subjectAltName walk, on certificates made at run time by the openssl
 * command and on hand-built DER for the malformed cases. Also the chain
 * callback that joins them.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LAPI_SRV_X509v3.h"
#include "LAPI_SRV_tls.h"
#include "ServerFixture.h"
#include "TestClient.h"
#include "TlsPeer.h"

using lapitest::LeafSpec;
using lapitest::StderrCapture;
using lapitest::TestPki;
using Bytes = std::vector<uint8_t>;

namespace {

TestPki &Pki() {
    static TestPki pki;
    return pki;
}

Bytes Der(const LeafSpec &spec) {
    EXPECT_TRUE(Pki().ok());
    return TestPki::ReadDer(Pki().Leaf(spec));
}

LeafSpec Cn(const std::string &cn) {
    LeafSpec s;
    s.commonNames = {cn};
    return s;
}

LeafSpec San(const std::vector<std::string> &names, bool critical = false) {
    LeafSpec s;
    s.commonNames = {"nobody"};
    s.dnsNames = names;
    s.sanCritical = critical;
    return s;
}

TLSBuffer Buf(const Bytes &b) {
    return TLSBuffer{static_cast<uint32_t>(b.size()), const_cast<uint8_t *>(b.data())};
}

int CheckCn(const Bytes &der, const char *serverName) {
    TLSBuffer b = Buf(der);
    return LAPI_SRV_CheckSubCommonName(&b, serverName);
}

int CheckFqdn(const Bytes &der, const char *serverName) {
    TLSBuffer b = Buf(der);
    return LAPI_SRV_CheckFQDN(&b, serverName);
}

/* A DER element: tag, the shortest length octets, content. */
Bytes El(uint8_t tag, const Bytes &content) {
    Bytes out{tag};
    size_t n = content.size();
    if (n < 0x80) {
        out.push_back(static_cast<uint8_t>(n));
    } else if (n < 0x100) {
        out.insert(out.end(), {0x81, static_cast<uint8_t>(n)});
    } else {
        out.insert(out.end(), {0x82, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)});
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

using lapitest::Cat;

Bytes Dns(const std::string &name) {
    return El(0x82, Bytes(name.begin(), name.end()));
}

/* One subjectAltName Extension holding these GeneralNames. */
Bytes SanExt(const Bytes &generalNames, bool critical = false) {
    Bytes oid = El(0x06, {0x55, 0x1D, 0x11});
    Bytes crit = critical ? El(0x01, {0xFF}) : Bytes{};
    return El(0x30, Cat({oid, crit, El(0x04, El(0x30, generalNames))}));
}

/* An Extension of another kind (basicConstraints). */
Bytes OtherExt() {
    return El(0x30, Cat({El(0x06, {0x55, 0x1D, 0x13}), El(0x04, El(0x30, {}))}));
}

/* The [3] wrapper around the SEQUENCE of extensions. */
Bytes Wrap(const Bytes &extensions) {
    return El(0xA3, El(0x30, extensions));
}

int Walk(const Bytes &ext, const char *serverName, int *pFound) {
    *pFound = 0;
    return check_extensions(ext.data(), static_cast<uint32_t>(ext.size()), serverName, pFound);
}

}  // namespace

/* ---- DER lengths ----------------------------------------------------------- */

TEST(X509Der, ShortAnd81And82LengthsAreRead) {
    struct Row {
        Bytes bytes;
        uint32_t length;
        int count;
    } rows[] = {{{0x05}, 5, 1},
                {{0x7F}, 127, 1},
                {{0x81, 0x80}, 128, 2},
                {{0x82, 0x01, 0x00}, 256, 3},
                {{0x82, 0xFF, 0xFF}, 65535, 3}};
    for (const Row &row : rows) {
        LAPI_Reader r(row.bytes.data(), row.bytes.size());
        uint32_t length = 0;
        int count = 0;
        ASSERT_EQ(0, getvarlen(&r, &length, &count));
        EXPECT_EQ(row.length, length);
        EXPECT_EQ(row.count, count);
    }
}

TEST(X509Der, LengthOctet80Or83FailsWithItsValue) {
    for (uint8_t b : {0x80, 0x83, 0x84, 0xFF}) {
        StderrCapture cap;
        Bytes bytes{b, 0, 0, 0, 0};
        LAPI_Reader r(bytes.data(), bytes.size());
        uint32_t length;
        int count;
        EXPECT_EQ(-1, getvarlen(&r, &length, &count));
        char want[32];
        snprintf(want, sizeof(want), "DER length error : %02X!", b);
        EXPECT_TRUE(cap.HasError(want)) << cap.Text();
    }
}

TEST(X509Der, LengthOctetsCutOffByTheEndFail) {
    Bytes bytes{0x82, 0x01};
    LAPI_Reader r(bytes.data(), bytes.size());
    uint32_t length;
    int count;
    StderrCapture cap;
    EXPECT_EQ(-1, getvarlen(&r, &length, &count));
    EXPECT_TRUE(cap.HasError("DER length error : 82!"));
}

TEST(X509Der, TagNumberDropsClassAndConstructedBits) {
    Bytes bytes{0xA3, 0x00};
    LAPI_Reader r(bytes.data(), bytes.size());
    uint8_t tag;
    uint32_t length;
    int header;
    ASSERT_EQ(0, decode_one_tag(&r, &tag, &length, &header));
    EXPECT_EQ(3, tag);
    EXPECT_EQ(0u, length);
    EXPECT_EQ(2, header);
}

TEST(X509Der, ElementRunningPastItsContainerIsADecodeFailure) {
    Bytes bytes{0x30, 0x05, 1, 2, 3, 4};
    LAPI_Reader r(bytes.data(), bytes.size());
    uint8_t tag;
    uint32_t length;
    int header;
    StderrCapture cap;
    EXPECT_EQ(-1, decode_one_tag(&r, &tag, &length, &header));
}

TEST(X509Der, BadLengthInATagReportsGetVariableLengthFail) {
    Bytes bytes{0x30, 0x83, 0, 0, 1};
    LAPI_Reader r(bytes.data(), bytes.size());
    uint8_t tag;
    uint32_t length;
    int header;
    StderrCapture cap;
    EXPECT_EQ(-1, decode_one_tag(&r, &tag, &length, &header));
    EXPECT_TRUE(cap.HasError("Get Variable Length Fail!"));
}

/* ---- the extensions walk on hand-built DER --------------------------------- */

TEST(X509Walk, DnsNameIsFound) {
    int found;
    EXPECT_EQ(0, Walk(Wrap(SanExt(Dns("supl.example.test"))), "supl.example.test", &found));
    EXPECT_EQ(1, found);
}

TEST(X509Walk, CriticalSubjectAltNameIsReadAsWell) {
    int found;
    EXPECT_EQ(0, Walk(Wrap(SanExt(Dns("supl.example.test"), true)), "supl.example.test", &found));
    EXPECT_EQ(1, found);
}

TEST(X509Walk, OtherExtensionsAreSkipped) {
    int found;
    EXPECT_EQ(0, Walk(Wrap(Cat({OtherExt(), SanExt(Dns("a.b")), OtherExt()})), "a.b", &found));
    EXPECT_EQ(1, found);
    EXPECT_EQ(0, Walk(Wrap(OtherExt()), "a.b", &found));
    EXPECT_EQ(0, found);
}

TEST(X509Walk, WalkStopsAtTheFirstMatchingDnsName) {
    /* What follows the match is never read: even garbage. */
    Bytes garbage{0x30, 0x83, 0, 0, 0};
    Bytes seq = Cat({SanExt(Dns("a.b")), garbage});
    int found;
    EXPECT_EQ(0, Walk(Wrap(seq), "a.b", &found));
    EXPECT_EQ(1, found);
    StderrCapture cap;
    EXPECT_EQ(-1, Walk(Wrap(seq), "c.d", &found));
    EXPECT_TRUE(cap.HasError("Decode Extention error!"));
}

TEST(X509Walk, LengthOctet83AnywhereFailsTheCheck) {
    /* In the name list. */
    Bytes badName{0x82, 0x83, 0, 0, 1};
    int found;
    StderrCapture cap;
    EXPECT_EQ(-1, Walk(Wrap(SanExt(badName)), "a.b", &found));
    EXPECT_TRUE(cap.HasError("Decode Extentions tag 1 error!"));
    /* In the wrapper. */
    EXPECT_EQ(-1, Walk(Bytes{0xA3, 0x80, 0x30, 0x00, 0x00, 0x00}, "a.b", &found));
}

TEST(X509Walk, NonOidAfterTheExtensionSequenceIsRefused) {
    Bytes ext = El(0x30, Cat({El(0x04, {1}), El(0x04, {})}));
    int found;
    StderrCapture cap;
    EXPECT_EQ(-1, Walk(Wrap(ext), "a.b", &found));
    EXPECT_TRUE(cap.HasError("Decode Extention tag should be OID tag!"));
}

TEST(X509Walk, ExtensionSequenceLongerThanTheWrapperIsALengthError) {
    /* The wrapper says 4, the SEQUENCE inside says 2 but the walk is given
     * only the wrapper's bytes. */
    Bytes ext{0xA3, 0x04, 0x30, 0x02, 0x05, 0x00};
    int found = 0;
    StderrCapture cap;
    EXPECT_EQ(-1, check_extensions(ext.data(), 4, "a.b", &found));
}

TEST(X509Walk, ExtensionRunningPastTheSequenceIsADecodeFailure) {
    Bytes ext = SanExt(Dns("a.b"));
    ext[1] = static_cast<uint8_t>(ext[1] + 3); /* claims three bytes more than it has */
    int found;
    StderrCapture cap;
    EXPECT_EQ(-1, Walk(Wrap(ext), "a.b", &found));
    EXPECT_TRUE(cap.HasError("Decode Extention tag error!"));
}

TEST(X509Walk, NameRunningPastItsListIsADecodeFailure) {
    Bytes names = Dns("a.b");
    names[1] = 9;
    int found;
    StderrCapture cap;
    EXPECT_EQ(-1, Walk(Wrap(SanExt(names)), "a.b", &found));
}

TEST(X509Walk, LastNameInTheFinalHeaderLengthBytesOfTheListIsNeverExamined) {
    /* A list of 128 bytes or more has a 3-byte header; a 3-byte name at its
     * very end starts at offset >= the content length and is never read. */
    Bytes names;
    while (names.size() < 130) {
        names = Cat({names, Dns("filler.example.test")});
    }
    int found;
    EXPECT_EQ(0, Walk(Wrap(SanExt(Cat({names, Dns("c")}))), "c", &found));
    EXPECT_EQ(0, found);
    EXPECT_EQ(0, Walk(Wrap(SanExt(Cat({Dns("c"), names}))), "c", &found));
    EXPECT_EQ(1, found);
}

TEST(X509Walk, EveryProperPrefixOfTheExtensionsFailsOrFindsNothing) {
    Bytes ext = Wrap(Cat({OtherExt(), SanExt(Cat({Dns("x.y"), Dns("a.b")}), true)}));
    for (size_t n = 0; n < ext.size(); ++n) {
        Bytes prefix(ext.begin(), ext.begin() + static_cast<long>(n));
        int found = 0;
        StderrCapture cap;
        int r = check_extensions(prefix.data(), static_cast<uint32_t>(n), "a.b", &found);
        EXPECT_TRUE(r == -1 || found == 0) << "prefix " << n;
    }
}

/* ---- subjectAltName on real certificates ----------------------------------- */

TEST(X509SubjectAltName, ExactDnsNameMatches) {
    EXPECT_EQ(0, CheckFqdn(Der(San({"supl.example.test"})), "supl.example.test"));
}

TEST(X509SubjectAltName, DnsNameDifferingInCaseDoesNotMatch) {
    EXPECT_EQ(4, CheckFqdn(Der(San({"SUPL.example.test"})), "supl.example.test"));
}

TEST(X509SubjectAltName, WildcardDnsNameIsNotExpanded) {
    EXPECT_EQ(4, CheckFqdn(Der(San({"*.example.test"})), "supl.example.test"));
}

TEST(X509SubjectAltName, CriticalSubjectAltNameMatches) {
    EXPECT_EQ(0, CheckFqdn(Der(San({"supl.example.test"}, true)), "supl.example.test"));
}

TEST(X509SubjectAltName, LastOfSeveralDnsNamesMatches) {
    EXPECT_EQ(0, CheckFqdn(Der(San({"a.example.test", "b.example.test", "supl.example.test"})),
                           "supl.example.test"));
}

TEST(X509SubjectAltName, DotlessServerNameMatchesItsDnsName) {
    EXPECT_EQ(0, CheckFqdn(Der(San({"supl"})), "supl"));
}

TEST(X509SubjectAltName, LongerOrShorterNameDoesNotMatch) {
    Bytes der = Der(San({"supl.example.test"}));
    EXPECT_EQ(4, CheckFqdn(der, "supl.example.tes"));
    EXPECT_EQ(4, CheckFqdn(der, "supl.example.test."));
}

TEST(X509SubjectAltName, ExtensionsWithoutSubjectAltNameGiveNoMatch) {
    EXPECT_EQ(4, CheckFqdn(Der(Cn("supl.example.test")), "supl.example.test"));
}

TEST(X509SubjectAltName, CertificateWithoutExtensionsGivesMinus1Not4) {
    LeafSpec spec = Cn("supl.example.test");
    spec.extensions = false;
    StderrCapture cap;
    EXPECT_EQ(-1, CheckFqdn(Der(spec), "supl.example.test"));
    EXPECT_TRUE(cap.HasError("certificate have no extensions!"));
}

TEST(X509SubjectAltName, NotACertificateGivesMinus1) {
    Bytes junk{0x30, 0x03, 0x02, 0x01, 0x00};
    StderrCapture cap;
    EXPECT_EQ(-1, CheckFqdn(junk, "a.b"));
    EXPECT_TRUE(cap.HasError("Parse certificate fail!"));
}

TEST(X509SubjectAltName, TracesTheExtensionsLengthAndEachName) {
    StderrCapture cap;
    EXPECT_EQ(0, CheckFqdn(Der(San({"x.example.test", "supl.example.test"})), "supl.example.test"));
    std::string text = cap.Text();
    EXPECT_NE(std::string::npos, text.find("Extensions len : "));
    EXPECT_NE(std::string::npos, text.find("Extensions tag 1 : 03, len : "));
    EXPECT_NE(std::string::npos, text.find("Extensions tag 2 : 10, len : "));
    EXPECT_TRUE(cap.HasTrace("dns tag : 02, len : 14"));
    EXPECT_TRUE(cap.HasTrace("dns tag : 02, len : 17"));
}

/* ---- common name ------------------------------------------------------------ */

TEST(X509CommonName, ExactNameMatches) {
    EXPECT_EQ(0, CheckCn(Der(Cn("www.example.test")), "www.example.test"));
}

TEST(X509CommonName, WildcardCommonNameMatchesAHostOfTheDomain) {
    EXPECT_EQ(0, CheckCn(Der(Cn("*.b.c")), "a.b.c"));
}

TEST(X509CommonName, FirstLabelIsIgnored) {
    EXPECT_EQ(0, CheckCn(Der(Cn("x.b.c")), "a.b.c"));
}

TEST(X509CommonName, ParentDomainDoesNotMatch) {
    StderrCapture cap;
    EXPECT_EQ(4, CheckCn(Der(Cn("b.c")), "a.b.c"));
    EXPECT_TRUE(cap.HasTrace("certificate name does not match server name "));
}

TEST(X509CommonName, RemainderIsComparedCaseSensitively) {
    EXPECT_EQ(4, CheckCn(Der(Cn("www.Example.test")), "www.example.test"));
    EXPECT_EQ(0, CheckCn(Der(Cn("WWW.example.test")), "www.example.test"));
}

TEST(X509CommonName, ServerNameWithoutADotNeverMatches) {
    EXPECT_EQ(4, CheckCn(Der(Cn("supl")), "supl"));
    EXPECT_EQ(4, CheckCn(Der(Cn("www.example.test")), "supl"));
}

TEST(X509CommonName, BmpStringCommonNameIsFolded) {
    LeafSpec spec = Cn("www.example.test");
    spec.bmpString = true;
    StderrCapture cap;
    EXPECT_EQ(0, CheckCn(Der(spec), "www.example.test"));
    EXPECT_TRUE(cap.HasTrace("CommonName length: 16"));
    EXPECT_TRUE(cap.HasTrace("CommonName: www.example.test"));
}

TEST(X509CommonName, TwoByteCommonNameOf80BytesIsFoldedAndMatches) {
    /* 40 two-byte characters: 80 bytes of encoding, all the array holds. */
    LeafSpec spec = Cn("www." + std::string(31, 'x') + ".test");
    spec.bmpString = true;
    StderrCapture cap;
    EXPECT_EQ(0, CheckCn(Der(spec), ("a." + std::string(31, 'x') + ".test").c_str()));
    EXPECT_TRUE(cap.HasTrace("CommonName length: 40"));
}

TEST(X509CommonName, CommonNameOfMoreThan80BytesIsRefused) {
    /* 41 two-byte characters: 82 bytes of encoding. */
    LeafSpec spec = Cn("www." + std::string(32, 'x') + ".test");
    spec.bmpString = true;
    StderrCapture cap;
    EXPECT_EQ(4, CheckCn(Der(spec), ("www." + std::string(32, 'x') + ".test").c_str()));
    EXPECT_TRUE(cap.HasError("TLSExtractCertificateNameItem : 8"));
}

TEST(X509CommonName, CommonNameOf78BytesFits) {
    LeafSpec spec = Cn("www." + std::string(30, 'x') + ".test"); /* 39 characters */
    spec.bmpString = true;
    EXPECT_EQ(0, CheckCn(Der(spec), ("a." + std::string(30, 'x') + ".test").c_str()));
}

TEST(X509CommonName, FirstOfSeveralCommonNamesIsTheOneChecked) {
    LeafSpec spec;
    spec.commonNames = {"www.first.test", "www.second.test"};
    Bytes der = Der(spec);
    EXPECT_EQ(0, CheckCn(der, "a.first.test"));
    EXPECT_EQ(4, CheckCn(der, "a.second.test"));
}

TEST(X509CommonName, SubjectWithoutCommonNameIsNoMatch) {
    LeafSpec spec;
    spec.commonNames = {};
    StderrCapture cap;
    EXPECT_EQ(4, CheckCn(Der(spec), "a.b.c"));
    bool seen = false;
    for (const std::string &e : cap.Errors()) {
        seen = seen || e.rfind("TLSExtractCertificateNameItem : ", 0) == 0;
    }
    EXPECT_TRUE(seen);
}

TEST(X509Fold, BigEndianTwoByteTextKeepsEverySecondByteFromTheSecond) {
    uint8_t t[] = {0, 'a', 0, '.', 0, 'b'};
    uint32_t n = sizeof(t);
    LAPI_SRV_FoldTwoByteText(t, &n);
    EXPECT_EQ(3u, n);
    EXPECT_EQ("a.b", std::string(reinterpret_cast<char *>(t), n));
}

TEST(X509Fold, LittleEndianTwoByteTextKeepsEverySecondByteFromTheFirst) {
    uint8_t t[] = {'a', 0, '.', 0, 'b', 0};
    uint32_t n = sizeof(t);
    LAPI_SRV_FoldTwoByteText(t, &n);
    EXPECT_EQ("a.b", std::string(reinterpret_cast<char *>(t), n));
}

TEST(X509Fold, OneByteTextStaysAsItIs) {
    uint8_t t[] = {'a', '.', 'b'};
    uint32_t n = sizeof(t);
    LAPI_SRV_FoldTwoByteText(t, &n);
    EXPECT_EQ(3u, n);
    uint8_t one[] = {'a'};
    n = 1;
    LAPI_SRV_FoldTwoByteText(one, &n);
    EXPECT_EQ(1u, n);
}

TEST(X509Fold, OddLengthDropsTheLastByte) {
    uint8_t t[] = {0, 'a', 0, 'b', 0};
    uint32_t n = sizeof(t);
    LAPI_SRV_FoldTwoByteText(t, &n);
    EXPECT_EQ("ab", std::string(reinterpret_cast<char *>(t), n));
}

/* ---- the chain callback ------------------------------------------------------ */

TEST(X509Chain, UnverifiedOrUntrustedChainIsRejectedBeforeAnyNameCheck) {
    SocketInfo info{};
    strcpy(info.serverName, "www.example.test");
    Bytes der = Der(Cn("www.example.test"));
    TLSBuffer b = Buf(der);
    StderrCapture cap;
    EXPECT_EQ(4, LAPI_SRV_CheckCertChainFunc(nullptr, &b, 1, 20, 1, &info));
    EXPECT_EQ(4, LAPI_SRV_CheckCertChainFunc(nullptr, &b, 1, 0, 0, &info));
    EXPECT_TRUE(cap.HasTrace("chainResult:20,  chainTrusted:1"));
    EXPECT_FALSE(cap.HasTrace("Enter LAPI_SRV_CheckCertChainFunc"));
}

TEST(X509Chain, CommonNameOrSubjectAltNameAccepts) {
    SocketInfo info{};
    strcpy(info.serverName, "supl.example.test");
    Bytes byCn = Der(Cn("*.example.test"));
    Bytes bySan = Der(San({"supl.example.test"}));
    Bytes neither = Der(San({"other.example.test"}));
    TLSBuffer a = Buf(byCn), b = Buf(bySan), c = Buf(neither);
    EXPECT_EQ(0, LAPI_SRV_CheckCertChainFunc(nullptr, &a, 1, 0, 1, &info));
    EXPECT_EQ(0, LAPI_SRV_CheckCertChainFunc(nullptr, &b, 1, 0, 1, &info));
    EXPECT_EQ(4, LAPI_SRV_CheckCertChainFunc(nullptr, &c, 1, 0, 1, &info));
}
