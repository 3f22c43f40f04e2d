// The vukra command line: the options every command shares, and one
// function per group of subcommands, each in its own file, that adds the
// group to the application. A command's callback runs the command and
// leaves the process's exit status in Options::status.
//
//   main.cpp          the application, the shared options, the groups
//   reg_commands.cpp  vukra reg read|write|list
//   fs_commands.cpp   vukra fs ls|cat|get|put|rm|mkdir|rmdir|mv|df|stat|tree
//   remote_fs.cpp     what the fs commands share: the mounted session, statuses, transfers
//   progress.cpp      the progress line of long transfers
//   device.cpp        what the groups share: messages, the table, the session
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace vukra::cli {

struct Options {
    std::string port;                 // -p, --port: the device's serial port
    std::string table = "table.xml";  // --table: the register table
    bool quiet = false;               // -q: only the data, not the library's lines
    int status = 0;                   // the exit status the command that ran chose
};

// vukra reg read NAME... | reg write NAME VALUE... | reg list [TABLE]
void add_reg_commands(CLI::App& app, Options& options);

// vukra fs ls [-l] PATH | cat PATH | get REMOTE LOCAL | put LOCAL REMOTE |
// rm PATH | mkdir PATH | rmdir PATH | mv OLD NEW | df [PATH] | stat PATH | tree [PATH]
void add_fs_commands(CLI::App& app, Options& options);

} // namespace vukra::cli
