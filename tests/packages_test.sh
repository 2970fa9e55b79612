#!/usr/bin/env bash
# packages_test.sh BUILD_DIR - makes the Debian packages of a build: lintian has nothing to say, each holds what it
# should and depends on what it needs, and together they run. Skipped (exit 77) without lintian or dpkg-dev, and for a
# build with sanitizers.
set -euo pipefail
build=$(cd "$1" && pwd)
for tool in lintian dpkg-shlibdeps cpack; do
  command -v "$tool" >/dev/null || { echo "packages: no $tool, skipped"; exit 77; }
done
if grep -q '^MQNODE_SANITIZE:[A-Z]*=.' "$build/CMakeCache.txt"; then
  echo 'packages: built with sanitizers, skipped'
  exit 77
fi

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
cd "$place"
status=0
fail() {
  printf 'packages: %s\n' "$*" >&2
  status=1
}

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$place" >log 2>&1 || { cat log >&2; fail 'cpack failed'; exit 1; }
for package in libmqnode1 libmqcompanion1 libmqnode-dev mqnode-tools; do
  set -- "$package"_*.deb
  [ -e "$1" ] || { fail "no package $package"; exit 1; }
  mv "$1" "$package.deb"
done
said=$(lintian ./*.deb 2>&1 | grep -v 'root privileges' || true)
[ -z "$said" ] || fail "lintian has something to say:
$said"

# holds PACKAGE COUNT PATTERN: so many files of the package match.
holds() {
  local count
  count=$(dpkg-deb -c "$1.deb" | awk '{ print $6 }' | grep -cE "$3" || true)
  [ "$count" = "$2" ] || fail "$1 has $count files like $3 instead of $2"
}
depends() {
  dpkg-deb -f "$1.deb" Depends | grep >/dev/null -E "$2" ||
    fail "$1 does not depend on $2: $(dpkg-deb -f "$1.deb" Depends)"
}
for library in libmqnode libmqcompanion; do
  holds ${library}1 2 '/usr/lib/.*\.so\.1(\.0\.0)?$'
  holds ${library}1 1 "/libmq.*\.so\.1\.0\.0"
  holds libmqnode-dev 1 "/usr/lib/.*/$library\.so$"
  depends libmqnode-dev "${library}1 \(= "
  depends mqnode-tools "${library}1 \(>= "
  depends ${library}1 'libc6 \(>= '
done
depends libmqcompanion1 'libsodium'
holds libmqnode-dev 1 '/usr/include/mqnode-1/mqnode/mqnode\.hpp$'
holds libmqnode-dev 2 '/pkgconfig/mqnode(-companion)?\.pc$'
holds libmqnode-dev 1 '/cmake/mqnode/mqnode-config\.cmake$'
holds mqnode-tools 1 '/usr/bin/mqcat$'
holds mqnode-tools 1 '/man1/mqcat\.1\.gz$'
holds mqnode-tools 1 '/bash-completion/completions/mqcat$'
dpkg-deb -f libmqnode1.deb Depends | grep >/dev/null -E 'sodium|stdc|gcc' && fail 'libmqnode1 depends on more than libc'

# Unpacked over one another they make a tree in which the tool runs.
for package in ./*.deb; do dpkg-deb -x "$package" root; done
libraries=$(dirname "$(find root -name libmqnode.so.1)")
LD_LIBRARY_PATH=$libraries root/usr/bin/mqcat --version >/dev/null || fail 'mqcat does not run'
exit $status
