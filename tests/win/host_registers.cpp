// Registers by name: read, written, and converted between text and value.
#include "host_app.h"

#include <cstring>

namespace host {

void registers(modbus_vukra_session* s) {
    char text[MODBUS_VUKRA_TEXT_SIZE];
    float setpoint = 0, wanted = 0, back = 0;
    check(VK(protected_readreg)(s, "setpoint", &setpoint, 4) == 4 && setpoint == 21.5f &&
              VK(register_btoa)(text, "setpoint", &setpoint) == text && std::strcmp(text, "21.500000") == 0,
          "readreg setpoint: the table's 21.5, shown by register_btoa");
    check(VK(register_atob)(&wanted, "setpoint", "-7.25") == 0 && VK(protected_writereg)(s, "setpoint", &wanted, 4) == 4 &&
              VK(protected_readreg)(s, "setpoint", &back, 4) == 4 && back == -7.25f,
          "register_atob, writereg setpoint, read back");
    std::int32_t energy = -123456, energy_back = 0;
    check(VK(protected_writereg)(s, "energy", &energy, 4) == 4 &&
              VK(protected_readreg)(s, "energy", &energy_back, 4) == 4 && energy_back == -123456,
          "writereg energy, read back");
    std::int16_t probes[3] = {};
    check(VK(protected_readreg)(s, "probe_raw", probes, 6) == 6 &&
              VK(register_btoa)(text, "probe_raw", probes) == text && std::strcmp(text, "100\n-200\n300\n") == 0,
          "a three-word buffer read and shown");
    std::uint16_t cycles = 1;
    check(VK(protected_readreg)(s, "no_such_register", &energy, 4) == -1 &&
              VK(register_btoa)(text, "no_such_register", &energy) == nullptr &&
              VK(protected_writereg)(s, "cycle_count", &cycles, 2) == -1,
          "an unknown name, a read-only register: -1 or NULL");
}

} // namespace host
