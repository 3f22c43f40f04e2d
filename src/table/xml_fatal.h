// The one way out of the XML reader and writer when they meet what they
// cannot go on with: a syntax error, a failed allocation, a node of no
// known kind.
//
// The system's behaviour is to print the message on standard output and
// end the process (status 0, or -1 for a node of no known kind). A program
// that wants another ending installs a handler: the tools print the message
// on standard error and exit with a failure status; a fuzz target can leave
// the reader by a jump of its own. A handler that returns gets the default
// ending after it.
#pragma once

namespace vukra::table {

using XmlFatalHandler = void (*)(const char* message, int status);

// Installs handler (null restores the default) and returns the previous one.
XmlFatalHandler set_xml_fatal_handler(XmlFatalHandler handler);

// message holds its own line feed, as printed by the default ending.
[[noreturn]] void xml_fatal(const char* message, int status);

} // namespace vukra::table
