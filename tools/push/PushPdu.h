/*
 * Building and delivering WAP pushes for a host server: a connectionless
 * WSP push PDU carrying a SUPL INIT, the telephony stand-in's SMS-port
 * record around a PDU, and the two ways in (a UDP datagram to 127.0.0.1, or
 * one write to ROOT/run/tapi.fifo).
 */
#ifndef LAPIPUSH_PUSHPDU_H
#define LAPIPUSH_PUSHPDU_H

#include <stdint.h>

#include <string>
#include <vector>

namespace lapipush {

using Bytes = std::vector<uint8_t>;

/* Content type and application id of a SUPL INIT push. */
constexpr char kSuplInitContentType[] = "application/vnd.omaloc-supl-init";
constexpr uint8_t kSuplAppId = 0x10; /* x-oma-application:ulp.ua */

/* Telephony message id of an SMS for an application port, and the port. */
constexpr uint16_t kTapiSmsPortMsgId = 0x0307;
constexpr uint16_t kWapPushPort = 2948;
/* Where the fields lie in the SMS-port record. */
constexpr size_t kTapiHeaderLen = 8;
constexpr size_t kDestPortOffset = 10;
constexpr size_t kSourceOffset = 54;
constexpr size_t kUserDataLenOffset = 112;
constexpr size_t kUserDataOffset = 114;

/* WSP uintvar of value. */
Bytes Uintvar(uint32_t value);
/* TID, push type 6, HeadersLen, the Content-Type as text, X-WAP-Application-Id
 * as a short integer, then body. */
Bytes SuplInitPush(const Bytes &body, uint8_t tid = 0);

/* The 8-byte telephony header: msgId, dataLen, a zero pointer slot, host
 * byte order. */
Bytes TapiHeader(uint16_t msgId, uint16_t dataLen);
/* The body of an SMS-port message: destination port, source address (cut to
 * its field) and the user data. */
Bytes SmsPortBody(const Bytes &userData, uint16_t destPort = kWapPushPort,
                  const std::string &source = "+15550100");
/* Header and body in one block. */
Bytes TapiRecord(uint16_t msgId, const Bytes &body);

/* One datagram to 127.0.0.1:port. False with a reason on failure. */
bool SendUdp(int port, const Bytes &pdu, std::string *error);
/* ROOT/run/tapi.fifo. */
std::string TapiFifoPath(const std::string &root);
/* Opens the FIFO for writing (blocking writes); -1 with a reason when no
 * server holds it. */
int OpenTapiFifo(const std::string &root, std::string *error);
/* Writes all bytes in one write call (repeated only if the FIFO takes them
 * in parts). */
bool WriteAll(int fd, const Bytes &bytes, std::string *error);
/* Opens, writes the record in one write, closes. */
bool SendTapi(const std::string &root, const Bytes &record, std::string *error);

}  // namespace lapipush

#endif /* LAPIPUSH_PUSHPDU_H */
