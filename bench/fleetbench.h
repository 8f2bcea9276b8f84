#pragma once

#include "resulttable.h"

namespace zubench {

/// Fleet resources on a local etcd started for the purpose: handover latency
/// between two robots, lock cycles per second of 8 robots, and the etcd
/// traffic of one grant. Adds a section to `table`.
void addFleetRows(ResultTable& table);

}  // namespace zubench
