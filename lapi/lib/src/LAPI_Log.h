/*
 * Diagnostic lines of the location server and of the client library.
 *
 * Every line goes to standard error in one write(2), so lines from a
 * signal handler or from two processes sharing the stream never interleave
 * mid-line. Two forms:
 *   error: "{1} FILE:LINE\tLAPI Error SRV FUNC: message\n"
 *   trace: "{5} FILE:LINE, FUNC()\tLAPI SRV : message\n"
 * FILE is the base name of the source file. The client library's lines say
 * "CLI" where the server's say "SRV" (the side flag: 1 server, 0 client).
 */
#ifndef LAPI_LOG_H
#define LAPI_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    LAPI_LOG_LEVEL_ERROR = 1,
    LAPI_LOG_LEVEL_TRACE = 5,
};

/* side: 1 for the server ("SRV"), 0 for the client library ("CLI"). */
void LAPI_LogLine(int side, int isError, const char *file, int line, const char *func,
                  const char *fmt, ...) __attribute__((format(printf, 6, 7)));

/*
 * Makes standard error safe for a daemon (the server calls it once at
 * start-up; the client library never does, as the stream belongs to the
 * application): a pipe or a terminal is reopened non-blocking in place of
 * descriptor 2, a socket is written with send and MSG_DONTWAIT. From then
 * on a full stream drops lines (counted, and reported in one line when it
 * takes writes again) and never stops the server.
 */
void LAPI_LogPrepareStream(void);

/* The file name after the last '/', as diagnostics show it. */
const char *LAPI_LogBaseName(const char *path);

/* When set to 0, trace lines are not written (errors still are). Tools and
 * benchmarks use it; the server itself never changes it. Default 1. */
extern int LAPI_traceEnabled;

#ifdef __cplusplus
}
#endif

/* The server's two diagnostic forms. */
#define LAPI_SRV_ERR(...) LAPI_LogLine(1, 1, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define LAPI_SRV_TRACE(...) LAPI_LogLine(1, 0, __FILE__, __LINE__, __func__, __VA_ARGS__)

/* Code shared by both sides (tracing, hex dumps) picks the side at run time. */
#define LAPI_ERR_SIDE(side, ...) LAPI_LogLine((side), 1, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define LAPI_TRACE_SIDE(side, ...) \
    LAPI_LogLine((side), 0, __FILE__, __LINE__, __func__, __VA_ARGS__)

#endif /* LAPI_LOG_H */
