-- The hmd table as scripts use it: argument rules, the shape of a result,
-- and a listening socket of this agent among the ports.
local hmd, net = SLB.hmd, SLB.net

local function fails(pattern, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok and tostring(err):find(pattern), tostring(err))
end
local function attributes(item)
  local out = {}
  for _, attribute in ipairs(item[1]) do out[attribute.attr.name] = attribute.attr.value end
  return out
end

assert(hmd.MAX_ARGS == 16)
fails("string expected, got table", hmd.GetFileInfo, "/", {})
fails("string expected, got boolean", hmd.GetListenPorts, true)
assert(select("#", hmd.GetFileContents()) == 1 and hmd.GetFileContents() == false)
assert(hmd.GetDirectoryListing("\0/") == false)  -- text ends at the NUL: no path at all

-- Numbers read as text; past 16 arguments nothing is read.
local args = {}
for i = 1, 16 do args[i] = i end
args[17] = "/"
local ok, result = hmd.GetFileInfo(table.unpack(args))
assert(ok and #result[1] == 0 and result.attr.commandVersion == "2")
assert(result.attr.hash == "DA:39:A3:EE:5E:6B:4B:0D:32:55:BF:EF:95:60:18:90:AF:D8:07:09")

ok, result = hmd.GetFileInfo("/", "\255\254")  -- not UTF-8: an empty path, no item
assert(ok and result.tag == "HostMetaDataQueryResult" and result.attr.hashAlg == "SHA1")
local items = result[1]
assert(items.tag == "HostMetaDatas" and #items == 1 and items[1].attr.identifier == "/")
assert(items[1][1].tag == "Attributes" and attributes(items[1]).type == "directory")

ok, result = hmd.GetEnvironment("PATH", "VESK_NO_SUCH_VARIABLE")
assert(ok and #result[1] == 1 and attributes(result[1][1]).value == os.getenv("PATH"))

local listener = assert(net.CreateListenSocket(true, 0, 5))
local _, port = net.getsockname(listener)
ok, result = hmd.GetListenPorts("detailed")
local mine
for _, item in ipairs(result[1]) do
  if item.attr.identifier == "tcp6/::/" .. port then mine = attributes(item) end
end
assert(ok and mine and mine.port == tostring(port) and mine.ipVersion == "6", "no entry for " .. port)
assert(mine.process == "vesk-agent" and tonumber(mine.processId) > 0, tostring(mine.process))
net.closesocket(listener)
print("hmd_test passed")
