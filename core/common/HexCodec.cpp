#include "core/common/HexCodec.h"

#include <wx/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace VeskCore {

namespace {

wxString ToHex(const unsigned char* data, size_t size, bool compact) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(size * 3);
    for (size_t i = 0; i < size; ++i) {
        if (i != 0 && !compact) {
            text += ':';
        }
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0x0F];
    }
    return wxString::FromAscii(text.data(), text.size());
}

// The UTF-8 bytes of the text without "-" and ":": the pairs are pairs of
// bytes, so a stray non-ASCII character spoils its pair and no other.
std::string WithoutSeparators(const wxString& text) {
    std::string digits = text.utf8_string();
    digits.erase(
        std::remove_if(digits.begin(), digits.end(), [](char c) { return c == '-' || c == ':'; }),
        digits.end());
    return digits;
}

// What wxString::ToULong accepts in base 16 (strtoul's rules, all of the pair
// consumed), so a leading blank or sign passes as it always has.
bool ParsePair(const std::string& digits, size_t at, unsigned char& byte) {
    const char pair[3] = {digits[at], digits[at + 1], '\0'};
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(pair, &end, 16);
    if (end != pair + 2 || errno == ERANGE || value > 0xFF) {
        return false;
    }
    byte = static_cast<unsigned char>(value);
    return true;
}

}  // namespace

wxString toHexString(const std::string& data, bool compact) {
    return ToHex(reinterpret_cast<const unsigned char*>(data.data()), data.size(), compact);
}

wxString toHexString(const wxMemoryBuffer& data, bool compact) {
    return ToHex(static_cast<const unsigned char*>(data.GetData()), data.GetDataLen(), compact);
}

std::string fromHexString(const wxString& text) {
    std::string out;
    const std::string digits = WithoutSeparators(text);
    if (digits.length() % 2 != 0) {
        wxLogError(wxS("fromHexString() - bad hex format: %.128s"), text);
        return out;
    }
    out.reserve(digits.length() / 2);
    for (size_t at = 0; at < digits.length(); at += 2) {
        unsigned char byte = 0;
        if (ParsePair(digits, at, byte)) {
            out += static_cast<char>(byte);
        } else {
            wxLogError(wxS("fromHexString() - bad hex format: %.128s"), text);
        }
    }
    return out;
}

bool ParseHex(const wxString& text, unsigned char* out, size_t capacity, size_t& length) {
    const std::string bytes = fromHexString(text);
    length = bytes.size();
    if (out == nullptr) {
        capacity = 0;
    }
    if (capacity < bytes.size()) {
        return false;
    }
    if (!bytes.empty()) {
        std::memcpy(out, bytes.data(), bytes.size());
    }
    return true;
}

bool isHexString(const wxString& text) {
    const std::string digits = WithoutSeparators(text);
    if (digits.empty() || digits.length() % 2 != 0) {
        return false;
    }
    unsigned char byte = 0;
    for (size_t at = 0; at < digits.length(); at += 2) {
        if (!ParsePair(digits, at, byte)) {
            return false;
        }
    }
    return true;
}

}  // namespace VeskCore
