// Walks a mounted ufs volume whole and tells what is inconsistent.
#pragma once

#include <string>
#include <vector>

namespace vukra::kernel {

struct CheckReport {
    unsigned directories = 0, files = 0, others = 0;
    unsigned blocks_in_use = 0;
    std::vector<std::string> problems;
};

// The volume mounted at mount_path (a ufs or ufsx mount). False when there
// is none; otherwise the report holds what was found.
bool check_volume(const char* mount_path, CheckReport& report);

} // namespace vukra::kernel
