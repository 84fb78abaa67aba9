#include "core/common/HexCodec.h"

#include <wx/log.h>

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

wxString WithoutSeparators(const wxString& text) {
    wxString digits(text);
    digits.Replace(wxS("-"), wxString(), true);
    digits.Replace(wxS(":"), wxString(), true);
    return digits;
}

bool ParsePair(const wxString& digits, size_t at, unsigned char& byte) {
    unsigned long value = 0;
    if (!digits.substr(at, 2).ToULong(&value, 16) || value > 0xFF) {
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
    const wxString digits = WithoutSeparators(text);
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
    const wxString digits = WithoutSeparators(text);
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
