#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <boost/shared_ptr.hpp>

#include <zuhost/zuthreadannotations.h>

namespace ZU {

/// A plain, non-recursive mutex of the host, annotated for clang's thread
/// safety analysis: new code guards its fields with a ZUMutex and locks it
/// with a ZUMutexLock rather than a bare std::mutex. Thread safe.
class ZU_CAPABILITY("mutex") ZUMutex {
 public:
  /// A new, unlocked mutex.
  static boost::shared_ptr<ZUMutex> createZUMutex();

  ZUMutex() = default;
  ZUMutex(const ZUMutex&) = delete;
  ZUMutex& operator=(const ZUMutex&) = delete;

  void lock() ZU_ACQUIRE() { mutex_.lock(); }
  /// True when the mutex was taken; never waits.
  bool tryLock() ZU_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() ZU_RELEASE() { mutex_.unlock(); }

 private:
  friend class ZUMutexLock;
  std::mutex mutex_;
};

/// Scoped lock of a ZUMutex held by reference, the lock of new code: locks on
/// construction, unlocks on destruction, and may let go and take the mutex
/// again in between (unlock(), lock()) and sleep on a condition variable.
/// Not thread safe: one thread uses a given lock object.
///
///   ZU::ZUMutexLock lock(mutex_);
///   while (queue_.empty()) lock.wait(changed_);   // changed_: std::condition_variable
class ZU_SCOPED_CAPABILITY ZUMutexLock {
 public:
  explicit ZUMutexLock(ZUMutex& mutex) ZU_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~ZUMutexLock() ZU_RELEASE() {
    if (held_) mutex_.unlock();
  }
  ZUMutexLock(const ZUMutexLock&) = delete;
  ZUMutexLock& operator=(const ZUMutexLock&) = delete;

  /// Lets go of the mutex before the end of the scope (to call out, say).
  void unlock() ZU_RELEASE() {
    mutex_.unlock();
    held_ = false;
  }
  /// Takes the mutex again after unlock().
  void lock() ZU_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

  /// Lets go of the mutex while asleep on `cv` until notified (or woken
  /// spuriously: callers wait in a loop on their condition), then holds it
  /// again.
  void wait(std::condition_variable& cv) {
    std::unique_lock<std::mutex> native(mutex_.mutex_, std::adopt_lock);
    cv.wait(native);
    native.release();
  }
  /// As wait(), at most until `deadline`. False when the deadline passed.
  template <typename Clock, typename Duration>
  bool waitUntil(std::condition_variable& cv,
                 const std::chrono::time_point<Clock, Duration>& deadline) {
    std::unique_lock<std::mutex> native(mutex_.mutex_, std::adopt_lock);
    const bool notified = cv.wait_until(native, deadline) == std::cv_status::no_timeout;
    native.release();
    return notified;
  }
  /// As wait(), at most for `duration`. False when it passed.
  template <typename Rep, typename Period>
  bool waitFor(std::condition_variable& cv, const std::chrono::duration<Rep, Period>& duration) {
    return waitUntil(cv, std::chrono::steady_clock::now() + duration);
  }

 private:
  ZUMutex& mutex_;
  bool held_ = true;
};

/// A reader/writer mutex of the host. Thread safe.
///
/// Readers are preferred: a thread that holds the read side may take it again
/// even while a writer waits (a writer-preferring lock would deadlock there).
/// The price is that a steady stream of readers can keep a writer waiting.
class ZU_CAPABILITY("mutex") ZUMutexRW {
 public:
  /// A new, unlocked reader/writer mutex.
  static boost::shared_ptr<ZUMutexRW> createZUMutexRW();

  ZUMutexRW();
  ~ZUMutexRW();
  ZUMutexRW(const ZUMutexRW&) = delete;
  ZUMutexRW& operator=(const ZUMutexRW&) = delete;

  void lockRead() ZU_ACQUIRE_SHARED() { pthread_rwlock_rdlock(&rwlock_); }
  void unlockRead() ZU_RELEASE_SHARED() { pthread_rwlock_unlock(&rwlock_); }
  void lockWrite() ZU_ACQUIRE() { pthread_rwlock_wrlock(&rwlock_); }
  void unlockWrite() ZU_RELEASE() { pthread_rwlock_unlock(&rwlock_); }

 private:
  pthread_rwlock_t rwlock_;
};

/// Scoped exclusive lock of a ZUMutex: locks on construction (waiting if need
/// be), unlocks on destruction. The caller keeps the mutex alive for the
/// lock's lifetime. An empty handle throws ZUError and locks nothing.
class ZU_SCOPED_CAPABILITY ZUCriticalSection {
 public:
  explicit ZUCriticalSection(const boost::shared_ptr<ZUMutex>& mutex) ZU_ACQUIRE(mutex);
  ~ZUCriticalSection() ZU_RELEASE() ZU_NO_THREAD_SAFETY_ANALYSIS { mutex_->unlock(); }
  ZUCriticalSection(const ZUCriticalSection&) = delete;
  ZUCriticalSection& operator=(const ZUCriticalSection&) = delete;

 private:
  ZUMutex* mutex_;
};

/// Scoped shared (read) lock of a ZUMutexRW. Same contract as ZUCriticalSection.
class ZU_SCOPED_CAPABILITY ZUCriticalSectionRead {
 public:
  explicit ZUCriticalSectionRead(const boost::shared_ptr<ZUMutexRW>& mutex) ZU_ACQUIRE_SHARED(mutex);
  ~ZUCriticalSectionRead() ZU_RELEASE() ZU_NO_THREAD_SAFETY_ANALYSIS { mutex_->unlockRead(); }
  ZUCriticalSectionRead(const ZUCriticalSectionRead&) = delete;
  ZUCriticalSectionRead& operator=(const ZUCriticalSectionRead&) = delete;

 private:
  ZUMutexRW* mutex_;
};

/// Scoped exclusive (write) lock of a ZUMutexRW. Same contract as ZUCriticalSection.
class ZU_SCOPED_CAPABILITY ZUCriticalSectionWrite {
 public:
  explicit ZUCriticalSectionWrite(const boost::shared_ptr<ZUMutexRW>& mutex) ZU_ACQUIRE(mutex);
  ~ZUCriticalSectionWrite() ZU_RELEASE() ZU_NO_THREAD_SAFETY_ANALYSIS { mutex_->unlockWrite(); }
  ZUCriticalSectionWrite(const ZUCriticalSectionWrite&) = delete;
  ZUCriticalSectionWrite& operator=(const ZUCriticalSectionWrite&) = delete;

 private:
  ZUMutexRW* mutex_;
};

/// Scoped try-lock. On construction it tries to take `mutex` without waiting:
/// if it takes it, `busy` becomes false and the mutex is held until this
/// object is destroyed; if another thread holds it, `busy` becomes true and
/// nothing is held. The destructor unlocks only what the constructor took.
/// An empty handle throws ZUError and leaves `busy` unchanged.
///
/// Not annotated: the analysis cannot follow a lock whose taking is told
/// through a flag. A caller that goes on to touch what the mutex guards says
/// so where it has checked `busy`, with a no-op marked ZU_ASSERT_CAPABILITY.
class ZUCriticalTrueIfLocked {
 public:
  ZUCriticalTrueIfLocked(const boost::shared_ptr<ZUMutex>& mutex, bool& busy);
  ~ZUCriticalTrueIfLocked() {
    if (taken_) mutex_->unlock();
  }
  ZUCriticalTrueIfLocked(const ZUCriticalTrueIfLocked&) = delete;
  ZUCriticalTrueIfLocked& operator=(const ZUCriticalTrueIfLocked&) = delete;

 private:
  ZUMutex* mutex_;
  bool taken_;
};

}  // namespace ZU
