#include "webui/console/console_page.h"

int showConsolePage(const std::string& name, CPageWrapper& page) {
    page.addTexts("console.mui");
    return page.outputPage(name) ? 0 : 1;
}

int showConsolePage(const std::string& name) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    return showConsolePage(name, page);
}
