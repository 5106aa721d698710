/*
 * lapi_bench: the bare relay, the yardstick the server is measured against.
 *
 * A minimal select loop on the same kinds of descriptors as the server: it
 * opens ROOT/dev/mux18 (a pseudo-terminal slave) and listens on
 * ROOT/tmp/lapisock (Unix stream). It does just enough to carry the
 * benchmark's traffic and nothing else: no trace lines, no transactions, no
 * deadlines, no checks beyond staying inside its buffers.
 *   registerReq      -> registerRsp (globalId = slot + 1)
 *   getAsyncFdReq    -> getAsyncFdRsp; the connection joins the status list
 *                       when the client asked for status (service bit 4)
 *   getLocationReq   -> one GEOLOCATION_APBP_REQ frame to the terminal, the
 *                       client's slot as the BP pair, the body copied as is
 *   BP STATUS_CHANGE_BPAP_IND (35 bytes) -> statusChangeInd (42 bytes) to
 *                       every status connection
 *   BP GEOLOCATION_APBP_RES -> getLocationRsp (1022 bytes) with the
 *                       client's pair on its synchronous connection
 */
#ifndef LAPI_BENCH_RELAY_H
#define LAPI_BENCH_RELAY_H

#include <string>

namespace bench {

/* Runs until killed; returns only on a set-up failure (non-zero). */
int RunRelay(const std::string &root);

}  // namespace bench

#endif /* LAPI_BENCH_RELAY_H */
