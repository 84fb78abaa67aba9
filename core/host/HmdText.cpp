#include "core/host/HmdText.h"

#include <cstdint>
#include <cstring>

namespace VeskCore {

namespace {

bool AsciiWord(const unsigned char* at) {
    uint64_t word;
    memcpy(&word, at, 8);
    return (word & 0x8080808080808080ULL) == 0;
}

// The length of the well-formed sequence at `at` (Unicode's table 3-7), or 0.
size_t SequenceLength(const unsigned char* at, size_t left) {
    const unsigned char lead = at[0];
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // the second byte's range
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (left < length || at[1] < low || at[1] > high)
        return 0;
    for (size_t i = 2; i < length; ++i)
        if ((at[i] & 0xC0) != 0x80)
            return 0;
    return length;
}

}  // namespace

bool IsUtf8(const char* text, size_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    size_t i = 0;
    while (i < length) {
        // Files are mostly ASCII: a word at a time where it is.
        if (length - i >= 8 && AsciiWord(bytes + i)) {
            i += 8;
        } else if (bytes[i] < 0x80) {
            ++i;
        } else {
            const size_t sequence = SequenceLength(bytes + i, length - i);
            if (sequence == 0)
                return false;
            i += sequence;
        }
    }
    return true;
}

wxString HostText(const char* bytes, size_t length) {
    if (IsUtf8(bytes, length))
        return wxString::FromUTF8Unchecked(bytes, length);
    return wxString::From8BitData(bytes, length);
}

void AppendUtf8(const char* text, size_t length, wxString& out) {
    static_assert(sizeof(wchar_t) == 4, "a wxString holds UTF-32 here");
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    wchar_t buffer[8192];
    size_t held = 0;
    for (size_t i = 0; i < length;) {
        if (held == sizeof buffer / sizeof buffer[0]) {
            out.append(buffer, held);
            held = 0;
        }
        const unsigned char lead = bytes[i];
        const size_t sequence = lead < 0x80 ? 1 : SequenceLength(bytes + i, length - i);
        if (sequence <= 1) {
            buffer[held++] = sequence == 1 ? static_cast<wchar_t>(lead) : L'\xFFFD';
            ++i;
            continue;
        }
        uint32_t code = lead & (0xFFu >> (sequence + 1));
        for (size_t k = 1; k < sequence; ++k)
            code = code << 6 | (bytes[i + k] & 0x3Fu);
        buffer[held++] = static_cast<wchar_t>(code);
        i += sequence;
    }
    out.append(buffer, held);
}

void AppendHostText(const char* bytes, size_t length, std::string& out) {
    if (IsUtf8(bytes, length)) {
        out.append(bytes, length);
        return;
    }
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if (byte < 0x80) {
            out += static_cast<char>(byte);
        } else {
            out += static_cast<char>(0xC0 | byte >> 6);
            out += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
}

}  // namespace VeskCore
