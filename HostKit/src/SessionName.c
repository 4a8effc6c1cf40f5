/* Checks of the host's pieces and the session file naming rule; see
 * SessionName.h. */
#include "SessionName.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

/* Length of one UTF-8 sequence starting at `p` (at most `left` bytes), or 0
 * when it is malformed: overlong forms, surrogates and values past U+10FFFF
 * are refused as well as stray or missing continuation bytes. */
static size_t utf8_sequence_length(const unsigned char* p, size_t left) {
  const unsigned char b = p[0];
  size_t length;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (b < 0x80) return 1;
  if (b >= 0xC2 && b <= 0xDF) {
    length = 2;
  } else if (b >= 0xE0 && b <= 0xEF) {
    length = 3;
    if (b == 0xE0) low = 0xA0;  /* overlong */
    if (b == 0xED) high = 0x9F; /* surrogates */
  } else if (b >= 0xF0 && b <= 0xF4) {
    length = 4;
    if (b == 0xF0) low = 0x90;  /* overlong */
    if (b == 0xF4) high = 0x8F; /* past U+10FFFF */
  } else {
    return 0;
  }
  if (left < length) return 0;
  if (p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

int lh_check_piece(const char* piece) {
  if (piece == NULL) return -EINVAL;
  /* One byte past the limit tells "too long" without reading further. */
  const size_t length = strnlen(piece, LUMETRY_HOST_PIECE_MAX + 1);
  if (length == 0 || length > LUMETRY_HOST_PIECE_MAX) return -EINVAL;
  const unsigned char* p = (const unsigned char*)piece;
  size_t at = 0;
  while (at < length) {
    const unsigned char b = p[at];
    /* "_" separates pieces and is the pid token's fence; "/" would make a
     * path; control characters have no place in a file name. */
    if (b == '_' || b == '/' || b < 0x20 || b == 0x7F) return -EINVAL;
    const size_t step = utf8_sequence_length(p + at, length - at);
    if (step == 0) return -EINVAL;
    at += step;
  }
  return 0;
}

int lh_check_session(const lumetry_host_session* session) {
  if (session == NULL) return -EINVAL;
  const char* pieces[] = {session->product_family, session->product_name, session->session_id,
                          session->log_name_key, session->process_name};
  for (size_t i = 0; i < sizeof pieces / sizeof pieces[0]; ++i) {
    if (lh_check_piece(pieces[i]) != 0) return -EINVAL;
  }
  return 0;
}

int lh_pid_token(pid_t pid, char* out, size_t size) {
  char token[32];
  const int length = snprintf(token, sizeof token, "__%ld__", (long)pid);
  if (length < 0 || (size_t)length >= size) return -ENAMETOOLONG;
  memcpy(out, token, (size_t)length + 1);
  return length;
}

int lh_session_name(const lumetry_host_session* session, pid_t pid, time_t start, char* out,
                    size_t size) {
  char token[32];
  if (lh_pid_token(pid, token, sizeof token) < 0) return -EINVAL;
  struct tm utc;
  char stamp[32] = "0";
  if (gmtime_r(&start, &utc) != NULL) {
    (void)strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  }
  char name[NAME_MAX + 2];
  const int length =
      snprintf(name, sizeof name, "%s%s_%s_%s_%s_%s_%s_%s%s", token, session->product_family,
               session->product_name, session->session_id, session->log_name_key, stamp,
               LH_NAME_TAG, session->process_name, LH_NAME_EXTENSION);
  if (length < 0 || length > NAME_MAX || (size_t)length >= size) return -EINVAL;
  memcpy(out, name, (size_t)length + 1);
  return length;
}
