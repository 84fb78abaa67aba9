// Bounded C string functions, exported with C linkage for hosts written in C,
// and the BSD strlcpy/strlcat that glibc 2.36 lacks.
//
// Every function tolerates null pointers and a zero size as stated; none reads
// or writes outside the sizes it is given, except wcscpy_safe (see there).
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "core/common/Export.h"

namespace VeskCore {

// BSD semantics: copies (appends) at most size - 1 bytes in all, always
// terminates when size > 0, returns the length of the string it tried to
// make. In our namespace so that a C library that has them does not clash.
size_t strlcpy(char* dest, const char* src, size_t size);
size_t strlcat(char* dest, const char* src, size_t size);

}  // namespace VeskCore

// 0 for null; else the offset of the first NUL within the first n bytes, n
// if there is none. Reads no further than the NUL.
VESK_C_EXPORT size_t strlen_safe(const char* s, size_t n);

// Nothing if n is 0 or a pointer is null; else strlcpy / strlcat into the n
// bytes of dest. Returns dest.
VESK_C_EXPORT char* strcpy_safe(char* dest, size_t n, const char* src);
VESK_C_EXPORT char* strcat_safe(char* dest, size_t n, const char* src);

// Nothing if n is 0 or a pointer is null. Copies at most n elements, reading
// only the lowest byte of each source element (sign-extended on the way), up
// to an element whose lowest byte is 0, then writes a terminating 0.
// REQUIRES: dest holds n + 1 elements. Hosts rely on these quirks.
VESK_C_EXPORT wchar_t* wcscpy_safe(wchar_t* dest, size_t n, const wchar_t* src);

// Appends formatted text to the string in the n bytes of buf, truncating and
// always terminating. Returns what vsnprintf returned (the length the appended
// text would have had), or -1 if n is 0, buf is null, or buf was already full
// (then only the terminator is written, at buf[n - 1]); a null format is
// treated as a full buffer.
VESK_C_EXPORT int vsnprintfcat(char* buf, size_t n, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
VESK_C_EXPORT int snprintfcat(char* buf, size_t n, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// As the "cat" forms on an emptied buf; -1 if n is 0 or buf is null.
VESK_C_EXPORT int vsnprintf_safe(char* buf, size_t n, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
VESK_C_EXPORT int snprintf_safe(char* buf, size_t n, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
