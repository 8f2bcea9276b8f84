#include <boost/make_shared.hpp>

#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>

namespace ZU {

namespace {
const char* const kFile = "host/src/zumutex";

template <typename M>
M* checked(const boost::shared_ptr<M>& mutex, const char* lockClass) {
  if (!mutex) throw ZUError(lockClass, lockClass, "empty mutex handle", kFile, __LINE__);
  return mutex.get();
}
}  // namespace

boost::shared_ptr<ZUMutex> ZUMutex::createZUMutex() { return boost::make_shared<ZUMutex>(); }

boost::shared_ptr<ZUMutexRW> ZUMutexRW::createZUMutexRW() {
  return boost::make_shared<ZUMutexRW>();
}

ZUMutexRW::ZUMutexRW() {
  pthread_rwlockattr_t attr;
  pthread_rwlockattr_init(&attr);
  // Readers first, so that a reader may re-enter while a writer waits.
  pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_READER_NP);
  pthread_rwlock_init(&rwlock_, &attr);
  pthread_rwlockattr_destroy(&attr);
}

ZUMutexRW::~ZUMutexRW() { pthread_rwlock_destroy(&rwlock_); }

// The scoped locks take what their annotations say, through a copy of the
// handle that the analysis cannot tie to the argument.
ZUCriticalSection::ZUCriticalSection(const boost::shared_ptr<ZUMutex>& mutex)
    ZU_NO_THREAD_SAFETY_ANALYSIS
    : mutex_(checked(mutex, "ZUCriticalSection")) {
  mutex_->lock();
}

ZUCriticalSectionRead::ZUCriticalSectionRead(const boost::shared_ptr<ZUMutexRW>& mutex)
    ZU_NO_THREAD_SAFETY_ANALYSIS
    : mutex_(checked(mutex, "ZUCriticalSectionRead")) {
  mutex_->lockRead();
}

ZUCriticalSectionWrite::ZUCriticalSectionWrite(const boost::shared_ptr<ZUMutexRW>& mutex)
    ZU_NO_THREAD_SAFETY_ANALYSIS
    : mutex_(checked(mutex, "ZUCriticalSectionWrite")) {
  mutex_->lockWrite();
}

ZUCriticalTrueIfLocked::ZUCriticalTrueIfLocked(const boost::shared_ptr<ZUMutex>& mutex, bool& busy)
    : mutex_(checked(mutex, "ZUCriticalTrueIfLocked")), taken_(mutex_->tryLock()) {
  busy = !taken_;
}

}  // namespace ZU
