/* Paired wall-time runs for the cost benchmark. Usage:
 *   pairs RUNS PLANT LOG PROGRAM_A PROGRAM_B ARG...
 * Runs PROGRAM_A and PROGRAM_B with the same arguments RUNS times each, in
 * pairs whose order alternates (A first, then B first), so a slow spell of
 * a shared machine falls on both. Before every run the file PLANT is
 * created (the session file a run consumes) and LOG is unlinked (the usage
 * log a run writes); "-" skips either step. The clock covers only spawning
 * the program and waiting for it. Prints one line "A_ns B_ns" per pair and
 * exits 1 when a program cannot be started. */
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

static void prepare(const char* plant, const char* log) {
  if (strcmp(plant, "-") != 0) {
    int fd = open(plant, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
  }
  if (strcmp(log, "-") != 0) unlink(log);
}

/* Nanoseconds that one run of argv took, or -1 when it could not start. */
static long long timed_run(char** argv) {
  struct timespec start;
  struct timespec end;
  pid_t child;
  int status;
  clock_gettime(CLOCK_MONOTONIC, &start);
  if (posix_spawn(&child, argv[0], NULL, NULL, argv, environ) != 0) return -1;
  if (waitpid(child, &status, 0) != child) return -1;
  clock_gettime(CLOCK_MONOTONIC, &end);
  return (long long)(end.tv_sec - start.tv_sec) * 1000000000LL + (end.tv_nsec - start.tv_nsec);
}

int main(int argc, char** argv) {
  if (argc < 6) {
    fprintf(stderr, "usage: pairs RUNS PLANT LOG PROGRAM_A PROGRAM_B ARG...\n");
    return 2;
  }
  const int runs = atoi(argv[1]);
  const char* plant = argv[2];
  const char* log = argv[3];
  const int nargs = argc - 6;
  char** a = calloc((size_t)nargs + 2, sizeof *a);
  char** b = calloc((size_t)nargs + 2, sizeof *b);
  if (a == NULL || b == NULL) return 2;
  a[0] = argv[4];
  b[0] = argv[5];
  for (int i = 0; i < nargs; ++i) a[i + 1] = b[i + 1] = argv[6 + i];

  for (int r = 0; r < runs; ++r) {
    long long ta;
    long long tb;
    if (r % 2 == 0) {
      prepare(plant, log);
      ta = timed_run(a);
      prepare(plant, log);
      tb = timed_run(b);
    } else {
      prepare(plant, log);
      tb = timed_run(b);
      prepare(plant, log);
      ta = timed_run(a);
    }
    if (ta < 0 || tb < 0) return 1;
    printf("%lld %lld\n", ta, tb);
  }
  free(a);
  free(b);
  return 0;
}
