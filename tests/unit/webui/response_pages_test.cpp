#include "webui/cgi/utils/response_pages.h"

#include "tests/unit/webui/page_test.h"

#include <string>
#include <utility>
#include <vector>

namespace {

class ResponsePages : public PageTest {
protected:
    ResponsePages() {
        const std::string items =
            ": __PAGE_HEADER__|__PAGE_TITLE__|__PAGE_TITLE_1__|__PAGE_TITLE_2__|__FAIL_REASON__|__RESPONSE_BACK_PAGE__";
        console.writeTemplate("response/Response_success.html", "success" + items);
        console.writeTemplate("response/Response_fail.html", "fail" + items);
        console.writeTemplate("response/Disk_full.html", "full" + items);
        console.writeTemplate("not_support.html", "not supported");
    }
    CPageWrapper page{CPageWrapper::CONTENT_TYPE_NONE};
};

TEST_F(ResponsePages, TheReasonTellsFailureFromSuccess) {
    EXPECT_EQ(written([&] { CommonResponsePage(page, "H", "T", "", "B"); }),
              "\nsuccess: H|T|__PAGE_TITLE_1__|__PAGE_TITLE_2__||B");
    EXPECT_EQ(written([&] { CommonResponsePage(page, "H", "T", "R", "B"); }),
              "\nfail: H|T|__PAGE_TITLE_1__|__PAGE_TITLE_2__|R|B");
    EXPECT_EQ(written([&] { CommonResponsePage(page, nullptr, nullptr, nullptr, nullptr); }),
              "\nsuccess: ||__PAGE_TITLE_1__|__PAGE_TITLE_2__||");
}

TEST_F(ResponsePages, AFullDiskIsExplained) {
    EXPECT_EQ(written([&] { CommonResponsePageDiskFull(page, "H", "T", nullptr); }),
              "\nfull: H|__PAGE_TITLE__|T|Unable to back up the configuration file.|It may be corrupted or your system "
              "disk may have no space to back up files.|");
}

TEST_F(ResponsePages, AnErrorPageMayHaveNoHeading) {
    EXPECT_EQ(written([&] { EXPECT_EQ(showErrorPage(page, "T", "R", "B"), 0); }),
              "\nfail: __PAGE_HEADER__|T|__PAGE_TITLE_1__|__PAGE_TITLE_2__|R|B");
    EXPECT_EQ(written([&] { showErrorPage(page, "H", "T", "R", "B"); }),
              "\nfail: H|T|__PAGE_TITLE_1__|__PAGE_TITLE_2__|R|B");
}

TEST_F(ResponsePages, AnUnknownPageSaysSo) {
    EXPECT_EQ(written([] { EXPECT_EQ(NotSupportYet(), 1); }), "Content-type: text/html\n\nnot supported");
}

TEST(ProcessSpecialChars, KeepsAValueInsideItsQuotes) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""}, {R"(\")", R"(\\\")"}, {R"(""\\)", R"(\"\"\\\\)"}, {"a'\n\tb", "a'\n\tb"}};
    for (auto [text, expected] : cases) {
        processSpecialChars(text);
        EXPECT_EQ(text, expected);
    }
}

}  // namespace
