// vukra reg read|write|list: device registers by their names in the table.
#include "cli.h"
#include "device.h"
#include "poll_values.h"
#include "register_reads.h"

#include "session/named_registers.h"
#include "table/register_table.h"
#include "table/value_format.h"
#include "table/value_parse.h"

#include <cstdint>
#include <vector>

namespace vukra::cli {

namespace {

// The register's value as one line, never cut.
std::string shown(const Polled& t, const std::uint8_t* value) {
    std::string text;
    if (!table::format_value(t.type, value, text)) return "";
    return text;
}

int write(Options& o, const std::string& name, const std::vector<std::string>& words) {
    std::FILE* out = data_stream(o);
    if (!load_table(o)) return 1;
    std::string text;
    for (const std::string& w : words) text += (text.empty() ? "" : " ") + w;
    Polled t{name};
    std::string why = look_up(t, true);
    if (!why.empty()) return fail(why);
    std::uint8_t value[session::kTransferSize] = {};
    if (!table::parse_value(t.type, text.c_str(), value, sizeof value))
        return fail("\"" + text + "\" is not a value of " + name + "'s type " + (t.type.name ? t.type.name : "?") +
                    " (decimal, or hexadecimal with 0x for integers; buffer elements separated by blanks)");
    modbus_vukra_session* s = device_session(o);
    if (s == nullptr) return 1;
    look_up(t, true);
    const std::int32_t count = 2 * t.type.words;
    int status = 0;
    if (modbus_vukra_op_protected_writereg(s, name.c_str(), value, count) != count)
        status = fail("cannot write " + name + ": " + transaction_failure());
    else
        std::fprintf(out, "%s = %s\n", name.c_str(), shown(t, value).c_str());
    if (std::fflush(out) != 0) status = fail("cannot write the values");
    return status;
}

// The listing is the library's own, on standard output: it is the data here.
int list(const Options& o, const std::string& table_name) {
    if (!load_table(o)) return 1;
    const LibraryLinesAsData on_data(o); // after an earlier command of the chain moved them
    if (!table_name.empty()) {
        // The library prints its heading before it looks for the table: an
        // unknown name is refused first, with nothing on standard output.
        bool known = false;
        for (const table::TableInfo& t : table::tables())
            if (t.name != nullptr && table_name == t.name) known = true;
        if (!known || !table::list_registers(table_name.c_str(), true)) return fail("no table " + table_name);
        return std::fflush(stdout) == 0 ? 0 : fail("cannot write the listing");
    }
    table::list_tables();
    std::vector<std::string> names;
    for (const table::TableInfo& t : table::tables())
        if (t.name != nullptr) names.push_back(t.name);
    for (const std::string& name : names) table::list_registers(name.c_str(), true);
    return std::fflush(stdout) == 0 ? 0 : fail("cannot write the listing");
}

} // namespace

void add_reg_commands(CLI::App& app, Options& options) {
    CLI::App* reg = app.add_subcommand("reg", "device registers by their names in the register table");
    reg->require_subcommand(0, 1);
    reg->callback([reg] {
        if (reg->get_subcommands().empty()) throw CLI::ValidationError("reg needs a command: read, write or list");
    });

    struct Words {
        std::vector<std::string> names, value;
        std::string name, table;
        Format format = Format::kText;
        unsigned gap = kDefaultGap;
    };
    auto words = std::make_shared<Words>();

    CLI::App* read_cmd = reg->add_subcommand("read", "read registers and show their values, one \"NAME = VALUE\" a line");
    read_cmd->add_option("NAME", words->names, "register names")->required();
    add_format_option(read_cmd, words->format, "text (NAME = VALUE lines), csv or json, as one round of poll");
    add_gap_option(read_cmd, words->gap);
    choose(read_cmd, options,
           [&options, words] { return read_once(options, words->names, words->format, words->gap); });

    CLI::App* write_cmd = reg->add_subcommand(
        "write", "write a register: decimal, or 0x hexadecimal for integers; a buffer's elements separated by blanks");
    write_cmd->add_option("NAME", words->name, "register name")->required();
    write_cmd->add_option("VALUE", words->value, "the value (a buffer's elements as one or several words)")->required();
    choose(write_cmd, options, [&options, words] { return write(options, words->name, words->value); });

    CLI::App* list_cmd = reg->add_subcommand("list", "list the tables and their registers, or the registers of TABLE");
    list_cmd->add_option("TABLE", words->table, "a table name");
    choose(list_cmd, options, [&options, words] { return list(options, words->table); }, false);
}

} // namespace vukra::cli
