-- The stock lua5.2 interpreter loads vesk_core through require, as a script
-- outside the agent would. Argument 1: the build directory.
package.cpath = arg[1] .. "/?.so;" .. package.cpath
local v = require "vesk_core"

assert(type(v.version) == "string" and v.version:match("^%d+%.%d+%.%d+%.%d+$"), v.version)
assert(v.linux == true)
assert(v.platform:match("^Linux_"), v.platform)
assert(v.long_bits == 64 and v.int_bits == 32 and v.ptr_bits == 64)
assert(getmetatable(v) == v)
assert(type(SLB) == "table" and rawget(v, "__index") == SLB)
assert(type(v.wxLogError) == "function")

-- os.exit is the stock one here: only states the library builds replace it.
assert(os.exit ~= nil)
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

print(v.version, v.linux, v.platform, v.long_bits)
