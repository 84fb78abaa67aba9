-- vesk.demo.Heartbeat: a service that shows the agent at work. It reports the
-- library and the settings it was started with, counts its starts in the
-- persistent configuration, and beats until the agent asks it to stop.
--
-- Settings read: "demo.interval", milliseconds between beats (default 2000).
local vesk = require "vesk_core"

local Heartbeat = {}
Heartbeat.__index = Heartbeat

setmetatable(Heartbeat, {
  __call = function(class) return setmetatable({ beats = 0 }, class) end,
})

local function log(format, ...)
  vesk.wxLogMessage(("Heartbeat: " .. format):format(...))
end

function Heartbeat:countStart()
  local before = tonumber(app:ConfigGet("demo.starts")) or 0
  app:ConfigSet(('<Config><Item name="demo.starts">%d</Item></Config>'):format(before + 1))
  return before
end

function Heartbeat:main()
  local thread = vesk.Runnable.This()
  log("vesk_core %s on %s, thread '%s' (handle %d)", vesk.version, vesk.platform,
      thread:GetThreadName(), thread:GetHandle())
  log("settings %s", app:GetSettings())
  log("started %d time(s) before", self:countStart())

  local interval = tonumber(app:Get("demo.interval")) or 2000
  local started = vesk.SystemTickCount()
  -- ShouldExit sleeps up to the interval, but returns at once when asked to stop.
  while not app:ShouldExit(interval) do
    self.beats = self.beats + 1
    log("beat %d, up %d ms", self.beats, vesk.SystemTickDiff(started))
  end
  log("stopping after %d beat(s)", self.beats)
end

return Heartbeat
