-- Attributes of the programs' cookies: same site only, over https only where https is used, and the session cookie out
-- of scripts' reach (the token cookie is read by the pages, which send it back as a field).
local cookies = lighty.r.resp_header["Set-Cookie"]
if cookies then
  local secure = lighty.r.req_attr["uri.scheme"] == "https" and "; Secure" or ""
  local edited = {}
  for cookie in cookies:gmatch("[^\n]+") do
    cookie = cookie:gsub("\r", ""):gsub("^Set%-Cookie:%s*", "")
    local httponly = cookie:find("^hvssn=") and "; HttpOnly" or ""
    edited[#edited + 1] = cookie .. "; Path=/; SameSite=Strict" .. httponly .. secure
  end
  lighty.r.resp_header["Set-Cookie"] = table.concat(edited, "\r\nSet-Cookie: ")
end
return 0
