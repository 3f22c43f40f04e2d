// The computer's and the user's names.
#include "platform/platform.h"

#include <windows.h>

namespace vukra::platform {

void computer_name(char* buffer, std::size_t size) {
    if (size == 0) return;
    char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD n = sizeof name;
    if (!GetComputerNameA(name, &n)) name[0] = '\0';
    lstrcpynA(buffer, name, static_cast<int>(size));
}

void user_name(char* buffer, std::size_t size) {
    if (size == 0) return;
    char name[257] = {};
    DWORD n = sizeof name;
    if (!GetUserNameA(name, &n)) name[0] = '\0';
    lstrcpynA(buffer, name, static_cast<int>(size));
}

} // namespace vukra::platform
