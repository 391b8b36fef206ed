#!/usr/bin/env bash
# Installs the Debian packages the build, tests and tools need; does nothing
# when they are all present, so it is safe to run before every build.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config g++ clang clang-format
  libclang-rt-14-dev libssl-dev libgtest-dev libgmock-dev googletest
  libbenchmark-dev libcli11-dev nlohmann-json3-dev libncurses-dev
  libcpp-httplib-dev libboost-dev libtomlplusplus-dev prometheus curl iproute2 gcovr
  valgrind tmux
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "installing missing packages: ${missing[*]}"
sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
