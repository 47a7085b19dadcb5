#include "norv/custom_action.h"
#include "norv/path_list.h"
#include "norv/text_form.h"
#include "norv/week_day.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

TEST(CustomActionList, KeepsWhatIsWellFormedInItsOrder) {
    const struct {
        const char* text;
        const char* kept;
    } cases[] = {
        {"", ""},
        {"Virus-3-2,Trojan-2-0", "Virus-3-2,Trojan-2-0"},
        {",Virus-3-2,,Joke-0-0,", "Virus-3-2,Joke-0-0"},
        {"Virus-3-2,Virus-1-1", "Virus-3-2"},
        {"Test-Virus_2 x-3-2", "Test-Virus_2 x-3-2"},
        {"Virus-10-22", "Virus-10-22"},
        {"Virus,Virus-3,-3-2,Virus-3-,Virus--2,Virus-a-2,Virus-3-b", ""},
        {"V<b>-3-2,V\"-3-2,V\\-3-2,V\n-3-2,V\xc3\xbc-3-2,Joke-1-0", "Joke-1-0"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.kept, CustomActionList(c.text).toString()) << c.text;
}

TEST(CustomActionList, GivesTheDefaultsForATypeItDoesNotKnow) {
    CustomActionList list("Virus-3-2,Universe-4-1");
    EXPECT_EQ("4-1", list.action("Universe", 0, 0).actionString());
    EXPECT_EQ("0-0", list.action("Vir", 0, 0).actionString());
    list.removeCustomAction("Universe");
    list.removeCustomAction("Missing");
    EXPECT_EQ("2-0", list.action("Universe", 2, 0).actionString());
    EXPECT_EQ("Virus-3-2", list.toString());
    EXPECT_FALSE(list.empty());
}

TEST(PathList, NamesWithSeparatorsComeBack) {
    const std::vector<std::string> names = {"/srv/a;b", "/srv/c\\", "\\;", " /srv/blanks ", "*.iso"};
    EXPECT_EQ(names, splitPathList(joinPathList(names)));
}

TEST(PathList, EmptyEntriesAndAnOpenEndAreHarmless) {
    EXPECT_EQ((std::vector<std::string>{"/a", "/b"}), splitPathList(";/a;;/b;"));
    EXPECT_EQ((std::vector<std::string>{"/a\\"}), splitPathList("/a\\"));
    EXPECT_TRUE(splitPathList("").empty());
    EXPECT_EQ("/a", joinPathList({"", "/a", ""}));
}

TEST(WeekDay, NamesAndDigitsAreDaysAndTheRestIsSunday) {
    const char* const names[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
    for (int32_t day = 0; day < 7; ++day) {
        EXPECT_EQ(day, toWeekDay(names[day]));
        EXPECT_EQ(day, toWeekDay(std::to_string(day)));
    }
    for (const char* name : {"", "monday", "Mon", "7", "11", "-1", "Montag"}) EXPECT_EQ(0, toWeekDay(name)) << name;
}

/// What stream extraction makes of a text: the number, or what a failed reading left.
template <typename T>
std::pair<bool, T> streamed(const std::string& text) {
    std::istringstream in(text);
    T number = 7;
    const bool read = static_cast<bool>(in >> number);
    return {read, number};
}

template <typename T>
void expectReadAsByStreams(const std::string& text) {
    T number = 7;
    const auto [read, expected] = streamed<T>(text);
    EXPECT_EQ(readNumber(text, number), read) << text;
    EXPECT_EQ(number, read ? expected : 7) << text;
}

struct Streamed {
    friend std::ostream& operator<<(std::ostream& out, const Streamed&) { return out << "streamed"; }
};

TEST(TextForm, IsWhatAStreamWritesWhateverTheType) {
    EXPECT_EQ("text", textForm("text"));
    EXPECT_EQ("-7", textForm(-7L));
    EXPECT_EQ("1", textForm(true));
    EXPECT_EQ("1.5", textForm(1.5));
    EXPECT_EQ("c", textForm('c'));
    EXPECT_EQ("streamed", textForm(Streamed()));
}

TEST(Numbers, AreReadFromFormsAndRepliesAsStreamsReadThem) {
    for (const char* text : {"",
                             " ",
                             "0",
                             "007",
                             "42x",
                             "\t\n 12",
                             "+5",
                             "-5",
                             "+-5",
                             "--5",
                             "- 5",
                             "x",
                             "0x10",
                             "1e3",
                             "2147483647",
                             "2147483648",
                             "-2147483648",
                             "-2147483649",
                             "4294967295",
                             "4294967296",
                             "-1",
                             "-4294967295",
                             "9223372036854775807",
                             "9223372036854775808",
                             "-9223372036854775808",
                             "18446744073709551615",
                             "18446744073709551616",
                             "99999999999999999999999"}) {
        expectReadAsByStreams<int32_t>(text);
        expectReadAsByStreams<uint32_t>(text);
        expectReadAsByStreams<int64_t>(text);
        expectReadAsByStreams<uint64_t>(text);
        int32_t nearest = 0;
        std::istringstream(text) >> nearest;
        EXPECT_EQ(nearestNumber(text), nearest) << text;
    }
}

}  // namespace
