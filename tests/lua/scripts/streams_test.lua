-- Streams, Lua-backed streams, the native command and wxThread, as scripts
-- use them; bytes pass unchanged, NULs and all.
local vesk = require "vesk_core"
local wx = SLB.wx
local dir = os.tmpname()
os.remove(dir)
os.execute("mkdir " .. dir)

local function fails(pattern, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok and tostring(err):find(pattern), tostring(err))
end

local function contents(memory)  -- what a memory output stream holds
  local input = wx.MemoryInputStream(memory)
  return input:GetLength() == 0 and "" or input:Read(input:GetLength())
end

-- Memory -> file -> memory, by both forms of Read and Write.
local bytes = "first\0second\255"
local memory = wx.MemoryOutputStream()
assert(memory:Write(bytes) and memory:Write(12):TellO() == #bytes + 2)
local file = wx.FileOutputStream(dir .. "/copy")
assert(file:Write(wx.MemoryInputStream(memory)) and file:Close())
local input = wx.FileInputStream(dir .. "/copy")
assert(input:IsOk() and input:IsSeekable() and input:GetLength() == #bytes + 2)
assert(input:Peek() == string.byte("f") and input:GetC() == string.byte("f"))
assert(input:Ungetch(string.byte("F")) and input:Read(5) == "First" and input:LastRead() == 5)
assert(input:TellI() == 5 and input:Read(0) == "" and input:Read("3") == "\0se")
local rest = wx.MemoryOutputStream()
assert(input:Read(rest) and contents(rest) == "cond\25512")
assert(input:Read(1) == nil and not input:IsOk() and input:Eof())
input:Reset()
assert(input:IsOk())

-- Errors of the two script-friendly members; the binder's own are tested with it.
fails("Integer value or wxOutputStream object expected", input.Read, input)
fails("Integer value or wxOutputStream object expected", input.Read, input, "abc")
fails("String or wxInputStream object expected", memory.Write, memory, {})
fails("Invalid object for this method", input.Read, memory, 1)
-- Seek modes and the results of GetLastError, Pause and Resume are objects
-- of classes nobody registered: reading or passing one raises.
fails("Unknown class wxSeekMode", function() return wx.FromEnd end)
fails("Unknown class", input.GetLastError, input)
fails("Unknown class wxSeekMode", memory.SeekO, memory, 0, nil)

-- The rest of the output side; what Write returns is the stream itself, so
-- a chain of calls keeps it alive.
local chained = wx.MemoryOutputStream():Write("ab"):Write("c")
collectgarbage()
chained:PutC(100)
chained:Sync()
assert(chained:TellO() == 4 and chained:LastWrite() == 1 and contents(chained) == "abcd")
-- An empty memory stream reads back as an empty one (no wx assertion: ctest
-- fails this script on any assertion text).
local empty = wx.MemoryInputStream(wx.MemoryOutputStream())
assert(empty:IsOk() and empty:GetLength() == 0 and empty:Read(1) == nil and empty:Eof())

-- Files and system errors.
assert(wx.RenameFile(dir .. "/copy", dir .. "/moved", true) and wx.RemoveFile(dir .. "/moved"))
assert(not wx.RemoveFile(dir .. "/moved") and wx.SysErrorMsg(2) == "No such file or directory")

-- Lua-backed streams: over a string, gathering, and with a function attached.
local text = SLB.LuaStringInputStream("caf\195\169 au lait")
assert(text:GetLength() == 13 and text:Read(5) == "caf\195\169")
assert(text:TellI() == 5 and text:IsSeekable())
local gathered = SLB.LuaStringOutputStream()
assert(gathered:Write("one ") and gathered:Write(SLB.LuaStringInputStream("two")))
assert(gathered:GetString() == "one two")
local seen = {}
gathered:SetFn(function(chunk) seen[#seen + 1] = chunk return #chunk end)
gathered:Write("three")
assert(seen[1] == "three" and gathered:GetString() == "one two")
-- The count is read from slot 1 of the calling frame, here the stream itself.
assert(gathered:LastWrite() == 0)
local asked
text:SetFn(function(size) asked = -1 end)
text:SetFn(function(size) asked = size return 0 end)  -- the second one is called
assert(text:GetLength() == -1 and text:Read(4) == nil and asked >= 4)
-- A function attached inside a coroutine outlives it.
local late = SLB.LuaStringOutputStream()
coroutine.wrap(function() late:SetFn(function(chunk) seen.late = chunk return 0 end) end)()
collectgarbage()
late:Write("still here")
assert(seen.late == "still here")
fails("Function expected", gathered.SetFn, gathered, 1)
fails("Invalid object for this method", gathered.SetFn, memory, print)

-- The native command, fed from Lua streams.
local body = wx.MemoryOutputStream()
local handled, status, statusText, replacement =
  vesk.GetHostInfo("/info", SLB.LuaStringInputStream(""), body)
assert(handled == true and status == 200 and statusText == "OK" and replacement == nil)
assert(contents(body):match("^Hostname: [^\r\n]+\r\n$"), contents(body))
fails("wxInputStream expected", vesk.GetHostInfo, "/", nil, body)
fails("wxOutputStream expected", vesk.GetHostInfo, "/", SLB.LuaStringInputStream(""), {})

-- wxThread: statics work anywhere; this thread is no wx thread. A LuaThread
-- is one, and its enumeration results raise after the operation ran.
assert(SLB.wxThread.This() == nil and SLB.wxThread.GetCPUCount() >= 1)
local worker = SLB.LuaThread("", "streams worker", nil)
worker:startWithDefaults()
while not worker:isIdle() do SLB.Sleep(5) end
assert(worker:GetId() ~= SLB.wxThread.GetCurrentId() and worker:IsPaused() == false)
fails("Unknown class", worker.Pause, worker)
assert(worker:IsPaused() == true)
fails("Unknown class", worker.Resume, worker)
assert(worker:IsPaused() == false)
-- Kill would cancel the thread under its Lua state: a running thread is
-- refused, and stays usable; one that has ended is not running to kill.
fails("a running thread can't be killed", worker.Kill, worker)
assert(worker:isRunning() and worker:RunScript("killed = false", nil))
worker:requestExit()
worker:join()
fails("Unknown class", worker.Kill, worker)
local never = SLB.LuaThread("", "never started", nil)
fails("Unknown class", never.Kill, never)
os.execute("rm -rf " .. dir)
print("streams_test passed")
