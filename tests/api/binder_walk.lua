-- The walk of BinderWalkTest: every callable in `callables` (path, kind,
-- arity, owner), and the functions of the module table, called inside pcall
-- with each kind of wrong argument. Returns a report; a line with "FAIL"
-- in it fails the test. Runs in a scratch folder that is the working
-- directory.
local vesk = require "vesk_core"

local MiB = string.rep("x", 1024 * 1024)
local kinds = {
  { "nil", nil }, { "NaN", 0 / 0 }, { "+huge", math.huge }, { "-huge", -math.huge },
  { "2^63", 2 ^ 63 }, { "-1", -1 }, { "-2^53", -2 ^ 53 }, { "empty", "" }, { "1 MB", MiB },
  { "NUL-led", "\0tail" }, { "table", {} }, { "function", print }, { "true", true },
  { "false", false }, { "coroutine", coroutine.create(function() end) },
  { "foreign userdata", io.stdout }, { "light userdata", lightUserdata },
  { "App", SLB.App() }, { "stream", SLB.LuaStringOutputStream() },
}

-- A right object for each class, made afresh for every call.
local function memoryOut() return SLB.wx.MemoryOutputStream() end
local function memoryIn() return SLB.wx.MemoryInputStream(memoryOut():Write("walk")) end
local function thread() return SLB.LuaThread("", "walk", nil) end
local function fileIn()
  local file = assert(io.open("walk-input", "wb"))
  file:write("walk")
  file:close()
  return SLB.wx.FileInputStream("walk-input")
end
local function context() return SLB.ssl.Context.New(SLB.ssl.TLSv1_client_method()) end
local function certificate() return SLB.ssl.Cert.DecodeString(SLB.cred.GetBootstrapCredentials()) end
local factories = {
  ["ssl.EvpCipherCtx"] = function() return SLB.ssl.EvpCipherCtx() end,
  ["ssl.EvpMdCtx"] = function() return SLB.ssl.EvpMdCtx() end,
  ["ssl.EvpPkey"] = function() return SLB.ssl.EvpPkey() end,
  ["ssl.RsaKey"] = function() return SLB.ssl.RsaKey() end,
  ["ssl.Cert"] = certificate, ["ssl.Context"] = context,
  http = function() return SLB.http.Client(nil) end,
  ["http.Client"] = function() return SLB.http.Client(nil) end,
  ["http.Server"] = function() return SLB.http.Server(nil) end,
  App = function() return SLB.App() end,
  LuaThread = thread, Runnable = thread, wxThread = thread,
  CLuaStreamBase = function() return SLB.LuaStringInputStream("walk") end,
  LuaStringInputStream = function() return SLB.LuaStringInputStream("walk") end,
  LuaStringOutputStream = function() return SLB.LuaStringOutputStream() end,
  ["wx.StreamBase"] = memoryOut, ["wx.OutputStream"] = memoryOut,
  ["wx.MemoryOutputStream"] = memoryOut, ["wx._MemoryOutputStream_"] = memoryOut,
  ["wx.InputStream"] = memoryIn, ["wx.MemoryInputStream"] = memoryIn,
  ["wx.FileInputStream"] = fileIn,
  ["wx.FileOutputStream"] = function() return SLB.wx.FileOutputStream("walk-output") end,
}

-- What the collector never frees goes back by Delete after each call.
local deleted = { ["ssl.EvpPkey"] = true, ["ssl.Cert"] = true, ["ssl.Context"] = true }

-- File operations get paths inside the scratch folder only: a value that
-- would arrive as "" (nil, a table, a NUL-led string...) once meant "/".
local pathArguments = {
  ReplaceFile = { 1, 2 }, ["wx.RemoveFile"] = { 1 }, ["wx.RenameFile"] = { 1, 2 },
  ["file.CopyDirectory"] = { 1, 2 }, ["file.RemoveDirectory"] = { 1 },
  ["file.SecureFileOrDirectory"] = { 1 }, ["wx.FileInputStream"] = { 1 },
  ["wx.FileOutputStream"] = { 1 }, ["cred.EncryptPrivateKey"] = { 1 },
  ["cred.WriteBootstrapCredentials"] = { 1 },
}
-- Descriptors a call takes over (and closes): a number that converts to 0
-- would be the walk's own standard input.
local descriptorArguments = { ["http.Server.Accept"] = 1 }

-- Waits take huge counts as "until awakened" or as a day's sleep, by
-- design: the walk waits a millisecond instead.
-- The index of the wait's argument.
local waits = {
  Sleep = 1, ["wxThread.Sleep"] = 1, ShouldExit = 1, ["App.ShouldExit"] = 1,
  ["Runnable.TestDestroy"] = 1, ["net.select"] = 4,
}
-- Ends the process on purpose: wx's fatal log level.
local skipped = { wxLogFatalError = true }

local function resolve(path)
  local value = SLB
  for part in path:gmatch("[^.]+") do value = value[part] end
  return value
end

local function safeArgument(path, index, value)
  if descriptorArguments[path] == index then return -1 end
  for _, i in ipairs(pathArguments[path] or {}) do
    local text = type(value) == "number" and tostring(value) or value
    if i == index and (type(text) ~= "string" or text == "" or text:byte(1) == 0) then
      return "walk-path-" .. index
    end
  end
  -- A wait given no number waits for ever too (net.select).
  if waits[path] == index and not (type(value) == "number" and value < 1000) then return 1 end
  return value
end

local pathKinds = {}
local report = { calls = 0, errors = 0, returns = 0, failures = {} }

-- WALK_TRACE=1 names each call on stderr: the last name is the call that
-- ended the process.
local trace = os.getenv("WALK_TRACE")

-- What a call made of the objects scripts free themselves (a certificate
-- decoded from a file the walk wrote) goes back at once.
local function release(ok, ...)
  if not ok then return ok, ... end
  for i = 1, select("#", ...) do
    local made = select(i, ...)
    if type(made) == "userdata" then pcall(function() made:Delete() end) end
  end
  return ok, ...
end

local function call(what, f, args, n)
  if trace then io.stderr:write(what, " ", n, "\n") end
  report.calls = report.calls + 1
  local ok, err = release(pcall(f, table.unpack(args, 1, n)))
  if ok then
    report.returns = report.returns + 1
  elseif type(err) ~= "string" or err == "" then
    report.failures[#report.failures + 1] = ("FAIL %s: error value %s"):format(what, tostring(err))
  else
    report.errors = report.errors + 1
  end
end

-- Arguments 1..n of one kind; for a method, `self` first.
local function arguments(path, self, value, n)
  -- A Lua C function that waits gets its time always: without one it waits for ever.
  local entry = pathKinds[path]
  if entry == "raw" and waits[path] then n = math.max(n, waits[path]) end
  local args, first = {}, 0
  if self ~= nil then args[1], first = self, 1 end
  for i = 1, n do args[first + i] = safeArgument(path, i, value) end
  return args, first + n
end

local function walk(entry, f)
  local method = entry.kind == "method"
  local make = method and factories[entry.owner]
  if method and not make then
    report.failures[#report.failures + 1] = "FAIL no factory for class " .. entry.owner
    return
  end
  local counts = entry.arity >= 0 and { entry.arity - 1, entry.arity, entry.arity + 1 } or { 0, 1, 2, 3 }
  for _, kind in ipairs(kinds) do
    local label = ("%s(%s)"):format(entry.path, kind[1])
    for _, n in ipairs(counts) do
      -- A call with no argument at all is no wrong call: it would run the
      -- operation itself (Term, Shutdown, join...).
      if n > 0 or (n == 0 and entry.arity ~= 0) then
        local self = method and make() or nil
        call(label, f, arguments(entry.path, self, kind[2], n))
        if self ~= nil and deleted[entry.owner] then self:Delete() end
      end
    end
    if method then  -- the wrong object in the place of self
      call(label .. " as self", f, arguments(entry.path, nil, kind[2], math.max(entry.arity, 0) + 1))
    end
  end
end

local walked = 0
for _, entry in ipairs(callables) do pathKinds[entry.path] = entry.kind end
for _, entry in ipairs(callables) do
  local f = resolve(entry.path)
  local callable = type(f) == "function" or (getmetatable(f) or {}).__call
  if not callable then
    report.failures[#report.failures + 1] = "FAIL not callable: " .. entry.path
  else
    walk(entry, f)
    walked = walked + 1
  end
  collectgarbage()
end
for name, f in pairs(vesk) do
  if type(f) == "function" and not skipped[name] then
    walk({ path = name, kind = "raw", arity = -1, owner = "" }, f)
    walked = walked + 1
  end
end
collectgarbage()

return ("walked %d callables with %d kinds of wrong argument: %d calls, %d Lua errors, %d returns, "
  .. "0 process deaths\n%s"):format(walked, #kinds, report.calls, report.errors, report.returns,
  table.concat(report.failures, "\n"))
