#include "core/http/RsaKey.h"

#include <cstring>

namespace VeskCore {

CRsaKey::CRsaKey() = default;

CRsaKey::~CRsaKey() = default;

bool CRsaKey::Assign(const char* n, const char* e, const char* d, const char* p, const char* q) {
    const char* const hex[kNumbers] = {n, e, d, p, q};
    bool done = true;
    for (int i = 0; i < kNumbers && done; ++i)
        done = SetNumber(m_numbers[i], hex[i]);
    m_key.reset(Build());
    return done;
}

bool CRsaKey::IsValid() {
    return m_key != nullptr && RSA_check_key(m_key.get()) == 1;
}

bool CRsaKey::SetNumber(Number& number, const char* hex) {
    if (hex == nullptr || *hex == '\0') {
        number.reset();
        return true;
    }
    // BN_hex2bn takes a sign and the leading run of digits and ignores the
    // rest: "10001zz" would pass as 0x10001.
    const size_t digits = strspn(hex, "0123456789abcdefABCDEF");
    BIGNUM* parsed = nullptr;
    if (hex[digits] != '\0' || BN_hex2bn(&parsed, hex) == 0)
        return false;
    number.reset(parsed);
    return true;
}

BIGNUM* CRsaKey::Copy(int which) const {
    return m_numbers[which] != nullptr ? BN_dup(m_numbers[which].get()) : nullptr;
}

RSA* CRsaKey::Build() const {
    if (m_numbers[kN] == nullptr || m_numbers[kE] == nullptr)
        return nullptr;
    std::unique_ptr<RSA, Free> key(RSA_new());
    Number n(Copy(kN)), e(Copy(kE)), d(Copy(kD));
    // RSA_set0_* take the numbers only when they succeed.
    if (key == nullptr || n == nullptr || e == nullptr || (m_numbers[kD] != nullptr && !d) ||
        RSA_set0_key(key.get(), n.get(), e.get(), d.get()) != 1)
        return nullptr;
    n.release(), e.release(), d.release();
    if (m_numbers[kP] != nullptr && m_numbers[kQ] != nullptr) {
        Number p(Copy(kP)), q(Copy(kQ));
        if (p == nullptr || q == nullptr || RSA_set0_factors(key.get(), p.get(), q.get()) != 1)
            return nullptr;
        p.release(), q.release();
    }
    return key.release();
}

}  // namespace VeskCore
