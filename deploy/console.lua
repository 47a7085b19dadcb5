-- What every answer carries, the web server's own errors included: what a browser may do with it, and the cookies'
-- attributes.
local answer = lighty.r.resp_header
local path = lighty.r.req_attr["uri.path"] or ""

answer["Content-Security-Policy"] = "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; " ..
  "connect-src 'self'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'"
answer["X-Content-Type-Options"] = "nosniff"
answer["X-Frame-Options"] = "DENY"
answer["Referrer-Policy"] = "same-origin"
answer["Cross-Origin-Opener-Policy"] = "same-origin"
answer["Cross-Origin-Resource-Policy"] = "same-origin"
answer["Permissions-Policy"] = "camera=(), geolocation=(), microphone=()"
answer["Cache-Control"] = path:find("^/NorvLinux/") and "no-store" or "no-cache"

-- Same site only, over https only where https is used, and the session cookie out of scripts' reach (the token cookie
-- is read by the pages, which send it back as a field).
local cookies = answer["Set-Cookie"]
if cookies then
  local secure = lighty.r.req_attr["uri.scheme"] == "https" and "; Secure" or ""
  local edited = {}
  for cookie in cookies:gmatch("[^\r\n]+") do
    -- The web server puts the field's name before all cookies but the first: in small letters over HTTP/2.
    cookie = cookie:gsub("^[Ss]et%-[Cc]ookie:%s*", "")
    local httponly = cookie:find("^hvssn=") and "; HttpOnly" or ""
    edited[#edited + 1] = cookie .. "; Path=/; SameSite=Strict" .. httponly .. secure
  end
  answer["Set-Cookie"] = table.concat(edited, "\r\nSet-Cookie: ")
end
return 0
