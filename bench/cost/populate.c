/* Fills a session-information directory for the cost benchmark. Usage:
 *   populate DIR COUNT
 * Makes COUNT unrelated entries "<i>_Fam_Name_S<i>_K<i>_x_y_Other.info" in
 * DIR (which must exist). A listing sees only names, so each entry is a hard
 * link to a shared empty file rather than a file of its own: a link costs
 * the file system no inode, which keeps a million entries quick to make. A
 * new file is started before the link count limit of ext4 (65,000). */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#define LINKS_PER_FILE 60000L

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: populate DIR COUNT\n");
    return 2;
  }
  const char* dir = argv[1];
  const long count = atol(argv[2]);
  char source[4096];
  char path[4096];
  for (long i = 0; i < count; ++i) {
    snprintf(path, sizeof path, "%s/%ld_Fam_Name_S%ld_K%ld_x_y_Other.info", dir, i, i, i);
    if (i % LINKS_PER_FILE == 0) {
      int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (fd < 0 || close(fd) != 0) {
        perror(path);
        return 1;
      }
      snprintf(source, sizeof source, "%s", path);
    } else if (link(source, path) != 0) {
      perror(path);
      return 1;
    }
  }
  return 0;
}
