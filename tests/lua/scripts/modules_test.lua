-- A script finds modules beside itself and the library through package.cpath.
local vesk = require "vesk_core"
local again = require "vesk_core"
assert(vesk == again, "require caches the module")
assert(package.path:find("/lua/?.lua", 1, true), package.path)
assert(package.cpath:find("/?.so", 1, true), package.cpath)
assert(package.loaded.vesk_core == vesk)

local helper = require "support_helper"
assert(helper.answer() == 42)

local ok, err = pcall(vesk.wxLogError, {})
assert(not ok and err:find("bad argument #1"), err)
