#pragma once

#include <mutex>
#include <vector>

#include <zuhost/zulog.h>

namespace zutest {

/// Captures every log record while it exists, then puts the previous handler
/// back. Thread safe; one capture at a time per test.
class LogCapture {
 public:
  LogCapture()
      : previous_(ko::log::setHandler([this](const ko::log::Record& record) {
          std::lock_guard<std::mutex> lock(mutex_);
          records_.push_back(record);
        })) {}
  ~LogCapture() { ko::log::setHandler(previous_); }

  std::vector<ko::log::Record> records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<ko::log::Record> records_;  // guarded by mutex_
  ko::log::Handler previous_;             // immutable after construction
};

}  // namespace zutest
