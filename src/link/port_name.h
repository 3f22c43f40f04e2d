// Port names that stand for a connection to a serial device server rather
// than a serial port of this computer: "tcp://HOST:PORT", HOST a host name,
// an IPv4 address or an IPv6 address in brackets ("tcp://[::1]:4001"),
// PORT a decimal number from 1 to 65535. Any other name is a serial port's.
#pragma once

#include <string_view>

namespace vukra::link {

struct TcpAddress {
    char host[256]; // without the brackets of an IPv6 address
    char service[6];
};

// Whether the name asks for a TCP connection (it starts with "tcp://").
bool is_tcp_name(const char* name);

// Splits a tcp:// name into host and port; false when it is not one.
bool parse_tcp_name(const char* name, TcpAddress& address);

// Splits HOST:PORT as a tcp:// name holds it (an IPv6 HOST in brackets);
// with zero_port a port of 0 (the system's choice) is taken too. False
// when it is not one. Every HOST:PORT the tools read goes through here.
bool parse_host_port(std::string_view text, TcpAddress& address, bool zero_port = false);

} // namespace vukra::link
