/* Breaks the worker of a helper task, or the daemon, at a chosen one of its calls that change the file system or begin
 * the start of a child; preloaded into it.
 *
 * The file named by FAULT_PLAN is shared memory: what to do, and how many such calls there were. Calls are counted in
 * the forked worker and, once that has made one, in the guard; for the daemon, when it is to be broken, in the daemon
 * in the worker's place. Other processes are left alone. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

enum { NOTHING, KILL_WORKER, KILL_GUARD, KILL_BOTH, FAIL, KILL_AT_START, EXIT_AT_START, KILL_DAEMON };

static struct plan { int action, error, worker_at, guard_at, worker_calls, guard_calls; } *plan;
static pid_t first, worker;

static int is_run(const char *line, size_t length, const char *program) {
  return memmem(line, length, program, strlen(program)) != NULL;
}

__attribute__((constructor)) static void begin(void) {
  char line[4096];
  int file = open("/proc/self/cmdline", O_RDONLY);
  ssize_t length = read(file, line, sizeof line);
  close(file);
  if (length <= 0) return;
  const int is_daemon = is_run(line, length, "/kestreld");
  if (!is_daemon && !is_run(line, length, "--task-id")) return;
  file = open(getenv("FAULT_PLAN"), O_RDWR);
  void *memory = mmap(NULL, sizeof *plan, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (memory == MAP_FAILED) abort();
  plan = memory;
  if (is_daemon) {
    worker = getpid();
    return;
  }
  first = getpid();
  if (plan->action == KILL_AT_START) raise(SIGKILL);
  if (plan->action == EXIT_AT_START) _exit(0);
}

/* @param grows  whether a full disk can make the call fail */
static int broken(int grows) {
  const pid_t self = getpid();
  if (!plan) return 0;
  if (self == first) {
    if (plan->worker_calls && ++plan->guard_calls == plan->guard_at) raise(SIGKILL);
    return 0;
  }
  if (!worker) worker = self;
  if (self != worker || (first == 0) != (plan->action == KILL_DAEMON)) return 0;
  if (++plan->worker_calls != plan->worker_at) return 0;
  if (plan->action == KILL_WORKER || plan->action == KILL_DAEMON) kill(self, SIGKILL);
  if (plan->action == KILL_GUARD) kill(first, SIGKILL);
  if (plan->action == KILL_BOTH) kill(0, SIGKILL);
  if (plan->action != FAIL || (plan->error == ENOSPC && !grows)) return 0;
  errno = plan->error;
  return 1;
}

static int is_file(int descriptor) {
  struct stat status;
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

static int makes_file(int flags) { return flags & O_CREAT || (flags & O_TMPFILE) == O_TMPFILE; }

#define NEXT(name) ((__typeof__(&(name)))dlsym(RTLD_NEXT, #name))
#define CALL(type, name, parameters, values, counts, grows)                                     \
  type name parameters { return (counts) && broken(grows) ? -1 : NEXT(name) values; }
#define OPEN(name, parameters, values)                                                          \
  int name parameters {                                                                         \
    va_list rest;                                                                               \
    va_start(rest, flags);                                                                      \
    const int mode = makes_file(flags) ? va_arg(rest, int) : 0;                                 \
    va_end(rest);                                                                               \
    return (makes_file(flags) || flags & O_TRUNC) && broken(1) ? -1 : NEXT(name) values;        \
  }

OPEN(open, (const char *path, int flags, ...), (path, flags, mode))
OPEN(open64, (const char *path, int flags, ...), (path, flags, mode))
OPEN(openat, (int at, const char *path, int flags, ...), (at, path, flags, mode))
OPEN(openat64, (int at, const char *path, int flags, ...), (at, path, flags, mode))
CALL(ssize_t, write, (int d, const void *b, size_t n), (d, b, n), is_file(d), 1)
CALL(ssize_t, writev, (int d, const struct iovec *v, int n), (d, v, n), is_file(d), 1)
CALL(ssize_t, pwrite64, (int d, const void *b, size_t n, off64_t o), (d, b, n, o), is_file(d), 1)
CALL(int, rename, (const char *from, const char *to), (from, to), 1, 1)
CALL(int, renameat, (int a, const char *from, int b, const char *to), (a, from, b, to), 1, 1)
CALL(int, link, (const char *from, const char *to), (from, to), 1, 1)
CALL(int, linkat, (int a, const char *from, int b, const char *to, int flags), (a, from, b, to, flags), 1, 1)
CALL(int, symlink, (const char *target, const char *path), (target, path), 1, 1)
CALL(int, mkdir, (const char *path, mode_t mode), (path, mode), 1, 1)
CALL(int, mkdirat, (int at, const char *path, mode_t mode), (at, path, mode), 1, 1)
CALL(int, rmdir, (const char *path), (path), 1, 0)
CALL(int, unlink, (const char *path), (path), 1, 0)
CALL(int, unlinkat, (int at, const char *path, int flags), (at, path, flags), 1, 0)
CALL(int, chmod, (const char *path, mode_t mode), (path, mode), 1, 0)
CALL(int, fchmod, (int d, mode_t mode), (d, mode), 1, 0)
CALL(int, ftruncate64, (int d, off64_t size), (d, size), 1, 1)
CALL(int, fsync, (int d), (d), 1, 1)
CALL(int, fdatasync, (int d), (d), 1, 1)
CALL(int, syncfs, (int d), (d), 1, 1)
CALL(int, pipe2, (int *ends, int flags), (ends, flags), 1, 0) /* Python makes them for each child that it starts */
