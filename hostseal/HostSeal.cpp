// The C doors. Nothing may escape them: no C++ exception, and no OpenSSL
// error left queued for the host, whose own error checks would trip over it.
#include "hostseal/hostseal.h"

#include <openssl/err.h>

#include <climits>
#include <new>

#include "hostseal/Facts.h"
#include "hostseal/Sealer.h"
#include "hostseal/Trace.h"

namespace {

class ErrorMark {
  public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
};

}  // namespace

extern "C" HOSTSEAL_API void* QX_N_Choose_K_Encrypt(const void* data, int* length) {
    using namespace hostseal;
    if (length == nullptr || *length < 0 || (data == nullptr && *length != 0)) {
        Trace("seal: bad arguments");
        return nullptr;
    }
    try {
        ErrorMark mark;
        const Facts facts = ReadFacts();
        size_t blobSize = 0;
        void* blob = Seal(facts, static_cast<const unsigned char*>(data),
                          static_cast<size_t>(*length), &blobSize);
        if (blob != nullptr)
            *length = static_cast<int>(blobSize);
        return blob;
    } catch (...) {
        Trace("seal: out of memory");
        return nullptr;
    }
}

extern "C" HOSTSEAL_API void* QX_N_Choose_K_Decrypt(const void* blob, int* length, int* flag) {
    using namespace hostseal;
    if (blob == nullptr || length == nullptr || *length <= 0) {
        Trace("open: no blob");
        return nullptr;
    }
    try {
        ErrorMark mark;
        const Facts facts = ReadFacts();
        size_t dataSize = 0;
        bool partial = false;
        void* data = Open(facts, static_cast<const unsigned char*>(blob),
                          static_cast<size_t>(*length), &dataSize, &partial);
        if (data == nullptr)
            return nullptr;
        *length = static_cast<int>(dataSize);
        if (partial && flag != nullptr)
            *flag = 1;
        return data;
    } catch (...) {
        Trace("open: out of memory");
        return nullptr;
    }
}
