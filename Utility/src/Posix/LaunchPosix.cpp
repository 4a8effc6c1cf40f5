// Linux binding of the launch seam.
//
// A detached start takes two steps. The caller forks an intermediate process,
// which posix_spawns the program in a session of its own
// (POSIX_SPAWN_SETSID), writes posix_spawn's answer into a close-on-exec pipe
// and exits at once. The caller reads that answer and reaps the intermediate.
// The program, orphaned by the intermediate's exit, is adopted by init (or
// the nearest subreaper), which reaps it when it ends: the caller never waits
// for it and never keeps a zombie. Everything the intermediate needs is
// prepared before the fork, so it only calls posix_spawn, write and _exit.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "Launch.h"
#include "Posix/ScopedFd.h"

extern char** environ;

namespace Launch {
namespace {

// Owns the posix_spawn attribute and file-action objects of one start.
class SpawnSetup {
 public:
  SpawnSetup() {
    attrOk_ = posix_spawnattr_init(&attr_) == 0;
    actionsOk_ = posix_spawn_file_actions_init(&actions_) == 0;
  }
  ~SpawnSetup() {
    if (attrOk_) posix_spawnattr_destroy(&attr_);
    if (actionsOk_) posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  // A new session, a clear signal mask and default signal actions, so the
  // program starts as if launched from the desktop rather than inheriting
  // the caller's blocked or ignored signals. Standard input is /dev/null;
  // descriptors above standard error are closed (an inherited lock or pipe
  // would otherwise live as long as the program).
  bool Prepare() {
    if (!attrOk_ || !actionsOk_) return false;
    sigset_t empty;
    sigset_t all;
    sigemptyset(&empty);
    sigfillset(&all);
    short flags = POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (posix_spawnattr_setflags(&attr_, flags) != 0) return false;
    if (posix_spawnattr_setsigmask(&attr_, &empty) != 0) return false;
    if (posix_spawnattr_setsigdefault(&attr_, &all) != 0) return false;
    if (posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0) != 0) {
      return false;
    }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    if (posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) != 0) {
      return false;
    }
#endif
    return true;
  }

  const posix_spawnattr_t* attr() const { return &attr_; }
  const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawnattr_t attr_;
  posix_spawn_file_actions_t actions_;
  bool attrOk_ = false;
  bool actionsOk_ = false;
};

void ReapChild(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

bool SpawnDetached(const std::string& executable, const std::string& argument) {
  if (executable.empty()) return false;
  SpawnSetup setup;
  if (!setup.Prepare()) return false;

  char* argv[] = {const_cast<char*>(executable.c_str()), const_cast<char*>(argument.c_str()),
                  nullptr};

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  ScopedFd readEnd(fds[0]);
  ScopedFd writeEnd(fds[1]);

  pid_t intermediate = ::fork();
  if (intermediate < 0) return false;
  if (intermediate == 0) {
    pid_t pid = 0;
    int rc = ::posix_spawn(&pid, argv[0], setup.actions(), setup.attr(), argv, environ);
    ssize_t written = ::write(writeEnd.get(), &rc, sizeof rc);
    ::_exit(written == static_cast<ssize_t>(sizeof rc) ? 0 : 1);
  }

  writeEnd.reset();
  int rc = -1;
  ssize_t got = 0;
  do {
    got = ::read(readEnd.get(), &rc, sizeof rc);
  } while (got < 0 && errno == EINTR);
  ReapChild(intermediate);
  return got == static_cast<ssize_t>(sizeof rc) && rc == 0;
}

bool RunShellCommand(const std::string& command) { return std::system(command.c_str()) == 0; }

}  // namespace Launch
