#include "metrics.h"

#include "link/register_transactions.h"
#include "session/tool_interface.h"

#include <cstdio>

namespace vukra::web {

namespace {

const char* const kKindNames[] = {"no_reply", "bad_frame", "exception", "wrong_function", "wrong_echo"};
static_assert(sizeof kKindNames / sizeof *kKindNames == static_cast<std::size_t>(FailureKind::kCount));

// A label value: backslash, quote and line feed escaped.
std::string label(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

void family(std::string& out, const char* name, const char* type, const char* help) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string number(double v) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", v);
    return text;
}

} // namespace

void count_failure(LineCounters& c) {
    // A relayed exchange says why in the tool interface, a named one in the
    // link's outcome.
    const tool::FailureKind relayed = tool::last_failure().kind;
    FailureKind kind = FailureKind::kNoReply;
    if (relayed == tool::FailureKind::kUndecodable) kind = FailureKind::kBadFrame;
    else if (relayed == tool::FailureKind::kNone) switch (link::last_outcome().failure) {
        case link::Failure::kNone:
        case link::Failure::kNoReply: break;
        case link::Failure::kBadFrame: kind = FailureKind::kBadFrame; break;
        case link::Failure::kException: kind = FailureKind::kException; break;
        case link::Failure::kWrongFunction: kind = FailureKind::kWrongFunction; break;
        case link::Failure::kWrongEcho: kind = FailureKind::kWrongEcho; break;
        }
    ++c.failures[static_cast<std::size_t>(kind)];
}

void count_transaction(LineCounters& c) {
    ++c.exchanges;
    if (link::last_outcome().failure != link::Failure::kNone) count_failure(c);
}

std::string metrics_text(const Board& b) {
    const LineCounters& c = b.counters;
    std::string out;
    family(out, "vukra_register_value", "gauge", "The register's value last read from the device.");
    {
        const std::lock_guard<std::mutex> lock(b.mutex);
        for (const Entry& e : b.entries) {
            if (!e.last.ok || !e.last.value.is_number()) continue;
            out += "vukra_register_value{name=\"" + label(e.reg.name) + "\",table=\"" + label(e.table) + "\"} " +
                   number(e.last.value.get<double>()) + "\n";
        }
        family(out, "vukra_line_up", "gauge", "1 while the device answers, 0 when it does not.");
        out += std::string("vukra_line_up ") + (b.line_up ? "1" : "0") + "\n";
    }
    family(out, "vukra_line_exchanges_total", "counter", "Transactions with the device.");
    out += "vukra_line_exchanges_total " + std::to_string(c.exchanges.load()) + "\n";
    family(out, "vukra_line_failures_total", "counter", "Failed transactions with the device, by kind.");
    for (std::size_t k = 0; k < c.failures.size(); ++k)
        out += std::string("vukra_line_failures_total{kind=\"") + kKindNames[k] + "\"} " +
               std::to_string(c.failures[k].load()) + "\n";
    family(out, "vukra_line_timeouts_total", "counter",
           "Requests dropped before they were sent, their deadline past.");
    out += "vukra_line_timeouts_total " + std::to_string(c.timeouts.load()) + "\n";
    return out;
}

} // namespace vukra::web
