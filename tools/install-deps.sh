#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need.
# Quick and silent when everything is already there; runs `apt-get update`
# once, and only when something is missing.
set -euo pipefail

packages=(
  g++ make cmake ninja-build pkg-config
  gsoap libgsoap-dev swig libtinyxml2-dev
  python3 python3-dev python3-pytest
  libgtest-dev libgmock-dev libbenchmark-dev
  binutils xsltproc gcovr
  iproute2 nftables
  clang libclang-rt-14-dev
  chromium chromium-driver python3-selenium
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$p")
done

[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
