#!/usr/bin/env bash
# Builds the Debian packages libkivreg1, libkivreg-dev and kivreg (tests run
# during the build) in a copy of the tree, checks them with lintian and lists
# them. Installs the packaging tools and build dependencies it lacks.
# Usage: scripts/package.sh [output directory, default dist/]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$(realpath -m "${1:-$root/dist}")
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive

missing=()
for p in dpkg-dev debhelper lintian; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
updated=""
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -q && updated=1
  $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# A copy, so that neither the build nor its leftovers touch the work tree.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
src=$work/kivreg
mkdir "$src"
tar -C "$root" --exclude=.git --exclude='./build*' --exclude=./dist --exclude=./debian/build \
  --exclude='./obj-*' -cf - . | tar -C "$src" -xf -
cd "$src"

version=$(sed -nE 's/^project\(kivreg VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
if [ "$(dpkg-parsechangelog -S Version)" != "$version" ]; then
  echo "debian/changelog does not name version $version of CMakeLists.txt" >&2
  exit 1
fi
if ! dpkg-checkbuilddeps 2>/dev/null; then
  [ -n "$updated" ] || $sudo apt-get update -q
  $sudo apt-get build-dep -y -q --no-install-recommends ./
fi
dpkg-buildpackage -us -uc -b

mkdir -p "$out"
debs=("$work"/*.deb)
cp "${debs[@]}" "$out/"
# Errors fail the script; warnings and notes are shown.
lintian --fail-on error --display-info "${debs[@]}"
echo "lintian: no errors"
echo "Packages in $out:"
for deb in "${debs[@]}"; do
  ls -l "$out/$(basename "$deb")"
done
