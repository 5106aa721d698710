/*
 * The BP frame parser (reassembly, resynchronisation, dispatch) and the BP
 * message tracer on arbitrary bytes from the mux channel.
 *
 * The first input byte chooses how the rest is cut into reads (0: reads of
 * up to 1024 bytes, n: reads of up to n bytes). Each read is parsed in a
 * read buffer of exactly the bytes it holds (what the previous parse kept
 * plus the new bytes), so a one-byte overread in either direction is caught
 * at once. Whatever a read leaves behind is carried to the next one, as the
 * channel's buffer carries it.
 *
 * Dispatched messages reach the real BP procedures: with no client, no
 * transaction and no channel they can only refuse or log, so a run leaves
 * nothing behind (the lists are checked empty after every input).
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "LAPI_BpMsg.h"
#include "LAPI_Log.h"
#include "LAPI_SRV_BpMsgProc.h"
#include "LAPI_SRV_Global.h"

namespace {

void InitOnce() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    /* Every parse hex-dumps its buffer; the trace stream would dominate. */
    LAPI_traceEnabled = 0;
    LAPI_SRV_InitGlobals();
    LAPI_SRV_InitBpMsgProc();
    LAPI_SRV_InitBpMsgLogProc();
}

/* One read: the parser sees a buffer of exactly carried + chunk bytes. */
void ParseRead(std::vector<uint8_t> *carried, const uint8_t *chunk, size_t n) {
    size_t total = carried->size() + n;
    if (total == 0 || total > LAPI_BP_FRAME_MAX_LEN) {
        abort(); /* the caller keeps every read within the channel's buffer */
    }
    uint8_t *block = static_cast<uint8_t *>(malloc(total));
    if (block == nullptr) {
        return;
    }
    if (!carried->empty()) {
        memcpy(block, carried->data(), carried->size());
    }
    memcpy(block + carried->size(), chunk, n);

    Fdops fdops;
    memset(&fdops, 0, sizeof(fdops));
    fdops.fd = -1;
    fdops.rbuf.buf = block;
    fdops.rbuf.len = static_cast<uint16_t>(total);
    fdops.rbuf.idx = static_cast<uint16_t>(total);
    if (LAPI_SRV_BpMsgParse(&fdops) != 0) {
        abort();
    }
    /* What is kept is an incomplete frame: it always leaves room to grow. */
    if (fdops.rbuf.idx > total || fdops.rbuf.idx >= LAPI_BP_FRAME_MAX_LEN) {
        abort();
    }
    carried->assign(block, block + fdops.rbuf.idx);
    free(block);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    InitOnce();
    if (size == 0) {
        return 0;
    }
    LAPI_SRV_ResetBpMsgParse();
    size_t maxRead = data[0] == 0 ? LAPI_BP_FRAME_MAX_LEN : data[0];
    const uint8_t *p = data + 1;
    size_t left = size - 1;

    std::vector<uint8_t> carried;
    while (left > 0) {
        size_t room = LAPI_BP_FRAME_MAX_LEN - carried.size();
        size_t n = left < maxRead ? left : maxRead;
        n = n < room ? n : room;
        ParseRead(&carried, p, n);
        p += n;
        left -= n;
    }

    /* The same bytes as one message for the tracer, in its own exact copy. */
    size_t msgLen = size - 1 < 1100 ? size - 1 : 1100;
    if (msgLen > 0) {
        uint8_t *msg = static_cast<uint8_t *>(malloc(msgLen));
        if (msg != nullptr) {
            memcpy(msg, data + 1, msgLen);
            LAPI_LogBpMsg(msg, static_cast<int>(msgLen));
            free(msg);
        }
    }

    if (LAPI_SRV_pMuxFdops != nullptr || LAPI_SRV_tranList.count != 0 ||
        LAPI_SRV_allClientList.count != 0 || LAPI_SRV_muxSendDataList.count != 0) {
        abort();
    }
    return 0;
}
