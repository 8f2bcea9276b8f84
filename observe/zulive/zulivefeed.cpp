#include "zulive/zulivefeed.h"

#include <zuobserve/zujson.h>

namespace ZU {

ZULiveFeed::ZULiveFeed(std::size_t keep) : start_(Clock::now()), keep_(keep) {}

void ZULiveFeed::onEvent(const ZUEvent& event) { add(zujson::eventJson(event, start_).dump()); }

void ZULiveFeed::add(const std::string& line) {
  {
    ZUMutexLock lock(mutex_);
    lines_.push_back(line);
    if (keep_ != 0 && lines_.size() > keep_) {
      lines_.pop_front();
      ++dropped_;
    }
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
                                               bool& closed, std::size_t* first) {
  ZUMutexLock lock(mutex_);
  auto deadline = Clock::now() + patience;
  while (!closed_ && dropped_ + lines_.size() <= from)
    if (!lock.waitUntil(grown_, deadline)) break;
  closed = closed_;
  const std::size_t start = from < dropped_ ? dropped_ : from;
  if (first != nullptr) *first = start;
  if (start >= dropped_ + lines_.size()) return {};
  return std::vector<std::string>(lines_.begin() + static_cast<long>(start - dropped_),
                                  lines_.end());
}

std::size_t ZULiveFeed::count() {
  ZUMutexLock lock(mutex_);
  return dropped_ + lines_.size();
}

}  // namespace ZU
