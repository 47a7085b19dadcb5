#include "norv/au_config.h"
#include "norv/locale.h"
#include "norv/log.h"
#include "norv/norv_config.h"
#include "webui/cgi/au_config.h"
#include "webui/cgi/authenticate.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"
#include "webui/cgi/startup.h"
#include "webui/cgi/utils/response_pages.h"

#include <string>

namespace {

void showMainPage() {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.outputPage("norv_main.html");
}

void showManualUpdate(const NORVConfig& config) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    FillUpdateInformation(page, NORVAUConfig(config), UPDATE_MANUAL);
    page.outputPage("update_manual.html");
}

void showConfigurationError() {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    showErrorPage(page, "Manual Update", "Unable to read the configuration file.",
                  "The configuration file may be corrupted.", "./showpage.cgi?page=update_manual.html");
}

/// The pages that have no handler of their own, by name. Nothing but these names ever reaches the file system.
int showPage(const std::string& name, const NORVConfig& config, bool configOk) {
    if (name == "norv_main.html") {
        showMainPage();
        return 0;
    }
    if (name != "update_manual.html") {
        NotSupportYet();
        return 0;
    }
    if (!configOk) {
        showConfigurationError();
        return 1;
    }
    showManualUpdate(config);
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    NORVConfig config;
    const bool configOk = loadConfigurationAndOpenLog(config, argc > 0 ? argv[0] : nullptr);
    NORV_TRACE("Enter");
    set_norv_locale();
    CQSControl request;
    CAuthenticate session(config);
    if (!readRequest(request)) return 1;
    if (!checkSession(session, request)) return 1;
    return showPage(request.getEnv("page"), config, configOk);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
