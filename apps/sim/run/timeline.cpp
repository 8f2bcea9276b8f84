#include "run/timeline.h"

#include <algorithm>

namespace zusim {

using Kind = ZU::ZUEvent::Kind;

void Timeline::end(std::vector<Span>& spans, const std::string& resource, const std::string* owner,
                   const std::string* holder, long ms) {
  for (Span& s : spans)
    if (s.toMs < 0 && s.resource == resource && (!owner || s.owner == *owner) &&
        (!holder || s.holder == *holder))
      s.toMs = ms;
}

bool Timeline::record(const ZU::ZUEvent& e, long ms) {
  const ResourceEntry* r = scenario_.findResource(e.resource);
  if (!r || r->kind == ResourceKind::Group) return true;
  bool state = r->kind == ResourceKind::State;
  // A deactivation asks the holders to let go in the state resource's own name.
  bool deactivation = state && e.owner == e.resource;
  const std::string waiter = deactivation ? std::string() : e.owner;
  std::lock_guard<std::mutex> lock(mutex_);
  switch (e.kind) {
    case Kind::Waiting: {
      auto open = std::find_if(waits_.begin(), waits_.end(), [&](const Span& w) {
        return w.toMs < 0 && w.owner == waiter && w.resource == e.resource;
      });
      if (open != waits_.end() && open->holder == e.holder) return false;
      if (open != waits_.end() && !deactivation) open->toMs = ms;
      waits_.push_back({e.resource, waiter, ms, -1, e.holder});
      return true;
    }
    case Kind::TimedOut:
    case Kind::Stopped:
      end(waits_, e.resource, &waiter, deactivation ? &e.holder : nullptr, ms);
      return true;
    case Kind::Granted:
      end(waits_, e.resource, &e.owner, nullptr, ms);
      if (e.grant == ZU::ZUEvent::Grant::AlreadyHeld) return true;
      end(holdings_, e.resource, state ? &e.owner : nullptr, nullptr, ms);
      holdings_.push_back({e.resource, e.owner, ms, -1, ""});
      return true;
    case Kind::Switched:
      end(holdings_, e.resource, nullptr, nullptr, ms);
      holdings_.push_back({e.resource, e.owner, ms, -1, ""});
      return true;
    case Kind::HandedBack:
      end(holdings_, e.resource, nullptr, nullptr, ms);
      holdings_.push_back({e.resource, e.parent, ms, -1, ""});
      return true;
    case Kind::Lost:  // a fleet resource whose lease ran out is free here
    case Kind::Released: {
      end(holdings_, e.resource, &e.owner, nullptr, ms);
      const std::string nobody;
      end(waits_, e.resource, &nobody, &e.owner, ms);  // a deactivation's wait on it
      return true;
    }
    default:
      return true;
  }
}

void Timeline::activated(const std::string& resource, bool on, long ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string nobody;
  bool open = std::any_of(activations_.begin(), activations_.end(), [&](const Span& a) {
    return a.toMs < 0 && a.resource == resource;
  });
  if (on && !open) activations_.push_back({resource, "", ms, -1, ""});
  if (!on) end(activations_, resource, &nobody, nullptr, ms);
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

std::vector<Span> Timeline::waits() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return waits_;
}

std::vector<Span> Timeline::holdings() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return holdings_;
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
