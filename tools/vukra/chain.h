// Several commands in one invocation, joined by standalone "+" words, run
// in order on one session: the port is opened once, by the first command
// that needs the device, and closed after the last. The first command that
// fails ends the run with its status; the ones after it do not run.
#pragma once

#include "cli.h"

#include <string>
#include <vector>

namespace vukra::cli {

// The words of each command: argv[0] followed by the words between the
// "+"s. Ends the program with status 2 and a usage line when a command
// would be empty (a "+" first, last, or after another "+").
std::vector<std::vector<char*>> split_chain(int argc, char** argv);

// Ends the program with status 2 and "vukra: <why> (see vukra --help)".
[[noreturn]] void usage_error(const std::string& why);

// Runs the commands in order on the invocation's session, then closes it;
// returns the exit status.
int run_chain(Options& options, const std::vector<Command>& commands);

} // namespace vukra::cli
