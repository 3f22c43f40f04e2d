// The one register-reading loop of vukra: reg read, poll and serve's doors
// read many registers through it.
//
// Grouped reads: the registers of one table whose addresses fit in one
// function-3 request of at most 125 words, with gaps of at most
// Grouping::gap words between them, are read in one transaction and the
// reply split by register. A device that refuses a span (an exception
// reply) is asked register by register for that span from then on.
//
// The gap's default, 4 words: each word a gap adds costs 4 characters of
// the ASCII reply (0.1 ms at 400000 baud), while another transaction costs
// its request, its reply's framing and the device's turnaround, about 30
// characters and more; reading up to about 8 unwanted words still beats a
// second transaction. Half of that keeps the reply short and makes it less
// likely that a span crosses a hole of unmapped addresses, which a device
// may refuse; a refused span costs one transaction, once.
#pragma once

#include "cli.h"
#include "poll_values.h"

#include <cstdint>
#include <functional>
#include <set>
#include <utility>
#include <vector>

namespace vukra::cli {

inline constexpr unsigned kDefaultGap = 4;

struct Grouping {
    unsigned gap = kDefaultGap; // the most unwanted words read between two wanted ones
    // Spans the device refused, by first address and word count.
    std::set<std::pair<std::uint32_t, std::uint32_t>> refused;
    unsigned transactions = 0; // counted, for the benchmarks
};

// The --gap WORDS option of the commands that read many registers.
void add_gap_option(CLI::App* command, unsigned& gap);

// Loads the table, looks every name up for reading (refused before anything
// opens), opens the invocation's session and looks them up again (the open
// loads the table anew). Null after saying why.
modbus_vukra_session* open_for_reading(Options& o, const std::vector<std::string>& names, std::vector<Polled>& polled);

// Reads every register; one Reading each, in the order of polled. between,
// when given, runs before each transaction (poll's MQTT sets).
std::vector<Reading> read_registers(modbus_vukra_session* s, const std::vector<Polled>& polled, Grouping& grouping,
                                    const std::function<void()>& between = {});

// The spans grouped reads would make: per span, the indexes into polled in
// address order. Registers of other tables, or too far apart, go apart.
std::vector<std::vector<std::size_t>> plan_spans(const std::vector<Polled>& polled, unsigned gap);

} // namespace vukra::cli
