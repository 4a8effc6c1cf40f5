/* The crash hook: on a fatal signal during an open session it starts the
 * crash processor with the process name and this process's pid token, waits
 * for it a bounded time and then hands the signal on to the disposition that
 * was in place before, so the application's own handler, the core dump and
 * the "killed by signal" status stay what they were.
 *
 * Inside the handler only async-signal-safe calls are made (sigaction,
 * sigprocmask, execve, _exit, waitpid, kill, nanosleep, clock_gettime,
 * getpid, raise, poll, close and the pidfd_open system call) on data
 * prepared beforehand; nothing allocates. */
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "HostInternal.h"
#include "HostState.h"
#include "lumetry/host.h"

static const int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};
#define LH_SIGNAL_COUNT (sizeof kCrashSignals / sizeof kCrashSignals[0])

/* The dispositions found at installation, in the order of kCrashSignals. */
static struct sigaction previous_actions[LH_SIGNAL_COUNT];

/* 0: no crash yet; 1: one thread runs the crash processor; 2: it is done. */
static atomic_int crash_stage;

enum { kAltStackSize = 64 * 1024, kPollMs = 10, kOtherThreadGraceMs = 2000 };

void lh_set_wait_limit_ms(unsigned limit_ms) { atomic_store(&lh_state.wait_limit_ms, limit_ms); }

static long long monotonic_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static void sleep_poll_step(void) {
  const struct timespec step = {0, kPollMs * 1000000L};
  nanosleep(&step, NULL);
}

/* A fork that is safe inside a signal handler. glibc's fork() runs the
 * pthread_atfork handlers and takes the allocator's and stdio's locks first;
 * a crash inside malloc, or while another thread holds those locks, would
 * hang there. _Fork() (glibc 2.34 and later) is the bare system call with
 * the bookkeeping glibc needs afterwards, declared async-signal-safe for
 * exactly this use. Older libraries get the raw clone system call with only
 * SIGCHLD, which is what fork() boils down to in the kernel. */
static pid_t safe_fork(void) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  return _Fork();
#else
  return (pid_t)syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
#endif
}

/* In the child: default dispositions and an empty mask (the handler's mask
 * would be inherited across execve), no descriptors but the standard three,
 * then the crash processor. */
static void exec_crash_processor(char* const argv[], char* const envp[]) {
  struct sigaction default_action;
  memset(&default_action, 0, sizeof default_action);
  default_action.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sig != SIGKILL && sig != SIGSTOP) sigaction(sig, &default_action, NULL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, NULL);
#ifdef SYS_close_range
  syscall(SYS_close_range, 3u, ~0u, 0u); /* too old a kernel: the fds stay, harmlessly */
#endif
  execve(argv[0], argv, envp);
  _exit(127);
}

/* Sleeps until `child` ends or `deadline` passes: on a descriptor of the
 * child itself, so the crashing process goes on the moment the crash
 * processor exits; in short naps where the kernel has no such descriptor. */
static void await_exit(pid_t child, long long deadline) {
#ifdef SYS_pidfd_open
  const int pidfd = (int)syscall(SYS_pidfd_open, child, 0u);
  if (pidfd >= 0) {
    struct pollfd entry = {.fd = pidfd, .events = POLLIN, .revents = 0};
    long long left;
    while ((left = deadline - monotonic_ms()) > 0 && poll(&entry, 1, (int)left) < 0 &&
           errno == EINTR) {
    }
    close(pidfd);
    return;
  }
#endif
  (void)child;
  if (monotonic_ms() < deadline) sleep_poll_step();
}

/* Waits for `child` up to the wait limit, then kills and reaps it. */
static void wait_bounded(pid_t child) {
  const long long deadline = monotonic_ms() + (long long)atomic_load(&lh_state.wait_limit_ms);
  int status;
  for (;;) {
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) return;
    /* ECHILD: reaped elsewhere (SIGCHLD ignored, or another thread's wait). */
    if (done < 0 && errno != EINTR) return;
    if (monotonic_ms() >= deadline) break;
    await_exit(child, deadline);
  }
  kill(child, SIGKILL);
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
}

static void run_crash_processor(void) {
  if (!atomic_load(&lh_state.installed) || !atomic_load(&lh_state.armed)) return;
  /* After a fork the child still carries its parent's session. */
  if (lh_state.owner_pid != getpid()) return;
  char* argv[] = {lh_state.processor_path, lh_state.process_name, lh_state.pid_token, NULL};
  const pid_t child = safe_fork();
  if (child == 0) exec_crash_processor(argv, lh_state.environment);
  if (child < 0) return;
  wait_bounded(child);
  /* The crash processor has consumed (or given up on) the session file. */
  atomic_store(&lh_state.armed, 0);
}

/* Gives the signal to the disposition found at installation: restored, then
 * raised again. The signal is blocked while this handler runs, so it is
 * delivered right after the handler returns, to the application's handler or
 * with the default action (the core dump and the wait status of a plain
 * crash). */
static void pass_on(int sig) {
  for (size_t i = 0; i < LH_SIGNAL_COUNT; ++i) {
    if (kCrashSignals[i] == sig) {
      sigaction(sig, &previous_actions[i], NULL);
      break;
    }
  }
  (void)raise(sig); /* cannot fail for a valid signal number */
}

static void crash_handler(int sig, siginfo_t* info, void* context) {
  (void)info;
  (void)context;
  const int saved_errno = errno;
  int idle = 0;
  if (atomic_compare_exchange_strong(&crash_stage, &idle, 1)) {
    run_crash_processor();
    atomic_store(&crash_stage, 2);
  } else {
    /* Another thread crashed first: let it finish before the process dies. */
    const long long deadline =
        monotonic_ms() + (long long)atomic_load(&lh_state.wait_limit_ms) + kOtherThreadGraceMs;
    while (atomic_load(&crash_stage) == 1 && monotonic_ms() < deadline) sleep_poll_step();
  }
  pass_on(sig);
  errno = saved_errno;
}

/* Gives the calling thread an alternate signal stack unless it has one, so
 * a stack overflow can still be handled. */
static int ensure_alt_stack(void) {
  stack_t current;
  if (sigaltstack(NULL, &current) != 0) return -errno;
  if ((current.ss_flags & SS_DISABLE) == 0) return 0;
  void* memory =
      mmap(NULL, kAltStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return -errno;
  stack_t stack = {.ss_sp = memory, .ss_flags = 0, .ss_size = kAltStackSize};
  if (sigaltstack(&stack, NULL) != 0) {
    const int rc = -errno;
    munmap(memory, kAltStackSize);
    return rc;
  }
  return 0;
}

int lumetry_host_install_crash_handler(const char* crash_processor_path) {
  if (crash_processor_path == NULL || crash_processor_path[0] == '\0') return -EINVAL;
  char resolved[PATH_MAX];
  if (realpath(crash_processor_path, resolved) == NULL) return -errno;
  if (access(resolved, X_OK) != 0) return -errno;
  if (atomic_load(&lh_state.installed)) {
    memcpy(lh_state.processor_path, resolved, sizeof resolved);
    return 0;
  }

  int rc = ensure_alt_stack();
  if (rc != 0) return rc;
  memcpy(lh_state.processor_path, resolved, sizeof resolved);

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = crash_handler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  /* A second fatal signal inside the handler is then fatal at once. */
  sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < LH_SIGNAL_COUNT; ++i) sigaddset(&action.sa_mask, kCrashSignals[i]);

  for (size_t i = 0; i < LH_SIGNAL_COUNT; ++i) {
    if (sigaction(kCrashSignals[i], &action, &previous_actions[i]) != 0) {
      rc = -errno;
      while (i-- > 0) sigaction(kCrashSignals[i], &previous_actions[i], NULL);
      return rc;
    }
  }
  atomic_store(&lh_state.installed, 1);
  return 0;
}
