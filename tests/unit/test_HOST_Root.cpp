/*
 * The host stand-ins' root folder and their FIFO opener: every fixed path
 * of the platform libraries lies below the root, and the link and telephony
 * FIFOs are made there when missing and refused when something else is in
 * their place.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "HOST_Root.h"
#include "ServerFixture.h"
#include "ToolCommon.h"

namespace {

using lapitest::TempRoot;

class HostRoot : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, HOST_SetRoot(root_.Dir().c_str())); }
    void TearDown() override { HOST_SetRoot(""); }
    std::string Below(const char *absPath) const { return root_.Dir() + absPath; }

    TempRoot root_;
};

TEST_F(HostRoot, PathIsTheRootFollowedByTheAbsolutePath) {
    char path[512];
    ASSERT_EQ(0, HOST_Path(path, sizeof(path), "/run/napi.fifo"));
    EXPECT_EQ(Below("/run/napi.fifo"), path);
}

TEST_F(HostRoot, PathThatDoesNotFitIsRefused) {
    char path[8];
    EXPECT_EQ(-1, HOST_Path(path, sizeof(path), "/run/napi.fifo"));
}

TEST_F(HostRoot, RootLongerThan200BytesIsRefused) {
    EXPECT_EQ(-1, HOST_SetRoot(std::string(201, 'r').c_str()));
    EXPECT_EQ(0, HOST_SetRoot(std::string(200, 'r').c_str()));
}

TEST_F(HostRoot, OpenFifoMakesTheFolderAndTheFifo) {
    std::string dir = Below("/fifos");
    struct stat st;
    ASSERT_NE(0, stat(dir.c_str(), &st));
    int fd = HOST_OpenFifo("/fifos/test.fifo");
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, stat(Below("/fifos/test.fifo").c_str(), &st));
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    /* Read and write, non-blocking, closed on exec. */
    int flags = fcntl(fd, F_GETFL);
    EXPECT_EQ(O_RDWR, flags & O_ACCMODE);
    EXPECT_NE(0, flags & O_NONBLOCK);
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    /* Nothing written yet: a read would block, it does not end the file. */
    char byte;
    EXPECT_EQ(-1, read(fd, &byte, 1));
    EXPECT_EQ(EAGAIN, errno);
    close(fd);
}

TEST_F(HostRoot, OpenFifoOpensAFifoThatIsAlreadyThere) {
    ASSERT_EQ(0, mkdir(Below("/run").c_str(), 0755));
    ASSERT_EQ(0, mkfifo(Below("/run/tapi.fifo").c_str(), 0666));
    int fd = HOST_OpenFifo("/run/tapi.fifo");
    ASSERT_GE(fd, 0);
    ASSERT_EQ(1, write(fd, "x", 1));
    char byte = 0;
    EXPECT_EQ(1, read(fd, &byte, 1));
    EXPECT_EQ('x', byte);
    close(fd);
}

TEST_F(HostRoot, OpenFifoRefusesARegularFileInItsPlace) {
    ASSERT_EQ(0, mkdir(Below("/run").c_str(), 0755));
    int file = open(Below("/run/napi.fifo").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(file, 0);
    close(file);
    int before = toolcommon::CountOpenFds(getpid());
    EXPECT_EQ(-1, HOST_OpenFifo("/run/napi.fifo"));
    EXPECT_EQ(before, toolcommon::CountOpenFds(getpid()));
}

TEST_F(HostRoot, OpenFifoRefusesAFolderInItsPlace) {
    ASSERT_EQ(0, mkdir(Below("/run").c_str(), 0755));
    ASSERT_EQ(0, mkdir(Below("/run/napi.fifo").c_str(), 0755));
    EXPECT_EQ(-1, HOST_OpenFifo("/run/napi.fifo"));
}

TEST_F(HostRoot, OpenFifoFailsWhenThePathDoesNotFit) {
    ASSERT_EQ(0, HOST_SetRoot(std::string(200, 'r').c_str()));
    EXPECT_EQ(-1, HOST_OpenFifo(("/" + std::string(400, 'f')).c_str()));
}

}  // namespace
