#include "service/engine/extension_list.h"

#include "norv/scan_config.h"
#include "service/engine/virus_types.h"
#include "tests/unit/service/scan_fixture.h"

#include <gmock/gmock.h>

namespace keldra {
namespace {

NORVManualScanConfig listSettings(const std::string& typed, bool defaults) {
    NORVManualScanConfig settings;
    settings.includeExtList = typed;
    settings.includeHVExtList = defaults;
    return settings;
}

TEST(ExtensionList, TypedInAnyUsualWayIsUnderstood) {
    EXPECT_THAT(parseExtensions(" .EXE;*.Com,bat : tar.gz;;\n"), testing::ElementsAre("exe", "com", "bat", "tar.gz"));
}

TEST(ExtensionList, SelectsByNameWhateverItsCase) {
    const FileSelector selector(listSettings("exe;tar.gz", false));
    EXPECT_TRUE(selector.byName("SETUP.Exe"));
    EXPECT_TRUE(selector.byName("a.tar.gz"));
    EXPECT_FALSE(selector.byName("exe"));
    EXPECT_FALSE(selector.byName("a.exe.txt"));
    EXPECT_FALSE(selector.byName("a.docx"));
}

TEST(ExtensionList, DefaultsComeOnTopOfTheTypedOnesOrAlone) {
    EXPECT_TRUE(FileSelector(listSettings("foo", true)).byName("a.foo"));
    EXPECT_TRUE(FileSelector(listSettings("foo", true)).byName("a.docx"));
    EXPECT_FALSE(FileSelector(listSettings("", true)).byName("a.mp4"));
    EXPECT_TRUE(FileSelector(listSettings("", false)).byName("a.mp4")) << "no list means all files";
}

TEST(ExtensionList, TenThousandEntriesStaySelective) {
    std::string typed;
    for (int i = 0; i < 10000; ++i) typed += "e" + std::to_string(i) + ";";
    const FileSelector selector(listSettings(typed, false));
    EXPECT_TRUE(selector.byName("a.e9999"));
    EXPECT_FALSE(selector.byName("a.e10000"));
}

TEST(ExtensionList, FileForTheConsoleIsWholeWithinItsLineLimit) {
    const TempDir dir;
    ASSERT_TRUE(writeDefaultExtensions(dir.path()));
    const std::string text = ::readFile(dir / "HVDefaultExt.txt");
    const std::size_t header = text.find('\n');
    ASSERT_NE(header, std::string::npos);
    EXPECT_LT(text.size() - header, 1023U) << "the page shows the first 1023 characters only";
    EXPECT_EQ(text.find(";;"), std::string::npos) << "the page ends its list at an empty entry";
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(parseExtensions(text.substr(header)), defaultExtensions());
}

struct ContentCase {
    const char* what;
    std::string head;
    bool scanned;
};

class ContentTest : public testing::TestWithParam<ContentCase> {};

TEST_P(ContentTest, DecidesWhetherAFileIsScanned) {
    const std::string& head = GetParam().head;
    const std::vector<unsigned char> bytes(head.begin(), head.end());
    EXPECT_EQ(canCarryMalware(bytes), GetParam().scanned) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Types, ContentTest,
    testing::Values(ContentCase{"a Windows program under any name", "MZ\x90", true},
                    ContentCase{"a Unix program",
                                "\x7f"
                                "ELF\x02",
                                true},
                    ContentCase{"a script", "#!/bin/sh\n", true}, ContentCase{"an archive", zipOf({{"a", "b"}}), true},
                    ContentCase{"a tar archive", std::string(257, 'n') + "ustar", true},
                    ContentCase{"a web page", "  <!DOCTYPE HTML>", true},
                    ContentCase{"a batch file", "rem x\r\n@ECHO off", true}, ContentCase{"a PDF", "%PDF-1.7", true},
                    ContentCase{"the test file", testVirus(), true},
                    ContentCase{"a script in UTF-16", std::string("\xff\xfe<\0s\0c\0r\0i\0p\0t\0>\0", 18), true},
                    ContentCase{"a picture", "\x89PNG\r\n\x1a\n", false}, ContentCase{"a text", "Dear all,\n", false},
                    ContentCase{"nothing", "", false}));

struct TypeCase {
    const char* signature;
    const char* type;
};

class VirusTypeTest : public testing::TestWithParam<TypeCase> {};

TEST_P(VirusTypeTest, FollowsTheFamilyWordOfTheSignature) {
    EXPECT_EQ(virusTypeOf(GetParam().signature), GetParam().type) << GetParam().signature;
}

INSTANTIATE_TEST_SUITE_P(
    Names, VirusTypeTest,
    testing::Values(TypeCase{"Eicar-Test-Signature", "Test_Virus"}, TypeCase{"Win.Test.EICAR_HDB-1", "Test_Virus"},
                    TypeCase{"Win.Trojan.Agent-35475", "Trojan"},
                    TypeCase{"Unix.Backdoor.Msfvenom_Payload-1", "Trojan"}, TypeCase{"Win.Spyware.Zbot-1", "Spyware"},
                    TypeCase{"PUA.Win.Tool.X", "Spyware"}, TypeCase{"Win.Adware.Crossrider-1", "Spyware"},
                    TypeCase{"Win.Joke.Stressreducer-1", "Joke"}, TypeCase{"Win.Virus.Sality-1", "Virus"},
                    TypeCase{"Win.Worm.Mydoom-1", "Virus"}, TypeCase{"Latest.Contest", "Other"},
                    TypeCase{"Phishing.Email-1", "Other"}, TypeCase{"", "Other"}));

}  // namespace
}  // namespace keldra
