// The web door's own page (/ui): every readable register with its value,
// kept current by /api/events, a trend of each number over the last ten
// minutes, read-only registers marked, a buffer shown as its elements, and
// a field that sets a writable register (PUT /api/registers/NAME).
#pragma once

#include <string>

namespace vukra::web {

const std::string& ui_page();

} // namespace vukra::web
