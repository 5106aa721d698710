#include "LAPI_Log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int LAPI_traceEnabled = 1;

namespace {

/* Writes the whole block, resuming after EINTR and short writes. */
void WriteAll(const char *p, size_t n) {
    while (n > 0) {
        ssize_t w = write(STDERR_FILENO, p, n);
        if (w < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
}

}  // namespace

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
            WriteAll(buf, total);
            break;
        }
        if (pass == 0) {
            heapBuf = static_cast<char *>(malloc(total + 1));
            if (heapBuf == nullptr) {
                /* Out of memory: write what fits rather than nothing. */
                buf[cap - 2] = '\n';
                WriteAll(buf, cap - 1);
                break;
            }
            buf = heapBuf;
            cap = total + 1;
        }
    }
    free(heapBuf);
    errno = savedErrno;
}
