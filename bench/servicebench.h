#pragma once

#include <string>

#include "resulttable.h"

namespace zubench {

/// The robot's service: an acquire + release over the Unix socket against
/// two round trips of a bare gRPC echo on the same server; a holder of ten
/// resources killed, until its ten waiters are granted; and the service's
/// memory and processor time with 1,000 idle clients and 100 waits. Runs the
/// programs `zuresourced` and `zuresourcectl`. Adds a section to `table`.
void addServiceRows(ResultTable& table, const std::string& zuresourced,
                    const std::string& zuresourcectl);

}  // namespace zubench
