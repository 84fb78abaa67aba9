#!/usr/bin/env bash
# Installs the build into a scratch root and builds a host program against
# it, with the CMake package and with pkg-config, as a consumer outside the
# tree would.
#   install_test.sh BUILD_DIR PREFIX LIBDIR
set -u
build=$1 prefix=$2 libdir=$3
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
tmp=$(mktemp -d "${TMPDIR:-/tmp}/vesk-install-test.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
root=$tmp/root$prefix
passes=0 failures=0
check() {  # check NAME COMMAND...: passes when COMMAND succeeds
  local name=$1; shift
  if "$@" >"$tmp/log" 2>&1; then passes=$((passes + 1)); else
    echo "FAIL $name"; sed 's/^/  /' "$tmp/log" | tail -n 30; failures=$((failures + 1)); fi
}
absent() {  # absent PATTERN FILE...: nothing installed for consumers names it
  ! grep -rlF -- "$@"
}
version=$(sed -n 's/^#define VESK_VERSION_STRING "\(.*\)"/\1/p' "$build/generated/core/runtime/Version.h")
export LD_LIBRARY_PATH=$root/$libdir

check install env DESTDIR="$tmp/root" cmake --install "$build"
# The exported usage requirements are for consumers: no build flags, no
# paths into this tree, and the generated credentials (a private key) stay out.
check no-werror absent -Werror "$root/$libdir/cmake" "$root/$libdir/pkgconfig"
check no-tree-paths absent "$source_dir" "$root/$libdir/cmake" "$root/$libdir/pkgconfig"
check no-private-key absent "PRIVATE KEY" "$root/include"

check cmake-configure cmake -S "$source_dir/tests/packaging/consumer" -B "$tmp/cmake" -G Ninja \
  -DCMAKE_PREFIX_PATH="$root" -DCMAKE_BUILD_TYPE=Release
check cmake-build cmake --build "$tmp/cmake"
check cmake-run sh -c "'$tmp/cmake/consumer' | grep -qxF 'vesk_core $version'"

# The file names the prefix it was made for; its copy names the scratch root.
mkdir "$tmp/pkgconfig"
sed "s|^prefix=.*|prefix=$root|" "$root/$libdir/pkgconfig/vesk_core.pc" >"$tmp/pkgconfig/vesk_core.pc"
export PKG_CONFIG_PATH=$tmp/pkgconfig
check pkg-config-build sh -c "g++ -std=c++17 -o '$tmp/consumer' \
  '$source_dir/tests/packaging/consumer/consumer.cpp' \$(pkg-config --cflags --libs vesk_core)"
check pkg-config-run sh -c "'$tmp/consumer' | grep -qxF 'vesk_core $version'"

# Lua's module path finds the link, and the link the library.
check lua-module sh -c "lua5.2 -e 'package.cpath=\"$root/$libdir/lua/5.2/?.so\"
  assert(require(\"vesk_core\").version == \"$version\")'"

echo "$passes passed, $failures failed"
[ "$failures" -eq 0 ]
