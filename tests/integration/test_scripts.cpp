/*
 * The set-up scripts a new machine meets first: scripts/deps.sh installs
 * missing packages as root or through sudo, and otherwise prints the exact
 * command to run; scripts/test.sh refuses unknown modes.
 */
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "ServerFixture.h"

namespace {

const std::string kSource = LAPI_SOURCE_DIR;

struct ScriptRun {
    int status;
    std::string output;
};

/* Runs a bash snippet from the top folder; standard error joins the output. */
ScriptRun Bash(const std::string &snippet) {
    lapitest::TempRoot work;
    ScriptRun r{-1, ""};
    if (!work.WriteFile("/snippet.sh", snippet)) {
        return r;
    }
    std::string cmd = "cd '" + kSource + "' && bash '" + work.Path("/snippet.sh") + "' 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        return r;
    }
    char buf[512];
    while (fgets(buf, sizeof(buf), p) != nullptr) {
        r.output += buf;
    }
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

/* deps.sh with one package that no machine has, as a user who is not root;
 * fakeSudo: "none" (no sudo at all) or a script that records its call. */
std::string MissingPackageSnippet(const std::string &fakeSudo) {
    return "set -u\n"
           "bin=$(mktemp -d)\n"
           "rm=$(command -v rm)\n"
           "trap '\"$rm\" -rf \"$bin\"' EXIT\n"
           "for t in dpkg-query grep; do ln -s \"$(command -v $t)\" \"$bin/$t\"; done\n"
           "printf '#!/bin/sh\\necho 1000\\n' >\"$bin/id\"; chmod +x \"$bin/id\"\n" +
           (fakeSudo == "none" ? std::string()
                               : "printf '#!/bin/sh\\necho \"sudo $*\"\\n' >\"$bin/sudo\"\n"
                                 "chmod +x \"$bin/sudo\"\n"
                                 "printf '#!/bin/sh\\necho \"apt-get $*\"\\n' >\"$bin/apt-get\"\n"
                                 "chmod +x \"$bin/apt-get\"\n") +
           "PATH=\"$bin\"\n"
           ". scripts/deps.sh\n"
           "LAPI_DEPS=(lapi-no-such-package)\n"
           "lapi_ensure_deps\n";
}

TEST(SetUpScripts, WithoutRootOrSudoSayWhatToInstall) {
    ScriptRun r = Bash(MissingPackageSnippet("none"));
    EXPECT_EQ(1, r.status) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("Missing packages: lapi-no-such-package"))
        << r.output;
    EXPECT_NE(std::string::npos,
              r.output.find("    apt-get update && apt-get install -y --no-install-recommends "
                            "lapi-no-such-package"))
        << r.output;
    EXPECT_EQ(std::string::npos, r.output.find("command not found")) << r.output;
}

TEST(SetUpScripts, WithSudoInstallThroughIt) {
    ScriptRun r = Bash(MissingPackageSnippet("sudo"));
    EXPECT_EQ(0, r.status) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("sudo apt-get update -q")) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("lapi-no-such-package")) << r.output;
}

TEST(SetUpScripts, NothingMissingTouchesNothing) {
    ScriptRun r = Bash(". scripts/deps.sh\nLAPI_DEPS=()\nlapi_ensure_deps && echo fine\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("fine\n", r.output);
}

/* A script run with an option it does not know: status 2 and its usage. */
void ExpectUsageRefusal(const std::string &script) {
    ScriptRun r = Bash("bash " + script + " --bogus");
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.output.find("usage: " + script)) << r.output;
}

TEST(SetUpScripts, TestScriptRefusesAnUnknownMode) {
    ExpectUsageRefusal("scripts/test.sh");
    ScriptRun r = Bash("bash scripts/test.sh --fuzz x");
    EXPECT_EQ(2, r.status);
}

TEST(SetUpScripts, MemoryScriptRefusesAnUnknownOptionAndExplainsItself) {
    ExpectUsageRefusal("scripts/memory.sh");
    ScriptRun r = Bash("bash scripts/memory.sh --help");
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.output.find("Private_Dirty")) << r.output;
}

}  // namespace
