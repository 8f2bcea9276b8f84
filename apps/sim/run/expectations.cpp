#include "run/expectations.h"

#include <algorithm>

#include "run/sentences.h"

namespace zusim {

namespace {

std::string list(const std::vector<std::string>& names) {
  return "[" + sentence::join(names) + "]";
}

std::string when(const ExpectEntry& x) {
  return x.atMs < 0 ? "at the end" : "at " + std::to_string(x.atMs) + " ms";
}

/// Compares `found` with `wanted` and fills in the result.
ExpectResult compare(const ExpectEntry& x, const std::string& what, const std::string& wanted,
                     const std::string& found) {
  ExpectResult r{x.entry, wanted == found, what + " " + wanted + " " + when(x)};
  if (!r.held) r.text += ", found " + found;
  return r;
}

/// The window a deadlock or stale wait counts in, when narrower than the run.
std::string window(const ExpectEntry& x) {
  if (x.fromMs == 0 && x.toMs == kMaxMs) return "";
  return " within [" + std::to_string(x.fromMs) + ", " + std::to_string(x.toMs) + "] ms";
}

std::string describe(const Outcome& o) {
  std::string text = outcomeName(o.kind);
  if (!o.notObtained.empty()) text += " " + list(o.notObtained);
  if (!o.error.empty()) text += " (\"" + o.error + "\")";
  return text;
}

ExpectResult checkOutcome(const ExpectEntry& x, World& world) {
  std::vector<Outcome> outcomes = world.outcomesOf(x.owner);
  const Outcome* last = nullptr;
  for (const Outcome& o : outcomes)
    if (x.resource.empty() || o.resource == x.resource) last = &o;
  std::string what = x.owner + "'s request" + (x.resource.empty() ? "" : " of " + x.resource) + ":";
  Outcome wanted;
  wanted.kind = x.outcome;
  wanted.error = x.error;
  if (x.checkNames) wanted.notObtained = x.names;
  if (!last) return compare(x, what, describe(wanted), "no request ended");
  Outcome found = *last;
  // Only what the expectation names is compared.
  if (x.error.empty()) found.error.clear();
  if (!x.checkNames) found.notObtained.clear();
  return compare(x, what, describe(wanted), describe(found));
}

/// Whether a deadlock or stale wait that matches `x` was reported by the
/// expectation's time; when it fails, says what was found.
ExpectResult checkFinding(const ExpectEntry& x, const std::vector<Finding>& found,
                          const std::string& what) {
  std::vector<std::string> owners = x.names;
  std::sort(owners.begin(), owners.end());
  owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
  const Finding* match = nullptr;
  for (const Finding& f : found) {
    bool inTime = (x.atMs < 0 || f.ms <= x.atMs) && f.ms >= x.fromMs && f.ms <= x.toMs;
    bool ofThem = owners.empty() || f.owners == owners;
    bool onIt = x.resource.empty() ||
                std::find(f.resources.begin(), f.resources.end(), x.resource) != f.resources.end();
    if (inTime && ofThem && onIt && !match) match = &f;
  }
  std::string subject = what + (owners.empty() ? "" : " of " + list(owners)) +
                        (x.resource.empty() ? "" : " on " + x.resource);
  ExpectResult r{x.entry, (match != nullptr) == x.reported,
                 subject + (x.reported ? " reported " : " not reported ") +
                     (x.atMs < 0 ? "during the run" : "by " + std::to_string(x.atMs) + " ms") +
                     window(x)};
  if (!r.held)
    r.text += match ? ", found \"" + match->text + "\" at " + std::to_string(match->ms) + " ms"
                    : ", found none";
  return r;
}

/// Whether `span` is on one of `x`'s leaves (on any resource when it names none).
bool onLeaves(const ExpectEntry& x, const Span& span) {
  return x.leaves.empty() ||
         std::find(x.leaves.begin(), x.leaves.end(), span.resource) != x.leaves.end();
}

std::string on(const ExpectEntry& x) { return x.resource.empty() ? "" : " on " + x.resource; }

ExpectResult checkWaitedBehind(const ExpectEntry& x, World& world) {
  std::vector<std::string> behind;
  for (const Span& w : world.waits())
    if (w.owner == x.owner && onLeaves(x, w) &&
        std::find(behind.begin(), behind.end(), w.holder) == behind.end())
      behind.push_back(w.holder);
  bool held = std::find(behind.begin(), behind.end(), x.holder) != behind.end();
  ExpectResult r{x.entry, held, x.owner + " waited behind " + x.holder + on(x) + " " + when(x)};
  if (!held) r.text += ", found behind " + list(behind);
  return r;
}

/// A wait goes on while its holder changes: the spans of one owner on one
/// resource that follow each other without a gap are one wait.
ExpectResult checkMaxWait(const ExpectEntry& x, World& world) {
  long now = world.nowMs();
  std::vector<Span> waits = world.waits();
  std::vector<long> startMs(waits.size());
  const Span* longest = nullptr;
  long longestMs = 0;
  for (std::size_t i = 0; i < waits.size(); ++i) {
    const Span& w = waits[i];
    startMs[i] = w.fromMs;
    for (std::size_t j = 0; j < i; ++j)
      if (waits[j].owner == w.owner && waits[j].resource == w.resource && waits[j].toMs == w.fromMs)
        startMs[i] = startMs[j];
    long ms = (w.toMs < 0 ? now : w.toMs) - startMs[i];
    if (onLeaves(x, w) && ms > longestMs) longestMs = ms, longest = &w;
  }
  std::string what =
      "no wait on " + x.resource + " longer than " + std::to_string(x.count) + " ms " + when(x);
  ExpectResult r{x.entry, longestMs <= x.count, what};
  if (!r.held)
    r.text += ", found " + longest->owner + "'s of " + std::to_string(longestMs) + " ms on " +
              longest->resource;
  return r;
}

ExpectResult checkNotifiedTimes(const ExpectEntry& x, World& world) {
  return compare(x, x.module + " told \"__onResource__\"", std::to_string(x.count) + " times",
                 std::to_string(world.notifiedOf(x.module).size()) + " times");
}

ExpectResult checkGrantedAt(const ExpectEntry& x, World& world) {
  std::vector<long> grants;
  for (const Span& h : world.holdings())
    if (h.owner == x.owner && onLeaves(x, h)) grants.push_back(h.fromMs);
  bool held = std::any_of(grants.begin(), grants.end(),
                          [&](long ms) { return ms >= x.fromMs && ms <= x.toMs; });
  ExpectResult r{x.entry, held,
                 x.owner + " granted" + (x.resource.empty() ? "" : " " + x.resource) + " within [" +
                     std::to_string(x.fromMs) + ", " + std::to_string(x.toMs) + "] ms " + when(x)};
  if (!held) {
    std::string at;
    for (std::size_t i = 0; i < grants.size(); ++i)
      at += (i ? ", " : "") + std::to_string(grants[i]);
    r.text += ", found grants at [" + at + "] ms";
  }
  return r;
}

}  // namespace

ExpectResult check(const ExpectEntry& x, World& world) {
  switch (x.kind) {
    case ExpectKind::Holder:
      return compare(x, x.resource + " held by", x.holder, world.holderOf(x.resource));
    case ExpectKind::Holders:
      return compare(x, x.resource + " held by", list(x.names), list(world.holdersOf(x.resource)));
    case ExpectKind::Activated:
      return compare(x, x.resource, x.activated ? "activated" : "not activated",
                     world.isActivated(x.resource) ? "activated" : "not activated");
    case ExpectKind::Outcome:
      return checkOutcome(x, world);
    case ExpectKind::Notified:
      return compare(x, x.module + " told \"__onResource__\" for", list(x.names),
                     list(world.notifiedOf(x.module)));
    case ExpectKind::Deadlock:
      return checkFinding(x, world.deadlocks(), "a deadlock");
    case ExpectKind::StaleWait:
      return checkFinding(x, world.staleWaits(), "a stale wait");
    case ExpectKind::WaitedBehind:
      return checkWaitedBehind(x, world);
    case ExpectKind::MaxWait:
      return checkMaxWait(x, world);
    case ExpectKind::NotifiedTimes:
      return checkNotifiedTimes(x, world);
    case ExpectKind::GrantedAt:
      return checkGrantedAt(x, world);
  }
  return ExpectResult{x.entry, false, "unknown expectation"};
}

}  // namespace zusim
