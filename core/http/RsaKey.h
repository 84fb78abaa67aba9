// An RSA key that scripts make from its numbers, given as hexadecimal text.
//
// The numbers n, e, d, p, q are kept aside, and a key is built from them after
// every Assign once n and e are both present (OpenSSL 3 takes no modulus
// without its exponent). It holds d when d is set, and p and q when both are
// set. A key already handed to a CEvpPkey (AssignRSA) is that key's own
// reference: a later Assign builds a new key and leaves it as it was.
//
// Ownership: the numbers and the key belong to the object; the numbers are
// wiped when freed, and so are the key's private parts (RSA_free).
// Thread safety: an object belongs to one thread at a time.
#pragma once

#include <openssl/bn.h>
#include <openssl/rsa.h>

#include <memory>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CRsaKey {
  public:
    CRsaKey();
    ~CRsaKey();
    CRsaKey(const CRsaKey&) = delete;
    CRsaKey& operator=(const CRsaKey&) = delete;

    // Sets n, e, d, p, q in this order from hexadecimal text: hex digits only,
    // either case, no sign or prefix. A null or empty text clears its number.
    // At the first other text it stops and returns false: the numbers before
    // it are set, that one and those after keep their values. The key is
    // rebuilt in both cases.
    bool Assign(const char* n, const char* e, const char* d, const char* p, const char* q);
    // Whether OpenSSL finds the key whole and consistent (RSA_check_key gives
    // 1): false for a public key, and when there is no key.
    bool IsValid();

    // The key, owned by this object; null while n or e is missing. For
    // AssignRSA and the Lua layer's base class.
    RSA* Handle() const { return m_key.get(); }

  private:
    struct Free {
        void operator()(BIGNUM* number) const { BN_clear_free(number); }
        void operator()(RSA* key) const { RSA_free(key); }
    };
    using Number = std::unique_ptr<BIGNUM, Free>;
    enum { kN, kE, kD, kP, kQ, kNumbers };

    static bool SetNumber(Number& number, const char* hex);
    BIGNUM* Copy(int which) const;
    RSA* Build() const;

    Number m_numbers[kNumbers];
    std::unique_ptr<RSA, Free> m_key;
};

}  // namespace VeskCore
