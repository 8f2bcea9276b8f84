#pragma once

#include <atomic>
#include <functional>
#include <string>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuowner.h>

namespace zutest {

/// A test owner whose conflict() answers from a script and which counts the
/// calls it receives, so that a test can see whether and how often a resource
/// asked its holder. Thread safe: the counters are atomic and the script is
/// immutable after construction; the script itself must be thread safe when
/// several threads contest the owner.
class ScriptedOwner final : public ZU::ZUOwner {
 public:
  /// What conflict() does: gets the resource name and the requester, returns
  /// conflict()'s answer or throws.
  using Script = std::function<bool(const std::string& resourceName,
                                    const boost::shared_ptr<ZU::ZUOwner>& requester)>;

  /// Always declines (a holder that keeps its resource).
  static Script decline();
  /// Always yields (a holder that hands its resource down).
  static Script yield();
  /// Always throws ZUError ("ScriptedOwner", "conflict", "scripted failure").
  static Script fail();

  /// A new owner with ownerType "eScripted", its own ownerMutex,
  /// conflictMutex and waitersMutex, and `waiters` left invalid.
  static boost::shared_ptr<ScriptedOwner> create(const std::string& name,
                                                 const std::string& moduleName,
                                                 Script script = decline());

  ScriptedOwner(const std::string& name, const std::string& moduleName, Script script);
  /// Waits for every running conflict() to return, like the library's owners.
  /// Takes: conflictMutex (write).
  ~ScriptedOwner();

  /// Counts the call, then runs the script. Takes: conflictMutex (read).
  bool conflict(const std::string& resourceName, boost::shared_ptr<ZU::ZUOwner> requester,
                int timeout) override;
  /// Counts the call and sets the release flag. No lock.
  void freeResource() override;

  int conflicts() const { return conflicts_.load(); }
  int frees() const { return frees_.load(); }

 private:
  const Script script_;            // immutable
  std::atomic<int> conflicts_{0};  // atomic
  std::atomic<int> frees_{0};      // atomic
};

}  // namespace zutest
