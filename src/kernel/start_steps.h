// The steps kernel_start and kernel_boot share.
#pragma once

namespace vukra::kernel {

void reset_tables(); // the process table, the switch and the handle table
void build_system(); // the tree, the device nodes, "/usr" and the clock

} // namespace vukra::kernel
