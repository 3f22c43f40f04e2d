#include "codegen/kept_code.h"

#include <algorithm>
#include <fstream>

namespace vukra::codegen {

KeptLines load_kept_lines(const std::string& file_name) {
    KeptLines kept{file_name, {}};
    std::ifstream in(file_name, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back(); // a file edited with CR LF
        kept.lines.push_back(line);
    }
    return kept;
}

void write_kept_code(std::FILE* out, const KeptLines& kept, const std::string& tag) {
    const auto& lines = kept.lines;
    auto begin = std::find(lines.begin(), lines.end(), "// @MODBUS_CODE_BEGIN/" + tag);
    auto end = std::find(lines.begin(), lines.end(), "// @MODBUS_CODE_END/" + tag);
    if (begin == lines.end() || end == lines.end() || end < begin) return;
    for (auto it = begin + 1; it < end; ++it) {
        std::fwrite(it->data(), 1, it->size(), out);
        std::fputc('\n', out);
    }
}

} // namespace vukra::codegen
