#include "scenario/lint.h"

#include <algorithm>
#include <limits>

#include <zuresource/zucontract.h>
#include <zuresource/zuownerstrong.h>

namespace zusim {

namespace {

const long kForever = std::numeric_limits<long>::max();

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

class Linter {
 public:
  explicit Linter(const Scenario& s) : s_(s) {}

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

  bool isGroup(const std::string& resource) const {
    return s_.findResource(resource)->kind == ResourceKind::Group;
  }
  /// The plain resources a request takes in order, less its no-wait list.
  std::vector<std::string> plainLeaves(const ActionEntry& a) const {
    std::vector<std::string> out;
    for (const std::string& leaf : s_.leavesOf(a.resource))
      if (s_.findResource(leaf)->kind == ResourceKind::Plain && !contains(a.noWait, leaf))
        out.push_back(leaf);
    return out;
  }
  /// When `owner` next lets go of `leaf` after `from` (release or the
  /// manager's stop), or kForever.
  long letGo(const std::string& owner, const std::string& leaf, long from) const {
    for (const ActionEntry& a : s_.actions)
      if (a.owner == owner && a.atMs >= from &&
          (a.kind == ActionKind::Release || a.kind == ActionKind::Stop) &&
          contains(s_.leavesOf(a.resource), leaf))
        return a.atMs;
    return kForever;
  }

  /// Something that leaves an owner's release flag set: from `ms` on, after
  /// the action `index` in the scenario's order, and why.
  struct FlagSet {
    long ms;
    std::size_t index;
    std::string why;
  };

  /// Whether state resource `name` is activated at `ms`: its start, then
  /// every switch at or before `ms`.
  bool activeAt(const std::string& name, long ms) const {
    bool on = s_.findResource(name)->activated;
    for (const ActionEntry& a : s_.actions)
      if (a.atMs <= ms && a.resource == name &&
          (a.kind == ActionKind::SetState || a.kind == ActionKind::ReleaseState))
        on = a.kind == ActionKind::SetState && a.activated;
    return on;
  }

  /// The module of `owner`'s answer to "__onResource__": how long it takes
  /// to let go, or kForever when it ignores it.
  long answerMs(const std::string& owner) const {
    const ModuleEntry* m = s_.findModule(s_.findOwner(owner)->module);
    return m->releases ? m->delayMs : kForever;
  }

  /// Whether the group wait `a` (with a time limit) may end at that limit
  /// and give back what it took. A waiter sees a release at most one polling
  /// period late, so a holder that lets go closer to the limit than that
  /// counts as one that does not.
  bool groupWaitMayFail(std::size_t ai) const {
    const ActionEntry& a = s_.actions[ai];
    const long poll = ZU::ZUOwnerStrong::kPollPeriodMs;
    const long limit = a.atMs + 1000L * a.timeout;
    for (const std::string& leaf : s_.leavesOf(a.resource)) {
      if (contains(a.noWait, leaf)) continue;
      if (s_.findResource(leaf)->kind == ResourceKind::State) {
        bool on = activeAt(leaf, a.atMs);
        for (const ActionEntry& b : s_.actions)
          on = on || (b.kind == ActionKind::SetState && b.activated && b.resource == leaf &&
                      b.atMs >= a.atMs && b.atMs + poll < limit);
        if (!on) return true;
        continue;
      }
      for (std::size_t bi = 0; bi < s_.actions.size(); ++bi) {
        const ActionEntry& b = s_.actions[bi];
        if (bi == ai || b.kind != ActionKind::WaitFor || related(a.owner, b.owner) ||
            b.atMs > limit || !contains(plainLeaves(b), leaf))
          continue;
        long gone = letGo(b.owner, leaf, b.atMs);
        if (gone <= a.atMs) continue;  // let go before the wait began
        long told = std::max(a.atMs, b.atMs);
        long answer = answerMs(b.owner);
        long letsGo = std::min(gone, answer == kForever ? kForever : told + answer);
        if (letsGo == kForever || letsGo + poll >= limit) return true;
      }
    }
    return false;
  }

  /// Everything that leaves `owner`'s release flag set: its releases, the
  /// manager's stops, its group waits that may fail, and its module letting
  /// go when told "__onResource__" (for another owner's request, or a
  /// deactivation) of something the owner may still hold.
  std::vector<FlagSet> flagSetters(const OwnerEntry& o) const {
    std::vector<FlagSet> out;
    const ModuleEntry* module = s_.findModule(o.module);
    for (std::size_t ai = 0; ai < s_.actions.size(); ++ai) {
      const ActionEntry& a = s_.actions[ai];
      if (a.owner != o.name) continue;
      if (a.kind == ActionKind::Release)
        out.push_back({a.atMs, ai, "its release of " + a.resource + " (" + a.entry + ")"});
      if (a.kind == ActionKind::Stop)
        out.push_back(
            {a.atMs, ai, "the manager's stop on " + a.resource + " (" + a.entry + ")"});
      if (a.kind != ActionKind::WaitFor) continue;
      if (a.timeout >= 0 && isGroup(a.resource) && groupWaitMayFail(ai))
        out.push_back({a.atMs, ai,
                       "its wait for the group " + a.resource + " (" + a.entry +
                           "), which gives back what it took if it times out"});
      if (!module->releases) continue;
      // Who may be told to let go of what this request took, while it still
      // holds it: another owner's request, or a deactivation.
      for (std::size_t bi = ai + 1; bi < s_.actions.size(); ++bi) {
        const ActionEntry& b = s_.actions[bi];
        bool deactivation = (b.kind == ActionKind::SetState && !b.activated) ||
                            b.kind == ActionKind::ReleaseState;
        bool request = b.kind == ActionKind::WaitFor && !related(o.name, b.owner);
        if (!deactivation && !request) continue;
        std::vector<std::string> wanted =
            deactivation ? std::vector<std::string>{b.resource} : plainLeaves(b);
        for (const std::string& leaf : s_.leavesOf(a.resource)) {
          if (contains(a.noWait, leaf) || !contains(wanted, leaf) ||
              letGo(o.name, leaf, a.atMs) <= b.atMs)
            continue;
          out.push_back({b.atMs, bi,
                         "its module " + module->name + " let go of " + leaf +
                             " when told \"__onResource__\" for " +
                             (deactivation ? "the deactivation of " + leaf
                                           : b.owner + "'s request") +
                             " (" + b.entry + ")"});
          break;
        }
      }
    }
    return out;
  }

  void requestsAfterRelease() {
    for (const OwnerEntry& o : s_.owners) {
      std::vector<FlagSet> setters = flagSetters(o);
      for (std::size_t ci = 0; ci < s_.actions.size(); ++ci) {
        const ActionEntry& c = s_.actions[ci];
        if (c.owner != o.name || c.kind != ActionKind::WaitFor) continue;
        // The earliest that comes before this request.
        const FlagSet* first = nullptr;
        for (const FlagSet& f : setters)
          if ((f.ms < c.atMs || (f.ms == c.atMs && f.index < ci)) && (!first || f.ms < first->ms))
            first = &f;
        if (!first) continue;
        out_.push_back({c.entry, o.name + " requests " + c.resource + " after " + first->why +
                                     ": that leaves its release flag set, so if this request "
                                     "has to wait it fails with \"" +
                                     ZU::contract::kStopWhileWaiting + "\""});
        break;
      }
    }
  }

  void endlessWaits() {
    for (const ActionEntry& a : s_.actions) {
      if (a.kind != ActionKind::WaitFor || a.timeout >= 0) continue;
      bool stopped = std::any_of(s_.actions.begin(), s_.actions.end(), [&](const ActionEntry& b) {
        return b.kind == ActionKind::Stop && b.owner == a.owner && b.atMs >= a.atMs;
      });
      if (stopped) continue;
      std::vector<std::string> wanted = plainLeaves(a);
      // Actions are in time order: those before `a` start first.
      for (const ActionEntry& b : s_.actions) {
        if (&b == &a) break;
        if (b.kind != ActionKind::WaitFor || related(a.owner, b.owner) ||
            s_.findModule(s_.findOwner(b.owner)->module)->releases)
          continue;
        auto leaf = std::find_if(wanted.begin(), wanted.end(), [&](const std::string& l) {
          return contains(plainLeaves(b), l) && letGo(b.owner, l, b.atMs) == kForever;
        });
        if (leaf == wanted.end()) continue;
        out_.push_back({a.entry, a.owner + " waits with no time limit for " + *leaf + ", which " +
                                     b.owner + " takes first (" + b.entry +
                                     ") and never lets go, and whose module " +
                                     s_.findOwner(b.owner)->module +
                                     " ignores \"__onResource__\": the wait never ends (the run "
                                     "stops it at stopAt, " +
                                     std::to_string(s_.stopAtMs) + " ms)"});
        break;
      }
    }
  }

  void unusedModules() {
    for (std::size_t i = 0; i < s_.modules.size(); ++i) {
      const std::string& name = s_.modules[i].name;
      if (std::none_of(s_.owners.begin(), s_.owners.end(),
                       [&](const OwnerEntry& o) { return o.module == name; }))
        out_.push_back({"modules[" + std::to_string(i) + "]",
                        "module " + name + " has no owner: nothing of it takes part"});
    }
  }

  /// Until when a request may hold what it takes: its owner's next release of
  /// it, or the end.
  long heldUntil(const ActionEntry& a) const {
    long until = kForever;
    for (const std::string& leaf : s_.leavesOf(a.resource))
      until = std::min(until, letGo(a.owner, leaf, a.atMs));
    return until;
  }

  void oppositeOrders() {
    for (std::size_t i = 0; i < s_.actions.size(); ++i) {
      const ActionEntry& a = s_.actions[i];
      if (a.kind != ActionKind::WaitFor || !isGroup(a.resource)) continue;
      std::vector<std::string> first = plainLeaves(a);
      for (std::size_t j = i + 1; j < s_.actions.size(); ++j) {
        const ActionEntry& b = s_.actions[j];
        if (b.kind != ActionKind::WaitFor || !isGroup(b.resource) || related(a.owner, b.owner) ||
            heldUntil(a) < b.atMs)
          continue;
        std::vector<std::string> second = plainLeaves(b);
        std::string pair = crossing(first, second);
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
  std::vector<Warning> out_;
};

}  // namespace

std::vector<Warning> lint(const Scenario& scenario) { return Linter(scenario).run(); }

}  // namespace zusim
