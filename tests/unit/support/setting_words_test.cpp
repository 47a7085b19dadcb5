#include "norv/service_text.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>

namespace {

TEST(SettingWords, AChangeIsSaidInTheWordsOfItsPage) {
    struct Row {
        const char* noted;
        const char* said;
    };
    const std::array rows{
        Row{R"(limits.seconds: "300" -> "1")", "Longest scan of one file: 300 seconds → 1 second"},
        Row{R"(limits.realtime_refuse: "0" -> "true"; updates.proxy_password: changed)",
            "Refuse files whose scan takes longer: Off → On; Password for the proxy: changed"},
        Row{R"(quarantine.megabytes: "" -> "1024")", "Most room for all files: – → 1024 MiB"},
        Row{R"(updates.source: "official" -> "custom")", "Source: Official → Own"},
        Row{R"(ManualScan.customActions: "" -> "Virus-3-2,Test_Virus-0-0")",
            "Manual scan, Different actions for each kind: – → Viruses Clean / Quarantine, Test files Pass (file "
            "stays)"},
        Row{R"(RealtimeScan.scanDirection: "0" -> "3")",
            "Real-time scan, When to check: Off → Incoming: before a file is opened, Outgoing: after a file was "
            "written"},
        Row{R"(ScheduledScan.time: "03:30:00" -> "04:00:00"; ScheduledScan.weekDay: "0" -> "6")",
            "Scheduled scan, Time: 03:30 → 04:00; Scheduled scan, Day of the week: Sunday → Saturday"},
        Row{R"(Varnel.Schedule: "2-1" -> "3-2")", "Updates, Schedule: Every day → Every 2 weeks"},
        Row{R"(ManualScan.scanPaths: "/srv" -> "/srv;/a\;b")", "Manual scan, Folders to scan: /srv → /srv, /a;b"},
        Row{R"(notices; Kinds: "find" -> "find,scan"; HookUrl: changed)",
            "notices; Notices, What you want to hear of: Malware was found → Malware was found, A scan ended; "
            "Notices, Address: changed"},
        Row{R"(Some.thing: "a" -> "b"; ...)", "Some.thing: a → b; ..."},
        Row{"", ""},
        Row{R"(limits.seconds: "300" -> )", R"(Longest scan of one file: "300" -> )"},
    };
    for (const Row& row : rows) EXPECT_EQ(eventDetailText(Words(), "settings", row.noted), row.said);
}

TEST(ServiceText, NumbersTakeTheWordThatTheyAskFor) {
    /// Tells which form was asked for.
    class Marked : public Words {
        std::string form(const char* one, const char*, std::uint64_t number) const override {
            return std::string(number == 1 ? "one " : "many ") + one;
        }
    };
    EXPECT_EQ(serviceText(Marked(), "In 1 day."), "one In 1 day.");
    EXPECT_EQ(serviceText(Marked(), "In 7 days."), "many In 7 day.");
    EXPECT_EQ(serviceText(Marked(), "In a few days."), "In a few days.");
    for (const auto& [count, unit, said] : {std::tuple{0U, "files", "0 files"},
                                            {1U, "files", "1 file"},
                                            {2U, "days", "2 days"},
                                            {1U, "folders", "1 folder"},
                                            {7U, "", ""}})
        EXPECT_EQ(countText(Words(), count, unit), said);
}

}  // namespace
