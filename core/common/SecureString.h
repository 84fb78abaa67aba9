// Secret text (passwords, keys) as records carry it: never held as the plain
// bytes while at rest, wiped when released.
//
// At rest each byte is XOR-ed with a position-dependent mask. That is no
// encryption: it keeps the secret from standing verbatim in memory (core
// dumps, freed heap) and nothing outside this class sees the scrambled form.
// Plain copies exist only where a caller asks for one, and the caller wipes
// them (see getContentsUtf8).
//
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>

#include "core/common/Export.h"

class VESK_EXPORT wxSecureString {
  public:
    wxSecureString() = default;
    // A copy of the scrambled bytes, in a buffer of its own.
    wxSecureString(const wxSecureString& other);
    // Filled only by assign() and copying; no assignment between objects.
    wxSecureString& operator=(const wxSecureString&) = delete;
    ~wxSecureString();

    // Replaces the contents with the NUL-terminated `text` (UTF-8); null or ""
    // leaves the object empty. The old contents are wiped first.
    wxSecureString& assign(const char* text);

    // Wipes and frees the contents; the object is empty afterwards. Idempotent.
    void Scrub();

    // A new plain copy of the contents. `length` is set to the length; `out`
    // is null when the object is empty (or malloc failed), else a malloc block
    // of length + 1 bytes ending in a NUL. The caller owns the block and must
    // OPENSSL_cleanse and free it. `unused` is kept for callers; it has no
    // effect.
    void getContentsUtf8(char*& out, size_t& length, bool unused) const;

    // The contents read as single-line Base64, decoded into a new malloc block
    // of `length` bytes that the caller must OPENSSL_cleanse and free. False
    // (with `out` null, `length` 0) if the object is empty or memory runs out.
    // Bad Base64 is not a failure: what decoded before it is returned, and any
    // error the decoder queued in OpenSSL is logged as a warning.
    bool getContentsBase64(void*& out, size_t& length) const;

    size_t length() const { return m_length; }
    bool empty() const { return m_length == 0; }

  private:
    // XOR-ing is its own inverse: scrambles and unscrambles `size` bytes.
    static void Scramble(char* data, size_t size);

    static const unsigned char m_mask = 0xA7;

    char* m_data = nullptr;  // scrambled bytes, from malloc; null when empty
    size_t m_length = 0;
};
