#!/usr/bin/env bash
# Packs what a Windows developer downloads into one zip: for each
# cross-built Windows build folder, its install (the DLL, the import
# libraries for mingw and for Microsoft's linker, the .def, the header, the
# tools, the CMake package) under a folder named after its architecture,
# and docs/windows.md at the top.
#   dist.sh OUT_DIR WIN_BUILD_DIR...
# Prints the path of the zip.
set -eu
out=$1
shift
source=$(cd "$(dirname "$0")/.." && pwd)
cache_value() { sed -n "s/^$2:[A-Z]*=//p" "$1/CMakeCache.txt"; }

first=$1
version=$(cache_value "$first" CMAKE_PROJECT_VERSION)
name=modbus_vukra-$version-windows
mkdir -p "$out"
out=$(cd "$out" && pwd)
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/$name"
for build in "$@"; do
  # x86_64 or i686, as the toolchain file named the processor.
  arch=$(sed -n 's/^set(CMAKE_SYSTEM_PROCESSOR "\(.*\)")$/\1/p' "$build"/CMakeFiles/*/CMakeSystem.cmake | head -n 1)
  if [ -z "$arch" ]; then
    echo "dist.sh: $build is not a configured cross build" >&2
    exit 1
  fi
  cmake --install "$build" --prefix "$stage/$name/$arch" --strip >/dev/null
done
cp "$source/docs/windows.md" "$stage/$name/windows.md"
rm -f "$out/$name.zip"
(cd "$stage" && zip -q -r -X "$out/$name.zip" "$name")
echo "$out/$name.zip"
