#include "mutex_wrap.hpp"

#include <errno.h>
#include <pthread.h>

bool mutex_init_fails;
unsigned int mutex_init_failing_call;
unsigned int mutex_inits;

extern "C" int __real_pthread_mutex_init(pthread_mutex_t *mutex,
                                         const pthread_mutexattr_t *attr);

extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t *mutex,
                              const pthread_mutexattr_t *attr)
{
    if (++mutex_inits == mutex_init_failing_call || mutex_init_fails)
        return EAGAIN;
    return __real_pthread_mutex_init(mutex, attr);
}
