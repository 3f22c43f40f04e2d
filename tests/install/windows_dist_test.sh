#!/usr/bin/env bash
# The Windows zip of make dist, made from one cross-built folder: what it
# holds, that the DLL, the mingw import library and the one for Microsoft's
# linker all carry every name of the export list (the .def the build
# generates from it), and that docs/windows.md declares each for C#.
#   windows_dist_test.sh WIN_BUILD_DIR SOURCE_DIR
set -u
win_build=$(realpath "$1")
source=$(realpath "$2")
. "$(dirname "$(realpath "$0")")/../support/checks.sh"

if ! zip=$("$source/scripts/dist.sh" "$work/out" "$win_build" 2>"$work/err"); then
  ko "dist.sh: $(cat "$work/err")"
  finish
fi
python3 -m zipfile -e "$zip" "$work/x"
top=$(ls "$work/x")
[[ $top == modbus_vukra-*-windows ]] && ok || ko "the zip's folder is $top"
root=$work/x/$top
arch=x86_64
[ -d "$root/$arch" ] || arch=$(ls "$root" | grep -v windows.md | head -n 1)
dir=$root/$arch
for f in windows.md $arch/bin/modbus_vukra.dll $arch/lib/libmodbus_vukra.dll.a $arch/lib/modbus_vukra.lib \
         $arch/lib/modbus_vukra.def $arch/include/modbus_vukra.h $arch/lib/cmake/modbus_vukra/modbus_vukra-config.cmake \
         $arch/bin/vukra.exe $arch/bin/vukra-gen.exe; do
  [ -f "$root/$f" ] && ok || ko "the zip holds $f"
done
if find "$root" -name '*core*' -o -name 'platform.h' | grep -q .; then ko "internal files in the zip: $(find "$root" -name '*core*')"; else ok; fi
# The tools run (under wine here) and know their version.
if command -v wine >/dev/null; then
  export WINEPREFIX=$win_build/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  [ -f "$WINEPREFIX/system.reg" ] || wine wineboot -i >/dev/null 2>&1
  version=${top#modbus_vukra-}
  version=${version%-windows}
  for tool in vukra vukra-gen; do
    got=$(wine "$dir/bin/$tool.exe" --version 2>/dev/null | tr -d '\r')
    [ "$got" = "$tool $version" ] && ok || ko "$tool.exe --version gives '$got'"
  done
fi

names=$(sed -n 's/^ *\(modbus_vukra_op_[a-z0-9_]*\) *$/\1/p' "$dir/lib/modbus_vukra.def" | sort)
[ "$(echo "$names" | wc -l)" -eq 30 ] && ok || ko "the .def lists the 30 exports of the op family: $(cat "$dir/lib/modbus_vukra.def")"
objdump=x86_64-w64-mingw32-objdump
dll_names=$($objdump -p "$dir/bin/modbus_vukra.dll" | sed -n 's/^\s*\[ *[0-9]*\] *\(modbus_vukra_op_[a-z0-9_]*\)$/\1/p' | sort)
[ "$dll_names" = "$names" ] && ok || ko "the DLL exports the .def's names: $(diff <(echo "$names") <(echo "$dll_names"))"
# An import library holds __imp_NAME for every name (with the leading
# underscore of 32-bit C names on i686).
prefix=__imp_
[ "$arch" = i686 ] && prefix=__imp__
for lib in libmodbus_vukra.dll.a modbus_vukra.lib; do
  missing=$(comm -23 <(echo "$names" | sed "s/^/$prefix/") <(llvm-nm "$dir/lib/$lib" 2>/dev/null | awk '{print $NF}' | sort -u))
  [ -z "$missing" ] && ok || ko "$lib lacks: $missing"
done
llvm-nm "$dir/lib/modbus_vukra.lib" 2>/dev/null | grep -q "__IMPORT_DESCRIPTOR_modbus_vukra" && ok || ko "modbus_vukra.lib imports from modbus_vukra.dll"
for name in $names; do
  grep -q "static extern [A-Za-z]* $name(" "$root/windows.md" && ok || ko "windows.md declares $name for C#"
done

finish
