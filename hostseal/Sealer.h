// Sealing to a majority of machine facts. Layout of a blob (version 1):
//
//   version(1) mask(1) k(1) salt(32)                      the header
//   { nonce(12) wrapped-data-key(32) tag(16) } x C(n, k)  one per k-subset
//   data-nonce(12) ciphertext(size of the data) tag(16)
//
// mask has bit i set for each fact recorded at sealing, n of them; k is the
// majority n/2+1. The wrapped keys follow the subsets of the mask with k bits
// in increasing order of their bit pattern.
#pragma once

#include <cstddef>

#include "hostseal/Facts.h"

namespace hostseal {

constexpr unsigned char kBlobVersion = 1;
constexpr size_t kSaltSize = 32;
constexpr size_t kKeySize = 32;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr size_t kHeaderSize = 3 + kSaltSize;
constexpr size_t kWrappedKeySize = kNonceSize + kKeySize + kTagSize;

// A blob in malloc memory, or nullptr; *blobSize is its length.
void* Seal(const Facts& facts, const unsigned char* data, size_t size, size_t* blobSize);

// The data in malloc memory (never nullptr for empty data), or nullptr.
// *partial is set when fewer than all recorded facts matched.
void* Open(const Facts& facts, const unsigned char* blob, size_t size, size_t* dataSize,
           bool* partial);

}  // namespace hostseal
