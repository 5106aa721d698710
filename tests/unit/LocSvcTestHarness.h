/*
 * In-process harness for the location service's unit tests: the server's
 * globals reset, the BP channel and every client connection replaced by
 * socket pairs whose far ends the test reads, and the diagnostic stream
 * captured around a call.
 */
#ifndef LOCSVC_TEST_HARNESS_H
#define LOCSVC_TEST_HARNESS_H

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LAPI_BpMsg.h"
#include "LAPI_Msg.h"
#include "LAPI_SRV_ApMsgProc.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "ServerFixture.h"
#include "TestClient.h"

namespace locsvc {

using Bytes = std::vector<uint8_t>;
using lapitest::RecvPending;
using lapitest::ToBytes;

template <typename T>
inline T FromBytes(const Bytes &b, size_t offset = 0) {
    T v;
    memset(&v, 0, sizeof(v));
    if (offset + sizeof(T) <= b.size()) {
        memcpy(&v, b.data() + offset, sizeof(T));
    }
    return v;
}

/* Splits client messages (header + msgLen body). */
inline std::vector<Bytes> SplitClientMsgs(const Bytes &in) {
    std::vector<Bytes> msgs;
    size_t pos = 0;
    while (pos + sizeof(MsgHeader) <= in.size()) {
        MsgHeader hdr;
        memcpy(&hdr, in.data() + pos, sizeof(hdr));
        size_t total = sizeof(MsgHeader) + hdr.msgLen;
        if (pos + total > in.size()) {
            break;
        }
        msgs.emplace_back(in.begin() + pos, in.begin() + pos + total);
        pos += total;
    }
    return msgs;
}

/* Splits BP frames and returns their messages (without frame bytes). */
inline std::vector<Bytes> SplitBpFrames(const Bytes &in) {
    std::vector<Bytes> msgs;
    size_t pos = 0;
    while (pos + LAPI_BP_FRAME_OVERHEAD <= in.size()) {
        size_t frameLen = (static_cast<size_t>(in[pos + 1]) << 8) | in[pos + 2];
        if (in[pos] != LAPI_BP_FRAME_SYNC || frameLen < LAPI_BP_FRAME_OVERHEAD ||
            pos + frameLen > in.size()) {
            break;
        }
        msgs.emplace_back(in.begin() + pos + LAPI_BP_FRAME_HEAD_LEN,
                          in.begin() + pos + frameLen - LAPI_BP_FRAME_TRAILER_LEN);
        pos += frameLen;
    }
    return msgs;
}

inline MsgHeader Header(const Bytes &msg) {
    return FromBytes<MsgHeader>(msg);
}

/* Standard error captured around a call; HasError / HasTrace look for a
 * message text. */
using lapitest::StderrCapture;

/* A registered client whose two connections are socket pairs. */
struct FakeClient {
    Client *pClient = nullptr;
    int syncPeer = -1;
    int asyncPeer = -1;

    std::vector<Bytes> SyncMsgs() const { return SplitClientMsgs(RecvPending(syncPeer)); }
    std::vector<Bytes> AsyncMsgs() const { return SplitClientMsgs(RecvPending(asyncPeer)); }
};

class Harness {
  public:
    Harness() {
        signal(SIGPIPE, SIG_IGN);
        LAPI_SRV_InitGlobals();
        LAPI_SRV_InitBpMsgProc();
        LAPI_SRV_InitBpMsgLogProc();
        LAPI_SRV_nextSid = 2;
        LAPI_SRV_nextTid = 1;
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) {
            fcntl(sv[0], F_SETFL, O_NONBLOCK);
            LAPI_SRV_pMuxFdops = CreateFdops(sv[0], LAPI_SRV_MUX_RBUF_SIZE, LAPI_SRV_MUX_WBUF_SIZE);
            LAPI_SRV_pMuxFdops->closeProc = LAPI_SRV_CloseFdops;
            LAPI_SRV_muxConnected = 1;
            bpPeer_ = sv[1];
        }
    }
    ~Harness() {
        while (!List_IsEmpty(&LAPI_SRV_allClientList)) {
            LAPI_SRV_RemoveClient(static_cast<Client *>(List_RemoveHead(&LAPI_SRV_allClientList)));
        }
        List_RemoveAll(&LAPI_SRV_tranList);
        List_Init(&LAPI_SRV_statusClientList);
        List_Init(&LAPI_SRV_mtlrClientList);
        if (LAPI_SRV_pMuxFdops != nullptr) {
            DestroyFdops(LAPI_SRV_pMuxFdops);
            LAPI_SRV_pMuxFdops = nullptr;
        }
        List_RemoveAll(&LAPI_SRV_muxSendDataList);
        for (int fd : peers_) {
            close(fd);
        }
        if (bpPeer_ >= 0) {
            close(bpPeer_);
        }
    }
    Harness(const Harness &) = delete;
    Harness &operator=(const Harness &) = delete;

    /* Registers a client with both connections attached. */
    FakeClient AddClient(uint32_t pid = 4321, uint32_t service = 1) {
        FakeClient c;
        int s[2];
        int a[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, s) != 0 ||
            socketpair(AF_UNIX, SOCK_STREAM, 0, a) != 0) {
            return c;
        }
        fcntl(s[0], F_SETFL, O_NONBLOCK);
        fcntl(a[0], F_SETFL, O_NONBLOCK);
        Fdops *pSync = CreateFdops(s[0], LAPI_SRV_CLIENT_RBUF_SIZE, LAPI_SRV_CLIENT_WBUF_SIZE);
        Fdops *pAsync = CreateFdops(a[0], LAPI_SRV_CLIENT_RBUF_SIZE, LAPI_SRV_CLIENT_WBUF_SIZE);
        c.pClient = LAPI_SRV_CreateClient(pid, service, pSync);
        pSync->closeProc = LAPI_SRV_ProcClientCrash;
        pAsync->closeProc = LAPI_SRV_CloseFdops;
        LAPI_SRV_SetFdopsClient(pAsync, c.pClient);
        c.pClient->pAsyncFdops = pAsync;
        c.syncPeer = s[1];
        c.asyncPeer = a[1];
        peers_.push_back(s[1]);
        peers_.push_back(a[1]);
        return c;
    }

    /* BP messages the server has written to the channel since the last call. */
    std::vector<Bytes> BpMsgs() { return SplitBpFrames(RecvPending(bpPeer_)); }
    Bytes BpRaw() { return RecvPending(bpPeer_); }

    size_t TranCount() const { return LAPI_SRV_tranList.count; }

    static std::vector<Transaction *> Trans() {
        std::vector<Transaction *> out;
        ListNode *pPos = List_GetHeadPos(&LAPI_SRV_tranList);
        while (pPos != nullptr) {
            out.push_back(static_cast<Transaction *>(List_GetNext(&LAPI_SRV_tranList, &pPos)));
        }
        return out;
    }

    static Transaction *Tran(uint8_t sid, uint8_t tid) {
        return LAPI_SRV_GetTranByBpId(sid, tid, 0);
    }

  private:
    int bpPeer_ = -1;
    std::vector<int> peers_;
};

/* ---- building client requests ---- */

inline MsgHeader MakeHeader(uint16_t msgId, uint16_t msgLen, uint32_t pid = 4321) {
    MsgHeader h;
    h.pid = pid;
    h.msgId = msgId;
    h.msgLen = msgLen;
    return h;
}

/* Calls a handler with an exact-size heap copy, so that any read beyond the
 * message is caught by the address sanitizer. */
/* The row of a client-message handler (null for a stand-in). */
inline const LAPI_SRV_ApMsgRow *ApRowOf(int (*handler)(uint8_t *, Fdops *)) {
    if (LAPI_SRV_unregisterRow.proc == handler) {
        return &LAPI_SRV_unregisterRow;
    }
    if (LAPI_SRV_removeAllProximityRow.proc == handler) {
        return &LAPI_SRV_removeAllProximityRow;
    }
    for (size_t i = 0; i < LAPI_SRV_apRequestRowCount; ++i) {
        if (LAPI_SRV_apRequestRows[i].proc == handler) {
            return &LAPI_SRV_apRequestRows[i];
        }
    }
    return nullptr;
}

/* Runs a handler as the dispatcher does: through its row, which checks the
 * identifier and the length first. */
inline int CallHandler(int (*handler)(uint8_t *, Fdops *), const Bytes &msg, Fdops *pFdops) {
    uint8_t *p = static_cast<uint8_t *>(malloc(msg.size()));
    memcpy(p, msg.data(), msg.size());
    const LAPI_SRV_ApMsgRow *pRow = ApRowOf(handler);
    int r = pRow != nullptr ? LAPI_SRV_RunApMsgRow(pRow, p, pFdops) : handler(p, pFdops);
    free(p);
    return r;
}

/* Runs a BP procedure as the dispatcher does: through its row, which checks
 * the identifier and the length first. */
inline void CallBp(void (*proc)(uint8_t *, uint16_t), const Bytes &msg) {
    uint8_t *p = static_cast<uint8_t *>(malloc(msg.empty() ? 1 : msg.size()));
    if (!msg.empty()) {
        memcpy(p, msg.data(), msg.size());
    }
    const LAPI_SRV_BpMsgRow *pRow = nullptr;
    for (size_t i = 0; i < LAPI_SRV_bpLocationRowCount; ++i) {
        if (LAPI_SRV_bpLocationRows[i].proc == proc) {
            pRow = &LAPI_SRV_bpLocationRows[i];
        }
    }
    for (size_t i = 0; i < LAPI_SRV_bpSocketRowCount; ++i) {
        if (LAPI_SRV_bpSocketRows[i].proc == proc) {
            pRow = &LAPI_SRV_bpSocketRows[i];
        }
    }
    if (pRow != nullptr) {
        LAPI_SRV_RunBpMsgRow(pRow, p, static_cast<uint16_t>(msg.size()));
    } else {
        proc(p, static_cast<uint16_t>(msg.size()));
    }
    free(p);
}

inline GetLocationReq MakeGetLocationReq(uint8_t sid, uint8_t tid, uint16_t mode = 1,
                                         uint32_t responseTime = 30000,
                                         uint32_t reportCriteria = 0) {
    GetLocationReq r;
    memset(&r, 0, sizeof(r));
    r.header = MakeHeader(LAPI_GET_LOCATION_REQ, LAPI_GET_LOCATION_REQ_LEN);
    r.mode = mode;
    r.sessionId = sid;
    r.transactionId = tid;
    r.responseTime = responseTime;
    r.horizontalAccuracy = 50;
    r.verticalAccuracy = 100;
    r.preferredPowerConsumption = 2;
    r.interval = 1000;
    r.reportCriteria = reportCriteria;
    r.costAllowed = 1;
    r.addressInfoRequired = 0;
    r.speedAndCourseRequired = 1;
    r.altitudeRequired = 1;
    r.nmeaRequired = 7;
    return r;
}

/* A request made of the header and the request prefix only. */
template <typename T>
inline T MakePrefixReq(uint16_t msgId, uint8_t sid, uint8_t tid, uint16_t mode = 1) {
    T r;
    memset(&r, 0, sizeof(r));
    r.header = MakeHeader(msgId, sizeof(T) - sizeof(MsgHeader));
    r.mode = mode;
    r.sessionId = sid;
    r.transactionId = tid;
    return r;
}

/* ---- building BP messages ---- */

inline void PutBe(Bytes &b, uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) {
        b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
}

inline void PutFixedBe(Bytes &b, double x) {
    uint8_t f[8];
    LAPI_SRV_DoubleToBpFixed(x, f);
    b.insert(b.end(), f, f + 8);
}

inline Bytes BpHeader(uint8_t subCmdId, uint8_t sid, uint8_t tid) {
    return Bytes{subCmdId, sid, tid};
}

/* GEOLOCATION_APBP_RES with the given NMEA text (declared length may differ). */
inline Bytes MakeBpLocationRsp(uint8_t sid, uint8_t tid, const std::string &nmea = "",
                               std::optional<uint16_t> declaredLen = std::nullopt) {
    Bytes b = BpHeader(GEOLOCATION_APBP_RES, sid, tid);
    const double vals[11] = {12.5, 48.25, 3.0, 0, 500.0, 1.5, 90.0, 45.0, 10.0, 20.0, 180.0};
    for (int i = 0; i < 11; ++i) {
        if (i == 3) {
            PutBe(b, 0x0102030405060708ULL, 8); /* timeStamp: byte-reversed only */
        } else {
            PutFixedBe(b, vals[i]);
        }
    }
    PutBe(b, 2, 4);                     /* locationMethod */
    PutBe(b, 0, 4);                     /* cause */
    PutBe(b, 0x1122334455667788ULL, 8); /* ageOfFix */
    PutBe(b, declaredLen.value_or(static_cast<uint16_t>(nmea.size())), 2);
    b.insert(b.end(), nmea.begin(), nmea.end());
    return b;
}

inline Bytes MakeBpI32Msg(uint8_t subCmdId, uint8_t sid, uint8_t tid, int32_t v) {
    Bytes b = BpHeader(subCmdId, sid, tid);
    PutBe(b, static_cast<uint32_t>(v), 4);
    return b;
}

}  // namespace locsvc

#endif /* LOCSVC_TEST_HARNESS_H */
