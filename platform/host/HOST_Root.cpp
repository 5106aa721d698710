#include "HOST_Root.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
char gHostRoot[201];
}

extern "C" int HOST_SetRoot(const char *root) {
    if (root == nullptr || strlen(root) >= sizeof(gHostRoot)) {
        return -1;
    }
    strcpy(gHostRoot, root);
    return 0;
}

extern "C" const char *HOST_Root(void) {
    return gHostRoot;
}

extern "C" int HOST_Path(char *dst, size_t dstSize, const char *absPath) {
    int n = snprintf(dst, dstSize, "%s%s", gHostRoot, absPath);
    return (n < 0 || static_cast<size_t>(n) >= dstSize) ? -1 : 0;
}

extern "C" int HOST_OpenFifo(const char *absPath) {
    char path[512];
    if (HOST_Path(path, sizeof(path), absPath) != 0) {
        return -1;
    }
    char *pSlash = strrchr(path, '/');
    if (pSlash != nullptr && pSlash != path) {
        *pSlash = '\0';
        mkdir(path, 0755); /* a folder already there is fine, and any other
                              failure shows in mkfifo */
        *pSlash = '/';
    }
    if (mkfifo(path, 0666) != 0 && errno != EEXIST) {
        return -1;
    }
    int fd;
    do {
        fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    /* Something else in the FIFO's place (a regular file, a folder) would
     * read as end of file or data of nobody's making: refused. */
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode))) {
        close(fd);
        errno = ENOTSUP;
        return -1;
    }
    return fd;
}
