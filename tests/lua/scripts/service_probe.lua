-- A service for app_test.lua: reports the thread it runs on through the
-- settings, then waits to be stopped.
return function()
  return {
    main = function()
      local me = SLB.Runnable.This()
      app:Set("probe.handle", me:GetHandle())
      app:Set("probe.thread", me:GetThreadName())
      app:Set("probe.isLuaThread", SLB.LuaThread.This() ~= nil)
      while not app:ShouldExit(1000) do end
    end,
  }
end
