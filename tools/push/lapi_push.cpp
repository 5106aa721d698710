/*
 * lapi_push: delivers one WAP push to a location server run on a host,
 * the way the network would: as a UDP datagram to the push port, or as an
 * SMS for application port 2948 through the telephony FIFO of a host root.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <string>

#include "BpSim.h"
#include "PushPdu.h"
#include "lapi_version.h"

namespace {

const char kUsage[] =
    "usage: lapi_push (--udp PORT | --root DIR) (--hex HEX | --file FILE) [--supl-init]\n"
    "                 [--sms-port N] [--from ADDR] [--msg-id N] [--tid N] [--dry-run]\n"
    "       lapi_push --help | --version\n";

const char kHelp[] =
    "Sends one WSP push PDU to a location server on this machine.\n"
    "\n"
    "What is sent:\n"
    "  --hex HEX      the bytes given as hex (\"0106...\" or \"01 06 ...\")\n"
    "  --file FILE    the bytes of FILE\n"
    "  --supl-init    take those bytes as a SUPL INIT and send them as the body\n"
    "                 of a push PDU (content type application/vnd.omaloc-supl-init,\n"
    "                 application id x-oma-application:ulp.ua); without it they\n"
    "                 are sent as the whole PDU\n"
    "  --tid N        TID of the wrapped PDU (0..255, default 0)\n"
    "\n"
    "How it is sent:\n"
    "  --udp PORT     one datagram to 127.0.0.1:PORT (the server's --push-port)\n"
    "  --root DIR     one SMS-port message written to DIR/run/tapi.fifo, the\n"
    "                 telephony stand-in of a server started with --root DIR\n"
    "  --sms-port N   destination port of the SMS (default 2948)\n"
    "  --from ADDR    source address of the SMS (default +15550100)\n"
    "  --msg-id N     telephony message id (default 0x0307, the SMS-port message)\n"
    "\n"
    "  --dry-run      print the bytes that would be sent, as hex, and send nothing\n"
    "  --help         this text\n"
    "  --version      the version\n"
    "\n"
    "Exit status: 0 sent, 1 it could not be sent, 2 bad command line.\n";

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

[[noreturn]] void Usage(const char *why) {
    fprintf(stderr, "lapi_push: %s\n%s", why, kUsage);
    exit(kExitUsage);
}

/* Decimal or 0x-hex number in [lo, hi]. */
long Number(const char *text, long lo, long hi, const char *option) {
    char *end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 0);
    if (end == text || *end != '\0' || errno != 0 || v < lo || v > hi) {
        std::string why = std::string(option) + " takes a number from " + std::to_string(lo) +
                          " to " + std::to_string(hi);
        Usage(why.c_str());
    }
    return v;
}

}  // namespace

int main(int argc, char **argv) {
    const char *pHex = nullptr;
    const char *pFile = nullptr;
    const char *pRoot = nullptr;
    long udpPort = 0;
    long smsPort = lapipush::kWapPushPort;
    long msgId = lapipush::kTapiSmsPortMsgId;
    long tid = 0;
    std::string from = "+15550100";
    bool suplInit = false;
    bool dryRun = false;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            fputs(kHelp, stdout);
            return 0;
        }
        if (arg == "--version") {
            printf("lapi_push %s\n", LAPI_VERSION_STRING);
            return 0;
        }
        if (arg == "--supl-init") {
            suplInit = true;
            continue;
        }
        if (arg == "--dry-run") {
            dryRun = true;
            continue;
        }
        if (i + 1 >= argc) {
            Usage(("unknown option or missing value: " + arg).c_str());
        }
        const char *v = argv[++i];
        if (arg == "--hex") {
            pHex = v;
        } else if (arg == "--file") {
            pFile = v;
        } else if (arg == "--root") {
            pRoot = v;
        } else if (arg == "--udp") {
            udpPort = Number(v, 1, 65535, "--udp");
        } else if (arg == "--sms-port") {
            smsPort = Number(v, 0, 65535, "--sms-port");
        } else if (arg == "--msg-id") {
            msgId = Number(v, 0, 65535, "--msg-id");
        } else if (arg == "--tid") {
            tid = Number(v, 0, 255, "--tid");
        } else if (arg == "--from") {
            from = v;
        } else {
            Usage(("unknown option: " + arg).c_str());
        }
    }
    if ((pHex == nullptr) == (pFile == nullptr)) {
        Usage("give exactly one of --hex and --file");
    }
    if ((pRoot == nullptr) == (udpPort == 0)) {
        Usage("give exactly one of --udp and --root");
    }

    lapipush::Bytes bytes;
    if (pHex != nullptr) {
        auto parsed = bpsim::ParseHex(pHex);
        if (!parsed) {
            Usage("--hex takes pairs of hex digits");
        }
        bytes = *parsed;
    } else {
        std::ifstream in(pFile, std::ios::binary);
        if (!in) {
            fprintf(stderr, "lapi_push: cannot read %s: %s\n", pFile, strerror(errno));
            return kExitFailed;
        }
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    lapipush::Bytes pdu =
        suplInit ? lapipush::SuplInitPush(bytes, static_cast<uint8_t>(tid)) : bytes;

    lapipush::Bytes out;
    if (pRoot != nullptr) {
        lapipush::Bytes body = lapipush::SmsPortBody(pdu, static_cast<uint16_t>(smsPort), from);
        if (body.size() > 65535) {
            fprintf(stderr, "lapi_push: %zu bytes do not fit one telephony message\n", pdu.size());
            return kExitFailed;
        }
        out = lapipush::TapiRecord(static_cast<uint16_t>(msgId), body);
    } else {
        if (pdu.size() > 65507) {
            fprintf(stderr, "lapi_push: %zu bytes do not fit one datagram\n", pdu.size());
            return kExitFailed;
        }
        out = pdu;
    }
    if (dryRun) {
        printf("%s\n", bpsim::ToHex(out).c_str());
        return 0;
    }

    std::string error;
    bool ok = pRoot != nullptr ? lapipush::SendTapi(pRoot, out, &error)
                               : lapipush::SendUdp(static_cast<int>(udpPort), out, &error);
    if (!ok) {
        fprintf(stderr, "lapi_push: %s\n", error.c_str());
        return kExitFailed;
    }
    if (pRoot != nullptr) {
        printf("lapi_push: sent a %zu-byte push PDU as an SMS for port %ld from %s through %s\n",
               pdu.size(), smsPort, from.c_str(), lapipush::TapiFifoPath(pRoot).c_str());
    } else {
        printf("lapi_push: sent a %zu-byte push PDU by UDP to 127.0.0.1:%ld\n", pdu.size(),
               udpPort);
    }
    return 0;
}
