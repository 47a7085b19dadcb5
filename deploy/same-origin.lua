-- Refuses requests that another site makes in the user's name. Browsers say where a request comes from in
-- Sec-Fetch-Site (https and localhost), in Origin (every POST) or in Referer; what carries none is no other site's.
local headers = lighty.r.req_header
local site = headers["Sec-Fetch-Site"]
local posted = lighty.r.req_attr["request.method"] == "POST"

-- What an address alone starts, stops or ends, without a token.
local ACTIONS = { ["id=logoff"] = true, ["id=stop_scan"] = true, ["id=manual_update"] = true, ["mode=Scan"] = true }

local function acts(query)
  query = query:gsub("%%(%x%x)", function(code) return string.char(tonumber(code, 16)) end)
  for field in query:gmatch("[^&]+") do
    if ACTIONS[field] then return true end
  end
  return false
end
local changing = posted or acts(lighty.r.req_attr["uri.query"] or "")

if site then
  if site == "same-origin" or site == "none" then return 0 end
  -- A link or a bookmark may lead here from anywhere, as long as it only shows something.
  if changing or headers["Sec-Fetch-Mode"] ~= "navigate" then return 403 end
  return 0
end

local from = headers["Origin"] or (not posted and headers["Referer"])
if changing and from then
  local own = lighty.r.req_attr["uri.scheme"] .. "://" .. (headers["Host"] or "")
  if from ~= own and from:sub(1, #own + 1) ~= own .. "/" then return 403 end
end
return 0
