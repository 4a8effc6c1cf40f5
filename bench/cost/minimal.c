/* The yardstick of the cost benchmark: the crash run's work written by hand
 * in C, with the same system calls in the same order as crash-processor on
 * a prepared home (no diagnostic log, no "obfuscate" preference, so the log
 * is scrambled). Usage: minimal <productName> <pid>. It lists the session
 * directory and tests each entry with strstr as readdir yields it, reads the
 * host id and the preference file, writes one scrambled log per accepted
 * name under an exclusive lock, and unlinks every matched name. It is built
 * with -O2 -static, so it pays no dynamic loading. */
#include <dirent.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define MAX_MATCHES 64
#define MAX_PATH 4096

static char matches[MAX_MATCHES][256];
static int match_count;
static char config_path[MAX_PATH];
static char library[MAX_PATH];

/* Formats a path into `out`; a path that does not fit ends the run as one
 * that found nothing (status 254), never a cut path. */
static void format_path(char* out, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf(out, size, format, args);
  va_end(args);
  if (n < 0 || (size_t)n >= size) exit(254);
}

static int config_exists(void) {
  struct stat st;
  return stat(config_path, &st) == 0;
}

/* open, fstat, read to the end, close: as the project's capped read does. */
static long read_file(const char* path, char* buf, long cap) {
  int fd = open(path, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return -1;
  struct stat st;
  long got = 0;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    for (;;) {
      ssize_t n = read(fd, buf + got, (size_t)(cap - got));
      if (n <= 0) break;
      got += n;
    }
  }
  close(fd);
  return got;
}

/* The host id file and the per-host preference file; returns the file's bytes. */
static long read_preferences(char* plist, long cap) {
  char id[64] = {0};
  char host[40];
  char path[MAX_PATH];
  struct stat st;
  if (read_file("/etc/machine-id", id, (long)sizeof id - 1) < 32) return -1;
  for (int i = 0, j = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) host[j++] = '-';
    host[j++] = (char)(id[i] >= 'a' ? id[i] - 32 : id[i]);
    host[j] = '\0';
  }
  stat(library, &st);
  format_path(path, sizeof path, "%s/Preferences/ByHost/com.quorvik.lumetryqx.%s.plist", library,
              host);
  return read_file(path, plist, cap);
}

/* The first 36-byte run of upper-case hex digits and dashes: the MachineID. */
static void machine_id(const char* plist, long size, char* out) {
  strcpy(out, "NOVALUE");
  for (long i = 0, run = 0; i < size; ++i) {
    char c = plist[i];
    run = ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || c == '-') ? run + 1 : 0;
    if (run == 36) {
      memcpy(out, plist + i - 35, 36);
      out[36] = '\0';
      return;
    }
  }
}

static void rot47(char* s, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = (unsigned char)s[i];
    if (c >= 33 && c <= 126) s[i] = (char)(33 + (c + 14) % 94);
  }
}

static void put(int fd, char* text) {
  config_exists();
  size_t n = strlen(text);
  rot47(text, n);
  if (write(fd, text, n) != (ssize_t)n) return;
}

static void write_log(const char* dir, char* piece[8], const char* id) {
  char path[MAX_PATH];
  char now[32];
  char text[1024];
  time_t t = time(NULL);
  struct tm tm;
  format_path(path, sizeof path, "%sulog_LumetryQX_AppCrash_%s_%s_0.rdy", dir, piece[4], piece[3]);
  config_exists();
  int fd = open(path, O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    return;
  }
  config_exists();
  if (write(fd, "K-Q$mw#$zRTd8pofupin", 20) != 20) {
    close(fd);
    return;
  }
#define STAMP() (t = time(NULL), gmtime_r(&t, &tm), strftime(now, sizeof now, "%Y-%m-%dT%H:%M:%SZ", &tm))
  STAMP();
  snprintf(text, sizeof text,
           "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n\n<UsageDoc version=\"0.5.5\">\n"
           "<StartSession id=\"%s\" time=\"%s\" seq=\"0\" />\n", piece[3], now);
  put(fd, text);
  STAMP();
  snprintf(text, sizeof text,
           "<NewGroup category=\"Lumetry\" subcategory=\"Crash\" name=\"Session\" time=\"%s\" "
           "group=\"0\" doc=\"NOVALUE\" seq=\"1\" />\n", now);
  put(fd, text);
  const char* data[][3] = {{"0", "ProductFamily", "LumetryQX"},
                           {"0", "ProductName", "AppCrash"}};
  for (int i = 0; i < 2; ++i) {
    STAMP();
    snprintf(text, sizeof text,
             "<DataRec time=\"%s\" group=\"%s\" name=\"%s\" data=\"%s\" seq=\"%d\" />\n", now,
             data[i][0], data[i][1], data[i][2], 2 + i);
    put(fd, text);
  }
  STAMP();
  snprintf(text, sizeof text,
           "<NewGroup category=\"AppExit\" subcategory=\"Crash\" name=\"ExitInfo\" time=\"%s\" "
           "group=\"1\" doc=\"NOVALUE\" seq=\"4\" />\n", now);
  put(fd, text);
  const char* crash[][2] = {{"ExitType", "Crash"},
                            {"CrashProductName", piece[2]},
                            {"CrashProductFamily", piece[1]},
                            {"MachineID", id}};
  for (int i = 0; i < 4; ++i) {
    STAMP();
    snprintf(text, sizeof text,
             "<DataRec time=\"%s\" group=\"1\" name=\"%s\" data=\"%s\" seq=\"%d\" />\n", now,
             crash[i][0], crash[i][1], 5 + i);
    put(fd, text);
  }
  STAMP();
  snprintf(text, sizeof text, "<EndSession id=\"%s\" time=\"%s\" seq=\"9\" />\n</UsageDoc>\n",
           piece[3], now);
  put(fd, text);
  config_exists();
  close(fd);
}

int main(int argc, char** argv) {
  char exe[MAX_PATH];
  char dir[MAX_PATH];
  char plist[16384];
  char id[40];
  struct stat st;
  if (argc < 3) return 255;
  const char* product = argv[1];
  const char* pid = argv[2];

  /* The diagnostic log's switch beside the program. */
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    exe[n] = '\0';
    *strrchr(exe, '/') = '\0';
    format_path(config_path, sizeof config_path, "%s/VxLog.config", exe);
  }
  config_exists();

  const char* home = getenv("HOME");
  if (home == NULL) return 254;
  format_path(library, sizeof library, "%s/Library", home);
  stat(library, &st);
  if (*product == '\0' || *pid == '\0') return 254;

  format_path(dir, sizeof dir, "%s/Logs/Quorvik/LumetryQX/SessionInfo/", library);
  DIR* d = opendir(dir);
  if (d == NULL) return 254;
  struct dirent* e;
  while ((e = readdir(d)) != NULL) {
    if (strstr(e->d_name, product) != NULL && strstr(e->d_name, pid) != NULL &&
        match_count < MAX_MATCHES && strlen(e->d_name) < sizeof matches[0]) {
      strcpy(matches[match_count++], e->d_name);
    }
  }
  closedir(d);
  if (match_count == 0) return 254;

  read_preferences(plist, sizeof plist); /* "obfuscate": absent in the prepared home */

  char logdir[MAX_PATH];
  format_path(logdir, sizeof logdir, "%s/Logs/Quorvik/LogCourier2QX/", library);
  for (int m = 0; m < match_count; ++m) {
    char name[256];
    char* piece[9];
    int count = 0;
    strcpy(name, matches[m]);
    char* dot = strrchr(name, '.');
    if (dot != NULL) *dot = '\0';
    for (char* tok = strtok(name, "_"); tok != NULL && count < 9; tok = strtok(NULL, "_")) {
      piece[count++] = tok;
    }
    if (count != 8 || strcmp(piece[7], product) != 0) continue;
    long size = read_preferences(plist, sizeof plist);
    machine_id(plist, size, id);
    write_log(logdir, piece, id);
  }

  for (int m = 0; m < match_count; ++m) {
    char path[MAX_PATH];
    format_path(path, sizeof path, "%s%s", dir, matches[m]);
    lstat(path, &st);
    lstat(path, &st);
    unlink(path);
  }
  return 0;
}
