// The system's <syslog.h>, with syslog() as a plain call in every kind of build.
//
// _FORTIFY_SOURCE would turn each call into one of __syslog_chk(), a name of the C library's own,
// and whoever replaces syslog() at link level (a test, a device's own logging library) would miss
// every line. Nothing is lost by that: all that the fortified call adds is a look at %n in formats
// that are no literals, and -Wformat=2 allows none of these.
#ifndef COMPAT_SYSLOG_SYSLOG_H
#define COMPAT_SYSLOG_SYSLOG_H

#include <features.h>

#pragma push_macro("__USE_FORTIFY_LEVEL")
#undef __USE_FORTIFY_LEVEL
#define __USE_FORTIFY_LEVEL 0
#include_next <syslog.h>
#pragma pop_macro("__USE_FORTIFY_LEVEL")

#endif
