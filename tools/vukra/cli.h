// The vukra command line: the options every command shares, and one
// function per group of subcommands, each in its own file, that adds the
// group to the application. Parsing only chooses a command: its callback
// leaves what to run in Options::chosen, and the chain (chain.cpp) runs the
// commands of one invocation in order, on one session.
//
//   main.cpp            the application, the shared options, the groups
//   chain.cpp           commands joined by "+": split, parsed, run on one session
//   reg_commands.cpp    vukra reg read|write|list
//   fs_commands.cpp     vukra fs ls|cat|get|put|rm|mkdir|rmdir|mv|df|stat|tree
//   tree_copy.cpp       vukra fs get -r|put -r (a directory and all below it)
//   image_commands.cpp  vukra fs getfs|putfs (the whole card and the /mem mirror)
//   watch_command.cpp   vukra watch
//   mount_*.cpp         vukra mount (see mount.h)
//   poll_command.cpp    vukra poll, with poll_values.cpp (formats) and mqtt_bridge.cpp (MQTT)
//   serve/              vukra serve: the queue, the doors (serve/doors.h)
//   remote_fs.cpp       what the fs commands share: the mounted session, statuses, transfers
//   progress.cpp        the progress line of long transfers
//   interrupt.cpp       Ctrl-C caught while a transfer or watch runs (POSIX and Win32)
//   device.cpp          what the groups share: messages, the table, the session
#pragma once

#include "modbus_vukra.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <string>

namespace vukra::cli {

// A command chosen on the command line, ready to run: its body returns the
// exit status it chose.
struct Command {
    std::string name;          // "fs ls", for messages
    bool needs_device = true;  // false: runs without a port (reg list)
    std::function<int()> body;
};

struct Options {
    std::string port;                 // -p, --port: the device's serial port
    std::string table = "table.xml";  // --table: the register table
    bool quiet = false;               // -q: no progress line either
    bool verbose = false;             // -v: the library's lines about the exchange on standard error

    Command chosen; // what the last parse chose

    // What the commands of one invocation share, made by the first command
    // that needs it and closed once the last command has run.
    modbus_vukra_session* session = nullptr;
    bool session_failed = false; // the open was refused: not tried again
    bool mounted = false;        // the device's filesystem is mounted
    std::FILE* data = nullptr;   // standard output as it was, once the library's lines moved
};

// vukra reg read NAME... | reg write NAME VALUE... | reg list [TABLE]
void add_reg_commands(CLI::App& app, Options& options);

// vukra fs ls [-l] PATH | cat PATH | get REMOTE LOCAL | put LOCAL REMOTE |
// rm PATH | mkdir PATH | rmdir PATH | mv OLD NEW | df [PATH] | stat PATH |
// tree [PATH] | getfs | putfs
void add_fs_commands(CLI::App& app, Options& options);

// vukra fs getfs | fs putfs, added to the fs group.
void add_image_commands(CLI::App& fs_group, Options& options);

// The whole card into the library's local card (get) or back (put), with
// the progress line and Ctrl-C: fs getfs and fs putfs; changed: a put of
// only what was changed since the getfs (fs putfs --changed). The exit status.
int card_transfer(Options& options, bool get, bool changed = false);

// vukra mount DIR (Linux with FUSE 3 only)
void add_mount_command(CLI::App& app, Options& options);

// vukra watch
void add_watch_command(CLI::App& app, Options& options);

// vukra poll NAME... (poll_command.cpp)
void add_poll_command(CLI::App& app, Options& options);

// vukra serve (serve/, POSIX only)
void add_serve_command(CLI::App& app, Options& options);

} // namespace vukra::cli
