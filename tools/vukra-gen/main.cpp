// vukra-gen: writes the device side's C sources and the HTML pages of a
// register table.
#include "codegen/c_sources.h"
#include "codegen/html_pages.h"
#include "link/register_transactions.h"
#include "modbus_vukra.h"
#include "session/session.h"
#include "table/value_conversion.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using namespace vukra;

namespace {

const char kUsage[] =
    "usage: vukra-gen TABLE.xml [--c] [--html-map FILE]\n"
    "                 [--html-live FILE --host HOST [--port PORT] [--register NAME]] [--all]\n"
    "\n"
    "Loads the register table and writes what the options ask for:\n"
    "  --c               the C sources and headers (types, prototypes, the ModbusCall\n"
    "                    dispatcher, the register arrays with the table index, and one\n"
    "                    skeleton file per table) in the directory the table's config\n"
    "                    names with \"path\" (./ without it). Code written between the\n"
    "                    // @MODBUS_CODE_BEGIN/... and // @MODBUS_CODE_END/... markers\n"
    "                    of a skeleton file is kept when it is written again.\n"
    "  --html-map FILE   the register map page\n"
    "  --html-live FILE  the live value page, whose forms post to http://HOST/modbus.cb\n"
    "  --host HOST       the device's web address, for the live page\n"
    "  --port PORT       read the values from the device on this serial port; without\n"
    "                    it every value shows as Erreur\n"
    "  --register NAME   read only this register; the others show their cached \"value\"\n"
    "  --all             --c, and the map as modbus_map.html in the output directory\n"
    "                    (with --host also the live page as modbus_live.html)\n"
    "\n"
    "Without options it only checks that the table loads. The exit status is 0 when the\n"
    "table loaded, and non-zero when it is missing or cannot be read.\n";

struct Options {
    std::string table;
    bool c = false;
    bool all = false;
    std::string map, live, host, port, register_name;
};

[[noreturn]] void usage_error(const std::string& why) {
    std::fprintf(stderr, "vukra-gen: %s (see vukra-gen --help)\n", why.c_str());
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage_error("missing value after " + a);
            return argv[++i];
        };
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--c") {
            o.c = true;
        } else if (a == "--all") {
            o.all = true;
        } else if (a == "--html-map") {
            o.map = value();
        } else if (a == "--html-live") {
            o.live = value();
        } else if (a == "--host") {
            o.host = value();
        } else if (a == "--port") {
            o.port = value();
        } else if (a == "--register") {
            o.register_name = value();
        } else if (!a.empty() && a[0] == '-') {
            usage_error("unknown option " + a);
        } else if (o.table.empty()) {
            o.table = a;
        } else {
            usage_error("one table at a time");
        }
    }
    if (!o.live.empty() && o.host.empty()) usage_error("--html-live needs --host");
    return o;
}

// The live page's values, read through a session on the device's port.
int live_page(const Options& o, const std::string& path) {
    modbus_vukra_session* s = nullptr;
    if (!o.port.empty()) {
        s = session::open(o.port.c_str(), 0, o.table.c_str());
        if (s == nullptr) {
            std::fprintf(stderr, "vukra-gen: cannot open a session on %s\n", o.port.c_str());
            return 1;
        }
    }
    codegen::ReadRegister read = [s](const table::RegisterRecord& reg, const table::TypeRecord& type, void* value) {
        if (s == nullptr) return 0;
        platform::LockGuard operations(s->operations_lock);
        return link::modbus_read_registers(s->port, reg, type, value, table::kValueTextSize) > 0 ? 1 : 0;
    };
    codegen::write_live_page(path.c_str(), o.host.c_str(), read,
                             o.register_name.empty() ? nullptr : o.register_name.c_str());
    if (s != nullptr) modbus_vukra_op_session_close(s);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Options o = parse(argc, argv);
    std::vector<char*> entry_args{argv[0]};
    if (!o.table.empty()) entry_args.push_back(o.table.data());
    int loaded = codegen::generator_entry(static_cast<int>(entry_args.size()), entry_args.data());
    if (loaded != 1) return 1;

    const std::string dir = table::config().output_dir;
    if (o.c || o.all) {
        std::error_code ignored; // an output directory that cannot be made is reported file by file
        std::filesystem::create_directories(dir, ignored);
        codegen::generate_c_sources();
    }
    if (o.all && o.map.empty()) o.map = dir + "modbus_map.html";
    if (o.all && o.live.empty() && !o.host.empty()) o.live = dir + "modbus_live.html";
    if (!o.map.empty()) codegen::write_register_map(o.map.c_str());
    int status = 0;
    if (!o.live.empty()) status = live_page(o, o.live);
    return status;
}
