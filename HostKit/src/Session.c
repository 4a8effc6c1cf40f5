/* Opening and closing a host session: the per-user directories, the
 * session-information file and the copies the crash hook will need. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "HostState.h"
#include "SessionName.h"
#include "lumetry/host.h"

extern char** environ;

struct lh_state lh_state = {.wait_limit_ms = LH_DEFAULT_WAIT_LIMIT_MS, .lock_fd = -1};

static const char kSessionDir[] = "/Library/Logs/Quorvik/LumetryQX/SessionInfo";
static const char kSpoolDir[] = "/Library/Logs/Quorvik/LogCourier2QX";

/* The home directory: $HOME, or the password database when it is unset or
 * empty, as the crash processor finds it. */
static int home_directory(char* out, size_t size) {
  const char* home = getenv("HOME");
  char buffer[16384];
  struct passwd entry;
  struct passwd* found = NULL;
  if (home == NULL || home[0] == '\0') {
    const int rc = getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found);
    if (rc != 0) return -rc;
    if (found == NULL || found->pw_dir == NULL || found->pw_dir[0] == '\0') return -ENOENT;
    home = found->pw_dir;
  }
  const int length = snprintf(out, size, "%s", home);
  if (length < 0 || (size_t)length >= size) return -ENAMETOOLONG;
  return 0;
}

/* Creates `path` and its missing parents, each new one with mode 0700
 * (whatever the umask); existing directories keep their modes. */
static int make_private_dirs(char* path) {
  for (char* slash = strchr(path + 1, '/');; slash = strchr(slash + 1, '/')) {
    if (slash != NULL) *slash = '\0';
    int rc = 0;
    if (mkdir(path, 0700) == 0) {
      if (chmod(path, 0700) != 0) rc = -errno;
    } else if (errno != EEXIST) {
      rc = -errno;
    } else {
      struct stat st;
      if (stat(path, &st) != 0) {
        rc = -errno;
      } else if (!S_ISDIR(st.st_mode)) {
        rc = -ENOTDIR;
      }
    }
    if (slash != NULL) *slash = '/';
    if (rc != 0 || slash == NULL) return rc;
  }
}

/* Removes the entries of `dir_fd` named after this process id. Process ids
 * are unique among live processes, so such an entry was left by a process
 * that died without cleaning up; kept, it would be consumed by our crash. */
static void remove_stale_entries(int dir_fd, const char* token) {
  const int list_fd = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (list_fd < 0) return;
  DIR* dir = fdopendir(list_fd);
  if (dir == NULL) {
    close(list_fd);
    return;
  }
  const size_t token_length = strlen(token);
  for (struct dirent* entry = readdir(dir); entry != NULL; entry = readdir(dir)) {
    if (strncmp(entry->d_name, token, token_length) == 0) {
      unlinkat(dir_fd, entry->d_name, 0); /* a directory stays: EISDIR */
    }
  }
  closedir(dir);
}

static void free_environment(char** environment) {
  if (environment == NULL) return;
  for (char** entry = environment; *entry != NULL; ++entry) free(*entry);
  free(environment);
}

/* A NULL-terminated copy of the current environment, or NULL without memory. */
static char** copy_environment(void) {
  size_t count = 0;
  for (char** entry = environ; entry != NULL && *entry != NULL; ++entry) ++count;
  char** copy = calloc(count + 1, sizeof *copy);
  if (copy == NULL) return NULL;
  for (size_t i = 0; i < count; ++i) {
    copy[i] = strdup(environ[i]);
    if (copy[i] == NULL) {
      free_environment(copy);
      return NULL;
    }
  }
  return copy;
}

/* A forked child must not keep its parent's session alive: the lock would
 * outlive the parent's death and hide it from the uploader's sweep. */
static void release_session_lock(void) {
  if (lh_state.lock_fd >= 0) close(lh_state.lock_fd);
  lh_state.lock_fd = -1;
}

static void register_fork_handler(void) { (void)pthread_atfork(NULL, NULL, release_session_lock); }

/* Creates the session file `name` in `dir_path`, never through a link, and
 * answers a descriptor holding its exclusive lock (or -errno). The file is
 * made and locked under a temporary name first and then linked to its real
 * name, so no live session is ever visible unlocked. The temporary name
 * starts with the pid token, so a later process with this pid removes it
 * should this one die in between. */
static int create_session_file(const char* dir_path, const char* name, const char* token) {
  const int dir_fd = open(dir_path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir_fd < 0) return -errno;
  remove_stale_entries(dir_fd, token);
  char temporary[LH_TOKEN_MAX + 8];
  (void)snprintf(temporary, sizeof temporary, "%s.new", token);
  /* O_EXCL with O_CREAT refuses any existing entry, a planted link included. */
  int fd = openat(dir_fd, temporary, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  int rc = fd < 0 ? -errno : 0;
  if (fd >= 0) {
    if (fchmod(fd, 0600) != 0 || flock(fd, LOCK_EX) != 0 ||
        linkat(dir_fd, temporary, dir_fd, name, 0) != 0) {
      rc = -errno;
      close(fd);
      fd = -1;
    }
    unlinkat(dir_fd, temporary, 0);
  }
  close(dir_fd);
  return rc != 0 ? rc : fd;
}

int lumetry_host_begin(const lumetry_host_session* session) {
  if (lh_check_session(session) != 0) return -EINVAL;
  if (atomic_load(&lh_state.armed) && lh_state.owner_pid == getpid()) return -EBUSY;

  const pid_t pid = getpid();
  char token[LH_TOKEN_MAX];
  char name[NAME_MAX + 1];
  if (lh_pid_token(pid, token, sizeof token) < 0) return -EINVAL;
  if (lh_session_name(session, pid, time(NULL), name, sizeof name) < 0) return -EINVAL;

  char home[PATH_MAX];
  int rc = home_directory(home, sizeof home);
  if (rc != 0) return rc;
  char session_dir[PATH_MAX];
  char spool_dir[PATH_MAX];
  char session_path[PATH_MAX];
  const int dir_length = snprintf(session_dir, sizeof session_dir, "%s%s", home, kSessionDir);
  const int spool_length = snprintf(spool_dir, sizeof spool_dir, "%s%s", home, kSpoolDir);
  const int path_length = snprintf(session_path, sizeof session_path, "%s/%s", session_dir, name);
  if (dir_length < 0 || spool_length < 0 || path_length < 0 ||
      (size_t)path_length >= sizeof session_path || (size_t)spool_length >= sizeof spool_dir) {
    return -ENAMETOOLONG;
  }
  if (session_dir[0] != '/') return -EINVAL; /* a relative HOME names no account */

  /* The crash processor never creates the spool, so a crash on a fresh
   * account would lose its log unless the host makes it now. */
  if ((rc = make_private_dirs(session_dir)) != 0) return rc;
  if ((rc = make_private_dirs(spool_dir)) != 0) return rc;

  static pthread_once_t fork_handler_once = PTHREAD_ONCE_INIT;
  (void)pthread_once(&fork_handler_once, register_fork_handler);
  char** environment = copy_environment();
  if (environment == NULL) return -ENOMEM;
  const int lock_fd = create_session_file(session_dir, name, token);
  if (lock_fd < 0) {
    free_environment(environment);
    return lock_fd;
  }

  /* Not armed here (or armed by the parent of a fork), so the hook does not
   * read the old copy any more. */
  atomic_store(&lh_state.armed, 0);
  free_environment(lh_state.environment);
  lh_state.environment = environment;
  release_session_lock(); /* a session inherited from the parent of a fork */
  lh_state.lock_fd = lock_fd;
  lh_state.owner_pid = pid;
  memcpy(lh_state.session_path, session_path, (size_t)path_length + 1);
  (void)snprintf(lh_state.process_name, sizeof lh_state.process_name, "%s", session->process_name);
  memcpy(lh_state.pid_token, token, sizeof token);
  atomic_store(&lh_state.armed, 1);
  return 0;
}

int lumetry_host_end(void) {
  /* A forked child inherits the parent's session: it is not its to end. */
  if (!atomic_load(&lh_state.armed) || lh_state.owner_pid != getpid()) return -ENOENT;
  atomic_store(&lh_state.armed, 0);
  /* Unlinked before the lock goes, so the file is never seen unlocked. */
  const int rc = unlink(lh_state.session_path) != 0 && errno != ENOENT ? -errno : 0;
  release_session_lock();
  return rc;
}

const char* lumetry_host_session_path(void) {
  if (!atomic_load(&lh_state.armed) || lh_state.owner_pid != getpid()) return NULL;
  return lh_state.session_path;
}
