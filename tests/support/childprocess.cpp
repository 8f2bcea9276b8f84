#include "support/childprocess.h"

#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include <sys/wait.h>

extern char** environ;

namespace zutest {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
  int out[2];
  if (::pipe(out) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<std::string> args = argv;
  std::vector<char*> pointers;
  for (std::string& arg : args) pointers.push_back(&arg[0]);
  pointers.push_back(nullptr);
  const int spawned = posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (spawned != 0) {
    ::close(out[0]);
    throw std::runtime_error("cannot start " + argv[0]);
  }
  out_ = out[0];
  reader_ = std::thread([this] {
    std::string pending;
    char buffer[512];
    for (ssize_t got; (got = ::read(out_, buffer, sizeof buffer)) > 0;) {
      pending.append(buffer, static_cast<std::size_t>(got));
      for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(pending.substr(0, end));
        pending.erase(0, end + 1);
        added_.notify_all();
      }
    }
  });
}

ChildProcess::~ChildProcess() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  reader_.join();  // the pipe's end closed with the child
  ::close(out_);
}

void ChildProcess::signal(int signal) { ::kill(pid_, signal); }

std::optional<std::string> ChildProcess::awaitLine(const std::string& prefix, int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::optional<std::string> found;
  added_.wait_for(lock, std::chrono::milliseconds(ms), [&] {
    for (const std::string& line : lines_)
      if (line.rfind(prefix, 0) == 0) {
        found = line;
        return true;
      }
    return false;
  });
  return found;
}

std::vector<std::string> ChildProcess::lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

}  // namespace zutest
