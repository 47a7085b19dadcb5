-- Refuses addresses of no program, and requests that another site makes in the user's name. Browsers say where a request
-- comes from in Sec-Fetch-Site (https and localhost), in Origin (every POST) or in Referer.
local request = lighty.r.req_attr
local headers = lighty.r.req_header

local path = request["uri.path"] or ""
if path:find("^/NorvLinux/") and not path:find("^/NorvLinux/%l+%.cgi$") then return 403 end

-- The web server believes a proxy about https only when the browser has another address than the proxy.
if os.getenv("KELDRA_SCHEME") == "proxy" and headers["X-Forwarded-Proto"] == "https" then
  request["uri.scheme"] = "https"
end

-- What an address alone starts, stops or ends, without a token.
local ACTIONS = { ["id=logoff"] = true, ["id=stop_scan"] = true, ["id=manual_update"] = true, ["mode=Scan"] = true }

local function acts(query)
  query = query:gsub("%%(%x%x)", function(code) return string.char(tonumber(code, 16)) end)
  for field in query:gmatch("[^&]+") do
    if ACTIONS[field] then return true end
  end
  return false
end
local posted = request["request.method"] == "POST"
local changing = posted or acts(request["uri.query"] or "")

local site = headers["Sec-Fetch-Site"]
if site then
  if site == "same-origin" or site == "none" then return 0 end
  -- A link or a bookmark may lead here from anywhere, as long as it only shows something.
  if changing or headers["Sec-Fetch-Mode"] ~= "navigate" then return 403 end
  return 0
end
if not changing then return 0 end

local from = headers["Origin"] or (not posted and headers["Referer"])
-- Every POST of a browser says where it comes from. An address that acts must say so too: a site can leave it out.
if not from then return posted and 0 or 403 end
local own = request["uri.scheme"] .. "://" .. (headers["Host"] or "")
if from ~= own and from:sub(1, #own + 1) ~= own .. "/" then return 403 end
return 0
