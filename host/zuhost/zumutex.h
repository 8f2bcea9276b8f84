#pragma once

#include <pthread.h>

#include <mutex>

#include <boost/shared_ptr.hpp>

namespace ZU {

/// A plain, non-recursive mutex of the host. Thread safe.
class ZUMutex {
 public:
  /// A new, unlocked mutex.
  static boost::shared_ptr<ZUMutex> createZUMutex();

  ZUMutex() = default;
  ZUMutex(const ZUMutex&) = delete;
  ZUMutex& operator=(const ZUMutex&) = delete;

  void lock() { mutex_.lock(); }
  /// True when the mutex was taken; never waits.
  bool tryLock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// A reader/writer mutex of the host. Thread safe.
///
/// Readers are preferred: a thread that holds the read side may take it again
/// even while a writer waits (a writer-preferring lock would deadlock there).
/// The price is that a steady stream of readers can keep a writer waiting.
class ZUMutexRW {
 public:
  /// A new, unlocked reader/writer mutex.
  static boost::shared_ptr<ZUMutexRW> createZUMutexRW();

  ZUMutexRW();
  ~ZUMutexRW();
  ZUMutexRW(const ZUMutexRW&) = delete;
  ZUMutexRW& operator=(const ZUMutexRW&) = delete;

  void lockRead() { pthread_rwlock_rdlock(&rwlock_); }
  void unlockRead() { pthread_rwlock_unlock(&rwlock_); }
  void lockWrite() { pthread_rwlock_wrlock(&rwlock_); }
  void unlockWrite() { pthread_rwlock_unlock(&rwlock_); }

 private:
  pthread_rwlock_t rwlock_;
};

/// Scoped exclusive lock of a ZUMutex: locks on construction (waiting if need
/// be), unlocks on destruction. The caller keeps the mutex alive for the
/// lock's lifetime. An empty handle throws ZUError and locks nothing.
class ZUCriticalSection {
 public:
  explicit ZUCriticalSection(const boost::shared_ptr<ZUMutex>& mutex);
  ~ZUCriticalSection() { mutex_->unlock(); }
  ZUCriticalSection(const ZUCriticalSection&) = delete;
  ZUCriticalSection& operator=(const ZUCriticalSection&) = delete;

 private:
  ZUMutex* mutex_;
};

/// Scoped shared (read) lock of a ZUMutexRW. Same contract as ZUCriticalSection.
class ZUCriticalSectionRead {
 public:
  explicit ZUCriticalSectionRead(const boost::shared_ptr<ZUMutexRW>& mutex);
  ~ZUCriticalSectionRead() { mutex_->unlockRead(); }
  ZUCriticalSectionRead(const ZUCriticalSectionRead&) = delete;
  ZUCriticalSectionRead& operator=(const ZUCriticalSectionRead&) = delete;

 private:
  ZUMutexRW* mutex_;
};

/// Scoped exclusive (write) lock of a ZUMutexRW. Same contract as ZUCriticalSection.
class ZUCriticalSectionWrite {
 public:
  explicit ZUCriticalSectionWrite(const boost::shared_ptr<ZUMutexRW>& mutex);
  ~ZUCriticalSectionWrite() { mutex_->unlockWrite(); }
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
