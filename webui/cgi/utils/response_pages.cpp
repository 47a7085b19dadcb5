#include "webui/cgi/utils/response_pages.h"

#include "norv/log.h"

#include <utility>

void CommonResponsePage(CPageWrapper& page, const char* sHeader, const char* sFailTitle, const char* sFailReason,
                        const char* sBackURL) {
    page.addDStringItem("__PAGE_HEADER__", sHeader);
    page.addDStringItem("__PAGE_TITLE__", sFailTitle);
    page.addDStringItem("__FAIL_REASON__", sFailReason);
    page.addDStringItem("__RESPONSE_BACK_PAGE__", sBackURL);
    const bool failed = sFailReason && *sFailReason != '\0';
    page.outputPage(failed ? "response/Response_fail.html" : "response/Response_success.html");
}

void CommonResponsePageDiskFull(CPageWrapper& page, const char* sHeader, const char* sTitle, const char* sBackURL) {
    page.addDStringItem("__PAGE_HEADER__", sHeader);
    page.addDStringItem("__PAGE_TITLE_1__", sTitle);
    page.addDStringItem("__PAGE_TITLE_2__", "Unable to back up the configuration file.");
    page.addDStringItem("__FAIL_REASON__",
                        "It may be corrupted or your system disk may have no space to back up files.");
    page.addDStringItem("__RESPONSE_BACK_PAGE__", sBackURL);
    page.outputPage("response/Disk_full.html");
}

void showErrorPage(CPageWrapper& page, const std::string& sHeader, const std::string& sFailTitle,
                   const std::string& sFailReason, const std::string& sBackURL) {
    NORV_TRACE("ENTER");
    page.addDStringItem("__PAGE_HEADER__", sHeader);
    page.addDStringItem("__PAGE_TITLE__", sFailTitle);
    page.addDStringItem("__FAIL_REASON__", sFailReason);
    page.addDStringItem("__RESPONSE_BACK_PAGE__", sBackURL);
    page.outputPage("response/Response_fail.html");
}

int showErrorPage(CPageWrapper& page, const std::string& sFailTitle, const std::string& sFailReason,
                  const std::string& sBackURL) {
    NORV_TRACE("ENTER");
    page.addDStringItem("__PAGE_TITLE__", sFailTitle);
    page.addDStringItem("__FAIL_REASON__", sFailReason);
    page.addDStringItem("__RESPONSE_BACK_PAGE__", sBackURL);
    page.outputPage("response/Response_fail.html");
    return 0;
}

int NotSupportYet() {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.outputPage("not_support.html");
    return 1;
}

void processSpecialChars(std::string& s) {
    std::string escaped;
    escaped.reserve(s.size());
    for (const char byte : s) {
        if (byte == '\\' || byte == '"') escaped += '\\';
        escaped += byte;
    }
    s = std::move(escaped);
}
