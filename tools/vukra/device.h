// What vukra's command groups share.
//
// Standard output carries only the data a command gives. The library prints
// its own lines (frames on the line, times, the system's messages) on
// standard output; while a device command runs they go to standard error,
// or nowhere with -q.
#pragma once

#include "cli.h"
#include "modbus_vukra.h"

#include <cstdio>
#include <functional>
#include <string>

namespace vukra::cli {

// Prints "vukra: <why>" on standard error; returns 1, the failure status.
int fail(const std::string& why);

// Loads the register table (false after saying why); warns when it holds
// no register.
bool load_table(const Options& options);

// From now on the library's lines go to standard error (or nowhere with
// quiet); returns the stream for the data, the former standard output.
std::FILE* data_stream(const Options& options);

// Makes body the command's callback, its status left in options.status.
// Without a port, body does not run: the status is a failure after
// "GROUP COMMAND needs the device's port: -p PORT".
void run_with_port(CLI::App* command, Options& options, std::function<int()> body);

// A session on options.port, or null after saying why.
modbus_vukra_session* open_session(const Options& options);

// Why the calling thread's last register transaction failed, for a person.
std::string transaction_failure();

} // namespace vukra::cli
