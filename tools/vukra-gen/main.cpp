// vukra-gen: writes the device side's C sources and the HTML pages of a
// register table.
#include "../common/command_line.h"
#include "../common/library_lines.h"
#include "../common/table_errors.h"
#include "codegen/c_sources.h"
#include "codegen/table_check.h"
#include "codegen/html_pages.h"
#include "modbus_vukra.h"
#include "session/tool_interface.h"
#include "table/value_conversion.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <unistd.h>
#include <string>
#include <vector>

using namespace vukra;

namespace {

struct Options {
    std::string table;
    bool c = false;
    bool all = false;
    bool verbose = false;
    std::string map, live, host, port, register_name;
};

Options parse(int argc, char** argv) {
    Options o;
    CLI::App app{"Loads the register table and writes what the options ask for. Without options it\n"
                 "only checks that the table loads. The exit status is 0 when the table loaded and\n"
                 "every file asked for was written; otherwise a reason goes to standard error.\n"
                 "Before the C sources are written the table is checked (names are C identifiers,\n"
                 "no duplicates, no \"*/\" in comments...): a table that would give C that does not\n"
                 "compile, or files outside the output directory, is refused and nothing is written.",
                 "vukra-gen"};
    app.add_option("TABLE", o.table, "the register table (XML)")->required();
    app.add_flag("--c", o.c,
                 "the C sources and headers, in the directory the table's config names with \"path\"\n"
                 "(./ without it); code between the // @MODBUS_CODE_BEGIN/... and\n"
                 "// @MODBUS_CODE_END/... markers of a skeleton file is kept");
    app.add_option("--html-map", o.map, "the register map page");
    CLI::Option* live = app.add_option("--html-live", o.live, "the live value page, whose forms post to http://HOST/modbus.cb");
    CLI::Option* host = app.add_option("--host", o.host, "the device's web address, for the live page");
    app.add_option("--port", o.port, "read the values from the device on this serial port (without it every value shows as Erreur)");
    app.add_option("--register", o.register_name, "read only this register; the others show their cached \"value\"");
    app.add_flag("--all", o.all, "--c, and the map as modbus_map.html in the output directory (with --host also the live page as modbus_live.html)");
    app.add_flag("-v,--verbose", o.verbose, "with --port, show the exchange with the device on standard error");
    live->needs(host);
    app.set_version_flag("--version", "vukra-gen " VUKRA_VERSION);
    tools::parse_command_line(app, argc, argv);
    return o;
}

int page_written(const std::string& path) {
    if (codegen::last_page_written()) return 0;
    std::fprintf(stderr, "vukra-gen: could not write %s\n", path.c_str());
    return 1;
}

// The live page's values, read through a session on the device's port.
int live_page(const Options& o, const std::string& path) {
    modbus_vukra_session* s = nullptr;
    if (!o.port.empty()) {
        // The page is the output: the library's lines go to standard error
        // with -v, else nowhere; the tool says itself what failed.
        tools::library_lines_to(o.verbose ? stderr : nullptr);
        s = tool::open(o.port.c_str(), o.table.c_str(), o.verbose);
        if (s == nullptr) {
            std::fprintf(stderr, "vukra-gen: %s\n", tool::last_failure().reason.c_str());
            return 1;
        }
    }
    codegen::ReadRegister read = [s](const table::RegisterRecord& reg, const table::TypeRecord& type, void* value) {
        if (s == nullptr) return 0;
        return tool::read_register(s, reg, type, value, table::kValueTextSize) > 0 ? 1 : 0;
    };
    codegen::write_live_page(path.c_str(), o.host.c_str(), read,
                             o.register_name.empty() ? nullptr : o.register_name.c_str());
    if (s != nullptr) modbus_vukra_op_session_close(s);
    return page_written(path);
}

} // namespace

int main(int argc, char** argv) {
    tools::install_table_error_handler("vukra-gen");
    Options o = parse(argc, argv);
    std::vector<char*> entry_args{argv[0], o.table.data()};
    tools::set_table_being_read(o.table.c_str());
    int loaded = codegen::generator_entry(static_cast<int>(entry_args.size()), entry_args.data());
    if (loaded != 1) {
        std::fprintf(stderr, "vukra-gen: cannot load the register table %s\n", o.table.c_str());
        return 1;
    }
    tools::warn_if_no_register("vukra-gen", o.table.c_str());

    const std::string dir = table::config().output_dir;
    int status = 0;
    if (o.c || o.all) {
        // Everything that would give C that does not compile, or a file
        // outside the output directory, is refused before anything is written.
        std::vector<std::string> problems = codegen::generation_problems();
        for (const std::string& p : problems) std::fprintf(stderr, "vukra-gen: %s: %s\n", o.table.c_str(), p.c_str());
        if (!problems.empty()) {
            std::fprintf(stderr, "vukra-gen: %s: nothing written\n", o.table.c_str());
            return 1;
        }
        std::error_code ignored; // an output directory that cannot be made is reported file by file
        std::filesystem::create_directories(dir, ignored);
        codegen::generate_c_sources();
        for (const std::string& f : codegen::unwritten_files()) {
            std::fprintf(stderr, "vukra-gen: could not write %s\n", f.c_str());
            status = 1;
        }
    }
    if (o.all && o.map.empty()) o.map = dir + "modbus_map.html";
    if (o.all && o.live.empty() && !o.host.empty()) o.live = dir + "modbus_live.html";
    if (!o.map.empty()) {
        codegen::write_register_map(o.map.c_str());
        if (page_written(o.map) != 0) status = 1;
    }
    if (!o.live.empty() && live_page(o, o.live) != 0) status = 1;
    return status;
}
