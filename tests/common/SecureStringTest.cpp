// Secrets: scrambled at rest, wiped before their memory goes back to the heap,
// and written without leaving plain copies behind.
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <wx/mstream.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "core/common/Scrub.h"
#include "core/common/SecureString.h"
#include "core/common/SecureTextOutputStream.h"
#include "tests/common/CommonTestSupport.h"

using VeskCore::Scrub;

namespace {

const char kSecret[] =
    "correct-horse-battery-staple_0123456789_and_then_some";  // no blanks: Scrub writes those
constexpr size_t kLength = sizeof kSecret - 1;

// The object's first field is its buffer; the tests look at it directly.
static_assert(std::is_standard_layout<wxSecureString>::value, "layout is peeked below");
const char* StoredBytes(const wxSecureString& s) {
    return *reinterpret_cast<const char* const*>(&s);
}

// How many of the characters of `was`, past the allocator's bookkeeping, still stand in `block`.
size_t Left(const void* block, const char* was, size_t width = 1) {
    return VeskTest::BytesLeft(block, was, (16 + width - 1) / width, kLength, width);
}

TEST(SecureStringTest, ContentsAreScrambledAtRestAndReadBackPlain) {
    wxSecureString secret;
    secret.assign(kSecret);
    EXPECT_EQ(memmem(StoredBytes(secret), secret.length(), "horse", 5), nullptr);
    char* plain = nullptr;
    size_t length = 0;
    secret.getContentsUtf8(plain, length, true);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(std::string(plain, length + 1), std::string(kSecret, kLength + 1));
    OPENSSL_cleanse(plain, length);
    free(plain);

    wxSecureString copy(secret);  // its own buffer
    secret.Scrub();
    secret.Scrub();
    EXPECT_TRUE(secret.empty());
    copy.getContentsUtf8(plain, length, false);
    EXPECT_STREQ(plain, kSecret);
    free(plain);
    for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
        copy.assign(empty);
        copy.getContentsUtf8(plain, length, false);
        EXPECT_EQ(plain, nullptr);
        EXPECT_EQ(length, 0u);
    }
}

TEST(SecureStringTest, ReleasedMemoryNoLongerHoldsTheSecret) {
    // Controls: memory released without wiping still shows the text.
    char* unwiped = strdup(kSecret);
    free(unwiped);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuse-after-free"
    EXPECT_EQ(Left(unwiped, kSecret), kLength - 16);
#pragma GCC diagnostic pop
    wxString control = wxString::FromUTF8(kSecret);
    const void* controlBuffer = control.wx_str();
    wxString().swap(control);
    EXPECT_EQ(Left(controlBuffer, kSecret, sizeof(wchar_t)), kLength - 4);

    auto* secret = new wxSecureString;
    secret->assign(kSecret);
    const char* stored = StoredBytes(*secret);
    const std::string scrambled(stored, kLength);
    delete secret;
    EXPECT_EQ(Left(stored, scrambled.data()), 0u);  // neither the scrambled form
    EXPECT_EQ(Left(stored, kSecret), 0u);           // nor the plain text

    wxString wide = wxString::FromUTF8(kSecret);
    const wxString copy(wide);
    const void* buffer = wide.wx_str();
    Scrub(wide);
    EXPECT_TRUE(wide.empty());
    EXPECT_EQ(Left(buffer, kSecret, sizeof(wchar_t)), 0u);
    EXPECT_EQ(copy.utf8_string(), kSecret);  // copies own their buffers here

    std::string text(kSecret);  // scrubbed but kept for reuse
    Scrub(text);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(Left(text.data(), kSecret), 0u);
}

TEST(SecureStringTest, Base64ContentsDecodeAndBadTextIsNoFailure) {
    wxSecureString secret;
    void* bytes = nullptr;
    size_t length = 99;
    EXPECT_FALSE(secret.getContentsBase64(bytes, length));
    EXPECT_EQ(length, 0u);
    secret.assign("c2VjcmV0AAE=");
    ASSERT_TRUE(secret.getContentsBase64(bytes, length));
    EXPECT_EQ(std::string(static_cast<char*>(bytes), length), std::string("secret\0\1", 8));
    free(bytes);
    secret.assign("c2VjcmV0!!!");
    ASSERT_TRUE(secret.getContentsBase64(bytes, length));
    EXPECT_EQ(std::string(static_cast<char*>(bytes), length), std::string("secret", length));
    free(bytes);
}

TEST(SecureTextOutputStreamTest, NewlinesFollowTheModeAndTextIsUtf8) {
    const wxString text = wxString::FromUTF8("a\nb\xC3\xA9\n") + wxUniChar(0x1F600);
    for (const wxEOL mode : {wxEOL_DOS, wxEOL_MAC}) {
        wxMemoryOutputStream memory;
        wxSecureTextOutputStream out(memory, mode);
        out << text;  // through the virtual WriteString
        std::string written(memory.GetLength(), '\0');
        memory.CopyTo(&written[0], written.size());
        const char* eol = mode == wxEOL_DOS ? "\r\n" : "\r";
        EXPECT_EQ(written, std::string("a") + eol + "b\xC3\xA9" + eol + "\xF0\x9F\x98\x80");
    }
}

}  // namespace
