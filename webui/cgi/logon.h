#pragma once

#include "norv/ipc_message.h"
#include "webui/cgi/qs_control.h"

/// What the service says of a session. MUST_CHANGE: it lives, but its password must be changed before anything else.
enum class SessionState { NONE, GOOD, MUST_CHANGE };

/// Where the password is changed.
inline constexpr const char* ACCOUNT_PAGE = "/NorvLinux/account.cgi";

/// Forwards what the browser presented (session cookie, both tokens, address, method) with a session command.
SessionState stateOfSession(IPCMessage::CommandID cmd, const CQSControl& qs);
/// The same. True when the service accepted it.
bool SessionOperation(IPCMessage::CommandID cmd, const CQSControl& qs);

/// How a session is to be checked: what a page's script asks by itself, again and again, says so in the header
/// "Keldra-Asked-By: page" and does not count as use of the session.
IPCMessage::CommandID sessionCheck();

/// Ends the session and sends the browser to the log-on page, whatever the service says.
void LogoffNorv(const CQSControl& qs);

/// Logs on with the form's password: sets the two cookies and goes to the main page, or shows "password_wrong.html".
/// Where the service wants a code as well, the page that asks for it.
void PasswordLogon(const CQSControl& qs);
/// The answer to that page: the field "Code" with the "Ticket" that came with the question.
void SecondStepLogon(const CQSControl& qs);
