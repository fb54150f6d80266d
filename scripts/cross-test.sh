#!/usr/bin/env bash
# Builds kivreg and its test suite for another Debian architecture and runs
# the whole suite under qemu-user. Installs what it lacks: the architecture
# (dpkg --add-architecture), the cross compiler, the architecture's -dev
# packages and qemu-user-static.
# Usage: scripts/cross-test.sh arm64|s390x [build directory, default build-ARCH]
# Extra arguments for ctest go in CTEST_ARGS (for example "-R secstore").
#
# The architecture's libraries are unpacked into BUILD/sysroot rather than
# installed beside the host's: a foreign multiarch package must have exactly
# the version of the host's own, which fails whenever the host has an update
# (from debian-security, say) that is not published for that architecture.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:-}
case "$arch" in
  arm64) triplet=aarch64-linux-gnu ;;
  s390x) triplet=s390x-linux-gnu ;;
  *) echo "usage: $0 arm64|s390x [build directory]" >&2; exit 2 ;;
esac
build=$(realpath -m "${2:-$root/build-$arch}")
sysroot=$build/sysroot
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
  echo "Adding the Debian architecture $arch"
  $sudo dpkg --add-architecture "$arch"
  $sudo apt-get update -q
fi
"$root/scripts/deps.sh" "g++-$triplet" qemu-user-static

# What kivreg and its tests link and load, with what those need in turn.
# The emulator looks for the guest's files under the sysroot first, and
# locale files and preloaded libraries are the architecture's own: the tests
# select de_DE.UTF-8 and move a run's clock with libfaketime.
packages=(libc6 libgcc-s1 libstdc++6 libxml2 libxml2-dev libicu72 liblzma5 zlib1g
          libssl3 libssl-dev libgtest-dev libgmock-dev locales-all libfaketime)
stamp="$sysroot/.packages"
if [ "$(cat "$stamp" 2>/dev/null)" != "${packages[*]}" ]; then
  echo "Unpacking into $sysroot: ${packages[*]/%/:$arch}"
  rm -rf "$sysroot" "$build/debs"
  mkdir -p "$sysroot" "$build/debs"
  (cd "$build/debs" && apt-get download -q "${packages[@]/%/:$arch}")
  for deb in "$build"/debs/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
  echo "${packages[*]}" >"$stamp"
fi

cmake_args=(-S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/CrossDebian.cmake" -DKIVREG_CROSS_TRIPLET="$triplet"
  -DKIVREG_CROSS_SYSROOT="$sysroot"
  -DKIVREG_BUILD_BENCH=OFF)
if command -v ccache >/dev/null; then
  cmake_args+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake "${cmake_args[@]}"
cmake --build "$build" -j"${JOBS:-2}"

# Tests that start build/kivreg or the C host themselves run them through the
# same emulator as CTest does.
export KIVREG_TEST_EMULATOR="qemu-${triplet%%-*}-static -L $sysroot"
junit="$build/ctest-junit.xml"
status=0
# shellcheck disable=SC2086
nice -n "${NICE:-10}" ctest --test-dir "$build" -j"${JOBS:-2}" --output-on-failure \
  --output-junit "$junit" ${CTEST_ARGS:-} || status=$?

# What was skipped, and the reason the test gave.
python3 - "$junit" "$arch" <<'PY'
import re, sys, xml.etree.ElementTree as ET
cases = ET.parse(sys.argv[1]).getroot().iter("testcase")
skipped = [c for c in cases if c.get("status") in ("skipped", "notrun") or c.find("skipped") is not None]
print(f"Skipped on {sys.argv[2]}: {len(skipped)}")
for c in skipped:
    out = c.findtext("system-out") or ""
    m = re.search(r"Skipped\n(.+)", out) or re.search(r"^(.*\S)\s*$", out, re.M)
    print(f"  {c.get('name')}: {m.group(1).strip() if m else '(no reason printed)'}")
PY
exit "$status"
