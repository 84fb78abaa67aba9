-- vesk.Config: the agent's persistent configuration, a set of named items
-- kept as one XML document in the state directory:
--
--   <?xml version="1.0" encoding="UTF-8"?>
--   <Config>
--   	<Item name="server.url">https://manager.example</Item>
--   </Config>
--
-- The library calls three methods, all inside its settings interpreter:
--   Store_Internal(xml)           merges the items of a <Config> document into
--                                 the stored ones; <Config/> merges nothing and
--                                 so only loads what is stored
--   Clear(text)                   forgets every item
--   Fetch_Internal(name, asXml)   the item's text ("" if missing), or with asXml
--                                 the item as an element; name "" with asXml
--                                 gives the whole document
-- Store_Internal and Clear return a success flag and a message.
--
-- The file is settings["agent.state.dir"] .. "/config.xml", written to a
-- temporary file first and renamed over the old one, so a reader sees the old
-- document or the new one, never a part. The temporary file's name is the
-- writer's own ("config.xml.new.<process>.<object>"): two writers sharing one
-- name would write into each other's file. With no state directory the items
-- live in memory only.
local vesk = require "vesk_core"

local Config = {}
Config.__index = Config

local entities = { ["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;", ['"'] = "&quot;", ["'"] = "&apos;" }
local names = { amp = "&", lt = "<", gt = ">", quot = '"', apos = "'" }

local function escape(text)
  return (text:gsub("[&<>\"']", entities))
end

local function unescape(text)
  return (text:gsub("&(#?x?)(%w+);", function(kind, body)
    if kind == "" then return names[body] end
    local code = tonumber(body, kind == "#x" and 16 or 10)
    return code and code < 128 and string.char(code) or nil
  end))
end

-- The items of a <Config> document, or nil and a message.
local function parse(xml)
  local body = xml:gsub("^%s*<%?xml.-%?>", ""):gsub("<!%-%-.-%-%->", "")
  if body:match("^%s*<Config%s*/>%s*$") then return {} end
  local inner = body:match("^%s*<Config%s*>(.*)</Config>%s*$")
  if not inner then return nil, "not a <Config> document" end
  local items = {}
  local rest = inner:gsub('<Item%s+name%s*=%s*"([^"]*)"%s*>(.-)</Item>', function(name, text)
    items[unescape(name)] = unescape(text)
    return ""
  end):gsub('<Item%s+name%s*=%s*"([^"]*)"%s*/>', function(name)
    items[unescape(name)] = ""
    return ""
  end)
  if rest:find("%S") then return nil, "unexpected content in <Config>: " .. rest:match("%S.*"):sub(1, 64) end
  return items
end

local function element(name, text)
  return ('<Item name="%s">%s</Item>'):format(escape(name), escape(text))
end

function Config:document()
  local keys = {}
  for name in pairs(self.items) do keys[#keys + 1] = name end
  table.sort(keys)
  local lines = { '<?xml version="1.0" encoding="UTF-8"?>', "<Config>" }
  for _, name in ipairs(keys) do lines[#lines + 1] = "\t" .. element(name, self.items[name]) end
  lines[#lines + 1] = "</Config>"
  return table.concat(lines, "\n") .. "\n"
end

function Config:load()
  if not self.path then return true end
  local file = io.open(self.path, "rb")
  if not file then return true end  -- nothing stored yet
  local text = file:read("*a")
  file:close()
  local items, message = parse(text)
  if not items then return false, self.path .. ": " .. message end
  self.items = items
  return true
end

-- The process id, where the system tells it: one name per process.
local function processId()
  local stat = io.open("/proc/self/stat", "rb")
  local pid = stat and stat:read("*n")
  if stat then stat:close() end
  return pid and ("%d"):format(pid) or tostring(os.time())
end

function Config:save()
  if not self.path then return true end
  local temporary = self.temporary
  local file, message = io.open(temporary, "wb")
  if not file then return false, message end
  local ok, written = pcall(file.write, file, self:document())
  file:close()
  if not ok or not written then
    os.remove(temporary)
    return false, "cannot write " .. temporary
  end
  -- The configuration holds secrets: 0600 whatever the host's umask.
  vesk.file.SecureFileOrDirectory(temporary, false)
  if not vesk.ReplaceFile(temporary, self.path) then
    os.remove(temporary)
    return false, "cannot replace " .. self.path
  end
  return true
end

function Config:Store_Internal(xml)
  local loaded, problem = self:load()
  if not loaded then return false, problem end
  local items, message = parse(xml)
  if not items then return false, message end
  for name, text in pairs(items) do self.items[name] = text end
  local saved, failure = self:save()
  if not saved then return false, failure end
  return true, ""
end

function Config:Clear()
  self.items = {}
  local saved, failure = self:save()
  if not saved then return false, failure end
  return true, ""
end

function Config:Fetch_Internal(name, asXml)
  if asXml and name == "" then return self:document() end
  local text = self.items[name]
  if asXml then return text and element(name, text) or "" end
  return text or ""
end

return function()
  local dir = settings and settings["agent.state.dir"]
  local config = setmetatable({ items = {} }, Config)
  if type(dir) == "string" and dir ~= "" then
    config.path = dir .. "/config.xml"
    -- Two objects of one process differ by their address.
    config.temporary = ("%s.new.%s.%s"):format(config.path, processId(), tostring(config):match("0x(%x+)") or "0")
  end
  return config
end
