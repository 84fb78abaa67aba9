#include "core/common/SafeString.h"

#include <cstdio>
#include <cstring>

namespace VeskCore {

size_t strlcpy(char* dest, const char* src, size_t size) {
    const size_t length = std::strlen(src);
    if (size != 0) {
        const size_t count = length < size - 1 ? length : size - 1;
        std::memcpy(dest, src, count);
        dest[count] = '\0';
    }
    return length;
}

size_t strlcat(char* dest, const char* src, size_t size) {
    const size_t used = ::strlen_safe(dest, size);
    if (used == size) {
        return size + std::strlen(src);  // no terminator within size: nothing to append to
    }
    return used + strlcpy(dest + used, src, size - used);
}

}  // namespace VeskCore

size_t strlen_safe(const char* s, size_t n) {
    return s != nullptr ? strnlen(s, n) : 0;
}

char* strcpy_safe(char* dest, size_t n, const char* src) {
    if (n != 0 && dest != nullptr && src != nullptr) {
        VeskCore::strlcpy(dest, src, n);
    }
    return dest;
}

char* strcat_safe(char* dest, size_t n, const char* src) {
    if (n != 0 && dest != nullptr && src != nullptr) {
        VeskCore::strlcat(dest, src, n);
    }
    return dest;
}

wchar_t* wcscpy_safe(wchar_t* dest, size_t n, const wchar_t* src) {
    if (n == 0 || dest == nullptr || src == nullptr) {
        return dest;
    }
    size_t i = 0;
    for (; i < n; ++i) {
        const auto low = static_cast<signed char>(src[i] & 0xFF);
        if (low == 0) {
            break;
        }
        dest[i] = static_cast<wchar_t>(low);
    }
    dest[i] = 0;
    return dest;
}

int vsnprintfcat(char* buf, size_t n, const char* format, va_list args) {
    if (n == 0 || buf == nullptr) {
        return -1;
    }
    const size_t length = strlen_safe(buf, n);
    if (length < n - 1 && format != nullptr) {
        const int result = std::vsnprintf(buf + length, n - length, format, args);
        buf[n - 1] = '\0';
        return result;
    }
    buf[n - 1] = '\0';
    return -1;
}

int vsnprintf_safe(char* buf, size_t n, const char* format, va_list args) {
    if (n == 0 || buf == nullptr) {
        return -1;
    }
    buf[0] = '\0';
    return vsnprintfcat(buf, n, format, args);
}

int snprintfcat(char* buf, size_t n, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vsnprintfcat(buf, n, format, args);
    va_end(args);
    return result;
}

int snprintf_safe(char* buf, size_t n, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vsnprintf_safe(buf, n, format, args);
    va_end(args);
    return result;
}
