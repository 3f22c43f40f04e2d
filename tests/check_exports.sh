#!/usr/bin/env bash
# The shared library shows exactly the C interface, under plain C names.
set -eu
lib=$1
expected=$(sort <<'LIST'
modbus_vukra_op_cancelfs
modbus_vukra_op_protected_create
modbus_vukra_op_protected_fsstat
modbus_vukra_op_protected_getfs
modbus_vukra_op_protected_lookup
modbus_vukra_op_protected_mkdir
modbus_vukra_op_protected_mkfs
modbus_vukra_op_protected_mount
modbus_vukra_op_protected_null
modbus_vukra_op_protected_putfs
modbus_vukra_op_protected_read
modbus_vukra_op_protected_readdir
modbus_vukra_op_protected_readreg
modbus_vukra_op_protected_remove
modbus_vukra_op_protected_rename
modbus_vukra_op_protected_rmdir
modbus_vukra_op_protected_seek
modbus_vukra_op_protected_seekdir
modbus_vukra_op_protected_telldir
modbus_vukra_op_protected_write
modbus_vukra_op_protected_writereg
modbus_vukra_op_register_atob
modbus_vukra_op_register_btoa
modbus_vukra_op_session_callback
modbus_vukra_op_session_close
modbus_vukra_op_session_error
modbus_vukra_op_session_hwnd
modbus_vukra_op_session_info
modbus_vukra_op_session_open
modbus_vukra_op_session_open2
LIST
)
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exports ok: $(echo "$actual" | wc -l) symbols"
