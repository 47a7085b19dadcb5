#include "service/settings/settings_table.h"

#include "service/engine/scan_limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using namespace keldra;
using testing::HasSubstr;
using testing::Not;

namespace {

struct Row {
    const char* name;
    const char* value;
    const char* stored;  ///< null when it is refused
};

std::string valueOf(const NORVConfig& config, const char* name) { return settingValue(config, *findSetting(name)); }

}  // namespace

TEST(SettingsTable, TakesWhatIsInRangeInOneFormAndRefusesTheRest) {
    for (const Row& row : {Row{"limits.realtime_wait", "300", "300"},
                           {"limits.realtime_wait", "007", "7"},
                           {"limits.realtime_wait", "0", nullptr},
                           {"limits.realtime_wait", "301", nullptr},
                           {"limits.realtime_wait", "10s", nullptr},
                           {"limits.realtime_wait", "", nullptr},
                           {"limits.realtime_wait", "99999999999999999999", nullptr},
                           {"limits.realtime_unpacked_megabytes", "0", nullptr},
                           {"limits.members", "-1", nullptr},
                           {"limits.seconds", "601", nullptr},
                           {"updates.proxy_port", "", ""},
                           {"updates.proxy_port", "65536", nullptr},
                           {"limits.realtime_refuse", "on", "1"},
                           {"limits.realtime_refuse", "", "0"},
                           {"limits.realtime_refuse", "2", nullptr},
                           {"updates.source", "mirror", "mirror"},
                           {"updates.source", "mirror|custom", nullptr},
                           {"updates.source", "", nullptr},
                           {"updates.mirror", "a\nb", nullptr},
                           {"shares.roots", "/srv/a//;/srv/b/../c", "/srv/a;/srv/c"},
                           {"shares.roots", "srv", nullptr},
                           {"shares.roots", "http://x", nullptr},
                           {"updates.custom", "/a.ndb;https://x/b.ndb", "/a.ndb;https://x/b.ndb"},
                           {"updates.custom", "ftp://x", nullptr},
                           {"no.such", "1", nullptr}}) {
        NORVConfig config;
        const auto fault = changeSettings(config, {{{row.name, row.value}}, {}});
        EXPECT_EQ(fault.has_value(), row.stored == nullptr) << row.name << "=" << row.value;
        if (!row.stored) continue;
        EXPECT_EQ(valueOf(config, row.name), row.stored) << row.value;
    }
}

TEST(SettingsTable, LimitsOfTheEngineAreThoseThatTheTableSays) {
    NORVConfig config;
    EXPECT_EQ(engineLimits(config), EngineLimits());
    SettingsChange asShown;
    for (const Setting& setting : settingsTable())
        if (setting.category == std::string("ScanLimits")) asShown.wanted[setting.name] = setting.fallback;
    ASSERT_FALSE(changeSettings(config, asShown));
    EXPECT_EQ(engineLimits(config), EngineLimits()) << "shown as in force";
    ASSERT_FALSE(changeSettings(
        config, {{{"limits.unpacked_megabytes", "7"}, {"limits.members", "8"}, {"limits.realtime_seconds", "9"}}, {}}));
    const EngineLimits changed = engineLimits(config);
    EXPECT_EQ(changed.usual, (ScanLimits{uint64_t{7} << 20U, 8, EngineLimits().usual.seconds}));
    EXPECT_EQ(changed.realtime.seconds, 9U);
}

TEST(SettingsTable, ChangesAllOrNothingAndNothingThatSomebodyElseChangedMeanwhile) {
    NORVConfig config;
    EXPECT_TRUE(changeSettings(config, {{{"limits.realtime_wait", "20"}, {"updates.source", "none"}}, {}}));
    EXPECT_EQ(valueOf(config, "limits.realtime_wait"), "10");
    ASSERT_FALSE(changeSettings(config, {{{"limits.realtime_wait", "20"}}, {{"limits.realtime_wait", "10"}}}));
    const auto fault = changeSettings(config, {{{"limits.realtime_wait", "30"}}, {{"limits.realtime_wait", "10"}}});
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->setting, "limits.realtime_wait");
    EXPECT_EQ(valueOf(config, "limits.realtime_wait"), "20");
}

TEST(SettingsTable, ASecretIsStoredAndNeverGivenOut) {
    NORVConfig config;
    ASSERT_FALSE(changeSettings(config, {{{"updates.proxy_password", "very secret"}}, {}}));
    EXPECT_EQ(configValueOr(config, "Varnel", "ProxyPassword", std::string()), "very secret");
    EXPECT_THAT(jsonText(describeSettings(config)), Not(HasSubstr("very secret")));
    EXPECT_EQ(valueOf(config, "updates.proxy_password"), "1");
}
