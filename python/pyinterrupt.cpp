#include "pyinterrupt.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include <pybind11/pybind11.h>

namespace py = pybind11;

namespace zupy {

namespace {

// The armed call of the main thread, if any: set by the main thread, taken by
// the watcher when a signal arrives (whoever takes it first decides).
std::atomic<Interruption*> armedCall{nullptr};
// Whether signals are watched; written with the GIL held, read with it.
bool watching = false;
unsigned long mainThread = 0;  // Python's main thread; immutable once watching

/// The watcher: wakes for each signal Python handles, and stops the armed
/// call. Reads until the process ends.
void watch(int fd) {
  char bytes[64];
  for (;;) {
    const ssize_t got = ::read(fd, bytes, sizeof bytes);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;  // the descriptor is gone: nothing more to watch
    if (Interruption* call = armedCall.exchange(nullptr)) call->stopUntilEnded();
  }
}

}  // namespace

void watchSignals() {
  py::module_ signal = py::module_::import("signal");
  py::module_ threading = py::module_::import("threading");
  if (!threading.attr("current_thread")().is(threading.attr("main_thread")())) return;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return;
  // Python writes without blocking; the watcher reads blocking.
  ::fcntl(fds[1], F_SETFL, ::fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  const int before =
      signal.attr("set_wakeup_fd")(fds[1], py::arg("warn_on_full_buffer") = false).cast<int>();
  if (before != -1 && !watching) {
    signal.attr("set_wakeup_fd")(before);  // someone else's: leave it to them
    ::close(fds[0]);
    ::close(fds[1]);
    return;
  }
  // After fork, the parent's descriptor (`before`) stays open in the child:
  // both processes write to it, and the parent's watcher reads it.
  mainThread = PyThread_get_thread_ident();
  watching = true;
  std::thread(watch, fds[0]).detach();
}

Interruption::Interruption(Stop stop, void* context) : stop_(stop), context_(context) {
  if (!watching || PyThread_get_thread_ident() != mainThread) return;
  Interruption* none = nullptr;
  armed_ = armedCall.compare_exchange_strong(none, this);  // not inside another one
  if (!armed_) return;
  // A signal that came before arming: its handler runs now.
  if (PyErr_CheckSignals() != 0) {
    end();
    throw py::error_already_set();
  }
}

void Interruption::end() {
  if (!armed_) return;
  armed_ = false;
  Interruption* self = this;
  if (armedCall.compare_exchange_strong(self, nullptr)) return;  // no signal came
  // The watcher took this call: let it go, and wait until it has.
  ZU::ZUMutexLock lock(mutex_);
  ended_ = true;
  changed_.notify_all();
  while (!watcherDone_) lock.wait(changed_);
}

void Interruption::stopUntilEnded() {
  interrupted_.store(true);
  ZU::ZUMutexLock lock(mutex_);
  while (!ended_) {
    stop_(context_);
    lock.waitFor(changed_, std::chrono::milliseconds(50));
  }
  watcherDone_ = true;
  changed_.notify_all();
}

}  // namespace zupy
