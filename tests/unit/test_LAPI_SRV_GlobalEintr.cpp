/*
 * Interrupted system calls in the buffered I/O. The server's signal handler
 * is installed without SA_RESTART, so a read, write or close may fail with
 * EINTR at any time; on a non-blocking descriptor that never happens on its
 * own in a test. This executable is linked with read, write and close
 * wrapped (see tests/CMakeLists.txt): every call from the server's code
 * passes through the __wrap_ functions below, which fail the next call on
 * one chosen descriptor with a chosen errno when armed, and otherwise hand
 * the call on unchanged.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_SRV_Global.h"
#include "ServerFixture.h"

extern "C" {
ssize_t __real_read(int fd, void *pBuf, size_t count);
ssize_t __real_write(int fd, const void *pBuf, size_t count);
int __real_close(int fd);
ssize_t __wrap_read(int fd, void *pBuf, size_t count);
ssize_t __wrap_write(int fd, const void *pBuf, size_t count);
int __wrap_close(int fd);
}

namespace {

/* One wrapped call: which descriptor it watches, how many of the next calls
 * on it fail and with which errno, and how many calls it has seen. */
struct Fault {
    int fd = -1;
    int err = 0;
    int failures = 0;
    int calls = 0;

    void Arm(int onFd, int withErrno) {
        fd = onFd;
        err = withErrno;
        failures = 1;
        calls = 0;
    }
    void Disarm() { *this = Fault(); }
    /* Counts a call on the watched descriptor; true when it must fail. */
    bool Trip(int callFd) {
        if (callFd != fd) {
            return false;
        }
        ++calls;
        if (failures > 0) {
            --failures;
            errno = err;
            return true;
        }
        return false;
    }
};

Fault g_read;
Fault g_write;
Fault g_close;

}  // namespace

extern "C" ssize_t __wrap_read(int fd, void *pBuf, size_t count) {
    if (g_read.Trip(fd)) {
        return -1;
    }
    return __real_read(fd, pBuf, count);
}

extern "C" ssize_t __wrap_write(int fd, const void *pBuf, size_t count) {
    if (g_write.Trip(fd)) {
        return -1;
    }
    return __real_write(fd, pBuf, count);
}

extern "C" int __wrap_close(int fd) {
    if (g_close.Trip(fd)) {
        return -1;
    }
    return __real_close(fd);
}

namespace {

using lapitest::RecvPending;
using lapitest::StderrCapture;

struct FdopsDeleter {
    void operator()(Fdops *pFdops) const { DestroyFdops(pFdops); }
};
using FdopsPtr = std::unique_ptr<Fdops, FdopsDeleter>;

bool OnList(List *pList, const Fdops *pFdops) {
    ListNode *pPos = List_GetHeadPos(pList);
    while (pPos != nullptr) {
        if (List_GetNext(pList, &pPos) == pFdops) {
            return true;
        }
    }
    return false;
}

std::vector<uint8_t> Pattern(size_t n) {
    std::vector<uint8_t> b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    return b;
}

int g_closeProcCalls = 0;
void RecordClose(Fdops *) {
    ++g_closeProcCalls;
}

/* A server-side Fdops on one end of a socket pair; the test holds the
 * other end. */
class GlobalEintr : public ::testing::Test {
  protected:
    void SetUp() override {
        LAPI_SRV_InitGlobals();
        g_closeProcCalls = 0;
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        ASSERT_EQ(0, fcntl(sv[0], F_SETFL, O_NONBLOCK));
        ASSERT_EQ(0, fcntl(sv[1], F_SETFL, O_NONBLOCK));
        peer_ = sv[1];
        pFdops_.reset(CreateFdops(sv[0], 64, 64));
        ASSERT_NE(nullptr, pFdops_);
    }
    void TearDown() override {
        g_read.Disarm();
        g_write.Disarm();
        g_close.Disarm();
        pFdops_.reset();
        if (peer_ >= 0) {
            close(peer_);
        }
    }

    Fdops *F() { return pFdops_.get(); }

    FdopsPtr pFdops_;
    int peer_ = -1;
};

TEST_F(GlobalEintr, GeneralReadRetriesAfterEintr) {
    const std::vector<uint8_t> data = Pattern(10);
    ASSERT_EQ(static_cast<ssize_t>(data.size()), write(peer_, data.data(), data.size()));
    g_read.Arm(F()->fd, EINTR);

    StderrCapture cap;
    int r = LAPI_SRV_GeneralRead(F());
    cap.Restore();

    EXPECT_EQ(0, r);
    EXPECT_TRUE(cap.HasTrace("errno == EINTR")) << cap.Text();
    EXPECT_TRUE(cap.HasTrace("errno == EAGAIN")) << cap.Text();
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
    ASSERT_EQ(data.size(), F()->rbuf.idx);
    EXPECT_EQ(0, memcmp(data.data(), F()->rbuf.buf, data.size()));
    /* Interrupted, then the data, then EAGAIN: the wrap saw all three. */
    EXPECT_EQ(3, g_read.calls);
}

TEST_F(GlobalEintr, GeneralWriteRetriesAfterEintr) {
    const std::vector<uint8_t> data = Pattern(40);
    g_write.Arm(F()->fd, EINTR);

    StderrCapture cap;
    int r = LAPI_SRV_GeneralWrite(F(), data.data(), static_cast<int>(data.size()));
    cap.Restore();

    EXPECT_EQ(0, r);
    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
    EXPECT_EQ(2, g_write.calls);
    EXPECT_EQ(data, RecvPending(peer_));
    EXPECT_EQ(0, F()->wbuf.idx);
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, F()));
}

TEST_F(GlobalEintr, GeneralWriteProcRetriesAfterEintr) {
    const std::vector<uint8_t> data = Pattern(30);
    memcpy(F()->wbuf.buf, data.data(), data.size());
    F()->wbuf.idx = static_cast<uint16_t>(data.size());
    F()->closeProc = RecordClose;
    LAPI_SRV_AddFdopsWriteList(F());
    ASSERT_TRUE(OnList(&LAPI_SRV_writeFdopsList, F()));
    g_write.Arm(F()->fd, EINTR);

    StderrCapture cap;
    LAPI_SRV_GeneralWriteProc(F());
    cap.Restore();

    EXPECT_TRUE(cap.Errors().empty()) << cap.Text();
    EXPECT_EQ(0, g_closeProcCalls);
    EXPECT_EQ(2, g_write.calls);
    EXPECT_EQ(data, RecvPending(peer_));
    EXPECT_EQ(0, F()->wbuf.idx);
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, F()));
}

/* CloseFd on a descriptor whose first close fails with err: the close is
 * repeated and the descriptor ends up closed. */
void ExpectCloseRepeatedAfter(int err) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    g_close.Arm(fd, err);
    CloseFd(fd);
    int calls = g_close.calls;
    g_close.Disarm();
    errno = 0;
    bool stillOpen = fcntl(fd, F_GETFD) != -1;
    int fcntlErrno = errno;
    if (stillOpen) {
        __real_close(fd);
    }
    EXPECT_EQ(2, calls);
    EXPECT_FALSE(stillOpen) << "close was not repeated after " << strerror(err);
    EXPECT_EQ(EBADF, fcntlErrno);
}

TEST(GlobalEintrClose, CloseFdRepeatsCloseAfterEintr) {
    ExpectCloseRepeatedAfter(EINTR);
}

TEST(GlobalEintrClose, CloseFdRepeatsCloseAfterEagain) {
    ExpectCloseRepeatedAfter(EAGAIN);
}

TEST(GlobalEintrClose, CloseFdGivesUpOnOtherErrors) {
    /* Any other failure is final: exactly one attempt. */
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    g_close.Arm(fd, EIO);
    CloseFd(fd);
    int calls = g_close.calls;
    g_close.Disarm();
    bool stillOpen = fcntl(fd, F_GETFD) != -1;
    if (stillOpen) {
        __real_close(fd);
    }
    EXPECT_EQ(1, calls);
    EXPECT_TRUE(stillOpen);
}

}  // namespace
