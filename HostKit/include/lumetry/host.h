/* lumetry-host: the part of the telemetry client that lives inside a host
 * application. A host announces its running session with
 * lumetry_host_begin (one session-information file per process), retires it
 * with lumetry_host_end at a clean exit, and installs the crash hook that
 * starts the crash processor when the process dies of a fatal signal. The
 * crash processor then turns the session file into a crash usage log.
 *
 * Every call answers 0 on success or a negative errno value on failure and
 * leaves no partial state behind. The calls are meant for the application's
 * start-up and shut-down path: call them from one thread at a time. */
#ifndef LUMETRY_HOST_H_
#define LUMETRY_HOST_H_

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define LUMETRY_HOST_API __attribute__((visibility("default")))
#else
#define LUMETRY_HOST_API
#endif

/* Longest accepted piece, in bytes (not counting the terminating NUL). */
#define LUMETRY_HOST_PIECE_MAX 64

/* The host's own pieces of the session-information file name. Each must be
 * non-empty, at most LUMETRY_HOST_PIECE_MAX bytes of valid UTF-8, and free of
 * "_", "/" and control characters. The strings are copied; the caller keeps
 * ownership. */
typedef struct lumetry_host_session {
  const char* product_family; /* reported as the crashed product's family */
  const char* product_name;   /* reported as the crashed product's name */
  const char* session_id;     /* id of the crash session; part of the log's name */
  const char* log_name_key;   /* part of the crash log's file name */
  const char* process_name;   /* the product name given to the crash processor */
} lumetry_host_session;

/* Announces the session: creates the session directory and the uploader's
 * spool (0700, with parents) when missing and the session file (0600, never
 * through a symbolic link). A stale entry left under this process id by a
 * process that died without cleaning up is removed first.
 * Answers -EINVAL for a bad or too long piece (nothing is created), -EBUSY
 * while a session is already open, or the errno of the failed file step. */
LUMETRY_HOST_API int lumetry_host_begin(const lumetry_host_session* session);

/* Removes the session file at a clean exit and disarms the crash hook.
 * Answers -ENOENT when no session is open (or it belongs to the parent of a
 * forked process), or the errno of the failed removal. */
LUMETRY_HOST_API int lumetry_host_end(void);

/* Installs the crash hook for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT,
 * SIGTRAP and SIGSYS, with an alternate signal stack for the calling thread.
 * On a crash during an open session the hook runs `crash_processor_path`
 * (resolved to an absolute path now), waits for it a bounded time, then
 * hands the signal to the disposition that was in place before (an
 * application handler or the default action). A second call only replaces
 * the path. Answers -EINVAL for a null or empty path, or the errno of
 * resolving it, of the executable check or of installing the handlers. */
LUMETRY_HOST_API int lumetry_host_install_crash_handler(const char* crash_processor_path);

/* The absolute path of the open session's file, or NULL when none is open.
 * The text stays valid until the next lumetry_host_begin. */
LUMETRY_HOST_API const char* lumetry_host_session_path(void);

#ifdef __cplusplus
}
#endif

#endif /* LUMETRY_HOST_H_ */
