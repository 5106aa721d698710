/*
 * lapi_srv_host --root DIR [--push-port N]
 *
 * The handset server on a host machine: every fixed path of the server and
 * of the platform stand-ins is taken below DIR, and the push intake listens
 * on port N (2948 by default). After the command line and the folders, the
 * server starts exactly as the handset daemon does.
 *
 * A bad command line prints one usage line on standard error and exits 2
 * before anything else happens.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "HOST_Root.h"
#include "LAPI_SRV_Main.h"
#include "LAPI_SRV_Paths.h"
#include "lapi_version.h"

namespace {

constexpr int kExitUsage = 2;
constexpr const char kUsage[] = "usage: lapi_srv_host --root DIR [--push-port N]";

/* The longest path a Unix socket address holds (its terminating zero aside). */
constexpr size_t kMaxSockPath = 107;

/* The server's paths below DIR. Plain arrays: nothing to destroy at exit. */
constexpr size_t kPathSize = 256;
char gPidFile[kPathSize];
char gSockPath[kPathSize];
char gMuxDevice[kPathSize];
char gCfgFile[kPathSize];
char gFixLogFile[kPathSize];
char gRoot[kMaxSockPath + 1];

[[noreturn]] void BadCommandLine(const char *reason, const char *arg) {
    if (arg != nullptr) {
        fprintf(stderr, "%s (%s: %s)\n", kUsage, reason, arg);
    } else {
        fprintf(stderr, "%s (%s)\n", kUsage, reason);
    }
    exit(kExitUsage);
}

/* Decimal 1..65535, nothing else; 0 when the text is not such a number. */
unsigned ParsePort(const char *text) {
    unsigned value = 0;
    size_t len = strlen(text);
    if (len == 0 || len > 5) {
        return 0;
    }
    for (size_t i = 0; i < len; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return 0;
        }
        value = value * 10 + static_cast<unsigned>(text[i] - '0');
    }
    return value <= 65535 ? value : 0;
}

/* mkdir -p; a failure is reported and left to the server to run into. */
void MakeDirs(const char *path) {
    char buf[kPathSize];
    size_t len = strlen(path);
    if (len == 0 || len >= sizeof(buf)) {
        return;
    }
    memcpy(buf, path, len + 1);
    for (size_t i = 1; i <= len; ++i) {
        if (buf[i] != '/' && buf[i] != '\0') {
            continue;
        }
        char saved = buf[i];
        buf[i] = '\0';
        if (mkdir(buf, 0755) != 0 && errno != EEXIST) {
            fprintf(stderr, "lapi_srv_host: cannot create %s: %s\n", buf, strerror(errno));
            return;
        }
        buf[i] = saved;
    }
}

/* DIR + absPath into dst; the sizes are checked by the caller's bound. */
void RootPath(char *dst, const char *absPath) {
    snprintf(dst, kPathSize, "%s%s", gRoot, absPath);
}

/* DIR + the folder part of absPath. */
void MakeParentDirs(const char *absPath) {
    char path[kPathSize];
    RootPath(path, absPath);
    char *pSlash = strrchr(path, '/');
    if (pSlash != nullptr && pSlash != path) {
        *pSlash = '\0';
        MakeDirs(path);
    }
}

/* What -h and --help print: the launcher, the root and the stand-ins. */
constexpr const char kHelp[] =
    "\n"
    "Runs the handset's location server on an ordinary Linux machine. The server\n"
    "code is the handset daemon's (build/bin/lapi_srv, fixed paths, no options);\n"
    "this launcher only takes every fixed path below DIR and links host stand-ins\n"
    "in place of the handset's platform libraries.\n"
    "\n"
    "  --root DIR     an absolute path (required); DIR + /tmp/lapisock must fit\n"
    "                 107 bytes\n"
    "  --push-port N  UDP port of the WAP push intake, 1 to 65535 (default 2948)\n"
    "  -h, --help     this text\n"
    "  --version      the version\n"
    "\n"
    "Paths below DIR (the launcher creates the missing folders):\n"
    "  DIR/tmp/lapisock     the clients' socket (lapi --root DIR talks to it)\n"
    "  DIR/tmp/lapi.pid     the running server's pid; SIGTERM to that pid stops it\n"
    "  DIR/dev/mux18        the BP channel: a link to a raw pseudo-terminal whose\n"
    "                       other end the BP simulator holds (bpsim --root DIR)\n"
    "  DIR/zel_user/download/appwrite/setup/zel_agps.cfg\n"
    "                       configuration: LogFileSize, AGPSProfileName,\n"
    "                       WAPPushSendingNumber\n"
    "  DIR/zellocal/download/appwrite/location_fix.log\n"
    "                       the fix log, written when feature flag 367 is on\n"
    "\n"
    "Stand-ins of the platform libraries:\n"
    "  feature flags   flag N is on when the file DIR/etc/flex/N exists\n"
    "  network link    FIFO DIR/run/napi.fifo: each link opened answers success,\n"
    "                  or failure for a profile name that begins with FAIL\n"
    "  telephony       FIFO DIR/run/tapi.fifo: SMS-port messages written there\n"
    "  TLS, certificates  OpenSSL; trusted roots are the PEM files in DIR/etc/certs\n"
    "  name resolution the machine's own resolver\n"
    "\n"
    "The server starts exactly as on the handset: started from a shell (as a\n"
    "process-group leader) it forks, the first process exits 0 and the server\n"
    "runs on in the background; only one server per DIR; diagnostics go to\n"
    "standard error, a few plain lines (NMEA dumps) to standard output, so send\n"
    "both to files. It runs until SIGTERM, then removes its pid file and exits 0.\n"
    "Exit statuses: 2 bad command line, 1 start-up failed, 255 another server\n"
    "runs on DIR (or the pid file cannot be written).\n";

}  // namespace

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printf("%s\n%s", kUsage, kHelp);
            return 0;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("lapi_srv_host %s\n", LAPI_VERSION_STRING);
            return 0;
        }
    }

    const char *pRoot = nullptr;
    const char *pPort = nullptr;
    for (int i = 1; i < argc; ++i) {
        const char *pArg = argv[i];
        const char **ppValue = nullptr;
        if (strcmp(pArg, "--root") == 0) {
            ppValue = &pRoot;
        } else if (strcmp(pArg, "--push-port") == 0) {
            ppValue = &pPort;
        } else {
            BadCommandLine("unknown option", pArg);
        }
        if (*ppValue != nullptr) {
            BadCommandLine("repeated option", pArg);
        }
        if (i + 1 >= argc) {
            BadCommandLine("missing value", pArg);
        }
        *ppValue = argv[++i];
    }

    if (pRoot == nullptr) {
        BadCommandLine("--root is required", nullptr);
    }
    if (pRoot[0] != '/') {
        BadCommandLine("--root must be an absolute path", pRoot);
    }
    unsigned port = LAPI_SRV_PUSH_PORT;
    if (pPort != nullptr) {
        port = ParsePort(pPort);
        if (port == 0) {
            BadCommandLine("--push-port must be 1 to 65535", pPort);
        }
    }

    /* "/a/b/" and "/a/b" name the same root; "/" is the handset's own. */
    size_t rootLen = strlen(pRoot);
    while (rootLen > 0 && pRoot[rootLen - 1] == '/') {
        --rootLen;
    }
    if (rootLen + strlen(LAPI_SRV_SOCK_PATH) > kMaxSockPath) {
        BadCommandLine("DIR/tmp/lapisock must fit 107 bytes", pRoot);
    }
    memcpy(gRoot, pRoot, rootLen);
    gRoot[rootLen] = '\0';

    static const char *const kFolders[] = {"/tmp", "/dev", "/run", "/etc/flex", "/etc/certs"};
    for (const char *pFolder : kFolders) {
        char path[kPathSize];
        RootPath(path, pFolder);
        MakeDirs(path);
    }
    MakeParentDirs(LAPI_SRV_CFG_FILE);
    MakeParentDirs(LAPI_SRV_FIX_LOG_FILE);

    RootPath(gPidFile, LAPI_SRV_PID_FILE);
    RootPath(gSockPath, LAPI_SRV_SOCK_PATH);
    RootPath(gMuxDevice, LAPI_SRV_MUX_DEVICE);
    RootPath(gCfgFile, LAPI_SRV_CFG_FILE);
    RootPath(gFixLogFile, LAPI_SRV_FIX_LOG_FILE);
    LAPI_SRV_pidFile = gPidFile;
    LAPI_SRV_sockPath = gSockPath;
    LAPI_SRV_muxDevice = gMuxDevice;
    LAPI_SRV_cfgFile = gCfgFile;
    LAPI_SRV_fixLogFile = gFixLogFile;
    LAPI_SRV_pushPort = static_cast<unsigned short>(port);
    HOST_SetRoot(gRoot);

    return LAPI_SRV_ServerMain();
}
