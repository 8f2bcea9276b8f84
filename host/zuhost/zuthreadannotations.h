#pragma once

// Lock annotations checked by clang's thread safety analysis
// (-Wthread-safety): which mutex guards a field, which locks a function needs,
// takes or lets go. Under other compilers they expand to nothing.
//
//   ZU::ZUMutex mutex_;
//   int count_ ZU_GUARDED_BY(mutex_);
//   void bump() ZU_EXCLUDES(mutex_) { ZU::ZUMutexLock lock(mutex_); ++count_; }
//   void bumpLocked() ZU_REQUIRES(mutex_);
//
// A rule the analysis cannot follow (a lock taken by a try-lock whose result
// is a flag, a lock of another object reached through a call) is said in a
// comment at the one place that steps outside it, with
// ZU_NO_THREAD_SAFETY_ANALYSIS on the smallest function that can carry it.

#if defined(__clang__)
#define ZU_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZU_THREAD_ANNOTATION(x)
#endif

/// A class whose objects are locks (`x` names the kind in messages: "mutex").
#define ZU_CAPABILITY(x) ZU_THREAD_ANNOTATION(capability(x))
/// A class whose objects hold a lock for their lifetime (RAII).
#define ZU_SCOPED_CAPABILITY ZU_THREAD_ANNOTATION(scoped_lockable)

/// A field read or written only with lock `x` held (shared to read,
/// exclusive to write).
#define ZU_GUARDED_BY(x) ZU_THREAD_ANNOTATION(guarded_by(x))
/// A pointer whose pointee is read or written only with lock `x` held.
#define ZU_PT_GUARDED_BY(x) ZU_THREAD_ANNOTATION(pt_guarded_by(x))

/// Lock order: this lock is taken only after (before) the ones named.
#define ZU_ACQUIRED_AFTER(...) ZU_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ZU_ACQUIRED_BEFORE(...) ZU_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))

/// The caller holds these locks exclusively (shared) when it calls.
#define ZU_REQUIRES(...) ZU_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZU_REQUIRES_SHARED(...) ZU_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))

/// The function takes these locks exclusively (shared) and returns holding
/// them. With no argument on a lock's own method: the lock itself.
#define ZU_ACQUIRE(...) ZU_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZU_ACQUIRE_SHARED(...) ZU_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))

/// The function lets go of these locks, held exclusively (shared; either).
#define ZU_RELEASE(...) ZU_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZU_RELEASE_SHARED(...) ZU_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define ZU_RELEASE_GENERIC(...) ZU_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))

/// The function tries to take the locks; it holds them when it returns
/// the first argument (true or false).
#define ZU_TRY_ACQUIRE(...) ZU_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZU_TRY_ACQUIRE_SHARED(...) ZU_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))

/// The caller must not hold these locks (the function takes them itself).
#define ZU_EXCLUDES(...) ZU_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

/// The function checks at run time that the lock is held (shared).
#define ZU_ASSERT_CAPABILITY(x) ZU_THREAD_ANNOTATION(assert_capability(x))
#define ZU_ASSERT_SHARED_CAPABILITY(x) ZU_THREAD_ANNOTATION(assert_shared_capability(x))

/// The function returns a reference to lock `x`.
#define ZU_RETURN_CAPABILITY(x) ZU_THREAD_ANNOTATION(lock_returned(x))

/// The function's body is not checked: for the locks' own implementation and
/// the few places whose rule the analysis cannot express (say why there).
#define ZU_NO_THREAD_SAFETY_ANALYSIS ZU_THREAD_ANNOTATION(no_thread_safety_analysis)
