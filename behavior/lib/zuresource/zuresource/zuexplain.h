#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zuvalue.h>

#include <zuresource/zuowner.h>
#include <zuresource/zuresource.h>

namespace ZU {

/// The answer to "what would waitFor(owner, …, noWaitList) do on this
/// resource right now?", read from the resource and its holder by the rules
/// the resources apply. It is a picture of one moment: by the time it is
/// read, the holder may have changed.
///
/// Thread safety: a plain value; concurrent reads are safe.
struct ZUExplanation {
  enum class Answer {
    Takes,             ///< plain, free: the owner would take it
    AlreadyHeld,       ///< plain, held by an owner of the owner's name: returns at once
    HandedDown,        ///< the holder (a state: its own owner) is an ancestor of the owner
    Waits,             ///< plain, held by another strong owner: waits behind it
    GivesUp,           ///< busy and named in the no-wait list: returns its name at once
    Retries,           ///< plain, held by a weak owner that is no placeholder:
                       ///< retries without pause until the holder changes
    HolderDecides,     ///< plain, held by an owner of another class: its conflict() decides
    ResourceDecides,   ///< a resource of another class: its own waitFor decides
    Granted,           ///< state, activated: granted at once
    AwaitsActivation,  ///< state, not activated: waits for activation
    Group,             ///< group: see `members` and `firstWait`
    Aborts             ///< group with an abort requested: the owner is given back
                       ///< from every member and gets an empty list
  };

  std::string resource;
  Answer answer = Answer::Takes;
  /// The owner asked about.
  std::string owner;
  /// The holder asked for the resource: the current holder of a plain
  /// resource, the state's own owner while a state is not activated. Empty
  /// for a group and for Granted, GivesUp and ResourceDecides.
  std::string holder;
  std::string holderModule;
  /// Waits, AwaitsActivation: the modules already waiting on the holder,
  /// oldest first.
  std::vector<std::string> waiters;
  /// Waits: the holder's module would be told "__onResource__" (the holder
  /// has a broker; a module unknown to it makes the wait fail at once with
  /// the broker's error).
  bool notifies = false;
  /// Waits, AwaitsActivation: the owner's own release flag is already set, so
  /// the wait ends with "box stop while waiting" after one polling period
  /// unless the holder lets go before that.
  bool ownerStopped = false;
  /// Granted: how many holders the state has now (an owner granted twice
  /// counts twice).
  std::size_t holders = 0;
  /// Group: each member's answer, in list order. Each is taken as the member
  /// stands now, not as it would stand once the members before it are taken.
  std::vector<ZUExplanation> members;
  /// Group: the index in `members` of the first member at which the owner
  /// would wait, or -1.
  int firstWait = -1;

  /// Whether waitFor would wait here: Waits, AwaitsActivation, Retries, or a
  /// group with a member at which it would wait.
  bool wouldWait() const;
  /// One line, e.g. "Arm: held by b (module B): a would wait behind it,
  /// after [\"C\"]; B is told \"__onResource__\"".
  std::string toString() const;
  /// [["resource",…],["answer","waits"],["owner",…], …] with the fields that
  /// belong to the answer; counts as decimal text, flags as "true"/"false",
  /// `waiters` as an array, `firstWait` as its index ("-1" for none),
  /// `members` as an array of member values.
  ZUValue toValue() const;

  // A tree of any depth is built, read and destroyed without recursion.
  ZUExplanation() = default;
  ZUExplanation(const ZUExplanation&) = default;
  ZUExplanation(ZUExplanation&&) = default;
  ZUExplanation& operator=(const ZUExplanation&) = default;
  ZUExplanation& operator=(ZUExplanation&&) = default;
  ~ZUExplanation();
};

/// The name of `answer` as toValue writes it ("takes", "alreadyHeld", …).
const char* answerName(ZUExplanation::Answer answer);

/// What waitFor(owner, …, noWaitList) on `resource` would do now, with no
/// side effect: nothing waits, nobody is told, no flag or list changes.
/// Plain resources, state resources and groups (ZUResource, ZUResourceState,
/// ZUResourceList, exactly) are explained by their rules; a resource of any
/// other class gives ResourceDecides. Never waits for a wait in progress.
/// Throws ZUError for an empty `resource` or `owner`.
/// Takes the locks of the status reports, one at a time: a group's
/// resourceListMutex (read) while copying its members; a plain resource's
/// currentOwnerMutex (read) while copying the holder; a state resource's
/// holdersMutex while counting holders; the holder's waitersMutex (read)
/// while copying its waiters. Never waitMutex.
ZUExplanation explain(const boost::shared_ptr<ZUResource>& resource,
                      const boost::shared_ptr<ZUOwner>& owner,
                      const std::vector<std::string>& noWaitList = std::vector<std::string>());

}  // namespace ZU
