#include "scenario/lint.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <zuresource/zucontract.h>
#include <zuresource/zuownerstrong.h>

namespace zusim {

namespace {

const long kForever = std::numeric_limits<long>::max();
const long kPollMs = ZU::ZUOwnerStrong::kPollPeriodMs;

/// Whether `requester` is granted what `holder` holds at once: its name
/// extends the holder's.
bool extendsName(const std::string& requester, const std::string& holder) {
  return requester.size() > holder.size() && requester.compare(0, holder.size(), holder) == 0;
}

bool related(const std::string& a, const std::string& b) {
  return a == b || extendsName(a, b) || extendsName(b, a);
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// Reads a scenario for what will surprise its author. Every finding is
/// looked up through indexes built once (the actions of each owner, the
/// requests of each leaf), so that a scenario of 100,000 actions is checked
/// in about the time it takes to read.
class Linter {
 public:
  explicit Linter(const Scenario& s) : s_(s), leaves_(s.actions.size()), plain_(s.actions.size()) {
    for (std::size_t i = 0; i < s.actions.size(); ++i) {
      const ActionEntry& a = s.actions[i];
      if (!a.owner.empty()) byOwner_[a.owner].push_back(i);
      if (a.resource.empty() || !s.findResource(a.resource)) continue;
      leaves_[i] = s.leavesOf(a.resource);
      for (const std::string& leaf : leaves_[i])
        if (s.findResource(leaf)->kind == ResourceKind::Plain && !contains(a.noWait, leaf))
          plain_[i].push_back(leaf);
      if (a.kind == ActionKind::WaitFor)
        for (const std::string& leaf : plain_[i]) requestsOf_[leaf].push_back(i);
      bool deactivation = (a.kind == ActionKind::SetState && !a.activated) ||
                          a.kind == ActionKind::ReleaseState;
      if (deactivation) requestsOf_[a.resource].push_back(i);
      if (a.kind == ActionKind::Release || a.kind == ActionKind::Stop)
        for (const std::string& leaf : leaves_[i]) letGoes_[a.owner + '\n' + leaf].push_back(a.atMs);
      if (a.kind == ActionKind::SetState || a.kind == ActionKind::ReleaseState) {
        const bool on = a.kind == ActionKind::SetState && a.activated;
        switches_[a.resource].push_back({a.atMs, on});
        if (on) activations_[a.resource].push_back(a.atMs);
      }
    }
  }

  std::vector<Warning> run() {
    requestsAfterRelease();
    endlessWaits();
    unusedModules();
    oppositeOrders();
    std::stable_sort(out_.begin(), out_.end(), [](const Warning& a, const Warning& b) {
      return order(a.entry) < order(b.entry);
    });
    return out_;
  }

 private:
  /// Something that leaves an owner's release flag set: from `ms` on, after
  /// the action `index` in the scenario's order, and why.
  struct FlagSet {
    long ms = kForever;
    std::size_t index = 0;
    std::string why;
    bool before(long atMs, std::size_t at) const { return ms < atMs || (ms == atMs && index < at); }
  };

  /// Sorts entries by section, then by index.
  static std::pair<int, long> order(const std::string& entry) {
    static const char* const kSections[] = {"resources", "modules", "owners", "actions", "expect"};
    int section = 0;
    for (int i = 0; i < 5; ++i)
      if (entry.compare(0, std::char_traits<char>::length(kSections[i]), kSections[i]) == 0)
        section = i;
    std::size_t open = entry.find('[');
    return {section, open == std::string::npos ? 0 : std::stol(entry.substr(open + 1))};
  }

  const std::vector<std::size_t>& actionsOf(const std::string& owner) const {
    static const std::vector<std::size_t> kNone;
    auto it = byOwner_.find(owner);
    return it == byOwner_.end() ? kNone : it->second;
  }
  /// The waitFor actions that ask for `leaf` (a plain one, not on their
  /// no-wait list), and the deactivations of `leaf` (a state resource), in
  /// time order.
  const std::vector<std::size_t>& requestsOf(const std::string& leaf) const {
    static const std::vector<std::size_t> kNone;
    auto it = requestsOf_.find(leaf);
    return it == requestsOf_.end() ? kNone : it->second;
  }
  bool isGroup(const std::string& resource) const {
    return s_.findResource(resource)->kind == ResourceKind::Group;
  }
  const ModuleEntry& moduleOf(const std::string& owner) const {
    return *s_.findModule(s_.findOwner(owner)->module);
  }
  /// When `owner` next lets go of `leaf` at or after `from` (release or the
  /// manager's stop), or kForever.
  long letGo(const std::string& owner, const std::string& leaf, long from) const {
    auto it = letGoes_.find(owner + '\n' + leaf);
    if (it == letGoes_.end()) return kForever;
    auto at = std::lower_bound(it->second.begin(), it->second.end(), from);
    return at == it->second.end() ? kForever : *at;
  }
  /// Whether state resource `name` is activated at `ms`: its start, then
  /// every switch at or before `ms`.
  bool activeAt(const std::string& name, long ms) const {
    auto it = switches_.find(name);
    if (it == switches_.end()) return s_.findResource(name)->activated;
    auto after = std::upper_bound(it->second.begin(), it->second.end(), ms,
                                  [](long t, const std::pair<long, bool>& s) { return t < s.first; });
    return after == it->second.begin() ? s_.findResource(name)->activated : std::prev(after)->second;
  }
  /// Whether state resource `name` is activated within [from, until].
  bool activatedWithin(const std::string& name, long from, long until) const {
    if (activeAt(name, from)) return true;
    auto it = activations_.find(name);
    if (it == activations_.end()) return false;
    auto at = std::lower_bound(it->second.begin(), it->second.end(), from);
    return at != it->second.end() && *at <= until;
  }

  /// Whether the group wait `ai` (with a time limit) may end at that limit
  /// and give back what it took. A waiter sees a release at most one polling
  /// period late, so a holder that lets go closer to the limit than that
  /// counts as one that does not.
  bool groupWaitMayFail(std::size_t ai) const {
    const ActionEntry& a = s_.actions[ai];
    const long limit = a.atMs + 1000L * a.timeout;
    for (const std::string& leaf : leaves_[ai]) {
      if (contains(a.noWait, leaf)) continue;
      if (s_.findResource(leaf)->kind == ResourceKind::State) {
        if (!activatedWithin(leaf, a.atMs, limit - kPollMs - 1)) return true;
        continue;
      }
      for (std::size_t bi : requestsOf(leaf)) {
        const ActionEntry& b = s_.actions[bi];
        if (b.atMs > limit) break;
        if (bi == ai || related(a.owner, b.owner)) continue;
        long gone = letGo(b.owner, leaf, b.atMs);
        if (gone <= a.atMs) continue;  // let go before the wait began
        const ModuleEntry& m = moduleOf(b.owner);
        long told = std::max(a.atMs, b.atMs);
        long letsGo = std::min(gone, m.releases ? told + m.delayMs : kForever);
        if (letsGo == kForever || letsGo + kPollMs >= limit) return true;
      }
    }
    return false;
  }

  /// The first thing that leaves `owner`'s release flag set: its release, the
  /// manager's stop, its group wait that may time out, or its module letting
  /// go when told "__onResource__" (for another owner's request, or a
  /// deactivation) of something the owner may still hold.
  FlagSet firstFlagSet(const OwnerEntry& o) const {
    FlagSet first;
    const ModuleEntry& module = *s_.findModule(o.module);
    for (std::size_t ai : actionsOf(o.name)) {
      const ActionEntry& a = s_.actions[ai];
      if (first.before(a.atMs, ai)) break;  // nothing from here on comes earlier
      FlagSet f{a.atMs, ai, ""};
      if (a.kind == ActionKind::Release)
        f.why = "its release of " + a.resource + " (" + a.entry + ")";
      else if (a.kind == ActionKind::Stop)
        f.why = "the manager's stop on " + a.resource + " (" + a.entry + ")";
      else if (a.kind == ActionKind::WaitFor && a.timeout >= 0 && isGroup(a.resource) &&
               groupWaitMayFail(ai))
        f.why = "its wait for the group " + a.resource + " (" + a.entry +
                "), which gives back what it took if it times out";
      if (!f.why.empty() && f.before(first.ms, first.index)) first = f;
      if (a.kind != ActionKind::WaitFor || !module.releases) continue;
      // Who may be told to let go of what this request took, while it still
      // holds it: another owner's request, or a deactivation.
      for (const std::string& leaf : leaves_[ai]) {
        if (contains(a.noWait, leaf)) continue;
        long until = letGo(o.name, leaf, a.atMs);
        for (std::size_t bi : requestsOf(leaf)) {
          const ActionEntry& b = s_.actions[bi];
          if (b.atMs >= until || !FlagSet{b.atMs, bi, ""}.before(first.ms, first.index)) break;
          if (bi <= ai) continue;
          bool deactivation = b.kind != ActionKind::WaitFor;
          if (!deactivation && related(o.name, b.owner)) continue;
          first = {b.atMs, bi,
                   "its module " + module.name + " let go of " + leaf +
                       " when told \"__onResource__\" for " +
                       (deactivation ? "the deactivation of " + leaf : b.owner + "'s request") +
                       " (" + b.entry + ")"};
          break;
        }
      }
    }
    return first;
  }

  void requestsAfterRelease() {
    for (const OwnerEntry& o : s_.owners) {
      FlagSet first = firstFlagSet(o);
      if (first.ms == kForever) continue;
      for (std::size_t ci : actionsOf(o.name)) {
        const ActionEntry& c = s_.actions[ci];
        if (c.kind != ActionKind::WaitFor || !first.before(c.atMs, ci)) continue;
        out_.push_back({c.entry, o.name + " requests " + c.resource + " after " + first.why +
                                     ": that leaves its release flag set, so if this request "
                                     "has to wait it fails with \"" +
                                     ZU::contract::kStopWhileWaiting + "\""});
        break;
      }
    }
  }

  void endlessWaits() {
    for (std::size_t ai = 0; ai < s_.actions.size(); ++ai) {
      const ActionEntry& a = s_.actions[ai];
      if (a.kind != ActionKind::WaitFor || a.timeout >= 0) continue;
      const std::vector<std::size_t>& own = actionsOf(a.owner);
      bool stopped = std::any_of(own.begin(), own.end(), [&](std::size_t i) {
        return s_.actions[i].kind == ActionKind::Stop && s_.actions[i].atMs >= a.atMs;
      });
      if (stopped) continue;
      // The first request before `a` (actions are in time order: those
      // before start first) that takes one of its leaves and never lets go,
      // while its module ignores "__onResource__".
      std::size_t holder = ai;
      std::string leaf;
      for (const std::string& l : plain_[ai])
        for (std::size_t bi : requestsOf(l)) {
          if (bi >= holder) break;
          const ActionEntry& b = s_.actions[bi];
          if (related(a.owner, b.owner) || moduleOf(b.owner).releases ||
              letGo(b.owner, l, b.atMs) != kForever)
            continue;
          holder = bi;
          leaf = l;
          break;
        }
      if (holder == ai) continue;
      // Named by the first of `a`'s leaves that this holder keeps.
      const ActionEntry& b = s_.actions[holder];
      for (const std::string& l : plain_[ai])
        if (contains(plain_[holder], l) && letGo(b.owner, l, b.atMs) == kForever) {
          leaf = l;
          break;
        }
      out_.push_back({a.entry, a.owner + " waits with no time limit for " + leaf + ", which " +
                                   b.owner + " takes first (" + b.entry +
                                   ") and never lets go, and whose module " +
                                   s_.findOwner(b.owner)->module +
                                   " ignores \"__onResource__\": the wait never ends (the run "
                                   "stops it at stopAt, " +
                                   std::to_string(s_.stopAtMs) + " ms)"});
    }
  }

  void unusedModules() {
    std::unordered_set<std::string> used;
    for (const OwnerEntry& o : s_.owners) used.insert(o.module);
    for (std::size_t i = 0; i < s_.modules.size(); ++i)
      if (!used.count(s_.modules[i].name))
        out_.push_back({"modules[" + std::to_string(i) + "]",
                        "module " + s_.modules[i].name + " has no owner: nothing of it takes part"});
  }

  /// Until when a request may hold what it takes: its owner's next release of
  /// it, or the end.
  long heldUntil(std::size_t ai) const {
    long until = kForever;
    for (const std::string& leaf : leaves_[ai])
      until = std::min(until, letGo(s_.actions[ai].owner, leaf, s_.actions[ai].atMs));
    return until;
  }

  void oppositeOrders() {
    for (std::size_t i = 0; i < s_.actions.size(); ++i) {
      const ActionEntry& a = s_.actions[i];
      if (a.kind != ActionKind::WaitFor || !isGroup(a.resource)) continue;
      // The later group requests that share a member with `a` and start
      // while it may still hold what it takes.
      long until = heldUntil(i);
      std::vector<std::size_t> later;
      for (const std::string& leaf : plain_[i]) {
        const std::vector<std::size_t>& r = requestsOf(leaf);
        for (auto j = std::upper_bound(r.begin(), r.end(), i);
             j != r.end() && s_.actions[*j].atMs <= until; ++j)
          if (isGroup(s_.actions[*j].resource)) later.push_back(*j);
      }
      std::sort(later.begin(), later.end());
      later.erase(std::unique(later.begin(), later.end()), later.end());
      for (std::size_t j : later) {
        const ActionEntry& b = s_.actions[j];
        if (related(a.owner, b.owner)) continue;
        std::string pair = crossing(plain_[i], plain_[j]);
        if (pair.empty()) continue;
        out_.push_back({b.entry, b.owner + " takes " + pair + " through " + b.resource +
                                     " in the opposite order to " + a.owner + " through " +
                                     a.resource + " (" + a.entry +
                                     "), while it may still run: each can hold one while it "
                                     "waits for the other, a deadlock"});
      }
    }
  }

  /// "x and y" for the first two names that `a` and `b` list in opposite
  /// orders, or empty.
  static std::string crossing(const std::vector<std::string>& a,
                              const std::vector<std::string>& b) {
    for (std::size_t x = 0; x < a.size(); ++x)
      for (std::size_t y = x + 1; y < a.size(); ++y) {
        auto bx = std::find(b.begin(), b.end(), a[x]), by = std::find(b.begin(), b.end(), a[y]);
        if (bx != b.end() && by != b.end() && by < bx) return a[x] + " and " + a[y];
      }
    return "";
  }

  const Scenario& s_;
  std::vector<std::vector<std::string>> leaves_;  // of each action's resource
  std::vector<std::vector<std::string>> plain_;   // and its plain ones, less its no-wait list
  std::unordered_map<std::string, std::vector<std::size_t>> byOwner_;     // in time order
  std::unordered_map<std::string, std::vector<std::size_t>> requestsOf_;  // by leaf, in time order
  // The times of each owner's ("owner\nleaf") releases and stops of a leaf,
  // of each state's switches (on or off) and of its activations.
  std::unordered_map<std::string, std::vector<long>> letGoes_;
  std::unordered_map<std::string, std::vector<std::pair<long, bool>>> switches_;
  std::unordered_map<std::string, std::vector<long>> activations_;
  std::vector<Warning> out_;
};

}  // namespace

std::vector<Warning> lint(const Scenario& scenario) { return Linter(scenario).run(); }

}  // namespace zusim
