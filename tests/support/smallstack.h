#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <stdexcept>

namespace zutest {

/// Runs `body` in a thread of its own with a stack of `bytes`, and waits for
/// it: a walk that recurses with the depth of its input overflows it long
/// before the input gets large.
inline void runOnSmallStack(std::size_t bytes, std::function<void()> body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, bytes);
  pthread_t thread;
  auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  int made = pthread_create(&thread, &attributes, run, &body);
  pthread_attr_destroy(&attributes);
  if (made != 0) throw std::runtime_error("runOnSmallStack: no thread");
  pthread_join(thread, nullptr);
}

}  // namespace zutest
