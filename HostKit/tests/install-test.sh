#!/usr/bin/env bash
# Installs a build tree into a temporary prefix and uses the host kit from
# outside the project, as a host application's build would: a C program
# through pkg-config (shared and static), a C++ program through the CMake
# package, and the installed lumetry-crashdemo crashing beside the installed
# crash-processor. Everything runs under a temporary HOME.
# Usage: install-test.sh BUILD_DIR
set -euo pipefail
build="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
export HOME="$work/home"
mkdir -p "$HOME"

fail() { echo "install-test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
pc="$(find "$prefix" -name lumetry-host.pc)"
[ -n "$pc" ] || fail "no lumetry-host.pc installed"
export PKG_CONFIG_PATH="$(dirname "$pc")"
libdir="$(pkg-config --variable=libdir lumetry-host)"

# Opens and ends a session; refuses a bad piece; answers through exit codes
# (a missing header or library fails its build).
cat > "$work/consumer.c" <<'C'
#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include <lumetry/host.h>

int main(void) {
  const lumetry_host_session bad = {"Fam", "Na_me", "S1", "K1", "Prod"};
  if (lumetry_host_begin(&bad) != -EINVAL) return 10;
  const lumetry_host_session good = {"Fam", "Name", "S1", "K1", "Prod"};
  if (lumetry_host_begin(&good) != 0) return 11;
  const char *path = lumetry_host_session_path();
  if (path == NULL || access(path, F_OK) != 0) return 12;
  if (lumetry_host_end() != 0) return 13;
  if (access(path, F_OK) == 0) return 14;
  puts("consumer ok");
  return 0;
}
C
cp "$work/consumer.c" "$work/consumer.cpp"

# C through pkg-config, linked against the shared library.
cc -std=c17 -Wall -Wextra -Werror -o "$work/consumer-shared" "$work/consumer.c" \
  $(pkg-config --cflags --libs lumetry-host)
# Captured first: under pipefail, "ldd | grep -q" fails when grep stops
# reading at its match and ldd dies of SIGPIPE.
linked="$(ldd "$work/consumer-shared")"
[[ "$linked" == *liblumetry-host.so* ]] || fail "not linked to the shared library"
[ "$(LD_LIBRARY_PATH="$libdir" "$work/consumer-shared")" = "consumer ok" ] || fail "shared consumer"

# C through pkg-config, linked statically.
cc -std=c17 -Wall -Wextra -Werror -o "$work/consumer-static" "$work/consumer.c" \
  $(pkg-config --cflags lumetry-host) "$libdir/liblumetry-host.a"
[ "$("$work/consumer-static")" = "consumer ok" ] || fail "static consumer"

# C++ through the CMake package.
mkdir -p "$work/cmake-project"
cat > "$work/cmake-project/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(HostKitConsumer LANGUAGES CXX)
find_package(LumetryHost 1 REQUIRED)
add_executable(consumer "$work/consumer.cpp")
target_link_libraries(consumer PRIVATE Lumetry::host)
CMAKE
cmake -S "$work/cmake-project" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
[ "$("$work/cmake-build/consumer")" = "consumer ok" ] || fail "CMake consumer"

# The installed demo finds the installed crash processor beside itself.
set +e
"$prefix/bin/lumetry-crashdemo" --crash segv >/dev/null 2>&1
status=$?
set -e
[ "$status" -eq 139 ] || fail "lumetry-crashdemo --crash segv exited $status, not 139 (SIGSEGV)"
logs=("$HOME"/Library/Logs/Quorvik/LogCourier2QX/ulog_LumetryQX_AppCrash_CDEMO_DEMO-*_0.rdy)
[ "${#logs[@]}" -eq 1 ] && [ -f "${logs[0]}" ] || fail "no crash log from the installed demo"
[ -z "$(ls -A "$HOME/Library/Logs/Quorvik/LumetryQX/SessionInfo")" ] || fail "session file left"
echo "install-test: the installed kit builds and runs from outside the project"
