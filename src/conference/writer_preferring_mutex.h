// A reader/writer lock that stops admitting new readers while a writer
// waits. glibc's std::shared_mutex prefers readers: with audio threads
// calling back to back, each holding a room's participants lock shared, an
// add, remove, seat or layout change could wait for ever (the audio stress
// test saw 41 s). A POSIX rwlock of the writer-preferring kind lets the
// waiting writer go first. Not recursive, for readers either: a thread that
// holds it shared must not take it again (the room's methods each take it
// once, and host callbacks run after it is released).
#pragma once

#include <pthread.h>

#include <system_error>

namespace quelora {

class writer_preferring_mutex {
public:
    writer_preferring_mutex() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        const int error = pthread_rwlock_init(&lock_, &attributes);
        pthread_rwlockattr_destroy(&attributes);
        if (error != 0) throw std::system_error(error, std::generic_category());
    }
    ~writer_preferring_mutex() { pthread_rwlock_destroy(&lock_); }
    writer_preferring_mutex(const writer_preferring_mutex&) = delete;
    writer_preferring_mutex& operator=(const writer_preferring_mutex&) = delete;

    // The Lockable and SharedLockable shapes, for std::unique_lock and
    // std::shared_lock. A failure here is a misuse (EDEADLK), not a state
    // the caller can recover from.
    void lock() { check(pthread_rwlock_wrlock(&lock_)); }
    bool try_lock() { return pthread_rwlock_trywrlock(&lock_) == 0; }
    void unlock() { pthread_rwlock_unlock(&lock_); }
    void lock_shared() { check(pthread_rwlock_rdlock(&lock_)); }
    bool try_lock_shared() { return pthread_rwlock_tryrdlock(&lock_) == 0; }
    void unlock_shared() { pthread_rwlock_unlock(&lock_); }

private:
    static void check(int error) {
        if (error != 0) throw std::system_error(error, std::generic_category());
    }
    pthread_rwlock_t lock_;
};

} // namespace quelora
