// Salted one-way password hashes in the text format of crypt(3): "$1$" (the
// MD5 scheme) and "$5$" (the SHA-256 scheme), computed with OpenSSL's
// digests. For hosts of the library; nothing in the library calls them.
//
// The value is "$type$salt$hash". Against the published schemes, on purpose:
// the salt is never cut (all of it goes into the hash), a "$" in it does not
// end it, and the SHA-256 form has no rounds field (always 5000 rounds). For
// a salt within the published limits the result equals crypt(3)'s.
//
// To check a password: split the stored value, hash the password with its
// type and salt, and compare the whole texts.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// Writes `count` characters of the crypt alphabet ("./0-9A-Za-z") for the
// 24-bit number b2 b1 b0 (b2 the highest byte), lowest 6 bits first.
// Returns `count`; a count below 1 writes nothing.
VESK_EXPORT int b64_from_24bit(unsigned char* out, unsigned char b2, unsigned char b1,
                               unsigned char b0, int count);

// `result` = "$" type "$" salt "$" hash of `password` (its UTF-8 bytes up to
// the first NUL) under `salt` (the same). False, with `result` unchanged, for
// a type other than "1" and "5", or when the digest is not to be had.
VESK_EXPORT bool MakeVeskHashedPassword(wxString type, const wxString& salt,
                                        const wxString& password, wxString& result);
// The same with a fresh random salt of 8 characters of the crypt alphabet.
VESK_EXPORT bool MakeVeskHashedPassword(wxString type, const wxString& password, wxString& result);

// Splits a value at its first three "$": the text between the first and the
// second is the type, between the second and the third the salt, the rest the
// hash; anything before the first is ignored. False, outputs unchanged, when
// there are fewer than three.
VESK_EXPORT bool GetVeskHashedPassword(const wxString& hashed, wxString& type, wxString& salt,
                                       wxString& hash);
VESK_EXPORT bool GetVeskHashedPassword(const wxString& hashed, wxString& type, wxString& salt);

}  // namespace VeskCore
