-- Refuses requests that another site makes in the user's name. Browsers say where a request comes from in
-- Sec-Fetch-Site (https and localhost) or in Origin (every POST); what carries neither is no browser's form.
local headers = lighty.r.req_header
local site = headers["Sec-Fetch-Site"]
local posted = lighty.r.req_attr["request.method"] == "POST"

if site == "cross-site" or site == "same-site" then
  -- A link or a bookmark may lead here from anywhere; it cannot change anything.
  if posted or headers["Sec-Fetch-Mode"] ~= "navigate" then return 403 end
  return 0
end

local origin = headers["Origin"]
if not site and posted and origin then
  local own = lighty.r.req_attr["uri.scheme"] .. "://" .. (headers["Host"] or "")
  if origin ~= own then return 403 end
end
return 0
