// No thread is inside of OpenSSL while the process forks: what a lock of the library guards is in
// order in the child, which goes on with a session.
#pragma once

#include <pthread.h>

namespace agt {

// Held during every call into the library, by any number of threads; a fork waits for all of them.
class openssl_guard {
  public:
    openssl_guard() { pthread_rwlock_rdlock(&lock); }
    openssl_guard(const openssl_guard&) = delete;
    openssl_guard& operator=(const openssl_guard&) = delete;
    ~openssl_guard() { pthread_rwlock_unlock(&lock); }

    // Once, when the module is loaded.
    static void hold_at_fork() {
        pthread_atfork([] { pthread_rwlock_wrlock(&lock); }, [] { pthread_rwlock_unlock(&lock); },
                       [] { lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP; });
    }

  private:
    inline static pthread_rwlock_t lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};

} // namespace agt
