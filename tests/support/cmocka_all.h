/* cmocka with the headers it expects before it. */
#ifndef CMOCKA_ALL_H
#define CMOCKA_ALL_H

#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include <cmocka.h>

#endif
