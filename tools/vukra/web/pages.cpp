#include "pages.h"

#include "metrics.h"

#include "codegen/html_pages.h"
#include "session/named_registers.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace vukra::web {

namespace {

bool read_back(const std::string& path, std::string& html) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    html = bytes.str();
    std::remove(path.c_str());
    return in.good() || in.eof();
}

} // namespace

std::string make_pages(Pages& p) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vukra-serve-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return "cannot make a folder for the pages in " + pattern;
    p.dir = pattern;
    return "";
}

void remove_pages(Pages& p) {
    if (p.dir.empty()) return;
    std::remove((p.dir + "/map.html").c_str());
    std::remove((p.dir + "/live.html").c_str());
    rmdir(p.dir.c_str());
    p.dir.clear();
}

bool map_page(Pages& p, std::string& html) {
    const std::string path = p.dir + "/map.html";
    codegen::write_register_map(path.c_str());
    return codegen::last_page_written() && read_back(path, html);
}

bool live_page(Pages& p, modbus_vukra_session* s, LineCounters& counters, const std::string& host,
               const char* register_name, std::string& html) {
    const std::string path = p.dir + "/live.html";
    const codegen::ReadRegister read = [s, &counters](const table::RegisterRecord& reg, const table::TypeRecord& type,
                                                      void* value) {
        const std::int32_t count = 2 * type.words;
        if (count <= 0 || count > session::kTransferSize) return 0;
        const bool ok = modbus_vukra_op_protected_readreg(s, reg.name, value, count) == count;
        count_transaction(counters);
        return ok ? 1 : 0;
    };
    codegen::write_live_page(path.c_str(), host.c_str(), read, register_name);
    return codegen::last_page_written() && read_back(path, html);
}

} // namespace vukra::web
