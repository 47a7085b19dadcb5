#include "tests/program/console_test.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

namespace {

class DefaultExtensions : public ConsoleTest {
protected:
    DefaultExtensions() { console.writeTemplate("ScanOptions/HVDefaultExt.html", "[..p..]__HV_EXT_LIST__"); }
    CgiResponse show(std::string_view file) {
        console.write("var/HVDefaultExt.txt", file);
        return get("id=default_ext");
    }
};

/// The table of these extensions, five to a row, rows in two shades, the last one filled up.
std::string table(const Strings& extensions) {
    if (extensions.empty()) {
        std::string fillers;
        for (int i = 0; i < 4; ++i) fillers += "<td class=\"\"> &nbsp; </td>\n";
        return fillers + "</tr>\n";
    }
    std::string text;
    const std::size_t cells = (extensions.size() + 4) / 5 * 5;
    for (std::size_t i = 0; i < cells; ++i) {
        const std::string shade = i / 5 % 2 == 0 ? "data1b" : "data2b";
        if (i % 5 == 0) text += "<tr>\n";
        text += "<td class=\"" + shade + "\">" + (i < extensions.size() ? extensions[i] : " &nbsp; ") + "</td>\n";
        if (i % 5 == 4) text += "</tr>\n";
    }
    return text;
}

Strings numbered(std::size_t count) {
    Strings result;
    for (std::size_t i = 0; i < count; ++i) result.push_back("e" + std::to_string(i));
    return result;
}

std::string joined(const Strings& parts) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : ";") + part;
    return text;
}

}  // namespace

TEST_F(DefaultExtensions, TheTableIsToTheByteWhatTheStyleSheetExpects) {
    expectPage(show("Version 3\nexe;com:bat\r\n"),
               "[Version 3\n]<tr>\n<td class=\"data1b\">exe</td>\n<td class=\"data1b\">com</td>\n"
               "<td class=\"data1b\">bat</td>\n<td class=\"data1b\"> &nbsp; </td>\n"
               "<td class=\"data1b\"> &nbsp; </td>\n</tr>\n");
}

TEST_F(DefaultExtensions, EveryExtensionHasItsCell) {
    for (const std::size_t count : {0U, 1U, 4U, 5U, 6U, 10U, 11U, 100U}) {
        SCOPED_TRACE(count);
        const CgiResponse response = show("v\n" + joined(numbered(count)) + "\n");
        expectPage(response, "[v\n]" + table(numbered(count)));
        EXPECT_THAT(complaints(response), IsEmpty());
    }
}

TEST_F(DefaultExtensions, TheListEndsAtAnEmptyEntryOrTheEndOfItsLine) {
    const std::vector<std::pair<std::string, Strings>> cases{
        {"v\nexe;;com\n", {"exe"}},           {"v\n;exe\n", {}},
        {"v\nexe;com;\n", {"exe", "com"}},    {"v\nexe\ncom;bat\n", {"exe"}},
        {"v\nexe\rcom\n", {"exe", "com"}},    {std::string("v\nexe;com\0;bat\n", 15), {"exe", "com"}},
        {"a long header line\nexe", {"exe"}}, {"a;b;c;d;e;f;g;h\nexe;com", {"exe", "com"}}};
    for (const auto& [file, extensions] : cases) {
        SCOPED_TRACE(file);
        const std::string header = file.substr(0, file.find('\n') + 1);
        expectPage(show(file), "[" + header + "]" + table(extensions));
    }
}

TEST_F(DefaultExtensions, AMissingOrShortFileStillGivesAPage) {
    const CgiResponse missing = get("id=default_ext");
    expectPage(missing, "[Unknown]");
    EXPECT_THAT(complaints(missing), IsEmpty());
    const CgiResponse empty = show("");
    expectPage(empty, "[]" + table({}));
    EXPECT_THAT(complaints(empty), ElementsAre("2 fgets failed", "2 fgets failed"));
    const CgiResponse oneLine = show("exe;com\n");
    expectPage(oneLine, "[exe;com\n]" + table({"exe", "com"}));
    EXPECT_THAT(complaints(oneLine), ElementsAre("2 fgets failed"));
}

TEST_F(DefaultExtensions, WithoutAVarPathTheUsualPlaceIsTried) {
    defaults.document = "<Document/>";
    serve();
    const CgiResponse response = get("id=default_ext");
    expectPage(response, "[Unknown]");
    EXPECT_THAT(complaints(response), ElementsAre("2 Cannnot find matching category and name [Configuration,VarPath]",
                                                  "1 Failed to get confg value"));
}

TEST_F(DefaultExtensions, AnOverlongLineIsCutWhereTheBufferEnds) {
    const std::string ten = joined(numbered(10000));
    Strings shown;
    std::istringstream cut(ten.substr(0, 1023));
    for (std::string part; std::getline(cut, part, ';');) shown.push_back(part);
    expectPage(show("v\n" + ten + "\n"), "[v\n]" + table(shown));
    // One entry that ends with the buffer's last byte.
    expectPage(show("v\n" + std::string(1022, 'x') + "\n"), "[v\n]" + table({std::string(1022, 'x')}));
    expectPage(show("v\n" + std::string(5000, 'x')), "[v\n]" + table({std::string(1023, 'x')}));
    // A header that does not fit: what is left of it is read as the list.
    expectPage(show(std::string(1023, 'h') + "exe;com\nbat\n"),
               "[" + std::string(1023, 'h') + "]" + table({"exe", "com"}));
}
