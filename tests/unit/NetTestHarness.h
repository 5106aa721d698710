/*
 * In-process harness for the network proxy's unit tests: the location
 * service harness (globals reset, the BP channel a socket pair whose far end
 * the test reads) plus a private root for the link stand-in's FIFO and the
 * configuration file, and a pump that runs the server's procedures for the
 * descriptors that are ready, as the loop does.
 */
#ifndef NET_TEST_HARNESS_H
#define NET_TEST_HARNESS_H

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "HOST_Root.h"
#include "LAPI_BpMsg.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"
#include "LAPI_SRV_Paths.h"
#include "LAPI_SRV_tls.h"
#include "LocSvcTestHarness.h"
#include "NapiFifo.h"
#include "ServerFixture.h"
#include "zelnapi.h"

namespace nettest {

using Bytes = std::vector<uint8_t>;

using locsvc::PutBe;

/* OPEN_SOCKET_BPAP_REQ for an IPv4 address (4 bytes, network order). */
inline Bytes OpenReqIpv4(uint8_t sid, uint8_t tid, uint32_t linkId, const uint8_t ip[4],
                         uint16_t port) {
    Bytes m{OPEN_SOCKET_BPAP_REQ, sid, tid};
    PutBe(m, linkId, 4);
    m.insert(m.end(), ip, ip + 4);
    PutBe(m, port, 2);
    PutBe(m, LAPI_SRV_ADDR_IPV4, 4);
    m.push_back(0);
    return m;
}

inline const uint8_t kLoopback[4] = {127, 0, 0, 1};

/* OPEN_SOCKET_BPAP_REQ for a host name; fqdnLength may lie. */
inline Bytes OpenReqFqdn(uint8_t sid, uint8_t tid, uint32_t linkId, const std::string &name,
                         uint16_t port, int fqdnLength = -1) {
    Bytes m{OPEN_SOCKET_BPAP_REQ, sid, tid};
    PutBe(m, linkId, 4);
    PutBe(m, 0, 4);
    PutBe(m, port, 2);
    PutBe(m, LAPI_SRV_ADDR_FQDN, 4);
    m.push_back(static_cast<uint8_t>(fqdnLength < 0 ? name.size() : fqdnLength));
    m.insert(m.end(), name.begin(), name.end());
    return m;
}

/* SEND_DATA_BPAP_REQ; length may lie. */
inline Bytes SendReq(uint8_t sid, uint8_t tid, uint32_t linkId, const Bytes &data,
                     int64_t length = -1) {
    Bytes m{SEND_DATA_BPAP_REQ, sid, tid};
    PutBe(m, linkId, 4);
    PutBe(m, length < 0 ? data.size() : static_cast<uint64_t>(length), 4);
    m.insert(m.end(), data.begin(), data.end());
    return m;
}

inline Bytes CloseReq(uint8_t sid, uint8_t tid, uint32_t linkId) {
    Bytes m{CLOSE_SOCKET_BPAP_REQ, sid, tid};
    PutBe(m, linkId, 4);
    return m;
}

inline Bytes TlsReq(uint8_t sid, uint8_t tid, uint32_t linkId, const std::string &name,
                    int fqdnLength = -1) {
    Bytes m{TLS_SESSION_BPAP_REQ, sid, tid};
    PutBe(m, linkId, 4);
    m.push_back(static_cast<uint8_t>(fqdnLength < 0 ? name.size() : fqdnLength));
    m.insert(m.end(), name.begin(), name.end());
    return m;
}

/* Dispatches one BP message from an exact-size copy, as the channel does. */
inline void Bp(const Bytes &msg) {
    locsvc::CallBp(LAPI_SRV_ProcessBpMsg, msg);
}

/* SOCKET_MSG_RES_T as the BP receives it. */
inline Bytes SocketRes(uint8_t subCmdId, uint8_t sid, uint8_t tid, uint32_t linkId,
                       int32_t result) {
    Bytes m{subCmdId, sid, tid};
    PutBe(m, linkId, 4);
    PutBe(m, static_cast<uint32_t>(result), 4);
    return m;
}

inline Bytes DataInd(uint32_t linkId, const Bytes &data, int32_t result) {
    Bytes m{SOCKET_DATA_APBP_IND, 0, 0};
    PutBe(m, linkId, 4);
    PutBe(m, data.size(), 4);
    m.insert(m.end(), data.begin(), data.end());
    PutBe(m, static_cast<uint32_t>(result), 4);
    return m;
}

using lapitest::NapiRecord;

class NetHarness : public locsvc::Harness {
  public:
    NetHarness() {
        HOST_SetRoot(root_.Dir().c_str());
        cfgPath_ = root_.Path(LAPI_SRV_CFG_FILE);
        LAPI_SRV_cfgFile = cfgPath_.c_str();
    }
    ~NetHarness() {
        for (SocketInfo &info : socketInfoTable) {
            if (info.fd != 0 || info.napiLink != 0) {
                LAPI_SRV_CloseSocket(&info);
            }
        }
        /* The link service's descriptor outlives the lists that InitGlobals
         * emptied: closed here, so every test starts without it. */
        if (LAPI_SRV_napiConnected) {
            Fdops *pNapi = NapiFdops();
            if (pNapi != nullptr) {
                LAPI_SRV_RemoveFdopsReadList(pNapi);
                FreeFdops(pNapi);
            }
            NAPI_Fini();
            LAPI_SRV_napiConnected = 0;
        }
        for (int link = 1; link < 256; ++link) {
            NAPI_CloseLink(link);
        }
        LAPI_SRV_cfgFile = LAPI_SRV_CFG_FILE;
        HOST_SetRoot("");
    }

    bool SetProfile(const std::string &name) {
        return root_.WriteFile(LAPI_SRV_CFG_FILE, "AGPSProfileName=" + name + "\n");
    }

    /* The Fdops of the link service's descriptor (the one without socket). */
    static Fdops *NapiFdops() {
        for (ListNode *p = LAPI_SRV_readFdopsList.head; p != nullptr; p = p->next) {
            Fdops *pFdops = static_cast<Fdops *>(p->data);
            if (pFdops->readProc == LAPI_SRV_ReadNapiMsg) {
                return pFdops;
            }
        }
        return nullptr;
    }

    /* Writes bytes into the link service's FIFO, as a tester does. */
    bool WriteNapi(const Bytes &bytes) { return lapitest::WriteNapiFifo(root_, bytes); }

    /* One turn of the loop over the descriptors that are ready now (waiting
     * at most waitMs). */
    static void Turn(int waitMs) {
        fd_set rs;
        fd_set ws;
        memcpy(&rs, &readFdSet, sizeof(rs));
        memcpy(&ws, &writeFdSet, sizeof(ws));
        struct timeval tv = {0, waitMs * 1000};
        int n = select(LAPI_SRV_GetMaxFd() + 1, &rs, &ws, nullptr, &tv);
        if (n <= 0) {
            return;
        }
        RunReady(&LAPI_SRV_readFdopsList, &rs, true);
        RunReady(&LAPI_SRV_writeFdopsList, &ws, false);
    }

    /* Turns the loop until pred holds (true) or timeoutMs passes (false). */
    static bool PumpUntil(const std::function<bool()> &pred, int timeoutMs = 3000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!pred()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            Turn(5);
        }
        return true;
    }

    /* Collects BP messages while pumping until one with subCmdId arrives;
     * everything collected stays in Seen(). */
    bool PumpForBp(uint8_t subCmdId, int timeoutMs = 3000) {
        size_t from = seen_.size();
        return PumpUntil(
            [&] {
                for (Bytes &m : BpMsgs()) {
                    seen_.push_back(std::move(m));
                }
                for (size_t i = from; i < seen_.size(); ++i) {
                    if (!seen_[i].empty() && seen_[i][0] == subCmdId) {
                        return true;
                    }
                }
                return false;
            },
            timeoutMs);
    }
    /* Everything the BP received so far, taken with the pumps above. */
    std::vector<Bytes> &Seen() {
        for (Bytes &m : BpMsgs()) {
            seen_.push_back(std::move(m));
        }
        return seen_;
    }
    /* Those with one subCmdId. */
    std::vector<Bytes> SeenOf(uint8_t subCmdId) {
        std::vector<Bytes> out;
        for (const Bytes &m : Seen()) {
            if (!m.empty() && m[0] == subCmdId) {
                out.push_back(m);
            }
        }
        return out;
    }

    lapitest::TempRoot root_;

  private:
    static void RunReady(List *pList, fd_set *pSet, bool bRead) {
        ListNode *pPos = List_GetHeadPos(pList);
        while (pPos != nullptr) {
            Fdops *pFdops = static_cast<Fdops *>(List_GetNext(pList, &pPos));
            if (pFdops == nullptr || !FD_ISSET(pFdops->fd, pSet)) {
                continue;
            }
            FD_CLR(pFdops->fd, pSet);
            FdopsProc proc = bRead ? pFdops->readProc : pFdops->writeProc;
            if (proc == nullptr) {
                continue;
            }
            if (bRead) {
                LAPI_SRV_ClearReadListChanged();
            } else {
                LAPI_SRV_ClearWriteListChanged();
            }
            proc(pFdops);
            if (bRead ? LAPI_SRV_IsReadListChanged() : LAPI_SRV_IsWriteListChanged()) {
                pPos = List_GetHeadPos(pList);
            }
        }
    }

    std::string cfgPath_;
    std::vector<Bytes> seen_;
};

}  // namespace nettest

#endif /* NET_TEST_HARNESS_H */
