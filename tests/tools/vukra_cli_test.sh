#!/usr/bin/env bash
# The command-line tools as a user calls them, against vukra-sim on a pty:
# bad arguments, clean data on stdout, true exit statuses, numbers, what the
# table allows, and what the generator refuses to write.
#   vukra_cli_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR
set -u
. "$(dirname "$(realpath "$0")")/../support/tool_checks.sh" "$@"

# says WHAT PATTERN COMMAND...: non-zero status and PATTERN on stderr.
says() {
  local what=$1 pattern=$2
  shift 2
  "$@" >"$work/o" 2>"$work/e" </dev/null
  local rc=$?
  if [ $rc -ne 0 ] && grep -q -- "$pattern" "$work/e"; then ok; else ko "$what (status $rc, stderr: $(cat "$work/e"))"; fi
}
# gives WHAT EXPECTED COMMAND...: status 0 and exactly EXPECTED on stdout.
gives() {
  local what=$1 expected=$2
  shift 2
  "$@" >"$work/o" 2>"$work/e" </dev/null
  local rc=$?
  if [ $rc -eq 0 ] && [ "$(cat "$work/o")" = "$expected" ]; then ok; else ko "$what (status $rc, stdout: $(cat "$work/o"), stderr: $(cat "$work/e"))"; fi
}

cp "$examples/table.xml" table.xml
# A table of the tool's own: a long buffer, types too large for one request, an open copy.
cat >big.xml <<'XML'
<root><type_list><type name="int16" words="1" Ctype="short"/><type name="buffer_s100" words="100" Ctype="short"/>
<type name="buffer_s3" words="3" Ctype="short"/><type name="buffer_s124" words="124" Ctype="short"/>
<type name="buffer_s126" words="126" Ctype="short"/></type_list><table_list><table name="t" base="0" auto_offset="yes">
<register_list><register name="long" type="buffer_s100" access="RW"/><register name="three" type="buffer_s3" access="RW"/>
<register name="w124" type="buffer_s124" access="RW"/><register name="r126" type="buffer_s126" access="RW"/>
</register_list></table></table_list></root>
XML
values=$(seq 100 199 | tr '\n' ' ' | sed 's/ $//')
sed -i "s/name=\"long\" type=\"buffer_s100\"/& value=\"$values\"/" big.xml
sed 's/access="R"/access="RW"/g; s/access="W"/access="RW"/g' table.xml >open.xml

start_pty_program sim.out "$sim" --table table.xml 2>/dev/null || exit 1
port=$PTY_PATH
start_pty_program big.out "$sim" --table big.xml 2>/dev/null || exit 1
big=$PTY_PATH

# Bad arguments of every tool: status 2 for a word that reads wrong (1 for
# what only the run can tell), one line on stderr holding PATTERN, nothing
# on stdout.
while IFS='|' read -r rc pattern args; do
  eval "set -- $args"
  "$@" >"$work/o" 2>"$work/e" </dev/null
  got=$?
  [ $got = "$rc" ] && grep -q -- "$pattern" "$work/e" && [ "$(wc -l <"$work/e")" = 1 ] && [ ! -s "$work/o" ] && ok ||
    ko "$args (status $got): $(cat "$work/e")"
done <<'TABLE'
2|a command is needed|$vukra
2||$vukra --bogus reg list
2|frob|$vukra reg frob
2|reg needs a command: read, write or list|$vukra reg
2|"frob" is not a command|$vukra -p $port frob
2||$vukra -p $port reg read
2||$vukra -p $port reg write offset_trim
2|needs the device's port|$vukra reg read setpoint
2||$vukra reg read setpoint -p
2||$vukra reg list process status
2|is a number of seconds above 0|$vukra -p $port poll setpoint --every 0
2|is text, csv or json, not "xml"|$vukra -p $port reg read setpoint --format xml
2|--mqtt: |$vukra -p $port poll setpoint --mqtt mqtt://user@broker/x
1|none.xml|$vukra --table none.xml reg list
2||$gen
2||$gen table.xml --html-live x.html
2||$gen table.xml --frob
2|a command is needed|$ufs card.o
2|unknown command frob|$ufs card.o frob
2|wrong number of arguments|$ufs card.o ls / extra
2|--nodes takes a number|$ufs new.o mkfs --nodes x
TABLE
# Why a port did not open, and a failure that is not a time-out, in words.
fails "a port that does not exist" "cannot open the port $work/none: no such device" "$vukra" -p "$work/none" reg read setpoint
fails "a port that is a plain file" "not a serial port" "$vukra" -p "$work/table.xml" fs ls /
fails "vukra-gen on a port that does not exist" "no such device" "$gen" table.xml --html-live x.html --host h --port "$work/none"
start_pty_program wrong.out "$sim" --table table.xml --wrong file 2>/dev/null || exit 1
fails "a reply that does not decode" "reply (8 bytes) does not decode" "$vukra" -p "$PTY_PATH" fs ls /
stop_sim

# Standard output holds only the data; the library's lines go to stderr with -v, else nowhere.
for q in -q "" -v; do
  gives "reg read $q" "offset_trim = -12" "$vukra" $q -p "$port" reg read offset_trim
  if [ "$(grep -c -e "Frame : \[:" -e '^read -12$' "$work/e")" = "$([ "$q" = -v ] && echo 3 || echo 0)" ] &&
     { [ "$q" = -v ] || [ ! -s "$work/e" ]; }; then ok; else ko "reg read $q: stderr $(cat "$work/e")"; fi
done
# Words starting with "/" are paths on every build, never Windows-style options.
gives "--table /x" "offset_trim = -12" "$vukra" --table "$work/table.xml" -q -p "$port" reg read offset_trim

# A malformed table ends every tool with the reader's message on stderr and a failure status.
printf '<root><config/><type_list></types></root>' >bad.xml
says "vukra on a malformed table" "bad.xml: Xml error, different names type_list types" "$vukra" --table bad.xml reg list
if [ ! -s "$work/o" ]; then ok; else ko "the Xml error stays off stdout"; fi
says "vukra-gen on a malformed table" "Xml error, different names" "$gen" bad.xml --c
fails "reg list of an unknown table" "" "$vukra" reg list nosuch
: >empty.xml
mkdir dir.xml
fails "vukra on an empty table file" "" "$vukra" --table empty.xml reg list
fails "vukra reg read on a directory as table" "" "$vukra" --table dir.xml -p "$port" reg read setpoint
sed "/<table_list>/q" table.xml >short.xml
"$vukra" --table short.xml reg list >/dev/null 2>"$work/e"
if grep -q "holds no register" "$work/e"; then ok; else ko "a table that ends early is warned of"; fi

# Numbers mean what they say: decimal or 0x, nothing else, and the echo is the value written.
gives "010 is ten" "offset_trim = 10" "$vukra" -q -p "$port" reg write offset_trim 010
gives "a negative value" "setpoint = -1.500000" "$vukra" -q -p "$port" reg write setpoint -1.5
says "out of range" "is not a value" "$vukra" -q -p "$port" reg write offset_trim 0x8000
gives "blanks in a buffer" "three = 1 -2 3" "$vukra" -q --table big.xml -p "$big" reg write three "1 -2" 3
gives "a 100-element buffer is shown whole" "long = $values" "$vukra" -q --table big.xml -p "$big" reg read long

# The table says what may be done, and one request must carry the value.
says "a write of an R register" 'read-only' "$vukra" -v -p "$port" reg write cycle_count 5
if ! grep -q "Frame" "$work/e"; then ok; else ko "nothing is sent for a refused write"; fi
says "the device refuses it too" "exception 2 (illegal data address)" "$vukra" --table open.xml -p "$port" reg write cycle_count 5
says "the device refuses a read of a W register" "exception 2 (illegal data address)" "$vukra" --table open.xml -p "$port" reg read reset
says "a read of a W register" 'write-only' "$vukra" -p "$port" reg read reset
sed 's/type="real"/type="bogus"/' table.xml >bogus.xml
says "a type the table does not list" 'type "bogus" is not in the type_list' "$vukra" --table bogus.xml -p "$port" reg read setpoint
says "a write too large for function 16" "1 to 123" "$vukra" --table big.xml -p "$big" reg write w124 "$(seq 124 | tr '\n' ' ')"
says "a read too large for function 3" "1 to 125" "$vukra" --table big.xml -p "$big" reg read r126
start_pty_program silent.out "$sim" --table table.xml --silent 2>/dev/null || exit 1
says "a silent device" "time-out" "$vukra" -p "$PTY_PATH" reg read offset_trim
start_pty_program corrupt.out "$sim" --table table.xml --corrupt 1 --seed 3 2>/dev/null || exit 1
says "a damaged reply" "not a sound frame" "$vukra" -p "$PTY_PATH" reg read offset_trim

# The generator writes only where it is told, and only C that compiles.
mkdir gen && cd gen
make_table() { # make_table TABLE_NAME REGISTER_NAME COMMENT [SECOND_TABLE]
  printf '<root><config path="out" C_code_function_prefix="mb_"/><type_list><type name="int16" words="1" Ctype="short"/></type_list><table_list>' >t.xml
  printf '<table name="%s" base="0"><register_list><register name="%s" comment="%s" offset="0" access="RW" type="int16"/></register_list></table>' "$1" "$2" "$3" >>t.xml
  [ -n "${4:-}" ] && printf '<table name="%s" base="10"><register_list><register name="y" offset="0" type="int16"/></register_list></table>' "$4" >>t.xml
  printf '</table_list></root>' >>t.xml
}
make_table 'a/../../pwned' x 'fine'
says "a table name that leaves the directory" 'table "a/../../pwned"' "$gen" t.xml --c
make_table t 'x;int y' 'fine'
says "a register name that is not an identifier" 'register "x;int y"' "$gen" t.xml --c
make_table t int 'fine'
says "a register named by a keyword" 'register "int"' "$gen" t.xml --c
make_table t x 'a */ int injected; /*'
says "a comment holding */" 'its comment holds' "$gen" t.xml --c
make_table t x 'fine' t
says "two tables of one name" 'two tables have this name' "$gen" t.xml --c
make_table a_b c 'fine' a
sed -i 's/name="y"/name="b_c"/' t.xml
says "two registers giving one function name" 'generated twice' "$gen" t.xml --c
if [ ! -e out ] && [ -z "$(ls ..  | grep pwned)" ]; then ok; else ko "nothing was written for a refused table"; fi
make_table t x 'a comment'
"$gen" t.xml --c >/dev/null 2>&1
: >out/modbus_header_extern.h # the user's declarations of shared functions
if cc -fsyntax-only -I. -Iout out/*.c 2>/dev/null; then ok; else ko "a sound table gives C that compiles"; fi
chmod a-w out
if [ "$(id -u)" != 0 ]; then
  says "a file that cannot be written" "could not write" "$gen" t.xml --c
fi
says "a page that cannot be written" "could not write" "$gen" t.xml --html-map /nonexistent/map.html
chmod u+w out

finish
