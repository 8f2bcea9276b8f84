#include "run/interrupts.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

namespace zusim {

namespace {

sigset_t interruptSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

Interrupts::Interrupts() {
  const sigset_t set = interruptSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  thread_ = std::thread(&Interrupts::wait, this);
}

Interrupts::~Interrupts() {
  done_ = true;
  thread_.join();
}

void Interrupts::onInterrupt(std::function<void()> action) {
  std::lock_guard<std::mutex> lock(mutex_);
  action_ = std::move(action);
}

void Interrupts::sleepFor(int seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  signalled_.wait_for(lock, std::chrono::seconds(seconds), [this] { return signal_ != 0; });
}

void Interrupts::wait() {
  const sigset_t set = interruptSignals();
  const timespec poll{0, 100 * 1000 * 1000};  // how soon the destructor is heard
  while (!done_) {
    const int signal = sigtimedwait(&set, nullptr, &poll);
    if (signal < 0) continue;
    if (signal_) _exit(128 + signal);  // the second: at once
    std::lock_guard<std::mutex> lock(mutex_);
    signal_ = signal;
    signalled_.notify_all();
    if (action_) action_();
  }
}

}  // namespace zusim
