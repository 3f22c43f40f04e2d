// vukra: the host's command line to a vukra device.
#include "../common/command_line.h"
#include "../common/table_errors.h"
#include "chain.h"
#include "cli.h"

#include <string>
#include <vector>

namespace {

// The shared options as one command of a chain gives them.
struct Shared {
    std::string port, table = "table.xml";
    bool quiet = false, verbose = false;
};

void define(CLI::App& app, vukra::cli::Options& options, Shared& shared) {
    app.fallthrough(); // the shared options may also follow the command
    app.add_option("-p,--port", shared.port, "the serial port of the device (COM1, /dev/ttyUSB0, a pty, tcp://HOST:PORT)");
    app.add_option("--table", shared.table, "the register table (default: table.xml)");
    app.add_flag("-v,--verbose", shared.verbose,
                 "show the library's lines about the exchange on standard error: the port, the frames on the\n"
                 "line, times, the device's messages");
    app.add_flag("-q,--quiet", shared.quiet, "no progress line nor transfer summary either: only the data and errors");
    app.require_subcommand(1);
    app.footer(
        "Several commands run on one session when joined by a standalone \"+\", e.g.\n"
        "  vukra -p PORT fs getfs + fs ls /mem + fs put notes.txt /mem/etc/notes.txt + fs putfs\n"
        "The port is opened once, by the first command that needs the device, and the\n"
        "commands run in order; the first that fails ends the run with its status and the\n"
        "ones after it do not run. The shared options (-p, --table, -v, -q) go in the first\n"
        "command, before the first \"+\". A file named \"+\" is written ./+ .\n"
        "After fs getfs, paths holding \"/mem\" go to the library's local copy of the card,\n"
        "the others to the device; fs putfs writes the copy back. Ctrl-C during getfs or\n"
        "putfs cancels the transfer (status -11), a second Ctrl-C ends vukra at once;\n"
        "Ctrl-C ends watch with status 0.");

    vukra::cli::add_reg_commands(app, options);
    vukra::cli::add_fs_commands(app, options);
    vukra::cli::add_watch_command(app, options);
#ifdef VUKRA_MOUNT
    vukra::cli::add_mount_command(app, options);
#endif
    vukra::cli::add_poll_command(app, options);
#ifdef VUKRA_SERVE
    vukra::cli::add_serve_command(app, options);
#endif
    app.set_version_flag("--version", "vukra " VUKRA_VERSION);
}

} // namespace

int main(int argc, char** argv) {
    vukra::tools::install_table_error_handler("vukra");
    vukra::cli::Options options;
    std::vector<vukra::cli::Command> commands;
    const std::vector<std::vector<char*>> parts = vukra::cli::split_chain(argc, argv);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        CLI::App app{"Reads and writes the registers of a vukra device by their names in the register\n"
                     "table, works with the device's filesystem, copies its whole card and watches it.\n"
                     "Data go to standard output (values one \"NAME = VALUE\" a line, listings, file\n"
                     "bytes); nothing else is shown on success but a progress line on a terminal\n"
                     "(none with -q). With -v the library's lines about the exchange go to standard\n"
                     "error. The exit status is 0 when every step succeeded; otherwise a one-line\n"
                     "reason goes to standard error.",
                     "vukra"};
        Shared shared;
        define(app, options, shared);
        std::vector<char*> words = parts[i];
        vukra::tools::parse_command_line(app, static_cast<int>(words.size()), words.data());
        if (i == 0) {
            options.port = shared.port;
            options.table = shared.table;
            options.quiet = shared.quiet;
            options.verbose = shared.verbose;
        } else if (app.count("--port") + app.count("--table") + app.count("--quiet") + app.count("--verbose") > 0) {
            vukra::cli::usage_error("the shared options -p, --table, -v and -q go in the first command, before the "
                                    "first \"+\"");
        }
        if (!options.chosen.body) vukra::cli::usage_error("a command is needed");
        commands.push_back(std::move(options.chosen));
        options.chosen = {};
    }
    return vukra::cli::run_chain(options, commands);
}
