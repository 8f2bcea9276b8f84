#pragma once

#include <string>

namespace ZU {

/// Texts and numbers that callers, status pages and log readers match byte for
/// byte. They are part of the library's interface: changing one breaks every
/// caller that compares against it, so each is written here once and used
/// everywhere else by name.
namespace contract {

/// The name of every resource's placeholder owner, and so of a free resource's
/// holder (also its module name).
inline constexpr char kPlaceholderName[] = "emptyOwner";

/// The module and method of the two errors that end a conflict wait.
inline constexpr char kWaitErrorModule[] = "ResourceManager";
inline constexpr char kWaitErrorMethod[] = "waitResource";
/// The error of a wait whose requester was released (stopped) while it waited.
inline constexpr char kStopWhileWaiting[] = "box stop while waiting";
/// The start of the error of a wait that ran past its time limit; the
/// resource's name follows (see waitTimedOut()).
inline constexpr char kWaitTimedOutPrefix[] = "resource wait has timeouted on ";
/// The whole timeout error text for `resourceName`.
inline std::string waitTimedOut(const std::string& resourceName) {
  return kWaitTimedOutPrefix + resourceName;
}

/// The log category of the library's records.
inline constexpr char kLogCategory[] = "behavior.zuressource";

/// The line numbers that the refusals of a plain resource's addResource and
/// deleteResource, and a group's deleteResource of a name it does not hold,
/// report, whatever line of the source throws them.
inline constexpr int kAddResourceErrorLine = 57;
inline constexpr int kDeleteResourceErrorLine = 63;
inline constexpr int kGroupDeleteResourceErrorLine = 156;

}  // namespace contract
}  // namespace ZU
