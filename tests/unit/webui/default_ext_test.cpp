#include "webui/cgi/default_ext.h"

#include "tests/unit/webui/page_test.h"

#include <optional>
#include <string>
#include <vector>

namespace {

class DefaultExtensions : public PageTest {
protected:
    /// The page for a list file, header and table separated by "|".
    std::string page(const std::optional<std::string>& list) {
        console.writeTemplate("ScanOptions/HVDefaultExt.html", "..p..|__HV_EXT_LIST__");
        if (list) console.write("var/HVDefaultExt.txt", *list);
        const NORVConfig config =
            configurationOf("<Document><Group Type=\"Configuration\"><P Name=\"VarPath\" Value=\"" +
                            console.var().string() + "\"/></Group></Document>");
        const std::string head = "Content-type: text/html\n\n";
        const std::string response = written([&] { GetHVDefaultExt(config); });
        EXPECT_EQ(response.substr(0, head.size()), head);
        return response.substr(head.size());
    }
    static std::string cells(const std::string& style, const std::vector<std::string>& contents) {
        std::string text;
        for (const auto& content : contents) text += "<td class=\"" + style + "\">" + content + "</td>\n";
        return text;
    }
    static std::string row(const std::string& style, const std::vector<std::string>& contents) {
        return "<tr>\n" + cells(style, contents) + "</tr>\n";
    }
    const std::string fill = " &nbsp; ";
};

TEST_F(DefaultExtensions, AMissingListIsUnknown) { EXPECT_EQ(page(std::nullopt), "Unknown|"); }

TEST_F(DefaultExtensions, RowsAreFilledUpToFive) {
    EXPECT_EQ(page("H\nexe;com:bat\r\n"), "H\n|" + row("data1b", {"exe", "com", "bat", fill, fill}));
    EXPECT_EQ(page("H\n1;2;3;4;5"), "H\n|" + row("data1b", {"1", "2", "3", "4", "5"}));
    EXPECT_EQ(page("H\n1;2;3;4;5;6;7;8;9;10;11\n"), "H\n|" + row("data1b", {"1", "2", "3", "4", "5"}) +
                                                        row("data2b", {"6", "7", "8", "9", "10"}) +
                                                        row("data1b", {"11", fill, fill, fill, fill}));
}

TEST_F(DefaultExtensions, AnEmptyTokenEndsTheList) {
    EXPECT_EQ(page("H\nexe;;com\n"), "H\n|" + row("data1b", {"exe", fill, fill, fill, fill}));
    EXPECT_EQ(page("H\n\n"), "H\n|" + cells("", {fill, fill, fill, fill}) + "</tr>\n");
}

TEST_F(DefaultExtensions, NothingOfALongHeaderBecomesAnExtension) {
    EXPECT_EQ(page("A header; with: separators\na\n"),
              "A header; with: separators\n|" + row("data1b", {"a", fill, fill, fill, fill}));
}

TEST_F(DefaultExtensions, AListWithoutASecondLineShowsItsHeader) {
    EXPECT_EQ(page("H;x"), "H;x|" + row("data1b", {"H", "x", fill, fill, fill}));
    EXPECT_EQ(logged(2), std::vector<std::string>{"fgets failed"});
    EXPECT_EQ(page(""), "|" + cells("", {fill, fill, fill, fill}) + "</tr>\n");
}

TEST_F(DefaultExtensions, ALineThatFillsTheBufferIsCutThere) {
    const std::string token(1023, 'x');
    EXPECT_EQ(page("H\n" + token + ";y\n"), "H\n|" + row("data1b", {token, fill, fill, fill, fill}));
    EXPECT_EQ(page(token + "yz\n1\n"), token + "|" + row("data1b", {"yz", fill, fill, fill, fill}));
}

}  // namespace
