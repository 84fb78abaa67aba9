-- A static file server: the files directly in $ROOT, by GET, over HTTP/1.1
-- with keep-alive, gzip when the client asks, and TLS when $TLS_CERT and
-- $TLS_KEY name PEM files. It listens on [::1]:$PORT; with PORT 0 (or unset)
-- on a free port. Either way it prints "PORT n" once it listens.
--
--   ROOT=www vesk-agent --run file_server.lua
--   ROOT=www vesk-agent --service file_server --lua-path "$PWD/?.lua"
--
-- The accept loop runs on the main thread; each connection gets a thread of
-- its own, at most MAX_WORKERS at a time (more wait in the backlog). As a
-- service it stops on SIGTERM: every thread looks at app:ShouldExit between
-- requests. Requests are answered one by one: a client that sends the next
-- one before the answer (pipelining) is not served.
local net, ssl, wx = SLB.net, SLB.ssl, SLB.wx
local MAX_WORKERS = 64
local WAIT_MS = 250        -- how late a thread may notice the stop
local IDLE_MS = 60000      -- a keep-alive connection with nothing to say is closed
local M = {}

local function context()
  local cert, keyFile = os.getenv("TLS_CERT"), os.getenv("TLS_KEY")
  if not cert then return nil end
  local file = assert(io.open(keyFile, "rb"))
  local pkey = assert(SLB.cred.GetPrivateKey(file:read("*a")))
  file:close()
  local key = ssl.EvpPkey.New(pkey)  -- frees the key with it
  local made = ssl.Context.New(ssl.TLSv1_server_method())
  local ok = made:UseCertificateChainFile(cert) and made:UsePrivateKey(pkey)
  key:Delete()  -- the context keeps its own reference
  assert(ok, "cannot use " .. cert .. " and " .. keyFile)
  return made
end

-- One request on `http`: false when the connection is to end.
local function answer(http, root)
  if not http:ReadCommand() or not http:ReadHeaders() then return false end
  if not http:ReadContent(wx.MemoryOutputStream()) then return false end  -- a body is not used
  local name = http:GetReceivedCommandURL():match("^/(%w[%w._-]*)$")  -- no way out of ROOT
  local path = name and root .. "/" .. name
  local probe = path and io.open(path, "rb")
  local close = http:ShouldCloseConnection()
  http:AddHTTPHeader("Connection", close and "close" or "keep-alive")
  local sent
  if http:GetReceivedCommand() ~= "GET" then
    sent = http:RespondSimple(405, "Method Not Allowed")
  elseif not probe then
    sent = http:RespondSimple(404, "Not Found")
  else
    probe:close()
    local body = wx.FileInputStream(path)
    local packed = wx.MemoryOutputStream()
    local filter = http:AttachResponseContentFilters(packed)
    if filter then
      filter:Write(body)
      filter:Close()  -- writes the gzip trailer
      body = wx.MemoryInputStream(packed)
    end
    http:AddHTTPHeader("Content-Type", "application/octet-stream")
    sent = http:Respond(200, "OK", body)
    http:RemoveHTTPHeader("Content-Encoding")  -- it would go with every later answer
  end
  return sent and not close
end

-- Serves the connection `fd` until it ends, the client goes quiet or the
-- agent stops.
function M.serve(fd)
  local tls = context()
  local http = SLB.http.Server(tls)
  local root = os.getenv("ROOT") or "."
  if http:Accept(fd) and (not tls or http:AcceptSSL(nil, nil, nil)) then
    local idle = 0
    while not app:ShouldExit(0) and idle < IDLE_MS do
      -- Waits here rather than in ReadCommand, which would not see the stop
      -- for as long as the socket time-out.
      if #net.select(nil, { fd }, nil, WAIT_MS) == 0 then
        idle = idle + WAIT_MS
      elseif answer(http, root) then
        idle = 0
      else
        break
      end
    end
  end
  http:Disconnect()
  if tls then tls:Delete() end
end

function M.main()
  local script = debug.getinfo(1, "S").source:sub(2)
  local listener = assert(net.CreateListenSocket(false, tonumber(os.getenv("PORT") or 0), 128))
  local _, port = net.getsockname(listener)
  io.stdout:write("PORT ", port, "\n")
  io.stdout:flush()
  local workers = {}
  while not app:ShouldExit(0) do
    for i = #workers, 1, -1 do
      if not workers[i]:isRunning() then
        workers[i]:join()
        table.remove(workers, i)
      end
    end
    local ready = net.select(nil, #workers < MAX_WORKERS and { listener } or {}, nil, WAIT_MS)
    local fd = #ready > 0 and net.accept(listener)
    if fd then
      local code = ("loadfile(%q)('worker').serve(%d)"):format(script, fd)
      local worker = SLB.LuaThread(code, "http " .. fd, app)
      worker:startWithDefaults()
      workers[#workers + 1] = worker
    end
  end
  for _, worker in ipairs(workers) do worker:join() end
  net.closesocket(listener)
end

local how = ...
if how == "worker" then return M end  -- loaded by a connection's thread
if how then return function() return M end end  -- required as a service
app = app or SLB.App()  -- run as a script: the main thread is never told to stop
M.main()
