#include "core/runtime/AppPrivateData.h"

namespace VeskCore {

AppPrivateData::~AppPrivateData() {
    InitiateShutdown();
    Shutdown();
}

}  // namespace VeskCore
