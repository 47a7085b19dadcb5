#include "service/quarantine/actions.h"

#include "norv/scan_config.h"
#include "tests/unit/service/scan_fixture.h"

#include <gmock/gmock.h>

namespace keldra {
namespace {

namespace fs = std::filesystem;

struct PlanCase {
    const char* customActions;
    const char* universeAction;
    const char* type;
    Action first;
    Action second;
};

class ActionPlanTest : public testing::TestWithParam<PlanCase> {};

TEST_P(ActionPlanTest, IsWhatTheSettingsSay) {
    NORVManualScanConfig settings;
    settings.customActions = GetParam().customActions;
    settings.universeAction = GetParam().universeAction;
    const ActionPlan plan = actionPlanOf(settings, GetParam().type);
    EXPECT_EQ(plan.first, GetParam().first);
    EXPECT_EQ(plan.second, GetParam().second);
}

constexpr const char* LIST = "Virus-1-4,Joke-0-0,Trojan-9-9";
INSTANTIATE_TEST_SUITE_P(Modes, ActionPlanTest,
                         testing::Values(PlanCase{"", "", "Joke", Action::QUARANTINE, Action::PASS},
                                         PlanCase{"", "", "Trojan", Action::QUARANTINE, Action::PASS},
                                         PlanCase{"", "", "Virus", Action::CLEAN, Action::QUARANTINE},
                                         PlanCase{"", "", "Test_Virus", Action::PASS, Action::PASS},
                                         PlanCase{"", "", "Spyware", Action::QUARANTINE, Action::PASS},
                                         PlanCase{"", "", "Other", Action::CLEAN, Action::QUARANTINE},
                                         PlanCase{"", "4-1", "Test_Virus", Action::RENAME, Action::DELETE},
                                         PlanCase{"", "nonsense", "Other", Action::CLEAN, Action::QUARANTINE},
                                         PlanCase{LIST, "", "Virus", Action::DELETE, Action::RENAME},
                                         PlanCase{LIST, "", "Spyware", Action::QUARANTINE, Action::PASS},
                                         PlanCase{LIST, "", "Trojan", Action::QUARANTINE, Action::PASS}));

class ActionsTest : public testing::Test {
protected:
    ActionsTest() { EXPECT_TRUE(quarantine_.open()); }

    ActionOutcome perform(const char* universeAction, Verdict verdict = Verdict::INFECTED) {
        settings_.universeAction = universeAction;
        return actions_.perform(opened(virus()), {verdict, "Win.Virus.X", ""}, settings_, "7_1");
    }
    fs::path virus() const { return dir_ / "share/virus"; }
    void SetUp() override { ::writeFile(virus(), "bad content"); }

    TempDir dir_;
    Quarantine quarantine_{(dir_ / "store").string(), (dir_ / "trusted").string()};
    Actions actions_{quarantine_};
    NORVManualScanConfig settings_;
};

TEST_F(ActionsTest, PassLeavesTheFileAlone) {
    EXPECT_TRUE(perform("0-1").done);
    EXPECT_TRUE(fs::exists(virus()));
}

TEST_F(ActionsTest, DeleteRemovesTheFileAndNothingElse) {
    EXPECT_TRUE(perform("1-0").done);
    EXPECT_TRUE(fs::is_empty(dir_ / "share"));
}

TEST_F(ActionsTest, DeleteSparesAFileThatTookTheName) {
    const ScannedFile file = opened(virus());
    fs::rename(virus(), dir_ / "share/moved");
    ::writeFile(virus(), "innocent");
    settings_.universeAction = "1-4";
    EXPECT_FALSE(actions_.perform(file, {Verdict::INFECTED, "Win.Virus.X", ""}, settings_, "").done);
    EXPECT_EQ(::readFile(virus()), "innocent");
}

TEST_F(ActionsTest, RenameOverwritesNothing) {
    ::writeFile(dir_ / "share/virus.infected", "earlier find");
    EXPECT_TRUE(perform("4-0").done);
    EXPECT_EQ(::readFile(dir_ / "share/virus.infected"), "earlier find");
    EXPECT_EQ(::readFile(dir_ / "share/virus.infected1"), "bad content");
    EXPECT_FALSE(fs::exists(virus()));
}

TEST_F(ActionsTest, RenamedFileKeepsItsNameWhenItIsFoundAgain) {
    settings_.universeAction = "4-1";
    for (const char* const name : {"virus.infected", "virus.infected999"}) {
        ::writeFile(dir_ / "again" / name, "bad content");
        const ScannedFile file = opened(dir_ / "again" / name);
        EXPECT_TRUE(actions_.perform(file, {Verdict::INFECTED, "Win.Virus.X", ""}, settings_, "").done);
        EXPECT_TRUE(fs::exists(dir_ / "again" / name));
    }
}

TEST_F(ActionsTest, RenameCutsNoCharacterOfALongNameApart) {
    std::string name;
    while (name.size() < 255) name += "\u65e5";  // three bytes each
    ::writeFile(dir_ / "share" / name, "bad content");
    settings_.universeAction = "4-0";
    const ScannedFile file = opened(dir_ / "share" / name);
    EXPECT_TRUE(actions_.perform(file, {Verdict::INFECTED, "Win.Virus.X", ""}, settings_, "").done);
    EXPECT_TRUE(fs::exists(dir_ / "share" / (name.substr(0, 240) + ".infected")));
}

TEST_F(ActionsTest, QuarantineKeepsTheFileWithItsType) {
    const ActionOutcome outcome = perform("2-0");
    ASSERT_TRUE(outcome.done) << outcome.text;
    ASSERT_EQ(quarantine_.list().size(), 1U);
    EXPECT_EQ(quarantine_.list().front().type, "Virus");
}

TEST_F(ActionsTest, CleanCannotBeDoneAndTheSecondActionFollows) {
    const ActionOutcome outcome = perform("3-2");
    EXPECT_TRUE(outcome.done);
    EXPECT_EQ(outcome.performed, Action::QUARANTINE);
    EXPECT_NE(outcome.text.find("cannot be cleaned"), std::string::npos);
    EXPECT_EQ(quarantine_.list().size(), 1U) << "no backup was asked for";
}

TEST_F(ActionsTest, BackupIsKeptBeforeCleaningWhenItsSwitchIsOn) {
    settings_.backupBeforeClean = true;
    perform("3-1");
    EXPECT_FALSE(fs::exists(virus()));
    ASSERT_EQ(quarantine_.list().size(), 1U);
    EXPECT_TRUE(quarantine_.list().front().backup);
}

TEST_F(ActionsTest, BackupIsKeptOnceHoweverOftenAFileIsFound) {
    settings_.backupBeforeClean = true;
    for (int i = 0; i < 3; ++i) perform("3-0");
    EXPECT_EQ(quarantine_.list().size(), 1U);
    ::writeFile(virus(), "other bad content");
    perform("3-0");
    EXPECT_EQ(quarantine_.list().size(), 2U) << "another content needs a copy of its own";
    quarantine_.remove(quarantine_.list().front().id);
    quarantine_.remove(quarantine_.list().front().id);
    perform("3-0");
    EXPECT_EQ(quarantine_.list().size(), 1U);
}

TEST_F(ActionsTest, FileThatGoesToQuarantineIsNotStoredTwice) {
    settings_.backupBeforeClean = true;
    EXPECT_TRUE(perform("3-2").done);
    ASSERT_EQ(quarantine_.list().size(), 1U);
    EXPECT_FALSE(quarantine_.list().front().backup);
}

TEST_F(ActionsTest, FindThatTheQuarantineHasNoRoomForIsRenamed) {
    QuarantineLimits limits;
    limits.bytes = 5;
    quarantine_.setLimits(limits);
    for (const char* const actions : {"2-0", "3-2"}) {
        ::writeFile(virus(), "bad content");
        const ActionOutcome outcome = perform(actions);
        EXPECT_EQ(outcome.performed, Action::RENAME);
        EXPECT_THAT(outcome.text, testing::HasSubstr("quarantine failed: the quarantine is full; renamed to"));
        EXPECT_FALSE(fs::exists(virus()));
    }
    ::writeFile(virus(), "bad content");
    EXPECT_EQ(perform("2-1").performed, Action::DELETE) << "what the settings say goes first";
}

TEST_F(ActionsTest, WhenBothFailTheOutcomeSaysSo) {
    const ActionOutcome outcome = perform("3-3");
    EXPECT_FALSE(outcome.done);
    EXPECT_TRUE(fs::exists(virus()));
}

TEST_F(ActionsTest, WhatWasNotFullyScannedIsNeverTouched) {
    for (const Verdict verdict : {Verdict::NOT_FULLY_SCANNED, Verdict::FAILED, Verdict::CLEAN}) {
        EXPECT_FALSE(perform("1-1", verdict).done);
        EXPECT_TRUE(fs::exists(virus()));
    }
}

}  // namespace
}  // namespace keldra
