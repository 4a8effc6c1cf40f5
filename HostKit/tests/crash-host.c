/* A host program of the kit for the crash tests: it prints its pid and
 * session file path, one per line, and dies of a real fatal signal. */
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "HostInternal.h"
#include "lumetry/host.h"

/* The application's own handler: its exit status tells which signal it got. */
static void app_handler(int sig) { _exit(100 + sig); }

static void* allocate_forever(void* unused) {
  for (size_t round = 0;; ++round) free(memset(malloc(16 + round % 4096), 1, 16));
  return unused;
}

/* Dies of `sig` the way real programs do; raise() only where the machine has
 * no instruction that faults that way. Returns when a hook swallowed it. */
static void crash(int sig) {
  volatile int zero = 0, one = 1;
  volatile int* volatile nowhere = NULL;
  /* One unused system call number answered with SIGSYS. */
  struct sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 4000, 0, 1), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  struct sock_fprog program = {.len = 4, .filter = code};
  switch (sig) {
    case SIGSEGV:
      *nowhere = 1; /* NOLINT(clang-analyzer-core.NullDereference): on purpose */
      break;
    case SIGBUS: { /* a mapped page beyond the end of an empty file */
      volatile char* page =
          mmap(NULL, 4096, PROT_READ, MAP_SHARED, (int)syscall(SYS_memfd_create, "h", 0), 0);
      if (page != MAP_FAILED) zero = (unsigned char)page[0];
      break;
    }
#if defined(__x86_64__) || defined(__i386__)
    case SIGILL:
      __asm__ volatile("ud2");
      break;
    case SIGTRAP:
      __asm__ volatile("int3");
      break;
    case SIGFPE:         /* both operands volatile, or GCC compares instead of dividing */
      zero = one / zero; /* NOLINT(clang-analyzer-core.DivideZero): on purpose */
      break;
#endif
    case SIGABRT:
      abort();
    case SIGSYS:
      if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
          prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0) {
        syscall(4000);
      }
      break;
  }
  (void)raise(sig); /* SIGKILL (what a task manager sends), or no such instruction here */
}

/* Runs out of stack, as runaway recursion does: the hook needs its own stack. */
static volatile int forever = 1;
static int overflow(volatile char* above) {
  volatile char frame[4096];
  frame[0] = (char)(above != NULL ? above[0] + 1 : 1);
  return forever ? overflow(frame) + frame[1] : frame[0];
}

static char** args;
static const char* value(const char* name) {
  for (char** a = args; *a != NULL; ++a) {
    if (strcmp(*a, name) == 0) return a[1] != NULL ? a[1] : "";
  }
  return NULL;
}

int main(int argc, char* argv[]) {
  args = argv + (argc > 0);
  const char* name = value("--signal");
  int sig = NSIG - 1; /* named as "segv", "abrt", "kill" */
  while (sig > 0 && (!name || !sigabbrev_np(sig) || strcasecmp(sigabbrev_np(sig), name))) --sig;
  const char* processor = value("--processor");
  const int use_kit = value("--no-kit") == NULL;
  if (sig == 0 || (use_kit && processor == NULL)) return 2;

  struct rlimit limit;
  if (getrlimit(RLIMIT_CORE, &limit) == 0) {
    limit.rlim_cur = value("--core") ? limit.rlim_max : 0;
    setrlimit(RLIMIT_CORE, &limit);
  }
  if (value("--app-handler")) (void)signal(sig, app_handler);
  if (value("--wait-limit-ms")) lh_set_wait_limit_ms((unsigned)atoi(value("--wait-limit-ms")));
  const char* id = value("--session-id") ? value("--session-id") : "S1";
  if (use_kit) {
    const lumetry_host_session session = {"HostKitTest", "CrashHost", id, "K1", "crash-host"};
    if (lumetry_host_install_crash_handler(processor) != 0 || lumetry_host_begin(&session) != 0)
      return 3;
    printf("%ld\n%s\n", (long)getpid(), lumetry_host_session_path());
    if (value("--end-first") && lumetry_host_end() != 0) return 4;
  }
  if (value("--leave-child")) {
    /* A child that outlives its parent (its pid printed last), running past the fork handler. */
    int ready[2];
    char byte;
    if (pipe(ready) != 0) return 12;
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      if (write(ready[1], "r", 1) != 1) _exit(1);
      for (;;) pause();
    }
    if (child < 0 || read(ready[0], &byte, 1) != 1) return 13;
    printf("%ld\n", (long)child);
  }
  (void)fflush(stdout);

  if (value("--in-malloc")) {
    /* With another thread allocating, glibc finds this double free of a chunk too large for
     * the per-thread cache under the arena's lock: the hook runs with the allocator locked. */
    pthread_t thread;
    if (pthread_create(&thread, NULL, allocate_forever, NULL) != 0) return 6;
    usleep(50000);
    char* volatile block = malloc(4000);
    char* volatile guard = malloc(4000);          /* keeps the block from the top chunk */
    if (block == NULL || guard == NULL) return 6; /* NOLINT(clang-analyzer-unix.Malloc) */
    free(block);
    free(block); /* NOLINT(clang-analyzer-unix.Malloc): the double free on purpose */
  }
  if (value("--crash-in-child")) {
    /* The parent's session survives a forked child's crash (0) and ends cleanly. */
    const pid_t child = fork();
    if (child == 0) crash(sig);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || WTERMSIG(status) != sig) return 8;
    return access(lumetry_host_session_path(), F_OK) == 0 && lumetry_host_end() == 0 ? 0 : 10;
  }
  if (value("--overflow")) (void)overflow(NULL);
  crash(sig);
  return 7;
}
