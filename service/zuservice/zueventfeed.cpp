#include "zuservice/zueventfeed.h"

#include <algorithm>

#include <zuobserve/zujson.h>

namespace ZU {
namespace service {

ZUEventFeed::ZUEventFeed(std::chrono::steady_clock::time_point start, std::size_t capacity)
    : capacity_(std::max<std::size_t>(capacity, 1)), start_(start) {
  thread_ = std::thread([this] { run(); });
}

ZUEventFeed::~ZUEventFeed() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void ZUEventFeed::onEvent(const ZUEvent& event) {
  std::string json = zujson::eventJson(event, start_).dump();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(Line{event.sequence, std::move(json)});
    newest_ = std::max(newest_, event.sequence);
    if (lines_.size() > capacity_) lines_.pop_front();
    news_ = true;
  }
  changed_.notify_all();
}

std::vector<ZUEventFeed::Line> ZUEventFeed::since(std::uint64_t from, std::size_t limit) const {
  std::vector<Line> out;
  std::lock_guard<std::mutex> lock(mutex_);
  // Lines arrive nearly in sequence order (two threads may swap neighbours),
  // so the first line at or past `from` is found from the back.
  auto it = lines_.end();
  while (it != lines_.begin() && std::prev(it)->sequence >= from) --it;
  for (; it != lines_.end() && out.size() < limit; ++it) out.push_back(*it);
  return out;
}

std::uint64_t ZUEventFeed::next() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return newest_ + 1;
}

std::uint64_t ZUEventFeed::subscribe(Wake wake) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::uint64_t id = nextSubscriber_++;
  subscribers_.emplace_back(id, std::make_shared<Wake>(std::move(wake)));
  return id;
}

void ZUEventFeed::unsubscribe(std::uint64_t id) {
  std::unique_lock<std::mutex> lock(mutex_);
  subscribers_.erase(std::remove_if(subscribers_.begin(), subscribers_.end(),
                                    [id](const auto& s) { return s.first == id; }),
                     subscribers_.end());
  if (std::this_thread::get_id() == runner_) return;
  changed_.wait(lock, [&] { return waking_ != id; });
}

void ZUEventFeed::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  runner_ = std::this_thread::get_id();
  for (;;) {
    changed_.wait(lock, [&] { return news_ || stopping_; });
    if (stopping_) return;
    news_ = false;
    const auto subscribers = subscribers_;
    for (const auto& s : subscribers) {
      if (std::none_of(subscribers_.begin(), subscribers_.end(),
                       [&](const auto& t) { return t.first == s.first; })) {
        continue;  // unsubscribed meanwhile
      }
      waking_ = s.first;
      lock.unlock();
      (*s.second)();
      lock.lock();
      waking_ = 0;
      changed_.notify_all();
    }
  }
}

}  // namespace service
}  // namespace ZU
