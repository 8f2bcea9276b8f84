#include "scenario/lint.h"

#include <algorithm>
#include <limits>

#include <zuresource/zucontract.h>

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

  void requestsAfterRelease() {
    for (const OwnerEntry& o : s_.owners) {
      std::string why;
      for (const ActionEntry& a : s_.actions) {
        if (a.owner != o.name) continue;
        if (a.kind == ActionKind::WaitFor && !why.empty()) {
          out_.push_back({a.entry, o.name + " requests " + a.resource + " after " + why +
                                       ": that leaves its release flag set, so if this request "
                                       "has to wait it fails with \"" +
                                       ZU::contract::kStopWhileWaiting + "\""});
          break;
        }
        if (a.kind == ActionKind::Release)
          why = "its release of " + a.resource + " (" + a.entry + ")";
        if (a.kind == ActionKind::Stop)
          why = "the manager's stop on " + a.resource + " (" + a.entry + ")";
        if (a.kind == ActionKind::WaitFor && a.timeout >= 0 && isGroup(a.resource))
          why = "its wait for the group " + a.resource + " (" + a.entry +
                "), which gives back what it took if it times out";
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
