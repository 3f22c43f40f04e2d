// vukra: the host's command line to a vukra device.
#include "modbus_vukra.h"
#include "session/named_registers.h"
#include "table/register_table.h"
#include "table/value_conversion.h"
#include "table/value_parse.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

using namespace vukra;

namespace {

const char kUsage[] =
    "usage: vukra [-p PORT] [--table FILE] [-q] reg read NAME...\n"
    "       vukra [-p PORT] [--table FILE] [-q] reg write NAME VALUE\n"
    "       vukra [--table FILE] reg list [TABLE]\n"
    "\n"
    "Reads and writes the registers of a vukra device by their names in the\n"
    "register table (table.xml in the working directory unless --table names\n"
    "another). Values are shown and given as text by the register's type;\n"
    "buffer values as their elements separated by blanks.\n"
    "\n"
    "  -p, --port PORT  the serial port of the device (COM1, /dev/ttyUSB0, a pty)\n"
    "  --table FILE     the register table\n"
    "  -q, --quiet      show only the values, not the frames on the line\n"
    "  -h, --help       this text\n"
    "\n"
    "The exit status is 0 when every step succeeded; otherwise a one-line\n"
    "reason goes to standard error.\n";

struct Options {
    std::string port;
    std::string table = session::kTableFile;
    bool quiet = false;
    std::vector<std::string> words;
};

int fail(const std::string& why) {
    std::fprintf(stderr, "vukra: %s\n", why.c_str());
    return 1;
}

bool parse(int argc, char** argv, Options& o, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "-p" || a == "--port" || a == "--table") {
            if (i + 1 >= argc) {
                error = "missing value after " + a;
                return false;
            }
            (a == "--table" ? o.table : o.port) = argv[++i];
        } else if (a == "-q" || a == "--quiet") {
            o.quiet = true;
        } else if (!a.empty() && a[0] == '-' && o.words.size() < 2) {
            error = "unknown option " + a;
            return false;
        } else {
            o.words.push_back(a);
        }
    }
    return true;
}

// Where values go: standard output, or with --quiet a copy of it while the
// library's own lines about the line go nowhere.
std::FILE* value_stream(bool quiet) {
    if (!quiet) return stdout;
    std::fflush(stdout);
    std::FILE* values = fdopen(dup(fileno(stdout)), "w");
    if (values == nullptr || !std::freopen("/dev/null", "w", stdout)) return stdout;
    return values;
}

std::string one_line(const char* text) {
    std::string s = text;
    for (char& c : s)
        if (c == '\n') c = ' ';
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

int list(const Options& o) {
    if (!table::load(o.table.c_str())) return fail("cannot load the register table " + o.table);
    if (o.words.size() > 3) return fail("reg list takes at most one table name");
    if (o.words.size() == 3) return table::list_registers(o.words[2].c_str(), true) ? 0 : fail("no table " + o.words[2]);
    table::list_tables();
    std::vector<std::string> names;
    table::RegisterRecord reg;
    for (int i = 0; table::register_by_index(reg, i); ++i)
        if (reg.table_name && (names.empty() || names.back() != reg.table_name)) names.push_back(reg.table_name);
    for (const std::string& name : names) table::list_registers(name.c_str(), true);
    return 0;
}

struct Target {
    table::RegisterRecord reg;
    table::TypeRecord type;
};

bool find(const std::string& name, Target& t, std::string& error) {
    if (table::find_register(t.reg, t.type, name.c_str())) return true;
    error = "no register " + name + " in " + table::file_name();
    return false;
}

int read(const std::vector<Target>& targets, modbus_vukra_session* s, std::FILE* out) {
    int status = 0;
    for (const Target& t : targets) {
        std::uint8_t value[session::kTransferSize] = {};
        std::int32_t count = 2 * t.type.words;
        if (modbus_vukra_op_protected_readreg(s, t.reg.name, value, count) != count) {
            status = fail(std::string("cannot read ") + t.reg.name + " from the device");
            continue;
        }
        char text[table::kValueTextSize];
        if (!table::binary_to_text(text, sizeof text, t.type, value)) {
            status = fail(std::string("cannot show ") + t.reg.name + ": its type has no text form");
            continue;
        }
        std::fprintf(out, "%s = %s\n", t.reg.name, one_line(text).c_str());
    }
    return status;
}

int write(const Target& t, const std::uint8_t* value, const std::string& text, modbus_vukra_session* s,
          std::FILE* out) {
    std::int32_t count = 2 * t.type.words;
    if (modbus_vukra_op_protected_writereg(s, t.reg.name, value, count) != count)
        return fail(std::string("cannot write ") + t.reg.name + " on the device");
    std::fprintf(out, "%s = %s\n", t.reg.name, text.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error)) return fail(error + " (see vukra --help)");
    if (o.words.size() < 2 || o.words[0] != "reg") return fail("expected reg read, reg write or reg list (see vukra --help)");
    const std::string& verb = o.words[1];
    if (verb == "list") return list(o);
    if (verb != "read" && verb != "write") return fail("unknown command reg " + verb);
    if (o.port.empty()) return fail("reg " + verb + " needs the device's port: -p PORT");

    // Names and values are checked against the table before anything is sent.
    if (!table::load(o.table.c_str())) return fail("cannot load the register table " + o.table);
    std::vector<Target> targets;
    if (verb == "read" && o.words.size() < 3) return fail("reg read needs at least one register name");
    if (verb == "write" && o.words.size() != 4) return fail("reg write needs a register name and a value");
    for (std::size_t i = 2; i < (verb == "read" ? o.words.size() : 3); ++i) {
        targets.emplace_back();
        if (!find(o.words[i], targets.back(), error)) return fail(error);
    }
    std::uint8_t value[session::kTransferSize] = {};
    if (verb == "write" && !table::parse_value(targets[0].type, o.words[3].c_str(), value, sizeof value))
        return fail("\"" + o.words[3] + "\" is not a value of " + o.words[2] + "'s type " +
                    (targets[0].type.name ? targets[0].type.name : "?"));

    std::FILE* out = value_stream(o.quiet);
    modbus_vukra_session* s = session::open(o.port.c_str(), 0, o.table.c_str());
    if (s == nullptr) return fail("cannot open a session on " + o.port);
    if (s->port->native == platform::kInvalidPort) {
        modbus_vukra_op_session_close(s);
        return fail("cannot open the port " + o.port);
    }
    // The open loaded the table again: look the registers up anew.
    for (std::size_t i = 0; i < targets.size(); ++i) find(o.words[2 + i], targets[i], error);
    int status = verb == "read" ? read(targets, s, out) : write(targets[0], value, o.words[3], s, out);
    modbus_vukra_op_session_close(s);
    std::fflush(out);
    return status;
}
