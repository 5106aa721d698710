/*
 * What keeps an idle server's private memory small, checked on the real
 * binary: the large static buffers lie on pages of their own after the small
 * variables, and the binary needs no C++ runtime library. The
 * sanitizer builds link differently (their runtimes bring the C++ library,
 * and the layout script is left out), so there these tests are skipped.
 */
#include <stdio.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#define LAPI_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LAPI_TEST_SANITIZED 1
#endif
#endif

namespace {

struct Section {
    bool found = false;
    std::string type;
    unsigned long long address = 0;
    unsigned long long size = 0;
    unsigned long long align = 0;
};

/* The lines readelf prints for the server binary with these options. */
std::vector<std::string> Readelf(const char *options) {
    std::vector<std::string> lines;
    std::string command =
        std::string("readelf ") + options + " '" + LAPI_SRV_HOST_BIN + "' 2>/dev/null";
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) {
        return lines;
    }
    char line[512];
    while (fgets(line, sizeof(line), p) != nullptr) {
        lines.emplace_back(line);
    }
    pclose(p);
    return lines;
}

/* One section of the server binary, from readelf's table. */
Section FindSection(const std::string &name) {
    Section s;
    for (const std::string &text : Readelf("-SW")) {
        size_t at = text.find("] " + name + " ");
        if (at == std::string::npos) {
            continue;
        }
        /* Name Type Address Off Size ES Flg [Lk Inf] Al: Flg may be empty,
         * so the alignment is the last field. */
        std::istringstream in(text.substr(at + 2));
        std::string field, address, offset, size, last;
        in >> field >> s.type >> address >> offset >> size;
        while (in >> field) {
            last = field;
        }
        s.address = std::stoull(address, nullptr, 16);
        s.size = std::stoull(size, nullptr, 16);
        s.align = std::stoull(last);
        s.found = true;
    }
    return s;
}

/* The libraries the server binary names as needed. */
std::vector<std::string> NeededLibraries() {
    std::vector<std::string> out;
    for (const std::string &text : Readelf("-dW")) {
        size_t from = text.find('[');
        size_t to = text.find(']');
        if (text.find("(NEEDED)") != std::string::npos && from != std::string::npos && to > from) {
            out.push_back(text.substr(from + 1, to - from - 1));
        }
    }
    return out;
}

TEST(MemoryLayout, LargeBuffersLieOnPagesOfTheirOwnAfterTheSmallVariables) {
#ifdef LAPI_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer builds leave the layout script out";
#endif
    Section small = FindSection(".lapi_small");
    Section pages = FindSection(".lapi_pages");
    ASSERT_TRUE(small.found) << "no .lapi_small in " << LAPI_SRV_HOST_BIN;
    ASSERT_TRUE(pages.found) << "no .lapi_pages in " << LAPI_SRV_HOST_BIN;
    /* Zero-initialised: no bytes in the file. */
    EXPECT_EQ("NOBITS", small.type);
    EXPECT_EQ("NOBITS", pages.type);
    /* The buffers start on a page boundary, after every small variable. */
    EXPECT_EQ(4096u, pages.align);
    EXPECT_EQ(0u, pages.address % 4096);
    EXPECT_LE(small.address + small.size, pages.address);
    /* At least the chunk buffer of the diagnostics (32 kB) is among them. */
    EXPECT_GE(pages.size, 32768u);
}

TEST(MemoryLayout, ServerBinaryNeedsNoCxxRuntimeLibrary) {
#ifdef LAPI_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer runtimes bring the C++ library";
#endif
    std::vector<std::string> needed = NeededLibraries();
    ASSERT_FALSE(needed.empty()) << "no NEEDED entries read from " << LAPI_SRV_HOST_BIN;
    for (const std::string &lib : needed) {
        EXPECT_EQ(std::string::npos, lib.find("libstdc++")) << lib;
        EXPECT_EQ(std::string::npos, lib.find("libgcc_s")) << lib;
    }
}

}  // namespace
