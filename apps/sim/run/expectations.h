#pragma once

#include <string>
#include <vector>

#include "scenario/scenario.h"
#include "run/span.h"

namespace zusim {

/// How one request of an owner ended.
struct Outcome {
  std::string resource;
  OutcomeKind kind = OutcomeKind::Granted;
  std::vector<std::string> notObtained;
  std::string error;  // the ZUError's description, when it failed
  long ms = 0;
};

/// A deadlock or a stale wait, as the run reported it.
struct Finding {
  long ms = 0;                         // when it was reported
  std::vector<std::string> owners;     // the owners involved, sorted, each once
  std::vector<std::string> resources;  // the resources waited for
  std::string text;                    // the event log's line
};

/// What an expectation may ask of the running scenario.
class World {
 public:
  virtual ~World() = default;
  /// The name of a plain resource's holder ("emptyOwner" when free).
  virtual std::string holderOf(const std::string& resource) = 0;
  /// The names of a state resource's holders, in the order they were granted.
  virtual std::vector<std::string> holdersOf(const std::string& resource) = 0;
  virtual bool isActivated(const std::string& resource) = 0;
  /// The requests of `owner` that have ended so far, oldest first.
  virtual std::vector<Outcome> outcomesOf(const std::string& owner) = 0;
  /// The resource names `module` was told "__onResource__" for, in order.
  virtual std::vector<std::string> notifiedOf(const std::string& module) = 0;
  /// The deadlocks reported so far, oldest first.
  virtual std::vector<Finding> deadlocks() = 0;
  /// The stale waits reported so far, oldest first.
  virtual std::vector<Finding> staleWaits() = 0;
  /// The waits and the holdings so far, oldest first; those still running
  /// have a negative `toMs`.
  virtual std::vector<Span> waits() = 0;
  virtual std::vector<Span> holdings() = 0;
  /// The run's time now, in ms.
  virtual long nowMs() = 0;
};

struct ExpectResult {
  std::string entry;
  bool held = false;
  std::string text;  // what was expected and, when it failed, what was found
};

/// Checks one expectation against `world` as it is now.
ExpectResult check(const ExpectEntry& expect, World& world);

}  // namespace zusim
