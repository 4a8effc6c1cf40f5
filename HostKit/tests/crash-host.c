/* A host program for the crash tests: it opens a session with the host kit,
 * installs the crash hook and dies of a real fatal signal, with options for
 * the situations the tests set up (an allocating thread, an application
 * handler installed first, core dumps on or off).
 * It prints its pid and session file path, one per line, before crashing. */
#include <errno.h>
#include <getopt.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "HostInternal.h"
#include "lumetry/host.h"

/* The application's own handler: its exit status tells which signal it got. */
static void app_handler(int sig) { _exit(100 + sig); }

static void* allocate_forever(void* unused) {
  (void)unused;
  for (size_t round = 0;; ++round) {
    void* block = malloc(16 + (round % 4096));
    if (block != NULL) memset(block, 1, 16);
    free(block);
  }
  return NULL;
}

/* A seccomp filter that answers one unused system call number with SIGSYS. */
enum { kTrappedSyscall = 4000 };
static int trap_one_syscall(void) {
  struct sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kTrappedSyscall, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  struct sock_fprog program = {.len = (unsigned short)(sizeof code / sizeof code[0]),
                               .filter = code};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

/* Dies of `sig` the way real programs do; raise() only where the machine has
 * no instruction that faults that way. When the process survives (a hook
 * that swallowed the signal), this returns and the program exits normally. */
static void crash(int sig) {
  volatile int zero = 0;
  volatile int one = 1;
  volatile int* volatile nowhere = NULL;
  switch (sig) {
    case SIGSEGV:
      *nowhere = 1; /* NOLINT(clang-analyzer-core.NullDereference): on purpose */
      break;
    case SIGBUS: {
      /* Touching a mapped page beyond the end of an empty file. */
      const int fd = (int)syscall(SYS_memfd_create, "crash-host", 0);
      volatile char* page = mmap(NULL, 4096, PROT_READ, MAP_SHARED, fd, 0);
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
    case SIGFPE:
      /* Both operands volatile: GCC turns 1 / x into compares, not a division. */
      zero = one / zero; /* NOLINT(clang-analyzer-core.DivideZero): on purpose */
      break;
#endif
    case SIGABRT:
      abort();
    case SIGSYS:
      if (trap_one_syscall() == 0) {
        syscall(kTrappedSyscall);
      } else {
        (void)raise(sig); /* no seccomp here */
      }
      break;
    default: /* SIGKILL (what a task manager sends), or no faulting instruction here */
      (void)raise(sig);
      break;
  }
}

/* A double free of a chunk too large for the per-thread cache: glibc finds it
 * while it holds the arena's lock and aborts right there, so the hook runs
 * with the allocator locked by the crashing thread itself. */
static void* idle_forever(void* unused) {
  (void)unused;
  for (;;) pause();
  return NULL;
}

static void crash_inside_malloc(void) {
  /* A single-threaded process frees without taking the lock. */
  pthread_t idle;
  if (pthread_create(&idle, NULL, idle_forever, NULL) != 0) return;
  char* volatile block = malloc(4000);
  char* volatile guard = malloc(4000);        /* keeps the block from the top chunk */
  if (block == NULL || guard == NULL) return; /* NOLINT(clang-analyzer-unix.Malloc) */
  free(block);
  free(block); /* NOLINT(clang-analyzer-unix.Malloc): the double free on purpose */
}

static int signal_number(const char* name) {
  static const struct {
    const char* name;
    int number;
  } kNames[] = {{"segv", SIGSEGV}, {"bus", SIGBUS},   {"ill", SIGILL}, {"fpe", SIGFPE},
                {"abrt", SIGABRT}, {"trap", SIGTRAP}, {"sys", SIGSYS}, {"kill", SIGKILL}};
  for (size_t i = 0; i < sizeof kNames / sizeof kNames[0]; ++i) {
    if (strcmp(kNames[i].name, name) == 0) return kNames[i].number;
  }
  return 0;
}

int main(int argc, char* argv[]) {
  static const struct option kOptions[] = {{"processor", required_argument, NULL, 'p'},
                                           {"signal", required_argument, NULL, 's'},
                                           {"session-id", required_argument, NULL, 'i'},
                                           {"app-handler", no_argument, NULL, 'a'},
                                           {"wait-limit-ms", required_argument, NULL, 'w'},
                                           {"no-kit", no_argument, NULL, 'K'},
                                           {"end-first", no_argument, NULL, 'E'},
                                           {"crash-in-child", no_argument, NULL, 'F'},
                                           {"in-malloc", no_argument, NULL, 'H'},
                                           {"malloc-thread", no_argument, NULL, 'M'},
                                           {"core", no_argument, NULL, 'C'},
                                           {"leave-child", no_argument, NULL, 'L'},
                                           {NULL, 0, NULL, 0}};
  const char* processor = NULL;
  int sig = 0;
  char session_id[64];
  (void)snprintf(session_id, sizeof session_id, "S%ld", (long)getpid());
  int use_kit = 1, end_first = 0, in_child = 0, in_malloc = 0, malloc_thread = 0, core = 0,
      leave_child = 0, app_handler_first = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, "", kOptions, NULL)) != -1) {
    switch (opt) {
      case 'p':
        processor = optarg;
        break;
      case 's':
        sig = signal_number(optarg);
        break;
      case 'i':
        (void)snprintf(session_id, sizeof session_id, "%s", optarg);
        break;
      case 'a':
        app_handler_first = 1;
        break;
      case 'w':
        lh_set_wait_limit_ms((unsigned)strtoul(optarg, NULL, 10));
        break;
      case 'K':
        use_kit = 0;
        break;
      case 'F':
        in_child = 1;
        break;
      case 'H':
        in_malloc = 1;
        break;
      case 'E':
        end_first = 1;
        break;
      case 'M':
        malloc_thread = 1;
        break;
      case 'C':
        core = 1;
        break;
      case 'L':
        leave_child = 1;
        break;
      default:
        return 2;
    }
  }
  if (sig == 0 || (use_kit && processor == NULL)) {
    (void)fprintf(stderr, "crash-host: --signal NAME and --processor PATH are needed\n");
    return 2;
  }

  struct rlimit limit;
  if (getrlimit(RLIMIT_CORE, &limit) == 0) {
    limit.rlim_cur = core ? limit.rlim_max : 0;
    setrlimit(RLIMIT_CORE, &limit);
  }
  if (app_handler_first) (void)signal(sig, app_handler);

  if (use_kit) {
    int rc = lumetry_host_install_crash_handler(processor);
    const lumetry_host_session session = {.product_family = "HostKitTest",
                                          .product_name = "CrashHost",
                                          .session_id = session_id,
                                          .log_name_key = "K1",
                                          .process_name = "crash-host"};
    if (rc == 0) rc = lumetry_host_begin(&session);
    if (rc != 0) {
      (void)fprintf(stderr, "crash-host: %s\n", strerror(-rc));
      return 3;
    }
    printf("%ld\n%s\n", (long)getpid(), lumetry_host_session_path());
    if (end_first && lumetry_host_end() != 0) return 4;
  } else {
    printf("%ld\n\n", (long)getpid());
  }
  if (leave_child) {
    /* A child that outlives its parent's death (it prints its pid last);
     * the parent goes on once the child runs, past the kit's fork handler. */
    int ready[2];
    if (pipe(ready) != 0) return 12;
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      if (write(ready[1], "r", 1) != 1) _exit(1);
      for (;;) pause();
    }
    char byte;
    if (child < 0 || read(ready[0], &byte, 1) != 1) return 13;
    printf("%ld\n", (long)child);
  }
  (void)fflush(stdout);

  if (malloc_thread) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, allocate_forever, NULL) != 0) return 6;
    const struct timespec settle = {0, 50 * 1000000L};
    nanosleep(&settle, NULL);
  }
  if (in_malloc) crash_inside_malloc();
  if (in_child) {
    /* A forked child crashes; the parent's session must survive it and end
     * cleanly. Answers 0 only when the child died of the signal. */
    const pid_t child = fork();
    if (child == 0) crash(sig);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return 8;
    if (!WIFSIGNALED(status) || WTERMSIG(status) != sig) return 9;
    if (access(lumetry_host_session_path(), F_OK) != 0) return 11;
    return lumetry_host_end() == 0 ? 0 : 10;
  }
  crash(sig);
  return 7;
}
