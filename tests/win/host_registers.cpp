// Registers by name: read, written, and converted between text and value.
#include "host_app.h"

#include <cstring>

namespace host {

void registers(modbus_vukra_session* s) {
    char text[MODBUS_VUKRA_TEXT_SIZE];
    float setpoint = 0;
    check(VK(protected_readreg)(s, "setpoint", &setpoint, 4) == 4 && setpoint == 21.5f,
          "readreg setpoint: the table's 21.5");
    check(VK(register_btoa)(text, "setpoint", &setpoint) == text && std::strcmp(text, "21.500000") == 0,
          "register_btoa of a real");

    // Text to value, to the device, and back.
    float wanted = 0;
    check(VK(register_atob)(&wanted, "setpoint", "-7.25") == 0 && wanted == -7.25f, "register_atob of a real");
    float back = 0;
    check(VK(protected_writereg)(s, "setpoint", &wanted, 4) == 4 &&
              VK(protected_readreg)(s, "setpoint", &back, 4) == 4 && back == -7.25f,
          "writereg setpoint, read back");

    std::int32_t energy = 0;
    check(VK(register_atob)(&energy, "energy", "-123456") == 0 && energy == -123456, "register_atob of an int32");
    std::int32_t energy_back = 0;
    check(VK(protected_writereg)(s, "energy", &energy, 4) == 4 &&
              VK(protected_readreg)(s, "energy", &energy_back, 4) == 4 && energy_back == -123456,
          "writereg energy, read back");
    check(VK(register_btoa)(text, "energy", &energy_back) == text && std::strcmp(text, "-123456") == 0,
          "register_btoa of an int32");

    std::int16_t trim = 5;
    check(VK(register_atob)(&trim, "offset_trim", "not a number") == 0 && trim == 5,
          "register_atob of text that does not parse leaves the value");
    std::uint32_t uptime = 7;
    check(VK(register_atob)(&uptime, "uptime", "1") == -1 && uptime == 7, "register_atob refuses a uint32");
    std::int16_t probes[3] = {};
    check(VK(protected_readreg)(s, "probe_raw", probes, 6) == 6 &&
              VK(register_btoa)(text, "probe_raw", probes) == text && std::strcmp(text, "100\n-200\n300\n") == 0,
          "a three-word buffer read and shown");

    // Names the table does not have; a register the device does not let write.
    check(VK(protected_readreg)(s, "no_such_register", &energy, 4) == -1, "readreg of an unknown name is -1");
    check(VK(register_btoa)(text, "no_such_register", &energy) == nullptr, "register_btoa of an unknown name is NULL");
    std::uint16_t cycles = 1;
    check(VK(protected_writereg)(s, "cycle_count", &cycles, 2) == -1, "writereg of a read-only register is -1");
}

} // namespace host
