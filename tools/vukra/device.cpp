#include "device.h"

#include "../common/library_lines.h"
#include "../common/table_errors.h"
#include "link/register_transactions.h"
#include "session/tool_interface.h"
#include "table/register_table.h"

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
    tools::library_lines_to(options.verbose ? stderr : nullptr);
    // Line by line, as standard error goes, so that the two keep their order.
    if (options.verbose) std::setvbuf(stdout, nullptr, _IOLBF, 0);
    return options.data = stdout;
}

LibraryLinesAsData::LibraryLinesAsData(const Options& options) {
    if (options.data == nullptr) return;
    before_ = tools::library_lines_to(options.data);
    moved_ = true;
}

LibraryLinesAsData::~LibraryLinesAsData() {
    if (moved_) tools::library_lines_to(before_);
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
    // With -v the session tells its open and each value moved by name.
    modbus_vukra_session* s = tool::open(options.port.c_str(), options.table.c_str(), options.verbose);
    if (s == nullptr) {
        const tool::Failure why = tool::last_failure();
        fail(why.kind == tool::FailureKind::kNone ? "cannot open a session on " + options.port : why.reason);
        return nullptr;
    }
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
    case link::Failure::kBadFrame: {
        const tool::Failure why = tool::last_failure();
        return why.kind == tool::FailureKind::kNone ? "no reply from the device" : why.reason;
    }
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
