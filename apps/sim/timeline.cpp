#include "timeline.h"

#include <algorithm>

namespace zusim {

void Timeline::end(std::vector<Span>& spans, const std::string& resource, const std::string& owner,
                   long ms) {
  for (Span& s : spans)
    if (s.resource == resource && s.owner == owner && s.toMs < 0) s.toMs = ms;
}

void Timeline::holds(const std::string& resource, const std::string& owner, long ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  holdings_.push_back({resource, owner, ms, -1, ""});
}

void Timeline::letsGo(const std::string& resource, const std::string& owner, long ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  end(holdings_, resource, owner, ms);
}

void Timeline::activated(const std::string& resource, bool on, long ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (on)
    activations_.push_back({resource, "", ms, -1, ""});
  else
    end(activations_, resource, "", ms);
}

void Timeline::waits(const std::string& resource, const std::string& owner,
                     const std::string& holder, long ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  waits_.push_back({resource, owner, ms, -1, holder});
}

std::string Timeline::waitsEnd(const std::string& owner, long ms, const std::string& fallback) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string lane = fallback;
  for (Span& w : waits_) {
    if (w.owner != owner || w.toMs >= 0) continue;
    w.toMs = ms;
    lane = w.resource;
  }
  return lane;
}

std::vector<std::string> Timeline::heldSince(const std::string& owner,
                                             const std::vector<std::string>& leaves,
                                             long sinceMs) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const Span& h : holdings_) {
    bool late = h.toMs < 0 || h.toMs >= sinceMs;
    if (h.owner == owner && late &&
        std::find(leaves.begin(), leaves.end(), h.resource) != leaves.end() &&
        std::find(out.begin(), out.end(), h.resource) == out.end())
      out.push_back(h.resource);
  }
  return out;
}

void Timeline::close(long endMs, RunRecord& record) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (std::vector<Span>* spans : {&holdings_, &waits_, &activations_})
    for (Span& s : *spans)
      if (s.toMs < 0) s.toMs = endMs;
  record.holdings = holdings_;
  record.waits = waits_;
  record.activations = activations_;
}

}  // namespace zusim
