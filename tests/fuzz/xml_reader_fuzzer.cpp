// Arbitrary files read as "table.xml": the XML reader, and the register
// table's index built on what it reads. A syntax error ends the process by
// design; here the fatal-error hook throws instead, which unwinds the
// reader (its file text and the partial tree it frees itself) back to the
// target, so a rejected input is an ordinary outcome and the next input
// starts from a clean reader. The library does the same as ever: only the
// hook it offers is used.
//
// A table that loads must answer every lookup by its index as a walk of
// the document does, and must be written out again without trouble.
#include "support/table_walk.h"
#include "table/register_table.h"
#include "table/xml_fatal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

using namespace vukra::table;

namespace {

struct Rejected {};

void reject(const char*, int) { throw Rejected{}; }

std::FILE* sink = nullptr;

bool same(const RegisterRecord& a, const TypeRecord& at, const RegisterRecord& b, const TypeRecord& bt) {
    auto text_equal = [](const char* x, const char* y) { return x == y || (x && y && std::strcmp(x, y) == 0); };
    return a.element == b.element && a.base == b.base && a.offset == b.offset && a.access == b.access &&
           text_equal(a.type_name, b.type_name) && at.words == bt.words && at.index == bt.index;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/vukra-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) std::abort();
    std::FILE* quiet = std::freopen("/dev/null", "w", stdout); // the load's own messages
    (void)quiet;
    sink = std::fopen("/dev/null", "w");
    set_xml_fatal_handler(reject);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen("table.xml", "wb");
    if (f == nullptr) std::abort();
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    try {
        if (load("table.xml") != 1) return 0;
    } catch (const Rejected&) {
        return 0;
    }
    const int count = register_count();
    for (int i = 0; i < count && i < 256; ++i) {
        RegisterRecord reg{};
        if (register_by_index(reg, i) != 1) __builtin_trap();
        if (reg.name == nullptr) continue;
        RegisterRecord by_index{}, by_walk{};
        TypeRecord type_index{}, type_walk{};
        const int a = find_register(by_index, type_index, reg.name);
        const int b = vukra::test::find_register_by_walk(by_walk, type_walk, reg.name);
        if (a != 1 || b != 1 || !same(by_index, type_index, by_walk, type_walk)) __builtin_trap();
    }
    xml_write(document(), sink);
    return 0;
}
