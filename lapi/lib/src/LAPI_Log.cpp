#include "LAPI_Log.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdint.h>

#include <atomic>
#include <charconv>

int LAPI_traceEnabled = 1;
unsigned long LAPI_logLineCount = 0;

namespace {

/* What became of the stream. Plain flags: the funnel also runs inside
 * signal handlers. */
volatile sig_atomic_t gStreamGone = 0;   /* EPIPE: its reader left; never written again */
volatile sig_atomic_t gDroppedLines = 0; /* lines dropped while it was full */
volatile sig_atomic_t gMidLine = 0;      /* a dropped line left half a line behind */
volatile sig_atomic_t gUseSend = 0;      /* a socket: written with send, never blocking */
/* The same for standard output, which only the main flow writes; until it
 * is prepared (never, in the client library) it is the application's
 * stream and is written through stdio. */
bool gStdoutPrepared = false;
bool gStdoutGone = false;
bool gStdoutUseSend = false;
/* The side of the last line accepted: dropped lines are reported in its name. */
volatile sig_atomic_t gLastSide = 1;

enum ChunkResult { kChunkWritten, kChunkWouldBlock, kChunkGone };

/* Pipe size asked for standard error (the default limit for a user). */
constexpr int kStderrPipeSize = 1024 * 1024;

/*
 * The one place that writes diagnostics. Resumes after EINTR and short
 * writes; never waits for a reader. A stream whose reader has gone (EPIPE)
 * is given up for good, so the SIGPIPE trace cannot raise SIGPIPE again and
 * again; a stream that is full reports it and the caller drops the line.
 */
ChunkResult WriteStream(int fd, bool useSend, const char *p, size_t n, size_t *pDone) {
    size_t &done = *pDone;
    done = 0;
    while (done < n) {
        ssize_t w = useSend ? send(fd, p + done, n - done, MSG_DONTWAIT | MSG_NOSIGNAL)
                            : write(fd, p + done, n - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return kChunkWouldBlock;
        }
        return kChunkGone;
    }
    return kChunkWritten;
}

ChunkResult WriteChunk(const char *p, size_t n, size_t *pDone) {
    ChunkResult r = WriteStream(STDERR_FILENO, gUseSend != 0, p, n, pDone);
    if (r == kChunkWouldBlock && *pDone > 0 && p[*pDone - 1] != '\n') {
        gMidLine = 1;
    }
    if (r == kChunkGone && errno == EPIPE) {
        gStreamGone = 1;
    }
    return r;
}

/* Lines up to this size are built on the stack when they go out at once;
 * the long ones (hex dumps of whole frames, traced getLocationRsp) take a
 * heap block sized to the line. */
constexpr size_t kStackLineSize = 8192;

/* The chunk buffer. On a pipe or a socket a chunk stays within PIPE_BUF so
 * that the kernel writes it in one piece. */
constexpr size_t kChunkSize = 32768;
LAPI_OWN_PAGES char gChunk[kChunkSize];
size_t gCap = kChunkSize;
bool gBuffered = false;
bool gAtExit = false;

/* Gathered lines are gChunk[gStart, gLen). Only whole lines lie below gLen:
 * a line is built above it and then committed by moving gLen. The signal
 * handler may write out [gStart, gLen) while the interrupted code builds
 * the next line, and then moves gStart past what it wrote. */
volatile size_t gStart = 0;
volatile size_t gLen = 0;
enum { kIdle = 0, kAppending = 1, kFlushing = 2 };
volatile sig_atomic_t gState = kIdle;
volatile sig_atomic_t gInSignal = 0;

/* Where a line is built: copies what fits below end and counts it all,
 * like snprintf, so that the caller learns the full length either way. */
struct Out {
    char *p;
    char *end;
    size_t total;

    void Put(const char *s, size_t n) {
        size_t room = static_cast<size_t>(end - p);
        size_t k = n < room ? n : room;
        memcpy(p, s, k);
        p += k;
        total += n;
    }
    void PutChar(char c) {
        if (p < end) {
            *p++ = c;
        }
        ++total;
    }
    void Pad(char c, int n) {
        for (int i = 0; i < n; ++i) {
            PutChar(c);
        }
    }
};

/* The line's fixed parts:
 *   error: "{1} FILE:LINE\tLAPI Error SRV FUNC: "
 *   trace: "{5} FILE:LINE, FUNC()\tLAPI SRV : " */
void PutPrefix(Out *o, int side, int isError, const char *file, int line, const char *func) {
    const char *base = LAPI_LogBaseName(file);
    char num[16];
    char *numEnd = std::to_chars(num, num + sizeof(num), line).ptr;
    const char *who = side ? "SRV" : "CLI";
    o->Put(isError ? "{1} " : "{5} ", 4);
    o->Put(base, strlen(base));
    o->PutChar(':');
    o->Put(num, static_cast<size_t>(numEnd - num));
    if (isError) {
        o->Put("\tLAPI Error ", 12);
        o->Put(who, 3);
        o->PutChar(' ');
        o->Put(func, strlen(func));
        o->Put(": ", 2);
    } else {
        o->Put(", ", 2);
        o->Put(func, strlen(func));
        o->Put("()\tLAPI ", 8);
        o->Put(who, 3);
        o->Put(" : ", 3);
    }
}

/* The message text. A format without conversions is copied; the few
 * conversions the server's messages use ("%d", "%u", "%s", "%p", "%x"
 * with an optional '0' flag and width, "%%") are formatted here, with the
 * output printf gives; anything else goes to vsnprintf. */
struct Body {
    const char *fmt;
    va_list *pAp;
    const char *plain; /* set when the text is given as it is */
    size_t plainLen;
};

/* Formats fmt by hand; false (having written nothing that counts) when it
 * holds a conversion that is left to vsnprintf. */
bool FormatByHand(Out *o, const char *fmt, va_list ap) {
    for (const char *f = fmt; *f != '\0';) {
        const char *pct = strchr(f, '%');
        if (pct == nullptr) {
            o->Put(f, strlen(f));
            break;
        }
        o->Put(f, static_cast<size_t>(pct - f));
        f = pct + 1;
        bool zero = false;
        int width = 0;
        if (*f == '0') {
            zero = true;
            ++f;
        }
        while (*f >= '0' && *f <= '9') {
            width = width * 10 + (*f - '0');
            if (width > 64) {
                return false;
            }
            ++f;
        }
        char num[32];
        char *numEnd = num;
        const char *text = num;
        bool negative = false;
        switch (*f) {
            case '%':
                if (zero || width != 0) {
                    return false;
                }
                o->PutChar('%');
                ++f;
                continue;
            case 'd':
            case 'i': {
                int v = va_arg(ap, int);
                negative = v < 0;
                unsigned magnitude =
                    negative ? 0u - static_cast<unsigned>(v) : static_cast<unsigned>(v);
                numEnd = std::to_chars(num, num + sizeof(num), magnitude).ptr;
                break;
            }
            case 'u':
                numEnd = std::to_chars(num, num + sizeof(num), va_arg(ap, unsigned)).ptr;
                break;
            case 'x':
                numEnd = std::to_chars(num, num + sizeof(num), va_arg(ap, unsigned), 16).ptr;
                break;
            case 's':
            case 'p':
                if (zero || width != 0) {
                    return false;
                }
                if (*f == 's') {
                    const char *str = va_arg(ap, const char *);
                    text = str != nullptr ? str : "(null)";
                    numEnd = const_cast<char *>(text) + strlen(text);
                } else {
                    void *ptr = va_arg(ap, void *);
                    if (ptr == nullptr) {
                        text = "(nil)";
                        numEnd = const_cast<char *>(text) + 5;
                    } else {
                        num[0] = '0';
                        num[1] = 'x';
                        numEnd = std::to_chars(num + 2, num + sizeof(num),
                                               reinterpret_cast<uintptr_t>(ptr), 16)
                                     .ptr;
                    }
                }
                break;
            default:
                return false;
        }
        ++f;
        int len = static_cast<int>(numEnd - text) + (negative ? 1 : 0);
        int pad = width > len ? width - len : 0;
        if (!zero) {
            o->Pad(' ', pad);
        }
        if (negative) {
            o->PutChar('-');
        }
        if (zero) {
            o->Pad('0', pad);
        }
        o->Put(text, static_cast<size_t>(numEnd - text));
    }
    return true;
}

void PrepareBody(Body *b, const char *fmt, va_list *pAp) {
    b->fmt = fmt;
    b->pAp = pAp;
    b->plain = nullptr;
    b->plainLen = 0;
    if (fmt[0] == '%' && fmt[1] == 's' && fmt[2] == '\0') {
        va_list ap;
        va_copy(ap, *pAp);
        const char *s = va_arg(ap, const char *);
        va_end(ap);
        b->plain = s != nullptr ? s : "(null)";
        b->plainLen = strlen(b->plain);
    } else if (strchr(fmt, '%') == nullptr) {
        b->plain = fmt;
        b->plainLen = strlen(fmt);
    }
}

/* Appends the text; false when it cannot be formatted. */
bool PutBody(Out *o, const Body &b) {
    if (b.plain != nullptr) {
        o->Put(b.plain, b.plainLen);
        return true;
    }
    Out saved = *o;
    va_list ap;
    va_copy(ap, *b.pAp);
    bool done = FormatByHand(o, b.fmt, ap);
    va_end(ap);
    if (done) {
        return true;
    }
    *o = saved;
    va_copy(ap, *b.pAp);
    size_t room = static_cast<size_t>(o->end - o->p);
    /* vsnprintf terminates what it writes: it gets one byte more than the
     * room, which BuildLine keeps for the '\n'. */
    char spare;
    int n = room > 0 ? vsnprintf(o->p, room + 1, b.fmt, ap) : vsnprintf(&spare, 1, b.fmt, ap);
    va_end(ap);
    if (n < 0) {
        return false;
    }
    size_t k = static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room;
    o->p += k;
    o->total += static_cast<size_t>(n);
    return true;
}

struct Head {
    int side;
    int isError;
    const char *file;
    int line;
    const char *func;
};

/* The prefix of a call site never changes: the last 32 sites' prefixes are
 * kept (indexed by line and function), so a line costs one copy of it. The
 * signal handler builds its own and never touches these. */
struct PrefixSlot {
    const char *file;
    const char *func;
    int line;
    int side;
    int isError;
    int len; /* 0: empty slot */
    char text[96];
};
constexpr size_t kPrefixSlots = 32; /* a power of two */
/* One page in all: the slots are private memory once written. */
static_assert(sizeof(PrefixSlot) * kPrefixSlots <= 4096);
LAPI_OWN_PAGES PrefixSlot gPrefix[kPrefixSlots];

/* The call site's prefix, from the slots; null when it must be built.
 * Two slots may hold a site (its own and the next), so that two busy sites
 * with the same index do not keep replacing each other. */
bool SlotHolds(const PrefixSlot &slot, const Head &h) {
    return slot.len > 0 && slot.line == h.line && slot.func == h.func && slot.file == h.file &&
           slot.side == h.side && slot.isError == h.isError;
}

const PrefixSlot *CachedPrefix(const Head &h) {
    if (gInSignal != 0) {
        return nullptr;
    }
    static unsigned turn = 0;
    uint64_t key = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h.func)) ^
                   (static_cast<uint64_t>(h.line) << 20);
    size_t i = static_cast<size_t>((key * 0x9E3779B97F4A7C15ULL) >> 59) & (kPrefixSlots - 1);
    size_t j = (i + 1) & (kPrefixSlots - 1);
    if (SlotHolds(gPrefix[i], h)) {
        return &gPrefix[i];
    }
    if (SlotHolds(gPrefix[j], h)) {
        return &gPrefix[j];
    }
    PrefixSlot &slot = gPrefix[gPrefix[i].len == 0   ? i
                               : gPrefix[j].len == 0 ? j
                               : (++turn & 1)        ? i
                                                     : j];
    Out o{slot.text, slot.text + sizeof(slot.text), 0};
    PutPrefix(&o, h.side, h.isError, h.file, h.line, h.func);
    if (o.total > sizeof(slot.text)) {
        slot.len = 0;
        return nullptr;
    }
    slot.file = h.file;
    slot.func = h.func;
    slot.line = h.line;
    slot.side = h.side;
    slot.isError = h.isError;
    slot.len = static_cast<int>(o.total);
    return &slot;
}

/* Builds prefix + text + '\n' into dst when it fits in room; returns the
 * line's full length, or 0 when the text cannot be formatted. */
size_t BuildLine(const Head &h, const Body &body, char *dst, size_t room) {
    if (room == 0) {
        char none;
        return BuildLine(h, body, &none, 1);
    }
    /* The last byte of the room stays for the '\n'. */
    Out o{dst, dst + room - 1, 0};
    const PrefixSlot *pSlot = CachedPrefix(h);
    if (pSlot != nullptr) {
        o.Put(pSlot->text, static_cast<size_t>(pSlot->len));
    } else {
        PutPrefix(&o, h.side, h.isError, h.file, h.line, h.func);
    }
    if (!PutBody(&o, body)) {
        return 0;
    }
    size_t total = o.total + 1;
    if (total <= room) {
        dst[total - 1] = '\n';
    }
    return total;
}

/* A line that goes out on its own: built on the stack, or in a heap block
 * sized to it. */
void WriteAlone(const Head &pre, const Body &body) {
    char stackBuf[kStackLineSize];
    size_t total = BuildLine(pre, body, stackBuf, sizeof(stackBuf));
    if (total == 0) {
        return;
    }
    if (total <= sizeof(stackBuf)) {
        LAPI_LogWriteChunk(stackBuf, total);
        return;
    }
    char *heapBuf = static_cast<char *>(malloc(total));
    if (heapBuf == nullptr) {
        /* Out of memory: write what fits rather than nothing. */
        stackBuf[sizeof(stackBuf) - 1] = '\n';
        LAPI_LogWriteChunk(stackBuf, sizeof(stackBuf));
        return;
    }
    BuildLine(pre, body, heapBuf, total);
    LAPI_LogWriteChunk(heapBuf, total);
    free(heapBuf);
}

/* Writes out the gathered lines; the caller is the main flow. */
void FlushGathered() {
    gState = kFlushing;
    size_t start = gStart;
    size_t len = gLen;
    if (len > start) {
        LAPI_LogWriteChunk(gChunk + start, len - start);
    }
    gStart = 0;
    gLen = 0;
}

/* Adds one line to the chunk buffer, flushing the gathered lines first when
 * it does not fit behind them. put(dst, room) returns the line's length and
 * writes it at dst when it fits in room; 0 means no line. A line longer than
 * a chunk goes out alone. The line's bytes are in place before gLen counts
 * them, so a signal handler that writes the committed lines never sees half
 * of it. */
template <typename Put, typename Alone>
void Append(Put put, Alone alone) {
    gState = kAppending;
    size_t len = gLen;
    size_t total = put(gChunk + len, gCap - len);
    if (total == 0) {
        gState = kIdle;
        return;
    }
    if (total > gCap - len) {
        FlushGathered();
        len = 0;
        if (total > gCap) {
            alone();
            gState = kIdle;
            return;
        }
        gState = kAppending;
        put(gChunk, gCap);
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    gLen = len + total;
    gState = kIdle;
}

void Gather(const Head &pre, const Body &body) {
    Append([&](char *dst, size_t room) { return BuildLine(pre, body, dst, room); },
           [&] { WriteAlone(pre, body); });
}

void Emit(int side, int isError, const char *file, int line, const char *func, const Body &body) {
    Head pre{side, isError, file, line, func};
    ++LAPI_logLineCount;
    gLastSide = side;
    if (gBuffered && gInSignal == 0) {
        Gather(pre, body);
    } else {
        WriteAlone(pre, body);
    }
}

void FlushAtExit() {
    LAPI_LogFlush();
}

size_t CountLines(const char *p, size_t n) {
    size_t lines = 0;
    for (size_t i = 0; i < n; ++i) {
        lines += p[i] == '\n' ? 1 : 0;
    }
    return lines;
}

}  // namespace

extern "C" void LAPI_LogWriteChunk(const char *data, size_t length) {
    if (gStreamGone || length == 0) {
        return;
    }
    /* First the count of the lines that a full stream made us drop, once
     * it takes writes again, then the chunk itself. */
    size_t written = 0;
    if (gDroppedLines > 0) {
        char report[192];
        int n = snprintf(report, sizeof(report),
                         "%s{%d} %s:%d\tLAPI Error %s %s: %d diagnostic lines dropped, standard "
                         "error was full\n",
                         gMidLine ? "\n" : "", LAPI_LOG_LEVEL_ERROR, LAPI_LogBaseName(__FILE__),
                         __LINE__, gLastSide ? "SRV" : "CLI", __func__,
                         static_cast<int>(gDroppedLines));
        if (n <= 0 || static_cast<size_t>(n) >= sizeof(report)) {
            n = 0;
        }
        gMidLine = 0;
        ChunkResult r = WriteChunk(report, static_cast<size_t>(n), &written);
        if (r != kChunkWritten) {
            if (r == kChunkWouldBlock) {
                gDroppedLines = gDroppedLines + static_cast<sig_atomic_t>(CountLines(data, length));
            }
            return;
        }
        gDroppedLines = 0;
    }
    if (WriteChunk(data, length, &written) == kChunkWouldBlock) {
        /* Every line not wholly written is dropped, and counted. */
        gDroppedLines =
            gDroppedLines + static_cast<sig_atomic_t>(CountLines(data + written, length - written));
    }
}

namespace {

/* Makes one of the server's output streams one that never keeps it waiting
 * and returns what kind of file it is (0 when that is unknown). A socket is
 * written with send and MSG_DONTWAIT (*pUseSend). A pipe or a terminal gets
 * a new open file description of the same stream, non-blocking, in place of
 * the descriptor, so that the flag does not change the stream that the
 * parent and its other children share. A file never keeps a writer
 * waiting. */
mode_t MakeStreamNonBlocking(int fd, bool *pUseSend) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return 0;
    }
    if (S_ISSOCK(st.st_mode)) {
        *pUseSend = true;
    } else if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode)) {
        char procPath[32];
        snprintf(procPath, sizeof(procPath), "/proc/self/fd/%d", fd);
        int newFd = open(procPath, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        /* When it fails, a pipe without a reader: writes fail at once with
         * EPIPE. */
        if (newFd >= 0 && newFd != fd) {
            dup2(newFd, fd);
            close(newFd);
        }
    }
    return st.st_mode;
}

}  // namespace

extern "C" void LAPI_LogPrepareStream(void) {
    bool useSend = false;
    mode_t mode = MakeStreamNonBlocking(STDERR_FILENO, &useSend);
    gUseSend = useSend ? 1 : 0;
    /* A reader that is merely slower than a burst of traces (a hex dump per
     * frame) should lose nothing: room for a long burst before anything is
     * dropped, as far as the system allows an unprivileged process. */
    if (S_ISFIFO(mode)) {
        (void)fcntl(STDERR_FILENO, F_SETPIPE_SZ, kStderrPipeSize);
    }
    /* The plain lines on standard output go out through LAPI_LogStdout. */
    fflush(stdout);
    MakeStreamNonBlocking(STDOUT_FILENO, &gStdoutUseSend);
    gStdoutPrepared = true;
}

extern "C" void LAPI_LogStdout(const char *text, size_t length) {
    int savedErrno = errno;
    /* Standard output keeps its place among the diagnostic lines. */
    LAPI_LogFlush();
    if (!gStdoutPrepared) {
        /* The application's stream: after what it has written itself. */
        fwrite(text, 1, length, stdout);
        fflush(stdout);
        errno = savedErrno;
        return;
    }
    if (gStdoutGone || length == 0) {
        errno = savedErrno;
        return;
    }
    size_t done = 0;
    ChunkResult r = WriteStream(STDOUT_FILENO, gStdoutUseSend, text, length, &done);
    if (r == kChunkWouldBlock) {
        LAPI_LogLine(1, 1, LAPI_LOG_FILE, __LINE__, __func__,
                     "standard output is full, %d bytes dropped", static_cast<int>(length - done));
    } else if (r == kChunkGone && errno == EPIPE) {
        gStdoutGone = true; /* its reader left: never written again */
    }
    errno = savedErrno;
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
    va_list ap;
    va_start(ap, fmt);
    Body body;
    PrepareBody(&body, fmt, &ap);
    Emit(side, isError, file, line, func, body);
    va_end(ap);
    errno = savedErrno;
}

extern "C" void LAPI_LogText(int side, int isError, const char *file, int line, const char *func,
                             const char *text, size_t length) {
    if (!isError && !LAPI_traceEnabled) {
        return;
    }
    int savedErrno = errno;
    Body body;
    body.fmt = nullptr;
    body.pAp = nullptr;
    body.plain = text;
    body.plainLen = length;
    Emit(side, isError, file, line, func, body);
    errno = savedErrno;
}

extern "C" size_t LAPI_LogBuildLine(int side, int isError, const char *file, int line,
                                    const char *func, const char *text, size_t length, char *dst,
                                    size_t room) {
    Body body;
    body.fmt = nullptr;
    body.pAp = nullptr;
    body.plain = text;
    body.plainLen = length;
    size_t total = BuildLine(Head{side, isError, file, line, func}, body, dst, room);
    return total <= room ? total : 0;
}

extern "C" void LAPI_LogPutLine(int isError, const char *line, size_t length) {
    if ((!isError && !LAPI_traceEnabled) || length == 0) {
        return;
    }
    int savedErrno = errno;
    ++LAPI_logLineCount;
    if (!gBuffered || gInSignal != 0) {
        LAPI_LogWriteChunk(line, length);
        errno = savedErrno;
        return;
    }
    Append(
        [&](char *dst, size_t room) {
            if (length <= room) {
                memcpy(dst, line, length);
            }
            return length;
        },
        [&] { LAPI_LogWriteChunk(line, length); });
    errno = savedErrno;
}

extern "C" void LAPI_LogSetBuffered(int on) {
    if (!on) {
        LAPI_LogFlush();
        gBuffered = false;
        return;
    }
    int savedErrno = errno;
    struct stat st;
    gCap = kChunkSize;
    if (fstat(STDERR_FILENO, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode))) {
        gCap = PIPE_BUF < kChunkSize ? PIPE_BUF : kChunkSize;
    }
    if (!gAtExit) {
        gAtExit = atexit(FlushAtExit) == 0;
    }
    gBuffered = true;
    errno = savedErrno;
}

extern "C" void LAPI_LogFlush(void) {
    if (gState != kIdle) {
        /* Called from a handler that interrupted the buffer's own work. */
        return;
    }
    int savedErrno = errno;
    FlushGathered();
    gState = kIdle;
    errno = savedErrno;
}

extern "C" void LAPI_LogSignalEnter(void) {
    int savedErrno = errno;
    if (gInSignal == 0 && gState != kFlushing) {
        /* The interrupted code may be building a line above gLen: write
         * only the committed lines and leave its work alone. */
        size_t start = gStart;
        size_t len = gLen;
        if (len > start) {
            LAPI_LogWriteChunk(gChunk + start, len - start);
            gStart = len;
        }
    }
    gInSignal = gInSignal + 1;
    errno = savedErrno;
}

extern "C" void LAPI_LogSignalLeave(void) {
    if (gInSignal > 0) {
        gInSignal = gInSignal - 1;
    }
}
