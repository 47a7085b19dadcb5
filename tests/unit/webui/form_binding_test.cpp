#include "webui/cgi/utils/form_binding.h"

#include "tests/unit/webui/page_test.h"

#include <string>
#include <utility>
#include <vector>

namespace {

class FormBinding : public PageTest {
protected:
    CPageWrapper page{CPageWrapper::CONTENT_TYPE_NONE};
    const NORVConfig config = configurationOf(
        "<Document><Group Type=\"C\"><P Name=\"text\" Value=\"a&#10;&quot;\\&#9;\"/><P Name=\"on\" Value=\"1\"/>"
        "<P Name=\"off\" Value=\"0\"/><P Name=\"odd\" Value=\"perhaps\"/></Group></Document>");

    static CQSControl requestOf(const std::string& text) {
        CQSControl request;
        EXPECT_TRUE(request.parse(text));
        return request;
    }
    /// What the page makes of a template that is just this text.
    std::string shown(const std::string& text) {
        console.writeTemplate("page.html", text);
        return written([&] { page.outputPage("page.html"); }).substr(1);
    }
};

TEST_F(FormBinding, TextsAndNumbersReplaceTheirDefaults) {
    EXPECT_EQ(AddOneItem(page, "s", R"(a\"b)"), 1);
    EXPECT_EQ(AddOneItem(page, "i", -5), 1);
    EXPECT_EQ(AddOneItem(page, "i2", 1), 1);
    EXPECT_EQ(AddOneItem(page, "i2", 2), 1);
    EXPECT_EQ(shown("s=\"\"|i=0|i2=0"), R"(s="a\\\"b"|i=-5|i2=2)");
    EXPECT_THAT(logged(5), ::testing::IsSupersetOf({R"(add string: s="a\\\"b")", "add string: i=-5"}));
}

TEST_F(FormBinding, AConfigurationTextIsEscapedAsFarAsItsReaderNeeds) {
    EXPECT_EQ(AssignOneItem(page, config, "C", "text", "raw"), 1);
    EXPECT_EQ(AssignOneItem(page, config, "C", "none", "missing"), 0);
    GetConfigAndSet(page, config, "C", "text", "full", "default");
    GetXMLStringAndSet(page, config, "C", "none", "fallback", "de\ffault");
    EXPECT_EQ(shown("raw=\"\"|missing=\"\"|full=\"\"|fallback=\"\""),
              "raw=\"a\n\\\"\\\\\t\"|missing=\"\"|full=\"a\\n\\\"\\\\\\t\"|fallback=\"de\\ffault\"");
}

TEST_F(FormBinding, ARequestTextIsShownAgain) {
    EXPECT_EQ(AssignOneItem(page, requestOf("f=x%22"), "f", "v"), 1);
    EXPECT_EQ(AssignOneItem(page, requestOf(""), "f", "w"), 1);
    EXPECT_EQ(shown("v=\"\"|w=\"\""), "v=\"x\\\"\"|w=\"\"");
}

TEST_F(FormBinding, OverlongValuesAreCutWhereTheyAlwaysWere) {
    GetConfigAndSet(page, config, "C", "none", "v", std::string(5000, 'x').c_str());
    EXPECT_EQ(shown("v=\"\""), "v=\"" + std::string(4095 - 3, 'x'));
    AddOneItem(page, "w", std::string(5000, 'y'));
    EXPECT_EQ(shown("w=\"\""), "w=\"" + std::string(5000, 'y') + "\"");
}

TEST_F(FormBinding, EachKindOfCheckboxHasItsOwnIdeaOfOn) {
    const std::vector<std::pair<const char*, int>> formValues = {{"on", 1},  {"1", 1}, {"off", 0},  {"ON", 0},
                                                                 {"on ", 0}, {"", 0},  {nullptr, 0}};
    for (const auto& [value, expected] : formValues) EXPECT_EQ(SetCheckbox(page, "b", value), expected);
    const std::vector<std::pair<const char*, int>> requests = {
        {"f=on", 1}, {"f=off", 1}, {"f=1", 0}, {"f=", 0}, {"", 0}};
    for (const auto& [text, expected] : requests) EXPECT_EQ(SetCheckbox(page, requestOf(text), "f", "b"), expected);
    EXPECT_EQ(SetCheckbox(page, requestOf("f=on"), nullptr, "b"), 0);
    EXPECT_EQ(GetCheckbox(page, "b", 0), 0);
    EXPECT_EQ(GetCheckbox(page, "b", -1), 1);
    const std::vector<std::pair<const char*, int>> settings = {{"on", 1}, {"off", 0}, {"odd", 0}, {"none", 0}};
    for (const auto& [name, expected] : settings)
        EXPECT_EQ(GetCheckbox(page, config, "C", name, "b"), expected) << name;
    EXPECT_EQ(logged(1), std::vector<std::string>(2, "Faield to get config"));
}

TEST_F(FormBinding, OnlyACheckedBoxChangesThePage) {
    SetCheckbox(page, "a", "on");
    SetCheckbox(page, "b", "off");
    SetCheckbox(page, requestOf("f=on"), "f", "c");
    GetCheckbox(page, "d", 2);
    GetCheckbox(page, config, "C", "on", "e");
    GetCheckbox(page, config, "C", "off", "f");
    EXPECT_EQ(shown("a=false|b=false|c=false|d=false|e=false|f=false"), "a=true|b=false|c=true|d=true|e=true|f=false");
}

}  // namespace
