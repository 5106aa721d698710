/*
 * The network side of the BP simulator: the requests with which the BP has
 * the server open, use and close TCP sockets and put TLS on them, and the
 * server's socket answers and received-data indications read back.
 *
 * Everything here builds or reads message bytes; sending goes through
 * Simulator::Send like any other message.
 */
#ifndef BPSIM_BPSIMNET_H
#define BPSIM_BPSIMNET_H

#include <stdint.h>

#include <optional>
#include <string>

#include "BpSim.h"

namespace bpsim {

/* OPEN_SOCKET_BPAP_REQ: by IPv4 address when host is a dotted IPv4 address,
 * by host name otherwise. nullopt for a name longer than 255 bytes. */
std::optional<Bytes> BuildOpenSocketReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                                        const std::string &host, uint16_t port);
/* SEND_DATA_BPAP_REQ with the data's own length. */
Bytes BuildSendDataReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                       const Bytes &data);
/* CLOSE_SOCKET_BPAP_REQ. */
Bytes BuildCloseSocketReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId);
/* TLS_SESSION_BPAP_REQ; nullopt for a name longer than 255 bytes. */
std::optional<Bytes> BuildTlsSessionReq(uint8_t sessionId, uint8_t transactionId, uint32_t linkId,
                                        const std::string &fqdn);

/* Largest data of one send request: a whole frame holds no more. */
constexpr size_t kMaxSendData = LAPI_BP_MSG_MAX_LEN - LAPI_BP_SEND_DATA_REQ_MIN_LEN;

/* A socket answer or indication of the server. */
struct SocketMsg {
    uint8_t subCmdId = 0; /* 10, 12, 13, 15 or 31 */
    uint8_t sessionId = 0;
    uint8_t transactionId = 0;
    uint32_t linkId = 0;
    int32_t result = 0; /* TLS: 0 done, 1 not set up, 2 handshake failed */
    Bytes data;         /* received data (13 only) */
};

/* The message read as a socket answer or indication; nullopt for any
 * other identifier or a message of the wrong length. */
std::optional<SocketMsg> ParseSocketMsg(const Message &msg);
/* One line: "open-rsp sid 1 tid 2 link 5 result 0",
 * "data link 5 len 3 result 0 data 61 62 63". */
std::string DescribeSocketMsg(const SocketMsg &m);

}  // namespace bpsim

#endif /* BPSIM_BPSIMNET_H */
