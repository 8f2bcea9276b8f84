#include "scenario/sections.h"

#include <algorithm>
#include <iterator>
#include <tuple>

#include <zuresource/zucontract.h>

namespace zusim {
namespace section {

namespace {

/// {"deadlock": true|false} or {"staleWait": true|false}, optionally narrowed
/// to the owners involved and a resource waited for.
void parseDiagnosis(const Entry& e, const Scenario& s, ExpectEntry& x, int robot) {
  if (e.has("deadlock") && e.has("staleWait")) e.fail("one of \"deadlock\" and \"staleWait\"");
  x.kind = e.has("deadlock") ? ExpectKind::Deadlock : ExpectKind::StaleWait;
  x.reported = e.boolean(e.has("deadlock") ? "deadlock" : "staleWait");
  if (e.has("owner")) e.fail("a deadlock or a stale wait takes \"owners\", a list");
  x.names = e.texts("owners");
  if (e.has("owners") && x.names.empty()) e.fail("\"owners\" names no owner");
  for (const std::string& n : x.names) knownOwner(e, s, n);
  x.resource = e.optionalText("resource");
  if (!x.resource.empty()) x.resource = resolve(e, s, x.resource, robot).name;
  if (!x.resource.empty() && knownResource(e, s, x.resource).kind == ResourceKind::Group)
    e.fail("waits are on plain and state resources; " + quoteName(x.resource) + " is a group");
  x.fromMs = e.time("from", 0);
  x.toMs = e.time("to", kMaxMs);
  if (x.fromMs > x.toMs) e.fail("\"from\" is after \"to\"");
}

/// The expectations on an owner's or a module's history over the run:
/// waitedBehind, maxWaitMs, notifiedTimes, grantedAtMs. Returns false when
/// `e` is none of them.
bool parseHistory(const Entry& e, const Scenario& s, ExpectEntry& x, int robot) {
  if (e.has("notifiedTimes")) {
    x.kind = ExpectKind::NotifiedTimes;
    x.module = e.text("module");
    if (!s.findModule(x.module)) e.fail("unknown module " + quoteName(x.module));
    x.count = e.integer("notifiedTimes", 0, 0, kMaxMs, true);
  } else if (e.has("waitedBehind")) {
    x.kind = ExpectKind::WaitedBehind;
    x.owner = e.name("owner", "owner");
    knownOwner(e, s, x.owner);
    x.holder = e.name("waitedBehind", "owner");
    knownOwner(e, s, x.holder);
  } else if (e.has("maxWaitMs")) {
    x.kind = ExpectKind::MaxWait;
    x.count = e.time("maxWaitMs", 0, true);
  } else if (e.has("grantedAtMs")) {
    x.kind = ExpectKind::GrantedAt;
    x.owner = e.name("owner", "owner");
    knownOwner(e, s, x.owner);
    std::tie(x.fromMs, x.toMs) = e.timeRange("grantedAtMs");
  } else {
    return false;
  }
  if (x.kind == ExpectKind::MaxWait || (x.kind != ExpectKind::NotifiedTimes && e.has("resource"))) {
    x.resource = resolve(e, s, e.text("resource"), robot).name;
    x.leaves = s.leavesOf(x.resource);
  }
  return true;
}

}  // namespace

void parseExpectation(const Entry& e, Scenario& s) {
  // What an expectation may ask for.
  static const OutcomeKind kOutcomes[] = {OutcomeKind::Granted, OutcomeKind::NotObtained,
                                          OutcomeKind::TimedOut, OutcomeKind::Stopped,
                                          OutcomeKind::Failed};
  e.allow({"at",       "resource",     "holder",      "holders",       "activated",
           "owner",    "outcome",      "notObtained", "error",         "module",
           "notified", "deadlock",     "staleWait",   "owners",        "from",
           "to",       "waitedBehind", "maxWaitMs",   "notifiedTimes", "grantedAtMs",
           "robot"});
  ExpectEntry x;
  int robot = robotOf(e, s);
  x.entry = e.where();
  x.atMs = e.has("at") ? e.time("at", 0) : -1;
  if (e.has("holder") || e.has("holders") || e.has("activated")) {
    const ResourceEntry& r = resolve(e, s, e.text("resource"), robot);
    x.resource = r.name;
    if (e.has("holder")) {
      x.kind = ExpectKind::Holder;
      x.holder = e.text("holder");
      if (r.kind != ResourceKind::Plain) e.fail("\"holder\" needs a plain resource");
      if (x.holder != ZU::contract::kPlaceholderName) knownOwner(e, s, x.holder);
    } else if (e.has("holders")) {
      x.kind = ExpectKind::Holders;
      x.names = e.texts("holders");
      if (r.kind != ResourceKind::State) e.fail("\"holders\" needs a state resource");
      for (const std::string& n : x.names) knownOwner(e, s, n);
    } else {
      x.kind = ExpectKind::Activated;
      x.activated = e.boolean("activated");
      if (r.kind != ResourceKind::State) e.fail("\"activated\" needs a state resource");
    }
  } else if (e.has("outcome")) {
    x.kind = ExpectKind::Outcome;
    x.owner = e.text("owner");
    knownOwner(e, s, x.owner);
    x.resource = e.optionalText("resource");
    if (!x.resource.empty()) x.resource = resolve(e, s, x.resource, robot).name;
    std::string outcome = e.text("outcome");
    auto known = std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                              [&](OutcomeKind k) { return outcome == outcomeName(k); });
    if (known == std::end(kOutcomes))
      e.fail(
          "\"outcome\" must be \"granted\", \"not obtained\", \"timed out\", \"stopped\" or "
          "\"failed\"");
    x.outcome = *known;
    x.checkNames = e.has("notObtained");
    x.names = e.texts("notObtained");
    for (std::string& n : x.names) n = resolve(e, s, n, robot).name;
    x.error = e.optionalText("error");
  } else if (e.has("notified")) {
    x.kind = ExpectKind::Notified;
    x.module = e.text("module");
    if (!s.findModule(x.module)) e.fail("unknown module " + quoteName(x.module));
    x.names = e.texts("notified");
    for (std::string& n : x.names) n = resolve(e, s, n, robot).name;
  } else if (e.has("deadlock") || e.has("staleWait")) {
    parseDiagnosis(e, s, x, robot);
  } else if (!parseHistory(e, s, x, robot)) {
    e.fail(
        "say what is expected: \"holder\", \"holders\", \"activated\", \"outcome\", "
        "\"notified\", \"deadlock\", \"staleWait\", \"waitedBehind\", \"maxWaitMs\", "
        "\"notifiedTimes\" or \"grantedAtMs\"");
  }
  if (x.kind != ExpectKind::Deadlock && x.kind != ExpectKind::StaleWait && e.has("owners"))
    e.fail("only \"deadlock\" and \"staleWait\" take \"owners\"");
  if (x.kind != ExpectKind::Deadlock && x.kind != ExpectKind::StaleWait &&
      (e.has("from") || e.has("to")))
    e.fail("only \"deadlock\" and \"staleWait\" take \"from\" and \"to\"");
  s.expectations.push_back(x);
}

}  // namespace section
}  // namespace zusim
