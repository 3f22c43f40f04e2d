#include "access.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <fstream>

namespace vukra::web {

namespace {

constexpr std::size_t kShortestToken = 16;
const char kCookieName[] = "vukra_token";

} // namespace

bool parse_address(const std::string& text, Address& address, std::string& why) {
    const std::string form = " (HOST:PORT, for example 127.0.0.1:8080 or [::1]:8080)";
    std::size_t colon;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            why = "\"" + text + "\" is not an address" + form;
            return false;
        }
        address.host = text.substr(1, close - 1);
        colon = close + 1;
    } else {
        colon = text.rfind(':');
        if (colon == std::string::npos || colon == 0 || text.find(':') != colon) {
            why = "\"" + text + "\" is not an address" + form;
            return false;
        }
        address.host = text.substr(0, colon);
    }
    const std::string port = text.substr(colon + 1);
    char* end = nullptr;
    const long value = std::strtol(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || port.find_first_not_of("0123456789") != std::string::npos || value < 0 ||
        value > 65535) {
        why = "\"" + port + "\" is not a port (0 to 65535)" + form;
        return false;
    }
    address.port = static_cast<int>(value);
    return true;
}

bool is_loopback(const std::string& host) {
    if (host == "localhost") return true;
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string read_token(const std::string& file, std::string& token) {
    std::ifstream in(file);
    if (!in) return "cannot read the token file " + file;
    std::getline(in, token);
    while (!token.empty() && (token.back() == '\r' || token.back() == ' ' || token.back() == '\t')) token.pop_back();
    if (token.size() < kShortestToken)
        return "the token in " + file + " is shorter than " + std::to_string(kShortestToken) +
               " characters (`openssl rand -hex 24` prints one)";
    if (token.find_first_of(" ;,\"\\") != std::string::npos)
        return "the token in " + file + " holds a blank, a quote, a comma, a semicolon or a backslash";
    return "";
}

bool same_token(const std::string& a, const std::string& b) {
    if (a.empty() || a.size() != b.size()) return false;
    unsigned char differ = 0;
    for (std::size_t i = 0; i < a.size(); ++i) differ |= static_cast<unsigned char>(a[i] ^ b[i]);
    return differ == 0;
}

std::string request_token(const std::string& authorization, const std::string& cookie) {
    const std::string bearer = "Bearer ";
    if (authorization.compare(0, bearer.size(), bearer) == 0) return authorization.substr(bearer.size());
    const std::string key = std::string(kCookieName) + "=";
    for (std::size_t at = 0; at < cookie.size();) {
        while (at < cookie.size() && (cookie[at] == ' ' || cookie[at] == ';')) ++at;
        std::size_t end = cookie.find(';', at);
        if (end == std::string::npos) end = cookie.size();
        if (cookie.compare(at, key.size(), key) == 0) return cookie.substr(at + key.size(), end - at - key.size());
        at = end;
    }
    return "";
}

std::string token_cookie(const std::string& token) {
    return std::string(kCookieName) + "=" + token + "; Path=/; HttpOnly; SameSite=Strict";
}

bool loopback_host_header(const std::string& host) {
    Address a;
    std::string why;
    if (parse_address(host, a, why)) return is_loopback(a.host);
    if (!host.empty() && host.front() == '[' && host.back() == ']') return is_loopback(host.substr(1, host.size() - 2));
    return is_loopback(host);
}

bool plain_host_header(const std::string& host) {
    return !host.empty() && host.size() <= 255 &&
           host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:[]") ==
               std::string::npos;
}

} // namespace vukra::web
