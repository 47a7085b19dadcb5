#include "webui/cgi/authenticate.h"

#include "norv/log.h"
#include "webui/cgi/logon.h"
#include "webui/cgi/page_wrapper.h"

CAuthenticate::CAuthenticate(const NORVConfig& config) : config_(config) {}

bool CAuthenticate::isValid(const CQSControl& request) {
    NORV_TRACE("ENTER");
    const SessionState state = stateOfSession(sessionCheck(), request);
    if (state == SessionState::GOOD || (state == SessionState::MUST_CHANGE && request.getEnv("id") == "logoff"))
        return true;
    if (state == SessionState::MUST_CHANGE) {
        goTo(ACCOUNT_PAGE);
        return false;
    }
    NORV_TRACE("SessionOperation(check) failed.");
    DisplayLoginPage();
    return false;
}

void CAuthenticate::DisplayLoginPage() { redirectTo("/"); }
