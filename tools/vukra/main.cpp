// vukra: the host's command line to a vukra device.
#include "../common/command_line.h"
#include "../common/table_errors.h"
#include "cli.h"

#include <string>

int main(int argc, char** argv) {
    vukra::tools::install_table_error_handler("vukra");
    vukra::cli::Options options;
    CLI::App app{"Reads and writes the registers of a vukra device by their names in the register\n"
                 "table, and works with the device's filesystem. Data go to standard output (values\n"
                 "one \"NAME = VALUE\" a line, listings, file bytes); the library's lines about the\n"
                 "exchange go to standard error (nowhere with -q). The exit status is 0 when every\n"
                 "step succeeded; otherwise a one-line reason goes to standard error.",
                 "vukra"};
    app.fallthrough(); // the shared options may also follow the command
    app.add_option("-p,--port", options.port, "the serial port of the device (COM1, /dev/ttyUSB0, a pty)");
    app.add_option("--table", options.table, "the register table (default: table.xml)");
    app.add_flag("-q,--quiet", options.quiet, "show only the values, not the frames on the line");
    app.require_subcommand(1);

    vukra::cli::add_reg_commands(app, options);
    vukra::cli::add_fs_commands(app, options);

    app.set_version_flag("--version", "vukra " VUKRA_VERSION);
    vukra::tools::parse_command_line(app, argc, argv);
    return options.status;
}
