#pragma once

// A program run as a child process, for tests that need a second process
// (a robot that is killed, frozen or cut off).

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zutest {

/// A child process whose standard output a thread of its own reads line by
/// line. The destructor kills (SIGKILL) and reaps it.
///
/// Thread safety: thread safe; the lines are guarded by one mutex.
class ChildProcess {
 public:
  /// Starts `argv` (argv[0] is the program's path). Throws std::runtime_error
  /// when it cannot.
  explicit ChildProcess(const std::vector<std::string>& argv);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Sends `signal` to the child (no-op once it was reaped).
  void signal(int signal);
  /// The first line that starts with `prefix`, waiting up to `ms` for it.
  std::optional<std::string> awaitLine(const std::string& prefix, int ms);
  /// Every line so far.
  std::vector<std::string> lines();

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::string> lines_;  // guarded by mutex_
};

}  // namespace zutest
