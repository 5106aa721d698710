/*
 * lapi_bench's two counting modes: the server run under a tool that counts
 * what it does, rather than timed.
 *
 *   instructions (callgrind): user-space instructions per get-location round
 *     trip and per status broadcast per extra client;
 *   system calls (strace -c -f): calls per round trip and per status
 *     broadcast to N clients.
 *
 * Each figure is the difference of two runs that differ only in the number
 * of operations (or of clients), divided by that difference: start-up,
 * registration and shutdown cancel out. The runs use the same scenario as
 * the timed bench: the BP simulator answering at once with its default fix,
 * diagnostics to the --server-log file (default /dev/null).
 */
#ifndef LAPI_BENCH_PROFILE_H
#define LAPI_BENCH_PROFILE_H

#include <string>

namespace bench {

enum class CountTool { Callgrind, Strace };

struct ProfileOptions {
    std::string binDir;
    std::string serverLog = "/dev/null";
    bool verbose = false;
    bool quick = false;
    /* When set, each run's tool output is kept there (for callgrind_annotate). */
    std::string keepDir;
};

/* Runs the counting mode and prints its table on standard output; the exit
 * status of lapi_bench (0 all figures, 1 set-up failure, 3 some missing). */
int RunCountMode(const ProfileOptions &options, CountTool tool);

}  // namespace bench

#endif /* LAPI_BENCH_PROFILE_H */
