/* pthread_mutex_init as the driver tests set it (linked into the tests
 * that wrap it). */
#ifndef MUTEX_WRAP_H
#define MUTEX_WRAP_H

#include <stdbool.h>

extern bool mutex_init_fails;                 /* every call fails */
extern unsigned int mutex_init_failing_call;  /* 1-based; 0: none */
extern unsigned int mutex_inits;              /* calls so far */

#endif
