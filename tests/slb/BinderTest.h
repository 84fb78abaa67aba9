// Fixture: a fresh manager with the example registrations and a state bound to it.
#pragma once

#include <gtest/gtest.h>

#include "slb/Manager.h"
#include "tests/slb/Examples.h"
#include "tests/slb/LuaState.h"

namespace slbtest {

class BinderTest : public ::testing::Test {
  protected:
    BinderTest() {
        Lifetime::reset();
        registerExamples(manager);
    }

    std::string run(const std::string& chunk) { return lua.run(chunk); }

    SLB::Manager manager;
    LuaState lua{manager};
};

}  // namespace slbtest
