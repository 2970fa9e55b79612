#!/usr/bin/env bash
# install_test.sh BUILD_DIR - checks the Debian packages: lintian reports nothing, and each has the right files and
# dependencies. Unpacked into one directory, they form a prefix against which an external project is built by pkg-config
# and by find_package, with a linker that drops unused libraries.
. "$(dirname "$0")/support/shell.sh"
needs lintian dpkg-shlibdeps
cd "$work" || exit

quietly cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work"
same lintian '' "$(lintian ./*.deb 2>&1 | grep -v 'root privileges')"
for package in ./*.deb; do
  dpkg-deb -x "$package" root
  dpkg-deb -f "$package" Package Depends | paste -sd ' ' | sed -E 's/ \([^)]*\)//g; s/(fmt|sodium)[0-9]+/\1/g'
  dpkg-deb -c "$package" | sed -nE '/^[^d].*(include|cmake|pkgconfig|man3|share.doc)/!s,^[^d].* \./usr/,  ,p' |
    sed -E 's,/x86_64-linux-gnu,,; s, -> .*,,; s/(so\.[0-9]+)\.[.0-9]*/\1.x/'
done >contents
without='' # libnats there is no mqbridge
[ -x "$build/bin/mqbridge" ] || without='/^Package: mqnode-bridge/,/^Package: mqnode-doc/{/mqnode-doc/!d}'
sed "$without" <<'CONTENTS' | diff - contents || fail 'the packages contain something else, see above'
Package: libmqcompanion1 Depends: libc6, libsodium
  lib/libmqcompanion.so.1.x
  lib/libmqcompanion.so.1
Package: libmqnode-asio-dev Depends: libmqnode-dev, libasio-dev
Package: libmqnode-dev Depends: libmqnode1, libmqcompanion1
  lib/libmqcompanion.so
  lib/libmqnode.so
  share/man/man7/mqnode.7.gz
Package: libmqnode-uv-dev Depends: libmqnode-uv1, libmqnode-dev, libuv1-dev
  lib/libmqnode-uv.so
Package: libmqnode-uv1 Depends: libmqnode1, libmqcompanion1, libc6, libuv1
  lib/libmqnode-uv.so.1.x
  lib/libmqnode-uv.so.1
Package: libmqnode1 Depends: libc6
  lib/libmqnode.so.1.x
  lib/libmqnode.so.1
Package: mqnode-bridge Depends: libmqnode1, libmqcompanion1, libmqnode-uv1, libc6, libfmt, libgcc-s1, libnats3.4, libstdc++6, libuv1
  bin/mqbridge
  lib/systemd/system/mqbridge@.service
  share/bash-completion/completions/mqbridge
  share/fish/vendor_completions.d/mqbridge.fish
  share/man/man1/mqbridge.1.gz
  share/zsh/vendor-completions/_mqbridge
Package: mqnode-doc
Package: mqnode-tools Depends: libmqnode1, libmqcompanion1, libc6, libfmt, libgcc-s1, libpcap0.8, libsodium, libstdc++6
  bin/mqcat
  lib/wireshark/plugins/mqnode.lua
  share/bash-completion/completions/mqcat
  share/fish/vendor_completions.d/mqcat.fish
  share/man/man1/mqcat.1.gz
  share/zsh/vendor-completions/_mqcat
CONTENTS

prefix=$work/root/usr
lib=$prefix/lib/x86_64-linux-gnu
export PKG_CONFIG_PATH=$lib/pkgconfig LD_LIBRARY_PATH=$lib
for document in html/index.html docs/guide.md examples/hello.c; do quietly test -f "$prefix/share/doc/mqnode/$document"; done
same 'installed headers' \
  "$(cd "$tree" && git ls-files '*.h' '*.hpp' | grep -E '^(mqnode|queue|runtime|socksin|sockutil|companion|cpp|loop/mqnode)/' |
    sed -E 's,^(cpp|loop)/,,' | sort)" \
  "$(cd "$prefix/include/mqnode-1" && find . -type f | sed 's,^\./,,' | sort)"
same 'directories of this machine' '' "$(grep -rIlE "$build|$tree|$work" "$prefix")"
quietly "$tree/tests/checks/elf.sh" hardened "$lib"/libmq*.so.? "$prefix"/bin/mq*
has <("$prefix/bin/mqcat" --version) "$(pkg-config --modversion mqnode)"

# The C++ interface without exceptions, and an application that calls nothing in the companion.
cat >cpp.cc <<'SOURCE'
#include <mqnode/server.hpp>
int main() { return mqnode::Message::create().begin(1) && mqnode::WaitSet().readable().empty() ? 0 : 1; }
SOURCE
cat >bare.c <<'SOURCE'
#include <mqnode/mqnode.h>
int main(void) { return DeleteMQNode(NULL); }
SOURCE
cat >uv.c <<'SOURCE'
#include <mqnode/uv.h>
int main(void) {
  mq_uv_free(mq_uv_new(uv_default_loop(), NULL));
  return uv_run(uv_default_loop(), UV_RUN_DEFAULT);
}
SOURCE
cat >asio.cc <<'SOURCE'
#include <mqnode/asio.hpp>
int main() { return mqnode::AsyncNode().status() ? 1 : 0; }
SOURCE
cat >CMakeLists.txt <<'PROJECT'
cmake_minimum_required(VERSION 3.13)
project(outside C CXX)
find_package(mqnode 1.0 REQUIRED COMPONENTS uv asio)
set(CMAKE_CXX_STANDARD 17)
add_executable(cpp cpp.cc)
target_link_libraries(cpp mqnode::companion mqnode::mqnode)
add_executable(bare bare.c)
target_link_libraries(bare mqnode::host)
if(TARGET mqnode::asio)
  add_executable(asio asio.cc)
  target_link_libraries(asio mqnode::asio)
endif()
if(TARGET mqnode::uv)
  add_executable(uv uv.c)
  target_link_libraries(uv mqnode::uv)
endif()
PROJECT
read -ra flags < <(pkg-config --cflags --libs mqnode mqnode-host) # puts the companion first in any order
mkdir pkg-config
quietly c++ -std=c++17 -Wall -Wextra -pedantic -Werror -fno-exceptions -fno-rtti cpp.cc -o pkg-config/cpp "${flags[@]}"
quietly cc -Wl,--as-needed bare.c -o pkg-config/bare "${flags[@]}"
read -ra flags < <(pkg-config --cflags --libs mqnode-uv)
quietly cc -std=gnu11 -Wl,--as-needed uv.c -o pkg-config/uv "${flags[@]}"
quietly ./pkg-config/uv
read -ra flags < <(pkg-config --cflags --libs mqnode-asio)
quietly c++ -std=c++20 asio.cc -o pkg-config/asio "${flags[@]}"
quietly cmake -B find_package -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed
quietly cmake --build find_package
quietly ./find_package/uv
# The same project with the tree inside it.
sed "s,^find_package.*,add_subdirectory($tree mqnode)," CMakeLists.txt >inside
mkdir -p add_subdirectory/source && mv inside add_subdirectory/source/CMakeLists.txt && cp ./*.c* add_subdirectory/source
quietly cmake -S add_subdirectory/source -B add_subdirectory -G Ninja \
  -DCMAKE_DISABLE_FIND_PACKAGE_{CLI11,fmt,nlohmann_json}=ON
quietly ninja -C add_subdirectory -t query bare
for program in {pkg-config,find_package}/{cpp,bare}; do
  quietly "./$program"
  same "loaded by $program" 'libmqcompanion.so.1 libmqnode.so.1' \
    "$(readelf -d "$program" | grep -oE 'libmq[a-z]+\.so\.1' | paste -sd ' ')"
done
