#include "norv/au_config.h"
#include "norv/norv_config.h"
#include "webui/cgi/au_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/utils/response_pages.h"
#include "webui/console/console_page.h"
#include "webui/console/json_response.h"

#include <string>

namespace {

void showMainPage() { showConsolePage("norv_main.html"); }

void showManualUpdate(const NORVConfig& config) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    FillUpdateInformation(page, NORVAUConfig(config), UPDATE_MANUAL);
    showConsolePage("update_manual.html", page);
}

void showConfigurationError() {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    showErrorPage(page, "Manual Update", "Unable to read the configuration file.",
                  "The configuration file may be corrupted.", "./showpage.cgi?page=update_manual.html");
}

/// The pages that have no handler of their own, by name. Nothing but these names ever reaches the file system.
int showPage(const ConsoleRequest& request) {
    const std::string name = request.text("page");
    if (name == "norv_main.html") {
        showMainPage();
        return 0;
    }
    if (name != "update_manual.html") {
        NotSupportYet();
        return 0;
    }
    const auto config = request.fetchConfiguration();
    if (!config) {
        showConfigurationError();
        return 1;
    }
    showManualUpdate(*config);
    return 0;
}

}  // namespace

int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, showPage); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
