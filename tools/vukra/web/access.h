// Who may do what at the web door.
//
// Reading is open to whoever reaches the door. A write (PUT of the JSON
// API, a form of the live page) needs the token of --http-token-file when
// one is given: "Authorization: Bearer TOKEN", or the cookie a page opened
// as /?token=TOKEN or /ui?token=TOKEN sets (so the generator's live page
// stays as it writes it, and a token never shows in a page's text). A door
// on anything but loopback refuses to start without a token.
//
// Against another web site in the same browser: a write whose Origin is
// not the door's own is refused, and a door on loopback answers only to
// loopback host names (no DNS rebinding onto it). The cookie is HttpOnly
// and SameSite=Strict.
#pragma once

#include <string>

namespace vukra::web {

struct Address {
    std::string host; // without brackets
    int port = 0;
};

// "HOST:PORT", "[V6]:PORT": false, with why, when it is not one.
bool parse_address(const std::string& text, Address& address, std::string& why);

// 127.0.0.0/8, ::1 and "localhost".
bool is_loopback(const std::string& host);

// The token: the file's first line, at least 16 characters; "" or why not.
std::string read_token(const std::string& file, std::string& token);

// Compares in a time that does not depend on where they differ.
bool same_token(const std::string& a, const std::string& b);

// The token a request carries: its bearer token, else its cookie; "".
std::string request_token(const std::string& authorization, const std::string& cookie);

// The cookie that carries the token for the door's own pages.
std::string token_cookie(const std::string& token);

// A Host header a door on loopback answers to: a loopback name or address,
// with or without a port.
bool loopback_host_header(const std::string& host);

// A Host header made only of what a host name and port hold (so that it
// can go into a page).
bool plain_host_header(const std::string& host);

} // namespace vukra::web
