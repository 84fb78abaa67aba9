#include "core/common/SecureString.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <wx/log.h>
#include <wx/string.h>

#include <cstdlib>
#include <cstring>

#include "core/common/Base64.h"

namespace {

// Text of the oldest queued OpenSSL error, taken off the queue, with its data
// text in brackets.
wxString TakeOpenSslError() {
    const char* data = nullptr;
    int flags = 0;
    const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
    char text[256] = {};
    ERR_error_string_n(code, text, sizeof text);
    wxString out = wxString::FromUTF8(text);
    if (code != 0) {
        out += wxS(" [") + wxString::FromUTF8(data != nullptr ? data : "") + wxS("]");
    }
    return out;
}

}  // namespace

wxSecureString::wxSecureString(const wxSecureString& other) {
    if (other.m_data == nullptr) {
        return;
    }
    m_data = static_cast<char*>(std::malloc(other.m_length));
    if (m_data != nullptr) {
        std::memcpy(m_data, other.m_data, other.m_length);
        m_length = other.m_length;
    }
}

wxSecureString::~wxSecureString() {
    Scrub();
}

void wxSecureString::Scramble(char* data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<char>(static_cast<unsigned char>(data[i]) ^
                                    static_cast<unsigned char>(m_mask + i));
    }
}

wxSecureString& wxSecureString::assign(const char* text) {
    Scrub();
    if (text == nullptr || *text == '\0') {
        return *this;
    }
    m_data = strdup(text);
    if (m_data != nullptr) {
        m_length = std::strlen(m_data);
        Scramble(m_data, m_length);
    }
    return *this;
}

void wxSecureString::Scrub() {
    if (m_data != nullptr) {
        OPENSSL_cleanse(m_data, m_length);
        std::free(m_data);
        m_data = nullptr;
    }
    m_length = 0;
}

void wxSecureString::getContentsUtf8(char*& out, size_t& length, bool /*unused*/) const {
    out = nullptr;
    length = m_length;
    if (m_length == 0) {
        return;
    }
    out = static_cast<char*>(std::malloc(m_length + 1));
    if (out == nullptr) {
        return;
    }
    std::memcpy(out, m_data, m_length);
    Scramble(out, m_length);
    out[m_length] = '\0';
}

bool wxSecureString::getContentsBase64(void*& out, size_t& length) const {
    out = nullptr;
    length = 0;
    char* text = nullptr;
    size_t textLength = 0;
    getContentsUtf8(text, textLength, false);
    if (text == nullptr) {
        return false;
    }
    auto* bytes = static_cast<unsigned char*>(std::malloc(textLength));  // decoded is shorter
    if (bytes == nullptr) {
        OPENSSL_cleanse(text, textLength);
        std::free(text);
        return false;
    }
    ERR_clear_error();
    size_t got = 0;
    VeskCore::DecodeBase64Blocks(
        text, textLength, false, [bytes, &got, textLength](const char* data, size_t size) {
            const size_t room = textLength - got;  // never short: decoding shrinks the text
            std::memcpy(bytes + got, data, size < room ? size : room);
            got += size < room ? size : room;
        });
    while (ERR_peek_error() != 0) {
        wxLogWarning(wxS("Base64 decode OpenSSL %.256s"), TakeOpenSslError());
    }
    OPENSSL_cleanse(text, textLength);
    std::free(text);
    out = bytes;
    length = got;
    return true;
}
