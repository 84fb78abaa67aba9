#include "core/common/Scrub.h"

#include <openssl/crypto.h>

#include <cstring>

namespace VeskCore {

void Scrub(std::string& text) {
    if (text.capacity() == 0) {
        return;
    }
    // capacity() excludes the terminator, which is not secret.
    std::memset(text.data(), ' ', text.capacity());
    // The buffer lives on, but keep the compiler from dropping a store that
    // no later read of the (now empty) string could observe.
    asm volatile("" : : "r"(text.data()) : "memory");
    text.clear();
}

void Scrub(wxString& text) {
    if (text.capacity() == 0) {
        return;
    }
    // wxString stores a std::wstring here; its characters are a contiguous
    // buffer of capacity() + 1 elements, terminator included, which is what
    // we wipe before the buffer goes back to the heap.
    auto* buffer = const_cast<wchar_t*>(text.wx_str());
    OPENSSL_cleanse(buffer, (text.capacity() + 1) * sizeof(wchar_t));
    wxString().swap(text);
}

}  // namespace VeskCore
