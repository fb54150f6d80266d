#!/usr/bin/env bash
# Builds the RPM packages kivreg, libkivreg1 and libkivreg-devel from the tree
# with rpmbuild (the whole test suite runs in %check), checks them with
# rpmlint and leaves them in the output directory. On Debian it installs the
# rpm and rpmlint packages and the build dependencies it lacks; rpmbuild's
# check of BuildRequires is left out, as they are Debian packages here.
# Usage: scripts/package-rpm.sh [output directory, default dist/]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$(realpath -m "${1:-$root/dist}")
recipe=$root/rpm/kivreg.rpmbuild

"$root/scripts/deps.sh" rpm rpmlint make

version=$(sed -nE 's/^project\(kivreg VERSION ([0-9.]+).*/\1/p' "$root/CMakeLists.txt")
if [ "$(sed -nE 's/^Version:[[:space:]]*//p' "$recipe")" != "$version" ]; then
  echo "rpm/kivreg.rpmbuild does not name version $version of CMakeLists.txt" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{SOURCES,BUILD,RPMS,SRPMS}
# The source tarball: the tree as it is, without git, build trees and packages.
tar -C "$root" --exclude=.git --exclude='./build*' --exclude=./dist --exclude=./debian/build \
  --exclude='./obj-*' --sort=name --owner=0 --group=0 --numeric-owner \
  --transform "s,^\.,kivreg-$version," -czf "$work/SOURCES/kivreg-$version.tar.gz" .

rpmbuild --define "_topdir $work" --define "_smp_mflags -j${JOBS:-2}" --nodeps \
  -ba "$recipe"

mkdir -p "$out"
mapfile -t rpms < <(find "$work/RPMS" "$work/SRPMS" -name '*.rpm' | sort)
cp "${rpms[@]}" "$out/"
# Errors fail the script; warnings are shown.
rpmlint -r "$root/rpm/kivreg.rpmlintrc" "${rpms[@]}"
echo "Packages in $out:"
for rpm in "${rpms[@]}"; do
  ls -l "$out/$(basename "$rpm")"
done
