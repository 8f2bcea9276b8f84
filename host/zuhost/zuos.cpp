#include <chrono>
#include <thread>

#include <zuhost/zuos.h>

namespace ko {
namespace os {

void msleep(unsigned int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace os
}  // namespace ko

namespace ZU {

std::string DecToString(int value) { return std::to_string(value); }

}  // namespace ZU
