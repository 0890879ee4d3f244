// Names of the C library's functions for the linker's --wrap: where long has 32 bits, <time.h> and
// others send calls to the forms of 64-bit time and sizes. See log_consumer_wrap() of the tests'
// CMakeLists.txt, which names the same ones to the linker.
#ifndef TESTS_SUPPORT_WIDE_NAMES_H
#define TESTS_SUPPORT_WIDE_NAMES_H

#include <climits>

#if LONG_MAX == INT_MAX
#define __real_clock_gettime __real___clock_gettime64
#define __wrap_clock_gettime __wrap___clock_gettime64
#define __real_mq_timedsend __real___mq_timedsend_time64
#define __wrap_mq_timedsend __wrap___mq_timedsend_time64
#define __real_setrlimit __real_setrlimit64
#define __wrap_setrlimit __wrap_setrlimit64
#endif

#endif
