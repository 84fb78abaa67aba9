-- vesk.demo.Manager: the manager's side of the demo, as a service of the
-- agent. An HTTPS server on loopback that takes agents' reports and shows the
-- last of them:
--
--   POST /agent/report   stores the report (an <AgentReport> document) and
--                        answers with it
--   GET  /agent/status   <Reports> with the last reports, newest last
--
-- Its certificate is made at its first start (by the openssl tool) into the
-- state directory, readable by the agent alone. Each connection is served by
-- a thread of its own, at most `demo.manager.workers` at once; a stop ends
-- the threads as they wait for the next request.
--
-- Settings read: "demo.manager.port" (default 48443; 0 picks a free port),
-- "demo.manager.workers" (default 16), "agent.state.dir". Settings written,
-- for the agent's other services: "demo.manager.url" and
-- "demo.manager.certificate".
local vesk = require "vesk_core"
local net, ssl, wx = SLB.net, SLB.ssl, SLB.wx

local Manager = {}
Manager.__index = Manager
setmetatable(Manager, { __call = function(class) return setmetatable({ workers = {} }, class) end })

local KEPT_REPORTS = 10

local function log(format, ...)
  vesk.wxLogMessage(("Manager: " .. format):format(...))
end

-- The certificate and key, made once.
local function credentials(dir)
  local certificate, key = dir .. "/manager-cert.pem", dir .. "/manager-key.pem"
  local file = io.open(certificate, "rb")
  if file then
    file:close()
    return certificate, key
  end
  local made = os.execute(("openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -sha256 "
    .. "-subj /CN=vesk-demo-manager -addext subjectAltName=IP:::1,IP:127.0.0.1 "
    .. "-keyout '%s' -out '%s' 2>/dev/null"):format(key, certificate))
  assert(made, "cannot make the manager's certificate (is the openssl tool installed?)")
  vesk.file.SecureFileOrDirectory(key, false)
  vesk.file.SecureFileOrDirectory(certificate, false)
  log("made its certificate %s", certificate)
  return certificate, key
end

-- The chunk each connection's thread runs: plain text, since Lua values
-- can't cross threads. %d is the socket, the two %q the credentials' files.
local WORKER = [[
local net, ssl, wx, http, cred = SLB.net, SLB.ssl, SLB.wx, SLB.http, SLB.cred
local socket, certificate, keyFile, kept = %d, %q, %q, %d
local me = SLB.LuaThread.This()
local events = net.MakeWakeable({ socket })
me:SetAwakenEvents(events)

local function read(path)
  local file = assert(io.open(path, "rb"))
  local text = file:read("*a")
  file:close()
  return text
end

local context = ssl.Context.New(ssl.TLSv1_server_method())
local key = cred.GetPrivateKey(read(keyFile))
assert(context:UseCertificateChainFile(certificate) and context:UsePrivateKey(key))
ssl.EvpPkey.New(key):Delete()

local function body(text)
  local out = wx.MemoryOutputStream()
  out:Write(text)
  return wx.MemoryInputStream(out)
end

local function reports()
  local parts = { '<?xml version="1.0" encoding="UTF-8"?>', "<Reports>" }
  local count = app:Get("demo.manager.reports") or 0
  for i = math.max(1, count - kept + 1), count do
    parts[#parts + 1] = app:Get("demo.manager.report." .. (i - 1) %% kept) or ""
  end
  parts[#parts + 1] = "</Reports>"
  return table.concat(parts, "\n")
end

local function store(report, encoding)
  local count = (app:Get("demo.manager.reports") or 0) + 1
  report = report:gsub("^%%s*<%%?xml.-%%?>%%s*", ""):gsub("^<AgentReport", '<AgentReport received="'
    .. os.date("!%%Y-%%m-%%dT%%H:%%M:%%SZ") .. '" encoding="' .. encoding .. '"', 1)
  app:Set("demo.manager.report." .. (count - 1) %% kept, report)
  app:Set("demo.manager.reports", count)
  return report
end

local function respond(server, status, reason, text)
  -- The agent asked for gzip or deflate: the answer is compressed too.
  local out = wx.MemoryOutputStream()
  local filter = server:AttachResponseContentFilters(out)
  ;(filter or out):Write(text)
  if filter then filter:Close() end
  server:AddHTTPHeader(http.Header.ContentType, "application/xml")
  -- What the agent may compress its reports with.
  server:AddHTTPHeader("Accept-Encoding", "gzip")
  server:Respond(status, reason, wx.MemoryInputStream(out))
  server:RemoveHTTPHeader("Content-Encoding")
end

local server = http.Server(context)
if server:Accept(socket) and server:AcceptSSL(nil, nil, nil) then
  -- Each request is awaited here, where a stop can wake the thread.
  while not me:TestDestroy(0) do
    local ready = net.select(events, { socket }, nil, 1000)
    if #ready > 0 then
      if not server:ReadCommand() or not server:ReadHeaders() then break end
      local received = wx.MemoryOutputStream()
      server:ReadContent(received)
      local command, url = server:GetReceivedCommand(), server:GetReceivedCommandURL()
      local input = wx.MemoryInputStream(received)
      local text = input:GetLength() > 0 and input:Read(input:GetLength()) or ""
      if command == "POST" and url == "/agent/report" and text:find("<AgentReport", 1, true) then
        respond(server, 200, "OK", store(text, server:GetReceivedHeader("Content-Encoding")))
      elseif command == "GET" and url == "/agent/status" then
        respond(server, 200, "OK", reports())
      else
        respond(server, 404, "Not Found", "<Error>no such resource</Error>")
      end
      if server:ShouldCloseConnection() then break end
    end
  end
end
server:Disconnect()
net.closeevent(events[1])
net.closeevent(events[2])
context:Delete()
]]

function Manager:serve(listener, certificate, key)
  local me = vesk.LuaThread.This()
  local events = net.MakeWakeable({ listener })
  me:SetAwakenEvents(events)
  local bound = tonumber(app:Get("demo.manager.workers")) or 16
  while not app:ShouldExit(0) do
    self:collect()
    -- At the bound the listener is not watched: connections wait in its backlog.
    local watched = #self.workers < bound and { listener } or {}
    local ready = net.select(events, watched, nil, 1000)
    if #ready > 0 then
      local socket, host, port = net.accept(listener)
      if socket then
        local worker = vesk.LuaThread(WORKER:format(socket, certificate, key, KEPT_REPORTS),
          "manager-" .. port, app)
        worker:startWithDefaults()
        self.workers[#self.workers + 1] = worker
      end
    end
  end
  net.closeevent(events[1])
  net.closeevent(events[2])
end

-- Joins the threads whose connections have ended.
function Manager:collect()
  for i = #self.workers, 1, -1 do
    if not self.workers[i]:isRunning() then
      self.workers[i]:join()
      table.remove(self.workers, i)
    end
  end
end

function Manager:main()
  local dir = app:Get("agent.state.dir")
  assert(type(dir) == "string" and dir ~= "", "the manager needs a state directory (--state-dir)")
  local certificate, key = credentials(dir)
  local listener = assert(net.CreateListenSocket(false, tonumber(app:Get("demo.manager.port")) or 48443, 64),
    "cannot listen")
  local _, port = net.getsockname(listener)
  local url = ("https://[::1]:%d"):format(port)
  app:Set("demo.manager.certificate", certificate)
  app:Set("demo.manager.url", url .. "/agent/report")
  log("listening on %s (GET %s/agent/status shows the reports)", url, url)
  self:serve(listener, certificate, key)
  for _, worker in ipairs(self.workers) do worker:requestExit() end
  for _, worker in ipairs(self.workers) do worker:join() end
  net.closesocket(listener)
  log("stopped")
end

return Manager
