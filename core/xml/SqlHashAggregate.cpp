#include "core/xml/SqlHashAggregate.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include "core/http/OpenSslUtil.h"

namespace VeskCore {
namespace {

// The group's state: the digest context, made at the group's first row.
EVP_MD_CTX** StateOf(wxSQLite3FunctionContext& context) {
    return static_cast<EVP_MD_CTX**>(context.GetAggregateStruct(sizeof(EVP_MD_CTX*)));
}

// An unknown digest name leaves the state empty, so the result is NULL, and
// leaves no error behind on the thread's queue for a later message to quote.
void Begin(wxSQLite3FunctionContext& context, EVP_MD_CTX*& digest) {
    const std::string name = context.GetString(1, wxS("sha1")).utf8_string();
    ERR_set_mark();
    const EVP_MD* method = EVP_get_digestbyname(name.c_str());
    digest = method != nullptr ? EVP_MD_CTX_new() : nullptr;
    if (digest != nullptr && EVP_DigestInit_ex(digest, method, nullptr) != 1) {
        EVP_MD_CTX_free(digest);
        digest = nullptr;
    }
    ERR_pop_to_mark();
}

void Step(wxSQLite3FunctionContext& context) {
    EVP_MD_CTX** state = StateOf(context);
    if (state == nullptr || context.GetArgCount() != 2)
        return;
    if (*state == nullptr)
        Begin(context, *state);
    if (*state != nullptr)
        VeskCore::EVP_DigestUpdate(*state, context.GetString(0, wxEmptyString));
}

void Finish(wxSQLite3FunctionContext& context) {
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

// An exception (memory running out) must not cross SQLite's C frames: it
// becomes the statement's error.
template <class Work>
void Guarded(wxSQLite3FunctionContext& context, Work work) {
    try {
        work(context);
    } catch (const std::exception& error) {
        context.SetResultError(wxString::FromUTF8(error.what()));
    }
}

}  // namespace

void CSqlHashAggregate::Aggregate(wxSQLite3FunctionContext& context) {
    Guarded(context, Step);
}

void CSqlHashAggregate::Finalize(wxSQLite3FunctionContext& context) {
    Guarded(context, Finish);
}

}  // namespace VeskCore
