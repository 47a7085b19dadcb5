#include "webui/cgi/logon.h"

#include "norv/locale.h"
#include "norv/log.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"
#include "webui/cgi/startup.h"

/// The target of the log-on form. A password travels in the body of a POST only.
int main(int argc, char** argv) try {
    openLog({}, argc > 0 ? argv[0] : nullptr);
    NORV_TRACE("Enter");
    set_norv_locale();
    CQSControl request;
    if (!readRequest(request)) return 1;
    if (request.requestMethod() != CQSControl::POST) {
        redirectTo("/");
        return 1;
    }
    if (request.getEnv("Ticket").empty())
        PasswordLogon(request);
    else
        SecondStepLogon(request);
    return 0;
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
