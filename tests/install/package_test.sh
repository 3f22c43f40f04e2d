#!/usr/bin/env bash
# The Debian packages as make package builds them (cpack -G DEB): what each
# holds, what each depends on, and that the library's package carries its
# shared-library dependencies and a shlibs file.
#   package_test.sh BUILD_DIR VERSION MAN_PAGES(ON|OFF)
set -u
build=$(realpath "$1")
version=$2
man_pages=$3
major=${version%%.*}
. "$(dirname "$(realpath "$0")")/../support/checks.sh"

if ! (cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out") >"$work/log" 2>&1; then
  ko "cpack: $(tail -n 30 "$work/log")"
  finish
fi
deb() { ls "$work"/out/"$1"_"$version"_*.deb 2>/dev/null | head -n 1; }
lib=$(deb libmodbus-vukra$major)
dev=$(deb libmodbus-vukra-dev)
tools=$(deb vukra-tools)
python=$(deb python3-modbus-vukra)
for p in "$lib" "$dev" "$tools" "$python"; do [ -f "$p" ] && ok || ko "a package is missing: $(ls "$work/out")"; done
[ -f "$lib" ] && [ -f "$dev" ] && [ -f "$tools" ] && [ -f "$python" ] || finish

# contents PACKAGE: its files and links, as paths from the root.
contents() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' | sort; }
expect() { # expect WHAT PACKAGE PATH...: exactly these files
  local what=$1 package=$2
  shift 2
  local expected
  expected=$(printf '%s\n' "$@" | sort)
  if [ "$(contents "$package")" = "$expected" ]; then ok; else ko "$what: $(diff <(echo "$expected") <(contents "$package"))"; fi
}
expect "the library package" "$lib" /usr/lib/libmodbus_vukra.so.$major /usr/lib/libmodbus_vukra.so.$version
expect "the development package" "$dev" /usr/include/modbus_vukra.h /usr/lib/libmodbus_vukra.so \
  /usr/lib/cmake/modbus_vukra/modbus_vukra-config.cmake /usr/lib/cmake/modbus_vukra/modbus_vukra-config-version.cmake \
  /usr/lib/cmake/modbus_vukra/modbus_vukra-targets.cmake \
  "/usr/lib/cmake/modbus_vukra/$(dpkg-deb -c "$dev" | grep -o 'modbus_vukra-targets-[a-z]*\.cmake' | head -n 1)" \
  /usr/lib/pkgconfig/modbus_vukra.pc
tool_files=(/usr/bin/vukra /usr/bin/vukra-sim /usr/bin/vukra-ufs /usr/bin/vukra-gen /usr/share/bash-completion/completions/vukra
  /usr/lib/systemd/system/vukra-serve@.service /usr/lib/sysusers.d/vukra.conf
  /usr/share/doc/modbus_vukra/mount.md)
[ "$man_pages" = ON ] && tool_files+=(/usr/share/man/man1/vukra.1 /usr/share/man/man1/vukra-sim.1 /usr/share/man/man1/vukra-ufs.1 /usr/share/man/man1/vukra-gen.1)
expect "the tools package" "$tools" "${tool_files[@]}"

# Dependencies: the library's and the tools' found by dpkg-shlibdeps; the
# development files need the library of this very version.
depends() { dpkg-deb -f "$1" Depends; }
for need in libc6 libstdc++6; do
  depends "$lib" | grep -q "\b$need\b" && ok || ko "the library package depends on $need: $(depends "$lib")"
  depends "$tools" | grep -q "\b$need\b" && ok || ko "the tools package depends on $need: $(depends "$tools")"
done
depends "$tools" | grep -q '\bfuse3\b' && ok || ko "the tools package depends on fuse3 (fusermount3): $(depends "$tools")"
depends "$dev" | grep -q "libmodbus-vukra$major (= $version)" && ok || ko "the development package needs the library: $(depends "$dev")"
depends "$python" | grep -q "python3, libmodbus-vukra$major (= $version)" && ok || ko "the Python package needs python3 and the library: $(depends "$python")"
contents "$python" | grep -qx /usr/lib/python3/dist-packages/modbus_vukra/__init__.py && ok || ko "the Python package: $(contents "$python")"
dpkg-deb --ctrl-tarfile "$tools" | tar -xO ./postinst 2>/dev/null | grep -q 'systemd-sysusers vukra.conf' &&
  ok || ko "the tools package makes the system user vukra"
dpkg-deb --ctrl-tarfile "$lib" | tar -xO ./shlibs 2>/dev/null | grep -q "^libmodbus_vukra $major libmodbus-vukra$major" &&
  ok || ko "the library package has a shlibs file"

# The Python package finds the library of its package by the system's search.
for p in "$lib" "$python"; do dpkg-deb -x "$p" "$work/root"; done
found=$(cd / && env -u MODBUS_VUKRA_LIBRARY PYTHONPATH=$work/root/usr/lib/python3/dist-packages LD_LIBRARY_PATH=$work/root/usr/lib \
  /usr/bin/python3 -c 'import modbus_vukra; print(modbus_vukra.library().path)' 2>&1)
[ "$found" = "libmodbus_vukra.so.$major" ] && ok || ko "the Python package from its .deb finds the library: $found"

finish
