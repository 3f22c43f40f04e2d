#include "chain.h"

#include "device.h"
#include "interrupt.h"

#include <cstdlib>
#include <cstring>

namespace vukra::cli {

void usage_error(const std::string& why) {
    std::fflush(stdout);
    std::fprintf(stderr, "vukra: %s (see vukra --help)\n", why.c_str());
    std::exit(2);
}

std::vector<std::vector<char*>> split_chain(int argc, char** argv) {
    std::vector<std::vector<char*>> parts(1, std::vector<char*>{argv[0]});
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "+") != 0) {
            parts.back().push_back(argv[i]);
            continue;
        }
        if (parts.back().size() == 1)
            usage_error(i == 1 ? "\"+\" joins two commands: there is none before the first \"+\""
                               : "\"+\" joins two commands: there is none between two \"+\"");
        parts.emplace_back(std::vector<char*>{argv[0]});
    }
    if (parts.size() > 1 && parts.back().size() == 1)
        usage_error("\"+\" joins two commands: there is none after the last \"+\"");
    return parts;
}

int run_chain(Options& options, const std::vector<Command>& commands) {
    // A command without its port, or a putfs with no getfs before it, is a
    // usage error told before anything runs.
    bool got = false;
    for (const Command& c : commands) {
        if (c.needs_device && options.port.empty()) usage_error(c.name + " needs the device's port: -p PORT");
        got = got || c.name == "fs getfs";
        if (c.name == "fs putfs" && !got)
            usage_error("putfs needs the local copy a getfs makes in the same run: vukra -p PORT fs getfs + ... + "
                        "fs putfs");
    }
    const std::size_t count = commands.size();
    int status = 0;
    for (std::size_t i = 0; i < count && status == 0; ++i) {
        const Command& c = commands[i];
        const std::string which = "command " + std::to_string(i + 1) + " of " + std::to_string(count) + " (" +
                                  c.name + ")";
        const bool more = i + 1 < count;
        if (interrupted()) {
            status = fail("interrupted: " + which + " and the ones after it did not run");
            break;
        }
        status = c.body();
        if (status != 0 && count > 1)
            fail(which + " failed" + (more ? ": the commands after it did not run" : ""));
        else if (status == 0 && more && interrupted())
            status = fail("interrupted during " + which + ": the commands after it did not run");
    }
    close_session(options);
    if (options.data != nullptr && std::fflush(options.data) != 0 && status == 0)
        status = fail("cannot write standard output");
    return status;
}

} // namespace vukra::cli
