// SPDX-License-Identifier: Apache-2.0
// Holds a pthread mutex for the length of a scope.
#ifndef OMSDK_UTIL_MUTEX_GUARD_H
#define OMSDK_UTIL_MUTEX_GUARD_H

#include <pthread.h>

namespace omsdk {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
    ~MutexGuard() { pthread_mutex_unlock(m_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t *m_;
};

}  // namespace omsdk

#endif
