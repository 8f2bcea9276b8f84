#include "run/sentences.h"

namespace zusim {
namespace sentence {

namespace {

std::string ms(long value) { return std::to_string(value) + " ms"; }

}  // namespace

std::string join(const std::vector<std::string>& names) {
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i) out += (i ? ", " : "") + names[i];
  return out;
}

std::string interrupted() { return "interrupted: the scenario stops now"; }

std::string stoppedAt(long atMs) { return "the scenario stopped at " + ms(atMs); }

std::string dropped(const std::string& entry, const std::string& owner, long atMs,
                    const std::string& why) {
  return entry + " of " + owner + " (at " + ms(atMs) + ") is dropped: " + why;
}

std::string robotWasKilled(const std::string& robot) {
  return "its robot " + robot + " was killed";
}

std::string managerActionDropped(const std::string& entry, long atMs, long stopAtMs) {
  return entry + " (at " + ms(atMs) + ") is dropped: " + stoppedAt(stopAtMs);
}

std::string managerStops(const std::string& owner, const std::string& resource) {
  return "the manager stops " + owner + " on " + resource;
}

std::string stopsStillWaiting(const std::string& owner, const std::string& pending) {
  return "the scenario stops: the manager stops " + owner + ", still waiting for " + pending;
}

std::string requests(const std::string& who, const std::string& resource, int timeoutSeconds,
                     const std::vector<std::string>& noWait) {
  std::string limit = timeoutSeconds < 0 ? "no time limit"
                                         : "time limit " + std::to_string(timeoutSeconds) + " s";
  if (!noWait.empty()) limit += ", no wait for " + join(noWait);
  return who + " requests " + resource + " (" + limit + ")";
}

std::string handedDown(const std::string& leaf, const std::string& from, const std::string& to) {
  return leaf + " is handed down from " + from + " to " + to;
}

std::string granted(const std::string& who, const std::string& resource) {
  return who + " is granted " + resource;
}

std::string givesUpOn(const std::string& who, const std::vector<std::string>& notObtained,
                      const std::vector<std::string>& heldNow) {
  return who + " gives up on " + join(notObtained) + " (busy, on its no-wait list)" +
         (heldNow.empty() ? "" : "; it holds " + join(heldNow));
}

std::string waitFails(const std::string& who, const std::string& resource,
                      const std::string& error, const std::string& why) {
  return who + "'s wait for " + resource + " fails: \"" + error + "\"" + why;
}

std::string ownReleaseLeftFlag(long releaseMs) {
  return " (own release at " + ms(releaseMs) + " left the release flag set)";
}

std::string killedRobot() { return " (its robot was killed)"; }

std::string givesBack(const std::string& who, const std::string& leaf,
                      const std::string& resource) {
  return who + " gives back " + leaf + ": its wait for " + resource + " failed";
}

std::string stoppedByManager() { return " (stopped by the manager)"; }

std::string afterOnResource() { return " after \"__onResource__\""; }

std::string handedBack(const std::string& leaf, const std::string& from, const std::string& to,
                       const std::string& why) {
  return leaf + " is handed back from " + from + " to " + to + why;
}

std::string releases(const std::string& who, const std::string& name,
                     const std::vector<std::string>& released, const std::string& why) {
  return who + " releases " +
         (released.size() == 1 && released[0] == name ? name
                                                      : name + " (" + join(released) + ")") +
         why;
}

std::string givesUpNotHeld(const std::string& who, const std::string& name,
                           const std::string& why) {
  return who + " gives up " + name + ", which it does not hold" + why;
}

std::string switched(const std::string& resource, const std::string& to, const std::string& was) {
  return resource + " is switched over to " + to + (was.empty() ? "" : " (was " + was + ")");
}

std::string activated(const std::string& resource) { return resource + " is activated"; }

std::string deactivated(const std::string& resource) {
  return resource + " is deactivated; its holders are told";
}

std::string deactivatedByReleaseState(const std::string& resource) {
  return resource + " is deactivated by releaseState; its holders are told";
}

std::string releaseStateEnds(const std::string& resource, const std::string& error) {
  return "releaseState on " + resource + " ends with \"" + error + "\"";
}

std::string deactivationStopped(const std::string& resource, const std::string& last,
                                const std::vector<std::string>& untold) {
  return "the deactivation of " + resource + " stopped at " + last +
         ", which had not let go within one polling period; " + join(untold) +
         (untold.size() == 1 ? " was" : " were") + " not told and still hold" +
         (untold.size() == 1 ? "s " : " ") + resource;
}

std::string told(const std::string& module, const std::string& resource, bool releases,
                 long delayMs) {
  return module + " is told \"__onResource__\" for " + resource +
         (releases ? " and lets go in " + ms(delayMs) : " and ignores it");
}

std::string moduleReleaseDropped(const std::string& module, const std::string& resource,
                                 const std::string& why) {
  return module + "'s release of " + resource + " is dropped: " + why;
}

std::string kills(const std::string& robot) {
  return "the manager kills " + robot +
         ": its lease is no longer renewed, its owners' waits and later actions are dropped";
}

std::string cutOff(const std::string& robot, long untilMs) {
  return robot + " is cut off from etcd until " + ms(untilMs);
}

std::string reconnects(const std::string& robot) { return robot + " reaches etcd again"; }

std::string etcdDown(long untilMs) { return "etcd is killed; it starts again at " + ms(untilMs); }

std::string etcdUp() { return "etcd serves again"; }

std::string requestCall(const std::string& who, const std::string& resource) {
  return who + "'s request of " + resource;
}

std::string releaseCall(const std::string& who, const std::string& resource) {
  return who + "'s release of " + resource;
}

std::string switchCall(const std::string& who, const std::string& resource) {
  return who + "'s switchOwner of " + resource;
}

std::string callWaits(const std::string& call, const std::string& owner) {
  return call + " waits for " + owner +
         "'s running call: the simulator keeps one owner's calls apart, since a hand-down "
         "records the giver where a release reads it";
}

std::string asksFleet(const std::string& owner, const std::string& resource) {
  return owner + " asks the fleet for " + resource;
}

std::string loses(const std::string& owner, const std::string& resource,
                  const std::string& reason) {
  return owner + " loses " + resource + ": " + reason;
}

std::string deactivationWaits(const std::string& resource, const std::string& holder) {
  return "the deactivation of " + resource + " waits for " + holder + " to let go";
}

std::string waitsBehindRobot(const std::string& owner, const std::string& resource,
                             const std::string& robot) {
  return owner + " waits for " + resource + " behind robot " + robot + " in the fleet's queue";
}

std::string waitsToBeActivated(const std::string& owner, const std::string& resource) {
  return owner + " waits for " + resource + " to be activated";
}

std::string waitsHeldBy(const std::string& owner, const std::string& resource,
                        const std::string& holder) {
  return owner + " waits for " + resource + ", held by " + holder;
}

std::string takesMember(const std::string& owner, const std::string& resource,
                        const std::string& group) {
  return owner + " takes " + resource + ", a member of " + group;
}

}  // namespace sentence
}  // namespace zusim
