#include "core/xml/SqlHashAggregate.h"

#include <openssl/evp.h>

#include "core/http/OpenSslUtil.h"

namespace VeskCore {
namespace {

// The group's state: the digest context, made at the group's first row.
EVP_MD_CTX** StateOf(wxSQLite3FunctionContext& context) {
    return static_cast<EVP_MD_CTX**>(context.GetAggregateStruct(sizeof(EVP_MD_CTX*)));
}

void Begin(wxSQLite3FunctionContext& context, EVP_MD_CTX*& digest) {
    const std::string name = context.GetString(1, wxS("sha1")).utf8_string();
    digest = EVP_MD_CTX_new();
    if (digest != nullptr)
        EVP_DigestInit_ex(digest, EVP_get_digestbyname(name.c_str()), nullptr);
}

}  // namespace

void CSqlHashAggregate::Aggregate(wxSQLite3FunctionContext& context) {
    EVP_MD_CTX** state = StateOf(context);
    if (state == nullptr || context.GetArgCount() != 2)
        return;
    if (*state == nullptr)
        Begin(context, *state);
    if (*state != nullptr)
        VeskCore::EVP_DigestUpdate(*state, context.GetString(0, wxEmptyString));
}

void CSqlHashAggregate::Finalize(wxSQLite3FunctionContext& context) {
    EVP_MD_CTX** state = StateOf(context);
    if (state == nullptr)
        return;
    if (*state == nullptr)
        Begin(context, *state);  // an empty group
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool done = *state != nullptr && EVP_DigestFinal_ex(*state, bytes, &length) == 1;
    EVP_MD_CTX_free(*state);
    *state = nullptr;
    if (!done) {
        context.SetResultNull();
        return;
    }
    wxMemoryBuffer digest;
    digest.AppendData(bytes, length);
    context.SetResult(digest);
}

}  // namespace VeskCore
