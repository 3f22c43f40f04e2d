// kernel_boot: the full system start, with the two boot files.
//
//   /usr/etc/.mount  one mount a line: "TYPE DEVICE MOUNTPOINT", e.g.
//                    "ufsx /dev/sdcard0 /mem"
//   /usr/etc/.boot   fields ended by ":", ";" or "!": the board device's
//                    path, a number, then pairs of a board code and a
//                    command, or a command, "!" and the command for other
//                    boards, ";"
//
// This build has no process model: running a program goes to a hook.
#include "kernel/device_table.h"
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/start_steps.h"
#include "kernel/vfs.h"

#include <cstdlib>
#include <cstring>

namespace vukra::kernel {

namespace {

std::vector<std::vector<std::string>> recorded;

void program_hook(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<std::string> line{program};
    line.insert(line.end(), arguments.begin(), arguments.end());
    recorded.push_back(line);
}

// Words split at spaces, runs of spaces counting as one; at most 20.
std::vector<std::string> words_of(const std::string& line) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while (words.size() < 20) {
        at = line.find_first_not_of(' ', at);
        if (at == std::string::npos) break;
        std::size_t end = line.find(' ', at);
        words.push_back(line.substr(at, end == std::string::npos ? std::string::npos : end - at));
        if (end == std::string::npos) break;
        at = end;
    }
    return words;
}

void mount_line(const std::string& line) {
    std::vector<std::string> words = words_of(line);
    if (words.size() < 3) return;
    int type = fs_type_by_name(words[0].c_str());
    if (type < 0) return;
    mount(type, words[1].c_str(), words[2].c_str());
}

// Reads a file byte by byte, as the kernel does: -1 at its end.
struct ByteReader {
    Descriptor fd;
    int next() {
        std::uint8_t c;
        return read(fd, &c, 1) == 1 ? c : -1;
    }
};

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void run_command(const std::string& field) {
    std::vector<std::string> words = words_of(field);
    if (!words.empty()) program_hook(words[0], words);
}

} // namespace

const std::vector<std::vector<std::string>>& programs_run() { return recorded; }

std::uint32_t parse_board_code(const std::string& field) {
    std::uint32_t value = 0, weight = 1;
    for (std::size_t i = field.size(); i-- > 1 && weight != 0;) {
        char c = field[i];
        if (c == 'x' || c == 'X') break;
        int digit = hex_value(c);
        if (digit < 0) return 0;
        value += static_cast<std::uint32_t>(digit) * weight;
        weight *= 16; // past eight digits the weight wraps to 0 and the reading ends
    }
    return value;
}

void apply_mount_file(const char* path) {
    Descriptor fd = open(path, kOpenRead);
    if (fd < 0) return;
    ByteReader in{fd};
    std::string line;
    for (int c = in.next();; c = in.next()) {
        if (c == -1 || c == '\r' || c == '\n') {
            if (!line.empty()) mount_line(line);
            line.clear();
            if (c == -1) break;
        } else {
            line += static_cast<char>(c);
        }
    }
    close(fd);
}

int run_boot_file(const char* path) {
    Descriptor fd = open(path, kOpenRead);
    if (fd < 0) {
        program_hook("/bin/init", {"-t", "5000", "-i", "/dev/ttyp0", "-o", "/dev/ttyp0"});
        return 0;
    }
    ByteReader in{fd};
    int state = 0;
    std::uint32_t board = 0;
    std::string field;
    for (int c = in.next(); c != -1; c = in.next()) {
        if (c == '\r' || c == '\n') {
            if (state == -1) state = 2;
            continue;
        }
        if (c != ':' && c != ';' && c != '!') {
            field += static_cast<char>(c);
            continue;
        }
        if (field.empty()) continue;
        switch (state) {
        case 0: {
            state = 1;
            Descriptor device = open(field.c_str(), kOpenRead);
            if (device >= 0) {
                ioctl(device, kBoardCodeRequest, &board);
                close(device);
            }
            field.clear();
            break;
        }
        case 1:
            (void)std::atoi(field.c_str()); // read, and not used further
            state = 2;
            field.clear();
            break;
        case 2: {
            std::uint32_t code = parse_board_code(field);
            state = code != 0 && code != board ? 3 : 4;
            field.clear();
            break;
        }
        case 3:
            if (c == ':') {
                field.clear();
            } else if (c == '!') {
                field.clear();
                state = 4;
            } else {
                field += static_cast<char>(c); // ";" stays in the field
                state = -1;
            }
            break;
        case 4:
            run_command(field);
            state = 2;
            field.clear();
            break;
        default: // -1: the rest of a line
            field.clear();
            break;
        }
    }
    close(fd);
    return 0;
}

int kernel_boot(void*) {
    set_boot_context(true);
    reset_tables();
    build_system();
    apply_mount_file("/usr/etc/.mount");
    int result = run_boot_file("/usr/etc/.boot");
    set_boot_context(false);
    return result;
}

} // namespace vukra::kernel
