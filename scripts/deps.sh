#!/usr/bin/env bash
# Installs the Debian packages kivreg needs to build, test and run, and any
# named as arguments, if missing.
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config libxml2-dev libxml2-utils libssl-dev openssl
          libgtest-dev libgmock-dev libbenchmark-dev python3 curl groff-base bash-completion
          tinyproxy strace prometheus systemd faketime locales-all "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q "${missing[@]}"
fi
