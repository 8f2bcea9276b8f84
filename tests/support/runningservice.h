#pragma once

// A real zuresourced for a test: its own socket in a fresh folder, started
// and waited for until it listens; stopped with SIGTERM when the object goes.

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "support/childprocess.h"

namespace zutest {

/// Thread safety: one thread at a time.
class RunningService {
 public:
  /// Starts `program` (zuresourced) on a socket of its own with `args` added.
  RunningService(const std::string& program, std::vector<std::string> args = {})
      : target_("unix:" + dir_.path() + "/zuresource.sock") {
    args.insert(args.begin(), {"--listen", target_});
    process_ = std::make_unique<ChildProcess>(program, args);
    listening_ =
        process_->lineStartingWith("zuresourced: listening") == "zuresourced: listening on " + target_;
  }
  ~RunningService() {
    if (!process_->ended()) {
      process_->signal(SIGTERM);
      process_->wait();
    }
  }

  /// Whether it came up and said it listens on its socket.
  bool listening() const { return listening_; }
  /// "unix:/tmp/zutest.../zuresource.sock"
  const std::string& target() const { return target_; }
  ChildProcess& process() { return *process_; }

 private:
  TempDir dir_;
  std::string target_;
  std::unique_ptr<ChildProcess> process_;
  bool listening_ = false;
};

}  // namespace zutest
