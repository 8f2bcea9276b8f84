#pragma once

// The event log's sentences, each worded once: the run says what happened
// through these, and the tests and users that read the log rely on their
// words. A new kind of line gets its function here.

#include <string>
#include <vector>

namespace zusim {
namespace sentence {

/// "a, b, c".
std::string join(const std::vector<std::string>& names);

// The run's course.
std::string interrupted();
std::string stoppedAt(long ms);
/// An owner's action not run: "actions[3] of a (at 500 ms) is dropped: <why>".
std::string dropped(const std::string& entry, const std::string& owner, long atMs,
                    const std::string& why);
std::string robotWasKilled(const std::string& robot);
/// A manager's action not run, after stopAt.
std::string managerActionDropped(const std::string& entry, long atMs, long stopAtMs);
std::string managerStops(const std::string& owner, const std::string& resource);
std::string stopsStillWaiting(const std::string& owner, const std::string& pending);

// Requests and their outcomes.
std::string requests(const std::string& who, const std::string& resource, int timeoutSeconds,
                     const std::vector<std::string>& noWait);
std::string handedDown(const std::string& leaf, const std::string& from, const std::string& to);
std::string granted(const std::string& who, const std::string& resource);
std::string givesUpOn(const std::string& who, const std::vector<std::string>& notObtained,
                      const std::vector<std::string>& heldNow);
/// `why` is empty, ownReleaseLeftFlag() or killedRobot().
std::string waitFails(const std::string& who, const std::string& resource,
                      const std::string& error, const std::string& why);
std::string ownReleaseLeftFlag(long releaseMs);
std::string killedRobot();
std::string givesBack(const std::string& who, const std::string& leaf, const std::string& resource);

// Releases; `why` is empty, stoppedByManager() or afterOnResource().
std::string stoppedByManager();
std::string afterOnResource();
std::string handedBack(const std::string& leaf, const std::string& from, const std::string& to,
                       const std::string& why);
std::string releases(const std::string& who, const std::string& name,
                     const std::vector<std::string>& released, const std::string& why);
std::string givesUpNotHeld(const std::string& who, const std::string& name,
                           const std::string& why);
std::string switched(const std::string& resource, const std::string& to, const std::string& was);

// State resources.
std::string activated(const std::string& resource);
std::string deactivated(const std::string& resource);
std::string deactivatedByReleaseState(const std::string& resource);
std::string releaseStateEnds(const std::string& resource, const std::string& error);
std::string deactivationStopped(const std::string& resource, const std::string& last,
                                const std::vector<std::string>& untold);

// Modules.
std::string told(const std::string& module, const std::string& resource, bool releases,
                 long delayMs);
std::string moduleReleaseDropped(const std::string& module, const std::string& resource,
                                 const std::string& why);

// Robots and etcd.
std::string kills(const std::string& robot);
std::string cutOff(const std::string& robot, long untilMs);
std::string reconnects(const std::string& robot);
std::string etcdDown(long untilMs);
std::string etcdUp();

// One owner's calls kept apart: `call` is one of the three below.
std::string requestCall(const std::string& who, const std::string& resource);
std::string releaseCall(const std::string& who, const std::string& resource);
std::string switchCall(const std::string& who, const std::string& resource);
std::string callWaits(const std::string& call, const std::string& owner);

// What the library reports.
std::string asksFleet(const std::string& owner, const std::string& resource);
std::string loses(const std::string& owner, const std::string& resource,
                  const std::string& reason);
std::string deactivationWaits(const std::string& resource, const std::string& holder);
std::string waitsBehindRobot(const std::string& owner, const std::string& resource,
                             const std::string& robot);
std::string waitsToBeActivated(const std::string& owner, const std::string& resource);
std::string waitsHeldBy(const std::string& owner, const std::string& resource,
                        const std::string& holder);
std::string takesMember(const std::string& owner, const std::string& resource,
                        const std::string& group);

}  // namespace sentence
}  // namespace zusim
