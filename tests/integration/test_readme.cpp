/*
 * The README as a user meets it: every command of its "sh" blocks runs, in
 * order, in one shell, from the top folder of the repository, against this
 * build; the two set-up commands are what CI runs and are only checked to
 * be there; the test modes it lists are the ones CI runs.
 */
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ServerFixture.h"

namespace {

const std::string kSource = LAPI_SOURCE_DIR;
const std::string kBuild = LAPI_BUILD_DIR;
constexpr int kScriptTimeoutMs = 240000;
const char *const kSetUp[] = {"bash scripts/demo.sh", "bash scripts/test.sh"};

std::string ReadText(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct Block {
    std::string section; /* the "## " heading above it */
    std::string text;
};

/* The fenced blocks whose info string is "sh". */
std::vector<Block> ShBlocks(const std::string &readme) {
    std::vector<Block> blocks;
    std::istringstream in(readme);
    std::string line;
    std::string section;
    bool inSh = false;
    bool inOther = false;
    std::string text;
    while (std::getline(in, line)) {
        if (!inSh && !inOther && line.rfind("## ", 0) == 0) {
            section = line.substr(3);
        }
        if (line.rfind("```", 0) == 0) {
            if (inSh) {
                blocks.push_back({section, text});
                inSh = false;
            } else if (inOther) {
                inOther = false;
            } else if (line == "```sh") {
                inSh = true;
                text.clear();
            } else {
                inOther = true;
            }
            continue;
        }
        if (inSh) {
            text += line + "\n";
        }
    }
    return blocks;
}

bool IsSetUpCommand(const std::string &block) {
    for (const char *cmd : kSetUp) {
        if (block == std::string(cmd) + "\n") {
            return true;
        }
    }
    return false;
}

/* The guide says build/...; this test runs against its own build folder. */
std::string ForThisBuild(const std::string &script) {
    static const std::regex kBuildPath(R"((\$\(pwd\)/)?\bbuild/)");
    return std::regex_replace(script, kBuildPath, kBuild + "/");
}

/* Ends what the script left running below root: processes whose command
 * line names it (the script started them, so this test did). */
int KillLeftovers(const std::string &root) {
    int killed = 0;
    if (root.size() < 8) {
        return 0;
    }
    DIR *d = opendir("/proc");
    if (d == nullptr) {
        return 0;
    }
    while (dirent *e = readdir(d)) {
        pid_t pid = static_cast<pid_t>(atoi(e->d_name));
        if (pid <= 1 || pid == getpid()) {
            continue;
        }
        std::string cmdline = ReadText("/proc/" + std::string(e->d_name) + "/cmdline");
        for (char &c : cmdline) {
            c = c == '\0' ? ' ' : c;
        }
        if (cmdline.find("--root " + root) != std::string::npos) {
            kill(pid, SIGKILL);
            ++killed;
        }
    }
    closedir(d);
    return killed;
}

TEST(ReadmeTest, HasExactlyTheTwoSetUpCommands) {
    std::vector<Block> blocks = ShBlocks(ReadText(kSource + "/README.md"));
    std::vector<std::string> setUp;
    for (const Block &b : blocks) {
        if (b.section == "Set-up on a fresh machine") {
            setUp.push_back(b.text);
        } else {
            EXPECT_FALSE(IsSetUpCommand(b.text)) << "a set-up command outside its section";
        }
    }
    ASSERT_EQ(2u, setUp.size());
    EXPECT_EQ("bash scripts/demo.sh\n", setUp[0]);
    EXPECT_EQ("bash scripts/test.sh\n", setUp[1]);
}

TEST(ReadmeTest, TestModesAreTheOnesCiRuns) {
    std::string readme = ReadText(kSource + "/README.md");
    std::string ci = ReadText(kSource + "/.ci/run");
    ASSERT_FALSE(ci.empty());
    static const std::regex kMode(R"(`(bash scripts/test\.sh[^`]*)`)");
    int modes = 0;
    for (std::sregex_iterator it(readme.begin(), readme.end(), kMode), end; it != end; ++it) {
        std::string cmd = (*it)[1];
        if (cmd.find("--help") != std::string::npos) {
            continue;
        }
        ++modes;
        std::regex inCi(
            "^" + std::regex_replace(cmd, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") + "$",
            std::regex::multiline);
        EXPECT_TRUE(std::regex_search(ci, inCi)) << cmd << " is not what .ci/run runs";
    }
    EXPECT_EQ(8, modes);
    EXPECT_NE(std::string::npos, ci.find("bash scripts/demo.sh"));
}

TEST(ReadmeTest, EveryCommandRuns) {
    std::vector<Block> blocks = ShBlocks(ReadText(kSource + "/README.md"));
    ASSERT_GT(blocks.size(), 10u);
    std::string script = "set -euo pipefail\n";
    for (const Block &b : blocks) {
        if (IsSetUpCommand(b.text)) {
            continue;
        }
        script += "echo '==> " + b.section + "' >&2\n" + ForThisBuild(b.text);
    }
    script += "echo \"README-ROOT=${ROOT:-}\"\n";
    lapitest::TempRoot work;
    ASSERT_TRUE(work.WriteFile("/readme.sh", script));
    std::string out = work.Path("/out.txt");
    std::string err = work.Path("/err.txt");
    std::string cmd = "cd '" + kSource + "' && CC='" + LAPI_README_CC + "' timeout -k 5 " +
                      std::to_string(kScriptTimeoutMs / 1000) + " bash '" +
                      work.Path("/readme.sh") + "' >'" + out + "' 2>'" + err + "' </dev/null";
    int status = system(cmd.c_str());
    std::string stdoutText = ReadText(out);
    std::string stderrText = ReadText(err);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the README's commands failed (status " << status << ")\n--- stdout\n"
        << stdoutText << "\n--- stderr\n"
        << stderrText;

    /* What the guide says the commands show. */
    EXPECT_NE(std::string::npos, stdoutText.find("Location fix\n  latitude:           48.8566\n"))
        << stdoutText;
    EXPECT_NE(std::string::npos, stdoutText.find("\"latitude\":51.5074")) << stdoutText;
    EXPECT_NE(std::string::npos, stdoutText.find("\"distance\":343556.25")) << stdoutText;
    EXPECT_NE(std::string::npos, stdoutText.find("Positioning status changed")) << stdoutText;
    EXPECT_NE(std::string::npos, stdoutText.find("<--offset, where updated last time"))
        << stdoutText;
    EXPECT_NE(std::string::npos, stdoutText.find("  sessionId:")) << "--verbose";

    /* It cleaned up after itself: nothing runs, the root is gone. */
    std::smatch m;
    std::string root;
    if (std::regex_search(stdoutText, m, std::regex("README-ROOT=(\\S+)"))) {
        root = m[1];
    }
    ASSERT_FALSE(root.empty()) << stdoutText;
    EXPECT_EQ(0, KillLeftovers(root)) << "the README left a process running on " << root;
    EXPECT_NE(0, access(root.c_str(), F_OK)) << root << " was not removed";
    if (access(root.c_str(), F_OK) == 0) {
        std::string rm = "rm -rf '" + root + "'";
        EXPECT_EQ(0, system(rm.c_str()));
    }
}

}  // namespace
