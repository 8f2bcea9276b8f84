#pragma once

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <zuresource/zuobserver.h>

namespace zutest {

/// An observer of type T, registered from its construction to its
/// destruction. Owned by one test thread; the observer itself is called from
/// any thread.
template <typename T>
struct Observed {
  template <typename... Args>
  explicit Observed(Args&&... args) : observer(boost::make_shared<T>(std::forward<Args>(args)...)) {
    ZU::ZUObservers::add(observer);
  }
  ~Observed() { ZU::ZUObservers::remove(observer); }
  Observed(const Observed&) = delete;
  Observed& operator=(const Observed&) = delete;
  T* operator->() const { return observer.get(); }

  const boost::shared_ptr<T> observer;
};

/// Keeps every event it receives. Thread safe: the events are guarded by its
/// mutex.
class EventKeeper : public ZU::ZUObserver {
 public:
  void onEvent(const ZU::ZUEvent& event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }
  /// The events so far (of `kind` only, when given), in sequence order.
  std::vector<ZU::ZUEvent> events(std::optional<ZU::ZUEvent::Kind> kind = std::nullopt) const {
    std::vector<ZU::ZUEvent> out;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const ZU::ZUEvent& e : events_)
        if (!kind || e.kind == *kind) out.push_back(e);
    }
    std::sort(out.begin(), out.end(),
              [](const ZU::ZUEvent& a, const ZU::ZUEvent& b) { return a.sequence < b.sequence; });
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<ZU::ZUEvent> events_;
};

}  // namespace zutest
