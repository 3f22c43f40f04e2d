#!/usr/bin/env bash
# The install as a library user meets it: cmake --install into a scratch
# prefix, which is then moved (the CMake package and the pkg-config file
# must not hold the prefix); two programs built outside the source tree
# against it, one with find_package, one with pkg-config, and the C example
# of docs/library.md; all run against the installed vukra-sim.
#   install_test.sh BUILD_DIR SOURCE_DIR VERSION LIBDIR MAN_PAGES(ON|OFF)
set -u
build=$(realpath "$1")
source=$(realpath "$2")
version=$3
libdir=$4
man_pages=$5
major=${version%%.*}
here=$source/tests/install
. "$source/scripts/pty_program.sh"
. "$(dirname "$(realpath "$0")")/../support/checks.sh"

# Everything the install holds, and nothing else: no core library, no
# internal header.
if ! cmake --install "$build" --prefix "$work/stage" >"$work/o" 2>&1; then
  ko "cmake --install: $(cat "$work/o")"
  finish
fi
expected=$(sort <<LIST
bin/vukra
bin/vukra-gen
bin/vukra-sim
bin/vukra-ufs
include/modbus_vukra.h
lib/systemd/system/vukra-serve@.service
lib/sysusers.d/vukra.conf
$libdir/cmake/modbus_vukra/modbus_vukra-config-version.cmake
$libdir/cmake/modbus_vukra/modbus_vukra-config.cmake
$libdir/cmake/modbus_vukra/modbus_vukra-targets-CONFIG.cmake
$libdir/cmake/modbus_vukra/modbus_vukra-targets.cmake
$libdir/libmodbus_vukra.so
$libdir/libmodbus_vukra.so.$major
$libdir/libmodbus_vukra.so.$version
$libdir/pkgconfig/modbus_vukra.pc
share/bash-completion/completions/vukra
$("$work/stage/bin/vukra" mount --help >/dev/null 2>&1 && echo share/doc/modbus_vukra/mount.md)
$([ "$man_pages" = ON ] && printf 'share/man/man1/%s.1\n' vukra vukra-gen vukra-sim vukra-ufs)
$(cd "$source/python" && find modbus_vukra -name '*.py' -o -name py.typed | sed 's|^|lib/python3/dist-packages/|')
LIST
)
actual=$(cd "$work/stage" && find . -type f -o -type l | sed 's|^\./||; s|targets-[a-z]*\.cmake$|targets-CONFIG.cmake|' | sort)
if [ "$expected" = "$actual" ]; then ok; else ko "installed files differ: $(diff <(echo "$expected") <(echo "$actual"))"; fi

lib=$work/stage/$libdir
[ "$(readlink "$lib/libmodbus_vukra.so")" = "libmodbus_vukra.so.$major" ] && ok || ko "the link name leads to the SONAME"
[ "$(readlink "$lib/libmodbus_vukra.so.$major")" = "libmodbus_vukra.so.$version" ] && ok || ko "the SONAME leads to the file"
soname=$(readelf -d "$lib/libmodbus_vukra.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libmodbus_vukra.so.$major" ] && ok || ko "SONAME is $soname"
if grep -rq "modbus_vukra_core\|$work\|$build\|$source" "$lib/cmake" "$lib/pkgconfig"; then
  ko "the package names the core or a build path: $(grep -rn "modbus_vukra_core\|$work\|$build\|$source" "$lib/cmake" "$lib/pkgconfig")"
else ok; fi
for tool in vukra vukra-sim vukra-ufs vukra-gen; do
  [ "$("$work/stage/bin/$tool" --version)" = "$tool $version" ] && ok || ko "$tool --version"
  if [ "$man_pages" = ON ]; then
    page=$work/stage/share/man/man1/$tool.1
    if grep -qi "^\.TH \"*$tool" "$page" && grep -q "$version" "$page" && grep -q -- '\\-\\-help' "$page"; then ok; else ko "manual page of $tool"; fi
    if [ $tool = vukra ]; then grep -q 'reg read' "$page" && ok || ko "vukra's manual page shows its commands"; fi
  fi
done

# Moved elsewhere, the prefix still serves.
mkdir -p "$work/elsewhere"
mv "$work/stage" "$work/elsewhere/usr"
prefix=$work/elsewhere/usr
mkdir "$work/src"
cp "$here/consumer.c" "$work/src/"

# With the CMake package: a version of the same major is found, another is not.
sed 's/@WANTED@/0.1/' "$here/consumer-cmake.txt" >"$work/src/CMakeLists.txt"
check "a CMake project finds the package" cmake -S "$work/src" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
check "and builds against it" cmake --build "$work/cmake-build"
mkdir "$work/src-v1" && cp "$work/src/consumer.c" "$work/src-v1/"
sed 's/@WANTED@/1.0/' "$here/consumer-cmake.txt" >"$work/src-v1/CMakeLists.txt"
if cmake -S "$work/src-v1" -B "$work/cmake-v1" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$work/o" 2>&1; then
  ko "version 1.0 was accepted from $version"
elif grep -q "version" "$work/o"; then ok; else ko "version 1.0 refused for another reason: $(cat "$work/o")"; fi

# With pkg-config.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
[ "$(pkg-config --modversion modbus_vukra)" = "$version" ] && ok || ko "pkg-config --modversion"
flags=$(pkg-config --cflags --libs modbus_vukra)
check "a program builds with pkg-config" cc -std=c99 -Wall -Wextra -Werror "$work/src/consumer.c" $flags -o "$work/pc-consumer"

# The C example of docs/library.md, as it stands there.
sed -n '/<!-- example: begin -->/,/<!-- example: end -->/p' "$source/docs/library.md" | sed '/^```/d; /^<!--/d' >"$work/src/example.c"
check "the library example of docs/library.md builds" cc -std=c99 -Wall -Wextra -Werror "$work/src/example.c" $flags -o "$work/example"

# All run against the installed simulator, from a folder with table.xml.
cd "$work"
cp "$source/examples/table.xml" table.xml
start_pty_program sim.out "$prefix/bin/vukra-sim" --table table.xml 2>/dev/null || { ko "the installed vukra-sim starts"; finish; }
port=$PTY_PATH

runs() { # runs WHAT COMMAND...: status 0 and the register on stderr
  local what=$1
  shift
  "$@" >"$work/out" 2>"$work/err" </dev/null
  local rc=$?
  if [ $rc -eq 0 ] && grep -qx "setpoint = 21.500000" "$work/err"; then ok; else ko "$what (status $rc): $(cat "$work/err")"; fi
}
runs "the CMake-built consumer" "$work/cmake-build/consumer" "$port"
if readelf -d "$work/cmake-build/consumer" | grep -q "$prefix/$libdir"; then ok; else ko "the CMake-built consumer runs the installed library"; fi
LD_LIBRARY_PATH=$prefix/$libdir runs "the pkg-config-built consumer" "$work/pc-consumer" "$port"
LD_LIBRARY_PATH=$prefix/$libdir "$work/example" "$port" >"$work/out" 2>"$work/err"
rc=$?
if [ $rc -eq 0 ] && grep -qx "setpoint = 21.5" "$work/out"; then ok; else ko "the library example of docs/library.md runs (status $rc): $(cat "$work/out" "$work/err")"; fi
finish
