#include "register_reads.h"

#include "device.h"

#include "session/named_registers.h"
#include "session/tool_interface.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vukra::cli {

namespace {


std::uint32_t first_word(const Polled& p) { return table::address_of(p.reg) & 0xFFFF; }
std::uint32_t end_word(const Polled& p) { return first_word(p) + static_cast<std::uint32_t>(p.type.words); }

bool same_table(const Polled& a, const Polled& b) {
    return a.reg.table_name == b.reg.table_name ||
           (a.reg.table_name != nullptr && b.reg.table_name != nullptr && std::strcmp(a.reg.table_name, b.reg.table_name) == 0);
}

// The register's words, big-endian as they came, into the host-order
// number the library's named read gives.
void to_host_order(const std::uint8_t* words, std::size_t bytes, std::uint8_t* value) {
    for (std::size_t i = 0; i < bytes; ++i)
        value[i] = std::endian::native == std::endian::little ? words[bytes - 1 - i] : words[i];
}

} // namespace

std::vector<std::vector<std::size_t>> plan_spans(const std::vector<Polled>& polled, unsigned gap) {
    std::vector<std::size_t> order(polled.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        const int t = std::strcmp(polled[a].reg.table_name ? polled[a].reg.table_name : "",
                                  polled[b].reg.table_name ? polled[b].reg.table_name : "");
        return t != 0 ? t < 0 : first_word(polled[a]) < first_word(polled[b]);
    });
    std::vector<std::vector<std::size_t>> spans;
    std::uint32_t start = 0, end = 0;
    for (std::size_t i : order) {
        const Polled& p = polled[i];
        const bool joins = !spans.empty() && same_table(polled[spans.back().front()], p) &&
                           first_word(p) <= end + gap && std::max(end, end_word(p)) - start <= tool::kMaxReadWords;
        if (!joins) {
            spans.push_back({});
            start = first_word(p);
            end = start;
        }
        spans.back().push_back(i);
        end = std::max(end, end_word(p));
    }
    return spans;
}

void add_gap_option(CLI::App* command, unsigned& gap) {
    command->add_option("--gap", gap,
                        "read registers of one table at most WORDS unwanted words apart in one transaction "
                        "(default 4; 0: only registers side by side)")
        ->check(CLI::Range(0u, tool::kMaxReadWords - 1));
}

modbus_vukra_session* open_for_reading(Options& o, const std::vector<std::string>& names, std::vector<Polled>& polled) {
    if (!load_table(o)) return nullptr;
    polled.clear();
    for (const std::string& name : names) {
        polled.push_back(Polled{name});
        const std::string why = look_up(polled.back(), false);
        if (!why.empty()) {
            fail(why);
            return nullptr;
        }
    }
    modbus_vukra_session* s = device_session(o);
    if (s == nullptr) return nullptr;
    for (Polled& p : polled) look_up(p, false);
    return s;
}

std::vector<Reading> read_registers(modbus_vukra_session* s, const std::vector<Polled>& polled, Grouping& grouping,
                                    const std::function<void()>& between) {
    std::vector<Reading> readings(polled.size());
    const auto alone = [&](std::size_t i) {
        if (between) between();
        ++grouping.transactions;
        readings[i] = read_register(s, polled[i]);
    };
    for (const std::vector<std::size_t>& span : plan_spans(polled, grouping.gap)) {
        const std::uint32_t start = first_word(polled[span.front()]);
        std::uint32_t end = start;
        for (std::size_t i : span) end = std::max(end, end_word(polled[i]));
        const std::pair<std::uint32_t, std::uint32_t> key{start, end - start};
        if (span.size() == 1 || grouping.refused.count(key)) {
            for (std::size_t i : span) alone(i);
            continue;
        }
        const std::uint8_t request[5] = {3, static_cast<std::uint8_t>(start >> 8), static_cast<std::uint8_t>(start),
                                         0, static_cast<std::uint8_t>(end - start)};
        std::uint8_t reply[tool::kMaxPdu];
        if (between) between();
        ++grouping.transactions;
        const long got = tool::modbus_exchange(s, request, sizeof request, reply);
        if (got >= 2 && (reply[0] & 0x80)) {
            // Refused: register by register, now and from now on.
            grouping.refused.insert(key);
            for (std::size_t i : span) alone(i);
            continue;
        }
        for (std::size_t i : span) {
            const Polled& p = polled[i];
            if (got < 0) {
                readings[i].name = p.name;
                readings[i].type = p.type.name ? p.type.name : "?";
                const tool::Failure why = tool::last_failure();
                readings[i].error = why.kind == tool::FailureKind::kNone ? "no reply from the device" : why.reason;
                continue;
            }
            std::uint8_t value[session::kTransferSize] = {};
            const std::size_t bytes = 2 * static_cast<std::size_t>(p.type.words);
            to_host_order(reply + 2 + 2 * (first_word(p) - start), bytes, value);
            readings[i] = reading_of(p, value);
        }
    }
    return readings;
}

} // namespace vukra::cli
