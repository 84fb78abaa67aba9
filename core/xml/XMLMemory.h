// Memory for what Expat holds of a document, secrets included: it comes from
// OpenSSL's allocator, which wipes what it frees.
#pragma once

#include <expat.h>

#include <cstddef>

namespace VeskCore {

void* XML_Malloc(size_t size);
void* XML_Realloc(void* block, size_t size);
void XML_Free(void* block);
extern const XML_Memory_Handling_Suite XML_MemoryHandlers;

}  // namespace VeskCore
