/*
 * lapi_bench: the processes it starts (the host server and the bare relay)
 * and what it reads about them from /proc.
 */
#ifndef LAPI_BENCH_PROC_H
#define LAPI_BENCH_PROC_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

/* Raises this process's RLIMIT_NOFILE soft limit to at least want (never
 * above the hard limit, never lowers it). Returns the soft limit in force. */
long RaiseNoFile(long want);

/* Starts argv[0] with argv in a child whose standard input is /dev/null and
 * whose standard output and error go to outPath (created or appended); the
 * child gets at least noFile descriptors, keeps none of ours, and is
 * terminated if the bench dies. -1 with *err when it cannot be started
 * (exec failures are reported here, not by the child). */
pid_t SpawnProgram(const std::vector<std::string> &argv, const std::string &outPath, long noFile,
                   std::string *err);

/* Forks a child that runs fn() and exits with its result; the child closes
 * every inherited descriptor first and gets exactly noFile descriptors. */
pid_t SpawnFunction(const std::function<int()> &fn, long noFile, std::string *err);

/* Waits until sockPath accepts a connection, or the child exits, or the
 * timeout passes (false with a reason). */
bool WaitConnectable(const std::string &sockPath, pid_t pid, int timeoutMs, std::string *err);

/* SIGTERM, up to timeoutMs for the exit, then SIGKILL. Returns a text for
 * the way it ended ("exit 0", "signal 9 (after SIGKILL)", ...). */
std::string StopChild(pid_t pid, int timeoutMs, int *exitStatus);

/* True when the child has already ended (it is then reaped; *how says how). */
bool ChildEnded(pid_t pid, std::string *how);

/* CPU time used by pid in nanoseconds: /proc/PID/schedstat when the kernel
 * keeps it (ns resolution), else utime+stime of /proc/PID/stat (clock
 * ticks). -1 when neither can be read. *precise tells which was used. */
int64_t CpuNs(pid_t pid, bool *precise);

/* Private_Dirty of /proc/PID/smaps_rollup in kB, -1 when unreadable. */
long PrivateDirtyKb(pid_t pid);

/* Open descriptors of pid (entries of /proc/PID/fd), -1 when unreadable. */
int CountFds(pid_t pid);

/* A UDP port on 127.0.0.1 that was free a moment ago, 0 on failure. */
int FreeUdpPort();

/* mkdtemp with a short name under /tmp; empty on failure. */
std::string MakeTempDir();
/* rm -rf. */
bool RemoveTree(const std::string &path);
/* mkdir -p. */
bool MakeDirs(const std::string &path);

/* The directory of the running executable ("." when unknown). */
std::string SelfDir();

}  // namespace bench

#endif /* LAPI_BENCH_PROC_H */
