/* The kit's process-wide state: what lumetry_host_begin and
 * lumetry_host_install_crash_handler prepare and what the crash hook reads.
 * Everything the hook needs sits in fixed buffers here, so the hook itself
 * never allocates. */
#ifndef LUMETRY_HOST_HOST_STATE_H_
#define LUMETRY_HOST_HOST_STATE_H_

#include <limits.h>
#include <stdatomic.h>
#include <sys/types.h>

#include "lumetry/host.h"

/* Longest "__<pid>__" token plus its NUL. */
#define LH_TOKEN_MAX 32

/* How long the hook waits for the crash processor before killing it. */
#define LH_DEFAULT_WAIT_LIMIT_MS 10000u

struct lh_state {
  /* 1 while the session file at session_path is open for owner_pid; the
   * other session fields are written before it turns 1. */
  atomic_int armed;
  pid_t owner_pid;
  char session_path[PATH_MAX];
  char process_name[LUMETRY_HOST_PIECE_MAX + 1];
  char pid_token[LH_TOKEN_MAX];
  char** environment; /* NULL-terminated copy taken by lumetry_host_begin */
  /* Holds the session file's exclusive flock while the session is open (the
   * kernel drops it however the process ends); -1 otherwise. */
  int lock_fd;

  /* 1 once the signal handlers are in place; processor_path is absolute. */
  atomic_int installed;
  char processor_path[PATH_MAX];
  atomic_uint wait_limit_ms;
};

extern struct lh_state lh_state;

#endif /* LUMETRY_HOST_HOST_STATE_H_ */
