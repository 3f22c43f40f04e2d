#include "link/serial_params.h"
#include "session/log.h"

#include "table/xml_tree.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vukra::link {

namespace {

Port* params_port = nullptr;

} // namespace

int read_serial_params() {
    std::string name = "COM1";
    int baud = 9600;
    if (table::XmlNode* root = table::xml_load("./params.xml")) {
        if (const char* b = table::xml_attribute_value(root, "baud")) baud = std::atoi(b);
        if (const char* p = table::xml_attribute_value(root, "port")) name = p;
        table::xml_free(root);
    }
    log::print("%s %d bauds\n", name.c_str(), baud);
    const SerialSettings settings{static_cast<std::uint32_t>(baud), 0, 8, 0, 0};
    if (params_port != nullptr) serial_close(params_port);
    params_port = serial_open(0, name.c_str(), 0, &settings);
    return 0;
}

Port* serial_params_port() { return params_port; }

} // namespace vukra::link
