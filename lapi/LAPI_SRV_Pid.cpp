/*
 * Single-instance guard: the pid file and the step into a daemon.
 *
 * The pid file holds "%d\n". It is locked only while the pid is written;
 * whether a server runs is decided by asking the kernel about the pid in
 * the file, so a file left behind by a dead server never blocks start-up.
 */
#include "LAPI_SRV_Pid.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "LAPI_Log.h"
#include "LAPI_SRV_Paths.h"

int GetPidFromFile(void) {
    FILE *pFile = fopen(LAPI_SRV_pidFile, "r");
    if (pFile == nullptr) {
        return 0;
    }
    int pid = 0;
    if (fscanf(pFile, "%d", &pid) != 1) {
        pid = 0;
    }
    fclose(pFile);
    return pid;
}

int GetRunningServerPid(void) {
    int pid = GetPidFromFile();
    if (pid == 0 || pid == getpid()) {
        return 0;
    }
    /* A process we may not signal still exists: it counts as running. The
     * number is asked about as it stands, a negative one included (kill
     * then asks about a process group; signal 0 sends nothing). */
    if (kill(pid, 0) == 0 || errno != ESRCH) {
        return pid;
    }
    return 0;
}

int LAPI_SRV_SavePid(void) {
    int fd = open(LAPI_SRV_pidFile, O_RDWR | O_CREAT, 0644);
    FILE *pFile = (fd >= 0) ? fdopen(fd, "r+") : nullptr;
    if (pFile == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        LAPI_SRV_ERR("Fail to open or create %s!", LAPI_SRV_pidFile);
        return 0;
    }

    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int holder = 0;
        if (fscanf(pFile, "%d", &holder) != 1) {
            holder = 0;
        }
        fclose(pFile);
        LAPI_SRV_ERR("Fail to lock, lock is held by pid %d!", holder);
        return 0;
    }

    /* Written over the old content without truncating it: readers take the
     * first number only, so a longer old tail does no harm. Only a write
     * that takes no character fails; the flush result is not looked at. */
    int pid = getpid();
    if (fprintf(pFile, "%d\n", pid) <= 0) {
        int err = errno;
        fclose(pFile);
        LAPI_SRV_ERR("Fail to write pid , %s.", strerror(err));
        return 0;
    }

    (void)fflush(pFile);
    if (flock(fd, LOCK_UN) != 0) {
        int err = errno;
        fclose(pFile);
        LAPI_SRV_ERR("Fail to unlock pidfile %s, %s.", LAPI_SRV_pidFile, strerror(err));
        return 0;
    }

    fclose(pFile);
    return pid;
}

void LAPI_SRV_RemovePid(void) {
    unlink(LAPI_SRV_pidFile);
    LAPI_SRV_TRACE("Remove pid file : %s.", LAPI_SRV_pidFile);
}

int LAPI_SRV_PidMutex(void) {
    pid_t pid = getpid();
    pid_t pgid = getpgrp();
    if (pgid == -1) {
        LAPI_SRV_ERR("Fail to get process group id, errno is: %d, %s ", errno, strerror(errno));
        return -1;
    }
    if (pid == -1) {
        LAPI_SRV_ERR("Fail to get process id, errno is: %d, %s ", errno, strerror(errno));
        return -1;
    }

    /* A group leader cannot call setsid: leave the group to a child. */
    if (pgid == pid) {
        pid_t child = fork();
        if (child == -1) {
            LAPI_SRV_ERR("Fail to fork a new process, errno is: %d, %s ", errno, strerror(errno));
        } else if (child > 0) {
            LAPI_SRV_TRACE("Parent process exit");
            exit(0);
        }
    }

    if (GetRunningServerPid() != 0) {
        LAPI_SRV_ERR("LAPI server has already been running!");
        exit(-1);
    }

    if (LAPI_SRV_SavePid() == 0) {
        LAPI_SRV_ERR("Fail to write pid file : %s!", LAPI_SRV_pidFile);
        exit(-1);
    }

    if (setsid() == -1) {
        LAPI_SRV_ERR("Fail to set a new session, errno is: %d, %s ", errno, strerror(errno));
        return -1;
    }
    return 0;
}
