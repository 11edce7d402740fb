// What a change of the store would do, for --dry-run.
#pragma once

#include "ctl/edit.h"

namespace ctl {

// Prints the changes of the store, and those that the daemon would make in the kernel.
void preview(const step_t &step, const store_view_t &store, const kernel_view_t &kernel,
             const options_t &options);

} // namespace ctl
