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
local edited = {}
local secure = lighty.r.req_attr["uri.scheme"] == "https" and "; Secure" or ""
for cookie in (answer["Set-Cookie"] or ""):gmatch("[^\r\n]+") do
  -- The web server puts the field's name before all cookies but the first: in small letters over HTTP/2.
  cookie = cookie:gsub("^[Ss]et%-[Cc]ookie:%s*", "")
  local httponly = cookie:find("^hvssn=") and "; HttpOnly" or ""
  edited[#edited + 1] = cookie .. "; Path=/; SameSite=Strict" .. httponly .. secure
end

-- Another program on this host can plant cookies of the same names. Of two the last counts, which is the console's own
-- unless the other is one of the whole domain: such a one is taken away.
local host = (lighty.r.req_header["Host"] or ""):gsub(":%d*$", "")
local sent = {}
for name in (lighty.r.req_header["Cookie"] or ""):gmatch("([^=;%s]+)=[^;]*") do
  sent[name] = (sent[name] or 0) + 1
  if (name == "hvssn" or name == "CsrfToken") and sent[name] == 2 and not host:find("^[%d.]+$") then
    local domain = host
    while domain:find("%.") do
      edited[#edited + 1] = name .. "=; Max-Age=0; Path=/; Domain=" .. domain
      domain = domain:gsub("^[^.]*%.", "", 1)
    end
  end
end
if #edited > 0 then answer["Set-Cookie"] = table.concat(edited, "\r\nSet-Cookie: ") end
return 0
