/* A host application of the kit, answering through its exit status: no session yet;
 * given an argument, it refuses a bad piece, then opens and ends a session. */
#include <errno.h>
#include <lumetry/host.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char** argv) {
  const lumetry_host_session bad = {"Fam", "Na_me", "S1", "K1", "Prod"};
  const lumetry_host_session good = {"Fam", "Name", "S1", "K1", "Prod"};
  (void)argv;
  if (lumetry_host_session_path() != NULL) return 1;
  if (argc < 2) return 0;
  if (lumetry_host_begin(&bad) != -EINVAL || lumetry_host_begin(&good) != 0) return 10;
  const char* path = lumetry_host_session_path();
  if (path == NULL || access(path, F_OK) != 0 || lumetry_host_end() != 0) return 12;
  if (access(path, F_OK) == 0) return 14;
  puts("consumer ok");
  return 0;
}
