// Per-process shared-memory areas that tools find by pid ("/<prefix><pid>"
// in /dev/shm): a process's activity counters and its trace control area.
// What a caller must know:
//   - create() replaces an area of the same name left by a dead process
//     that had our pid; the area is the caller's to map and to unlink.
//   - removeStale() removes only areas of this user whose pid no longer runs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Cog::ProcessSegment {

// Creates area `name` (mode 0600) of `size` bytes holding a copy of `initial`
// (`size` bytes), or zeros when `initial` is null. Returns the open descriptor,
// or -1 when the area cannot be made (nothing is left behind then).
int create(const std::string& name, std::size_t size, const void* initial);

// Removes the areas "/<prefix><pid>" of this user's processes that no longer
// run, e.g. removeStale("activity.").
void removeStale(std::string_view prefix);

}  // namespace Cog::ProcessSegment
