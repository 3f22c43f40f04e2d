// How every tool reads its command line: --help and --version print and end
// the program with status 0; anything the parser refuses ends it with
// status 2 and one line on standard error, "TOOL: <why> (see TOOL --help)".
// Every word is read the POSIX way on every build: a Windows build of CLI11
// would otherwise take "/mem" or "/tmp/x" for a "/option", so that device
// paths, --table /x and local files from the root could not be named.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace vukra::tools {

inline void no_windows_style_options(CLI::App& app) {
    app.allow_windows_style_options(false);
    for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) no_windows_style_options(*sub);
}

inline void parse_command_line(CLI::App& app, int argc, char** argv) {
    no_windows_style_options(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) std::exit(app.exit(e));
        std::string why = e.what();
        // A word that is neither a command nor an option leaves the command
        // unchosen: name the word rather than the missing command.
        if (why.find("subcommand is required") != std::string::npos) {
            const std::vector<std::string> left = app.remaining(true);
            why = left.empty() ? "a command is needed" : "\"" + left.front() + "\" is not a command nor an option";
        }
        for (char& c : why)
            if (c == '\n') c = ' ';
        const std::string& tool = app.get_name();
        std::fflush(stdout);
        std::fprintf(stderr, "%s: %s (see %s --help)\n", tool.c_str(), why.c_str(), tool.c_str());
        std::exit(2);
    }
}

} // namespace vukra::tools
