-- The application API as a script drives it: settings, services and worker
-- threads, from the agent's main thread (which is no Runnable). Modules beside
-- the script are found first.
local here = assert(package.searchpath("service_probe", package.path)):match("^(.*)/")

local function eventually(test, what)
  local start = SLB.SystemTickCount()
  while not test() do
    assert(SLB.SystemTickDiff(start) < 20000, "timed out waiting for " .. what)
    SLB.Sleep(5)
  end
end

local function fails(pattern, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok and tostring(err):find(pattern), tostring(err))
end

-- Settings keep Lua's types; a number as a name is its text.
local app = SLB.App()
app:Set("n", 42)
app:Set("s", "a\0b")
app:Set("b", false)
assert(app:Get("n") == 42 and app:Get("s") == "a\0b" and app:Get("b") == false)
app:Set(7, "seven")
assert(app:Get("7") == "seven" and app:Get("missing") == nil)
fails("Unsupported value type", app.Set, app, "x", nil)
fails("Invalid setting name", app.Get, app, {})
fails("App object expected", app.Get, {}, "x")

-- The two ShouldExit: the function checks its argument and knows no
-- application; the method takes any argument as a number.
assert(SLB.ShouldExit() == false and SLB.ShouldExit(0) == false)
fails("number expected", SLB.ShouldExit, "x")
assert(app:ShouldExit("x") == false)
fails("Error number of arguments %(given 0 %-> expected 1%)", app.ShouldExit, app)
assert(SLB.SystemTickDiff(5, 4294967295) == 6)
-- Waits that can't be met are not taken as huge unsigned counts: a negative
-- count or NaN waits not at all (this test would hang otherwise).
for _, wait in ipairs({ -1, -2^40, 0 / 0, -math.huge }) do
  SLB.Sleep(wait)
  SLB.wxThread.Sleep(wait)
  assert(app:ShouldExit(wait) == false and SLB.ShouldExit(wait) == false)
end

-- A native failure in a bound call is a Lua error the script can catch.
local names = { n = 4, "", nil, {}, true }  -- each arrives as ""
for i = 1, names.n do
  local ok, err = pcall(app.ServiceStart, app, names[i])
  assert(not ok and err:find("a thread needs a name"), tostring(err))
end
assert(SLB.Runnable.This() == nil and SLB.LuaThread.This() == nil)

-- A service sees itself as a Runnable and a LuaThread, and is found by handle.
app:Set("app.lua.path", here .. "/?.lua")
assert(app:ServiceStart("service_probe") and app:ServiceIsRunning("service_probe"))
eventually(function() return app:Get("probe.thread") ~= nil end, "the service to start")
assert(app:Get("probe.thread") == "service_probe" and app:Get("probe.isLuaThread") == true)
local service = app:ThreadGet(app:Get("probe.handle"))
assert(service and service:GetThreadName() == "service_probe" and service:isRunning())
assert(app:ServiceStop("service_probe") and not app:ServiceIsRunning("service_probe"))
assert(app:ThreadGet(app:Get("probe.handle")) == nil)

-- A worker runs each chunk it is given; a one-shot takes none after its first.
local worker = SLB.LuaThread("", "worker", app)
worker:startWithDefaults()
eventually(function() return worker:isIdle() end, "an idle worker")
assert(worker:RunScript("app:Set('sum', 1 + 2)", nil))
eventually(function() return app:Get("sum") == 3 end, "the worker's chunk")

local once = SLB.LuaThread("app:Set('once', SLB.LuaThread.This():GetThreadName())", "once", app)
assert(not once:RunScript("x = 1", nil))  -- not even started
once:startWithDefaults()
eventually(function() return not once:isRunning() end, "the one-shot to end")
assert(app:Get("once") == "once" and not once:RunScript("x = 1", nil) and not once:isIdle())

worker:requestExit()
worker:join()
assert(not worker:isRunning())

-- A thread keeps its application: the script's App object may go first.
local orphan = SLB.LuaThread("", "orphan", SLB.App())
collectgarbage()
collectgarbage()
orphan:startWithDefaults()
eventually(function() return orphan:isIdle() end, "the orphan to idle")
assert(orphan:RunScript("app:Set('kept', true)", nil))
eventually(function() return orphan:isIdle() end, "the orphan's chunk")
orphan:requestExit()
orphan:join()
-- start runs a thread once, also when it was not asked to create it first.
local late = SLB.LuaThread("", "late", nil)
late:start(50, false, 0)
eventually(function() return late:isIdle() end, "a thread started without create")
late:start(50, true, 0)
late:requestExit()
assert(late:join() == 0 and not late:isRunning())
fails("Error number of arguments %(given 2 %-> expected 3%)", SLB.LuaThread, "", "w")

-- The bundled configuration module keeps its file private whatever the
-- umask, and reads back what it stored.
local bin = package.path:match(";([^;]*)/lua/%?%.lua")
local state = os.tmpname()
os.remove(state)
os.execute("umask 022; mkdir " .. state)
local config = SLB.App()
config:Set("app.path.bin", bin)
config:Set("agent.state.dir", state)
assert(config:ConfigGet("k") == "")  -- nothing loads the module but a write
assert(config:ConfigSet('<Config><Item name="k">v &amp; w</Item></Config>'))
assert(config:ConfigGet("k") == "v & w" and config:ConfigGetXml("k") == '<Item name="k">v &amp; w</Item>')
assert(io.popen("stat -c %a " .. state .. "/config.xml"):read("*l") == "600")
assert(not config:ConfigSet("<Other/>") and config:ConfigSet(""))
assert(config:ConfigGet("k") == "")

-- Two writers on one state directory (two applications of one process here)
-- never see or leave a broken file: each writes a temporary file of its own.
local writers = {}
for w = 1, 2 do
  writers[w] = SLB.LuaThread(([[
    local own = SLB.App()
    own:Set("app.path.bin", %q)
    own:Set("agent.state.dir", %q)
    local failed = 0
    for i = 1, 300 do
      if not own:ConfigSet('<Config><Item name="w%d">' .. i .. '</Item></Config>') then
        failed = failed + 1
      end
    end
    app:Set("writer%d.failed", failed)
  ]]):format(bin, state, w, w), "writer" .. w, app)
end
for _, writer in ipairs(writers) do writer:startWithDefaults() end
for _, writer in ipairs(writers) do writer:join() end
assert(app:Get("writer1.failed") == 0 and app:Get("writer2.failed") == 0,
  ("failed stores: %s, %s"):format(app:Get("writer1.failed"), app:Get("writer2.failed")))
local reader = SLB.App()
reader:Set("app.path.bin", bin)
reader:Set("agent.state.dir", state)
assert(reader:ConfigSet("<Config/>") and reader:ConfigGet("w1") ~= "" and reader:ConfigGet("w2") ~= "")
assert(io.popen("ls " .. state):read("*a") == "config.xml\n")  -- no temporary file left
os.execute("rm -rf " .. state)
print("app_test passed")
