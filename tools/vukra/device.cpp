#include "device.h"

#include "../common/null_device.h"
#include "../common/table_errors.h"
#include "link/register_transactions.h"
#include "link/serial_port.h"
#include "session/session.h"
#include "table/register_table.h"

#include <fcntl.h>
#include <unistd.h>

namespace vukra::cli {

int fail(const std::string& why) {
    std::fflush(stdout);
    std::fprintf(stderr, "vukra: %s\n", why.c_str());
    return 1;
}

bool load_table(const Options& options) {
    if (!tools::table_opens(options.table.c_str())) return fail("cannot open the register table " + options.table) == 0;
    if (!tools::load_table(options.table.c_str())) return fail("cannot load the register table " + options.table) == 0;
    tools::warn_if_no_register("vukra", options.table.c_str());
    return true;
}

std::FILE* data_stream(Options& options) {
    if (options.data != nullptr) return options.data;
    std::fflush(stdout);
    int data = dup(STDOUT_FILENO);
    std::FILE* out = data >= 0 ? fdopen(data, "w") : nullptr;
    if (out == nullptr) return options.data = stdout;
    int lines = options.verbose ? dup(STDERR_FILENO) : open(tools::kNullDevice, O_WRONLY);
    if (lines >= 0) {
        dup2(lines, STDOUT_FILENO);
        close(lines);
    }
    // Line by line, as standard error goes, so that they keep their order with the tool's own lines.
    if (options.verbose) std::setvbuf(stdout, nullptr, _IOLBF, 0);
    return options.data = out;
}

LibraryLinesAsData::LibraryLinesAsData(const Options& options) {
    if (options.data == nullptr || options.data == stdout) return;
    std::fflush(options.data);
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    if (saved_ >= 0) dup2(fileno(options.data), STDOUT_FILENO);
}

LibraryLinesAsData::~LibraryLinesAsData() {
    if (saved_ < 0) return;
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}

void choose(CLI::App* command, Options& options, std::function<int()> body, bool needs_device) {
    const CLI::App* parent = command->get_parent();
    const std::string name =
        parent != nullptr && parent->get_parent() != nullptr ? parent->get_name() + " " + command->get_name()
                                                              : command->get_name();
    command->callback([&options, name, body, needs_device] { options.chosen = Command{name, needs_device, body}; });
}

modbus_vukra_session* device_session(Options& options) {
    if (options.session != nullptr || options.session_failed) return options.session;
    options.session_failed = true;
    if (!tools::table_opens(options.table.c_str())) {
        fail("cannot open the register table " + options.table + ", which every session loads (--table FILE)");
        return nullptr;
    }
    tools::set_table_being_read(options.table.c_str());
    modbus_vukra_session* s = session::open(options.port.c_str(), 0, options.table.c_str());
    if (s == nullptr) {
        fail("cannot open a session on " + options.port +
             (link::is_tcp_name(options.port.c_str()) ? std::string(": ") + link::open_failure() : ""));
        return nullptr;
    }
    if (s->port->native == platform::kInvalidPort) {
        modbus_vukra_op_session_close(s);
        fail("cannot open the port " + options.port);
        return nullptr;
    }
    // With -v the named register calls also tell each value they move.
    if (options.verbose) s->verbose = 1;
    options.session_failed = false;
    return options.session = s;
}

void close_session(Options& options) {
    if (options.session != nullptr) modbus_vukra_op_session_close(options.session);
    options.session = nullptr;
    options.mounted = false;
}

std::string transaction_failure() {
    static const char* const kExceptions[] = {"",
                                              "illegal function",
                                              "illegal data address",
                                              "illegal data value",
                                              "device failure",
                                              "acknowledge",
                                              "device busy"};
    const link::TransactionOutcome o = link::last_outcome();
    switch (o.failure) {
    case link::Failure::kNone:
        return "the transaction failed";
    case link::Failure::kNoReply:
        return "no reply from the device (time-out)";
    case link::Failure::kBadFrame:
        return "the reply was not a sound frame (bad frame)";
    case link::Failure::kException: {
        std::string what = "the device answered with exception " + std::to_string(o.exception_code);
        if (o.exception_code < sizeof kExceptions / sizeof *kExceptions && o.exception_code > 0)
            what += std::string(" (") + kExceptions[o.exception_code] + ")";
        return what;
    }
    case link::Failure::kWrongFunction:
        return "the device answered for another function";
    case link::Failure::kWrongEcho:
        return "the device's reply echoed another address or register count";
    }
    return "the transaction failed";
}

} // namespace vukra::cli
