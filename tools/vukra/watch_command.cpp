// vukra watch: mounts, then prints one line per notification of the
// session's timer (once a second while mounted, after its status request):
// the local time and the device's status, until Ctrl-C.
#include "cli.h"
#include "device.h"
#include "interrupt.h"
#include "remote_fs.h"

#include "platform/platform.h"

#include <atomic>

namespace vukra::cli {

namespace {

// Where the callback writes; the callback takes only the Session.
std::atomic<std::FILE*> watch_out{nullptr};

void on_notification(modbus_vukra_session* s) {
    std::FILE* out = watch_out.load();
    if (out == nullptr) return;
    const platform::LocalTime t = platform::local_time();
    std::fprintf(out, "%04d-%02d-%02d %02d:%02d:%02d %s\n", t.year, t.month, t.day, t.hour, t.minute, t.second,
                 status_words(modbus_vukra_op_session_error(s)).c_str());
    std::fflush(out);
}

int watch(Options& o) {
    std::FILE* out = data_stream(o);
    const InterruptCaught caught;
    // Not a Remote: the timer's requests must not wait for this command.
    modbus_vukra_session* s = mounted_session(o);
    if (s == nullptr) return 1;
    watch_out = out;
    modbus_vukra_op_session_callback(s, on_notification);
    while (!interrupted()) platform::sleep_ms(50);
    modbus_vukra_op_session_callback(s, nullptr);
    watch_out = nullptr;
    return std::fflush(out) == 0 ? 0 : fail("cannot write standard output");
}

} // namespace

void add_watch_command(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand(
        "watch", "mount, then print the local time and the device's status at each notification (once a second) "
                 "until Ctrl-C");
    choose(command, options, [&options] { return watch(options); });
}

} // namespace vukra::cli
