#include "norv/norv_config.h"

#include "tests/unit/support/captured_log.h"
#include "tests/unit/support/scoped_environment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace {

NORVConfig configOf(const std::string& xml) { return {std::vector<char>(xml.begin(), xml.end()), 1700000000}; }

/// A document with one value, ("Group", "Name").
NORVConfig configWith(const std::string& value) {
    return configOf("<Document><Group Type=\"Group\"><P Name=\"Name\" Value=\"" + value + "\"/></Group></Document>");
}

template <typename T>
std::optional<T> read(const NORVConfig& config) {
    T value{};
    return getConfigValue(config, "Group", "Name", value) ? std::optional(value) : std::nullopt;
}

TEST(NORVConfig, AValueInALaterGroupOfTheSameCategoryIsFound) {
    const NORVConfig config = configOf(R"(<?xml version="1.0"?><!-- comment --><Document>
        <Group Type="Other"><P Name="Name" Value="other"/></Group>
        <Group Type="Group"><P Name="Else" Value="else"/><Q Name="Name" Value="no P"/></Group>
        <Group Type="Group"><P Name="name" Value="lower case"/><P Name="Name" Value="right"/></Group></Document>)");
    EXPECT_EQ("right", read<std::string>(config));
    EXPECT_EQ(1700000000, config.lastModified());
}

TEST(NORVConfig, TheFirstMatchDecidesAlsoWhenItCannotBeRead) {
    const NORVConfig config = configOf(
        R"(<Document><Group Type="Group"><P Name="Name" Value="x"/><P Name="Name" Value="7"/></Group></Document>)");
    EXPECT_EQ(std::nullopt, read<int32_t>(config));
    EXPECT_EQ(5, configValueOr(config, "Group", "Name", int32_t{5}));
}

TEST(NORVConfig, OnlyAMissingValueIsLogged) {
    const auto lines = capturedLog(NORV_LOG_TRACE, [] {
        std::string text;
        int32_t number = 0;
        getConfigValue(configWith("x"), "Group", "Missing", text);
        getConfigValue(configWith("x"), "Group", "Name", number);
        getConfigValue(NORVConfig(), "Group", "Missing", text);
        getConfigValue(configOf("<Root/>"), "Group", "Missing", text);
        configValueOr(configWith("x"), "Group", "Missing", text);
    });
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(2, lines[0].severity);
    EXPECT_EQ("Cannnot find matching category and name [Group,Missing]", lines[0].message);
}

TEST(NORVConfig, NumbersAreReadWholeOrNotAtAll) {
    const struct {
        const char* text;
        std::optional<int32_t> asSigned;
        std::optional<uint32_t> asUnsigned;
    } cases[] = {
        {"0", 0, 0U},
        {"007", 7, 7U},
        {"-5", -5, std::nullopt},
        {"2147483647", 2147483647, 2147483647U},
        {"2147483648", std::nullopt, 2147483648U},
        {"-2147483648", -2147483647 - 1, std::nullopt},
        {"4294967296", std::nullopt, std::nullopt},
        {"", std::nullopt, std::nullopt},
        {"+5", std::nullopt, std::nullopt},
        {" 5", std::nullopt, std::nullopt},
        {"5 ", std::nullopt, std::nullopt},
        {"5x", std::nullopt, std::nullopt},
        {"0x10", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.asSigned, read<int32_t>(configWith(c.text))) << c.text;
        EXPECT_EQ(c.asUnsigned, read<uint32_t>(configWith(c.text))) << c.text;
    }
}

TEST(NORVConfig, BooleansAreFourWords) {
    for (const char* text : {"1", "true"}) EXPECT_EQ(true, read<bool>(configWith(text)));
    for (const char* text : {"0", "false"}) EXPECT_EQ(false, read<bool>(configWith(text)));
    for (const char* text : {"", "2", "True", "yes", "1 "}) EXPECT_EQ(std::nullopt, read<bool>(configWith(text)));
}

TEST(NORVConfig, AnElementWithoutValueCannotBeRead) {
    const NORVConfig config = configOf(R"(<Document><Group Type="Group"><P Name="Name">text</P></Group></Document>)");
    EXPECT_EQ(std::nullopt, read<std::string>(config));
}

TEST(NORVConfig, ContentThatIsNoDocumentGivesAnEmptyOneAndSaysWhy) {
    std::string deep;
    for (int i = 0; i < 100'000; ++i) deep += "<a>";
    for (const std::string& xml :
         {std::string(), std::string("<Document>"), std::string("no xml"), std::string("<Document/>\0<x/>", 16), deep,
          "<Document>" + std::string(5U << 20U, ' ') + "</Document>"}) {
        const NORVConfig config = configOf(xml);
        EXPECT_FALSE(config.parsed());
        EXPECT_FALSE(config.parseError().empty());
        EXPECT_EQ(std::nullopt, read<std::string>(config));
    }
    EXPECT_TRUE(NORVConfig().parsed());
}

TEST(NORVConfig, WhatIsSetIsReadBackAlsoAfterALoad) {
    const std::string odd = "<\"&'>\n\tGröße ;\\ %s";
    NORVConfig config = configWith("old");
    config.setValue("Group", "Name", odd);
    config.setValue("Group", "Second", "2");
    config.setValue("New", "Name", "3");
    const NORVConfig loaded = configOf(config.toText());
    EXPECT_EQ(odd, read<std::string>(loaded));
    EXPECT_EQ("2", configValueOr(loaded, "Group", "Second", std::string()));
    EXPECT_EQ("3", configValueOr(loaded, "New", "Name", std::string()));
}

TEST(NORVConfig, AnEmptyDocumentCanBeFilled) {
    NORVConfig config;
    config.setValue("Group", "Name", "x");
    EXPECT_EQ("x", read<std::string>(config));
}

TEST(NORVConfig, ACopyLivesOnItsOwn) {
    NORVConfig copy;
    {
        NORVConfig original = configWith("old");
        copy = original;
        original.setValue("Group", "Name", "new");
    }
    EXPECT_EQ("old", read<std::string>(copy));
    EXPECT_EQ(1700000000, copy.lastModified());
    EXPECT_EQ("old", read<std::string>(NORVConfig(copy)));
}

TEST(NORVConfig, PendingChangesAreStoredOnceAndAgainAfterAFailure) {
    std::vector<std::string> stored;
    bool works = false;
    {
        NORVConfig config;
        config.setStore([&](const std::string& text) {
            stored.push_back(text);
            return works;
        });
        EXPECT_TRUE(config.sync());
        config.setValue("Group", "Name", "x");
        const NORVConfig copy = config;
        EXPECT_FALSE(config.sync());
        works = true;
        EXPECT_TRUE(config.sync());
        EXPECT_TRUE(config.sync());
        EXPECT_EQ(2U, stored.size());
        config.setValue("Group", "Name", "y");
    }
    ASSERT_EQ(3U, stored.size());
    EXPECT_EQ("y", read<std::string>(configOf(stored.back())));
}

TEST(NORVConfig, TheEnvironmentOverridesTheLogLevel) {
    const NORVConfig config =
        configOf(R"(<Document><Group Type="Configuration"><P Name="UserDebugLevel" Value="4"/></Group></Document>)");
    const struct {
        std::optional<std::string> environment;
        int32_t level;
        int32_t levelWithoutSetting;
    } cases[] = {
        {std::nullopt, 4, 1}, {"5", 5, 5}, {"3 and more", 3, 3}, {"loud", 0, 0}, {"", 0, 0}, {"-1", -1, -1},
    };
    for (const auto& c : cases) {
        const ScopedEnvironment variable("KELDRA_CONFIGURATION_USERDEBUGLEVEL", c.environment);
        EXPECT_EQ(c.level, config.UserDebugLevel(NORV_LOG_REFUSED));
        EXPECT_EQ(c.levelWithoutSetting, NORVConfig().UserDebugLevel(NORV_LOG_REFUSED));
    }
}

TEST(NORVConfig, ReadersAndWritersMayShareADocument) {
    NORVConfig config = configWith("0");
    std::thread writer([&] {
        for (int i = 0; i < 1000; ++i) config.setValue("Group", "Name", std::to_string(i));
    });
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(read<int32_t>(config).has_value());
    writer.join();
    EXPECT_EQ(999, read<int32_t>(config));
}

}  // namespace
