// The file-driven way of choosing a port: "./params.xml".
#pragma once

#include "link/serial_port.h"

namespace vukra::link {

// Reads "port" and "baud" from the root element of "./params.xml" ("COM1"
// and 9600 when absent, or without the file), prints "%s %d bauds\n" and
// opens that port. Always 0: a port that fails to open is not reported here.
int read_serial_params();

// The port the last read_serial_params opened, or null.
Port* serial_params_port();

} // namespace vukra::link
