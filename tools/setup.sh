#!/usr/bin/env bash
# Installs the Debian packages Torva builds and tests with, when any is missing.
# Idempotent and silent when everything is already there.
#   tools/setup.sh          build and test dependencies
#   tools/setup.sh --peers  also the peer systems the benchmark harness compares with
set -euo pipefail

pkgs=(build-essential cmake ninja-build ccache pkg-config clang libclang-rt-14-dev
      libpari-dev libexpat1-dev libcrypto++-dev libtirpc-dev libreadline-dev
      libgtest-dev libgmock-dev libbenchmark-dev)
if [ "${1:-}" = "--peers" ]; then
  pkgs+=(pari-gp maxima ginac-tools python3-sympy)
fi

missing=()
for p in "${pkgs[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
