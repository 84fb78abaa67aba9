// What registration writes to std::cerr when a parameter comment has no place.
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "tests/slb/Examples.h"

namespace slbtest {
namespace {

class RegistrationWarningsTest : public ::testing::Test {
  protected:
    RegistrationWarningsTest() : previous_(std::cerr.rdbuf(captured_.rdbuf())) {}
    ~RegistrationWarningsTest() override { std::cerr.rdbuf(previous_); }

    std::string warnings() const { return captured_.str(); }

    SLB::Manager manager;

  private:
    std::ostringstream captured_;
    std::streambuf* previous_;
};

TEST_F(RegistrationWarningsTest, ParamWithoutCallableIsReported) {
    SLB::Class<Shape>("S", &manager)
        .param("early")
        .rawSet("K", new SLB::CopyValue<int>(1))
        .param("k")
        .param("k2");
    EXPECT_EQ(warnings(),
              "SLB_Warning: Can not set param info to a non-funcCall object (0, early)\n"
              "SLB_Warning: Can not set param info to a non-funcCall object (0, k)\n"
              "SLB_Warning: Can not set param info to a non-funcCall object (1, k2)\n");
}

TEST_F(RegistrationWarningsTest, ParamPastTheLastParameterIsReported) {
    SLB::Class<Shape>("S", &manager)
        .set("grow", &Shape::grow)
        .comment("Grows")
        .param("by")
        .param("extra")
        .set("area", &Shape::area)
        .param("none");
    EXPECT_EQ(warnings(),
              "SLB_Warning: Grows to many parameters (total args=1)(1, extra)\n"
              "SLB_Warning:  to many parameters (total args=0)(0, none)\n");
    const auto* grow = dynamic_cast<const SLB::FuncCall*>(manager.get("S::grow"));
    ASSERT_NE(grow, nullptr);
    EXPECT_EQ(grow->getArgComment(0), "by");
}

}  // namespace
}  // namespace slbtest
