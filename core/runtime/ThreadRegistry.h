// Serialisable handles for threads: scripts keep a number, and the registry
// maps it back to the thread while the thread is registered.
//
// Thread safety: every member may be called from any thread; one mutex, taken
// after the service table's when both are.
#pragma once

#include <wx/defs.h>

#include <mutex>

#include "core/common/Maps.h"

namespace VeskCore {

class CRunnable;

class ThreadRegistry {
  public:
    // A handle for `thread`: the tick count, stepped away from handles that
    // are taken; never 0, the handle of a thread that is not registered.
    wxUint32 Register(CRunnable* thread);
    // The thread the handle named, now no longer registered; null if none.
    CRunnable* UnRegister(wxUint32 handle);
    CRunnable* Get(wxUint32 handle);
    void GetAll(MapUint32ToPointer& out);

  private:
    std::mutex mutex;
    MapUint32ToPointer threads{100};
};

}  // namespace VeskCore
