-- The agent's demo job: what a script sees of the library.
local vesk = require "vesk_core"

print("vesk_core " .. vesk.version .. " on " .. vesk.platform)
print(string.format("int %d bits, long %d bits, pointer %d bits, linux: %s",
                    vesk.int_bits, vesk.long_bits, vesk.ptr_bits, tostring(vesk.linux)))

vesk.wxLogMessage("the demo logs through the host's log target (100% literal)")

-- os.exit ends this chunk, not the agent, however deep the call.
local ok = pcall(function()
  print("leaving through os.exit from inside pcall")
  os.exit(0)
end)
print("never printed", ok)
