/* Set-up wrappers for the POSIX thread primitives.
 *
 * The two wrappers deliberately differ in what they report: a mutex set-up
 * failure is ignored (callers of the suite never check it), a condition
 * variable's is returned.
 */
#pragma once

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/* pthread_mutex_init(mutex, attr); always returns 0, discarding its result. */
int kx_thread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);

/* Returns pthread_cond_init(cond, attr): 0 or an error number. */
int kx_thread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr);

#ifdef __cplusplus
}

namespace kx {

/* Scoped holder of a pthread mutex for C++ code inside the libraries: locks on
 * construction, unlocks on destruction. Not copyable or movable. */
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  pthread_mutex_t *mutex_;
};

}  // namespace kx
#endif
