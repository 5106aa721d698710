#include "HOST_Root.h"

#include <stdio.h>
#include <string.h>

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
