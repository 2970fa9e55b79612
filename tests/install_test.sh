#!/usr/bin/env bash
# install_test.sh BUILD_DIR - what an outside project sees: the build is installed into an empty prefix, the prefix is
# moved, and a project outside the tree is built against it by pkg-config and by find_package, in C11 and in C++17, and
# its two hosts talk over loopback. A build with sanitizers is skipped (exit 77).
set -euo pipefail
build=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
if grep -q '^MQNODE_SANITIZE:[A-Z]*=.' "$build/CMakeCache.txt"; then
  echo 'install: built with sanitizers, skipped'
  exit 77
fi

place=$(mktemp -d)
server=
finish() {
  if [ -n "$server" ]; then kill "$server" 2>/dev/null || true; fi
  rm -rf "$place"
}
trap finish EXIT
fail() {
  printf 'install: %s\n' "$*" >&2
  exit 1
}
quietly() { "$@" >"$place/log" 2>&1 || { cat "$place/log" >&2; fail "failed: $*"; }; }

quietly cmake --install "$build" --prefix "$place/first"
mv "$place/first" "$place/prefix"
prefix=$place/prefix
pc=$(dirname "$(find "$prefix" -name mqnode.pc)")
lib=$(dirname "$pc")
export PKG_CONFIG_PATH=$pc LD_LIBRARY_PATH=$lib
! grep -rIlE "$build|$PWD|$place" "$prefix" || fail 'installed files name a folder of this machine, see above'

tests/checks/hardening.sh "$lib"/libmq*.so.? "$prefix/bin/mqcat"

# Every public header, and nothing else.
diff <(find mqnode queue runtime sockutil socksin companion -name '*.h' -o -name '*.hpp' | sort) \
  <(cd "$prefix/include/mqnode-1" && find . -type f | sed 's,^\./,,' | sort) || fail 'not the public headers, see above'

# The companion stands before the library, however the packages are asked for.
for packages in mqnode-companion 'mqnode-companion mqnode' 'mqnode mqnode-companion'; do
  # shellcheck disable=SC2086
  order=$(pkg-config --libs $packages | grep -oE -- '-lmq[a-z]+' | awk '!seen[$0]++' | tr '\n' ' ')
  [ "$order" = '-lmqcompanion -lmqnode ' ] || fail "pkg-config --libs $packages: $order"
done
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ "$(pkg-config --modversion mqnode)" = "$version" ] || fail "pkg-config says version $(pkg-config --modversion mqnode)"

# The outside project: a client in C, a server in C++, the face in C++17 without exceptions, and a host that calls
# nothing in the companion, linked by a linker that drops what it finds unused.
outside=$place/outside
mkdir "$outside"
cp examples/client.c examples/cpp_server.cc examples/example.h examples/limits.h "$outside"
cat >"$outside/face.cc" <<'SOURCE'
#include <mqnode/mqnode.hpp>
int main() { return mqnode::Message::create().begin(1) && mqnode::WaitSet().readable().empty() ? 0 : 1; }
SOURCE
cat >"$outside/bare.c" <<'SOURCE'
#include <mqnode/mqnode.h>
int main(void) { return DeleteMQNode(NULL); }
SOURCE
cat >"$outside/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.13)
project(outside C CXX)
find_package(mqnode 1.0 REQUIRED)
set(CMAKE_CXX_STANDARD 17)
add_executable(client client.c)
target_link_libraries(client mqnode::companion mqnode::mqnode)
add_executable(server cpp_server.cc)
target_link_libraries(server mqnode::host)
add_executable(face face.cc)
target_link_libraries(face mqnode::host)
add_executable(bare bare.c)
target_link_libraries(bare mqnode::host)
PROJECT

by_pkg_config() {
  mkdir "$outside/pkg-config"
  local flags
  read -ra flags < <(pkg-config --cflags --libs mqnode-companion mqnode)
  local warnings=(-Wall -Wextra -pedantic -Werror)
  cd "$outside"
  quietly "${CC:-cc}" -std=gnu11 "${warnings[@]}" client.c -o pkg-config/client "${flags[@]}"
  quietly "${CXX:-c++}" -std=c++17 "${warnings[@]}" cpp_server.cc -o pkg-config/server "${flags[@]}"
  quietly "${CXX:-c++}" -std=c++17 "${warnings[@]}" -fno-exceptions -fno-rtti face.cc -o pkg-config/face "${flags[@]}"
  quietly "${CC:-cc}" -Wl,--as-needed bare.c -o pkg-config/bare "${flags[@]}"
}

by_find_package() {
  quietly cmake -S "$outside" -B "$outside/find_package" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed
  quietly cmake --build "$outside/find_package"
}

# talk FOLDER: its client asks, its server answers. The server says its port as its first line.
talk() {
  "$1/face" || fail "$1/face: exit code $?"
  "$1/bare" || fail "$1/bare, which calls nothing in the companion: exit code $?"
  local loads
  loads=$(readelf -d "$1/client" | grep -oE 'libmq[a-z]+\.so\.1' | tr '\n' ' ')
  [ "$loads" = 'libmqcompanion.so.1 libmqnode.so.1 ' ] || fail "$1/client loads $loads"
  mkfifo "$1/port"
  "$1/server" 127.0.0.1 0 >"$1/port" &
  server=$!
  local port answer
  read -r -t 10 port <"$1/port" || fail "$1/server did not start"
  answer=$(timeout 10 "$1/client" 127.0.0.1 "$port" 'is anybody there?') || fail "$1/client: exit code $?"
  [ "$answer" = 'is anybody there?' ] || fail "$1/client: $answer"
  kill "$server"
  wait "$server" || fail "$1/server: exit code $?"
  server=
}

(by_pkg_config)
by_find_package
talk "$outside/pkg-config"
talk "$outside/find_package"

"$prefix/bin/mqcat" --version | grep >/dev/null -F "$version" || fail 'the installed mqcat does not run'
