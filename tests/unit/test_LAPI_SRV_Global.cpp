/*
 * Unit tests of the server core: list container, Fdops lists, buffered I/O,
 * the send queue, byte order, clients and transactions.
 *
 * I/O runs over real non-blocking socket pairs and pipes. Diagnostics are
 * captured by pointing descriptor 2 at a temporary file around the call.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_Global.h"
#include "ServerFixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

using lapitest::RecvPending;
using lapitest::StderrCapture;

size_t CountOf(const std::string &text, const std::string &what) {
    size_t count = 0;
    for (size_t pos = text.find(what); pos != std::string::npos;
         pos = text.find(what, pos + what.size())) {
        ++count;
    }
    return count;
}

/* A connected, non-blocking stream socket pair. An Fdops that takes one end
 * owns it from then on (DestroyFdops closes it). */
class SocketPair {
  public:
    SocketPair() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) {
            a_ = sv[0];
            b_ = sv[1];
            SetFdBlocking(a_, false);
            SetFdBlocking(b_, false);
        }
    }
    ~SocketPair() {
        if (a_ >= 0) {
            close(a_);
        }
        if (b_ >= 0) {
            close(b_);
        }
    }
    SocketPair(const SocketPair &) = delete;
    SocketPair &operator=(const SocketPair &) = delete;

    int TakeA() {
        int fd = a_;
        a_ = -1;
        return fd;
    }
    int b() const { return b_; }
    void CloseB() {
        close(b_);
        b_ = -1;
    }

  private:
    int a_ = -1;
    int b_ = -1;
};

/* Writes to fd until the kernel refuses more (EAGAIN). */
void FillUntilEagain(int fd) {
    std::vector<char> big(65536, 'x');
    while (write(fd, big.data(), big.size()) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    char one = 'y';
    while (write(fd, &one, 1) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
}

Bytes Pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>(seed + i * 7);
    }
    return b;
}

bool OnList(List *pList, const void *pElem) {
    for (ListNode *p = pList->head; p != nullptr; p = p->next) {
        if (p->data == pElem) {
            return true;
        }
    }
    return false;
}

uint32_t NodeCount(const List *pList) {
    uint32_t n = 0;
    for (ListNode *p = pList->head; p != nullptr; p = p->next) {
        ++n;
    }
    return n;
}

bool FdIsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

/* Empties every list of the core, freeing what the lists own, and resets
 * the globals, so each test starts from a fresh server. */
void ResetCore() {
    int savedTrace = LAPI_traceEnabled;
    LAPI_traceEnabled = 0;
    StderrCapture quiet;
    while (!List_IsEmpty(&LAPI_SRV_allClientList)) {
        LAPI_SRV_RemoveClient(static_cast<Client *>(LAPI_SRV_allClientList.head->data));
    }
    List_RemoveAll(&LAPI_SRV_tranList);
    while (SendDataNode *pNode = GetQueueHead(&LAPI_SRV_muxSendDataList)) {
        free(pNode->pData);
        free(pNode);
    }
    if (LAPI_SRV_pMuxFdops != nullptr) {
        DestroyFdops(LAPI_SRV_pMuxFdops);
    }
    while (!List_IsEmpty(&LAPI_SRV_readFdopsList)) {
        DestroyFdops(static_cast<Fdops *>(LAPI_SRV_readFdopsList.head->data));
    }
    while (!List_IsEmpty(&LAPI_SRV_writeFdopsList)) {
        DestroyFdops(static_cast<Fdops *>(LAPI_SRV_writeFdopsList.head->data));
    }
    /* Nodes only: the clients were freed above. */
    while (!List_IsEmpty(&LAPI_SRV_statusClientList)) {
        List_RemoveHead(&LAPI_SRV_statusClientList);
    }
    while (!List_IsEmpty(&LAPI_SRV_mtlrClientList)) {
        List_RemoveHead(&LAPI_SRV_mtlrClientList);
    }
    LAPI_SRV_InitGlobals();
    LAPI_traceEnabled = savedTrace;
}

class CoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        /* A write to a closed peer must fail with EPIPE, as in the server. */
        signal(SIGPIPE, SIG_IGN);
        ResetCore();
    }
    void TearDown() override { ResetCore(); }
};

/* Records calls of a closeProc without closing anything. */
int gCloseCalls = 0;
Fdops *gClosedFdops = nullptr;
void RecordingCloseProc(Fdops *pFdops) {
    ++gCloseCalls;
    gClosedFdops = pFdops;
}

/* ======================================================================== */
/* List container                                                           */
/* ======================================================================== */

class ListTest : public ::testing::Test {
  protected:
    void SetUp() override { List_Init(&list_); }
    void TearDown() override {
        while (!List_IsEmpty(&list_)) {
            List_RemoveHead(&list_);
        }
    }
    List list_;
    int a_ = 1, b_ = 2, c_ = 3;
};

TEST_F(ListTest, InitLeavesEmptyList) {
    EXPECT_EQ(list_.head, nullptr);
    EXPECT_EQ(list_.tail, nullptr);
    EXPECT_EQ(list_.count, 0u);
    EXPECT_EQ(List_IsEmpty(&list_), 1);
    EXPECT_EQ(List_GetHeadPos(&list_), nullptr);
}

TEST_F(ListTest, AddTailKeepsOrderAndCount) {
    ASSERT_NE(List_AddTail(&list_, &a_), nullptr);
    ASSERT_NE(List_AddTail(&list_, &b_), nullptr);
    ListNode *pLast = List_AddTail(&list_, &c_);
    ASSERT_NE(pLast, nullptr);
    EXPECT_EQ(list_.tail, pLast);
    EXPECT_EQ(pLast->next, nullptr);
    EXPECT_EQ(list_.count, 3u);
    EXPECT_EQ(List_IsEmpty(&list_), 0);

    ListNode *pPos = List_GetHeadPos(&list_);
    EXPECT_EQ(List_GetNext(&list_, &pPos), &a_);
    EXPECT_EQ(List_GetNext(&list_, &pPos), &b_);
    EXPECT_EQ(List_GetNext(&list_, &pPos), &c_);
    EXPECT_EQ(pPos, nullptr);
}

TEST_F(ListTest, RemoveHeadOnEmptyListReturnsNull) {
    EXPECT_EQ(List_RemoveHead(&list_), nullptr);
    EXPECT_EQ(list_.count, 0u);
    EXPECT_EQ(list_.head, nullptr);
    EXPECT_EQ(list_.tail, nullptr);
}

TEST_F(ListTest, RemovingOnlyNodeLeavesHeadAndTailNull) {
    ListNode *pNode = List_AddTail(&list_, &a_);
    ASSERT_NE(pNode, nullptr);
    EXPECT_EQ(List_RemoveAt(&list_, pNode), &a_);
    EXPECT_EQ(list_.head, nullptr);
    EXPECT_EQ(list_.tail, nullptr);
    EXPECT_EQ(list_.count, 0u);
}

TEST_F(ListTest, RemovingTailOfTwoMakesHeadTheTailAndAddTailLinksBehindIt) {
    ListNode *pHead = List_AddTail(&list_, &a_);
    ListNode *pTail = List_AddTail(&list_, &b_);
    EXPECT_EQ(List_RemoveAt(&list_, pTail), &b_);
    EXPECT_EQ(list_.tail, pHead);
    EXPECT_EQ(list_.head, pHead);
    EXPECT_EQ(pHead->next, nullptr);
    EXPECT_EQ(list_.count, 1u);

    ListNode *pNew = List_AddTail(&list_, &c_);
    EXPECT_EQ(pHead->next, pNew);
    EXPECT_EQ(list_.tail, pNew);
    EXPECT_EQ(list_.count, 2u);
}

TEST_F(ListTest, RemoveAtWithNodeOfAnotherListReturnsNullAndDecrementsCount) {
    List other;
    List_Init(&other);
    ListNode *pForeign = List_AddTail(&other, &c_);
    List_AddTail(&list_, &a_);
    List_AddTail(&list_, &b_);

    EXPECT_EQ(List_RemoveAt(&list_, pForeign), nullptr);
    EXPECT_EQ(list_.count, 1u); /* drifted: two nodes are still there */
    EXPECT_EQ(NodeCount(&list_), 2u);
    EXPECT_EQ(other.head, pForeign);

    List_RemoveHead(&other);
}

TEST_F(ListTest, RemoveOfAbsentElementRemovesNothingAndReturnsLastElement) {
    List_AddTail(&list_, &a_);
    List_AddTail(&list_, &b_);
    EXPECT_EQ(List_Remove(&list_, &c_), &b_);
    EXPECT_EQ(list_.count, 2u);
    EXPECT_EQ(NodeCount(&list_), 2u);
}

TEST_F(ListTest, RemoveOnEmptyListReturnsNull) {
    EXPECT_EQ(List_Remove(&list_, &a_), nullptr);
    EXPECT_EQ(list_.count, 0u);
}

TEST_F(ListTest, SameElementTwiceRemoveTakesOnlyFirstNode) {
    ListNode *pFirst = List_AddTail(&list_, &a_);
    List_AddTail(&list_, &b_);
    ListNode *pSecond = List_AddTail(&list_, &a_);
    EXPECT_EQ(List_Remove(&list_, &a_), &a_);
    EXPECT_EQ(list_.count, 2u);
    EXPECT_NE(list_.head, pFirst);
    EXPECT_EQ(list_.head->data, &b_);
    EXPECT_EQ(list_.tail, pSecond);
    EXPECT_TRUE(OnList(&list_, &a_));
}

TEST_F(ListTest, RemoveMiddleNodeRelinksNeighbours) {
    ListNode *pA = List_AddTail(&list_, &a_);
    ListNode *pB = List_AddTail(&list_, &b_);
    ListNode *pC = List_AddTail(&list_, &c_);
    EXPECT_EQ(List_RemoveAt(&list_, pB), &b_);
    EXPECT_EQ(pA->next, pC);
    EXPECT_EQ(list_.tail, pC);
    EXPECT_EQ(list_.count, 2u);
}

TEST_F(ListTest, RemoveAtNullNodeRemovesNothing) {
    List_AddTail(&list_, &a_);
    EXPECT_EQ(List_RemoveAt(&list_, nullptr), nullptr);
    EXPECT_EQ(NodeCount(&list_), 1u);
    EXPECT_EQ(list_.tail->data, &a_);
}

TEST_F(ListTest, RemoveAllFreesEveryElement) {
    for (int i = 0; i < 5; ++i) {
        List_AddTail(&list_, malloc(16)); /* freed by List_RemoveAll; ASan checks */
    }
    List_RemoveAll(&list_);
    EXPECT_EQ(List_IsEmpty(&list_), 1);
    EXPECT_EQ(list_.tail, nullptr);
    EXPECT_EQ(list_.count, 0u);
}

TEST_F(ListTest, DeletingCurrentElementWhileIteratingKeepsTheRest) {
    List_AddTail(&list_, &a_);
    List_AddTail(&list_, &b_);
    List_AddTail(&list_, &c_);
    std::vector<int> seen;
    ListNode *pPos = List_GetHeadPos(&list_);
    while (pPos != nullptr) {
        ListNode *pCur = pPos;
        int *pElem = static_cast<int *>(List_GetNext(&list_, &pPos));
        seen.push_back(*pElem);
        if (pElem == &b_) {
            List_RemoveAt(&list_, pCur);
        }
    }
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(NodeCount(&list_), 2u);
    EXPECT_FALSE(OnList(&list_, &b_));
}

/* ======================================================================== */
/* Fdops and their lists                                                    */
/* ======================================================================== */

using FdopsTest = CoreTest;

TEST_F(FdopsTest, GetFdBufRejectsNullAndNonPositiveSizeSilently) {
    FdBuf buf = {};
    StderrCapture cap;
    EXPECT_EQ(GetFdBuf(nullptr, 10), -1);
    EXPECT_EQ(GetFdBuf(&buf, 0), -1);
    EXPECT_EQ(GetFdBuf(&buf, -5), -1);
    EXPECT_EQ(cap.Stop(), "");
    EXPECT_EQ(buf.buf, nullptr);
}

TEST_F(FdopsTest, GetFdBufKeepsCapacityInSixteenBits) {
    FdBuf buf = {};
    StderrCapture cap;
    /* Only a null pointer, a size below 1 or a failed allocation fail: a
     * block beyond 16 bits is allocated and used up to the low 16 bits. */
    ASSERT_EQ(GetFdBuf(&buf, 65536 + 10), 0);
    EXPECT_EQ(cap.Stop(), "");
    ASSERT_NE(buf.buf, nullptr);
    EXPECT_EQ(buf.len, 10);
    EXPECT_EQ(buf.idx, 0);
    FreeFdBuf(&buf);

    ASSERT_EQ(GetFdBuf(&buf, 65535), 0);
    EXPECT_EQ(buf.len, 65535);
    EXPECT_EQ(buf.idx, 0);
    FreeFdBuf(&buf);
    EXPECT_EQ(buf.buf, nullptr);
    EXPECT_EQ(buf.len, 0);
    FreeFdBuf(nullptr);
}

TEST_F(FdopsTest, CreateFdopsNegativeFdReturnsNullSilently) {
    StderrCapture cap;
    EXPECT_EQ(CreateFdops(-1, 10, 10), nullptr);
    EXPECT_EQ(cap.Stop(), "");
}

TEST_F(FdopsTest, CreateFdopsRefusesFdAtOrAboveFdSetSize) {
    StderrCapture cap;
    EXPECT_EQ(CreateFdops(FD_SETSIZE, 10, 10), nullptr);
    EXPECT_EQ(CreateFdops(FD_SETSIZE + 100, 0, 0), nullptr);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "LAPI Error SRV CreateFdops: fd: "), 2u) << err;
    EXPECT_NE(err.find("fd: 1024 >= FD_SETSIZE: 1024, refuse!\n"), std::string::npos) << err;

    Fdops *pHighest = CreateFdops(FD_SETSIZE - 1, 0, 0);
    ASSERT_NE(pHighest, nullptr);
    FreeFdops(pHighest);
}

TEST_F(FdopsTest, CreateFdopsAllocatesRequestedBuffers) {
    Fdops *pFdops = CreateFdops(7, 1024, 16);
    ASSERT_NE(pFdops, nullptr);
    EXPECT_EQ(pFdops->fd, 7);
    EXPECT_NE(pFdops->rbuf.buf, nullptr);
    EXPECT_EQ(pFdops->rbuf.len, 1024);
    EXPECT_EQ(pFdops->rbuf.idx, 0);
    EXPECT_NE(pFdops->wbuf.buf, nullptr);
    EXPECT_EQ(pFdops->wbuf.len, 16);
    EXPECT_EQ(pFdops->readProc, nullptr);
    EXPECT_EQ(pFdops->writeProc, nullptr);
    EXPECT_EQ(pFdops->closeProc, nullptr);
    EXPECT_EQ(pFdops->pFdInfo, nullptr);
    FreeFdops(pFdops);
}

TEST_F(FdopsTest, CreateFdopsZeroSizesLeaveBuffersAbsent) {
    Fdops *pFdops = CreateFdops(3, 0, -1);
    ASSERT_NE(pFdops, nullptr);
    EXPECT_EQ(pFdops->rbuf.buf, nullptr);
    EXPECT_EQ(pFdops->rbuf.len, 0);
    EXPECT_EQ(pFdops->wbuf.buf, nullptr);
    EXPECT_EQ(pFdops->wbuf.len, 0);
    FreeFdops(pFdops);
}

TEST_F(FdopsTest, FreeFdopsReturnsFormerFdInfo) {
    int owner = 0;
    Fdops *pFdops = CreateFdops(3, 8, 8);
    ASSERT_NE(pFdops, nullptr);
    pFdops->pFdInfo = &owner;
    EXPECT_EQ(FreeFdops(pFdops), &owner);
    EXPECT_EQ(FreeFdops(nullptr), nullptr);
    EXPECT_EQ(DestroyFdops(nullptr), nullptr);
}

TEST_F(FdopsTest, AddSetsBitFlagAndRaisesMax) {
    Fdops *pFdops = CreateFdops(9, 0, 0);
    ASSERT_NE(pFdops, nullptr);
    LAPI_SRV_AddFdopsReadList(pFdops);
    EXPECT_TRUE(FD_ISSET(9, &readFdSet));
    EXPECT_EQ(LAPI_SRV_IsReadListChanged(), 1);
    EXPECT_EQ(maxReadFd, 9);
    EXPECT_TRUE(OnList(&LAPI_SRV_readFdopsList, pFdops));
    EXPECT_FALSE(FD_ISSET(9, &writeFdSet));
    EXPECT_EQ(LAPI_SRV_IsWriteListChanged(), 0);

    LAPI_SRV_ClearReadListChanged();
    EXPECT_EQ(LAPI_SRV_IsReadListChanged(), 0);
    LAPI_SRV_RemoveFdopsReadList(pFdops);
    EXPECT_FALSE(FD_ISSET(9, &readFdSet));
    EXPECT_EQ(LAPI_SRV_IsReadListChanged(), 1);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    FreeFdops(pFdops);
}

TEST_F(FdopsTest, AddingSameFdopsTwiceLeavesOneNode) {
    Fdops *pFdops = CreateFdops(5, 0, 0);
    ASSERT_NE(pFdops, nullptr);
    LAPI_SRV_AddFdopsReadList(pFdops);
    LAPI_SRV_ClearReadListChanged();
    LAPI_SRV_AddFdopsReadList(pFdops);
    EXPECT_EQ(NodeCount(&LAPI_SRV_readFdopsList), 1u);
    EXPECT_EQ(LAPI_SRV_IsReadListChanged(), 0);

    LAPI_SRV_AddFdopsWriteList(pFdops);
    LAPI_SRV_ClearWriteListChanged();
    LAPI_SRV_AddFdopsWriteList(pFdops);
    EXPECT_EQ(NodeCount(&LAPI_SRV_writeFdopsList), 1u);
    EXPECT_EQ(LAPI_SRV_IsWriteListChanged(), 0);

    LAPI_SRV_RemoveFdopsReadList(pFdops);
    LAPI_SRV_RemoveFdopsWriteList(pFdops);
    FreeFdops(pFdops);
}

TEST_F(FdopsTest, AfterHighestRemovedMaxIsOneLessEvenIfLowerOnesAreGone) {
    Fdops *p10 = CreateFdops(10, 0, 0);
    Fdops *p11 = CreateFdops(11, 0, 0);
    Fdops *p12 = CreateFdops(12, 0, 0);
    LAPI_SRV_AddFdopsReadList(p10);
    LAPI_SRV_AddFdopsReadList(p11);
    LAPI_SRV_AddFdopsReadList(p12);
    EXPECT_EQ(LAPI_SRV_GetMaxFd() + 1, 13);

    LAPI_SRV_RemoveFdopsReadList(p11); /* not the highest: max unchanged */
    EXPECT_EQ(maxReadFd, 12);
    LAPI_SRV_RemoveFdopsReadList(p12);
    EXPECT_EQ(maxReadFd, 11);               /* one step down, though 11 is gone */
    EXPECT_EQ(LAPI_SRV_GetMaxFd() + 1, 12); /* nfds = the old highest */
    EXPECT_EQ(NodeCount(&LAPI_SRV_readFdopsList), 1u);

    LAPI_SRV_RemoveFdopsReadList(p10);
    FreeFdops(p10);
    FreeFdops(p11);
    FreeFdops(p12);
}

TEST_F(FdopsTest, WriteListMaxFollowsTheSameRule) {
    Fdops *p20 = CreateFdops(20, 0, 0);
    Fdops *p22 = CreateFdops(22, 0, 0);
    LAPI_SRV_AddFdopsWriteList(p20);
    LAPI_SRV_AddFdopsWriteList(p22);
    EXPECT_EQ(maxWriteFd, 22);
    EXPECT_TRUE(FD_ISSET(22, &writeFdSet));
    LAPI_SRV_RemoveFdopsWriteList(p22);
    EXPECT_EQ(maxWriteFd, 21);
    EXPECT_FALSE(FD_ISSET(22, &writeFdSet));
    LAPI_SRV_RemoveFdopsWriteList(p20);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
    FreeFdops(p20);
    FreeFdops(p22);
}

TEST_F(FdopsTest, GetMaxFdIsTheLargerOfBothLists) {
    Fdops *p4 = CreateFdops(4, 0, 0);
    Fdops *p8 = CreateFdops(8, 0, 0);
    LAPI_SRV_AddFdopsReadList(p4);
    LAPI_SRV_AddFdopsWriteList(p8);
    EXPECT_EQ(LAPI_SRV_GetMaxFd(), 8);
    LAPI_SRV_RemoveFdopsWriteList(p8);
    LAPI_SRV_AddFdopsReadList(p8);
    LAPI_SRV_AddFdopsWriteList(p4);
    EXPECT_EQ(LAPI_SRV_GetMaxFd(), 8);
    LAPI_SRV_RemoveFdopsReadList(p8);
    LAPI_SRV_RemoveFdopsReadList(p4);
    LAPI_SRV_RemoveFdopsWriteList(p4);
    FreeFdops(p4);
    FreeFdops(p8);
}

TEST_F(FdopsTest, RemovingFdopsNotOnListIsIgnored) {
    Fdops *pFdops = CreateFdops(6, 0, 0);
    LAPI_SRV_RemoveFdopsReadList(pFdops);
    LAPI_SRV_RemoveFdopsWriteList(pFdops);
    LAPI_SRV_RemoveFdopsReadList(nullptr);
    LAPI_SRV_AddFdopsReadList(nullptr);
    EXPECT_EQ(LAPI_SRV_IsReadListChanged(), 0);
    EXPECT_EQ(LAPI_SRV_IsWriteListChanged(), 0);
    EXPECT_EQ(maxReadFd, 0);
    FreeFdops(pFdops);
}

TEST_F(FdopsTest, FdopsWithOutOfRangeFdNeverReachesTheSets) {
    Fdops *pFdops = CreateFdops(3, 0, 0);
    ASSERT_NE(pFdops, nullptr);
    pFdops->fd = FD_SETSIZE + 5; /* corrupted after creation */
    StderrCapture cap;
    LAPI_SRV_AddFdopsReadList(pFdops);
    LAPI_SRV_AddFdopsWriteList(pFdops);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("Fail to AddFdopsReadList!"), std::string::npos);
    EXPECT_NE(err.find("Fail to AddFdopsWriteList!"), std::string::npos);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
    FreeFdops(pFdops);
}

TEST_F(FdopsTest, DestroyFdopsClosesDescriptorAndLeavesBothLists) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    Fdops *pFdops = CreateFdops(fds[0], 16, 16);
    ASSERT_NE(pFdops, nullptr);
    int owner = 0;
    pFdops->pFdInfo = &owner;
    LAPI_SRV_AddFdopsReadList(pFdops);
    LAPI_SRV_AddFdopsWriteList(pFdops);
    EXPECT_EQ(DestroyFdops(pFdops), &owner);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
    EXPECT_FALSE(FD_ISSET(fds[0], &readFdSet));
    EXPECT_FALSE(FD_ISSET(fds[0], &writeFdSet));
    EXPECT_FALSE(FdIsOpen(fds[0]));
    close(fds[1]);
}

TEST_F(FdopsTest, CloseFdopsOfMuxClearsPointerAndLogs) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    Fdops *pFdops = CreateFdops(fds[0], 1024, 1024);
    ASSERT_NE(pFdops, nullptr);
    LAPI_SRV_AddFdopsReadList(pFdops);
    LAPI_SRV_pMuxFdops = pFdops;
    LAPI_SRV_muxConnected = 1;

    StderrCapture cap;
    LAPI_SRV_CloseFdops(pFdops);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_CloseFdops: Close LAPI_SRV_pMuxFdops, "
                       "disconnection with BP!\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(LAPI_SRV_pMuxFdops, nullptr);
    EXPECT_EQ(LAPI_SRV_muxConnected, 1);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_FALSE(FdIsOpen(fds[0]));
    close(fds[1]);
}

TEST_F(FdopsTest, CloseFdopsOfRegisteredConnectionRemovesItsClient) {
    SocketPair sync;
    SocketPair async;
    int syncFd = sync.TakeA();
    int asyncFd = async.TakeA();
    Fdops *pSync = CreateFdops(syncFd, 1024, 1024);
    Fdops *pAsync = CreateFdops(asyncFd, 1024, 1024);
    LAPI_SRV_AddFdopsReadList(pSync);
    LAPI_SRV_AddFdopsReadList(pAsync);
    Client *pClient = LAPI_SRV_CreateClient(77, 4, pSync);
    ASSERT_NE(pClient, nullptr);
    pClient->pAsyncFdops = pAsync;
    pAsync->pFdInfo = pClient;

    LAPI_SRV_CloseFdops(pAsync);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_statusClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_FALSE(FdIsOpen(syncFd));
    EXPECT_FALSE(FdIsOpen(asyncFd));
}

TEST_F(FdopsTest, CloseFdopsNullIsIgnored) {
    StderrCapture cap;
    LAPI_SRV_CloseFdops(nullptr);
    EXPECT_EQ(cap.Stop(), "");
}

TEST_F(FdopsTest, CloseFdIgnoresNegativeAndClosesOthers) {
    CloseFd(-1);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    CloseFd(fds[0]);
    EXPECT_FALSE(FdIsOpen(fds[0]));
    close(fds[1]);
}

TEST_F(FdopsTest, SetFdBlockingTogglesNonBlock) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(SetFdBlocking(fds[0], false), 0);
    EXPECT_NE(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(SetFdBlocking(fds[0], true), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    close(fds[0]);
    close(fds[1]);
    EXPECT_LT(SetFdBlocking(fds[0], false), 0);
}

TEST_F(FdopsTest, TimesCountsForwardInHundredths) {
    long first = LAPI_SRV_Times();
    EXPECT_GE(first, 0);
    long second = LAPI_SRV_Times();
    EXPECT_GE(second, first);
}

TEST_F(FdopsTest, InitGlobalsResetsEverything) {
    Fdops fake = {};
    FD_SET(3, &readFdSet);
    FD_SET(4, &writeFdSet);
    maxReadFd = 3;
    maxWriteFd = 4;
    readListChanged = 1;
    writeListChanged = 1;
    LAPI_SRV_tranListChanged = 1;
    LAPI_SRV_nextSid = 9;
    LAPI_SRV_nextTid = 9;
    LAPI_SRV_pMuxFdops = &fake;
    LAPI_SRV_muxConnected = 1;

    LAPI_SRV_InitGlobals();
    EXPECT_FALSE(FD_ISSET(3, &readFdSet));
    EXPECT_FALSE(FD_ISSET(4, &writeFdSet));
    EXPECT_EQ(maxReadFd, 0);
    EXPECT_EQ(maxWriteFd, 0);
    EXPECT_EQ(readListChanged, 0);
    EXPECT_EQ(writeListChanged, 0);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 0);
    EXPECT_EQ(LAPI_SRV_nextSid, 2);
    EXPECT_EQ(LAPI_SRV_nextTid, 1);
    EXPECT_EQ(LAPI_SRV_pMuxFdops, nullptr);
    EXPECT_EQ(LAPI_SRV_muxConnected, 0);
    for (List *pList : {&LAPI_SRV_readFdopsList, &LAPI_SRV_writeFdopsList,
                        &LAPI_SRV_muxSendDataList, &LAPI_SRV_allClientList,
                        &LAPI_SRV_statusClientList, &LAPI_SRV_mtlrClientList, &LAPI_SRV_tranList}) {
        EXPECT_EQ(pList->head, nullptr);
        EXPECT_EQ(pList->tail, nullptr);
        EXPECT_EQ(pList->count, 0u);
    }
}

/* ======================================================================== */
/* LAPI_SRV_GeneralRead                                                     */
/* ======================================================================== */

using GeneralReadTest = CoreTest;

TEST_F(GeneralReadTest, NullFdopsOrMissingBlockIsRefused) {
    FdBuf noBlock = {};
    noBlock.len = 16; /* a capacity, but no block behind it */
    Fdops broken = {};
    broken.fd = -1;
    broken.rbuf = noBlock;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralRead(nullptr), -1);
    EXPECT_EQ(LAPI_SRV_GeneralRead(&broken), -1);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "LAPI Error SRV LAPI_SRV_GeneralRead: Invalid pFdops!\n"), 2u) << err;
}

TEST_F(GeneralReadTest, FdopsWithoutReadBufferReadsNothing) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 0, 0);
    ASSERT_NE(pFdops, nullptr);
    ASSERT_EQ(write(sp.b(), "x", 1), 1);
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), 0);
    EXPECT_EQ(pFdops->rbuf.idx, 0);
    /* The byte is still waiting in the socket. */
    EXPECT_EQ(LAPI_BytesInSocket(pFdops->fd), 1);
    DestroyFdops(pFdops);
}

TEST_F(GeneralReadTest, ReadsWhatIsThereAndStopsAtEagain) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 64, 0);
    LAPI_SRV_AddFdopsReadList(pFdops);
    Bytes msg = Pattern(20, 1);
    ASSERT_EQ(write(sp.b(), msg.data(), msg.size()), 20);

    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI SRV : Enter LAPI_SRV_GeneralRead\n"), std::string::npos) << err;
    EXPECT_NE(err.find("LAPI SRV : errno == EAGAIN\n"), std::string::npos) << err;
    ASSERT_EQ(pFdops->rbuf.idx, 20);
    EXPECT_EQ(Bytes(pFdops->rbuf.buf, pFdops->rbuf.buf + 20), msg);
    EXPECT_TRUE(OnList(&LAPI_SRV_readFdopsList, pFdops));
}

TEST_F(GeneralReadTest, AppendsBehindBytesAlreadyHeld) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 64, 0);
    LAPI_SRV_AddFdopsReadList(pFdops);
    Bytes first = Pattern(5, 10);
    Bytes second = Pattern(7, 50);
    ASSERT_EQ(write(sp.b(), first.data(), first.size()), 5);
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), 0);
    ASSERT_EQ(write(sp.b(), second.data(), second.size()), 7);
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), 0);
    ASSERT_EQ(pFdops->rbuf.idx, 12);
    Bytes want = first;
    want.insert(want.end(), second.begin(), second.end());
    EXPECT_EQ(Bytes(pFdops->rbuf.buf, pFdops->rbuf.buf + 12), want);
}

TEST_F(GeneralReadTest, StopsWhenBufferIsFullAndLeavesTheRestInTheSocket) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 8, 0);
    LAPI_SRV_AddFdopsReadList(pFdops);
    Bytes msg = Pattern(20, 3);
    ASSERT_EQ(write(sp.b(), msg.data(), msg.size()), 20);

    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), 0);
    EXPECT_EQ(pFdops->rbuf.idx, 8);
    EXPECT_EQ(Bytes(pFdops->rbuf.buf, pFdops->rbuf.buf + 8), Bytes(msg.begin(), msg.begin() + 8));
    EXPECT_EQ(LAPI_BytesInSocket(fd), 12);

    /* Full: nothing more is read until the caller consumes. */
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), 0);
    EXPECT_EQ(LAPI_BytesInSocket(fd), 12);
}

TEST_F(GeneralReadTest, PeerCloseReturnsMinusOneAndLeavesReadList) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 64, 64);
    LAPI_SRV_AddFdopsReadList(pFdops);
    sp.CloseB();

    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), -1);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_GeneralRead: Read 0 byte!\n"), std::string::npos)
        << err;
    EXPECT_EQ(CountOf(err, "Socket disconnection"), 0u); /* no client: line left out */
    EXPECT_FALSE(OnList(&LAPI_SRV_readFdopsList, pFdops));
    EXPECT_FALSE(FD_ISSET(fd, &readFdSet));
    EXPECT_TRUE(FdIsOpen(fd)); /* closing is the caller's */
    DestroyFdops(pFdops);
}

TEST_F(GeneralReadTest, PeerCloseOfClientNamesTheClient) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 64, 64);
    LAPI_SRV_AddFdopsReadList(pFdops);
    Client *pClient = LAPI_SRV_CreateClient(4242, 1, pFdops);
    ASSERT_NE(pClient, nullptr);
    sp.CloseB();

    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), -1);
    std::string err = cap.Stop();
    std::string want =
        "Socket disconnection, globalId: " + std::to_string(static_cast<int>(pClient->globalId)) +
        ", pid: 4242!\n";
    EXPECT_NE(err.find(want), std::string::npos) << err;
}

TEST_F(GeneralReadTest, ReadErrorLogsAndKeepsFdopsOnReadList) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    /* The write end of a pipe cannot be read: EBADF. */
    Fdops *pFdops = CreateFdops(fds[1], 16, 0);
    LAPI_SRV_AddFdopsReadList(pFdops);

    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralRead(pFdops), -1);
    std::string err = cap.Stop();
    std::string want = "Fail to read, errno is: " + std::to_string(EBADF) + ", " + strerror(EBADF);
    EXPECT_NE(err.find(want), std::string::npos) << err;
    EXPECT_TRUE(OnList(&LAPI_SRV_readFdopsList, pFdops));
    close(fds[0]);
}

/* ======================================================================== */
/* LAPI_SRV_GeneralWrite                                                    */
/* ======================================================================== */

using GeneralWriteTest = CoreTest;

TEST_F(GeneralWriteTest, InvalidFdopsIsRejected) {
    Fdops *pNoWbuf = CreateFdops(3, 16, 0);
    uint8_t byte = 1;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(nullptr, &byte, 1), -1);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pNoWbuf, &byte, 1), -1);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "LAPI Error SRV LAPI_SRV_GeneralWrite: Invalid pFdops!\n"), 2u) << err;
    FreeFdops(pNoWbuf);
}

TEST_F(GeneralWriteTest, NullBufOrNonPositiveCountIsRejected) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 0, 16);
    uint8_t byte = 1;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, nullptr, 1), -1);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, &byte, 0), -1);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, &byte, -3), -1);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "(buf == NULL) || (count <= 0)!"), 3u) << err;
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, MessageOfExactlyBufferLenIsWrittenWhole) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 0, 1024);
    Bytes msg = Pattern(1024, 9);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 1024), 0);
    EXPECT_EQ(pFdops->wbuf.idx, 0);
    EXPECT_EQ(RecvPending(sp.b()), msg);
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, MessageOfExactlyBufferLenIsKept) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 1024);
    FillUntilEagain(fd);
    Bytes msg = Pattern(1024, 11);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 1024), 0);
    ASSERT_EQ(pFdops->wbuf.idx, 1024);
    EXPECT_EQ(Bytes(pFdops->wbuf.buf, pFdops->wbuf.buf + 1024), msg);
    EXPECT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    EXPECT_TRUE(FD_ISSET(fd, &writeFdSet));
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, OneByteOverIsDroppedWithMsgSizeError) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 0, 1024);
    Bytes msg = Pattern(1025, 2);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 1025), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_GeneralWrite: Msg size: 1025 > buf size: 1024, "
                       "discard!\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(pFdops->wbuf.idx, 0);
    EXPECT_TRUE(RecvPending(sp.b()).empty());
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, SecondMessageIsAppendedWhenItFits) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 1024);
    FillUntilEagain(fd);
    Bytes first = Pattern(600, 1);
    Bytes second = Pattern(424, 2);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, first.data(), 600), 0);
    EXPECT_EQ(pFdops->wbuf.idx, 600);
    EXPECT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, second.data(), 424), 0);
    ASSERT_EQ(pFdops->wbuf.idx, 1024);
    Bytes want = first;
    want.insert(want.end(), second.begin(), second.end());
    EXPECT_EQ(Bytes(pFdops->wbuf.buf, pFdops->wbuf.buf + 1024), want);
    EXPECT_EQ(NodeCount(&LAPI_SRV_writeFdopsList), 1u);
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, SecondMessageIsDroppedWithTooManyMessagesWhenItDoesNotFit) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 1024, 1024);
    LAPI_SRV_AddFdopsReadList(pFdops);
    ASSERT_NE(LAPI_SRV_CreateClient(31337, 1, pFdops), nullptr);
    FillUntilEagain(fd);
    Bytes first = Pattern(600, 1);
    Bytes second = Pattern(425, 2);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, first.data(), 600), 0);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, second.data(), 425), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_GeneralWrite: Too many messages to pid: 31337, "
                       "discard!\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(pFdops->wbuf.idx, 600);
    EXPECT_EQ(Bytes(pFdops->wbuf.buf, pFdops->wbuf.buf + 600), first);
}

TEST_F(GeneralWriteTest, TooManyMessagesWithoutClientNamesPidZero) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 16);
    FillUntilEagain(fd);
    Bytes msg = Pattern(10, 1);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 10), 0);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 10), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("Too many messages to pid: 0, discard!"), std::string::npos) << err;
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, BrokenPeerReturnsMinusOneAndLeavesClosingToCaller) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 64);
    pFdops->closeProc = RecordingCloseProc;
    gCloseCalls = 0;
    sp.CloseB();
    Bytes msg = Pattern(10, 1);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 10), -1);
    std::string err = cap.Stop();
    std::string want = "Fail to write, errno is: " + std::to_string(EPIPE) + ", " + strerror(EPIPE);
    EXPECT_NE(err.find(want), std::string::npos) << err;
    EXPECT_EQ(gCloseCalls, 0);
    EXPECT_TRUE(FdIsOpen(fd));
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, LargeWriteBufferShrinksAfterDirectWrite) {
    SocketPair sp;
    Fdops *pFdops = CreateFdops(sp.TakeA(), 0, 4096);
    Bytes msg = Pattern(100, 4);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 100), 0);
    EXPECT_EQ(pFdops->wbuf.len, 1024);
    EXPECT_NE(pFdops->wbuf.buf, nullptr);
    EXPECT_EQ(RecvPending(sp.b()), msg);
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteTest, LargeWriteBufferHoldingMoreThan1023BytesIsNotShrunk) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 4096);
    FillUntilEagain(fd);
    Bytes msg = Pattern(2000, 4);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 2000), 0);
    EXPECT_EQ(pFdops->wbuf.len, 4096);
    ASSERT_EQ(pFdops->wbuf.idx, 2000);
    EXPECT_EQ(Bytes(pFdops->wbuf.buf, pFdops->wbuf.buf + 2000), msg);
    DestroyFdops(pFdops);
}

/* ======================================================================== */
/* LAPI_SRV_GeneralWriteProc                                                */
/* ======================================================================== */

using GeneralWriteProcTest = CoreTest;

TEST_F(GeneralWriteProcTest, NullFdopsIsLogged) {
    StderrCapture cap;
    LAPI_SRV_GeneralWriteProc(nullptr);
    EXPECT_NE(cap.Stop().find("LAPI Error SRV LAPI_SRV_GeneralWriteProc: pFdops == NULL!\n"),
              std::string::npos);
}

TEST_F(GeneralWriteProcTest, MissingOrOverfullWbufCallsCloseProc) {
    Fdops *pFdops = CreateFdops(3, 0, 0);
    pFdops->closeProc = RecordingCloseProc;
    gCloseCalls = 0;
    StderrCapture cap;
    LAPI_SRV_GeneralWriteProc(pFdops);
    FreeFdops(pFdops);

    pFdops = CreateFdops(3, 0, 8);
    pFdops->closeProc = RecordingCloseProc;
    pFdops->wbuf.idx = 9;
    LAPI_SRV_GeneralWriteProc(pFdops);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "LAPI_SRV_GeneralWriteProc: Invalid pFdops!"), 2u) << err;
    EXPECT_EQ(gCloseCalls, 2);
    EXPECT_EQ(gClosedFdops, pFdops);
    FreeFdops(pFdops);
}

TEST_F(GeneralWriteProcTest, DrainsPendingBytesAndLeavesWriteList) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 1024);
    FillUntilEagain(fd);
    Bytes msg = Pattern(300, 5);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 300), 0);
    ASSERT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    RecvPending(sp.b()); /* the filler */

    LAPI_SRV_GeneralWriteProc(pFdops);
    EXPECT_EQ(pFdops->wbuf.idx, 0);
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    EXPECT_FALSE(FD_ISSET(fd, &writeFdSet));
    EXPECT_EQ(RecvPending(sp.b()), msg);
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteProcTest, StillBlockedKeepsEverything) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 0, 1024);
    FillUntilEagain(fd);
    Bytes msg = Pattern(300, 5);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 300), 0);
    LAPI_SRV_GeneralWriteProc(pFdops);
    ASSERT_EQ(pFdops->wbuf.idx, 300);
    EXPECT_EQ(Bytes(pFdops->wbuf.buf, pFdops->wbuf.buf + 300), msg);
    EXPECT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteProcTest, PartialWritesDeliverEveryByteInOrder) {
    SocketPair sp;
    int fd = sp.TakeA();
    int small = 4096;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
    Fdops *pFdops = CreateFdops(fd, 0, 65535);
    Bytes msg = Pattern(60000, 6);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 60000), 0);
    ASSERT_GT(pFdops->wbuf.idx, 0);
    ASSERT_LT(pFdops->wbuf.idx, 60000);
    EXPECT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pFdops));

    Bytes got = RecvPending(sp.b());
    int partialPasses = 0;
    for (int turn = 0; turn < 10000 && pFdops->wbuf.idx > 0; ++turn) {
        uint16_t before = pFdops->wbuf.idx;
        LAPI_SRV_GeneralWriteProc(pFdops);
        if (pFdops->wbuf.idx > 0 && pFdops->wbuf.idx < before) {
            ++partialPasses;
            /* The rest sits at the start of the block. */
            size_t sent = got.size() + (before - pFdops->wbuf.idx);
            Bytes rest(pFdops->wbuf.buf, pFdops->wbuf.buf + pFdops->wbuf.idx);
            ASSERT_EQ(rest, Bytes(msg.begin() + static_cast<long>(sent), msg.end()));
        }
        Bytes more = RecvPending(sp.b());
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_EQ(pFdops->wbuf.idx, 0);
    EXPECT_GT(partialPasses, 0);
    EXPECT_EQ(got, msg);
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, pFdops));
    DestroyFdops(pFdops);
}

TEST_F(GeneralWriteProcTest, WriteFailureLogsAndCallsCloseProc) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 1024, 1024);
    pFdops->closeProc = LAPI_SRV_CloseFdops;
    LAPI_SRV_AddFdopsReadList(pFdops);
    Client *pClient = LAPI_SRV_CreateClient(555, 1, pFdops);
    ASSERT_NE(pClient, nullptr);
    uint32_t globalId = pClient->globalId;
    FillUntilEagain(fd);
    Bytes msg = Pattern(40, 5);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pFdops, msg.data(), 40), 0);
    sp.CloseB();

    StderrCapture cap;
    LAPI_SRV_GeneralWriteProc(pFdops); /* frees pFdops through the client */
    std::string err = cap.Stop();
    EXPECT_NE(err.find("Fail to write, errno is: " + std::to_string(EPIPE)), std::string::npos)
        << err;
    EXPECT_NE(err.find("Socket disconnection, globalId: " +
                       std::to_string(static_cast<int>(globalId)) + ", pid: 555!"),
              std::string::npos)
        << err;
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_FALSE(FdIsOpen(fd));
}

/* ======================================================================== */
/* BP channel send queue                                                    */
/* ======================================================================== */

using MuxQueueTest = CoreTest;

TEST_F(MuxQueueTest, ThreeFramesLeaveInOrder) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pMux = CreateFdops(fd, 1024, 1024);
    pMux->writeProc = LAPI_SRV_GeneralWriteProc;
    pMux->closeProc = LAPI_SRV_CloseFdops;
    LAPI_SRV_pMuxFdops = pMux;
    FillUntilEagain(fd);

    Bytes a = Pattern(700, 1), b = Pattern(1024, 2), c = Pattern(5, 3), d = Pattern(900, 4);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pMux, a.data(), static_cast<int>(a.size())), 0);
    EXPECT_EQ(pMux->wbuf.idx, 700);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pMux, b.data(), static_cast<int>(b.size())), 0);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pMux, c.data(), static_cast<int>(c.size())), 0);
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pMux, d.data(), static_cast<int>(d.size())), 0);
    /* Three separate chunks; nothing was merged into wbuf. */
    EXPECT_EQ(NodeCount(&LAPI_SRV_muxSendDataList), 3u);
    EXPECT_EQ(pMux->wbuf.idx, 700);
    RecvPending(sp.b()); /* the filler */

    for (const Bytes *pFrame : {&a, &b, &c, &d}) {
        ASSERT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pMux));
        LAPI_SRV_GeneralWriteProc(pMux);
        EXPECT_EQ(RecvPending(sp.b()), *pFrame); /* one frame per drained buffer */
    }
    EXPECT_EQ(pMux->wbuf.idx, 0);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_muxSendDataList));
    EXPECT_FALSE(OnList(&LAPI_SRV_writeFdopsList, pMux));
}

TEST_F(MuxQueueTest, NextChunkWaitsInWbufForTheNextWritableEvent) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pMux = CreateFdops(fd, 1024, 1024);
    LAPI_SRV_pMuxFdops = pMux;
    FillUntilEagain(fd);
    Bytes a = Pattern(10, 1), b = Pattern(20, 2);
    LAPI_SRV_GeneralWrite(pMux, a.data(), 10);
    LAPI_SRV_GeneralWrite(pMux, b.data(), 20);
    RecvPending(sp.b());
    LAPI_SRV_GeneralWriteProc(pMux);
    ASSERT_EQ(pMux->wbuf.idx, 20);
    EXPECT_EQ(Bytes(pMux->wbuf.buf, pMux->wbuf.buf + 20), b);
    EXPECT_TRUE(OnList(&LAPI_SRV_writeFdopsList, pMux));
    EXPECT_EQ(RecvPending(sp.b()), a);
}

TEST_F(MuxQueueTest, ChunkLongerThanMuxBufferIsRefused) {
    Bytes big = Pattern(1025, 1);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_AddSendDataList(&LAPI_SRV_muxSendDataList, big.data(), 1025, 0, 0), -1);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_AddSendDataList: Queue data size: 1025 out of "
                       "0..1024, refuse!\n"),
              std::string::npos)
        << err;
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_muxSendDataList));

    EXPECT_EQ(LAPI_SRV_AddSendDataList(&LAPI_SRV_muxSendDataList, big.data(), 1024, 0, 0), 0);
    EXPECT_EQ(NodeCount(&LAPI_SRV_muxSendDataList), 1u);
}

TEST_F(MuxQueueTest, NegativeSizeOrNullListIsRefused) {
    uint8_t byte = 0;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_AddSendDataList(&LAPI_SRV_muxSendDataList, &byte, -1, 0, 0), -1);
    EXPECT_EQ(LAPI_SRV_AddSendDataList(nullptr, &byte, 1, 0, 0), -1);
    EXPECT_EQ(LAPI_SRV_AddSendDataList(&LAPI_SRV_muxSendDataList, nullptr, 1, 0, 0), -1);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "refuse!"), 3u) << err;
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_muxSendDataList));
}

TEST_F(MuxQueueTest, OversizedFrameBehindPendingBytesIsDropped) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pMux = CreateFdops(fd, 1024, 1024);
    LAPI_SRV_pMuxFdops = pMux;
    FillUntilEagain(fd);
    Bytes a = Pattern(10, 1);
    Bytes big = Pattern(1100, 2);
    LAPI_SRV_GeneralWrite(pMux, a.data(), 10);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GeneralWrite(pMux, big.data(), 1100), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("refuse!"), std::string::npos) << err;
    EXPECT_NE(err.find("Too many messages to pid: 0, discard!"), std::string::npos) << err;
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_muxSendDataList));
    EXPECT_EQ(pMux->wbuf.idx, 10);
}

TEST_F(MuxQueueTest, OtherFdopsAppendToWbufInsteadOfQueueing) {
    SocketPair sp;
    int fd = sp.TakeA();
    Fdops *pFdops = CreateFdops(fd, 1024, 1024);
    FillUntilEagain(fd);
    Bytes a = Pattern(10, 1), b = Pattern(20, 2);
    LAPI_SRV_GeneralWrite(pFdops, a.data(), 10);
    LAPI_SRV_GeneralWrite(pFdops, b.data(), 20);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_muxSendDataList));
    EXPECT_EQ(pFdops->wbuf.idx, 30);
    DestroyFdops(pFdops);
}

/* ======================================================================== */
/* Send queue                                                               */
/* ======================================================================== */

class SendQueueTest : public CoreTest {
  protected:
    void SetUp() override {
        CoreTest::SetUp();
        List_Init(&queue_);
    }
    void TearDown() override {
        while (SendDataNode *pNode = GetQueueHead(&queue_)) {
            free(pNode->pData);
            free(pNode);
        }
        CoreTest::TearDown();
    }
    /* Queues a chunk by hand, as a corrupted queue would hold it. */
    void AddRawNode(uint8_t *pData, uint16_t length) {
        SendDataNode *pNode = static_cast<SendDataNode *>(calloc(1, sizeof(SendDataNode)));
        pNode->pData = pData;
        pNode->length = length;
        List_AddTail(&queue_, pNode);
    }
    List queue_;
};

TEST_F(SendQueueTest, ChunksComeBackInOrderWithTheirTags) {
    Bytes a = Pattern(3, 1), b = Pattern(4, 2);
    StderrCapture cap;
    ASSERT_EQ(LAPI_SRV_AddSendDataList(&queue_, a.data(), 3, 7, 8), 0);
    ASSERT_EQ(LAPI_SRV_AddSendDataList(&queue_, b.data(), 4, 9, 10), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("Enter LAPI_SRV_AddSendDataList list:"), std::string::npos) << err;
    EXPECT_NE(err.find(", length:3\n"), std::string::npos) << err;

    uint8_t buf[1024];
    uint16_t len = 99;
    uint8_t sid = 0, tid = 0;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, &sid, &tid), 3);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(sid, 7);
    EXPECT_EQ(tid, 8);
    EXPECT_EQ(Bytes(buf, buf + 3), a);
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, nullptr, nullptr), 4);
    EXPECT_EQ(Bytes(buf, buf + 4), b);
    EXPECT_TRUE(List_IsEmpty(&queue_));
}

TEST_F(SendQueueTest, ChunkIsAPrivateCopy) {
    Bytes a = Pattern(8, 1);
    Bytes original = a;
    ASSERT_EQ(LAPI_SRV_AddSendDataList(&queue_, a.data(), 8, 0, 0), 0);
    a.assign(8, 0);
    uint8_t buf[16];
    uint16_t len = 0;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, nullptr, nullptr), 8);
    EXPECT_EQ(Bytes(buf, buf + 8), original);
}

TEST_F(SendQueueTest, EmptyQueueReturnsZeroAndZeroLength) {
    uint8_t buf[16];
    uint16_t len = 55;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, nullptr, nullptr), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(GetQueueHead(&queue_), nullptr);
}

TEST_F(SendQueueTest, NullBufOrLenReturnsZero) {
    Bytes a = Pattern(3, 1);
    LAPI_SRV_AddSendDataList(&queue_, a.data(), 3, 0, 0);
    uint8_t buf[16];
    uint16_t len = 0;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, nullptr, &len, nullptr, nullptr), 0);
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, nullptr, nullptr, nullptr), 0);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err, "LAPI_SRV_GetSendDataList: buf or len is NULL\n"), 2u) << err;
    EXPECT_EQ(NodeCount(&queue_), 1u); /* untouched */
}

TEST_F(SendQueueTest, ZeroLengthChunkIsDiscardedAndNextIsDelivered) {
    AddRawNode(static_cast<uint8_t *>(malloc(4)), 0);
    Bytes b = Pattern(6, 2);
    LAPI_SRV_AddSendDataList(&queue_, b.data(), 6, 1, 2);
    uint8_t buf[16];
    uint16_t len = 0;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, nullptr, nullptr), 6);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_GetSendDataList: pNode pdata is NULL or length:0 "
                       "<=0\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(len, 6);
    EXPECT_EQ(Bytes(buf, buf + 6), b);
    EXPECT_TRUE(List_IsEmpty(&queue_));
}

TEST_F(SendQueueTest, NullDataChunkIsDiscarded) {
    AddRawNode(nullptr, 12);
    uint8_t buf[16];
    uint16_t len = 0;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, nullptr, nullptr), 0);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("pNode pdata is NULL or length:12 <=0"), std::string::npos) << err;
    EXPECT_TRUE(List_IsEmpty(&queue_));
}

TEST_F(SendQueueTest, ZeroSizeAddIsQueuedAndLaterDiscarded) {
    uint8_t byte = 0;
    EXPECT_EQ(LAPI_SRV_AddSendDataList(&queue_, &byte, 0, 0, 0), 0);
    uint8_t buf[4];
    uint16_t len = 0;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_GetSendDataList(&queue_, buf, &len, nullptr, nullptr), 0);
    EXPECT_NE(cap.Stop().find("length:0 <=0"), std::string::npos);
}

TEST_F(SendQueueTest, GetQueueHeadTakesTheFirstNodeOff) {
    Bytes a = Pattern(3, 1), b = Pattern(4, 2);
    LAPI_SRV_AddSendDataList(&queue_, a.data(), 3, 0, 0);
    LAPI_SRV_AddSendDataList(&queue_, b.data(), 4, 0, 0);
    StderrCapture cap;
    SendDataNode *pNode = GetQueueHead(&queue_);
    std::string err = cap.Stop();
    ASSERT_NE(pNode, nullptr);
    EXPECT_EQ(pNode->length, 3);
    EXPECT_EQ(NodeCount(&queue_), 1u);
    size_t order[4] = {err.find("ENTER GETQUEUEHEAD"), err.find("AFTER LIST_GETHEADPOS"),
                       err.find("AFTER LIST_GETNEXT"), err.find("AFTER LIST_REMOVEHEAD")};
    for (int i = 0; i < 4; ++i) {
        ASSERT_NE(order[i], std::string::npos) << err;
    }
    EXPECT_LT(order[0], order[1]);
    EXPECT_LT(order[1], order[2]);
    EXPECT_LT(order[2], order[3]);
    free(pNode->pData);
    free(pNode);
}

/* ======================================================================== */
/* Byte order and bytes in socket                                           */
/* ======================================================================== */

using ByteOrderTest = CoreTest;

TEST_F(ByteOrderTest, ReversesFourBytes) {
    const uint8_t from[4] = {0x01, 0x02, 0x03, 0x04};
    uint8_t to[4] = {};
    LAPI_SRV_ByteOrderNetToHost(to, from, 4);
    EXPECT_EQ(Bytes(to, to + 4), (Bytes{0x04, 0x03, 0x02, 0x01}));
}

TEST_F(ByteOrderTest, HostToNetIsTheSameReversal) {
    const uint8_t from[2] = {0xAB, 0xCD};
    uint8_t to[2] = {};
    LAPI_SRV_ByteOrderHostToNet(to, from, 2);
    EXPECT_EQ(Bytes(to, to + 2), (Bytes{0xCD, 0xAB}));
    uint16_t host = 0x1234;
    uint8_t net[2];
    LAPI_SRV_ByteOrderHostToNet(net, &host, 2);
    EXPECT_EQ(net[0], 0x12);
    EXPECT_EQ(net[1], 0x34);
}

TEST_F(ByteOrderTest, ZeroLengthCopiesNothing) {
    const uint8_t from[1] = {0x55};
    uint8_t to[1] = {0xEE};
    StderrCapture cap;
    LAPI_SRV_ByteOrderNetToHost(to, from, 0);
    EXPECT_EQ(cap.Stop(), "");
    EXPECT_EQ(to[0], 0xEE);
}

TEST_F(ByteOrderTest, NullOrNegativeLengthLogsNamingTheFunction) {
    const uint8_t from[4] = {1, 2, 3, 4};
    uint8_t to[4] = {9, 9, 9, 9};
    StderrCapture cap;
    LAPI_SRV_ByteOrderNetToHost(nullptr, from, 4);
    LAPI_SRV_ByteOrderNetToHost(to, nullptr, 4);
    LAPI_SRV_ByteOrderHostToNet(to, from, -1);
    std::string err = cap.Stop();
    EXPECT_EQ(CountOf(err,
                      "LAPI Error SRV LAPI_SRV_ByteOrderNetToHost: (pTo == NULL) || (pFrom "
                      "== NULL) || (length < 0)!\n"),
              2u)
        << err;
    EXPECT_EQ(CountOf(err,
                      "LAPI Error SRV LAPI_SRV_ByteOrderHostToNet: (pTo == NULL) || (pFrom "
                      "== NULL) || (length < 0)!\n"),
              1u)
        << err;
    EXPECT_EQ(Bytes(to, to + 4), (Bytes{9, 9, 9, 9}));
}

using BytesInSocketTest = CoreTest;

TEST_F(BytesInSocketTest, CountsPendingBytesAndTracesThem) {
    SocketPair sp;
    int fd = sp.TakeA();
    Bytes msg = Pattern(37, 1);
    ASSERT_EQ(write(sp.b(), msg.data(), msg.size()), 37);
    StderrCapture cap;
    EXPECT_EQ(LAPI_BytesInSocket(fd), 37);
    EXPECT_NE(cap.Stop().find("LAPI SRV : nbytes:37\n\n"), std::string::npos);
    close(fd);
}

TEST_F(BytesInSocketTest, BadDescriptorGivesMinusOne) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(LAPI_BytesInSocket(fds[0]), -1);
}

/* ======================================================================== */
/* Clients                                                                  */
/* ======================================================================== */

class ClientTest : public CoreTest {
  protected:
    /* A connection on the read list, as the accept procedure leaves it. */
    Fdops *NewConnection() {
        pairs_.emplace_back(std::make_unique<SocketPair>());
        Fdops *pFdops = CreateFdops(pairs_.back()->TakeA(), 1024, 1024);
        pFdops->closeProc = LAPI_SRV_CloseFdops;
        pFdops->writeProc = LAPI_SRV_GeneralWriteProc;
        LAPI_SRV_AddFdopsReadList(pFdops);
        return pFdops;
    }
    int PeerOf(size_t i) const { return pairs_[i]->b(); }
    void ClosePeer(size_t i) { pairs_[i]->CloseB(); }
    /* A registered client with both connections; returns it. */
    Client *NewFullClient(uint32_t pid, uint32_t service) {
        Fdops *pSync = NewConnection();
        Client *pClient = LAPI_SRV_CreateClient(pid, service, pSync);
        Fdops *pAsync = NewConnection();
        pClient->pAsyncFdops = pAsync;
        pAsync->pFdInfo = pClient;
        return pClient;
    }
    std::vector<std::unique_ptr<SocketPair>> pairs_;
};

TEST_F(ClientTest, CreateWithNullFdopsReturnsNull) {
    EXPECT_EQ(LAPI_SRV_CreateClient(1, 7, nullptr), nullptr);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
}

TEST_F(ClientTest, CreateFillsRecordAndPointsFdopsBack) {
    Fdops *pFdops = NewConnection();
    Client *pClient = LAPI_SRV_CreateClient(1234, 1, pFdops);
    ASSERT_NE(pClient, nullptr);
    EXPECT_EQ(pClient->pid, 1234u);
    EXPECT_EQ(pClient->service, 1u);
    EXPECT_EQ(pClient->pSyncFdops, pFdops);
    EXPECT_EQ(pClient->pAsyncFdops, nullptr);
    EXPECT_EQ(pFdops->pFdInfo, pClient);
    EXPECT_TRUE(OnList(&LAPI_SRV_allClientList, pClient));
    EXPECT_FALSE(OnList(&LAPI_SRV_statusClientList, pClient));
    EXPECT_FALSE(OnList(&LAPI_SRV_mtlrClientList, pClient));
}

TEST_F(ClientTest, Mask6JoinsStatusAndMtlrLists) {
    Client *pClient = LAPI_SRV_CreateClient(1, 6, NewConnection());
    ASSERT_NE(pClient, nullptr);
    EXPECT_TRUE(OnList(&LAPI_SRV_allClientList, pClient));
    EXPECT_TRUE(OnList(&LAPI_SRV_statusClientList, pClient));
    EXPECT_TRUE(OnList(&LAPI_SRV_mtlrClientList, pClient));
}

TEST_F(ClientTest, Mask4JoinsOnlyStatusAndMask2OnlyMtlr) {
    Client *pStatus = LAPI_SRV_CreateClient(1, 4, NewConnection());
    Client *pMtlr = LAPI_SRV_CreateClient(2, 2, NewConnection());
    EXPECT_TRUE(OnList(&LAPI_SRV_statusClientList, pStatus));
    EXPECT_FALSE(OnList(&LAPI_SRV_mtlrClientList, pStatus));
    EXPECT_TRUE(OnList(&LAPI_SRV_mtlrClientList, pMtlr));
    EXPECT_FALSE(OnList(&LAPI_SRV_statusClientList, pMtlr));
    EXPECT_EQ(NodeCount(&LAPI_SRV_allClientList), 2u);
}

TEST_F(ClientTest, GlobalIdsFollowTheUnseededGenerator) {
    srand(1); /* the library's default sequence */
    int first = rand();
    int second = rand();
    srand(1);
    Client *pA = LAPI_SRV_CreateClient(1, 1, NewConnection());
    Client *pB = LAPI_SRV_CreateClient(2, 1, NewConnection());
    EXPECT_EQ(pA->globalId, static_cast<uint32_t>(first));
    EXPECT_EQ(pB->globalId, static_cast<uint32_t>(second));
}

TEST_F(ClientTest, GlobalIdAlreadyInUseIsDrawnAgain) {
    srand(1);
    int first = rand();
    int second = rand();
    srand(1);
    Client *pA = LAPI_SRV_CreateClient(1, 1, NewConnection());
    srand(1); /* the next draw repeats pA's identifier */
    Client *pB = LAPI_SRV_CreateClient(2, 1, NewConnection());
    EXPECT_EQ(pA->globalId, static_cast<uint32_t>(first));
    EXPECT_EQ(pB->globalId, static_cast<uint32_t>(second));
}

TEST_F(ClientTest, FindByGlobalIdReturnsTheClientOrNull) {
    Client *pA = LAPI_SRV_CreateClient(1, 1, NewConnection());
    Client *pB = LAPI_SRV_CreateClient(2, 1, NewConnection());
    EXPECT_EQ(LAPI_SRV_GetClientByGlobalId(pA->globalId), pA);
    EXPECT_EQ(LAPI_SRV_GetClientByGlobalId(pB->globalId), pB);
    uint32_t unused = pA->globalId + 1;
    while (unused == pB->globalId) {
        ++unused;
    }
    EXPECT_EQ(LAPI_SRV_GetClientByGlobalId(unused), nullptr);
}

TEST_F(ClientTest, RemoveClientDestroysBothConnectionsAndLeavesEveryList) {
    Client *pClient = NewFullClient(99, 7);
    int syncFd = pClient->pSyncFdops->fd;
    int asyncFd = pClient->pAsyncFdops->fd;
    LAPI_SRV_AddFdopsWriteList(pClient->pAsyncFdops);

    StderrCapture cap;
    LAPI_SRV_RemoveClient(pClient);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI SRV : remove client, pid = 99\n"), std::string::npos) << err;
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_statusClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_mtlrClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_readFdopsList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_writeFdopsList));
    EXPECT_FALSE(FdIsOpen(syncFd));
    EXPECT_FALSE(FdIsOpen(asyncFd));
}

TEST_F(ClientTest, RemoveClientKeepsOtherClientsAndListCounts) {
    Client *pA = LAPI_SRV_CreateClient(1, 4, NewConnection());
    Client *pB = LAPI_SRV_CreateClient(2, 2, NewConnection());
    LAPI_SRV_RemoveClient(pA);
    EXPECT_EQ(LAPI_SRV_allClientList.count, 1u);
    EXPECT_EQ(LAPI_SRV_mtlrClientList.count, 1u); /* not touched: pA was not on it */
    EXPECT_EQ(LAPI_SRV_statusClientList.count, 0u);
    EXPECT_TRUE(OnList(&LAPI_SRV_mtlrClientList, pB));
}

TEST_F(ClientTest, RemoveNullClientIsIgnored) {
    StderrCapture cap;
    LAPI_SRV_RemoveClient(nullptr);
    EXPECT_EQ(cap.Stop(), "");
}

TEST_F(ClientTest, RemovingClientWithRunningLocationRequestAbortsEachAndLeavesNoTransaction) {
    Client *pClient = NewFullClient(321, 1);
    Client *pOther = NewFullClient(654, 1);
    Transaction *pRun1 = LAPI_SRV_CreateTransaction(1, 1, pClient, 1);
    Transaction *pRun2 = LAPI_SRV_CreateTransaction(1, 2, pClient, 0);
    Transaction *pLast = LAPI_SRV_CreateTransaction(1, 3, pClient, 1);
    Transaction *pDb = LAPI_SRV_CreateTransaction(1, 4, pClient, 1);
    Transaction *pForeign = LAPI_SRV_CreateTransaction(1, 1, pOther, 1);
    ASSERT_TRUE(pRun1 && pRun2 && pLast && pDb && pForeign);
    pRun1->subCmdId = 0x00;
    pRun2->subCmdId = 0x00;
    pLast->subCmdId = 0x16;
    pDb->subCmdId = 0x04;
    pForeign->subCmdId = 0x00;
    LAPI_SRV_tranListChanged = 0;

    StderrCapture cap;
    LAPI_SRV_RemoveClient(pClient);
    std::string err = cap.Stop();
    const std::string trace =
        "LAPI SRV : client[pid=321] forgot to abort location or                     it crash and "
        "leave an active location\n";
    EXPECT_EQ(CountOf(err, trace), 3u) << err; /* two running + one last-known */
    EXPECT_EQ(CountOf(err, "forgot to abort location"), 3u) << err;
    EXPECT_EQ(NodeCount(&LAPI_SRV_tranList), 1u);
    EXPECT_EQ(LAPI_SRV_tranList.head->data, pForeign);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 1);
}

TEST_F(ClientTest, RemoveAllTransByClientFreesOnlyThatClientsTransactions) {
    Client *pA = NewFullClient(1, 1);
    Client *pB = NewFullClient(2, 1);
    LAPI_SRV_CreateTransaction(1, 1, pA, 1)->subCmdId = 0x11;
    Transaction *pKeep = LAPI_SRV_CreateTransaction(1, 1, pB, 1);
    LAPI_SRV_CreateTransaction(1, 2, pA, 1)->subCmdId = 0x06;
    StderrCapture cap;
    LAPI_SRV_RemoveAllTransByClient(pA);
    EXPECT_EQ(CountOf(cap.Stop(), "forgot to abort"), 0u);
    ASSERT_EQ(NodeCount(&LAPI_SRV_tranList), 1u);
    EXPECT_EQ(LAPI_SRV_tranList.head->data, pKeep);
    EXPECT_TRUE(OnList(&LAPI_SRV_allClientList, pA));
}

/* ======================================================================== */
/* Transactions                                                             */
/* ======================================================================== */

class TranTest : public CoreTest {
  protected:
    Client client_ = {};
};

TEST_F(TranTest, NullClientGivesNull) {
    EXPECT_EQ(LAPI_SRV_CreateTransaction(1, 1, nullptr, 1), nullptr);
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_tranList));
}

TEST_F(TranTest, CreateKeepsLowBytesZeroesTheRestAndJoinsTheList) {
    Transaction *pTran = LAPI_SRV_CreateTransaction(0x1AB, 0x2CD, &client_, 0x101);
    ASSERT_NE(pTran, nullptr);
    EXPECT_EQ(pTran->clientSid, 0xAB);
    EXPECT_EQ(pTran->clientTid, 0xCD);
    EXPECT_EQ(pTran->isSync, 1);
    EXPECT_EQ(pTran->pClient, &client_);
    EXPECT_EQ(pTran->subCmdId, 0);
    EXPECT_EQ(pTran->reqParam, 0u);
    EXPECT_EQ(pTran->expireTime, 0);
    EXPECT_TRUE(OnList(&LAPI_SRV_tranList, pTran));
    EXPECT_EQ(LAPI_SRV_tranListChanged, 1);
}

TEST_F(TranTest, PairsRunFrom2_1To2_255Then3_1) {
    for (int tid = 1; tid <= 255; ++tid) {
        Transaction *pTran = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
        ASSERT_NE(pTran, nullptr);
        ASSERT_EQ(pTran->sid, 2);
        ASSERT_EQ(pTran->tid, tid);
    }
    Transaction *pNext = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    ASSERT_NE(pNext, nullptr);
    EXPECT_EQ(pNext->sid, 3);
    EXPECT_EQ(pNext->tid, 1);
}

TEST_F(TranTest, AfterLastPairWrapsTo2_1SkippingUsedPairs) {
    Transaction *p21 = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    Transaction *p22 = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    ASSERT_EQ(p21->sid, 2);
    ASSERT_EQ(p21->tid, 1);
    ASSERT_EQ(p22->tid, 2);
    LAPI_SRV_nextSid = 255;
    LAPI_SRV_nextTid = 255;
    Transaction *pLast = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    EXPECT_EQ(pLast->sid, 255);
    EXPECT_EQ(pLast->tid, 255);
    Transaction *pWrapped = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    EXPECT_EQ(pWrapped->sid, 2);
    EXPECT_EQ(pWrapped->tid, 3);
}

TEST_F(TranTest, FreedPairIsHandedOutAgainAfterWrap) {
    LAPI_SRV_nextSid = 255;
    LAPI_SRV_nextTid = 255;
    Transaction *pLast = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    EXPECT_EQ(pLast->sid, 255);
    Transaction *pFirst = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    EXPECT_EQ(pFirst->sid, 2);
    EXPECT_EQ(pFirst->tid, 1);
}

TEST_F(TranTest, AllPairsInUseIsRefused) {
    /* Every pair (2..255, 1..255) held by a transaction. */
    for (int sid = 2; sid <= 255; ++sid) {
        for (int tid = 1; tid <= 255; ++tid) {
            Transaction *pTran = static_cast<Transaction *>(calloc(1, sizeof(Transaction)));
            pTran->sid = static_cast<uint8_t>(sid);
            pTran->tid = static_cast<uint8_t>(tid);
            pTran->pClient = &client_;
            ASSERT_EQ(LAPI_SRV_AddTranList(pTran), 0);
        }
    }
    uint32_t before = NodeCount(&LAPI_SRV_tranList);
    /* Asked by a client of its own: client_ is far over its own limit. */
    Client other = {};
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_CreateTransaction(0, 0, &other, 0), nullptr);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_CreateTransaction: No free BP sid/tid pair"),
              std::string::npos)
        << err;
    EXPECT_EQ(NodeCount(&LAPI_SRV_tranList), before);

    /* Free one pair: it is found. */
    Transaction *pGone = LAPI_SRV_GetTranByBpId(77, 88, 1);
    ASSERT_NE(pGone, nullptr);
    free(pGone);
    Transaction *pTran = LAPI_SRV_CreateTransaction(0, 0, &other, 0);
    ASSERT_NE(pTran, nullptr);
    EXPECT_EQ(pTran->sid, 77);
    EXPECT_EQ(pTran->tid, 88);
}

TEST_F(TranTest, AddTranListRejectsNullAndAppendsAtTail) {
    EXPECT_EQ(LAPI_SRV_AddTranList(nullptr), -1);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 0);
    Transaction *pA = LAPI_SRV_CreateTransaction(0, 0, &client_, 0);
    Transaction *pB = static_cast<Transaction *>(calloc(1, sizeof(Transaction)));
    LAPI_SRV_tranListChanged = 0;
    EXPECT_EQ(LAPI_SRV_AddTranList(pB), 0);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 1);
    EXPECT_EQ(LAPI_SRV_tranList.head->data, pA);
    EXPECT_EQ(LAPI_SRV_tranList.tail->data, pB);
}

TEST_F(TranTest, FindByBpIdMatchesLowBytesAndRemovesOnRequest) {
    Transaction *pA = LAPI_SRV_CreateTransaction(0, 0, &client_, 0); /* (2, 1) */
    Transaction *pB = LAPI_SRV_CreateTransaction(0, 0, &client_, 0); /* (2, 2) */
    LAPI_SRV_tranListChanged = 0;
    EXPECT_EQ(LAPI_SRV_GetTranByBpId(0x102, 0x202, 0x100), pB); /* remove's low byte is 0 */
    EXPECT_EQ(NodeCount(&LAPI_SRV_tranList), 2u);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 0);
    EXPECT_EQ(LAPI_SRV_GetTranByBpId(2, 3, 1), nullptr);
    EXPECT_EQ(LAPI_SRV_GetTranByBpId(2, 1, 1), pA);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 1);
    EXPECT_FALSE(OnList(&LAPI_SRV_tranList, pA));
    EXPECT_TRUE(OnList(&LAPI_SRV_tranList, pB));
    free(pA);
}

TEST_F(TranTest, FindByClientIdMatchesOwnerAndPair) {
    Client other = {};
    Transaction *pMine = LAPI_SRV_CreateTransaction(5, 6, &client_, 0);
    Transaction *pTheirs = LAPI_SRV_CreateTransaction(5, 6, &other, 0);
    EXPECT_EQ(LAPI_SRV_GetTranByClientId(&other, 5, 6, 0), pTheirs);
    EXPECT_EQ(LAPI_SRV_GetTranByClientId(&client_, 0x105, 0x206, 0), pMine);
    EXPECT_EQ(LAPI_SRV_GetTranByClientId(&client_, 5, 7, 0), nullptr);
    LAPI_SRV_tranListChanged = 0;
    EXPECT_EQ(LAPI_SRV_GetTranByClientId(&client_, 5, 6, 1), pMine);
    EXPECT_EQ(LAPI_SRV_tranListChanged, 1);
    EXPECT_FALSE(OnList(&LAPI_SRV_tranList, pMine));
    free(pMine);
}

TEST_F(TranTest, ClientAtItsLimitIsRefusedAndOtherClientsAreNot) {
    for (int i = 0; i < LAPI_SRV_MAX_TRANS_PER_CLIENT; ++i) {
        ASSERT_NE(LAPI_SRV_CreateTransaction(1, static_cast<uint32_t>(i), &client_, 0), nullptr);
    }
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_CreateTransaction(2, 1, &client_, 0), nullptr);
    EXPECT_NE(cap.Stop().find("already holds 256 transactions, refuse!"), std::string::npos);
    Client other = {};
    EXPECT_NE(LAPI_SRV_CreateTransaction(2, 1, &other, 0), nullptr);
    /* One freed: the client may ask again. */
    free(LAPI_SRV_GetTranByClientId(&client_, 1, 7, 1));
    EXPECT_NE(LAPI_SRV_CreateTransaction(2, 1, &client_, 0), nullptr);
}

TEST_F(TranTest, UnlinkingHeadMiddleAndTailKeepsListOrder) {
    std::vector<Transaction *> all;
    for (int i = 0; i < 6; ++i) {
        all.push_back(LAPI_SRV_CreateTransaction(1, static_cast<uint32_t>(i), &client_, 0));
    }
    for (int gone : {0, 3, 5}) {
        free(LAPI_SRV_GetTranByBpId(all[gone]->sid, all[gone]->tid, 1));
    }
    std::vector<Transaction *> left;
    ListNode *pPos = List_GetHeadPos(&LAPI_SRV_tranList);
    while (pPos != nullptr) {
        left.push_back(static_cast<Transaction *>(List_GetNext(&LAPI_SRV_tranList, &pPos)));
    }
    EXPECT_EQ(left, (std::vector<Transaction *>{all[1], all[2], all[4]}));
    EXPECT_EQ(LAPI_SRV_tranList.tail->data, all[4]);
    EXPECT_EQ(LAPI_SRV_tranList.count, 3u);
    EXPECT_EQ(client_.tranCount, 3u);
    /* Appended behind the new tail. */
    Transaction *pNew = LAPI_SRV_CreateTransaction(9, 9, &client_, 0);
    EXPECT_EQ(LAPI_SRV_tranList.tail->data, pNew);
    EXPECT_EQ(LAPI_SRV_GetTranByClientId(&client_, 9, 9, 0), pNew);
}

TEST_F(TranTest, SixtyThousandAliveAreEachFoundByBpPairAndByClientPair) {
    std::vector<Client> clients(240);
    std::vector<Transaction *> all;
    for (int k = 0; k < 240; ++k) {
        for (int i = 0; i < 250; ++i) {
            Transaction *pTran = LAPI_SRV_CreateTransaction(
                static_cast<uint32_t>(1 + i / 255), static_cast<uint32_t>(i), &clients[k], 0);
            ASSERT_NE(pTran, nullptr);
            pTran->subCmdId = 0x11; /* nothing to abort at the BP */
            all.push_back(pTran);
        }
    }
    for (size_t j = 0; j < all.size(); j += 997) {
        Transaction *pTran = all[j];
        EXPECT_EQ(LAPI_SRV_GetTranByBpId(pTran->sid, pTran->tid, 0), pTran);
        EXPECT_EQ(LAPI_SRV_GetTranByClientId(pTran->pClient, pTran->clientSid, pTran->clientTid, 0),
                  pTran);
    }
    /* A client removed takes exactly its own 250. */
    LAPI_SRV_RemoveAllTransByClient(&clients[17]);
    EXPECT_EQ(NodeCount(&LAPI_SRV_tranList), 239u * 250u);
    EXPECT_EQ(clients[17].pTranFirst, nullptr);
    EXPECT_EQ(clients[18].tranCount, 250u);
    ResetCore();
}

/* ======================================================================== */
/* Writing to clients                                                       */
/* ======================================================================== */

using SendTest = ClientTest;

TEST_F(SendTest, UnregisteredConnectionGivesMinusOneSilently) {
    Fdops *pFdops = NewConnection();
    uint8_t byte = 1;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_SendMsgToClient(nullptr, &byte, 1), -1);
    EXPECT_EQ(LAPI_SRV_SendMsgToClient(pFdops, &byte, 1), -1);
    EXPECT_EQ(cap.Stop(), "");
    EXPECT_TRUE(RecvPending(PeerOf(0)).empty());
}

TEST_F(SendTest, MessageReachesTheClient) {
    Client *pClient = LAPI_SRV_CreateClient(10, 1, NewConnection());
    Bytes msg = Pattern(12, 3);
    EXPECT_EQ(LAPI_SRV_SendMsgToClient(pClient->pSyncFdops, msg.data(), 12), 0);
    EXPECT_EQ(RecvPending(PeerOf(0)), msg);
}

TEST_F(SendTest, FailedWriteLogsAndRemovesTheClientThroughCloseProc) {
    Client *pClient = LAPI_SRV_CreateClient(10, 4, NewConnection());
    int fd = pClient->pSyncFdops->fd;
    ClosePeer(0);
    Bytes msg = Pattern(12, 3);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_SendMsgToClient(pClient->pSyncFdops, msg.data(), 12), -1);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("LAPI Error SRV LAPI_SRV_SendMsgToClient: Fail to send msg to client, pid "
                       "is :10!\n"),
              std::string::npos)
        << err;
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_allClientList));
    EXPECT_TRUE(List_IsEmpty(&LAPI_SRV_statusClientList));
    EXPECT_FALSE(FdIsOpen(fd));
}

using BroadcastTest = ClientTest;

TEST_F(BroadcastTest, EmptyListReturnsZero) {
    uint8_t byte = 1;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_BroadcastMsgToClient(&LAPI_SRV_statusClientList, &byte, 1), 0);
    EXPECT_EQ(LAPI_SRV_BroadcastMsgToStatusClient(&byte, 1), 0);
    EXPECT_EQ(LAPI_SRV_BroadcastMsgToMtlrClient(&byte, 1), 0);
    EXPECT_EQ(cap.Stop(), "");
}

TEST_F(BroadcastTest, NullListLogsAndReturnsMinusOne) {
    uint8_t byte = 1;
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_BroadcastMsgToClient(nullptr, &byte, 1), -1);
    EXPECT_NE(cap.Stop().find("LAPI_SRV_BroadcastMsgToClient: pList == NULL!\n"),
              std::string::npos);
}

TEST_F(BroadcastTest, GoesToTheAsyncConnectionOfEveryClientOnTheList) {
    NewFullClient(1, 4); /* connections 0 (sync), 1 (async) */
    NewFullClient(2, 1); /* 2, 3: not a status client */
    NewFullClient(3, 6); /* 4, 5 */
    Bytes msg = Pattern(16, 7);
    EXPECT_EQ(LAPI_SRV_BroadcastMsgToStatusClient(msg.data(), 16), 0);
    EXPECT_EQ(RecvPending(PeerOf(1)), msg);
    EXPECT_EQ(RecvPending(PeerOf(5)), msg);
    EXPECT_TRUE(RecvPending(PeerOf(0)).empty());
    EXPECT_TRUE(RecvPending(PeerOf(3)).empty());
    EXPECT_TRUE(RecvPending(PeerOf(4)).empty());

    EXPECT_EQ(LAPI_SRV_BroadcastMsgToMtlrClient(msg.data(), 16), 0);
    EXPECT_EQ(RecvPending(PeerOf(5)), msg);
    EXPECT_TRUE(RecvPending(PeerOf(1)).empty());
}

TEST_F(BroadcastTest, FailureForOneClientDoesNotStopTheOthers) {
    NewFullClient(1, 4);              /* 0, 1 */
    Client *pB = NewFullClient(2, 4); /* 2, 3 */
    Client *pC = NewFullClient(3, 4); /* 4, 5 */
    ClosePeer(1);                     /* the first client's async peer is gone */
    Client *pNoAsync = LAPI_SRV_CreateClient(4, 4, NewConnection()); /* 6 */
    Bytes msg = Pattern(9, 1);
    StderrCapture cap;
    EXPECT_EQ(LAPI_SRV_BroadcastMsgToStatusClient(msg.data(), 9), -1);
    std::string err = cap.Stop();
    EXPECT_NE(err.find("Fail to send msg to client, pid is :1!"), std::string::npos) << err;
    EXPECT_EQ(RecvPending(PeerOf(3)), msg);
    EXPECT_EQ(RecvPending(PeerOf(5)), msg);
    /* The failed client was removed by its closeProc; the others stay. */
    EXPECT_EQ(NodeCount(&LAPI_SRV_statusClientList), 3u);
    EXPECT_TRUE(OnList(&LAPI_SRV_statusClientList, pB));
    EXPECT_TRUE(OnList(&LAPI_SRV_statusClientList, pC));
    EXPECT_TRUE(OnList(&LAPI_SRV_statusClientList, pNoAsync));
}

}  // namespace
