#include "run/diagnosis.h"

#include <algorithm>

#include <zuresource/zuownerstrong.h>
#include <zuresource/zustalewaitchecker.h>

namespace zusim {

namespace {

/// A restarted wait's cycle is reported formed again at its first poll, one
/// polling period after the break; the margin is for the thread to be
/// scheduled.
const long kRestartMs = 2 * ZU::ZUOwnerStrong::kPollPeriodMs;

/// `names` sorted, each once.
std::vector<std::string> distinct(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

long msBetween(std::chrono::steady_clock::time_point from,
               std::chrono::steady_clock::time_point to) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count());
}

}  // namespace

bool Diagnosis::ours(const std::vector<ZU::ZUWait>& waits) const {
  return !waits.empty() && std::all_of(waits.begin(), waits.end(), [this](const ZU::ZUWait& w) {
    return stage_.ownerNumber(w.waiter) >= 0;
  });
}

void Diagnosis::record(const ZU::ZUEvent& e, long ms) {
  if (!ours(e.waits)) return;
  if (e.kind == ZU::ZUEvent::Kind::StaleWait) {
    const ZU::ZUWait& w = e.waits.front();
    ZU::ZUStaleWait s{w, msBetween(e.since, e.time), true};
    std::lock_guard<std::mutex> lock(mutex_);
    stale_.push_back({w.id, w, e.since});
    staleWaits_.push_back({ms, distinct({w.waiter, w.holder}), {w.resource}, s.toString()});
    log_.add(ms, EventKind::StaleWait, w.waiter, w.resource, s.toString());
    return;
  }
  std::vector<std::string> key;
  for (const ZU::ZUWait& w : e.waits) key.push_back(w.waiter + '\n' + w.holder + '\n' + w.resource);
  std::sort(key.begin(), key.end());
  std::lock_guard<std::mutex> lock(mutex_);
  auto known = cycles_.find(key);
  if (e.kind == ZU::ZUEvent::Kind::DeadlockBroken) {
    if (known != cycles_.end()) known->second = Cycle{false, ms};
    return;
  }
  if (known != cycles_.end() &&
      (known->second.standing || ms - known->second.brokenMs <= kRestartMs)) {
    known->second.standing = true;
    return;
  }
  cycles_[key] = Cycle{true, 0};
  Finding found;
  found.ms = ms;
  std::vector<std::string> owners;
  for (const ZU::ZUWait& w : e.waits) {
    owners.push_back(w.waiter);
    found.resources.push_back(w.resource);
  }
  found.owners = distinct(owners);
  found.text = describe(e.waits, e.since);
  deadlocks_.push_back(found);
  log_.add(ms, EventKind::Deadlock, e.waits.front().waiter, e.waits.front().resource, found.text);
}

std::vector<Finding> Diagnosis::deadlocks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return deadlocks_;
}

std::vector<Finding> Diagnosis::staleWaits() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return staleWaits_;
}

Diagnostics Diagnosis::now() const {
  Diagnostics d;
  std::vector<ZU::ZUWait> waits = ourWaits();
  for (const ZU::ZUWait& w : waits) d.waits.push_back(w.toString());
  for (const ZU::ZUWaitCycle& c : ZU::ZUWaitRegistry::findCycles(waits)) {
    std::chrono::steady_clock::time_point formed;
    for (const ZU::ZUWait& w : c.edges) formed = std::max(formed, w.since);
    d.deadlocks.push_back(describe(c.edges, formed));
  }
  std::chrono::steady_clock::time_point at = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Stale& s : stale_)
    if (std::any_of(waits.begin(), waits.end(),
                    [&](const ZU::ZUWait& w) { return w.id == s.waitId; }))
      d.staleWaits.push_back(ZU::ZUStaleWait{s.wait, msBetween(s.since, at), false}.toString());
  return d;
}

std::vector<ZU::ZUWait> Diagnosis::ourWaits() const {
  std::vector<ZU::ZUWait> waits = ZU::ZUWaitRegistry::snapshot();
  waits.erase(std::remove_if(waits.begin(), waits.end(),
                             [this](const ZU::ZUWait& w) {
                               return stage_.ownerNumber(w.waiterOwner.lock()) < 0;
                             }),
              waits.end());
  return waits;
}

std::string Diagnosis::describe(const std::vector<ZU::ZUWait>& edges,
                                std::chrono::steady_clock::time_point formed) const {
  std::string text = "deadlock: ";
  for (std::size_t i = 0; i < edges.size(); ++i) {
    const ZU::ZUWait& w = edges[i];
    text += (i ? ", " : "") + w.waiter + " -> " + w.holder + " (" + w.resource + ")";
  }
  return text + "; formed at " + std::to_string(log_.msOf(formed)) + " ms";
}

}  // namespace zusim
