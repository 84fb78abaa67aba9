// Protected calls through ErrorHandler with the default text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <lua.hpp>

#include "slb/DefaultErrorHandler.h"

namespace slbtest {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class ErrorHandlerTest : public ::testing::Test {
  protected:
    ErrorHandlerTest() : L(luaL_newstate()) { luaL_openlibs(L); }
    ~ErrorHandlerTest() override { lua_close(L); }

    void load(const char* chunk) {
        ASSERT_EQ(luaL_loadbuffer(L, chunk, std::strlen(chunk), "=chunk"), LUA_OK);
    }

    lua_State* L;
    SLB::DefaultErrorHandler handler;
};

TEST_F(ErrorHandlerTest, SuccessLeavesResultsAsLuaPcallDoes) {
    lua_pushliteral(L, "below");
    load("return ... + 1, 'x'");
    lua_pushinteger(L, 41);
    EXPECT_EQ(handler.call(L, 1, 2), LUA_OK);
    ASSERT_EQ(lua_gettop(L), 3);
    EXPECT_STREQ(lua_tostring(L, 1), "below");
    EXPECT_EQ(lua_tointeger(L, 2), 42);
    EXPECT_STREQ(handler.end(), "");
}

TEST_F(ErrorHandlerTest, FailureGivesMessageAndTraceback) {
    load("local function inner() error('bad thing') end\ninner()");
    EXPECT_EQ(handler.call(L, 0, 0), LUA_ERRRUN);
    ASSERT_EQ(lua_gettop(L), 1);
    const std::string text = handler.end();
    EXPECT_THAT(text, StartsWith("chunk:1: bad thing\nstack traceback:\n"));
    EXPECT_THAT(text, HasSubstr("\n\tchunk:1: in function 'inner'"));
    EXPECT_THAT(text, HasSubstr("\n\tchunk:2: in main chunk"));
    EXPECT_EQ(text, lua_tostring(L, -1));
}

TEST_F(ErrorHandlerTest, NonStringErrorValueSurvives) {
    load("error({code = 7})");
    EXPECT_EQ(handler.call(L, 0, 0), LUA_ERRRUN);
    ASSERT_TRUE(lua_istable(L, -1));
    lua_getfield(L, -1, "code");
    EXPECT_EQ(lua_tointeger(L, -1), 7);
    EXPECT_THAT(handler.end(), StartsWith("(error object is a table value)\nstack traceback:"));
}

// Refuses any single block over 16 MB, so that a script can run out of memory.
void* cappedAlloc(void*, void* ptr, size_t, size_t nsize) {
    if (nsize == 0) {
        std::free(ptr);
        return nullptr;
    }
    return nsize > (16u << 20) ? nullptr : std::realloc(ptr, nsize);
}

TEST(ErrorHandlerMemoryTest, MemoryErrorIsDescribedThoughLuaRunsNoHandler) {
    lua_State* L = lua_newstate(cappedAlloc, nullptr);
    ASSERT_NE(L, nullptr);
    luaL_openlibs(L);
    SLB::DefaultErrorHandler handler;
    ASSERT_EQ(luaL_loadstring(L, "error('first failure')"), LUA_OK);
    EXPECT_EQ(handler.call(L, 0, 0), LUA_ERRRUN);
    lua_pop(L, 1);
    ASSERT_EQ(luaL_loadstring(L, "return string.rep('x', 64 * 1024 * 1024)"), LUA_OK);
    EXPECT_EQ(handler.call(L, 0, 1), LUA_ERRMEM);
    EXPECT_THAT(handler.end(), StartsWith("not enough memory"));
    lua_close(L);
}

}  // namespace
}  // namespace slbtest
