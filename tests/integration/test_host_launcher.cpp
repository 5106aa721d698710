/*
 * The host launcher's command line and folders: lapi_srv_host --root DIR
 * [--push-port N]. A bad command line gives exactly one usage line on
 * standard error, status 2, and nothing else happens.
 */
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

using lapitest::ConnectUnix;
using lapitest::MuxPty;
using lapitest::ServerOptions;
using lapitest::ServerProcess;
using lapitest::Stream;
using lapitest::TempRoot;

constexpr const char kUsagePrefix[] = "usage: lapi_srv_host --root DIR [--push-port N]";

bool IsDir(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class Launcher : public ::testing::Test {
  protected:
    /* Runs the launcher with exactly these arguments and waits for its end. */
    int Run(const std::vector<std::string> &args, ServerProcess **ppOut = nullptr) {
        ServerOptions options;
        options.rawArgs = args;
        procs_.emplace_back(std::make_unique<ServerProcess>(root_, options));
        ServerProcess *p = procs_.back().get();
        if (ppOut != nullptr) {
            *ppOut = p;
        }
        if (!p->Start()) {
            return lapitest::kNotExited;
        }
        int code = p->WaitExit(5000);
        p->WaitOutputClosed(5000);
        return code;
    }

    /* Status 2, one usage line on stderr, nothing on stdout, nothing made. */
    void ExpectBadCommandLine(const std::vector<std::string> &args) {
        ServerProcess *p = nullptr;
        EXPECT_EQ(2, Run(args, &p));
        ASSERT_NE(nullptr, p);
        std::vector<std::string> err = p->StderrLines();
        ASSERT_EQ(1u, err.size()) << p->Text(Stream::Stderr);
        EXPECT_EQ(0u, err[0].rfind(kUsagePrefix, 0)) << err[0];
        EXPECT_TRUE(p->StdoutLines().empty());
        EXPECT_FALSE(root_.Exists("/tmp"));
        EXPECT_FALSE(root_.Exists("/run"));
    }

    TempRoot root_;
    std::vector<std::unique_ptr<ServerProcess>> procs_;
};

TEST_F(Launcher, NoRootIsRefused) {
    ExpectBadCommandLine({});
}

TEST_F(Launcher, OnlyPushPortIsRefused) {
    ExpectBadCommandLine({"--push-port", "3000"});
}

TEST_F(Launcher, RelativeRootIsRefused) {
    ExpectBadCommandLine({"--root", "lapi-relative-root"});
    EXPECT_FALSE(IsDir("lapi-relative-root"));
}

TEST_F(Launcher, EmptyRootIsRefused) {
    ExpectBadCommandLine({"--root", ""});
}

TEST_F(Launcher, UnknownOptionIsRefused) {
    ExpectBadCommandLine({"--root", root_.Dir(), "--verbose"});
}

TEST_F(Launcher, StrayArgumentIsRefused) {
    ExpectBadCommandLine({"--root", root_.Dir(), "x"});
}

TEST_F(Launcher, MissingRootValueIsRefused) {
    ExpectBadCommandLine({"--root"});
}

TEST_F(Launcher, MissingPortValueIsRefused) {
    ExpectBadCommandLine({"--root", root_.Dir(), "--push-port"});
}

TEST_F(Launcher, RepeatedRootIsRefused) {
    ExpectBadCommandLine({"--root", root_.Dir(), "--root", root_.Dir()});
}

TEST_F(Launcher, PortZeroIsRefused) {
    ExpectBadCommandLine({"--root", root_.Dir(), "--push-port", "0"});
}

TEST_F(Launcher, Port65536IsRefused) {
    ExpectBadCommandLine({"--root", root_.Dir(), "--push-port", "65536"});
}

TEST_F(Launcher, MalformedPortsAreRefused) {
    for (const char *port : {"", "-1", "+5", "12a", "0x10", "99999999999999999999", " 80"}) {
        SCOPED_TRACE(port);
        ExpectBadCommandLine({"--root", root_.Dir(), "--push-port", port});
    }
}

TEST_F(Launcher, RootTooLongForSocketPathIsRefused) {
    /* DIR + "/tmp/lapisock" is 108 bytes: one too many. */
    std::string dir = root_.Dir() + "/";
    dir += std::string(108 - 13 - dir.size(), 'd');
    ASSERT_EQ(95u, dir.size());
    ExpectBadCommandLine({"--root", dir});
    EXPECT_FALSE(IsDir(dir));
}

TEST_F(Launcher, HelpDescribesTheLauncherOnStdoutAndExitsZero) {
    for (const char *flag : {"--help", "-h"}) {
        SCOPED_TRACE(flag);
        ServerProcess *p = nullptr;
        EXPECT_EQ(0, Run({flag}, &p));
        ASSERT_NE(nullptr, p);
        std::vector<std::string> out = p->StdoutLines();
        ASSERT_LT(20u, out.size());
        EXPECT_EQ(kUsagePrefix, out[0]);
        std::string text = p->Text(Stream::Stdout);
        for (const char *part :
             {"DIR/tmp/lapisock", "DIR/tmp/lapi.pid", "DIR/dev/mux18",
              "DIR/zel_user/download/appwrite/setup/zel_agps.cfg",
              "DIR/zellocal/download/appwrite/location_fix.log", "flag 367", "DIR/etc/flex/N",
              "DIR/run/napi.fifo", "DIR/run/tapi.fifo", "DIR/etc/certs", "SIGTERM"}) {
            EXPECT_NE(std::string::npos, text.find(part)) << part;
        }
        EXPECT_TRUE(p->StderrLines().empty());
        EXPECT_FALSE(root_.Exists("/tmp"));
    }
}

TEST_F(Launcher, CreatesTheFolders) {
    MuxPty mux(root_);
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    for (const char *rel : {"/tmp", "/dev", "/run", "/etc/flex", "/etc/certs",
                            "/zel_user/download/appwrite/setup", "/zellocal/download/appwrite"}) {
        EXPECT_TRUE(IsDir(root_.Path(rel))) << rel;
    }
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Launcher, MissingRootFolderIsCreated) {
    std::string dir = root_.Path("/nested/root");
    ServerOptions options;
    options.rawArgs = std::vector<std::string>{"--root", dir, "--push-port",
                                               std::to_string(lapitest::PickFreeUdpPort())};
    ServerProcess srv(root_, options);
    ASSERT_TRUE(srv.Start());
    int fd = -1;
    for (int i = 0; i < 1000 && fd < 0; ++i) {
        fd = ConnectUnix(dir + "/tmp/lapisock");
        if (fd < 0) {
            usleep(10000);
        }
    }
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_TRUE(IsDir(dir + "/etc/certs"));
    EXPECT_TRUE(IsDir(dir + "/zellocal/download/appwrite"));
    EXPECT_EQ(0, srv.Stop());
    EXPECT_FALSE(root_.Exists("/nested/root/tmp/lapi.pid"));
}

TEST_F(Launcher, RootOfExactly107ByteSocketPathIsAccepted) {
    std::string dir = root_.Dir() + "/";
    dir += std::string(107 - 13 - dir.size(), 'd');
    ASSERT_EQ(94u, dir.size());
    ServerOptions options;
    options.rawArgs = std::vector<std::string>{"--root", dir, "--push-port",
                                               std::to_string(lapitest::PickFreeUdpPort())};
    ServerProcess srv(root_, options);
    ASSERT_TRUE(srv.Start());
    std::string sock = dir + "/tmp/lapisock";
    ASSERT_EQ(107u, sock.size());
    int fd = -1;
    for (int i = 0; i < 1000 && fd < 0; ++i) {
        fd = ConnectUnix(sock);
        if (fd < 0) {
            usleep(10000);
        }
    }
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(srv.Pid(), lapitest::ReadPidFile(dir + "/tmp/lapi.pid"));
    EXPECT_EQ(0, srv.Stop());
}

TEST_F(Launcher, TrailingSlashOfRootIsIgnored) {
    MuxPty mux(root_);
    ServerOptions options;
    options.rawArgs = std::vector<std::string>{"--root", root_.Dir() + "/", "--push-port",
                                               std::to_string(lapitest::PickFreeUdpPort())};
    ServerProcess srv(root_, options);
    ASSERT_TRUE(srv.StartAndWaitReady());
    EXPECT_EQ(srv.Pid(), lapitest::ReadPidFile(root_.Path("/tmp/lapi.pid")));
    EXPECT_EQ(0, srv.Stop());
    EXPECT_TRUE(srv.WaitForTrace("Remove pid file : " + root_.Path("/tmp/lapi.pid") + ".", 2000));
}

TEST_F(Launcher, PortBoundsAreAccepted) {
    MuxPty mux(root_);
    for (const char *port : {"1", "65535"}) {
        SCOPED_TRACE(port);
        ServerOptions options;
        options.rawArgs = std::vector<std::string>{"--root", root_.Dir(), "--push-port", port};
        ServerProcess srv(root_, options);
        ASSERT_TRUE(srv.StartAndWaitReady());
        EXPECT_EQ(0, srv.Stop());
    }
}

TEST_F(Launcher, ServerPathsFollowTheRoot) {
    MuxPty mux(root_);
    ServerProcess srv(root_);
    ASSERT_TRUE(srv.StartAndWaitReady());
    EXPECT_TRUE(root_.Exists("/tmp/lapi.pid"));
    EXPECT_TRUE(root_.Exists("/tmp/lapisock"));
    /* The BP channel was opened below the root, not at /dev/mux18. */
    EXPECT_EQ(0u, srv.CountErrors("Fail to connect mux channel!"));
    EXPECT_EQ(0, srv.Stop());
}

}  // namespace
