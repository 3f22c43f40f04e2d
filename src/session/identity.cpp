#include "session/session.h"

#include <cstdio>

namespace vukra::session {

namespace {

constexpr std::size_t kComputerNameSize = 16;
constexpr std::size_t kUserNameSize = 256;

char identity[kComputerNameSize + 1 + kUserNameSize + 1];

} // namespace

const char* refresh_identity() {
    char computer[kComputerNameSize];
    char user[kUserNameSize];
    platform::computer_name(computer, sizeof computer);
    platform::user_name(user, sizeof user);
    std::snprintf(identity, sizeof identity, "%s.%s", computer, user);
    return identity;
}

} // namespace vukra::session
