#!/usr/bin/env bash
# Installs, with apt-get, the Debian packages the build, the tests, the
# Windows cross-build, the packages and the benchmarks need; only those not yet present.
# Safe to run again and again. The 32-bit build needs no foreign architecture:
# the multilib compilers are packages of the machine's own.
set -eu

packages=(
  cmake ninja-build g++ make pkg-config
  libgtest-dev libgmock-dev
  gcc-multilib g++-multilib googletest
  mingw-w64 wine wine64
  libexpat1-dev libmodbus-dev
  chromium python3
  clang libclang-rt-14-dev
  libcli11-dev
  python3-pytest python3-setuptools python3-pip
  help2man dpkg-dev llvm zip
  fuse3 libfuse3-dev
  mosquitto mosquitto-clients libmosquitto-dev libssl-dev ser2net openssl
  python3-pymodbus mbpoll systemd
  libcpp-httplib-dev nlohmann-json3-dev prometheus curl
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" != 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
# An index that cannot be fetched (a foreign architecture's, say) leaves the
# others to install from.
$sudo apt-get update -qq || echo "deps: apt-get update failed in part; installing from the indexes at hand" >&2
$sudo apt-get install -y -qq "${missing[@]}" >/dev/null
