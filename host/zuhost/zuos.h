#pragma once

#include <string>

namespace ko {
namespace os {

/// Sleeps the calling thread for `ms` milliseconds (at least).
void msleep(unsigned int ms);

}  // namespace os
}  // namespace ko

namespace ZU {

/// Decimal text of `value`, with a leading '-' when negative ("0", "-12").
std::string DecToString(int value);

}  // namespace ZU
