#include "core/common/Crypt.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "core/common/Scrub.h"
#include "core/common/Utf8.h"

namespace VeskCore {
namespace {

constexpr char kAlphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr int kMd5Rounds = 1000;
constexpr int kSha256Rounds = 5000;

// One digest fetched for the whole hash and one context reused for every
// round: OpenSSL 3 looks a digest up again on each init of a name-found one,
// which would cost more than the rounds themselves.
class Digest {
  public:
    explicit Digest(const char* name)
        : md(EVP_MD_fetch(nullptr, name, nullptr), &EVP_MD_free),
          context(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {}

    bool IsOk() const { return md != nullptr && context != nullptr; }
    size_t Size() const { return static_cast<size_t>(EVP_MD_get_size(md.get())); }
    void Begin() { EVP_DigestInit_ex2(context.get(), md.get(), nullptr); }
    void Add(const void* bytes, size_t length) { ::EVP_DigestUpdate(context.get(), bytes, length); }
    void Add(const std::string& bytes) { Add(bytes.data(), bytes.size()); }
    void End(unsigned char* out) { EVP_DigestFinal_ex(context.get(), out, nullptr); }

  private:
    std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> md;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context;
};

// The UTF-8 bytes of `text` up to its first NUL, in a string the caller
// scrubs: the password is a secret.
std::string BytesOf(const wxString& text) {
    std::string bytes;
    EncodeUTF8(text, bytes);
    const size_t nul = bytes.find('\0');
    if (nul != std::string::npos) {
        OPENSSL_cleanse(&bytes[nul], bytes.size() - nul);
        bytes.resize(nul);
    }
    return bytes;
}

// Wipes on every way out.
struct Wiped {
    unsigned char* bytes;
    size_t length;
    ~Wiped() { OPENSSL_cleanse(bytes, length); }
};

struct ScrubbedString {
    std::string& text;
    ~ScrubbedString() { Scrub(text); }
};

// Appends the crypt characters of the triples of `sum`, in the scheme's order.
struct Triple {
    int b2, b1, b0, count;
};
template <size_t N>
std::string Encode(const unsigned char* sum, const Triple (&order)[N]) {
    std::string text;
    for (const Triple& t : order) {
        unsigned char out[4];
        b64_from_24bit(out, t.b2 < 0 ? 0 : sum[t.b2], t.b1 < 0 ? 0 : sum[t.b1], sum[t.b0], t.count);
        text.append(reinterpret_cast<const char*>(out), t.count);
    }
    return text;
}

bool Md5Crypt(const std::string& key, const std::string& salt, std::string& hash) {
    static const char kMagic[] = "$1$";
    Digest md("MD5");
    if (!md.IsOk())
        return false;
    unsigned char alternate[16], sum[16];
    Wiped wipeAlternate{alternate, sizeof alternate}, wipeSum{sum, sizeof sum};
    md.Begin();
    md.Add(key), md.Add(salt), md.Add(key);
    md.End(alternate);

    md.Begin();
    md.Add(key), md.Add(kMagic, 3), md.Add(salt);
    for (size_t left = key.size(); left > 0; left -= std::min<size_t>(left, 16))
        md.Add(alternate, std::min<size_t>(left, 16));
    for (size_t bits = key.size(); bits != 0; bits >>= 1)
        md.Add((bits & 1) != 0 ? "" : key.c_str(), 1);  // a NUL, or the key's first byte
    md.End(sum);

    for (int round = 0; round < kMd5Rounds; ++round) {
        md.Begin();
        if ((round & 1) != 0)
            md.Add(key);
        else
            md.Add(sum, sizeof sum);
        if (round % 3 != 0)
            md.Add(salt);
        if (round % 7 != 0)
            md.Add(key);
        if ((round & 1) != 0)
            md.Add(sum, sizeof sum);
        else
            md.Add(key);
        md.End(sum);
    }
    static const Triple kOrder[] = {{0, 6, 12, 4}, {1, 7, 13, 4}, {2, 8, 14, 4},
                                    {3, 9, 15, 4}, {4, 10, 5, 4}, {-1, -1, 11, 2}};
    hash = Encode(sum, kOrder);
    return true;
}

// `length` bytes of `digest` repeated: the P and S sequences of the scheme.
void Repeated(const unsigned char* digest, size_t size, size_t length, std::string& out) {
    out.assign(length, '\0');
    for (size_t at = 0; at < length; at += size)
        memcpy(&out[at], digest, std::min(size, length - at));
}

bool Sha256Crypt(const std::string& key, const std::string& salt, std::string& hash) {
    Digest md("SHA256");
    if (!md.IsOk())
        return false;
    unsigned char alternate[32], sum[32], repeated[32];
    Wiped wipeAlternate{alternate, sizeof alternate}, wipeSum{sum, sizeof sum},
        wipeRepeated{repeated, sizeof repeated};
    md.Begin();
    md.Add(key), md.Add(salt), md.Add(key);
    md.End(alternate);

    md.Begin();
    md.Add(key), md.Add(salt);
    size_t left = key.size();
    for (; left > 32; left -= 32)
        md.Add(alternate, 32);
    md.Add(alternate, left);
    for (size_t bits = key.size(); bits > 0; bits >>= 1) {
        if ((bits & 1) != 0)
            md.Add(alternate, 32);
        else
            md.Add(key);
    }
    md.End(sum);

    std::string p, s;
    ScrubbedString wipeP{p}, wipeS{s};
    md.Begin();
    for (size_t i = 0; i < key.size(); ++i)
        md.Add(key);
    md.End(repeated);
    Repeated(repeated, 32, key.size(), p);
    md.Begin();
    for (int i = 0; i < 16 + sum[0]; ++i)
        md.Add(salt);
    md.End(repeated);
    Repeated(repeated, 32, salt.size(), s);

    for (int round = 0; round < kSha256Rounds; ++round) {
        md.Begin();
        if ((round & 1) != 0)
            md.Add(p);
        else
            md.Add(sum, sizeof sum);
        if (round % 3 != 0)
            md.Add(s);
        if (round % 7 != 0)
            md.Add(p);
        if ((round & 1) != 0)
            md.Add(sum, sizeof sum);
        else
            md.Add(p);
        md.End(sum);
    }
    static const Triple kOrder[] = {{0, 10, 20, 4}, {21, 1, 11, 4}, {12, 22, 2, 4}, {3, 13, 23, 4},
                                    {24, 4, 14, 4}, {15, 25, 5, 4}, {6, 16, 26, 4}, {27, 7, 17, 4},
                                    {18, 28, 8, 4}, {9, 19, 29, 4}, {-1, 31, 30, 3}};
    hash = Encode(sum, kOrder);
    return true;
}

}  // namespace

int b64_from_24bit(unsigned char* out, unsigned char b2, unsigned char b1, unsigned char b0,
                   int count) {
    unsigned int number = (static_cast<unsigned int>(b2) << 16) | (b1 << 8) | b0;
    for (int i = 0; i < count; ++i, number >>= 6)
        out[i] = static_cast<unsigned char>(kAlphabet[number & 0x3f]);
    return count;
}

bool MakeVeskHashedPassword(wxString type, const wxString& salt, const wxString& password,
                            wxString& result) {
    if (type != wxS("1") && type != wxS("5"))
        return false;
    std::string key = BytesOf(password);
    ScrubbedString wipeKey{key};
    const std::string saltBytes = BytesOf(salt);
    std::string hash;
    const bool made =
        type == wxS("1") ? Md5Crypt(key, saltBytes, hash) : Sha256Crypt(key, saltBytes, hash);
    if (!made)
        return false;
    result = wxS("$") + type + wxS("$") + salt + wxS("$") + wxString::FromAscii(hash.c_str());
    return true;
}

bool MakeVeskHashedPassword(wxString type, const wxString& password, wxString& result) {
    unsigned char random[6] = {};
    RAND_bytes(random, sizeof random);
    unsigned char salt[8];
    b64_from_24bit(salt, random[0], random[1], random[2], 4);
    b64_from_24bit(salt + 4, random[3], random[4], random[5], 4);
    return MakeVeskHashedPassword(
        type, wxString::FromAscii(reinterpret_cast<const char*>(salt), sizeof salt), password,
        result);
}

bool GetVeskHashedPassword(const wxString& hashed, wxString& type, wxString& salt, wxString& hash) {
    const size_t first = hashed.find('$');
    const size_t second = first == wxString::npos ? first : hashed.find('$', first + 1);
    const size_t third = second == wxString::npos ? second : hashed.find('$', second + 1);
    if (third == wxString::npos)
        return false;
    type = hashed.substr(first + 1, second - first - 1);
    salt = hashed.substr(second + 1, third - second - 1);
    hash = hashed.substr(third + 1);
    return true;
}

bool GetVeskHashedPassword(const wxString& hashed, wxString& type, wxString& salt) {
    wxString hash;
    return GetVeskHashedPassword(hashed, type, salt, hash);
}

}  // namespace VeskCore
