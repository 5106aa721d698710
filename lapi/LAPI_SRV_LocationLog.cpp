/*
 * Configuration file reader and the location fix log.
 *
 * The configuration file is read afresh for every key a caller asks for, so
 * an edit takes effect at the next use of the key. The fix log is a file of
 * fixed maximum size used as a ring: a header line at the top records where
 * the next record goes, and a record that would not fit is written again
 * right behind the header.
 */
#include "LAPI_SRV_LocationLog.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_Paths.h"
#include "zelflex.h"

uint8_t gLogAvailable = 0;
uint32_t gMaxLogSize = 0;
uint32_t gLogoffset = 0;

namespace {

/* The header: the offset's digits are written over the start of the blanks. */
constexpr char kLogHeaderMarker[] =
    "                                        <--offset, where updated last time\n";
static_assert(sizeof(kLogHeaderMarker) - 1 == LAPI_SRV_LOG_HEADER_LEN,
              "the header marker is the header's length");

/* Built records are far shorter than the limit; a longer one (absurd
 * doubles) is cut here and then refused by LAPI_SRV_LOG_Write. */
constexpr size_t kLogLineBufSize = 512;
static_assert(kLogLineBufSize > LAPI_SRV_LOG_MAX_RECORD_LEN, "a cut line is still refused");

/* The open log stream: opened by the first record, kept for the life of the
 * process. A plain pointer, so exit() from the signal handler is safe. */
FILE *pLogFile = nullptr;

/*
 * Opens path as a stream without ever waiting on it, and only when it is a
 * regular file: a FIFO or a device put in its place would stop the server
 * (a FIFO blocks the open or the first read for good, /dev/zero never ends).
 * Null with *pNotRegular set when something other than a regular file is
 * there (the caller reports it); null with it clear when nothing could be
 * opened (errno kept).
 */
FILE *OpenRegularFile(const char *path, int flags, const char *mode, bool *pNotRegular) {
    *pNotRegular = false;
    int fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *pNotRegular = true;
        close(fd);
        errno = EINVAL;
        return nullptr;
    }
    FILE *fp = fdopen(fd, mode);
    if (fp == nullptr) {
        int savedErrno = errno;
        close(fd);
        errno = savedErrno;
    }
    return fp;
}

bool IsSpace(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

/*
 * The decimal number at the start of the file, read as "%d" reads it:
 * leading white space, an optional sign, digits. Returns false when there
 * is no number (the offset is then left as it was). A number is taken as
 * it stands, one inside the header or a negative one (which, as a 32-bit
 * position, lies beyond any configured size) included. One too large for
 * an int, which "%d" could not hold, reads as the largest position.
 */
bool ReadHeaderOffset(FILE *fp, uint32_t *pOffset) {
    (void)fseek(fp, 0, SEEK_SET);
    int c = fgetc(fp);
    while (c != EOF && IsSpace(static_cast<char>(c))) {
        c = fgetc(fp);
    }
    bool negative = false;
    if (c == '+' || c == '-') {
        negative = (c == '-');
        c = fgetc(fp);
    }
    if (c == EOF || c < '0' || c > '9') {
        return false;
    }
    /* The magnitude an int holds: INT_MAX, or INT_MAX + 1 when negative. */
    const uint64_t limit = static_cast<uint64_t>(INT32_MAX) + (negative ? 1u : 0u);
    uint64_t magnitude = 0;
    bool tooLarge = false;
    for (; c != EOF && c >= '0' && c <= '9'; c = fgetc(fp)) {
        if (!tooLarge) {
            magnitude = magnitude * 10 + static_cast<uint64_t>(c - '0');
            tooLarge = magnitude > limit;
        }
    }
    if (tooLarge) {
        *pOffset = UINT32_MAX;
    } else if (negative) {
        *pOffset = static_cast<uint32_t>(0u - static_cast<uint32_t>(magnitude));
    } else {
        *pOffset = static_cast<uint32_t>(magnitude);
    }
    return true;
}

/* The current time as ctime renders it, its final line feed made a comma. */
void TimeWithComma(char *dst, size_t dstSize) {
    time_t now = time(nullptr);
    char text[64];
    if (ctime_r(&now, text) == nullptr) {
        text[0] = '\0';
    }
    size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '\n') {
        text[len - 1] = ',';
    }
    snprintf(dst, dstSize, "%s", text);
}

}  // namespace

/* ------------------------------------------------------------------------ */
/* Configuration file reader                                                 */
/* ------------------------------------------------------------------------ */

int find_entry(const char *line, const char *entry_name, char *dst) {
    LAPI_SRV_TRACE("enter find_entry function\n\n");
    if (line == nullptr || entry_name == nullptr || dst == nullptr) {
        LAPI_SRV_TRACE("fail! input parameter is null\n\n");
        return 0;
    }

    /* The key anywhere in the line: not a whole word, comments not known. */
    const char *pKey = strstr(line, entry_name);
    if (pKey == nullptr) {
        return 0;
    }
    const char *pEqual = strchr(pKey + strlen(entry_name), '=');
    if (pEqual == nullptr) {
        return 0;
    }

    /* The value runs to the first line end; a line without one (the last
     * line of a file, or a piece of a long line) yields nothing. */
    const char *pBegin = pEqual + 1;
    const char *pr = strchr(pBegin, '\r');
    const char *pn = strchr(pBegin, '\n');
    if (pr == nullptr && pn == nullptr) {
        LAPI_SRV_TRACE("fail! pr == NULL && pn == NULL\n\n");
        return 0;
    }
    const char *pEnd = (pr != nullptr && (pn == nullptr || pr < pn)) ? pr : pn;

    while (pBegin < pEnd && IsSpace(*pBegin)) {
        ++pBegin;
    }
    while (pEnd > pBegin && IsSpace(pEnd[-1])) {
        --pEnd;
    }

    /* The last character must lie strictly after the first: empty and
     * one-character values yield nothing (a size of 8 must be written 08). */
    size_t len = static_cast<size_t>(pEnd - pBegin);
    if (len < 2) {
        return 0;
    }
    /* A value that does not fit the caller's block whole is not taken. */
    if (len > LAPI_SRV_CFG_VALUE_MAX_LEN) {
        LAPI_SRV_TRACE("fail! value longer than %d characters\n\n", LAPI_SRV_CFG_VALUE_MAX_LEN);
        return 0;
    }
    memcpy(dst, pBegin, len);
    dst[len] = '\0';
    return 1;
}

char *get_entry_value(const char *filename, const char *entry_name) {
    LAPI_SRV_TRACE("entry get_entry_value functon\n\n");
    if (filename == nullptr || entry_name == nullptr) {
        LAPI_SRV_TRACE("fail! filename == NULL || entry_name == NULL\n\n");
        return nullptr;
    }

    bool bNotRegular = false;
    FILE *fp = OpenRegularFile(filename, O_RDONLY, "r", &bNotRegular);
    if (fp == nullptr) {
        if (bNotRegular) {
            LAPI_SRV_ERR("config file %s is not a regular file, ignored!", filename);
        }
        LAPI_SRV_TRACE("open config file %s fail!\n\n", filename);
        return nullptr;
    }

    char *pValue = static_cast<char *>(malloc(LAPI_SRV_CFG_VALUE_SIZE));
    if (pValue == nullptr) {
        fclose(fp);
        return nullptr;
    }
    memset(pValue, 0, LAPI_SRV_CFG_VALUE_SIZE);

    /* A line longer than the buffer comes in pieces, each searched alone. */
    char line[LAPI_SRV_CFG_LINE_SIZE];
    memset(line, 0, sizeof(line));
    size_t bytesRead = 0;
    while (fgets(line, sizeof(line), fp) != nullptr) {
        /* A file that grows without end (a log written in its place) is
         * searched only up to the bound; past it the key counts as missing. */
        bytesRead += strlen(line);
        if (bytesRead > LAPI_SRV_CFG_MAX_FILE_BYTES) {
            LAPI_SRV_ERR("config file %s is longer than %d bytes, the rest is ignored!", filename,
                         LAPI_SRV_CFG_MAX_FILE_BYTES);
            break;
        }
        if (find_entry(line, entry_name, pValue) == 1) {
            fclose(fp);
            return pValue;
        }
        memset(line, 0, sizeof(line));
        memset(pValue, 0, LAPI_SRV_CFG_VALUE_SIZE);
    }

    fclose(fp);
    free(pValue);
    return nullptr;
}

/* ------------------------------------------------------------------------ */
/* Location fix log                                                          */
/* ------------------------------------------------------------------------ */

void LAPI_SRV_LOG_Init(void) {
    if (getFlexBit(DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE, &gLogAvailable) != 0) {
        gLogAvailable = 0;
        LAPI_SRV_ERR("getflexbit DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE failed!");
        return;
    }
    if (!gLogAvailable) {
        LAPI_SRV_TRACE("DL_DB_FEATURE_ID_LOCATION_LOG_AVAILABLE == FALSE");
        return;
    }

    char *pValue = get_entry_value(LAPI_SRV_cfgFile, "LogFileSize");
    if (pValue == nullptr) {
        gLogAvailable = 0;
        LAPI_SRV_ERR("can not get agps log file size\n");
        return;
    }
    /* Read as atoi reads it, minus atoi's undefined overflow: a number out of
     * range (negative ones included) is simply unreasonable. */
    long sizeKiB = strtol(pValue, nullptr, 10);
    free(pValue);
    if (sizeKiB < LAPI_SRV_LOG_MIN_SIZE_KIB || sizeKiB > LAPI_SRV_LOG_MAX_SIZE_KIB) {
        gLogAvailable = 0;
        LAPI_SRV_ERR("log file size is unreasonable\n");
        return;
    }
    gMaxLogSize = static_cast<uint32_t>(sizeKiB) * 1024U;
}

int LAPI_SRV_LOG_Open(void) {
    const char *path = LAPI_SRV_fixLogFile;
    bool bNotRegular = false;
    FILE *fp = OpenRegularFile(path, O_RDWR, "r+", &bNotRegular);
    if (fp == nullptr && bNotRegular) {
        LAPI_SRV_ERR("fix log %s is not a regular file, ignored!", path);
        return -1;
    }
    if (fp == nullptr) {
        fp = OpenRegularFile(path, O_RDWR | O_CREAT | O_TRUNC, "w+", &bNotRegular);
        if (fp == nullptr) {
            LAPI_SRV_ERR("Fail to create %s, error%s:!", path, strerror(errno));
            return -1;
        }
        (void)fwrite(kLogHeaderMarker, 1, LAPI_SRV_LOG_HEADER_LEN, fp);
        (void)fseek(fp, 0, SEEK_SET);
        fprintf(fp, "%d", LAPI_SRV_LOG_HEADER_LEN);
        fclose(fp);
        fp = OpenRegularFile(path, O_RDWR, "r+", &bNotRegular);
        if (fp == nullptr) {
            LAPI_SRV_ERR("Fail to open %s, error%s:!", path, strerror(errno));
            return -1;
        }
    }
    pLogFile = fp;

    (void)ReadHeaderOffset(fp, &gLogoffset);
    if (gLogoffset < gMaxLogSize) {
        (void)fseek(fp, static_cast<long>(gLogoffset), SEEK_SET);
        return 0;
    }
    /* The size was reduced since the file was written: the stream stays
     * open and the next record starts again behind the header. */
    LAPI_SRV_ERR("gLogoffset >= gMaxLogSize!");
    return -1;
}

int LAPI_SRV_LOG_Write(const char *text) {
    size_t len = (text != nullptr) ? strnlen(text, LAPI_SRV_LOG_MAX_RECORD_LEN) : 0;
    if (text == nullptr || len >= LAPI_SRV_LOG_MAX_RECORD_LEN) {
        LAPI_SRV_ERR("buffer == NULL || bufLen <= 0 in LAPI_SRV_LOG_Write!");
        return -1;
    }
    if (pLogFile == nullptr && LAPI_SRV_LOG_Open() != 0) {
        LAPI_SRV_ERR("LAPI_SRV_LOG_Open() failed!");
        return -1;
    }

    /* A record that would pass the end goes right behind the header; one
     * that exactly reaches the end still goes at the end. Summed in 64 bits,
     * so an offset far past the end (left by a refused open) wraps too. */
    if (static_cast<uint64_t>(gLogoffset) + len > gMaxLogSize) {
        gLogoffset = LAPI_SRV_LOG_HEADER_LEN;
    }
    (void)fseek(pLogFile, static_cast<long>(gLogoffset), SEEK_SET);
    bool bWritten = fwrite(text, 1, len, pLogFile) == len;
    long pos = ftell(pLogFile);
    gLogoffset = (pos >= 0) ? static_cast<uint32_t>(pos) : gLogoffset + static_cast<uint32_t>(len);

    /* Blank the old number, then write the new one over the blanks. */
    (void)fseek(pLogFile, 0, SEEK_SET);
    (void)fwrite(kLogHeaderMarker, 1, LAPI_SRV_LOG_HEADER_LEN, pLogFile);
    (void)fseek(pLogFile, 0, SEEK_SET);
    fprintf(pLogFile, "%u", gLogoffset);
    /* A full disk or a failing medium loses the record, but never silently. */
    if (fflush(pLogFile) != 0 || !bWritten || ferror(pLogFile)) {
        LAPI_SRV_ERR("Fail to write %s, error:%s!", LAPI_SRV_fixLogFile, strerror(errno));
        clearerr(pLogFile);
    }
    (void)fseek(pLogFile, static_cast<long>(gLogoffset), SEEK_SET);
    return 0;
}

void LAPI_SRV_LOG_LocationReq(const GetLocationReq *pMsg, uint8_t sid, uint8_t tid) {
    if (pMsg == nullptr) {
        LAPI_SRV_ERR("pMsg is NULL in LAPI_SRV_LOG_LocationReq!");
        return;
    }
    if (!gLogAvailable) {
        return;
    }

    char timeText[64];
    TimeWithComma(timeText, sizeof(timeText));
    char periodic[48];
    if (pMsg->reportCriteria == 1) {
        snprintf(periodic, sizeof(periodic), "periodic interval:%d, ",
                 static_cast<int>(pMsg->interval));
    } else {
        snprintf(periodic, sizeof(periodic), "Non-periodic, ");
    }
    /* A client that allows cost lets the engine fetch network assistance (AGPS). */
    const char *method = (pMsg->costAllowed == 1) ? "AGPS" : "GPS";

    char line[kLogLineBufSize];
    snprintf(line, sizeof(line),
             "Location request:  %s sid:%u, tid:%u, responseTime:%d, horizontalAccuracy:%d, "
             "%s%s, speedAndCourseRequired:%u, altitudeRequired:%u\n",
             timeText, static_cast<unsigned>(sid), static_cast<unsigned>(tid),
             static_cast<int>(pMsg->responseTime), static_cast<int>(pMsg->horizontalAccuracy),
             periodic, method, static_cast<unsigned>(pMsg->speedAndCourseRequired),
             static_cast<unsigned>(pMsg->altitudeRequired));
    (void)LAPI_SRV_LOG_Write(line);
}

void LAPI_SRV_LOG_LocationRsp(const GetLocationRsp *pMsg, uint8_t sid, uint8_t tid) {
    if (pMsg == nullptr) {
        LAPI_SRV_ERR("pMsg is NULL in LAPI_SRV_LOG_LocationRsp!");
        return;
    }
    if (!gLogAvailable) {
        return;
    }

    char timeText[64];
    TimeWithComma(timeText, sizeof(timeText));
    char line[kLogLineBufSize];
    snprintf(line, sizeof(line),
             "Location Response: %s sid:%u, tid:%u, latitude:%f, longitude:%f, "
             "horizontalAccuracy:%f, altitude:%f, speed:%f, course:%f, verticalAccuracy:%f, "
             "ageOfFix:%u\n",
             timeText, static_cast<unsigned>(sid), static_cast<unsigned>(tid),
             static_cast<double>(pMsg->latitude), static_cast<double>(pMsg->longitude),
             static_cast<double>(pMsg->horizontalAccuracy), static_cast<double>(pMsg->altitude),
             static_cast<double>(pMsg->speed), static_cast<double>(pMsg->course),
             static_cast<double>(pMsg->verticalAccuracy),
             static_cast<unsigned>(static_cast<uint32_t>(pMsg->ageOfFix)));
    (void)LAPI_SRV_LOG_Write(line);
}

void LAPI_SRV_LOG_Close(void) {
    if (pLogFile != nullptr) {
        fclose(pLogFile);
        pLogFile = nullptr;
    }
}
