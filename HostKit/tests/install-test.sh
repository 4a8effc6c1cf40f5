#!/usr/bin/env bash
# Usage: install-test.sh BUILD_DIR. The installed kit used from outside under a
# temporary HOME: the subproject's consumer in C through pkg-config (shared and
# static) and in C++ through the CMake package; the installed demo crashing.
set -euo pipefail
build="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
export HOME="$work/home"
mkdir -p "$HOME" "$work/cmake-project"
fail() { echo "install-test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
pc="$(find "$prefix" -name lumetry-host.pc)"
[ -n "$pc" ] || fail "no lumetry-host.pc installed"
export PKG_CONFIG_PATH="$(dirname "$pc")"
libdir="$(pkg-config --variable=libdir lumetry-host)"
cp "$(dirname "$0")/../../tests/subproject/consumer.c" "$work/consumer.c"
cp "$work/consumer.c" "$work/consumer.cpp"
build_c() { cc -std=c17 -Wall -Wextra -Werror -o "$work/$1" "$work/consumer.c" "${@:2}"; }

build_c consumer-shared $(pkg-config --cflags --libs lumetry-host)
# Captured first: under pipefail, "ldd | grep -q" can die of SIGPIPE.
linked="$(ldd "$work/consumer-shared")"
[[ "$linked" == *liblumetry-host.so* ]] || fail "not linked to the shared library"
[ "$(LD_LIBRARY_PATH="$libdir" "$work/consumer-shared" go)" = "consumer ok" ] || fail "shared"
build_c consumer-static $(pkg-config --cflags lumetry-host) "$libdir/liblumetry-host.a"
[ "$("$work/consumer-static" go)" = "consumer ok" ] || fail "static consumer"

cat > "$work/cmake-project/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(HostKitConsumer LANGUAGES CXX)
find_package(LumetryHost 1 REQUIRED)
add_executable(consumer "$work/consumer.cpp")
target_link_libraries(consumer PRIVATE Lumetry::host)
CMAKE
cmake -S "$work/cmake-project" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
[ "$("$work/cmake-build/consumer" go)" = "consumer ok" ] || fail "CMake consumer"

# The installed demo finds the installed crash processor beside itself.
status=0
"$prefix/bin/lumetry-crashdemo" --crash segv >/dev/null 2>&1 || status=$?
[ "$status" -eq 139 ] || fail "lumetry-crashdemo --crash segv exited $status, not 139 (SIGSEGV)"
logs=("$HOME"/Library/Logs/Quorvik/LogCourier2QX/ulog_LumetryQX_AppCrash_CDEMO_DEMO-*_0.rdy)
[ "${#logs[@]}" -eq 1 ] && [ -f "${logs[0]}" ] || fail "no crash log from the installed demo"
[ -z "$(ls -A "$HOME/Library/Logs/Quorvik/LumetryQX/SessionInfo")" ] || fail "session file left"
echo "install-test: the installed kit builds and runs from outside the project"
