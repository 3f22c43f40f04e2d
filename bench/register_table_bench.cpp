// Loading tables of 10,000 and 100,000 registers, next to libexpat parsing
// the same files in the same run, and looking up the last register.
#include "support/table_walk.h"
#include "table/register_table.h"
#include "stopwatch.h"

#include <expat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace vukra;
namespace {

// Tables of 1000 registers each, every other one with automatic offsets.
std::string make_table(int registers) {
    std::string x = "<root>\n   <config modbus_word_size=\"2\" path=\"out\"/>\n   <type_list>\n"
                    "      <type name=\"int16\" Ctype=\"short\" words=\"1\" SizeCtype=\"2\"/>\n"
                    "      <type name=\"int32\" Ctype=\"long\" words=\"2\" SizeCtype=\"4\"/>\n"
                    "      <type name=\"real\" Ctype=\"float\" words=\"2\" SizeCtype=\"4\"/>\n"
                    "   </type_list>\n   <table_list>\n";
    const char* types[] = {"int16", "int32", "real"};
    for (int t = 0; t * 1000 < registers; ++t) {
        x += "      <table name=\"t" + std::to_string(t) + "\" base=\"" + std::to_string(t) + "000\"" +
             (t % 2 ? " auto_offset=\"yes\"" : "") + ">\n         <register_list>\n";
        for (int r = 0; r < 1000 && t * 1000 + r < registers; ++r) {
            char line[256];
            std::snprintf(line, sizeof line,
                          "            <register name=\"reg%d\" comment=\"register number %d\" offset=\"%x\" "
                          "access=\"RW\" type=\"%s\"/>\n",
                          t * 1000 + r, t * 1000 + r, 2 * r, types[r % 3]);
            x += line;
        }
        x += "         </register_list>\n      </table>\n";
    }
    return x + "   </table_list>\n</root>\n";
}

double expat_parse(const std::string& path) {
    auto start = Clock::now();
    XML_Parser parser = XML_ParserCreate(nullptr);
    long elements = 0;
    XML_SetUserData(parser, &elements);
    XML_SetStartElementHandler(parser, [](void* data, const XML_Char*, const XML_Char**) {
        ++*static_cast<long*>(data);
    });
    std::FILE* f = std::fopen(path.c_str(), "rb");
    char buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) XML_Parse(parser, buffer, static_cast<int>(n), 0);
    XML_Parse(parser, buffer, 0, 1);
    std::fclose(f);
    XML_ParserFree(parser);
    return seconds_since(start);
}

double our_load(const std::string& path) {
    auto start = Clock::now();
    table::load(path.c_str());
    return seconds_since(start);
}

} // namespace

int main() {
    char dir[] = "/tmp/vukra-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    for (int registers : {10000, 100000}) {
        std::string path = std::string(dir) + "/table" + std::to_string(registers) + ".xml";
        std::ofstream(path) << make_table(registers);
        double ours = 1e9, expat = 1e9;
        for (int round = 0; round < 5; ++round) {
            expat = std::min(expat, expat_parse(path));
            ours = std::min(ours, our_load(path));
        }
        std::printf("%6d registers: load %7.2f ms, libexpat parse %7.2f ms, ratio %.2f (target <= 2)\n", registers,
                    ours * 1e3, expat * 1e3, ours / expat);
        if (registers == 100000) {
            const std::string last = "reg" + std::to_string(registers - 1);
            table::RegisterRecord reg;
            table::TypeRecord type;
            const int lookups = 1000000;
            auto start = Clock::now();
            int found = 0;
            for (int i = 0; i < lookups; ++i) found += table::find_register(reg, type, last.c_str());
            double indexed = seconds_since(start) / lookups;
            start = Clock::now();
            found += test::find_register_by_walk(reg, type, last.c_str());
            double walked = seconds_since(start);
            std::printf("lookup of the last of %d: %.0f ns by the index, %.2f ms by a walk (%d found)\n", registers,
                        indexed * 1e9, walked * 1e3, found);
        }
        std::remove(path.c_str());
    }
    rmdir(dir);
    return 0;
}
