/*
 * What keeps an idle server's private memory small, checked on the real
 * binary: the large static buffers lie on pages of their own after the small
 * variables, and the running server loads no C++ runtime library. The
 * sanitizer builds link differently (their runtimes bring the C++ library,
 * and the layout script is left out), so there these tests are skipped.
 */
#include <stdio.h>

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ServerFixture.h"

#if defined(__SANITIZE_ADDRESS__)
#define LAPI_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LAPI_TEST_SANITIZED 1
#endif
#endif

namespace {

using lapitest::MuxPty;
using lapitest::ProcessMaps;
using lapitest::ServerProcess;
using lapitest::TempRoot;

struct Section {
    bool found = false;
    std::string type;
    unsigned long long address = 0;
    unsigned long long size = 0;
    unsigned long long align = 0;
};

/* One section of the server binary, from readelf's table. */
Section FindSection(const std::string &name) {
    Section s;
    std::string command = std::string("readelf -SW '") + LAPI_SRV_HOST_BIN + "' 2>/dev/null";
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) {
        return s;
    }
    char line[512];
    while (fgets(line, sizeof(line), p) != nullptr) {
        std::string text(line);
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
    pclose(p);
    return s;
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

TEST(MemoryLayout, IdleServerLoadsNoCxxRuntimeLibrary) {
#ifdef LAPI_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer runtimes bring the C++ library";
#endif
    TempRoot root;
    MuxPty mux(root);
    ServerProcess srv(root);
    ASSERT_TRUE(srv.StartAndWaitReady());
    ASSERT_TRUE(ProcessMaps(srv.Pid(), "lapi_srv_host"));
    EXPECT_FALSE(ProcessMaps(srv.Pid(), "libstdc++"));
    EXPECT_FALSE(ProcessMaps(srv.Pid(), "libgcc_s"));
    EXPECT_EQ(0, srv.Stop());
}

}  // namespace
