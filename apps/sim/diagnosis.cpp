#include "diagnosis.h"

#include <algorithm>

namespace zusim {

namespace {

/// `names` sorted, each once.
std::vector<std::string> distinct(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

}  // namespace

void Diagnosis::findDeadlocks() {
  for (const ZU::ZUWaitCycle& cycle : ZU::ZUWaitRegistry::findCycles(ourWaits())) {
    std::vector<std::uint64_t> ids;
    std::vector<std::string> owners;
    Finding found;
    for (const ZU::ZUWait& w : cycle.edges) {
      ids.push_back(w.id);
      owners.push_back(w.waiter);
      found.resources.push_back(w.resource);
    }
    if (!cyclesSeen_.insert(ids).second) continue;
    found.owners = distinct(owners);
    found.text = describe(cycle);
    std::lock_guard<std::mutex> lock(mutex_);
    found.ms = log_.now();
    deadlocks_.push_back(found);
    log_.add(EventKind::Deadlock, cycle.edges.front().waiter, cycle.edges.front().resource,
             found.text);
  }
}

void Diagnosis::findStaleWaits() {
  std::vector<ZU::ZUStaleWait> stale = staleChecker_.check(stage_.roots());
  std::lock_guard<std::mutex> lock(mutex_);
  staleNow_.clear();
  for (const ZU::ZUStaleWait& s : stale) {
    if (stage_.ownerNumber(s.wait.waiterOwner.lock()) < 0) continue;
    staleNow_.push_back(s.toString());
    if (!s.firstReport) continue;
    staleWaits_.push_back(
        {log_.now(), distinct({s.wait.waiter, s.wait.holder}), {s.wait.resource}, s.toString()});
    log_.add(EventKind::StaleWait, s.wait.waiter, s.wait.resource, s.toString());
  }
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
  for (const ZU::ZUWaitCycle& c : ZU::ZUWaitRegistry::findCycles(waits))
    d.deadlocks.push_back(describe(c));
  std::lock_guard<std::mutex> lock(mutex_);
  d.staleWaits = staleNow_;
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

std::string Diagnosis::describe(const ZU::ZUWaitCycle& cycle) const {
  std::string text = "deadlock: ";
  EventLog::Clock::time_point formed;
  for (std::size_t i = 0; i < cycle.edges.size(); ++i) {
    const ZU::ZUWait& w = cycle.edges[i];
    text += (i ? ", " : "") + w.waiter + " -> " + w.holder + " (" + w.resource + ")";
    formed = std::max(formed, w.since);
  }
  return text + "; formed at " + std::to_string(log_.msOf(formed)) + " ms";
}

}  // namespace zusim
