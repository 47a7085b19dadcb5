#include "webui/cgi/authenticate.h"

#include "norv/log.h"
#include "webui/cgi/logon.h"
#include "webui/cgi/page_wrapper.h"

CAuthenticate::CAuthenticate(const NORVConfig& config) : config_(config) {}

bool CAuthenticate::isValid(const CQSControl& request) {
    NORV_TRACE("ENTER");
    if (SessionOperation(IPCMessage::SESSION_CHECK, request)) return true;
    NORV_TRACE("SessionOperation(check) failed.");
    DisplayLoginPage();
    return false;
}

void CAuthenticate::DisplayLoginPage() { redirectTo("/"); }
