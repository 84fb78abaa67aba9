#include "core/common/StringUtil.h"

#include <charconv>
#include <cstring>

namespace VeskCore {

// Numbers are written for every record that goes out as XML or SQL:
// to_chars leaves wx's format machinery out of it.
wxString toString(long long value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return wxString::FromAscii(digits, static_cast<size_t>(end - digits));
}

wxString toString(long value) {
    return toString(static_cast<long long>(value));
}

wxString toString(unsigned long value) {
    return toString(static_cast<long long>(value));
}

wxString toString(int value) {
    return toString(static_cast<long long>(value));
}

wxString toString(bool value) {
    return value ? wxString(wxS("true")) : wxString(wxS("false"));
}

wxString toString(const WxStringSet& set, char separator) {
    wxString out;
    bool first = true;
    for (const wxString& member : set) {
        if (!first) {
            out += CharFromByte(separator);
        }
        out += member;
        first = false;
    }
    return out;
}

char RChar(char c) {
    if (c >= 'a' && c <= 'z') {
        return static_cast<char>('a' + (c - 'a' + 13) % 26);
    }
    if (c >= 'A' && c <= 'Z') {
        return static_cast<char>('A' + (c - 'A' + 13) % 26);
    }
    return c;
}

wxString R(const wxString& text) {
    // Only ASCII letters change, and no byte of a multi-byte UTF-8 sequence is
    // ASCII, so mapping code points below 0x80 equals mapping the UTF-8 bytes.
    wxString out;
    out.reserve(text.length());
    for (wxUniChar c : text) {
        out += c.IsAscii() ? CharFromByte(RChar(static_cast<char>(c.GetValue()))) : c;
    }
    return out;
}

wxString ErrnoToString(int error) {
    char buffer[256] = {};
    // The GNU strerror_r returns either `buffer` or a static text.
    const char* text = strerror_r(error, buffer, sizeof buffer);
    return text != nullptr ? wxString::FromUTF8(text) : wxString();
}

wxString Replace(const wxString& text, const char* from, const char* to, bool all) {
    wxString out(text);
    if (from == nullptr || *from == '\0') {
        return out;  // wx asserts on an empty pattern
    }
    out.Replace(wxString::FromUTF8(from), to != nullptr ? wxString::FromUTF8(to) : wxString(), all);
    return out;
}

wxString ReplaceBars(const wxString& text) {
    static const wxString brokenBar(wxUniChar(0xA6));
    wxString out(text);
    out.Replace(wxS("|"), brokenBar, true);
    return out;
}

void AddToMapSet(MapStringToInt64Set& map, const wxString& key, long long value) {
    map[key].insert(value);
}

}  // namespace VeskCore
