// Small text conversions every layer shares: numbers and sets to text, token
// splitting, ROT13, errno text, and the "|"-safe field text of numbered
// messages.
//
// Text is wxString (code points); where an operation is defined byte by byte it
// works on the UTF-8 form of the text, and a `char` parameter is one byte taken
// as Latin-1 (a lone byte is never a UTF-8 character of its own).
//
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <wx/arrstr.h>
#include <wx/hashmap.h>
#include <wx/hashset.h>
#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

struct _GUID;

WX_DECLARE_HASH_SET(wxString, wxStringHash, wxStringEqual, WxStringSet);

// wx's integer hash has no `long long` overload where `long` is 64 bits wide.
struct Int64Hash {
    size_t operator()(long long value) const { return static_cast<size_t>(value ^ (value >> 32)); }
};
struct Int64Equal {
    bool operator()(long long a, long long b) const { return a == b; }
};
WX_DECLARE_HASH_SET(long long, Int64Hash, Int64Equal, Int64Set);
WX_DECLARE_STRING_HASH_MAP(Int64Set, MapStringToInt64Set);

// One byte as a character (Latin-1).
inline wxUniChar CharFromByte(char c) {
    return wxUniChar(static_cast<int>(static_cast<unsigned char>(c)));
}

VESK_EXPORT wxString toString(long long value);
VESK_EXPORT wxString toString(long value);
// Printed as signed: values from 2^63 up come out negative. Callers parse the
// text back into signed 64-bit numbers, so this is kept on purpose.
VESK_EXPORT wxString toString(unsigned long value);
VESK_EXPORT wxString toString(int value);
// "true" or "false".
VESK_EXPORT wxString toString(bool value);
// Members in the set's iteration order (which nothing may rely on), joined by
// `separator`, with none at the ends.
VESK_EXPORT wxString toString(const WxStringSet& set, char separator);
// Defined with the GUID helpers (Guid.h).
VESK_EXPORT wxString toString(const _GUID* guid);

// The items of a wxArrayString-like container in order, joined by
// `separator`; with `parentheses`, wrapped in "(" and ")" (so "()" when empty).
template <typename T>
wxString toList(const T& items, char separator, bool parentheses) {
    wxString out;
    if (parentheses) {
        out += wxUniChar('(');
    }
    for (size_t i = 0; i < items.size(); ++i) {
        if (i != 0) {
            out += CharFromByte(separator);
        }
        out += items[i];
    }
    if (parentheses) {
        out += wxUniChar(')');
    }
    return out;
}

// Appends to `out` (anything with push_back(wxString)) the pieces of `text`
// between runs of the characters in `delimiters` (UTF-8; null is none).
// Runs of delimiters, leading or trailing ones included, never yield empty
// tokens; tokens are not trimmed.
template <typename T>
void Tokenize(T& out, const wxString& text, const char* delimiters) {
    const wxString delims = delimiters != nullptr ? wxString::FromUTF8(delimiters) : wxString();
    size_t pos = 0;
    for (;;) {
        const size_t start = text.find_first_not_of(delims, pos);
        if (start == wxString::npos) {
            return;
        }
        const size_t end = text.find_first_of(delims, start);
        if (end == wxString::npos) {
            out.push_back(text.substr(start));
            return;
        }
        out.push_back(text.substr(start, end - start));
        pos = end + 1;
    }
}

// ROT13 of ASCII letters, case kept; every other byte unchanged.
VESK_EXPORT char RChar(char c);
VESK_EXPORT wxString R(const wxString& text);

// strerror text of `error`; empty if the C library has none.
VESK_EXPORT wxString ErrnoToString(int error);

// A copy of `text` with `from` replaced by `to` (UTF-8), once or everywhere.
// A null or empty `from` leaves the copy unchanged; a null `to` is empty.
VESK_EXPORT wxString Replace(const wxString& text, const char* from, const char* to, bool all);

// Every "|" turned into the broken bar U+00A6, so that free text can stand in
// a field of a numbered log message without splitting it.
VESK_EXPORT wxString ReplaceBars(const wxString& text);

// Adds `value` to the set at `key`, creating an empty set for a new key.
VESK_EXPORT void AddToMapSet(MapStringToInt64Set& map, const wxString& key, long long value);

}  // namespace VeskCore
