#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test RoutingLib.
# Quiet and quick when everything is already there. qemu-user runs the 32-bit
# build's programs where the kernel cannot, and checks the emulated path
# where it can.
set -euo pipefail

packages=(cmake ninja-build g++ g++-multilib libboost1.81-dev libgtest-dev googletest
          libgmock-dev libbenchmark-dev python3 python3-jinja2 binutils
          qemu-user clang libclang-rt-14-dev liblmdb-dev redis-server pkg-config dpkg-dev
          pybind11-dev python3-pybind11 python3-dev python3-pytest)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "bootstrap: installing ${missing[*]}"
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
