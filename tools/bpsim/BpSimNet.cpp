#include "BpSimNet.h"

#include <arpa/inet.h>

namespace bpsim {

namespace {

constexpr size_t kMaxName = 255; /* fqdnLength is one byte */

Bytes SocketHead(uint8_t subCmdId, uint8_t sessionId, uint8_t transactionId, uint32_t linkId) {
    Bytes m = MakeMsg(subCmdId, sessionId, transactionId);
    PutU32(&m, linkId);
    return m;
}

}  // namespace

std::optional<Bytes> BuildOpenSocketReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                                        const std::string &host, uint16_t port) {
    uint8_t ipv4[4] = {0, 0, 0, 0};
    const bool bIpv4 = inet_pton(AF_INET, host.c_str(), ipv4) == 1;
    if (!bIpv4 && host.size() > kMaxName) {
        return std::nullopt;
    }
    Bytes m = SocketHead(OPEN_SOCKET_BPAP_REQ, sessionId, transactionId, linkId);
    m.insert(m.end(), ipv4, ipv4 + 4); /* network order, as it is */
    PutU16(&m, port);
    PutU32(&m, bIpv4 ? 0 : 1);
    if (bIpv4) {
        PutU8(&m, 0);
    } else {
        PutU8(&m, static_cast<uint8_t>(host.size()));
        m.insert(m.end(), host.begin(), host.end());
    }
    return m;
}

Bytes BuildSendDataReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                       const Bytes &data) {
    Bytes m = SocketHead(SEND_DATA_BPAP_REQ, sessionId, transactionId, linkId);
    PutU32(&m, static_cast<uint32_t>(data.size()));
    m.insert(m.end(), data.begin(), data.end());
    return m;
}

Bytes BuildCloseSocketReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId) {
    return SocketHead(CLOSE_SOCKET_BPAP_REQ, sessionId, transactionId, linkId);
}

std::optional<Bytes> BuildTlsSessionReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                                        const std::string &fqdn) {
    if (fqdn.size() > kMaxName) {
        return std::nullopt;
    }
    Bytes m = SocketHead(TLS_SESSION_BPAP_REQ, sessionId, transactionId, linkId);
    PutU8(&m, static_cast<uint8_t>(fqdn.size()));
    m.insert(m.end(), fqdn.begin(), fqdn.end());
    return m;
}

std::optional<SocketMsg> ParseSocketMsg(const Message &msg) {
    SocketMsg m;
    m.subCmdId = msg.SubCmdId();
    m.sessionId = msg.SessionId();
    m.transactionId = msg.TransactionId();
    m.linkId = msg.U32(3).value_or(0);
    switch (m.subCmdId) {
        case OPEN_SOCKET_APBP_RES:
        case SEND_DATA_APBP_RES:
        case CLOSE_SOCKET_APBP_RES:
            if (msg.Size() != LAPI_BP_SOCKET_RES_LEN) {
                return std::nullopt;
            }
            m.result = static_cast<int32_t>(*msg.U32(7));
            return m;
        case TLS_SESSION_APBP_RES:
            if (msg.Size() != LAPI_BP_TLS_RES_LEN) {
                return std::nullopt;
            }
            m.result = msg.bytes[7];
            return m;
        case SOCKET_DATA_APBP_IND: {
            auto len = msg.U32(7);
            if (!len || msg.Size() < LAPI_BP_SOCKET_DATA_IND_MIN_LEN ||
                *len != msg.Size() - LAPI_BP_SOCKET_DATA_IND_MIN_LEN) {
                return std::nullopt;
            }
            m.data.assign(msg.bytes.begin() + 11, msg.bytes.begin() + 11 + *len);
            m.result = static_cast<int32_t>(*msg.U32(11 + *len));
            return m;
        }
        default:
            return std::nullopt;
    }
}

std::string DescribeSocketMsg(const SocketMsg &m) {
    const char *name = "?";
    switch (m.subCmdId) {
        case OPEN_SOCKET_APBP_RES:
            name = "open-rsp";
            break;
        case SEND_DATA_APBP_RES:
            name = "send-rsp";
            break;
        case CLOSE_SOCKET_APBP_RES:
            name = "close-rsp";
            break;
        case TLS_SESSION_APBP_RES:
            name = "tls-rsp";
            break;
        case SOCKET_DATA_APBP_IND:
            return "data link " + std::to_string(m.linkId) + " len " +
                   std::to_string(m.data.size()) + " result " + std::to_string(m.result) +
                   (m.data.empty() ? "" : " data " + ToHex(m.data));
        default:
            break;
    }
    return std::string(name) + " sid " + std::to_string(m.sessionId) + " tid " +
           std::to_string(m.transactionId) + " link " + std::to_string(m.linkId) + " result " +
           std::to_string(m.result);
}

}  // namespace bpsim
