#include "support/kernel_helpers.h"

namespace vukra::test {

std::vector<std::string> list_dir(const char* path) {
    std::vector<std::string> names;
    kernel::Descriptor fd = kernel::open(path, kernel::kOpenRead);
    if (fd < 0) return names;
    kernel::DirEntry entry{};
    while (kernel::readdir(fd, entry) == 1) names.emplace_back(entry.name);
    kernel::close(fd);
    return names;
}

std::set<std::string> names_in(const char* path) {
    std::vector<std::string> names = list_dir(path);
    return {names.begin(), names.end()};
}

bool put_file(const char* path, const std::string& bytes) {
    kernel::Descriptor fd = kernel::open(path, kernel::kOpenWrite | kernel::kOpenCreate | kernel::kOpenTruncate);
    if (fd < 0) return false;
    long n = kernel::write(fd, bytes.data(), bytes.size());
    kernel::close(fd);
    return n == static_cast<long>(bytes.size());
}

std::string get_file(const char* path) {
    std::string out;
    kernel::Descriptor fd = kernel::open(path, kernel::kOpenRead);
    if (fd < 0) return "<no file>";
    char chunk[4096];
    long n;
    while ((n = kernel::read(fd, chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<std::size_t>(n));
    kernel::close(fd);
    return out;
}

} // namespace vukra::test
