#pragma once

#include "norv/ipc_message.h"
#include "webui/cgi/qs_control.h"

/// Forwards what the browser presented (session cookie, both tokens, address, method) with a session command. True when
/// the service accepted it.
bool SessionOperation(IPCMessage::CommandID cmd, const CQSControl& qs);

/// Ends the session and sends the browser to the log-on page, whatever the service says.
void LogoffNorv(const CQSControl& qs);

/// Logs on with the form's password: sets the two cookies and goes to the main page, or shows "password_wrong.html".
void PasswordLogon(const CQSControl& qs);
