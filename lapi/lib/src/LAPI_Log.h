/*
 * Diagnostic lines of the location server and of the client library.
 *
 * A line is always written whole: by default each line goes to standard
 * error in one write(2); once the server turns buffering on, lines are
 * gathered and written in chunks of whole lines (never more than PIPE_BUF
 * bytes when standard error is a pipe or a socket, so a chunk is never
 * interleaved with another writer's), and the server flushes them before
 * it waits in select, before anything it prints on standard output, when
 * the buffer is full, at exit and from its signal handler. Two forms:
 *   error: "{1} FILE:LINE\tLAPI Error SRV FUNC: message\n"
 *   trace: "{5} FILE:LINE, FUNC()\tLAPI SRV : message\n"
 * FILE is the base name of the source file. The client library's lines say
 * "CLI" where the server's say "SRV" (the side flag: 1 server, 0 client).
 */
#ifndef LAPI_LOG_H
#define LAPI_LOG_H

#include <stddef.h>

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
 * Makes standard error and standard output safe for a daemon (the server
 * calls it once at start-up; the client library never does, as the streams
 * belong to the application): a pipe or a terminal is reopened non-blocking
 * in place of descriptor 2 (and 1), a socket is written with send and
 * MSG_DONTWAIT. From then on a full standard error drops lines (counted,
 * and reported in one line when it takes writes again), a full standard
 * output drops text (LAPI_LogStdout), and neither stops the server.
 */
void LAPI_LogPrepareStream(void);

/* Text for standard output (the plain lines some tracers write beside
 * their trace): the gathered diagnostics go out first, so that the two
 * streams keep their order when they share a file. Once LAPI_LogPrepareStream
 * has run (the server) it never waits: what a full stream cannot take is
 * dropped, with an error line that says so. Before (the client library) it
 * goes through stdio, after what the application has written. */
void LAPI_LogStdout(const char *text, size_t length);

/* The same line with its message text given as it is (no format): used by
 * tracers that build their text themselves. */
void LAPI_LogText(int side, int isError, const char *file, int line, const char *func,
                  const char *text, size_t length);

/* A whole line ready to write: LAPI_LogBuildLine makes it (prefix, text,
 * '\n') into dst and returns its length, or 0 when it needs more than room
 * bytes; LAPI_LogPutLine writes such a line as the other lines are written.
 * For a line that is written many times over (a broadcast's trace). */
size_t LAPI_LogBuildLine(int side, int isError, const char *file, int line, const char *func,
                         const char *text, size_t length, char *dst, size_t room);
void LAPI_LogPutLine(int isError, const char *line, size_t length);

/* Turns the chunk buffer on (1) or off (0, after flushing it). Off by
 * default: the client library and the tools write each line at once. */
void LAPI_LogSetBuffered(int on);

/* Writes the gathered lines now. Nothing to do when buffering is off. */
void LAPI_LogFlush(void);

/* A signal handler that writes diagnostics brackets its work with these:
 * Enter writes out what was gathered (unless the interrupted code is in
 * the middle of writing it), and lines written in between go out at once,
 * never through the buffer that the interrupted code may be filling. */
void LAPI_LogSignalEnter(void);
void LAPI_LogSignalLeave(void);

/* The one place where diagnostic bytes reach standard error: a whole
 * number of lines, resumed after EINTR and short writes. */
void LAPI_LogWriteChunk(const char *data, size_t length);

/* Lines accepted since start (written or gathered): lets a caller see
 * whether some code it ran wrote a line. */
extern unsigned long LAPI_logLineCount;

/* The file name after the last '/', as diagnostics show it. */
const char *LAPI_LogBaseName(const char *path);

/* When set to 0, trace lines are not written (errors still are). Tools and
 * benchmarks use it; the server itself never changes it. Default 1. */
extern int LAPI_traceEnabled;

#ifdef __cplusplus
}
#endif

/* The source file as diagnostics name it: the compiler's base name where it
 * has one, so that no line has to search the path. */
#ifdef __FILE_NAME__
#define LAPI_LOG_FILE __FILE_NAME__
#else
#define LAPI_LOG_FILE __FILE__
#endif

/* The server's two diagnostic forms. */
#define LAPI_SRV_ERR(...) LAPI_LogLine(1, 1, LAPI_LOG_FILE, __LINE__, __func__, __VA_ARGS__)
#define LAPI_SRV_TRACE(...) LAPI_LogLine(1, 0, LAPI_LOG_FILE, __LINE__, __func__, __VA_ARGS__)

/* Code shared by both sides (tracing, hex dumps) picks the side at run time. */
#define LAPI_ERR_SIDE(side, ...) \
    LAPI_LogLine((side), 1, LAPI_LOG_FILE, __LINE__, __func__, __VA_ARGS__)
#define LAPI_TRACE_SIDE(side, ...) \
    LAPI_LogLine((side), 0, LAPI_LOG_FILE, __LINE__, __func__, __VA_ARGS__)

/* A large zero-initialised buffer that start-up leaves alone. Private
 * memory is counted in whole pages, and the pages of such a buffer that
 * nothing has written yet cost nothing; but a small variable that start-up
 * writes, sharing one of its pages, makes that page count. So each starts
 * on a page of its own, and the link of the server binaries gathers them
 * ahead of the other zero-initialised variables (cmake/lapi_pages.ld),
 * which then share as few pages as they can. */
#define LAPI_OWN_PAGES __attribute__((section(".bss.lapi_pages"), aligned(4096)))

#endif /* LAPI_LOG_H */
