/* liborvelsafec: the platform's bounded string functions. On a host they
 * come from libsafec. */
#ifndef ORVEL_SAFEC_H
#define ORVEL_SAFEC_H

#include <safe_str_lib.h>

#endif
