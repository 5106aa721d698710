/*
 * The server's main: start-up, the self-tests, the listening socket, the
 * signal handler with its orderly shutdown, and the select loop.
 *
 * Every watched descriptor is an Fdops on the read list and, while it has
 * output pending, on the write list. One turn of the loop runs the
 * transaction scan (which also yields the time-out), waits in select and
 * calls the procedures of the ready descriptors. Procedures may add or
 * remove any Fdops, their own included: the loop then starts the pass again
 * from the head, and descriptors already served this turn are skipped
 * because they were cleared from the local sets.
 */
#include "LAPI_SRV_Main.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_LocationLog.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_Pid.h"
#include "LAPI_SRV_WAPPush.h"
#include "LAPI_SrvCli.h"

void (*LAPI_SRV_packedTestHook)(uint8_t pattern) = nullptr;
int LAPI_SRV_loopNfds = 0;
struct timeval LAPI_SRV_loopTimeout = {0, 0};

namespace {

/* Flags word of the signal actions: interrupt, never restart, so that a
 * signal wakes select and every blocking call with EINTR. */
constexpr int kSaInterrupt = 0x20000000;

constexpr int kListenBacklog = 64;

/* The accept procedure offers a peer address of this size; it is not used. */
constexpr socklen_t kAcceptAddrLen = 16;

bool FdInSet(int fd, const fd_set *pSet) {
    return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, pSet);
}

/* Descriptors kept above FD_SETSIZE under the soft limit: an accept that
 * lands there is refused by CreateFdops and closed, instead of failing with
 * EMFILE, which would close the listening socket for good; the rest is room
 * for the files opened while every watched descriptor is taken. */
constexpr rlim_t kFdLimitMargin = 64;

/* 1 from just before the wait until it returns: a shutdown signal that
 * arrives then finds every list whole. */
volatile sig_atomic_t gInWait = 0;
/* A fault signal sent by another process outside the wait, kept for the
 * wait; 0 when none. */
volatile sig_atomic_t gDeferredSig = 0;

/* Signals that end the server: let in only by the wait. */
void ShutdownSignals(sigset_t *pSet) {
    sigemptyset(pSet);
    sigaddset(pSet, SIGTERM);
}

/* The mask the wait runs with: the process's own, the shutdown signals let
 * in. Made once when the signals are set up, so that the loop does not ask
 * the kernel for the mask on every turn; made afresh on each turn when they
 * were not (a loop driven without LAPI_SRV_InitSignal). */
sigset_t gWaitMask;
bool gWaitMaskReady = false;

void MakeWaitMask(sigset_t *pMask) {
    sigset_t shutdownSet;
    sigprocmask(SIG_SETMASK, nullptr, pMask);
    ShutdownSignals(&shutdownSet);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sigismember(&shutdownSet, sig) == 1) {
            sigdelset(pMask, sig);
        }
    }
}

/*
 * SIGFPE and SIGSEGV cannot be blocked: a real fault while they are blocked
 * kills the process without the clean-up. So they stay open, and one that
 * another process sent (si_code <= 0: kill, sigqueue, tgkill) outside the
 * wait is kept and turned into a pending SIGTERM, which the wait lets in;
 * the handler then reports the signal that was sent. A real fault goes to
 * the handler at once, as it always did.
 */
void FaultSigAction(int sig, siginfo_t *pInfo, void * /*pContext*/) {
    bool bSent = pInfo != nullptr && pInfo->si_code <= 0;
    if (bSent && !gInWait) {
        gDeferredSig = sig;
        kill(getpid(), SIGTERM);
        return;
    }
    gInWait = 0;
    LAPI_SRV_SigHandler(sig);
}

void ShutdownSigHandler(int sig) {
    /* Once the clean-up runs, later signals wait for good (never let in). */
    gInWait = 0;
    int deferred = gDeferredSig;
    LAPI_SRV_SigHandler(deferred != 0 ? deferred : sig);
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* Self-tests                                                                */
/* ------------------------------------------------------------------------ */

/* Every wire size and offset is checked when the code is compiled (the
 * static_asserts next to the message layouts), so nothing is left to check
 * here; the call keeps its place and its failure branch in start-up. */
int LAPI_SRV_TypeCheck(void) {
    return 0;
}

namespace {

#pragma pack(push, 1)
struct PackedTest {
    uint8_t u8;
    int16_t i16;
    int32_t i32;
    int64_t i64;
    double d;
};
#pragma pack(pop)

static_assert(sizeof(PackedTest) == 23, "PackedTest must be packed");
static_assert(offsetof(PackedTest, i16) == 1 && offsetof(PackedTest, i32) == 3 &&
                  offsetof(PackedTest, i64) == 7 && offsetof(PackedTest, d) == 15,
              "PackedTest field offsets");

constexpr int kScratchLen = 2 * static_cast<int>(sizeof(PackedTest)); /* 46 */
constexpr int kOffsets = 8;

/* Byte 3 of the double under the pattern 0xFF: all-ones would be a NaN on
 * the word-swapped layout, where byte 3 holds the sign and exponent. */
constexpr int kDoubleExceptionByte = 3;
constexpr uint8_t kDoubleExceptionValue = 0xFE;

/* The four fields under test. Each is reached by its name, never through a
 * pointer or a pointer-to-member, which would lose the packed attribute. */
#define PACKED_TEST_FIELD(Traits, FieldType, member, name)              \
    struct Traits {                                                     \
        using Type = FieldType;                                         \
        static constexpr size_t kOffset = offsetof(PackedTest, member); \
        static constexpr const char *kName = name;                      \
        static Type Get(const PackedTest *p) { return p->member; }      \
        static void Set(PackedTest *p, Type v) { p->member = v; }       \
    }
PACKED_TEST_FIELD(Int16Field, int16_t, i16, "int16Test");
PACKED_TEST_FIELD(Int32Field, int32_t, i32, "int32Test");
PACKED_TEST_FIELD(Int64Field, int64_t, i64, "int64Test");
PACKED_TEST_FIELD(DoubleField, double, d, "doubleTest");
#undef PACKED_TEST_FIELD

/* One field with the structure at scratch + i: put the expected bytes in
 * place and read the field through the structure, then assign the
 * reference through the structure and check every byte. */
template <typename Field>
int CheckField(uint8_t *scratch, uint8_t background, typename Field::Type ref,
               const uint8_t (&expect)[sizeof(typename Field::Type)], uint8_t pat, int i) {
    using T = typename Field::Type;
    int result = 0;
    PackedTest *pTest = reinterpret_cast<PackedTest *>(scratch + i);

    memset(scratch, background, kScratchLen);
    memcpy(scratch + i + Field::kOffset, expect, sizeof(T));
    /* Compared as values, the double as a double. Where the pattern makes
     * the double a NaN (0xFF on a little-endian layout, whose sign and
     * exponent sit in bytes 6 and 7), it never equals itself and the read
     * check reports it. */
    T got = Field::Get(pTest);
    if (!(got == ref)) {
        LAPI_SRV_ERR("%s read error, hex: %02x, i: %d!", Field::kName, pat, i);
        result = -1;
    }

    memset(scratch, background, kScratchLen);
    Field::Set(pTest, ref);
    for (size_t b = 0; b < sizeof(T); ++b) {
        if (scratch[i + Field::kOffset + b] != expect[b]) {
            LAPI_SRV_ERR("%s write error, hex: %02x, i: %d!", Field::kName, pat, i);
            result = -1;
        }
    }
    return result;
}

int TestOnePattern(uint8_t pat) {
    int result = 0;
    uint8_t background = (pat == 0x00) ? 0xFF : 0x00;

    uint8_t bytes16[sizeof(int16_t)];
    uint8_t bytes32[sizeof(int32_t)];
    uint8_t bytes64[sizeof(int64_t)];
    uint8_t bytesD[sizeof(double)];
    memset(bytes16, pat, sizeof(bytes16));
    memset(bytes32, pat, sizeof(bytes32));
    memset(bytes64, pat, sizeof(bytes64));
    memset(bytesD, pat, sizeof(bytesD));
    if (pat == 0xFF) {
        bytesD[kDoubleExceptionByte] = kDoubleExceptionValue;
    }

    int16_t ref16;
    int32_t ref32;
    int64_t ref64;
    double refD;
    memcpy(&ref16, bytes16, sizeof(ref16));
    memcpy(&ref32, bytes32, sizeof(ref32));
    memcpy(&ref64, bytes64, sizeof(ref64));
    memcpy(&refD, bytesD, sizeof(refD));

    uint8_t scratch[kScratchLen];
    for (int i = 0; i < kOffsets; ++i) {
        if (i < 2 && CheckField<Int16Field>(scratch, background, ref16, bytes16, pat, i) != 0) {
            result = -1;
        }
        if (i < 4 && CheckField<Int32Field>(scratch, background, ref32, bytes32, pat, i) != 0) {
            result = -1;
        }
        if (CheckField<Int64Field>(scratch, background, ref64, bytes64, pat, i) != 0) {
            result = -1;
        }
        if (CheckField<DoubleField>(scratch, background, refD, bytesD, pat, i) != 0) {
            result = -1;
        }
    }
    return result;
}

}  // namespace

int LAPI_SRV_TestPackedStruct(uint8_t full) {
    static constexpr uint8_t kQuickPatterns[] = {0x3F, 0xAF};
    /* The quick run tries two patterns, the full run every byte value. */
    const int count = full == 0 ? static_cast<int>(sizeof(kQuickPatterns)) : 0x100;
    int result = 0;
    for (int k = 0; k < count; ++k) {
        uint8_t pat = full == 0 ? kQuickPatterns[k] : static_cast<uint8_t>(k);
        if (LAPI_SRV_packedTestHook != nullptr) {
            LAPI_SRV_packedTestHook(pat);
        }
        if (TestOnePattern(pat) != 0) {
            result = -1;
        }
    }
    return result;
}

/* ------------------------------------------------------------------------ */
/* Signals and shutdown                                                      */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_InitSignal(void) {
    /* SIGPIPE only traces, so it runs anywhere; the other three end the
     * server and run their clean-up only where no list is half-changed. */
    static const struct {
        int sig;
        const char *name;
        void (*pHandler)(int);
        void (*pAction)(int, siginfo_t *, void *);
    } kSignals[] = {
        {SIGPIPE, "SIGPIPE", LAPI_SRV_SigHandler, nullptr},
        {SIGFPE, "SIGFPE", nullptr, FaultSigAction},
        {SIGTERM, "SIGTERM", ShutdownSigHandler, nullptr},
        {SIGSEGV, "SIGSEGV", nullptr, FaultSigAction},
    };
    /* SIGTERM waits, pending, for the loop's wait to let it in; blocked
     * before any handler is in place, so that a fault signal sent during
     * start-up is kept for the wait as well. */
    sigset_t shutdownSet;
    ShutdownSignals(&shutdownSet);
    if (sigprocmask(SIG_BLOCK, &shutdownSet, nullptr) != 0) {
        LAPI_SRV_ERR("Fail to block SIGTERM, errno is: %d, %s", errno, strerror(errno));
    }
    MakeWaitMask(&gWaitMask);
    gWaitMaskReady = true;
    for (const auto &s : kSignals) {
        struct sigaction action;
        memset(&action, 0, sizeof(action));
        sigemptyset(&action.sa_mask);
        action.sa_flags = kSaInterrupt;
        if (s.pAction != nullptr) {
            action.sa_sigaction = s.pAction;
            action.sa_flags |= SA_SIGINFO;
        } else {
            action.sa_handler = s.pHandler;
        }
        if (sigaction(s.sig, &action, nullptr) != 0) {
            LAPI_SRV_ERR("Fail to sigaction %s, errno is: %d, %s", s.name, errno, strerror(errno));
        }
    }
}

void LAPI_SRV_SigHandler(int sig) {
    /* What the loop gathered goes out before the handler's own line, and
     * the handler's lines go out at once. */
    LAPI_LogSignalEnter();
    switch (sig) {
        case SIGPIPE:
            /* The write that raised it reports its own failure. */
            LAPI_SRV_TRACE("\n\nLAPI SRV received signal: SIGPIPE!\n\n\n\n");
            LAPI_LogSignalLeave();
            return;
        case SIGFPE:
            LAPI_SRV_TRACE("\n\nLAPI SRV received signal: SIGFPE!\n\n\n\n");
            break;
        case SIGTERM:
            LAPI_SRV_TRACE("\n\nLAPI SRV received signal: SIGTERM!\n\n\n\n");
            break;
        case SIGSEGV:
            LAPI_SRV_TRACE("\n\nLAPI SRV received signal: SIGSEGV!\n\n\n\n");
            break;
        default:
            LAPI_SRV_TRACE("\n\nLAPI SRV received signal: unknown %d!\n\n\n\n", sig);
            LAPI_LogSignalLeave();
            return;
    }
    /* Status 0 after every fatal signal, SIGSEGV included. */
    LAPI_SRV_CloseAll();
    LAPI_SRV_RemovePid();
    exit(0);
}

void LAPI_SRV_CloseAll(void) {
    /* Each pass must shrink the list; a head that survives its removal is
     * dropped so that shutdown always ends. */
    while (!List_IsEmpty(&LAPI_SRV_allClientList)) {
        ListNode *pHead = List_GetHeadPos(&LAPI_SRV_allClientList);
        ListNode *pPos = pHead;
        Client *pClient = static_cast<Client *>(List_GetNext(&LAPI_SRV_allClientList, &pPos));
        if (pClient != nullptr) {
            LAPI_SRV_RemoveClient(pClient);
        }
        if (List_GetHeadPos(&LAPI_SRV_allClientList) == pHead) {
            List_RemoveHead(&LAPI_SRV_allClientList);
        }
    }

    if (LAPI_SRV_pMuxFdops != nullptr) {
        DestroyFdops(LAPI_SRV_pMuxFdops);
        LAPI_SRV_pMuxFdops = nullptr;
    }

    /* The listening socket and every other watched descriptor. */
    while (!List_IsEmpty(&LAPI_SRV_readFdopsList)) {
        ListNode *pHead = List_GetHeadPos(&LAPI_SRV_readFdopsList);
        ListNode *pPos = pHead;
        Fdops *pFdops = static_cast<Fdops *>(List_GetNext(&LAPI_SRV_readFdopsList, &pPos));
        if (pFdops != nullptr) {
            DestroyFdops(pFdops);
        }
        if (List_GetHeadPos(&LAPI_SRV_readFdopsList) == pHead) {
            List_RemoveHead(&LAPI_SRV_readFdopsList);
        }
    }
}

/* ------------------------------------------------------------------------ */
/* Listening socket                                                          */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_InitSrvSock(void) {
    const char *pPath = LAPI_SRV_sockPath;
    unlink(pPath);

    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        LAPI_SRV_ERR("Fail to create socket, errno is: %d, %s", errno, strerror(errno));
        return -1;
    }

    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    size_t pathLen = strlen(pPath);
    if (pathLen >= sizeof(addr.sun_path)) {
        LAPI_SRV_ERR("Fail to bind socket, errno is: %d, %s", ENAMETOOLONG, strerror(ENAMETOOLONG));
        CloseFd(fd);
        return -1;
    }
    memcpy(addr.sun_path, pPath, pathLen);
    /* The family field and the path without its terminating zero. */
    socklen_t addrLen = static_cast<socklen_t>(pathLen + 2);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), addrLen) != 0) {
        LAPI_SRV_ERR("Fail to bind socket, errno is: %d, %s", errno, strerror(errno));
        CloseFd(fd);
        return -1;
    }

    /* Every application may connect, whatever its user. */
    if (chmod(pPath, 0666) != 0) {
        LAPI_SRV_ERR("Fail to chmod, errno is: %d, %s", errno, strerror(errno));
        CloseFd(fd);
        unlink(pPath);
        return -1;
    }

    if (listen(fd, kListenBacklog) != 0) {
        LAPI_SRV_ERR("Fail to listen, errno is: %d, %s", errno, strerror(errno));
        CloseFd(fd);
        unlink(pPath);
        return -1;
    }

    if (SetFdBlocking(fd, false) < 0) {
        LAPI_SRV_ERR("Fail to set non-block fd, errno is: %d, %s", errno, strerror(errno));
    }
    return fd;
}

void LAPI_SRV_ListenSockReadProc(Fdops *pFdops) {
    if (pFdops == nullptr) {
        return;
    }
    struct sockaddr_storage peer;
    socklen_t peerLen = kAcceptAddrLen;
    int fd = accept(pFdops->fd, reinterpret_cast<struct sockaddr *>(&peer), &peerLen);
    if (fd < 0) {
        /* The listening socket is closed for good: no more connections. */
        LAPI_SRV_ERR("Fail to accept connection request, errno is: %d, %s", errno, strerror(errno));
        if (pFdops->closeProc != nullptr) {
            pFdops->closeProc(pFdops);
        }
        return;
    }

    if (SetFdBlocking(fd, false) < 0) {
        LAPI_SRV_ERR("Fail to set non-block fd, errno is: %d, %s", errno, strerror(errno));
        CloseFd(fd);
        return;
    }

    if (LAPI_SRV_NewFdops(fd, LAPI_SRV_CLIENT_RBUF_SIZE, LAPI_SRV_CLIENT_WBUF_SIZE,
                          LAPI_SRV_SockReadProcAfterConnect, LAPI_SRV_GeneralWriteProc,
                          LAPI_SRV_CloseFdops) == nullptr) {
        CloseFd(fd);
    }
}

/* ------------------------------------------------------------------------ */
/* Start-up                                                                  */
/* ------------------------------------------------------------------------ */

int LAPI_SRV_Init(void) {
    LAPI_SRV_InitSignal();

    if (LAPI_SRV_TypeCheck() < 0) {
        LAPI_SRV_ERR("Fail to pass LAPI_SRV_TypeCheck()!");
        return -1;
    }
    if (LAPI_SRV_TestPackedStruct(0) < 0) {
        LAPI_SRV_ERR("Fail to pass LAPI_SRV_TestPackedStruct()!");
        return -1;
    }

    LAPI_SRV_LOG_Init();
    LAPI_SRV_InitGlobals();

    LAPI_SRV_InitApMsgProc();
    LAPI_SRV_InitBpMsgProc();
    LAPI_InitApMsgLogProc();
    LAPI_SRV_InitBpMsgLogProc();

    int fd = LAPI_SRV_InitSrvSock();
    if (fd < 0) {
        return -1;
    }
    if (LAPI_SRV_NewFdops(fd, 0, 0, LAPI_SRV_ListenSockReadProc, nullptr, LAPI_SRV_CloseFdops) ==
        nullptr) {
        CloseFd(fd);
        unlink(LAPI_SRV_sockPath);
        return -1;
    }
    return 0;
}

/* ------------------------------------------------------------------------ */
/* The loop                                                                  */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_LoopOnce(void) {
    fd_set readSet;
    fd_set writeSet;
    memcpy(&readSet, &readFdSet, sizeof(readSet));
    memcpy(&writeSet, &writeFdSet, sizeof(writeSet));

    int nfds = LAPI_SRV_GetMaxFd() + 1;

    struct timeval timeout = {0, 0};
    LAPI_SRV_ScanTranList(&timeout);
    LAPI_SRV_loopNfds = nfds;
    LAPI_SRV_loopTimeout = timeout;

    /* Gathered diagnostics go out before the loop may wait. */
    LAPI_LogFlush();

    /* The only place where SIGTERM gets in: pselect opens the mask for the
     * wait alone, atomically, so a signal sent at any other moment stays
     * pending until here and its clean-up never meets a half-changed list. */
    sigset_t waitMask;
    if (gWaitMaskReady) {
        waitMask = gWaitMask;
    } else {
        MakeWaitMask(&waitMask);
    }
    struct timespec waitTime;
    waitTime.tv_sec = timeout.tv_sec;
    waitTime.tv_nsec = timeout.tv_usec * 1000L;
    gInWait = 1;
    int n = pselect(nfds, &readSet, &writeSet, nullptr, &waitTime, &waitMask);
    int waitErrno = errno;
    gInWait = 0;
    errno = waitErrno;
    if (n > 0) {
        LAPI_SRV_pTurnReadSet = &readSet;
        LAPI_SRV_pTurnWriteSet = &writeSet;
        ListNode *pPos = List_GetHeadPos(&LAPI_SRV_readFdopsList);
        while (pPos != nullptr && n > 0) {
            Fdops *pFdops = static_cast<Fdops *>(List_GetNext(&LAPI_SRV_readFdopsList, &pPos));
            if (pFdops == nullptr) {
                LAPI_SRV_ERR("pFdops == NULL in LAPI_SRV_readFdopsList");
                continue;
            }
            if (!FdInSet(pFdops->fd, &readSet)) {
                continue;
            }
            FD_CLR(pFdops->fd, &readSet);
            n--;
            if (pFdops->readProc == nullptr) {
                LAPI_SRV_ERR("pFdops->readProc == NULL in LAPI_SRV_readFdopsList");
                continue;
            }
            LAPI_SRV_ClearReadListChanged();
            pFdops->readProc(pFdops);
            LAPI_SRV_TRACE("AFTER READPROC %d", n);
            if (LAPI_SRV_IsReadListChanged()) {
                pPos = List_GetHeadPos(&LAPI_SRV_readFdopsList);
            }
        }

        pPos = List_GetHeadPos(&LAPI_SRV_writeFdopsList);
        while (pPos != nullptr && n > 0) {
            Fdops *pFdops = static_cast<Fdops *>(List_GetNext(&LAPI_SRV_writeFdopsList, &pPos));
            if (pFdops == nullptr) {
                LAPI_SRV_ERR("pFdops == NULL in LAPI_SRV_writeFdopsList");
                continue;
            }
            if (!FdInSet(pFdops->fd, &writeSet)) {
                continue;
            }
            FD_CLR(pFdops->fd, &writeSet);
            n--;
            if (pFdops->writeProc == nullptr) {
                LAPI_SRV_ERR("pFdops->writeProc == NULL in LAPI_SRV_writeFdopsList");
                continue;
            }
            LAPI_SRV_ClearWriteListChanged();
            pFdops->writeProc(pFdops);
            if (LAPI_SRV_IsWriteListChanged()) {
                pPos = List_GetHeadPos(&LAPI_SRV_writeFdopsList);
            }
        }
        LAPI_SRV_pTurnReadSet = nullptr;
        LAPI_SRV_pTurnWriteSet = nullptr;
    } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
        LAPI_SRV_ERR("select numfd < 0, errno is: %d, %s", errno, strerror(errno));
    }

    LAPI_SRV_TRACE("END WHILE(1)");
}

void LAPI_SRV_OpenStdFds(void) {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
            continue;
        }
        /* The lowest free number: this one, as the lower ones are open. */
        int nullFd = open("/dev/null", O_RDWR);
        if (nullFd >= 0 && nullFd != fd) {
            dup2(nullFd, fd);
            CloseFd(nullFd);
        }
    }
}

void LAPI_SRV_RaiseFdLimit(void) {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t want = static_cast<rlim_t>(FD_SETSIZE) + kFdLimitMargin;
    if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= want) {
        return;
    }
    limit.rlim_cur =
        (limit.rlim_max == RLIM_INFINITY || limit.rlim_max >= want) ? want : limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        LAPI_SRV_ERR("Fail to raise the descriptor limit, errno is: %d, %s", errno,
                     strerror(errno));
    }
}

int LAPI_SRV_ServerMain(void) {
    /* Before anything opens a descriptor: with 0, 1 or 2 closed, the
     * listening socket, the BP channel or a client would take its number
     * and receive diagnostics or the plain lines of standard output. */
    LAPI_SRV_OpenStdFds();
    LAPI_LogPrepareStream();
    LAPI_SRV_RaiseFdLimit();

    if (LAPI_SRV_PidMutex() != 0) {
        LAPI_SRV_ERR("Fail to pass LAPI_SRV_PidMutex()!");
        exit(1);
    }
    /* After the fork of LAPI_SRV_PidMutex: a buffer filled before it would
     * be written by both processes. */
    LAPI_LogSetBuffered(1);

    if (LAPI_SRV_Init() < 0) {
        LAPI_SRV_RemovePid();
        LAPI_SRV_ERR("LAPI SRV initialization failure! Exit!!!");
        exit(1);
    }

    /* Neither push source nor the BP channel is needed to serve clients. */
    if (LAPI_SRV_InitIPServer() != 0) {
        LAPI_SRV_ERR("LAPI SRV IP server initialization failure!");
    }

    LAPI_SRV_TRACE("Trying to connect mux channel...");
    if (LAPI_SRV_ConnectMuxChannel() != 0) {
        LAPI_SRV_ERR("Fail to connect mux channel!");
    }

    (void)LAPI_SRV_RegisterTAPIClient();

    for (;;) {
        LAPI_SRV_LoopOnce();
    }
}
