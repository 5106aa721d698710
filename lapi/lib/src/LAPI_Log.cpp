#include "LAPI_Log.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

int LAPI_traceEnabled = 1;

namespace {

/* What became of the stream. Plain flags: the funnel also runs inside
 * signal handlers. */
volatile sig_atomic_t gStreamGone = 0;   /* EPIPE: its reader left; never written again */
volatile sig_atomic_t gDroppedLines = 0; /* lines dropped while it was full */
volatile sig_atomic_t gMidLine = 0;      /* a dropped line left half a line behind */
volatile sig_atomic_t gUseSend = 0;      /* a socket: written with send, never blocking */

enum ChunkResult { kChunkWritten, kChunkWouldBlock, kChunkGone };

/* Pipe size asked for standard error (the default limit for a user). */
constexpr int kStderrPipeSize = 1024 * 1024;

/*
 * The one place that writes diagnostics. Resumes after EINTR and short
 * writes; never waits for a reader. A stream whose reader has gone (EPIPE)
 * is given up for good, so the SIGPIPE trace cannot raise SIGPIPE again and
 * again; a stream that is full reports it and the caller drops the line.
 */
ChunkResult WriteChunk(const char *p, size_t n) {
    size_t done = 0;
    while (done < n) {
        ssize_t w = gUseSend ? send(STDERR_FILENO, p + done, n - done, MSG_DONTWAIT | MSG_NOSIGNAL)
                             : write(STDERR_FILENO, p + done, n - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (done > 0) {
                gMidLine = 1;
            }
            return kChunkWouldBlock;
        }
        if (w < 0 && errno == EPIPE) {
            gStreamGone = 1;
        }
        return kChunkGone;
    }
    return kChunkWritten;
}

/* One finished line: first the count of the lines that a full stream made
 * us drop, once it takes writes again, then the line itself. */
void EmitLine(int side, const char *buf, size_t len) {
    if (gStreamGone) {
        return;
    }
    if (gDroppedLines > 0) {
        char report[192];
        int n = snprintf(report, sizeof(report),
                         "%s{%d} %s:%d\tLAPI Error %s %s: %d diagnostic lines dropped, standard "
                         "error was full\n",
                         gMidLine ? "\n" : "", LAPI_LOG_LEVEL_ERROR, LAPI_LogBaseName(__FILE__),
                         __LINE__, side ? "SRV" : "CLI", __func__, static_cast<int>(gDroppedLines));
        if (n <= 0 || static_cast<size_t>(n) >= sizeof(report)) {
            n = 0;
        }
        gMidLine = 0;
        ChunkResult r = WriteChunk(report, static_cast<size_t>(n));
        if (r != kChunkWritten) {
            if (r == kChunkWouldBlock) {
                gDroppedLines = gDroppedLines + 1;
            }
            return;
        }
        gDroppedLines = 0;
    }
    if (WriteChunk(buf, len) == kChunkWouldBlock) {
        gDroppedLines = gDroppedLines + 1;
    }
}

}  // namespace

extern "C" void LAPI_LogPrepareStream(void) {
    struct stat st;
    if (fstat(STDERR_FILENO, &st) != 0) {
        return;
    }
    if (S_ISSOCK(st.st_mode)) {
        gUseSend = 1;
        return;
    }
    if (!S_ISFIFO(st.st_mode) && !S_ISCHR(st.st_mode)) {
        return; /* a file never keeps a writer waiting */
    }
    /* A pipe or a terminal: a new open file description of the same
     * stream, non-blocking, in place of descriptor 2, so that the flag does
     * not change the stream that the parent and its other children share. */
    int fd = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return; /* a pipe without a reader: writes fail at once with EPIPE */
    }
    if (fd != STDERR_FILENO) {
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    /* A reader that is merely slower than a burst of traces (a hex dump per
     * frame) should lose nothing: room for a long burst before anything is
     * dropped, as far as the system allows an unprivileged process. */
    if (S_ISFIFO(st.st_mode)) {
        (void)fcntl(STDERR_FILENO, F_SETPIPE_SZ, kStderrPipeSize);
    }
}

extern "C" const char *LAPI_LogBaseName(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

extern "C" void LAPI_LogLine(int side, int isError, const char *file, int line, const char *func,
                             const char *fmt, ...) {
    if (!isError && !LAPI_traceEnabled) {
        return;
    }
    int savedErrno = errno;
    const char *who = side ? "SRV" : "CLI";
    /* Most lines fit on the stack; the long ones (hex dumps of whole frames,
     * traced getLocationRsp) take a heap block sized to the line. */
    char stackBuf[8192];
    char *buf = stackBuf;
    size_t cap = sizeof(stackBuf);
    char *heapBuf = nullptr;

    for (int pass = 0; pass < 2; ++pass) {
        int head = isError
                       ? snprintf(buf, cap, "{%d} %s:%d\tLAPI Error %s %s: ", LAPI_LOG_LEVEL_ERROR,
                                  LAPI_LogBaseName(file), line, who, func)
                       : snprintf(buf, cap, "{%d} %s:%d, %s()\tLAPI %s : ", LAPI_LOG_LEVEL_TRACE,
                                  LAPI_LogBaseName(file), line, func, who);
        if (head < 0) {
            break;
        }
        size_t used = static_cast<size_t>(head) < cap ? static_cast<size_t>(head) : cap - 1;
        va_list ap;
        va_start(ap, fmt);
        int body = vsnprintf(buf + used, cap - used, fmt, ap);
        va_end(ap);
        if (body < 0) {
            break;
        }
        size_t total = static_cast<size_t>(head) + static_cast<size_t>(body) + 1; /* + '\n' */
        if (total < cap) {
            buf[total - 1] = '\n';
            EmitLine(side, buf, total);
            break;
        }
        if (pass == 0) {
            heapBuf = static_cast<char *>(malloc(total + 1));
            if (heapBuf == nullptr) {
                /* Out of memory: write what fits rather than nothing. */
                buf[cap - 2] = '\n';
                EmitLine(side, buf, cap - 1);
                break;
            }
            buf = heapBuf;
            cap = total + 1;
        }
    }
    free(heapBuf);
    errno = savedErrno;
}
