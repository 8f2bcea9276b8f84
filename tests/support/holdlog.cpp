#include "support/holdlog.h"

#include <algorithm>

namespace zutest {

namespace {

bool isPrefix(const std::string& prefix, const std::string& text) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

void HoldLog::add(const std::string& owner, Clock::time_point got,
                  Clock::time_point released) {
  std::lock_guard<std::mutex> lock(mutex_);
  holds_.push_back(Hold{owner, got, released});
}

std::vector<std::string> HoldLog::overlaps() const {
  std::vector<Hold> holds;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    holds = holds_;
  }
  std::sort(holds.begin(), holds.end(),
            [](const Hold& a, const Hold& b) { return a.got < b.got; });
  std::vector<std::string> found;
  for (std::size_t i = 0; i < holds.size(); ++i) {
    for (std::size_t j = i + 1; j < holds.size() && holds[j].got < holds[i].released; ++j) {
      const std::string& a = holds[i].owner;
      const std::string& b = holds[j].owner;
      if (!isPrefix(a, b) && !isPrefix(b, a)) found.push_back(a + " overlaps " + b);
    }
  }
  return found;
}

std::size_t HoldLog::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return holds_.size();
}

}  // namespace zutest
