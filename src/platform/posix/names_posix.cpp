// The computer's and the user's names.
#include "platform/platform.h"

#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <unistd.h>

namespace vukra::platform {

namespace {

void copy_cut(char* buffer, std::size_t size, const char* text) {
    if (size == 0) return;
    std::size_t n = text ? std::strlen(text) : 0;
    if (n > size - 1) n = size - 1;
    if (n) std::memcpy(buffer, text, n);
    buffer[n] = '\0';
}

} // namespace

void computer_name(char* buffer, std::size_t size) {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
    copy_cut(buffer, size, host);
}

void user_name(char* buffer, std::size_t size) {
    char scratch[1024];
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, scratch, sizeof scratch, &found) == 0 && found != nullptr) {
        copy_cut(buffer, size, found->pw_name);
        return;
    }
    copy_cut(buffer, size, std::getenv("USER"));
}

} // namespace vukra::platform
