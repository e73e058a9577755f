// The board's own libraries, as this library calls them. They stay undefined symbols of the shared
// object: the board's libraries, the stand-ins of platform/ or a test provide them.
#pragma once

#include <cstddef>
#include <cstring>
#include <ctime>

extern "C" {

// Debug log. The low byte of SYSLOG_flag_get's answer tells whether the flag is on.
int SYSLOG_flag_get(int subsystem, int flag);
void SYSLOG_message(int priority, const char *format, ...);

// Liveness. The argument is always 0; -1 when the manager is not known.
int get_alive_mgr_pid(int unused);

// Clock. The low byte of clocktimerexpired's answer is non-zero once `now` has reached `end`.
int clockgettime(struct timespec *now);
int clocktimerexpired(const struct timespec *end, const struct timespec *now);

// C extensions. A C library that has strlcpy declares it itself.
#if !defined(__GLIBC__) || !__GLIBC_PREREQ(2, 38)
size_t strlcpy(char *dst, const char *src, size_t size);
#endif

} // extern "C"
