#include "service/access/password.h"
#include "service/access/logon_guard.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace keldra {
namespace {

TEST(PasswordTest, OnlyTheRightPasswordFitsAndTheFileDoesNotTellIt) {
    const TempDir dir;
    const auto file = dir / "password";
    ASSERT_EQ(storePassword(file, "first"), "");
    ASSERT_EQ(storePassword(file, "caf\xc3\xa9 & 32 bytes of a password!!"), "");
    EXPECT_TRUE(checkPassword(file, "caf\xc3\xa9 & 32 bytes of a password!!"));
    for (const char* const wrong : {"", "first", "caf\xc3\xa9", "caf\xc3\xa9 & 32 bytes of a password!! "})
        EXPECT_FALSE(checkPassword(file, wrong)) << wrong;
    EXPECT_TRUE(::readFile(file).starts_with("$y$"));
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(PasswordTest, APasswordThatCouldNeverBeTypedIsRefused) {
    const TempDir dir;
    const auto file = dir / "password";
    for (const std::string& bad : {std::string(), std::string(33, 'x'), std::string("a\nb"), std::string("a\0b", 3)})
        EXPECT_NE(storePassword(file, bad), "");
    EXPECT_NE(storePassword(dir / "missing" / "password", "good"), "");
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(PasswordTest, WithoutAUsableHashNothingFits) {
    const TempDir dir;
    for (const char* const content : {"", "\n", "*0\n", "$y$", "plain\n"}) {
        ::writeFile(dir / "password", content);
        for (const char* const password : {"", "plain", "*0", "$y$"})
            EXPECT_FALSE(checkPassword(dir / "password", password)) << content << password;
    }
    EXPECT_FALSE(checkPassword(dir / "none", ""));
}

TEST(LogonGuardTest, GuessingBecomesSlowForOneAddressOnly) {
    TestClock clock;
    LogonGuard guard(clock);
    for (unsigned i = 0; i < LogonGuard::FREE_FAILURES; ++i) {
        EXPECT_TRUE(guard.admits("a"));
        guard.failed("a");
    }
    EXPECT_FALSE(guard.admits("a"));
    EXPECT_TRUE(guard.admits("b"));
    clock.pass(1);
    EXPECT_TRUE(guard.admits("a"));
    guard.failed("a");
    clock.pass(1);
    EXPECT_FALSE(guard.admits("a")) << "the wait doubles";
    clock.pass(1);
    EXPECT_TRUE(guard.admits("a"));
}

TEST(LogonGuardTest, TheOwnerGetsInAgainAfterTheLongestWait) {
    TestClock clock;
    LogonGuard guard(clock);
    for (int i = 0; i < 1000; ++i) guard.failed("a");
    clock.pass(LogonGuard::LONGEST_WAIT - 1);
    EXPECT_FALSE(guard.admits("a"));
    clock.pass(1);
    EXPECT_TRUE(guard.admits("a"));
    guard.succeeded("a");
    guard.failed("a");
    EXPECT_TRUE(guard.admits("a"));
}

TEST(LogonGuardTest, AFloodOfAddressesDoesNotFillTheMemoryNorFreeTheNewest) {
    TestClock clock;
    LogonGuard guard(clock, 8);
    for (int address = 0; address < 100; ++address) {
        clock.milliseconds += 1;
        for (int i = 0; i < 5; ++i) guard.failed(std::to_string(address));
    }
    EXPECT_FALSE(guard.admits("99"));
    EXPECT_FALSE(guard.admits("92"));
    EXPECT_TRUE(guard.admits("91")) << "the address that failed longest ago is forgotten";
}

}  // namespace
}  // namespace keldra
