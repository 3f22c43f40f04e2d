// What vukra's command groups share.
//
// Standard output carries only the data a command gives. The library's own
// lines (frames on the line, times, the system's messages) go through its
// diagnostics sink: once a device command runs they go nowhere, or to
// standard error with -v, for the rest of the invocation.
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

// From the first call on the library's lines go nowhere (to standard
// error with verbose); returns the stream for the data, standard output.
std::FILE* data_stream(Options& options);

// While it lives, the library's lines go to the data stream again: for a
// command whose data are the library's own lines (reg list).
class LibraryLinesAsData {
public:
    explicit LibraryLinesAsData(const Options& options);
    ~LibraryLinesAsData();
    LibraryLinesAsData(const LibraryLinesAsData&) = delete;
    LibraryLinesAsData& operator=(const LibraryLinesAsData&) = delete;

private:
    std::FILE* before_ = nullptr;
    bool moved_ = false;
};

// Makes body the command's callback: parsing the command leaves it in
// options.chosen, named "GROUP COMMAND". A command that needs the device
// is refused before anything runs when no port was given.
void choose(CLI::App* command, Options& options, std::function<int()> body, bool needs_device = true);

// The invocation's session on options.port, opened by the first caller;
// null after saying why (and on every later call, without a word).
modbus_vukra_session* device_session(Options& options);

// Closes the invocation's session, if one was opened.
void close_session(Options& options);

// Why the calling thread's last register transaction failed, for a person.
std::string transaction_failure();

} // namespace vukra::cli
