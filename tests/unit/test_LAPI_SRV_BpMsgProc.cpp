/*
 * The BP link: mux channel, frames and resynchronisation, dispatch by
 * subCmdId, the BP fixed point and the readable trace of BP messages.
 *
 * The channel is a socket pair (or a raw pseudo-terminal where the device
 * itself is opened): each Feed() is one burst of bytes from the BP followed
 * by one call of the channel's read procedure, i.e. one read of the loop.
 * Delivered messages are recorded by a procedure put into the table.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LAPI_BpMsg.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SrvCli.h"
#include "ServerFixture.h"
#include "TestClient.h"

namespace {

using Bytes = std::vector<uint8_t>;

/* ---- building frames ---------------------------------------------------- */

Bytes Msg(uint8_t subCmdId, uint8_t sid, uint8_t tid, const Bytes &body = {}) {
    Bytes m{subCmdId, sid, tid};
    m.insert(m.end(), body.begin(), body.end());
    return m;
}

Bytes Frame(const Bytes &msg) {
    size_t len = msg.size() + 5;
    Bytes f{0x50, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len & 0xFF)};
    f.insert(f.end(), msg.begin(), msg.end());
    f.push_back(0xCF);
    f.push_back(0xB0);
    return f;
}

using lapitest::Cat;

Bytes Slice(const Bytes &b, size_t from, size_t to) {
    return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(to));
}

/* Three short BP->AP messages used throughout. */
const Bytes kAbortRsp = Msg(GEOLOCATION_ABORT_APBP_RES, 2, 1, {0x00, 0x00, 0x00, 0x00});
const Bytes kNotifStatus = Msg(NOTIFICATION_STATUS_BPAP_IND, 9, 8, {0xff, 0xff, 0xff, 0xfe});
const Bytes kAddProxRsp = Msg(PROXIMITY_ADD_APBP_RES, 3, 4, {0x00, 0x00, 0x00, 0x01});

/* ---- recording dispatch -------------------------------------------------- */

std::vector<Bytes> gDelivered;

void RecordProc(uint8_t *pMsg, uint16_t msgLen) {
    gDelivered.emplace_back(pMsg, pMsg + msgLen);
}

/* Every entry of the table records what it gets. */
void RecordEverything() {
    for (int id = 0; id < LAPI_BP_MSG_ID_COUNT; ++id) {
        LAPI_SRV_SetBpMsgProc(static_cast<uint8_t>(id), RecordProc);
    }
}

/* ---- the channel --------------------------------------------------------- */

void FreeMuxQueue() {
    for (ListNode *p = LAPI_SRV_muxSendDataList.head; p != nullptr; p = p->next) {
        free(static_cast<SendDataNode *>(p->data)->pData);
    }
    List_RemoveAll(&LAPI_SRV_muxSendDataList);
}

/* A socket pair standing in for the mux device: our end is the channel's
 * Fdops (set up as the channel is set up when the device opens), the other
 * end is the BP. */
class SocketChannel {
  public:
    SocketChannel() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
            return;
        }
        bp_ = sv[1];
        SetFdBlocking(sv[0], false);
        pFdops_ = CreateFdops(sv[0], LAPI_SRV_MUX_RBUF_SIZE, LAPI_SRV_MUX_WBUF_SIZE);
        if (pFdops_ == nullptr) {
            close(sv[0]);
            return;
        }
        pFdops_->readProc = LAPI_SRV_MuxFdReadProc;
        pFdops_->writeProc = LAPI_SRV_GeneralWriteProc;
        pFdops_->closeProc = LAPI_SRV_CloseFdops;
        LAPI_SRV_pMuxFdops = pFdops_;
        LAPI_SRV_AddFdopsReadList(pFdops_);
    }
    ~SocketChannel() {
        /* Gone already when the channel was closed (LAPI_SRV_CloseFdops). */
        if (pFdops_ != nullptr && LAPI_SRV_pMuxFdops == pFdops_) {
            LAPI_SRV_pMuxFdops = nullptr;
            DestroyFdops(pFdops_);
        }
        FreeMuxQueue();
        CloseBp();
    }
    SocketChannel(const SocketChannel &) = delete;
    SocketChannel &operator=(const SocketChannel &) = delete;

    bool ok() const { return pFdops_ != nullptr && bp_ >= 0; }
    Fdops *fdops() const { return pFdops_; }
    int BpFd() const { return bp_; }
    void CloseBp() {
        if (bp_ >= 0) {
            close(bp_);
            bp_ = -1;
        }
    }

    /* One read of the loop: the BP writes the bytes, the channel reads. */
    void Feed(const Bytes &bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = write(bp_, bytes.data() + done, bytes.size() - done);
            ASSERT_GT(n, 0);
            done += static_cast<size_t>(n);
        }
        LAPI_SRV_MuxFdReadProc(pFdops_);
    }

    /* Everything the server wrote that is waiting on the BP side. */
    Bytes DrainBp() { return lapitest::RecvPending(bp_); }

  private:
    Fdops *pFdops_ = nullptr;
    int bp_ = -1;
};

/* A raw pseudo-terminal whose slave stands in for the mux device path. */
class PtyDevice {
  public:
    PtyDevice() {
        master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
            return;
        }
        char name[128];
        if (ptsname_r(master_, name, sizeof(name)) != 0) {
            return;
        }
        path_ = name;
        /* Raw before the server opens it: no echo of what it writes. */
        int s = open(name, O_RDWR | O_NOCTTY);
        if (s >= 0) {
            struct termios tio;
            if (tcgetattr(s, &tio) == 0) {
                cfmakeraw(&tio);
                tcsetattr(s, TCSANOW, &tio);
            }
            close(s);
        }
    }
    ~PtyDevice() { CloseMaster(); }
    PtyDevice(const PtyDevice &) = delete;
    PtyDevice &operator=(const PtyDevice &) = delete;

    bool ok() const { return master_ >= 0 && !path_.empty(); }
    const std::string &Path() const { return path_; }
    int Master() const { return master_; }
    void CloseMaster() {
        if (master_ >= 0) {
            close(master_);
            master_ = -1;
        }
    }

  private:
    int master_ = -1;
    std::string path_;
};

/* ---- diagnostics ---------------------------------------------------------- */

struct Diag {
    bool isError;
    std::string func;
    std::string message;
};

/* Diagnostic lines of a capture; a message that itself holds newlines (the
 * location response trace) is joined back from its continuation lines. */
std::vector<Diag> ParseDiags(const std::string &text) {
    std::vector<Diag> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        std::string line = text.substr(start, nl == std::string::npos ? nl : nl - start);
        start = nl == std::string::npos ? text.size() : nl + 1;
        lapitest::DiagLine d;
        if ((line.rfind("{1} ", 0) == 0 || line.rfind("{5} ", 0) == 0) &&
            lapitest::ParseDiagLine(line, &d)) {
            out.push_back(Diag{d.isError, d.func, d.message});
        } else if (!out.empty()) {
            out.back().message += "\n" + line;
        }
    }
    return out;
}

std::vector<std::string> Errors(const lapitest::StderrCapture &cap) {
    std::vector<std::string> out;
    for (const Diag &d : ParseDiags(cap.Text())) {
        if (d.isError) {
            out.push_back(d.message);
        }
    }
    return out;
}

std::vector<Diag> Traces(const lapitest::StderrCapture &cap) {
    std::vector<Diag> out;
    for (const Diag &d : ParseDiags(cap.Text())) {
        if (!d.isError) {
            out.push_back(d);
        }
    }
    return out;
}

size_t CountTrace(const lapitest::StderrCapture &cap, const std::string &message) {
    size_t n = 0;
    for (const Diag &d : Traces(cap)) {
        n += d.message == message ? 1 : 0;
    }
    return n;
}

using lapitest::StdoutCapture;

/* ---- fixture --------------------------------------------------------------- */

class BpLink : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        LAPI_SRV_InitGlobals();
        LAPI_SRV_InitBpMsgProc();
        LAPI_SRV_InitBpMsgLogProc();
        LAPI_SRV_ResetBpMsgParse();
        gDelivered.clear();
        savedDevice_ = LAPI_SRV_muxDevice;
    }
    void TearDown() override {
        LAPI_SRV_muxDevice = savedDevice_;
        if (LAPI_SRV_pMuxFdops != nullptr) {
            Fdops *p = LAPI_SRV_pMuxFdops;
            LAPI_SRV_pMuxFdops = nullptr;
            DestroyFdops(p);
        }
        FreeMuxQueue();
        LAPI_SRV_ResetBpMsgParse();
        LAPI_SRV_InitBpMsgProc();
    }

  private:
    const char *savedDevice_ = nullptr;
};

/* ======================================================================== */
/* Frames and resynchronisation                                             */
/* ======================================================================== */

/* One row: the reads as they arrive, the messages delivered, the errors. */
struct ParseRow {
    const char *legend;
    std::vector<Bytes> reads;
    std::vector<Bytes> delivered;
    std::vector<std::string> errors;
};

const Bytes kF1 = Frame(kAbortRsp);    /* 12 bytes */
const Bytes kF2 = Frame(kNotifStatus); /* 12 bytes */
const Bytes kF3 = Frame(kAddProxRsp);  /* 12 bytes */
const char kLostSync[] = "BP Msg lost synchronizaion!";

std::vector<ParseRow> ParseRows() {
    return {
        {"one frame in one read", {kF1}, {kAbortRsp}, {}},
        {"frame split after the sync byte", {Slice(kF1, 0, 1), Slice(kF1, 1, 12)}, {kAbortRsp}, {}},
        {"frame split inside the length field",
         {Slice(kF1, 0, 2), Slice(kF1, 2, 12)},
         {kAbortRsp},
         {}},
        {"frame split after 4 bytes: length still unknown",
         {Slice(kF1, 0, 4), Slice(kF1, 4, 12)},
         {kAbortRsp},
         {}},
        {"frame split just before the trailer",
         {Slice(kF1, 0, 10), Slice(kF1, 10, 12)},
         {kAbortRsp},
         {}},
        {"frame split between the two trailer bytes",
         {Slice(kF1, 0, 11), Slice(kF1, 11, 12)},
         {kAbortRsp},
         {}},
        {"frame in three reads",
         {Slice(kF1, 0, 3), Slice(kF1, 3, 7), Slice(kF1, 7, 12)},
         {kAbortRsp},
         {}},
        {"three frames in one read",
         {Cat({kF1, kF2, kF3})},
         {kAbortRsp, kNotifStatus, kAddProxRsp},
         {}},
        {"second frame split across reads",
         {Cat({kF1, Slice(kF2, 0, 5)}), Slice(kF2, 5, 12)},
         {kAbortRsp, kNotifStatus},
         {}},
        {"4 bytes of leading garbage without 0x50",
         {Cat({{0x00, 0x11, 0xCF, 0xB0}, kF1})},
         {kAbortRsp},
         {}},
        {"garbage between two frames",
         {Cat({kF1, {0x01, 0x02, 0x03}, kF2})},
         {kAbortRsp, kNotifStatus},
         {}},
        {"garbage alone", {{0x01, 0x02, 0xCF, 0xB0, 0xFF}}, {}, {}},
        {"wrong trailer", {Cat({Slice(kF1, 0, 10), {0xCF, 0xB1}})}, {}, {kLostSync}},
        {"trailer bytes swapped then a frame",
         {Cat({Slice(kF1, 0, 10), {0xB0, 0xCF}, kF2})},
         {kNotifStatus},
         {kLostSync}},
        {"two sync bytes: 0x50 0x50 reads as length 0x5000",
         {Cat({{0x50}, kF1})},
         {kAbortRsp},
         {"frameLen : 20480 is too big!"}},
        {"declared length 1025 then a frame",
         {Cat({{0x50, 0x04, 0x01}, kF1})},
         {kAbortRsp},
         {"frameLen : 1025 is too big!"}},
    };
}

TEST_F(BpLink, ParseRowsDeliverExactlyTheRealFrames) {
    for (const ParseRow &row : ParseRows()) {
        SCOPED_TRACE(row.legend);
        gDelivered.clear();
        LAPI_SRV_ResetBpMsgParse();
        RecordEverything();
        SocketChannel ch;
        ASSERT_TRUE(ch.ok());
        lapitest::StderrCapture cap;
        for (const Bytes &r : row.reads) {
            ch.Feed(r);
        }
        EXPECT_EQ(row.delivered, gDelivered);
        EXPECT_EQ(row.errors, Errors(cap));
    }
}

TEST_F(BpLink, FrameSplitAtEveryPointIsDeliveredOnceWhenComplete) {
    const Bytes frame = Frame(kNotifStatus);
    for (size_t cut = 1; cut < frame.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        gDelivered.clear();
        LAPI_SRV_ResetBpMsgParse();
        RecordEverything();
        SocketChannel ch;
        ASSERT_TRUE(ch.ok());
        lapitest::StderrCapture cap;
        ch.Feed(Slice(frame, 0, cut));
        EXPECT_TRUE(gDelivered.empty());
        ch.Feed(Slice(frame, cut, frame.size()));
        ASSERT_EQ(1u, gDelivered.size());
        EXPECT_EQ(kNotifStatus, gDelivered[0]);
        EXPECT_TRUE(Errors(cap).empty());
    }
}

TEST_F(BpLink, FrameFedByteByByteIsDeliveredOnLastByte) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    const Bytes frame = Frame(kAbortRsp);
    for (size_t i = 0; i < frame.size(); ++i) {
        EXPECT_TRUE(gDelivered.empty()) << "delivered before byte " << i;
        ch.Feed(Bytes{frame[i]});
    }
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(kAbortRsp, gDelivered[0]);
}

TEST_F(BpLink, ReadEndingInsideFirstFiveBytesKeepsBytesUntilLengthKnown) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    const Bytes frame = Frame(kAbortRsp);
    lapitest::StderrCapture cap;
    ch.Feed(Slice(frame, 0, 3)); /* sync and the whole length, but < 5 bytes */
    EXPECT_TRUE(gDelivered.empty());
    EXPECT_EQ(3, ch.fdops()->rbuf.idx) << "the partial frame stays in the buffer";
    ch.Feed(Slice(frame, 3, 4));
    EXPECT_EQ(4, ch.fdops()->rbuf.idx);
    ch.Feed(Slice(frame, 4, frame.size()));
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(kAbortRsp, gDelivered[0]);
    EXPECT_EQ(0, ch.fdops()->rbuf.idx);
    EXPECT_TRUE(Errors(cap).empty());
}

TEST_F(BpLink, IncompleteFrameAfterGarbageMovesToFrontOfBuffer) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    const Bytes frame = Frame(kAbortRsp);
    ch.Feed(Cat({{0x01, 0x02, 0x03}, Slice(frame, 0, 6)}));
    EXPECT_EQ(6, ch.fdops()->rbuf.idx);
    EXPECT_EQ(Slice(frame, 0, 6), Bytes(ch.fdops()->rbuf.buf, ch.fdops()->rbuf.buf + 6));
    ch.Feed(Slice(frame, 6, frame.size()));
    ASSERT_EQ(1u, gDelivered.size());
}

TEST_F(BpLink, SeveralFramesInOneReadAreProcessedInOrderInTheSameCall) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    Bytes burst = Cat({Frame(kAbortRsp), Frame(kNotifStatus), Frame(kAddProxRsp)});
    ASSERT_EQ(burst.size(), static_cast<size_t>(send(ch.BpFd(), burst.data(), burst.size(), 0)));
    LAPI_SRV_MuxFdReadProc(ch.fdops()); /* one call of the read procedure */
    std::vector<Bytes> expected = {kAbortRsp, kNotifStatus, kAddProxRsp};
    EXPECT_EQ(expected, gDelivered);
}

TEST_F(BpLink, GarbageBeforeFrameIsSkippedWithoutErrorLine) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    Bytes garbage;
    for (int i = 0; i < 200; ++i) {
        uint8_t b = static_cast<uint8_t>(i * 7 + 3);
        garbage.push_back(b == 0x50 ? 0x51 : b);
    }
    lapitest::StderrCapture cap;
    ch.Feed(Cat({garbage, Frame(kAbortRsp)}));
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(kAbortRsp, gDelivered[0]);
    EXPECT_TRUE(Errors(cap).empty());
}

TEST_F(BpLink, FalseSyncWaitsForDeclaredLengthThenRealFrameIsDelivered) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    /* A garbage 0x50 declaring 32 bytes; two real frames begin inside them. */
    const Bytes falseHead = {0x50, 0x00, 0x20};
    const Bytes a = Frame(kAbortRsp);                 /* offsets 3..14 */
    const Bytes b = Frame(kAddProxRsp);               /* offsets 15..26 */
    const Bytes pad = {0x01, 0x02, 0x03, 0x04, 0x05}; /* up to offset 31 */
    lapitest::StderrCapture cap;
    ch.Feed(Cat({falseHead, a}));
    EXPECT_TRUE(gDelivered.empty()) << "waits for the 32 declared bytes";
    EXPECT_TRUE(Errors(cap).empty());
    ch.Feed(Cat({b, pad}));
    std::vector<Bytes> expected = {kAbortRsp, kAddProxRsp};
    EXPECT_EQ(expected, gDelivered);
    EXPECT_EQ(std::vector<std::string>{kLostSync}, Errors(cap));
}

TEST_F(BpLink, DeclaredLength1024IsAccepted) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    Bytes body(LAPI_BP_MSG_MAX_LEN - 3, 0x41);
    const Bytes msg = Msg(GEOLOCATION_APBP_RES, 2, 1, body);
    const Bytes frame = Frame(msg);
    ASSERT_EQ(1024u, frame.size());
    lapitest::StderrCapture cap;
    ch.Feed(frame);
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(msg, gDelivered[0]);
    EXPECT_EQ(1019u, gDelivered[0].size());
    EXPECT_TRUE(Errors(cap).empty());
}

TEST_F(BpLink, DeclaredLength1024AfterGarbageFillsBufferAndStillArrives) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    const Bytes msg = Msg(GEOLOCATION_APBP_RES, 2, 1, Bytes(LAPI_BP_MSG_MAX_LEN - 3, 0x42));
    const Bytes frame = Frame(msg);
    const Bytes garbage(10, 0x00);
    Bytes all = Cat({garbage, frame});
    /* The first read fills the 1024-byte buffer with garbage and a cut
     * frame; the frame's tail moves to the front and the rest follows. */
    ch.Feed(Slice(all, 0, 1024));
    EXPECT_TRUE(gDelivered.empty());
    EXPECT_EQ(1014, ch.fdops()->rbuf.idx);
    ch.Feed(Slice(all, 1024, all.size()));
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(msg, gDelivered[0]);
}

TEST_F(BpLink, DeclaredLength1025IsRejectedAsTooBig) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    /* A well-formed frame one byte too long: refused, its bytes skipped. */
    Bytes msg = Msg(GEOLOCATION_APBP_RES, 2, 1, Bytes(LAPI_BP_MSG_MAX_LEN - 2, 0x41));
    Bytes frame = Frame(msg);
    ASSERT_EQ(1025u, frame.size());
    lapitest::StderrCapture cap;
    ch.Feed(Slice(frame, 0, 1000));
    ch.Feed(Cat({Slice(frame, 1000, frame.size()), Frame(kAbortRsp)}));
    EXPECT_EQ(std::vector<Bytes>{kAbortRsp}, gDelivered);
    EXPECT_EQ(std::vector<std::string>{"frameLen : 1025 is too big!"}, Errors(cap));
}

TEST_F(BpLink, DeclaredLengthsBelowFiveAreLostSynchronisation) {
    for (uint8_t declared = 0; declared < 5; ++declared) {
        SCOPED_TRACE("declared length " + std::to_string(declared));
        gDelivered.clear();
        LAPI_SRV_ResetBpMsgParse();
        RecordEverything();
        SocketChannel ch;
        ASSERT_TRUE(ch.ok());
        lapitest::StderrCapture cap;
        /* At the very start of the buffer: for 0 and 1 a trailer test would
         * read in front of the block (AddressSanitizer would see it). */
        ch.Feed(Cat({{0x50, 0x00, declared}, Frame(kAbortRsp)}));
        EXPECT_EQ(std::vector<Bytes>{kAbortRsp}, gDelivered);
        EXPECT_EQ(std::vector<std::string>{kLostSync}, Errors(cap));
    }
}

TEST_F(BpLink, DeclaredLengthBelowFiveWithFiveBytesOnlyIsLostSynchronisation) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    lapitest::StderrCapture cap;
    ch.Feed({0x50, 0x00, 0x00, 0xCF, 0xB0});
    EXPECT_TRUE(gDelivered.empty());
    EXPECT_EQ(std::vector<std::string>{kLostSync}, Errors(cap));
    EXPECT_EQ(0, ch.fdops()->rbuf.idx);
}

TEST_F(BpLink, FrameOfExactlyTheOverheadIsUnknownMessage0xcf) {
    /* No message at all: the byte read as its identifier is the first
     * trailer byte, which no procedure owns. */
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    RecordEverything();
    lapitest::StderrCapture cap;
    ch.Feed(Cat({{0x50, 0x00, 0x05, 0xCF, 0xB0}, kF1}));
    EXPECT_EQ(std::vector<Bytes>{kAbortRsp}, gDelivered);
    EXPECT_EQ(std::vector<std::string>{"Received unknown BP Msg ID: 0xcf, dataLen: 0!"},
              Errors(cap));
    EXPECT_EQ(0, ch.fdops()->rbuf.idx);
}

TEST_F(BpLink, ReceivedFrameIsTracedAndHexDumped) {
    RecordEverything();
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    lapitest::StderrCapture cap;
    ch.Feed(Cat({{0x01}, Frame(kAbortRsp)}));
    std::vector<std::string> traces;
    for (const Diag &d : Traces(cap)) {
        traces.push_back(d.message);
    }
    std::vector<std::string> expected = {
        "Enter LAPI_SRV_MuxFdReadProc",
        "Enter LAPI_SRV_GeneralRead",
        "errno == EAGAIN",
        "Enter LAPI_SRV_BpMsgParse",
        "01 50 00 0c 03 02 01 00 00 00 00 cf b0 ",
        "Receive following message from BP: ",
        "50 00 0c 03 02 01 00 00 00 00 cf b0 ",
        "AFTER BPMSGPROC[IDX].PROC()",
    };
    EXPECT_EQ(expected, traces);
}

TEST_F(BpLink, ParseOfNullFdopsFailsAndEmptyBufferReturnsAtOnce) {
    EXPECT_EQ(-1, LAPI_SRV_BpMsgParse(nullptr));
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    lapitest::StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_BpMsgParse(ch.fdops()));
    std::vector<Diag> traces = Traces(cap);
    ASSERT_EQ(1u, traces.size()) << "no hex dump of an empty buffer";
    EXPECT_EQ("Enter LAPI_SRV_BpMsgParse", traces[0].message);
}

TEST_F(BpLink, ReadProcRefusesInvalidFdops) {
    lapitest::StderrCapture cap;
    LAPI_SRV_MuxFdReadProc(nullptr);
    Fdops noBuffer{};
    noBuffer.fd = -1;
    LAPI_SRV_MuxFdReadProc(&noBuffer);
    EXPECT_EQ((std::vector<std::string>{"Invalid pFdops!", "Invalid pFdops!"}), Errors(cap));
}

/* ======================================================================== */
/* Dispatch                                                                 */
/* ======================================================================== */

TEST_F(BpLink, SubCmdIdOf0x20AndAboveIsUnknown) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    lapitest::StderrCapture cap;
    ch.Feed(Frame(Msg(0x20, 1, 1, {0xAA})));
    ch.Feed(Frame(Msg(0x7F, 1, 1)));
    ch.Feed(Frame(Msg(0xFF, 1, 1, Bytes(20, 0))));
    std::vector<std::string> expected = {
        "Received unknown BP Msg ID: 0x20, dataLen: 4!",
        "Received unknown BP Msg ID: 0x7f, dataLen: 3!",
        "Received unknown BP Msg ID: 0xff, dataLen: 23!",
    };
    EXPECT_EQ(expected, Errors(cap));
}

TEST_F(BpLink, ApToBpIdentifierFromBpHasNoProcedure) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    lapitest::StderrCapture cap;
    ch.Feed(Frame(Msg(GEOLOCATION_APBP_REQ, 2, 1, Bytes(29, 0))));
    EXPECT_EQ(std::vector<std::string>{"No procedure for BP Msg ID: 0x00, dataLen: 32!"},
              Errors(cap));
    EXPECT_EQ(0u, CountTrace(cap, "AFTER BPMSGPROC[IDX].PROC()"));
}

TEST_F(BpLink, EveryApToBpIdentifierIsRefused) {
    const uint8_t apToBp[] = {0x00, 0x02, 0x04, 0x06, 0x0A, 0x0C, 0x0D, 0x0F,
                              0x10, 0x11, 0x14, 0x16, 0x17, 0x19, 0x1B, 0x1F};
    for (uint8_t id : apToBp) {
        lapitest::StderrCapture cap;
        uint8_t msg[3] = {id, 1, 1};
        LAPI_SRV_ProcessBpMsg(msg, sizeof(msg));
        char expected[80];
        snprintf(expected, sizeof(expected), "No procedure for BP Msg ID: 0x%02x, dataLen: 3!", id);
        EXPECT_EQ(std::vector<std::string>{expected}, Errors(cap));
    }
}

TEST_F(BpLink, ProcedureTableHoldsTheLocationAndSocketProcedures) {
    struct Entry {
        uint8_t id;
        BpMsgProc proc;
    };
    const Entry expected[] = {
        {GEOLOCATION_APBP_RES, LAPI_SRV_ProcBpGetLocationRspMsg},
        {GEOLOCATION_ABORT_APBP_RES, LAPI_SRV_ProcBpAbortLocationRspMsg},
        {DB_WRITE_APBP_RES, LAPI_SRV_ProcBpSetGpsDbDataRspMsg},
        {DB_READ_APBP_RES, LAPI_SRV_ProcBpGetGpsDbDataRspMsg},
        {STATUS_CHANGE_BPAP_IND, LAPI_SRV_ProcBpStatusChangeIndMsg},
        {GET_STATUS_APBP_RES, LAPI_SRV_ProcBpGetStatusRspMsg},
        {LOCATION_NOTIFICATION_BPAP_IND, LAPI_SRV_ProcBpLocationNotificationIndMsg},
        {NOTIFICATION_STATUS_BPAP_IND, LAPI_SRV_ProcBpNotificationStatusIndMsg},
        {DISTANCE_AND_AZIMUTH_APBP_RES, LAPI_SRV_ProcBpDistanceAzimuthRspMsg},
        {PROXIMITY_ADD_APBP_RES, LAPI_SRV_ProcBpAddProximityRspMsg},
        {PROXIMITY_REM_APBP_RES, LAPI_SRV_ProcBpRemoveProximityRspMsg},
        {PROXIMITY_HIT_APBP_IND, LAPI_SRV_ProcBpProximityHitIndMsg},
        {OPEN_SOCKET_BPAP_REQ, LAPI_SRV_ProcBpOpenSocketReqMsg},
        {SEND_DATA_BPAP_REQ, LAPI_SRV_ProcBpSendDataReqMsg},
        {CLOSE_SOCKET_BPAP_REQ, LAPI_SRV_ProcBpCloseSocketReqMsg},
        {TLS_SESSION_BPAP_REQ, LAPI_SRV_ProcBpTlsSessionReqMsg},
    };
    for (const Entry &e : expected) {
        BpMsgProc old = LAPI_SRV_SetBpMsgProc(e.id, nullptr);
        LAPI_SRV_SetBpMsgProc(e.id, old);
        EXPECT_EQ(e.proc, old) << "entry " << int(e.id);
    }
    const uint8_t empty[] = {0x00, 0x02, 0x04, 0x06, 0x0A, 0x0C, 0x0D, 0x0F,
                             0x10, 0x11, 0x14, 0x16, 0x17, 0x19, 0x1B, 0x1F};
    for (uint8_t id : empty) {
        BpMsgProc old = LAPI_SRV_SetBpMsgProc(id, nullptr);
        EXPECT_EQ(nullptr, old) << "entry " << int(id);
    }
    EXPECT_EQ(nullptr, LAPI_SRV_SetBpMsgProc(LAPI_BP_MSG_ID_COUNT, RecordProc))
        << "no entry beyond the table";
}

TEST_F(BpLink, LocationResponseOf108BytesIsRefusedAnd109Accepted) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    Bytes shortMsg = Msg(GEOLOCATION_APBP_RES, 2, 1, Bytes(105, 0));
    ASSERT_EQ(108u, shortMsg.size());
    {
        lapitest::StderrCapture cap;
        ch.Feed(Frame(shortMsg));
        std::vector<std::string> errors = Errors(cap);
        ASSERT_EQ(1u, errors.size());
        EXPECT_EQ("Received getLocationRsp BP Msg length: 108 is not expected: 109!", errors[0]);
    }
    Bytes fullMsg = Msg(GEOLOCATION_APBP_RES, 2, 1, Bytes(106, 0));
    ASSERT_EQ(109u, fullMsg.size());
    {
        lapitest::StderrCapture cap;
        StdoutCapture out;
        ch.Feed(Frame(fullMsg));
        out.Restore();
        for (const std::string &e : Errors(cap)) {
            EXPECT_EQ(std::string::npos, e.find("is not expected")) << e;
        }
        /* Accepted: the procedure traces the message after its length check. */
        bool traced = false;
        for (const Diag &d : Traces(cap)) {
            traced |= d.func == "LAPI_LogBpGetLocationRsp";
        }
        EXPECT_TRUE(traced);
    }
}

TEST_F(BpLink, DispatchPassesMessageInPlaceAndTracesAfterProcedure) {
    LAPI_SRV_SetBpMsgProc(NOTIFICATION_STATUS_BPAP_IND, RecordProc);
    Bytes msg = kNotifStatus;
    lapitest::StderrCapture cap;
    LAPI_SRV_ProcessBpMsg(msg.data(), static_cast<uint16_t>(msg.size()));
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(kNotifStatus, gDelivered[0]);
    EXPECT_EQ(1u, CountTrace(cap, "AFTER BPMSGPROC[IDX].PROC()"));
    EXPECT_TRUE(Errors(cap).empty());
}

/* ======================================================================== */
/* The channel                                                              */
/* ======================================================================== */

TEST_F(BpLink, ConnectOpensDeviceAndSetsChannelState) {
    PtyDevice pty;
    ASSERT_TRUE(pty.ok());
    LAPI_SRV_muxDevice = pty.Path().c_str();
    EXPECT_EQ(0, LAPI_SRV_IsMuxConnected());
    lapitest::StderrCapture cap;
    ASSERT_EQ(0, LAPI_SRV_ConnectMuxChannel());
    EXPECT_EQ(1, LAPI_SRV_IsMuxConnected());
    Fdops *p = LAPI_SRV_pMuxFdops;
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(LAPI_SRV_MuxFdReadProc, p->readProc);
    EXPECT_EQ(LAPI_SRV_GeneralWriteProc, p->writeProc);
    EXPECT_EQ(LAPI_SRV_CloseFdops, p->closeProc);
    EXPECT_EQ(nullptr, p->pFdInfo);
    EXPECT_EQ(1024, p->rbuf.len);
    EXPECT_EQ(1024, p->wbuf.len);
    EXPECT_TRUE(FD_ISSET(p->fd, &readFdSet));
    EXPECT_NE(0, fcntl(p->fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0u, LAPI_SRV_muxSendDataList.count);
    std::vector<std::string> traces;
    for (const Diag &d : Traces(cap)) {
        traces.push_back(d.message);
    }
    EXPECT_EQ((std::vector<std::string>{"Enter LAPI_SRV_ConnectMuxChannel",
                                        "Success to connect mux channel."}),
              traces);
    EXPECT_TRUE(Errors(cap).empty());
}

TEST_F(BpLink, ConnectFailsWhenDeviceIsMissing) {
    LAPI_SRV_muxDevice = "/nonexistent-lapi-test/dev/mux18";
    lapitest::StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_ConnectMuxChannel());
    EXPECT_EQ(0, LAPI_SRV_IsMuxConnected());
    EXPECT_EQ(nullptr, LAPI_SRV_pMuxFdops);
    char expected[200];
    snprintf(expected, sizeof(expected), "Fail to open %s, errno is: %d, %s", LAPI_SRV_muxDevice,
             ENOENT, strerror(ENOENT));
    EXPECT_EQ(std::vector<std::string>{expected}, Errors(cap));
}

TEST_F(BpLink, FramesFromDeviceReachDispatcher) {
    PtyDevice pty;
    ASSERT_TRUE(pty.ok());
    LAPI_SRV_muxDevice = pty.Path().c_str();
    ASSERT_EQ(0, LAPI_SRV_ConnectMuxChannel());
    RecordEverything();
    Bytes frame = Frame(kAbortRsp);
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), write(pty.Master(), frame.data(), frame.size()));
    /* Poll the read procedure until the terminal has passed the bytes on. */
    for (int i = 0; i < 200 && gDelivered.empty(); ++i) {
        struct pollfd pfd = {LAPI_SRV_pMuxFdops->fd, POLLIN, 0};
        if (poll(&pfd, 1, 10) > 0) {
            LAPI_SRV_pMuxFdops->readProc(LAPI_SRV_pMuxFdops);
        }
    }
    EXPECT_EQ(std::vector<Bytes>{kAbortRsp}, gDelivered);
}

TEST_F(BpLink, NoReconnectionAfterReadFailureOnDevice) {
    PtyDevice pty;
    ASSERT_TRUE(pty.ok());
    LAPI_SRV_muxDevice = pty.Path().c_str();
    ASSERT_EQ(0, LAPI_SRV_ConnectMuxChannel());
    Fdops *p = LAPI_SRV_pMuxFdops;
    pty.CloseMaster(); /* the BP side goes away: reads fail */
    lapitest::StderrCapture cap;
    p->readProc(p);
    EXPECT_EQ(nullptr, LAPI_SRV_pMuxFdops);
    std::vector<std::string> errors = Errors(cap);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ("Fail to general read for pFdops!", errors[errors.size() - 2]);
    EXPECT_EQ("Close LAPI_SRV_pMuxFdops, disconnection with BP!", errors.back());
    /* The flag stays: the handshake will not try the device again. */
    EXPECT_EQ(1, LAPI_SRV_IsMuxConnected());
    uint8_t frame[16] = {};
    frame[3] = GEOLOCATION_ABORT_APBP_REQ;
    uint16_t len = LAPI_SRV_SetUpBpMsgFrame(frame, 3);
    EXPECT_EQ(-1, LAPI_SRV_SendMsgToBp(frame, len));
    EXPECT_EQ("LAPI_SRV_pMuxFdops == NULL!", Errors(cap).back());
}

TEST_F(BpLink, NoReconnectionAfterEndOfFileOnChannel) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    LAPI_SRV_muxConnected = 1;
    ch.CloseBp();
    lapitest::StderrCapture cap;
    LAPI_SRV_MuxFdReadProc(ch.fdops());
    EXPECT_EQ(nullptr, LAPI_SRV_pMuxFdops);
    std::vector<std::string> expected = {"Read 0 byte!", "Fail to general read for pFdops!",
                                         "Close LAPI_SRV_pMuxFdops, disconnection with BP!"};
    EXPECT_EQ(expected, Errors(cap));
    EXPECT_EQ(1, LAPI_SRV_IsMuxConnected());
    uint8_t frame[8] = {0, 0, 0, GEOLOCATION_ABORT_APBP_REQ, 2, 1, 0, 0};
    EXPECT_EQ(-1, LAPI_SRV_SendMsgToBp(frame, LAPI_SRV_SetUpBpMsgFrame(frame, 3)));
    EXPECT_EQ("LAPI_SRV_pMuxFdops == NULL!", Errors(cap).back());
}

TEST_F(BpLink, SendWithoutChannelDropsFrame) {
    uint8_t frame[8] = {0, 0, 0, GET_STATUS_APBP_REQ, 2, 1, 0, 0};
    lapitest::StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_SendMsgToBp(frame, LAPI_SRV_SetUpBpMsgFrame(frame, 3)));
    EXPECT_EQ(std::vector<std::string>{"LAPI_SRV_pMuxFdops == NULL!"}, Errors(cap));
    EXPECT_EQ(0u, LAPI_SRV_muxSendDataList.count);
}

TEST_F(BpLink, SendWritesFrameToChannel) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    uint8_t frame[8] = {0, 0, 0, GEOLOCATION_ABORT_APBP_REQ, 7, 9, 0, 0};
    uint16_t len = LAPI_SRV_SetUpBpMsgFrame(frame, 3);
    ASSERT_EQ(0, LAPI_SRV_SendMsgToBp(frame, len));
    EXPECT_EQ((Bytes{0x50, 0x00, 0x08, 0x02, 0x07, 0x09, 0xCF, 0xB0}), ch.DrainBp());
}

TEST_F(BpLink, WriteFailureClosesChannel) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    LAPI_SRV_muxConnected = 1;
    ch.CloseBp();
    uint8_t frame[8] = {0, 0, 0, GEOLOCATION_ABORT_APBP_REQ, 7, 9, 0, 0};
    uint16_t len = LAPI_SRV_SetUpBpMsgFrame(frame, 3);
    lapitest::StderrCapture cap;
    EXPECT_EQ(-1, LAPI_SRV_SendMsgToBp(frame, len));
    EXPECT_EQ(nullptr, LAPI_SRV_pMuxFdops);
    std::vector<std::string> errors = Errors(cap);
    ASSERT_EQ(3u, errors.size());
    EXPECT_EQ(0u, errors[0].rfind("Fail to write, errno is: ", 0));
    EXPECT_EQ("Fail to send msg to BP!", errors[1]);
    EXPECT_EQ("Close LAPI_SRV_pMuxFdops, disconnection with BP!", errors[2]);
    EXPECT_EQ(1, LAPI_SRV_IsMuxConnected());
}

TEST_F(BpLink, SendOfEmptyFrameFailsLikeAnyWriteAndClosesChannel) {
    /* A frame that could not be set up (length 0) or no frame at all is a
     * failed write like any other: the channel is closed and forgotten. */
    for (int variant = 0; variant < 2; ++variant) {
        SCOPED_TRACE(variant == 0 ? "null frame" : "frame length 0");
        SocketChannel ch;
        ASSERT_TRUE(ch.ok());
        uint8_t frame[1] = {0};
        lapitest::StderrCapture cap;
        EXPECT_EQ(-1,
                  variant == 0 ? LAPI_SRV_SendMsgToBp(nullptr, 8) : LAPI_SRV_SendMsgToBp(frame, 0));
        EXPECT_EQ(nullptr, LAPI_SRV_pMuxFdops);
        std::vector<std::string> expected = {
            "(buf == NULL) || (count <= 0)!",
            "Fail to send msg to BP!",
            "Close LAPI_SRV_pMuxFdops, disconnection with BP!",
        };
        EXPECT_EQ(expected, Errors(cap));
        cap.Restore();
        lapitest::StderrCapture cap2;
        uint8_t next[8] = {0, 0, 0, GET_STATUS_APBP_REQ, 2, 1, 0, 0};
        EXPECT_EQ(-1, LAPI_SRV_SendMsgToBp(next, LAPI_SRV_SetUpBpMsgFrame(next, 3)));
        EXPECT_EQ(std::vector<std::string>{"LAPI_SRV_pMuxFdops == NULL!"}, Errors(cap2));
    }
}

/* Fills the channel's socket so that the next write takes nothing. */
void StallChannel(SocketChannel *ch, size_t *stuffed) {
    int small = 4096;
    setsockopt(ch->fdops()->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    uint8_t junk[512];
    memset(junk, 0x00, sizeof(junk));
    *stuffed = 0;
    for (;;) {
        ssize_t n = send(ch->fdops()->fd, junk, sizeof(junk), MSG_DONTWAIT);
        if (n <= 0) {
            break;
        }
        *stuffed += static_cast<size_t>(n);
    }
}

TEST_F(BpLink, ThreeFramesQueuedBehindStalledChannelLeaveInOrder) {
    SocketChannel ch;
    ASSERT_TRUE(ch.ok());
    size_t stuffed = 0;
    StallChannel(&ch, &stuffed);
    ASSERT_GT(stuffed, 0u);

    std::vector<Bytes> sent;
    for (uint8_t i = 0; i < 4; ++i) {
        uint8_t frame[16] = {};
        frame[3] = GET_STATUS_APBP_REQ;
        frame[4] = static_cast<uint8_t>(10 + i);
        frame[5] = static_cast<uint8_t>(20 + i);
        uint16_t len = LAPI_SRV_SetUpBpMsgFrame(frame, 3);
        ASSERT_EQ(0, LAPI_SRV_SendMsgToBp(frame, len));
        sent.emplace_back(frame, frame + len);
    }
    /* The first waits in the write buffer, the other three as chunks. */
    EXPECT_EQ(sent[0].size(), ch.fdops()->wbuf.idx);
    EXPECT_EQ(3u, LAPI_SRV_muxSendDataList.count);
    EXPECT_TRUE(FD_ISSET(ch.fdops()->fd, &writeFdSet));

    /* The BP reads again: each writable turn sends one frame. */
    Bytes received;
    for (int turn = 0; turn < 4; ++turn) {
        Bytes got = ch.DrainBp();
        received.insert(received.end(), got.begin(), got.end());
        LAPI_SRV_GeneralWriteProc(ch.fdops());
        /* The next chunk moves into the drained buffer: one per turn. */
        EXPECT_EQ(static_cast<uint32_t>(turn < 2 ? 2 - turn : 0), LAPI_SRV_muxSendDataList.count);
        EXPECT_EQ(turn < 3 ? 8 : 0, ch.fdops()->wbuf.idx);
    }
    EXPECT_FALSE(FD_ISSET(ch.fdops()->fd, &writeFdSet));
    Bytes got = ch.DrainBp();
    received.insert(received.end(), got.begin(), got.end());
    ASSERT_EQ(stuffed + 4 * 8, received.size());
    Bytes frames(received.begin() + static_cast<long>(stuffed), received.end());
    EXPECT_EQ(Cat({sent[0], sent[1], sent[2], sent[3]}), frames);
}

/* ======================================================================== */
/* Framing of outgoing messages                                             */
/* ======================================================================== */

TEST_F(BpLink, SetUpFrameWrapsMessageAndTracesIt) {
    uint8_t frame[16] = {};
    frame[3] = GEOLOCATION_ABORT_APBP_REQ;
    frame[4] = 2;
    frame[5] = 1;
    lapitest::StderrCapture cap;
    EXPECT_EQ(8, LAPI_SRV_SetUpBpMsgFrame(frame, 3));
    EXPECT_EQ((Bytes{0x50, 0x00, 0x08, 0x02, 0x02, 0x01, 0xCF, 0xB0}), Bytes(frame, frame + 8));
    std::vector<Diag> traces = Traces(cap);
    ASSERT_EQ(3u, traces.size());
    EXPECT_EQ("LAPI_LogBpAbortLocationReq", traces[0].func);
    EXPECT_EQ(
        "AP->BP bpAbortLocationReq (GEOLOCATION_ABORT_APBP_REQ) subCmdId: 0x02, sessionId: 2, "
        "transactionId: 1, ",
        traces[0].message);
    EXPECT_EQ("Send following message to BP: ", traces[1].message);
    EXPECT_EQ("50 00 08 02 02 01 cf b0 ", traces[2].message);
    EXPECT_TRUE(Errors(cap).empty());
}

TEST_F(BpLink, SetUpFrameWritesLengthBigEndian) {
    std::vector<uint8_t> frame(1024 + 8, 0xEE);
    frame[3] = GEOLOCATION_APBP_RES;
    StdoutCapture out; /* the location response trace writes a line there */
    EXPECT_EQ(1024, LAPI_SRV_SetUpBpMsgFrame(frame.data(), 1019));
    out.Restore();
    EXPECT_EQ(0x50, frame[0]);
    EXPECT_EQ(0x04, frame[1]);
    EXPECT_EQ(0x00, frame[2]);
    EXPECT_EQ(0xCF, frame[1022]);
    EXPECT_EQ(0xB0, frame[1023]);
    EXPECT_EQ(0xEE, frame[1024]) << "nothing written past the frame";
}

TEST_F(BpLink, SetUpFrameRefusesLengthThatWouldWrap) {
    uint8_t frame[8] = {};
    lapitest::StderrCapture cap;
    EXPECT_EQ(0, LAPI_SRV_SetUpBpMsgFrame(frame, 65531));
    EXPECT_EQ(0, LAPI_SRV_SetUpBpMsgFrame(nullptr, 3));
    EXPECT_EQ(2u, Errors(cap).size());
    EXPECT_EQ((Bytes(8, 0)), Bytes(frame, frame + 8));
}

/* ======================================================================== */
/* Fixed point                                                              */
/* ======================================================================== */

Bytes Encode(double x) {
    Bytes out(8, 0xAA);
    LAPI_SRV_DoubleToBpFixed(x, out.data());
    return out;
}

TEST_F(BpLink, FixedPointDecodeOfZeroBytesIsHalfAStep) {
    const uint8_t zero[8] = {};
    EXPECT_EQ(0.5 / 8388608.0, LAPI_SRV_BpFixedToDouble(zero));
    EXPECT_NE(0.0, LAPI_SRV_BpFixedToDouble(zero));
}

TEST_F(BpLink, FixedPointEncodeOfMinusOneAndAHalf) {
    EXPECT_EQ((Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x40, 0x00, 0x00}), Encode(-1.5));
}

TEST_F(BpLink, FixedPointEncodeTruncatesTowardZero) {
    EXPECT_EQ(Bytes(8, 0x00), Encode(-0.0000001)) << "not rounded down to -1";
    EXPECT_EQ(Bytes(8, 0x00), Encode(0.0000001));
    /* 2.9999999 units of 2^-23 -> 2 */
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 0, 2}), Encode(2.9999999 / 8388608.0));
    EXPECT_EQ((Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}),
              Encode(-2.9999999 / 8388608.0));
}

TEST_F(BpLink, FixedPointEncodesBigEndian) {
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0x80, 0, 0}), Encode(1.0));
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0x01, 0x20, 0, 0}), Encode(2.25));
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0x5A, 0, 0, 0}), Encode(180.0));
}

TEST_F(BpLink, FixedPointRoundTripIsShiftedByHalfAStep) {
    for (double x : {0.0, 1.0, -1.5, 48.8566, -122.4194, 8848.86}) {
        Bytes b = Encode(x);
        double n = std::trunc(x * 8388608.0);
        EXPECT_EQ((n + 0.5) / 8388608.0, LAPI_SRV_BpFixedToDouble(b.data())) << x;
    }
}

TEST_F(BpLink, FixedPointSaturatesOutOfRange) {
    EXPECT_EQ((Bytes{0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), Encode(1e300));
    EXPECT_EQ((Bytes{0x80, 0, 0, 0, 0, 0, 0, 0}), Encode(-1e300));
    EXPECT_EQ(Bytes(8, 0), Encode(std::nan("")));
}

/* ======================================================================== */
/* BP message tracing                                                       */
/* ======================================================================== */

std::string TraceOf(const Bytes &msg, std::string *func = nullptr) {
    lapitest::StderrCapture cap;
    LAPI_LogBpMsg(msg.data(), static_cast<int>(msg.size()));
    std::vector<Diag> traces = Traces(cap);
    EXPECT_EQ(1u, traces.size());
    EXPECT_TRUE(Errors(cap).empty());
    if (traces.empty()) {
        return std::string();
    }
    if (func != nullptr) {
        *func = traces[0].func;
    }
    return traces[0].message;
}

TEST_F(BpLink, TraceOfGetLocationReqByteForByte) {
    Bytes body = {0x00, 0x00, 0x00, 0x1e, 0x00, 0x00, 0x00, 0x64, 0x00, 0x00,
                  0x00, 0xc8, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
                  0x00, 0x00, 0x00, 0x01, 0x01, 0x00, 0x01, 0x00, 0x01};
    std::string func;
    EXPECT_EQ(
        "AP->BP bpGetLocationReq (GEOLOCATION_APBP_REQ) subCmdId: 0x00, sessionId: 5, "
        "transactionId: 7, responseTime: 0x0000001e, horizontalAccuracy: 0x00000064, "
        "verticalAccuracy: 0x000000c8, preferredPowerConsumption: 0x00000001, interval: "
        "0x00000000, reportCriteria: 0x00000001, costAllowed: 0x01, addressInfoRequired: 0x00, "
        "speedAndCourseRequired: 0x01, altitudeRequired: 0x00, nmeaRequired: 0x01, ",
        TraceOf(Msg(GEOLOCATION_APBP_REQ, 5, 7, body), &func));
    EXPECT_EQ("LAPI_LogBpGetLocationReq", func);
}

TEST_F(BpLink, TraceOfAbortLocationRspByteForByte) {
    EXPECT_EQ(
        "BP->AP bpAbortLocationRsp (GEOLOCATION_ABORT_APBP_RES) subCmdId: 0x03, sessionId: 2, "
        "transactionId: 1, result: 0xfffffffe, ",
        TraceOf(Msg(GEOLOCATION_ABORT_APBP_RES, 2, 1, {0xff, 0xff, 0xff, 0xfe})));
}

TEST_F(BpLink, TraceOfDistanceAzimuthReqByteForByte) {
    Bytes body = Cat({Encode(0.0), Encode(1.0), Encode(-1.5), Encode(2.25), {0x01}});
    EXPECT_EQ(
        "AP->BP bpDistanceAzimuthReq (DISTANCE_AND_AZIMUTH_APBP_REQ) subCmdId: 0x17, "
        "sessionId: 3, transactionId: 4, latitude1: 0x0000000000000000, longitude1: "
        "0x0000000000800000, latitude2: 0xffffffffff400000, longitude2: 0x0000000001200000, "
        "distanceOnly: 0x01, ",
        TraceOf(Msg(DISTANCE_AND_AZIMUTH_APBP_REQ, 3, 4, body)));
}

TEST_F(BpLink, TraceOfStatusChangeIndByteForByte) {
    Bytes body;
    for (uint8_t i = 1; i <= 8; ++i) {
        body.insert(body.end(), {0x00, 0x00, 0x00, i});
    }
    EXPECT_EQ(
        "BP->AP bpStatusChangeInd (STATUS_CHANGE_BPAP_IND) subCmdId: 0x08, sessionId: 0, "
        "transactionId: 0, userStatus: 0x00000001, hwStatus: 0x00000002, fixStatus: "
        "0x00000003, emergencyStatus: 0x00000004, fixResultStatus.status: 0x00000005, "
        "fixResultStatus.cause: 0x00000006, signalStatus: 0x00000007, iconStatus: 0x00000008, ",
        TraceOf(Msg(STATUS_CHANGE_BPAP_IND, 0, 0, body)));
}

TEST_F(BpLink, TraceOfHeaderOnlyRequests) {
    EXPECT_EQ(
        "AP->BP bpGetStatusReq (GET_STATUS_APBP_REQ) subCmdId: 0x11, sessionId: 9, "
        "transactionId: 10, ",
        TraceOf(Msg(GET_STATUS_APBP_REQ, 9, 10)));
    EXPECT_EQ(
        "AP->BP bpLastKnownLocationReq (LAST_KNOWN_GEOLOCATION_APBP_REQ) subCmdId: 0x16, "
        "sessionId: 255, transactionId: 0, ",
        TraceOf(Msg(LAST_KNOWN_GEOLOCATION_APBP_REQ, 255, 0)));
}

TEST_F(BpLink, TraceOfSetGpsDbDataReqListsEveryFile) {
    Bytes body = {0x00, 0x02,                                     /* numFiles */
                  0x00, 0x00, 0x00, 0x07, 0x00, 0x02, 0xAB, 0xCD, /* file 7, 2 bytes */
                  0x00, 0x00, 0x01, 0x00, 0x00, 0x01, 0x5A};      /* file 256, 1 byte */
    EXPECT_EQ(
        "AP->BP bpSetGpsDbDataReq (DB_WRITE_APBP_REQ) subCmdId: 0x04, sessionId: 2, "
        "transactionId: 3, numFiles: 2, dbFile[0]: fileId: 0x00000007, length: 0x0002, data: "
        "0xabcd, dbFile[1]: fileId: 0x00000100, length: 0x0001, data: 0x5a, ",
        TraceOf(Msg(DB_WRITE_APBP_REQ, 2, 3, body)));
}

TEST_F(BpLink, TraceOfDbFilesStopsAtMessageEnd) {
    /* numFiles claims 9 files; only one entry is there. */
    Bytes body = {0x00, 0x09, 0x00, 0x00, 0x00, 0x01, 0x00, 0x04, 0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(
        "BP->AP bpGetGpsDbDataRsp (DB_READ_APBP_RES) subCmdId: 0x07, sessionId: 2, "
        "transactionId: 3, numFiles: 9, dbFile[0]: fileId: 0x00000001, length: 0x0004, data: "
        "0x01020304, ",
        TraceOf(Msg(DB_READ_APBP_RES, 2, 3, body)));
}

TEST_F(BpLink, TraceOfLocationNotificationInd) {
    Bytes body = {0x00, 0x00, 0x00, 0x01,       /* notificationType */
                  0x00, 0x00, 0x00, 0x02,       /* locationType */
                  0x03,                         /* dataCodingSchema */
                  0x04, 0x00, 0x41, 0x00, 0x42, /* nameLength 4, "AB" */
                  0x02, 0x31, 0x32};            /* addrLength 2 */
    EXPECT_EQ(
        "BP->AP bpLocationNotificationInd (LOCATION_NOTIFICATION_BPAP_IND) subCmdId: 0x13, "
        "sessionId: 6, transactionId: 7, notificationType: 0x00000001, locationType: "
        "0x00000002, dataCodingSchema: 0x03, nameLength: 0x04, clientName: 0x00410042, "
        "addrLength: 0x02, clientExternalAddr: 0x3132, ",
        TraceOf(Msg(LOCATION_NOTIFICATION_BPAP_IND, 6, 7, body)));
}

Bytes LocationRspBody(const std::string &nmea) {
    Bytes body = Cat({Encode(2.25), Encode(0.0), Encode(1.0)});
    body.insert(body.end(), {0, 0, 0, 0, 0, 0, 0x01, 0x00}); /* timeStamp 256 */
    for (int i = 0; i < 7; ++i) {
        body = Cat({body, Encode(0.0)});
    }
    body.insert(body.end(), {0, 0, 0, 1, 0, 0, 0, 2}); /* method, cause */
    body.insert(body.end(), {0, 0, 0, 0, 0, 0, 0, 3}); /* ageOfFix */
    body.push_back(static_cast<uint8_t>(nmea.size() >> 8));
    body.push_back(static_cast<uint8_t>(nmea.size() & 0xFF));
    body.insert(body.end(), nmea.begin(), nmea.end());
    return body;
}

const char kLocationRspHead[] =
    "BP->AP bpGetLocationRsp (GEOLOCATION_APBP_RES) subCmdId: 0x01, sessionId: 2, "
    "transactionId: 1, longitude: 0x0000000001200000, latitude: 0x0000000000000000, "
    "latLonAccuracy: 0x0000000000800000, timeStamp: 0x0000000000000100, altitude: "
    "0x0000000000000000, speed: 0x0000000000000000, travelDirection: 0x0000000000000000, "
    "pointingDirection: 0x0000000000000000, horizontalAccuracy: 0x0000000000000000, "
    "verticalAccuracy: 0x0000000000000000, course: 0x0000000000000000, locationMethod: "
    "0x00000001, cause: 0x00000002, ageOfFix: 0x0000000000000003, ";

TEST_F(BpLink, TraceOfGetLocationRspWithNmea) {
    Bytes msg = Msg(GEOLOCATION_APBP_RES, 2, 1, LocationRspBody("$GP\r\n"));
    ASSERT_EQ(114u, msg.size());
    StdoutCapture out;
    std::string trace = TraceOf(msg);
    std::string head =
        std::string(kLocationRspHead) + "nmeaDataLength: 0x0005, nmeaData: 0x244750" + "0d0a, ";
    EXPECT_EQ(head + "nmea end\n", trace);
    out.Restore();
    EXPECT_EQ("\n LAPI_SRV_BpMsgProc.cpp, LAPI_LogBpGetLocationRsp, data_len:" +
                  std::to_string(head.size()) + "\n",
              out.Text());
}

/* The error line of LAPI_FormatHexStr for a field of no bytes. */
const char kEmptyField[] = "(pData == NULL) || (pBuf == NULL) || (length <= 0)!";

/* The trace line of a message with empty fields, and the error lines that
 * the hex formatter writes for them (from LAPI_FormatHexStr). */
std::string TraceWithEmptyFieldsOf(const Bytes &msg, size_t emptyFields) {
    lapitest::StderrCapture cap;
    LAPI_LogBpMsg(msg.data(), static_cast<int>(msg.size()));
    std::vector<Diag> diags = ParseDiags(cap.Text());
    std::vector<Diag> errors;
    std::string trace;
    size_t traces = 0;
    for (const Diag &d : diags) {
        if (d.isError) {
            errors.push_back(d);
        } else {
            trace = d.message;
            ++traces;
        }
    }
    EXPECT_EQ(1u, traces);
    EXPECT_EQ(emptyFields, errors.size());
    for (const Diag &d : errors) {
        EXPECT_EQ(kEmptyField, d.message);
        EXPECT_EQ("LAPI_FormatHexStr", d.func);
    }
    return trace;
}

TEST_F(BpLink, TraceOfGetLocationRspWithoutNmea) {
    /* The empty NMEA field still goes to the hex formatter, which reports
     * it and adds nothing after the label. */
    Bytes msg = Msg(GEOLOCATION_APBP_RES, 2, 1, LocationRspBody(""));
    ASSERT_EQ(109u, msg.size());
    StdoutCapture out;
    std::string head = std::string(kLocationRspHead) + "nmeaDataLength: 0x0000, nmeaData: ";
    EXPECT_EQ(head + "nmea end\n", TraceWithEmptyFieldsOf(msg, 1));
    out.Restore();
    EXPECT_EQ("\n LAPI_SRV_BpMsgProc.cpp, LAPI_LogBpGetLocationRsp, data_len:" +
                  std::to_string(head.size()) + "\n",
              out.Text());
}

TEST_F(BpLink, TraceOfNotificationWithoutNameOrAddressReportsBothEmptyFields) {
    Bytes body = {0x00, 0x00, 0x00, 0x01, /* notificationType */
                  0x00, 0x00, 0x00, 0x02, /* locationType */
                  0x03,                   /* dataCodingSchema */
                  0x00,                   /* nameLength 0 */
                  0x00};                  /* addrLength 0 */
    EXPECT_EQ(
        "BP->AP bpLocationNotificationInd (LOCATION_NOTIFICATION_BPAP_IND) subCmdId: 0x13, "
        "sessionId: 6, transactionId: 7, notificationType: 0x00000001, locationType: "
        "0x00000002, dataCodingSchema: 0x03, nameLength: 0x00, clientName: addrLength: 0x00, "
        "clientExternalAddr: ",
        TraceWithEmptyFieldsOf(Msg(LOCATION_NOTIFICATION_BPAP_IND, 6, 7, body), 2));
}

TEST_F(BpLink, TraceOfDbFileWithoutDataReportsTheEmptyField) {
    Bytes body = {0x00, 0x02,                                /* numFiles */
                  0x00, 0x00, 0x00, 0x07, 0x00, 0x00,        /* file 7, no data */
                  0x00, 0x00, 0x00, 0x08, 0x00, 0x01, 0x5A}; /* file 8, 1 byte */
    EXPECT_EQ(
        "AP->BP bpSetGpsDbDataReq (DB_WRITE_APBP_REQ) subCmdId: 0x04, sessionId: 2, "
        "transactionId: 3, numFiles: 2, dbFile[0]: fileId: 0x00000007, length: 0x0000, data: "
        "dbFile[1]: fileId: 0x00000008, length: 0x0001, data: 0x5a, ",
        TraceWithEmptyFieldsOf(Msg(DB_WRITE_APBP_REQ, 2, 3, body), 1));
}

TEST_F(BpLink, TraceOfGetLocationRspWithLongestNmea) {
    std::string nmea(LAPI_BP_MAX_NMEA_LEN, 'A');
    Bytes msg = Msg(GEOLOCATION_APBP_RES, 2, 1, LocationRspBody(nmea));
    ASSERT_EQ(1015u, msg.size());
    StdoutCapture out;
    std::string trace = TraceOf(msg);
    std::string hex = "0x" + [] {
        std::string s;
        for (int i = 0; i < LAPI_BP_MAX_NMEA_LEN; ++i) {
            s += "41";
        }
        return s;
    }();
    EXPECT_EQ(
        std::string(kLocationRspHead) + "nmeaDataLength: 0x038a, nmeaData: " + hex + ", nmea end\n",
        trace);
}

TEST_F(BpLink, TraceOfProximityHitInd) {
    Bytes body;
    for (int i = 0; i < 11; ++i) {
        body = Cat({body, Encode(0.0)});
    }
    body.insert(body.end(), {0, 0, 0, 9});              /* locationMethod */
    body.insert(body.end(), {0, 0, 0, 0, 0, 0, 0, 10}); /* ageOfFix */
    Bytes msg = Msg(PROXIMITY_HIT_APBP_IND, 4, 5, body);
    ASSERT_EQ(103u, msg.size());
    std::string zeros = "0x0000000000000000, ";
    EXPECT_EQ(
        "BP->AP bpProximityHitInd (PROXIMITY_HIT_APBP_IND) subCmdId: 0x1d, sessionId: 4, "
        "transactionId: 5, longitude: " +
            zeros + "latitude: " + zeros + "latLonAccuracy: " + zeros + "timeStamp: " + zeros +
            "altitude: " + zeros + "speed: " + zeros + "travelDirection: " + zeros +
            "pointingDirection: " + zeros + "horizontalAccuracy: " + zeros +
            "verticalAccuracy: " + zeros + "course: " + zeros +
            "locationMethod: 0x00000009, ageOfFix: " + "0x000000000000000a, ",
        TraceOf(msg));
}

TEST_F(BpLink, FixedPointLatitudeOfZeroIsSixteenZeroDigits) {
    Bytes body = Cat({Encode(0.0), Encode(0.0), Encode(0.0), Encode(0.0)});
    std::string trace = TraceOf(Msg(PROXIMITY_ADD_APBP_REQ, 1, 1, body));
    EXPECT_NE(std::string::npos, trace.find("latitude: 0x0000000000000000, longitude: "));
}

TEST_F(BpLink, TraceOfMessageOver1024BytesIsRefused) {
    Bytes msg(1025, 0);
    msg[0] = GEOLOCATION_APBP_RES;
    lapitest::StderrCapture cap;
    LAPI_LogBpMsg(msg.data(), static_cast<int>(msg.size()));
    EXPECT_EQ(std::vector<std::string>{"length: 1025 > sizeof(buf): 1024, subCmdId: 0x01!"},
              Errors(cap));
    EXPECT_TRUE(Traces(cap).empty());
}

TEST_F(BpLink, TraceOfNullOrEmptyMessageIsRefused) {
    lapitest::StderrCapture cap;
    LAPI_LogBpMsg(nullptr, 3);
    uint8_t one = 0;
    LAPI_LogBpMsg(&one, 0);
    LAPI_LogBpMsg(&one, -1);
    EXPECT_EQ(std::vector<std::string>(3, "(pBuf == NULL) || (length <= 0) !"), Errors(cap));
}

TEST_F(BpLink, SocketIdentifiersHaveNoLogProcedure) {
    for (uint8_t id : {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x1E, 0x1F}) {
        lapitest::StderrCapture cap;
        Bytes msg = Msg(id, 1, 1, Bytes(8, 0));
        LAPI_LogBpMsg(msg.data(), static_cast<int>(msg.size()));
        char expected[64];
        snprintf(expected, sizeof(expected), "No log procedure for BP Msg ID: 0x%02x!", id);
        EXPECT_EQ(std::vector<std::string>{expected}, Errors(cap));
        EXPECT_TRUE(Traces(cap).empty());
    }
}

TEST_F(BpLink, TraceOfUnknownIdentifier) {
    lapitest::StderrCapture cap;
    Bytes msg = Msg(0x20, 1, 1);
    LAPI_LogBpMsg(msg.data(), static_cast<int>(msg.size()));
    EXPECT_EQ(std::vector<std::string>{"Unknown BP Msg ID: 0x20!"}, Errors(cap));
}

TEST_F(BpLink, LoggerGivenAnotherMessageRefusesIt) {
    lapitest::StderrCapture cap;
    Bytes msg = Msg(DB_WRITE_APBP_RES, 1, 1, Bytes(4, 0));
    LAPI_LogBpAbortLocationRsp(msg.data(), static_cast<int>(msg.size()));
    std::vector<Diag> diags = ParseDiags(cap.Text());
    ASSERT_EQ(1u, diags.size());
    EXPECT_TRUE(diags[0].isError);
    EXPECT_EQ("LAPI_LogBpAbortLocationRsp", diags[0].func);
    EXPECT_EQ("pMsgHeader->subCmdId : 0x05 is not expected!", diags[0].message);
}

TEST_F(BpLink, TraceOfTruncatedMessageStopsAtItsEnd) {
    /* A status indication cut after two fields: nothing beyond is read. */
    Bytes msg = Msg(GET_STATUS_APBP_RES, 1, 2, {0, 0, 0, 1, 0, 0, 0, 2, 0xAA});
    EXPECT_EQ(
        "BP->AP bpGetStatusRsp (GET_STATUS_APBP_RES) subCmdId: 0x12, sessionId: 1, "
        "transactionId: 2, userStatus: 0x00000001, hwStatus: 0x00000002, ",
        TraceOf(msg));
}

TEST_F(BpLink, LogBpMsgHeaderWritesTheThreeBytes) {
    uint8_t header[3] = {0x1c, 12, 200};
    char line[64];
    const char expected[] = "subCmdId: 0x1c, sessionId: 12, transactionId: 200, ";
    EXPECT_EQ(static_cast<int>(strlen(expected)), LAPI_LogBpMsgHeader(header, line));
    EXPECT_STREQ(expected, line);
    lapitest::StderrCapture cap;
    EXPECT_EQ(0, LAPI_LogBpMsgHeader(nullptr, line));
    EXPECT_EQ(0, LAPI_LogBpMsgHeader(header, nullptr));
    EXPECT_EQ(std::vector<std::string>(2, "(pMsgHeader == NULL) || (pBuf == NULL)!"), Errors(cap));
}

TEST_F(BpLink, TraceTableCoversLocationMessagesOnly) {
    for (int id = 0; id < LAPI_BP_MSG_ID_COUNT; ++id) {
        bool hasLogger = id <= 8 || (id >= 17 && id <= 29);
        lapitest::StderrCapture cap;
        Bytes msg = Msg(static_cast<uint8_t>(id), 1, 1, Bytes(120, 0));
        StdoutCapture out; /* the location response writes a line there */
        LAPI_LogBpMsg(msg.data(), static_cast<int>(msg.size()));
        out.Restore();
        EXPECT_EQ(hasLogger ? 1u : 0u, Traces(cap).size()) << "id " << id;
        /* Zero bytes of NMEA data, name or address are empty fields, which
         * the hex formatter reports; nothing else is an error. */
        size_t emptyFields = id == GEOLOCATION_APBP_RES             ? 1u
                             : id == LOCATION_NOTIFICATION_BPAP_IND ? 2u
                                                                    : 0u;
        std::vector<std::string> errors = Errors(cap);
        EXPECT_EQ(hasLogger ? emptyFields : 1u, errors.size()) << "id " << id;
        if (hasLogger) {
            EXPECT_EQ(std::vector<std::string>(emptyFields, kEmptyField), errors) << "id " << id;
        }
    }
}

}  // namespace
