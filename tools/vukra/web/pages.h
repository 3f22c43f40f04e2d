// The generator's two pages, served as it writes them: it writes files, so
// they are written into a private folder and read back. Only on the line's
// thread: the live page reads the device and writes each value into the
// register table.
#pragma once

#include "board.h"

#include "modbus_vukra.h"

#include <string>

namespace vukra::web {

struct Pages {
    std::string dir; // private, removed by remove_pages
};

// "" or why the folder could not be made.
std::string make_pages(Pages& p);
void remove_pages(Pages& p);

// The register map; false when it could not be written.
bool map_page(Pages& p, std::string& html);

// The live value page with host in its forms: every register read, or
// only the one named (the others from their cached values).
bool live_page(Pages& p, modbus_vukra_session* s, LineCounters& counters, const std::string& host,
               const char* register_name, std::string& html);

} // namespace vukra::web
