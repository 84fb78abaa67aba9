#include "core/xml/SqlHashAggregate.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include "core/http/OpenSslUtil.h"

namespace VeskCore {
namespace {

// The group's state, zeroed by SQLite: the digest context, made at the
// group's first row. `begun` tells an unknown name (NULL result) from a group
// without rows (the digest of nothing).
struct GroupState {
    EVP_MD_CTX* digest;
    bool begun;
};

GroupState* StateOf(wxSQLite3FunctionContext& context) {
    return static_cast<GroupState*>(context.GetAggregateStruct(sizeof(GroupState)));
}

// An unknown digest name leaves no error behind on the thread's queue for a
// later message to quote.
void Begin(GroupState& state, const wxString& name) {
    state.begun = true;
    ERR_set_mark();
    const EVP_MD* method = EVP_get_digestbyname(name.utf8_string().c_str());
    state.digest = method != nullptr ? EVP_MD_CTX_new() : nullptr;
    if (state.digest != nullptr && EVP_DigestInit_ex(state.digest, method, nullptr) != 1) {
        EVP_MD_CTX_free(state.digest);
        state.digest = nullptr;
    }
    ERR_pop_to_mark();
}

void Step(wxSQLite3FunctionContext& context) {
    GroupState* state = StateOf(context);
    if (state == nullptr || context.GetArgCount() != 2)
        return;
    if (!state->begun)
        Begin(*state, context.GetString(1, wxS("sha1")));
    if (state->digest != nullptr)
        VeskCore::EVP_DigestUpdate(state->digest, context.GetString(0, wxEmptyString));
}

void Finish(wxSQLite3FunctionContext& context) {
    GroupState* state = StateOf(context);
    if (state == nullptr)
        return;
    if (!state->begun)
        Begin(*state, wxS("sha1"));  // a group without rows never saw a name
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool done =
        state->digest != nullptr && EVP_DigestFinal_ex(state->digest, bytes, &length) == 1;
    EVP_MD_CTX_free(state->digest);
    state->digest = nullptr;
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
