#!/usr/bin/env bash
# Builds the Debian packages into build-pkg/packages/ (or $BUILD_DIR/packages/)
# and runs lintian on them:
#   vesk-agent_VERSION_ARCH.deb         the agent, the libraries, the Lua
#                                       module and modules, the service
#   libvesk-core-dev_VERSION_ARCH.deb   headers, CMake and pkg-config files
# Compiled with Debian's hardening flags, for /usr. Each run makes the
# package a fresh pair of bootstrap credentials. Prints the packages' paths
# on stdout.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh packaging
dir=${BUILD_DIR:-build-pkg}

export DEB_BUILD_MAINT_OPTIONS=hardening=+all
# Dates in the changelog and the manual page are the last commit's.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
flags() { dpkg-buildflags --get "$1"; }
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DVESK_BUILD_TESTS=OFF -DVESK_BUILD_BENCH=OFF -DVESK_DOCS=ON \
  -DCMAKE_C_FLAGS="$(flags CPPFLAGS) $(flags CFLAGS)" \
  -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" -DCMAKE_SHARED_LINKER_FLAGS="$(flags LDFLAGS)" \
  -DCMAKE_MODULE_LINKER_FLAGS="$(flags LDFLAGS)" -DCMAKE_STRIP="$PWD/packaging/strip" >&2
# No two packages share a private key.
rm -f "$dir/generated/core/common/BootstrapCredentials.h"
cmake --build "$dir" -j2 >&2
rm -f "$dir"/packages/*.deb
(cd "$dir" && cpack -G DEB) >&2

# lintian's errors fail the build; its warnings and notes are shown.
lintian --display-info --tag-display-limit 0 "$dir"/packages/*.deb >&2 || {
  echo "package: lintian reported errors" >&2
  exit 1
}
ls "$PWD/$dir"/packages/*.deb
