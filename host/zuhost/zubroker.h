#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>

namespace ZU {

/// The name a method's parameter type has in proxy errors.
template <typename T>
struct ZUTypeName;
template <>
struct ZUTypeName<std::string> {
  static const char* name() { return "string"; }
};
template <>
struct ZUTypeName<int> {
  static const char* name() { return "int"; }
};
template <>
struct ZUTypeName<float> {
  static const char* name() { return "float"; }
};
template <>
struct ZUTypeName<bool> {
  static const char* name() { return "bool"; }
};

/// An in-process module: a name, methods of one typed parameter, and one
/// task thread that runs the started methods in order, one at a time.
///
/// Thread safety: all operations are thread safe. Methods run in the module's
/// task thread with no lock of the module held, so they may call back into
/// the module, a broker or the resource library.
class ZUModule {
 public:
  explicit ZUModule(const std::string& name);
  /// Stops the task thread: tasks still queued are dropped, a task that is
  /// running is waited for (a method that never returns keeps this waiting).
  /// When the last handle goes inside the module's own task, the thread is
  /// detached and ends after that task instead.
  ~ZUModule();
  ZUModule(const ZUModule&) = delete;
  ZUModule& operator=(const ZUModule&) = delete;

  const std::string& getName() const { return name_; }

  /// Offers `method` with one parameter of type Arg (std::string, int, float
  /// or bool). Binding a name again replaces the earlier method.
  template <typename Arg>
  void bindMethod(const std::string& method, std::function<void(const Arg&)> fn) {
    bind(method, ZUTypeName<Arg>::name(),
         [fn](const void* arg) { fn(*static_cast<const Arg*>(arg)); });
  }

  /// Starts `method` with `arg` as a task and returns its id (1, 2, ...) at
  /// once. Throws ZUError ("ZUProxy", "call/pCall") when the module has no such
  /// method, or when its parameter is not of type Arg; nothing is queued then.
  template <typename Arg>
  int post(const std::string& method, const Arg& arg) {
    Callable fn = lookup(method, 1, ZUTypeName<Arg>::name());
    return enqueue([fn, arg]() { fn(&arg); });
  }

  /// Blocks until no task is queued or running. For tests and tools.
  void waitIdle();
  /// Like waitIdle(), for at most `timeout`; returns whether the module was
  /// idle (or stopping) then.
  bool waitIdleFor(std::chrono::milliseconds timeout);

  /// Number of tasks started so far.
  int startedTasks() const;

 private:
  using Callable = std::function<void(const void*)>;
  struct Method {
    std::string paramType;
    Callable call;
  };

  void bind(const std::string& method, const char* paramType, Callable call);
  Callable lookup(const std::string& method, int paramNumber, const char* argType) const;
  int enqueue(std::function<void()> task);

  // The task queue lives apart from the module and is shared with the task
  // thread, so that the thread never touches a module that went away inside
  // one of its own tasks.
  struct Tasks {
    ZUMutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> queue ZU_GUARDED_BY(mutex);
    bool running ZU_GUARDED_BY(mutex) = false;  // a task is executing
    bool stopping ZU_GUARDED_BY(mutex) = false;
    int nextTaskId ZU_GUARDED_BY(mutex) = 1;
  };
  static void run(const std::shared_ptr<Tasks>& tasks);

  // Immutable after construction.
  const std::string name_;
  const std::shared_ptr<Tasks> tasks_;

  mutable ZUMutex mutex_;
  std::map<std::string, Method> methods_ ZU_GUARDED_BY(mutex_);
  std::thread worker_ ZU_GUARDED_BY(mutex_);  // started with the first task
};

/// A handle on a module through which its methods are started. Holds the
/// module weakly: once the module is gone, calls fail with ZUError.
///
/// Thread safety: thread safe (it only reads its immutable fields).
class ZUProxy {
 public:
  explicit ZUProxy(const boost::shared_ptr<ZUModule>& module);

  /// Starts `method` of the module with `argument` in the module's task thread
  /// and returns the task id without waiting. Throws ZUError ("ZUProxy",
  /// "call/pCall") when the module is gone, has no such method, or the
  /// method's parameter has another type.
  template <typename Arg>
  int pCall(const std::string& method, const Arg& argument) {
    return module(method)->template post<Arg>(method, argument);
  }

  const std::string& getModuleName() const { return moduleName_; }

 private:
  boost::shared_ptr<ZUModule> module(const std::string& method) const;

  // Immutable after construction.
  const boost::weak_ptr<ZUModule> module_;
  const std::string moduleName_;
};

/// An in-process broker: the registry of modules by name.
///
/// Thread safety: all operations are thread safe. Destroying the broker drops
/// its handles on the modules; a module that nobody else holds stops then.
class ZUBroker {
 public:
  ZUBroker() = default;
  ZUBroker(const ZUBroker&) = delete;
  ZUBroker& operator=(const ZUBroker&) = delete;

  /// Registers `module` under its name, replacing a module of the same name.
  /// Throws ZUError on an empty handle.
  void addModule(const boost::shared_ptr<ZUModule>& module);
  /// Unregisters the module of that name; does nothing when there is none.
  void removeModule(const std::string& name);
  /// The registered module of that name, or an empty handle.
  boost::shared_ptr<ZUModule> getModule(const std::string& name) const;

  /// A proxy to the module named `name`. `option` is accepted and ignored.
  /// Throws ZUError ("ZUBroker", "getProxy") when no module has that name.
  boost::shared_ptr<ZUProxy> getProxy(const std::string& name, int option);

 private:
  mutable ZUMutex mutex_;
  std::map<std::string, boost::shared_ptr<ZUModule>> modules_ ZU_GUARDED_BY(mutex_);
};

}  // namespace ZU
