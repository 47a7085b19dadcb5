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
        console.writeTemplate("response/Response_fail.html", "fail" + items);
    }
    CPageWrapper page{CPageWrapper::CONTENT_TYPE_NONE};
};

TEST_F(ResponsePages, AnErrorPageMayHaveNoHeading) {
    EXPECT_EQ(written([&] { EXPECT_EQ(showErrorPage(page, "T", "R", "B"), 0); }),
              "\nfail: __PAGE_HEADER__|T|__PAGE_TITLE_1__|__PAGE_TITLE_2__|R|B");
    EXPECT_EQ(written([&] { showErrorPage(page, "H", "T", "R", "B"); }),
              "\nfail: H|T|__PAGE_TITLE_1__|__PAGE_TITLE_2__|R|B");
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
