#include "zulive/zulivefeed.h"

#include <zuobserve/zujson.h>

namespace ZU {

ZULiveFeed::ZULiveFeed() : start_(Clock::now()) {}

void ZULiveFeed::onEvent(const ZUEvent& event) { add(zujson::eventJson(event, start_).dump()); }

void ZULiveFeed::add(const std::string& line) {
  {
    ZUMutexLock lock(mutex_);
    lines_.push_back(line);
  }
  grown_.notify_all();
}

void ZULiveFeed::close() {
  {
    ZUMutexLock lock(mutex_);
    closed_ = true;
  }
  grown_.notify_all();
}

std::vector<std::string> ZULiveFeed::linesFrom(std::size_t from, std::chrono::milliseconds patience,
                                               bool& closed) {
  ZUMutexLock lock(mutex_);
  auto deadline = Clock::now() + patience;
  while (!closed_ && lines_.size() <= from)
    if (!lock.waitUntil(grown_, deadline)) break;
  closed = closed_;
  if (from >= lines_.size()) return {};
  return std::vector<std::string>(lines_.begin() + static_cast<long>(from), lines_.end());
}

}  // namespace ZU
