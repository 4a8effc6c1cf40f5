/* lumetry-crashdemo: a tiny host application built on the host kit. It opens
 * a session, installs the crash hook and then either ends the session
 * cleanly or crashes on purpose, so the whole path from a real crash to the
 * crash usage log in the uploader's spool can be watched. */
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "lumetry/host.h"

#ifndef LUMETRY_VERSION
#define LUMETRY_VERSION "unknown"
#endif

static const char kUsage[] =
    "usage: lumetry-crashdemo --crash segv|abort|none|hang [--crash-processor PATH]";

static int usage_error(void) {
  (void)fprintf(stderr, "%s\nTry 'lumetry-crashdemo --help'.\n", kUsage);
  return 2;
}

/* "crash-processor" in the directory of this executable. */
static int processor_beside_me(char* out, size_t size) {
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return -1;
  self[length] = '\0';
  char* slash = strrchr(self, '/');
  if (slash == NULL) return -1;
  *slash = '\0';
  const int written = snprintf(out, size, "%s/crash-processor", self);
  return written < 0 || (size_t)written >= size ? -1 : 0;
}

static void crash_by_segv(void) {
  volatile int* volatile nowhere = NULL;
  *nowhere = 1; /* NOLINT(clang-analyzer-core.NullDereference): the crash on purpose */
}

static int demo_main(int argc, char* argv[]) {
  static const struct option kOptions[] = {{"crash", required_argument, NULL, 'c'},
                                           {"crash-processor", required_argument, NULL, 'p'},
                                           {"help", no_argument, NULL, 'h'},
                                           {"version", no_argument, NULL, 'V'},
                                           {NULL, 0, NULL, 0}};
  const char* mode = NULL;
  const char* processor = NULL;
  int opt;
  while ((opt = getopt_long(argc, argv, "c:p:hV", kOptions, NULL)) != -1) {
    switch (opt) {
      case 'c':
        mode = optarg;
        break;
      case 'p':
        processor = optarg;
        break;
      case 'h':
        (void)printf(
            "%s\n"
            "Opens a host session (a session-information file), installs the crash\n"
            "hook and then crashes by SIGSEGV (segv) or SIGABRT (abort), ends the\n"
            "session cleanly (none), or waits until it is killed (hang), as a hung\n"
            "application that a person force-quits. The crash hook starts the crash processor, "
            "found\n"
            "beside this program unless --crash-processor names it.\n",
            kUsage);
        return 0;
      case 'V':
        (void)printf("lumetry-crashdemo %s\n", LUMETRY_VERSION);
        return 0;
      default:
        return usage_error();
    }
  }
  if (optind != argc || mode == NULL ||
      (strcmp(mode, "segv") != 0 && strcmp(mode, "abort") != 0 && strcmp(mode, "none") != 0 &&
       strcmp(mode, "hang") != 0)) {
    return usage_error();
  }

  char beside[PATH_MAX];
  if (processor == NULL) {
    if (processor_beside_me(beside, sizeof beside) != 0) {
      (void)fprintf(stderr, "lumetry-crashdemo: cannot find my own directory\n");
      return 1;
    }
    processor = beside;
  }
  int rc = lumetry_host_install_crash_handler(processor);
  if (rc != 0) {
    (void)fprintf(stderr, "lumetry-crashdemo: cannot install the crash hook with %s: %s\n",
                  processor, strerror(-rc));
    return 1;
  }

  char session_id[64];
  (void)snprintf(session_id, sizeof session_id, "DEMO-%ld", (long)getpid());
  const lumetry_host_session session = {.product_family = "QuorvikDemo",
                                        .product_name = "CrashDemo",
                                        .session_id = session_id,
                                        .log_name_key = "CDEMO",
                                        .process_name = "lumetry-crashdemo"};
  rc = lumetry_host_begin(&session);
  if (rc != 0) {
    (void)fprintf(stderr, "lumetry-crashdemo: cannot open the session: %s\n", strerror(-rc));
    return 1;
  }
  (void)printf("session file: %s\n", lumetry_host_session_path());
  (void)fflush(stdout);

  if (strcmp(mode, "segv") == 0) crash_by_segv();
  if (strcmp(mode, "abort") == 0) abort();
  while (strcmp(mode, "hang") == 0) pause();

  rc = lumetry_host_end();
  if (rc != 0) {
    (void)fprintf(stderr, "lumetry-crashdemo: cannot end the session: %s\n", strerror(-rc));
    return 1;
  }
  (void)printf("session ended cleanly\n");
  return 0;
}

int main(int argc, char* argv[]) { return demo_main(argc, argv); }
