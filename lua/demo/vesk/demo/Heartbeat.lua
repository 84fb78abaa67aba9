-- vesk.demo.Heartbeat: the agent at work. At each beat it builds a report of
-- this host (library version, platform, network interfaces, listening ports
-- with their owners, CPU time, uptime) and posts it over HTTPS to the
-- manager, compressed, on one kept-alive connection. The ports come with the
-- hash of their list, so that the manager sees a port open or close without
-- comparing lists. It counts its starts in the persistent configuration, and
-- beats until the agent asks it to stop.
--
-- The manager is trusted on first contact: the fingerprint of its certificate
-- is kept in the configuration ("manager.fingerprint"), and a manager that
-- shows another certificate later is refused. Where the manager's certificate
-- file is known (the demo manager in the same agent publishes it), the TLS
-- handshake verifies the manager against it as well.
--
-- Settings read: "demo.interval", milliseconds between beats (default 2000);
-- "demo.manager.url" (default https://[::1]:48443/agent/report) and
-- "demo.manager.certificate".
local vesk = require "vesk_core"
local hmd, http, net, ssl, wx = SLB.hmd, SLB.http, SLB.net, SLB.ssl, SLB.wx

local Heartbeat = {}
Heartbeat.__index = Heartbeat

setmetatable(Heartbeat, {
  __call = function(class) return setmetatable({ beats = 0, sent = 0 }, class) end,
})

local DEFAULT_MANAGER = "https://[::1]:48443/agent/report"

local function log(format, ...)
  vesk.wxLogMessage(("Heartbeat: " .. format):format(...))
end

local function escape(text)
  return (tostring(text):gsub("[&<>\"']", { ["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;",
    ['"'] = "&quot;", ["'"] = "&apos;" }))
end

-- A record as the object model gives it to Lua ({tag = ..., attr = {...},
-- children...}) written back as XML.
local function element(record, indent)
  local attributes = {}
  for name, value in pairs(record.attr or {}) do
    if type(name) == "string" then attributes[#attributes + 1] = (' %s="%s"'):format(name, escape(value)) end
  end
  table.sort(attributes)
  local children = {}
  for _, child in ipairs(record) do
    if type(child) == "table" then children[#children + 1] = element(child, indent .. "\t") end
  end
  local open = indent .. "<" .. record.tag .. table.concat(attributes)
  if #children == 0 then return open .. "/>" end
  return open .. ">\n" .. table.concat(children, "\n") .. "\n" .. indent .. "</" .. record.tag .. ">"
end

function Heartbeat:report()
  local interfaces = net.GetPlatformInterfaces(true) or { tag = "Interfaces" }
  -- Every TCP listener and UDP endpoint with its process and user; the
  -- result's "hash" attribute changes when any of them does.
  local _, ports = hmd.GetListenPorts("detailed")
  return table.concat({
    '<?xml version="1.0" encoding="UTF-8"?>',
    ('<AgentReport version="%s" platform="%s" beat="%d" uptimeMs="%d" cpuSeconds="%.3f">'):format(
      escape(vesk.version), escape(vesk.platform), self.beats, vesk.SystemTickDiff(self.started),
      os.clock()),
    element(interfaces, "\t"),
    element(ports, "\t"),
    "</AgentReport>",
  }, "\n")
end

function Heartbeat:countStart()
  local before = tonumber(app:ConfigGet("demo.starts")) or 0
  app:ConfigSet(('<Config><Item name="demo.starts">%d</Item></Config>'):format(before + 1))
  return before
end

-- The context for the manager; it verifies the manager's chain when the
-- manager's certificate file is known.
-- A manager that published its certificate after the context was made (it
-- started a moment later) gets a context, and a client, that verify it.
function Heartbeat:context()
  local certificate = app:Get("demo.manager.certificate")
  local known = type(certificate) == "string" and certificate ~= ""
  if self.tls and known and not self.verifying then
    if self.client then self.client:Disconnect() end
    self.client = nil
    self.tls:Delete()
    self.tls = nil
  end
  if not self.tls then
    self.tls = ssl.Context.New(ssl.TLSv1_client_method())
    self.verifying = known
    if known then
      self.tls:LoadVerifyLocations(certificate)
      self.tls:SetVerify(ssl.Context.SSL_VERIFY.PEER)
    end
  end
  return self.tls
end

-- Whether the connection's manager is the one trusted; the first one seen
-- becomes it.
function Heartbeat:trusted()
  local peer = self.client:GetPeerCertificate()
  if not peer then return false end
  local certificate = ssl.Cert.NewCopy(peer)
  local fingerprint = certificate:GetFingerprint()
  certificate:Delete()
  local known = app:ConfigGet("manager.fingerprint")
  if known == "" then
    app:ConfigSet(('<Config><Item name="manager.fingerprint">%s</Item></Config>'):format(fingerprint))
    log("trusting the manager with the certificate %s from now on", fingerprint)
    return true
  end
  if known ~= fingerprint then
    log("refusing the manager: its certificate %s is not the trusted %s", fingerprint, known)
    return false
  end
  return true
end

-- A new connection is first asked for the status, which sends nothing of
-- this host, so that a manager is checked before it gets a report.
function Heartbeat:connect(url)
  local status = url:gsub("/agent/report$", "/agent/status")
  if not self.client:Get(status, wx.MemoryOutputStream(), false) then return false end
  if not self:trusted() then
    self.client:Disconnect()
    return false
  end
  return true
end

function Heartbeat:post()
  local url = app:Get("demo.manager.url") or DEFAULT_MANAGER
  local context = self:context()
  self.client = self.client or http.Client(context)
  if not self.client:IsConnected() and not self:connect(url) then return false end
  -- Compressed as the manager said it takes (its Accept-Encoding).
  local body = wx.MemoryOutputStream()
  local filter = self.client:AttachResponseContentFilters(body)
  ;(filter or body):Write(self:report())
  if filter then filter:Close() end
  local answer = wx.MemoryOutputStream()
  local posted = self.client:Post(url, wx.MemoryInputStream(body), answer, false)
  self.client:RemoveHTTPHeader("Content-Encoding")
  if not posted or self.client:GetReceivedStatus() ~= 200 then
    self.client:Disconnect()
    return false
  end
  return true
end

function Heartbeat:main()
  local thread = vesk.Runnable.This()
  log("vesk_core %s on %s, thread '%s' (handle %d)", vesk.version, vesk.platform,
      thread:GetThreadName(), thread:GetHandle())
  log("started %d time(s) before", self:countStart())

  local interval = tonumber(app:Get("demo.interval")) or 2000
  self.started = vesk.SystemTickCount()
  -- ShouldExit sleeps up to the interval, but returns at once when asked to stop.
  while not app:ShouldExit(interval) do
    self.beats = self.beats + 1
    if self:post() then
      self.sent = self.sent + 1
      log("beat %d: report %d sent, up %d ms", self.beats, self.sent, vesk.SystemTickDiff(self.started))
    else
      log("beat %d: the manager could not be reached (%s)", self.beats, ssl.GetLastError())
    end
  end
  if self.client then self.client:Disconnect() end
  if self.tls then self.tls:Delete() end
  log("stopping after %d beat(s), %d report(s) sent", self.beats, self.sent)
end

return Heartbeat
