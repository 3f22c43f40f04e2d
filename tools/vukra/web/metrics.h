// The door's /metrics in the Prometheus text format (version 0.0.4):
//
//   vukra_register_value{name="setpoint",table="process"} 21.5
//       one gauge per readable register whose last value is a number
//       (a buffer is not one; a register whose last read failed is left out)
//   vukra_line_up                          1 while the device answers
//   vukra_line_exchanges_total             transactions with the device
//   vukra_line_failures_total{kind="..."}  failed ones, by kind: no_reply,
//                                          bad_frame, exception, wrong_function, wrong_echo
//   vukra_line_timeouts_total              requests dropped unsent, their deadline past
#pragma once

#include "board.h"

#include <string>

namespace vukra::web {

// Counts the calling thread's last register transaction (on the line's thread).
void count_transaction(LineCounters& c);

// Counts a failure of the calling thread's last exchange, by its kind.
void count_failure(LineCounters& c);

std::string metrics_text(const Board& b);

} // namespace vukra::web
