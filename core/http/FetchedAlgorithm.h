// The provider's algorithm (cipher or digest) for a NID, fetched once for the
// life of the process: OpenSSL 3 fetches an algorithm that was found by name
// (or by EVP_sha256() and the like) again at every init. Handed out as plain
// pointers, so never freed; failures are not kept, for a provider may be
// loaded later.
#pragma once

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <map>
#include <mutex>

namespace VeskCore {

template <class Algorithm, Algorithm* (*Fetch)(OSSL_LIB_CTX*, const char*, const char*)>
const Algorithm* FetchedAlgorithm(int nid) {
    static std::mutex guard;
    static auto* fetched = new std::map<int, Algorithm*>;
    if (nid == NID_undef)
        return nullptr;
    std::lock_guard<std::mutex> lock(guard);
    auto found = fetched->find(nid);
    if (found != fetched->end())
        return found->second;
    Algorithm* algorithm = Fetch(nullptr, OBJ_nid2sn(nid), nullptr);
    if (algorithm != nullptr)
        fetched->emplace(nid, algorithm);
    return algorithm;
}

}  // namespace VeskCore
