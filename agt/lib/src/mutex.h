// A mutex and its guard, with the attributes by which clang checks that what a lock guards is
// touched only under it.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define AGT_LOCK_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define AGT_LOCK_ATTRIBUTE(attribute)
#endif

// Of a variable: the mutex that has to be held. Of a function: the one that its caller holds, that
// it locks and leaves locked, that it unlocks.
#define AGT_GUARDED_BY(mutex) AGT_LOCK_ATTRIBUTE(guarded_by(mutex))
#define AGT_REQUIRES(mutex) AGT_LOCK_ATTRIBUTE(requires_capability(mutex))
#define AGT_ACQUIRES(mutex) AGT_LOCK_ATTRIBUTE(acquire_capability(mutex))
#define AGT_RELEASES(mutex) AGT_LOCK_ATTRIBUTE(release_capability(mutex))
#define AGT_UNCHECKED AGT_LOCK_ATTRIBUTE(no_thread_safety_analysis)

namespace agt {

// Initialised before any code runs, so that objects with static storage can have one.
class AGT_LOCK_ATTRIBUTE(capability("mutex")) mutex {
  public:
    constexpr mutex() = default;
    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;

    void lock() AGT_LOCK_ATTRIBUTE(acquire_capability()) { pthread_mutex_lock(&native_); }
    void unlock() AGT_LOCK_ATTRIBUTE(release_capability()) { pthread_mutex_unlock(&native_); }

  private:
    pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds the mutex as long as it lives.
class AGT_LOCK_ATTRIBUTE(scoped_lockable) lock_guard {
  public:
    explicit lock_guard(mutex& locked) AGT_ACQUIRES(locked) : locked_(locked) { locked_.lock(); }
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;
    ~lock_guard() AGT_LOCK_ATTRIBUTE(release_capability()) { locked_.unlock(); }

  private:
    mutex& locked_;
};

} // namespace agt
