#include "core/runtime/ThreadRegistry.h"

#include <openssl/rand.h>

#include <cstdint>

#include "core/common/SystemUtil.h"

namespace VeskCore {

wxUint32 ThreadRegistry::Register(CRunnable* thread) {
    wxUint32 candidate = SystemTickCount();
    wxUint16 step = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&step), sizeof step) != 1)
        step = static_cast<wxUint16>(reinterpret_cast<uintptr_t>(thread) >> 4);
    // Odd, so that stepping visits every 32-bit value before it repeats: a
    // step of 0 would try the same taken handle for ever.
    step |= 1;
    for (;;) {
        if (candidate != 0) {
            std::lock_guard<std::mutex> lock(mutex);
            const auto entry = threads.find(candidate);
            if (entry == threads.end() || entry->second == thread) {
                threads[candidate] = thread;
                return candidate;
            }
        }
        candidate -= step;
    }
}

CRunnable* ThreadRegistry::UnRegister(wxUint32 handle) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto entry = threads.find(handle);
    if (entry == threads.end())
        return nullptr;
    auto* thread = static_cast<CRunnable*>(entry->second);
    threads.erase(entry);
    return thread;
}

CRunnable* ThreadRegistry::Get(wxUint32 handle) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto entry = threads.find(handle);
    return entry == threads.end() ? nullptr : static_cast<CRunnable*>(entry->second);
}

void ThreadRegistry::GetAll(MapUint32ToPointer& out) {
    out.clear();
    std::lock_guard<std::mutex> lock(mutex);
    out = threads;
}

}  // namespace VeskCore
