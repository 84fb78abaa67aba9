// Password hashes against the references: libxcrypt's crypt(3) in process,
// and `openssl passwd`, over random salts and passwords.
#include <crypt.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "core/common/Crypt.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/Tools.h"

using namespace VeskCore;

namespace {

const char kAlphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

struct Case {
    std::string salt, password;
};

// Passwords of 0 to 200 bytes: printable ASCII and two- to four-byte UTF-8
// characters (no newline: `openssl passwd` reads one password a line).
std::string RandomPassword(std::mt19937& random) {
    static const char* const kWide[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
    std::string text;
    const size_t length = random() % 201;
    while (text.size() < length) {
        if (random() % 5 == 0)
            text += kWide[random() % 3];
        else
            text += static_cast<char>(' ' + random() % 95);
    }
    return text;
}

std::string RandomSalt(std::mt19937& random, size_t longest) {
    std::string salt(1 + random() % longest, '.');
    for (char& c : salt)
        c = kAlphabet[random() % 64];
    return salt;
}

std::string Hash(const char* type, const std::string& salt, const std::string& password) {
    wxString result;
    EXPECT_TRUE(MakeVeskHashedPassword(wxString::FromAscii(type), wxString::FromUTF8(salt),
                                       wxString::FromUTF8(password), result));
    return result.utf8_string();
}

std::string Crypt(const char* type, const std::string& salt, const std::string& password) {
    crypt_data data{};
    const std::string setting = "$" + std::string(type) + "$" + salt + "$";
    const char* hashed = crypt_r(password.c_str(), setting.c_str(), &data);
    return hashed != nullptr ? hashed : "";
}

// What `openssl passwd` gives for each password under one salt, in order.
std::vector<std::string> OpensslPasswd(const char* type, const std::string& salt,
                                       const std::vector<std::string>& passwords) {
    VeskTest::ScratchDir dir;
    std::string lines;
    for (const std::string& password : passwords)
        lines += password + "\n";
    VeskTest::WriteFile(dir / "passwords", lines);
    const std::string out =
        VeskTest::ToolOutput("openssl passwd -" + std::string(type) + " -salt '" + salt + "' -in " +
                             (dir / "passwords"));
    std::vector<std::string> hashes;
    for (size_t start = 0, end; (end = out.find('\n', start)) != std::string::npos; start = end + 1)
        hashes.push_back(out.substr(start, end - start));
    return hashes;
}

TEST(CryptTest, MatchesCryptAndOpensslWithinThePublishedLimits) {
    VESK_SKIP_WITHOUT_TOOLS("openssl");
    std::mt19937 random(20261125);
    for (const auto& [type, longestSalt] : {std::pair<const char*, size_t>{"1", 8}, {"5", 16}}) {
        // 40 salts of 30 passwords: 1200 cases a scheme, each against both references.
        for (int s = 0; s < 40; ++s) {
            const std::string salt = RandomSalt(random, longestSalt);
            std::vector<std::string> passwords(30);
            for (std::string& password : passwords)
                password = RandomPassword(random);
            passwords[0] = "";
            passwords[1] = std::string(200, 'p');
            const std::vector<std::string> reference = OpensslPasswd(type, salt, passwords);
            ASSERT_EQ(reference.size(), passwords.size());
            for (size_t i = 0; i < passwords.size(); ++i) {
                const std::string ours = Hash(type, salt, passwords[i]);
                ASSERT_EQ(ours, Crypt(type, salt, passwords[i]))
                    << "$" << type << "$" << salt << " '" << passwords[i] << "'";
                // openssl prints "<NULL>" for an empty line.
                if (!passwords[i].empty()) {
                    ASSERT_EQ(ours, reference[i]) << "$" << type << "$" << salt;
                }
            }
        }
    }
}

TEST(CryptTest, WholeSaltsDollarSignsAndUnknownTypes) {
    const std::string salt20 = "abcdefghijklmnopqrst";
    for (const auto& [type, published] : {std::pair<const char*, size_t>{"1", 8}, {"5", 16}}) {
        const std::string whole = Hash(type, salt20, "secret");
        EXPECT_EQ(whole.substr(0, 3 + salt20.size() + 1),
                  "$" + std::string(type) + "$" + salt20 + "$");
        // crypt(3) cuts the salt where the scheme ends it; the whole salt is hashed here.
        EXPECT_NE(whole.substr(whole.rfind('$')),
                  Crypt(type, salt20, "secret").substr(Crypt(type, salt20, "secret").rfind('$')));
        EXPECT_EQ(Crypt(type, salt20, "secret"), Hash(type, salt20.substr(0, published), "secret"));
        // A "$" is part of the salt, which changes the hash.
        EXPECT_NE(Hash(type, "ab$cd", "secret").substr(7), Hash(type, "abcd", "secret").substr(6));
        EXPECT_EQ(Hash(type, "ab$cd", "secret").substr(0, 9), "$" + std::string(type) + "$ab$cd$");
    }
    wxString result = wxS("untouched");
    for (const wxChar* type : {wxS("2"), wxS(""), wxS("6"), wxS("15")})
        EXPECT_FALSE(MakeVeskHashedPassword(type, wxS("salt"), wxS("pw"), result)) << type;
    EXPECT_EQ(result, wxS("untouched"));
}

TEST(CryptTest, MadeSaltsAndSplittingAValue) {
    wxString first, second, type, salt, hash;
    ASSERT_TRUE(MakeVeskHashedPassword(wxS("5"), wxS("pw"), first));
    ASSERT_TRUE(MakeVeskHashedPassword(wxS("5"), wxS("pw"), second));
    EXPECT_NE(first, second);
    ASSERT_TRUE(GetVeskHashedPassword(wxS("prefix") + first, type, salt, hash));
    EXPECT_EQ(type, wxS("5"));
    EXPECT_EQ(salt.size(), 8u);
    EXPECT_EQ(salt.utf8_string().find_first_not_of(kAlphabet), std::string::npos);
    EXPECT_EQ(hash.size(), 43u);
    // Checking a password: hash it again with the stored type and salt.
    wxString again;
    ASSERT_TRUE(MakeVeskHashedPassword(type, salt, wxS("pw"), again));
    EXPECT_EQ(again, first);
    ASSERT_TRUE(MakeVeskHashedPassword(wxS("1"), wxS(""), again));
    ASSERT_TRUE(GetVeskHashedPassword(again, type, salt));
    EXPECT_EQ(type, wxS("1"));

    wxString keptType = wxS("t"), keptSalt = wxS("s"), keptHash = wxS("h");
    EXPECT_FALSE(GetVeskHashedPassword(wxS("$1$only two"), keptType, keptSalt, keptHash));
    EXPECT_EQ(keptType + keptSalt + keptHash, wxS("tsh"));

    unsigned char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(b64_from_24bit(out, 1, 2, 3, 0), 0);
    EXPECT_EQ(b64_from_24bit(out, 1, 2, 3, -2), -2);
    EXPECT_EQ(std::string(out, out + 4), "xxxx");
}

}  // namespace
