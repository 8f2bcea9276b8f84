#include "live/feed.h"

#include <zuobserve/zujson.h>

namespace zusim {

LiveFeed::LiveFeed() : start_(Clock::now()) {}

void LiveFeed::onEvent(const ZU::ZUEvent& event) {
  add(ZU::zujson::eventJson(event, start_).dump());
}

void LiveFeed::add(const std::string& line) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }
  grown_.notify_all();
}

void LiveFeed::close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  grown_.notify_all();
}

std::vector<std::string> LiveFeed::linesFrom(std::size_t from, std::chrono::milliseconds patience,
                                             bool& closed) {
  std::unique_lock<std::mutex> lock(mutex_);
  grown_.wait_for(lock, patience, [&] { return closed_ || lines_.size() > from; });
  closed = closed_;
  if (from >= lines_.size()) return {};
  return std::vector<std::string>(lines_.begin() + static_cast<long>(from), lines_.end());
}

}  // namespace zusim
