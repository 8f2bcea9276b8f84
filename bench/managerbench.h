#pragma once

#include "resulttable.h"

namespace zubench {

/// The manager over the library: an uncontended acquire + release against
/// the library's own cycle, the time from a holder's grace running out to
/// the waiter's grant, and the time from closing a module that holds ten
/// resources to its ten waiters' grants. Adds a section to `table`.
void addManagerRows(ResultTable& table);

}  // namespace zubench
