-- The net table as scripts use it: wakeable waits across threads, a
-- listening socket on loopback, and the interface list.
local net = SLB.net

local function fails(pattern, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok and tostring(err):find(pattern), tostring(err))
end
local function eventually(test, what)
  local start = SLB.SystemTickCount()
  while not test() do
    assert(SLB.SystemTickDiff(start) < 20000, "timed out waiting for " .. what)
    SLB.Sleep(5)
  end
end

assert(net.INVALID_SOCKET == -1 and net.SOCKET_ERROR == -1)
assert(#net.MakeWakeable({}) == 0)
fails("table expected", net.MakeWakeable, 5)
fails("table expected", net.select, nil, 5)
fails("integer out of range", net.closesocket, 2 ^ 40)

-- A wait with nothing to wait on times out with the word for it.
local readable, writable, failed, text = net.select(nil, {}, nil, 20)
assert(#readable == 0 and #writable == 0 and #failed == 0 and text == "timeout")

-- A thread asleep in net.select is woken by Awaken from this one.
local app = SLB.App()
local event = net.MakeWakeable({ 1 })
assert(#event == 2)
local sleeper = SLB.LuaThread(([[
  SLB.LuaThread.This():SetAwakenEvents({ %d, %d })
  app:Set("waiting", true)
  local r, w, e, text = SLB.net.select({ %d }, {}, nil, -1)
  app:Set("woken", #r + #w + #e == 0 and text == nil)
]]):format(event[1], event[2], event[1]), "sleeper", app)
sleeper:startWithDefaults()
eventually(function() return app:Get("waiting") end, "the sleeper to wait")
SLB.Sleep(20)  -- into the wait itself
sleeper:Awaken()
eventually(function() return app:Get("woken") ~= nil end, "the sleeper to wake")
assert(app:Get("woken") == true)
sleeper:join()
net.closeevent(event[1])
net.closeevent(event[2])

-- A listening socket, a peer, and what accept tells of it.
local listener = assert(net.CreateListenSocket(true, 0, 5))
local host, port = net.getsockname(listener)
assert(host == "::" and port > 0)
os.execute(("bash -c 'echo hello > /dev/tcp/127.0.0.1/%d' &"):format(port))
readable = net.select(nil, { listener }, nil, 10000)
assert(#readable == 1 and readable[1] == listener)
local socket, peer, peerPort, err = net.accept(listener)
assert(socket and peer:find("127.0.0.1", 1, true) and peerPort > 0 and err == nil)
assert(net.PeerIsLoopback(socket))
assert(net.closesocket(socket) == nil and net.closesocket(socket):find("Bad file descriptor"))
local none, noHost, noPort, why = net.accept(-1)
assert(none == nil and noHost == nil and noPort == nil and why ~= nil)
assert(net.closesocket(listener) == nil)

local interfaces = assert(net.GetPlatformInterfaces(false))
for _, record in ipairs(interfaces) do
  assert(record.tag == "Interface" and record.attr.name ~= "lo")
end
print("net_test passed")
