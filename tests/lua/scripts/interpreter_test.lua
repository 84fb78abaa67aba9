-- The interpreter as a script inside the agent sees it.
local vesk = require "vesk_core"
assert(vesk.linux == true)

-- os.exit ends the chunk at once, wherever it is called from; the agent
-- treats that as success. Everything after this point must not run.
local co = coroutine.wrap(function()
  pcall(os.exit, 0)
  error("pcall must not swallow os.exit")
end)
pcall(co)
error("os.exit must end the chunk")
