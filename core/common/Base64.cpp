#include "core/common/Base64.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <wx/log.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <memory>

namespace VeskCore {

namespace {

struct BioChainFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioChain = std::unique_ptr<BIO, BioChainFree>;

// A base64 filter on top of `sink`; takes ownership of `sink`.
BioChain Base64Over(BIO* sink, bool lines) {
    BioChain chain(sink);
    if (sink == nullptr) {
        return chain;
    }
    BIO* filter = BIO_new(BIO_f_base64());
    if (filter == nullptr) {
        return BioChain();
    }
    if (!lines) {
        BIO_set_flags(filter, BIO_FLAGS_BASE64_NO_NL);
    }
    return BioChain(BIO_push(filter, chain.release()));  // the filter now owns the sink
}

// Base64 is 4 characters for every 3 bytes, plus a newline per 64 characters
// when broken into lines.
size_t EncodedSize(size_t size, bool lineBreaks) {
    const size_t characters = 4 * ((size + 2) / 3);
    return characters + (lineBreaks ? characters / 64 + 1 : 0);
}

}  // namespace

// Straight into the result, without a filter BIO between: the encoder is
// the same (lines of 64 characters, each ended by a newline), the copies
// through the BIO's buffers are not.
std::string toBase64StringASCII(const std::string& data, bool lineBreaks) {
    if (data.size() > static_cast<size_t>(INT_MAX)) {
        wxLogError(wxS("toBase64StringASCII() - BIO_write() failed."));
        return std::string();
    }
    if (data.empty())
        return std::string();  // the encoder refuses no input
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    const int length = static_cast<int>(data.size());
    std::string text(EncodedSize(data.size(), lineBreaks) + 1, '\0');
    auto* out = reinterpret_cast<unsigned char*>(&text[0]);
    if (!lineBreaks) {
        text.resize(static_cast<size_t>(EVP_EncodeBlock(out, bytes, length)));
        return text;
    }
    std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> encoder(EVP_ENCODE_CTX_new(),
                                                                            &EVP_ENCODE_CTX_free);
    int written = 0;
    int last = 0;
    if (!encoder) {
        wxLogError(wxS("toBase64StringASCII() - BIO_write() failed."));
        return std::string();
    }
    EVP_EncodeInit(encoder.get());
    if (EVP_EncodeUpdate(encoder.get(), out, &written, bytes, length) != 1) {
        wxLogError(wxS("toBase64StringASCII() - BIO_write() failed."));
        return std::string();
    }
    EVP_EncodeFinal(encoder.get(), out + written, &last);
    text.resize(static_cast<size_t>(written + last));
    return text;
}

wxString toBase64String(const std::string& data, bool lineBreaks) {
    const std::string text = toBase64StringASCII(data, lineBreaks);
    return wxString::FromAscii(text.data(), text.size());
}

void DecodeBase64Blocks(const char* text, size_t length, bool lines,
                        const std::function<void(const char* data, size_t size)>& sink) {
    if (text == nullptr || length == 0 || length > static_cast<size_t>(INT_MAX)) {
        return;
    }
    BioChain chain = Base64Over(BIO_new_mem_buf(text, static_cast<int>(length)), lines);
    if (!chain) {
        return;
    }
    char block[512];
    int got = 0;
    while ((got = BIO_read(chain.get(), block, sizeof block)) >= 1) {
        sink(block, static_cast<size_t>(got));
    }
    chain.reset();
    OPENSSL_cleanse(block, sizeof block);
}

std::string FromBase64(const char* text) {
    std::string out;
    if (text == nullptr) {
        return out;
    }
    while (*text != '\0' && std::isspace(static_cast<unsigned char>(*text))) {
        ++text;
    }
    // The filter reads either form, but must be told which one it gets.
    const bool lines = std::strchr(text, '\n') != nullptr;
    const size_t length = std::strlen(text);
    // Room for all of it at once: no growing, and so no copy of decoded
    // (perhaps secret) bytes left behind in a freed buffer.
    out.reserve(length / 4 * 3 + 3);
    DecodeBase64Blocks(text, length, lines,
                       [&out](const char* data, size_t size) { out.append(data, size); });
    return out;
}

std::string fromBase64String(const wxString& text) {
    return FromBase64(text.utf8_string().c_str());
}

}  // namespace VeskCore
