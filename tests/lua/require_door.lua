-- The stock lua5.2 interpreter loads vesk_core through require, as a script
-- outside the agent would. Argument 1: the build directory.
package.cpath = arg[1] .. "/?.so;" .. package.cpath
local v = require "vesk_core"

-- The module's fields are checked from C++; here: it binds this very state.
assert(type(SLB) == "table" and getmetatable(v) == v and rawget(v, "__index") == SLB)

-- Without Init, wx has not started: making a thread is a clear error, not a
-- crash. After Init it works, and Term leaves this state's objects usable
-- until the state closes.
local ok, err = pcall(SLB.LuaThread, "", "early", nil)
assert(not ok and tostring(err):find("wx is not started"), tostring(err))
assert(v.Init() == true)
local thread = v.LuaThread("x = 1", "late", nil)
thread:startWithDefaults()
thread:join()
assert(not thread:isRunning())
local app = v.App()
app:Set("kept", 1)
assert(v.Term() == true)
assert(app:Get("kept") == 1)

