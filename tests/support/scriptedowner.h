#pragma once

#include <atomic>
#include <functional>
#include <string>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>

#include <zuresource/zuowner.h>

namespace zutest {

/// A test owner whose conflict() answers from a script and counts its calls.
/// Thread safe: the counters are atomic, the script immutable (and must itself
/// be thread safe when several threads contest the owner).
class ScriptedOwner final : public ZU::ZUOwner {
 public:
  /// conflict()'s answer for a resource name and a requester; may throw.
  using Script = std::function<bool(const std::string&, const boost::shared_ptr<ZU::ZUOwner>&)>;

  static Script decline() {
    return [](auto&, auto&) { return false; };
  }
  static Script yield() {
    return [](auto&, auto&) { return true; };
  }
  /// Throws ZUError ("ScriptedOwner", "conflict", "scripted failure").
  static Script fail() {
    return [](auto&, auto&) -> bool {
      throw ZU::ZUError("ScriptedOwner", "conflict", "scripted failure", "tests/support", 0);
    };
  }

  /// ownerType "eScripted", mutexes of its own, `waiters` left invalid.
  static boost::shared_ptr<ScriptedOwner> create(const std::string& name,
                                                 const std::string& moduleName,
                                                 Script script = decline()) {
    return boost::make_shared<ScriptedOwner>(name, moduleName, std::move(script));
  }

  ScriptedOwner(const std::string& name, const std::string& moduleName, Script script)
      : script_(std::move(script)) {
    this->name = name;
    this->moduleName = moduleName;
    ownerType = "eScripted";
    ownerMutex = ZU::ZUMutex::createZUMutex();
    conflictMutex = ZU::ZUMutexRW::createZUMutexRW();
    waitersMutex = ZU::ZUMutexRW::createZUMutexRW();
  }
  /// Waits for running conflict() calls to return. Takes: conflictMutex (write).
  ~ScriptedOwner() { ZU::ZUCriticalSectionWrite waitForConflicts(conflictMutex); }

  /// Counts the call, then runs the script. Takes: conflictMutex (read).
  bool conflict(const std::string& resourceName, boost::shared_ptr<ZU::ZUOwner> requester,
                int /*timeout*/) override {
    ZU::ZUCriticalSectionRead running(conflictMutex);
    ++conflicts_;
    return script_(resourceName, requester);
  }

  /// Sets the release flag. No lock.
  void freeResource() override { resourceFreed = true; }

  int conflicts() const { return conflicts_.load(); }

 private:
  const Script script_;            // immutable
  std::atomic<int> conflicts_{0};  // atomic
};

}  // namespace zutest
