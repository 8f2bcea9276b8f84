#pragma once

// A program run by a test as a process of its own: its standard output read
// line by line, signals sent to it, its end waited for. Killed when the
// object goes.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <string>
#include <vector>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zutest {

/// Thread safety: one thread at a time.
class ChildProcess {
 public:
  /// Starts `program` with `args` (not counting argv[0]); its standard output
  /// comes here, its standard error goes to the test's.
  ChildProcess(const std::string& program, const std::vector<std::string>& args) {
    int out[2];
    if (pipe(out) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::vector<std::string> all{program};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    // A program that cannot be started ends at once with status 127, as in a shell.
    if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
      ended_ = true;
      status_ = 127;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    out_ = out[0];
  }
  ~ChildProcess() {
    if (!ended_) {
      kill(pid_, SIGCONT);
      kill(pid_, SIGKILL);
      wait();
    }
    close(out_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// The next line of its output (without the newline), or "" at its end or
  /// when none came within `timeout`.
  std::string line(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const auto newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        std::string text = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        return text;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return {};
      pollfd p{out_, POLLIN, 0};
      const int ready = poll(&p, 1, static_cast<int>(left.count()));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return {};
      char chunk[4096];
      const ssize_t n = read(out_, chunk, sizeof chunk);
      if (n <= 0) return {};
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }
  /// Skips lines until one starts with `prefix`; returns it, or "".
  std::string lineStartingWith(const std::string& prefix,
                               std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      std::string text = line(std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now()));
      if (text.rfind(prefix, 0) == 0) return text;
      if (text.empty() && ended()) break;
    }
    return {};
  }

  /// Never sent once it is known to have ended: its pid may be another's by then.
  void signal(int sig) {
    if (!ended_) kill(pid_, sig);
  }
  /// Waits for its end; its exit status, or 128 + the signal that ended it.
  int wait() {
    while (!reap(0) && errno == EINTR) {
    }
    return status_;
  }
  /// Whether it has ended (without waiting).
  bool ended() { return reap(WNOHANG); }

 private:
  /// Whether it has ended, asking waitpid() with `options` if not known yet.
  bool reap(int options) {
    int status = 0;
    if (!ended_ && waitpid(pid_, &status, options) == pid_) {
      ended_ = true;
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return ended_;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffer_;
  bool ended_ = false;
  int status_ = 0;
};

/// A fresh folder under $TMPDIR (or /tmp), removed with what it holds.
class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/zutest.XXXXXX";
    if (!mkdtemp(pattern.data())) std::abort();
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace zutest
