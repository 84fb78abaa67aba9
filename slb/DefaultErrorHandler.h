// The usual ErrorHandler: the message followed by a traceback in the form of
// luaL_traceback ("stack traceback:" and one line per function).
#pragma once

#include "slb/Allocator.h"
#include "slb/ErrorHandler.h"

namespace SLB {

class SLB_EXPORT DefaultErrorHandler : public ErrorHandler {
  public:
    // The message and traceback of the last failed call; "" before any.
    // Valid until the next call or the handler's destruction.
    const char* end() override { return text_.c_str(); }

  protected:
    void begin(const char* error) override;
    void stackElement(int level, lua_Debug* info) override;

  private:
    String text_;
};

}  // namespace SLB
