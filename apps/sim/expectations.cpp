#include "expectations.h"

#include <algorithm>

namespace zusim {

namespace {

std::string list(const std::vector<std::string>& names) {
  std::string out = "[";
  for (std::size_t i = 0; i < names.size(); ++i) out += (i ? ", " : "") + names[i];
  return out + "]";
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
    bool inTime = x.atMs < 0 || f.ms <= x.atMs;
    bool ofThem = owners.empty() || f.owners == owners;
    bool onIt = x.resource.empty() ||
                std::find(f.resources.begin(), f.resources.end(), x.resource) != f.resources.end();
    if (inTime && ofThem && onIt && !match) match = &f;
  }
  std::string subject = what + (owners.empty() ? "" : " of " + list(owners)) +
                        (x.resource.empty() ? "" : " on " + x.resource);
  ExpectResult r{x.entry, (match != nullptr) == x.reported,
                 subject + (x.reported ? " reported " : " not reported ") +
                     (x.atMs < 0 ? "during the run" : "by " + std::to_string(x.atMs) + " ms")};
  if (!r.held)
    r.text += match ? ", found \"" + match->text + "\" at " + std::to_string(match->ms) + " ms"
                    : ", found none";
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
  }
  return ExpectResult{x.entry, false, "unknown expectation"};
}

}  // namespace zusim
