/* The naming rule of session-information files written by the host kit, and
 * the checks of the host's pieces. Kept apart from the file handling so that
 * tests can build the names of other processes' sessions.
 *
 * A name reads "__<pid>__<family>_<name>_<session id>_<log key>_<start>_host1_<process>.info".
 * The crash processor splits names on runs of "_", so the doubled separators
 * do not change the eight pieces; but no piece may hold "_", so "__<pid>__"
 * occurs in exactly one name per live process and, given as the crash
 * processor's second argument, matches that name alone (a plain "12" would
 * also match the names of pids 123, 412 and 4123). */
#ifndef LUMETRY_HOST_SESSION_NAME_H_
#define LUMETRY_HOST_SESSION_NAME_H_

#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include "lumetry/host.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Piece 7 of every name the kit writes: who wrote it, and in which form. */
#define LH_NAME_TAG "host1"
#define LH_NAME_EXTENSION ".info"

/* 0 when `piece` is acceptable (see lumetry_host_session), else -EINVAL. */
int lh_check_piece(const char* piece);

/* 0 when the session pointer and all five pieces are acceptable, else -EINVAL. */
int lh_check_session(const lumetry_host_session* session);

/* Writes "__<pid>__" into `out`. Answers its length, or -ENAMETOOLONG when
 * `size` is too small (then `out` is left untouched). */
int lh_pid_token(pid_t pid, char* out, size_t size);

/* Writes the session file name of `session` for process `pid` that started
 * at `start` into `out`. The pieces must have passed lh_check_session.
 * Answers its length, or -EINVAL when the name would be longer than a file
 * name may be or does not fit `size` (then `out` is left untouched). */
int lh_session_name(const lumetry_host_session* session, pid_t pid, time_t start, char* out,
                    size_t size);

#ifdef __cplusplus
}
#endif

#endif /* LUMETRY_HOST_SESSION_NAME_H_ */
