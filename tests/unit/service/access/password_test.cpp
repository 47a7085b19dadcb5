#include "service/access/password.h"
#include "service/access/logon_guard.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace keldra {
namespace {

constexpr const char* GOOD = "caf\xc3\xa9 & 32 bytes of a password!!";

TEST(PasswordTest, OnlyTheRightPasswordFitsAndTheFileDoesNotTellIt) {
    const TempDir dir;
    const auto path = dir / "password";
    const PasswordFile file(path);
    ASSERT_EQ(file.store("the first"), "");
    ASSERT_EQ(file.store(GOOD), "");
    EXPECT_TRUE(file.check(GOOD).fits);
    for (const char* const wrong : {"", "the first", "caf\xc3\xa9", "caf\xc3\xa9 & 32 bytes of a password!! "}) {
        EXPECT_FALSE(file.check(wrong).fits) << wrong;
        EXPECT_EQ(file.check(wrong).trouble, "") << wrong;
    }
    EXPECT_TRUE(::readFile(path).starts_with("$y$"));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(PasswordTest, APasswordThatIsEasilyGuessedOrNeverTypedIsRefused) {
    const TempDir dir;
    const auto path = dir / "password";
    const PasswordFile file(path);
    for (const std::string& bad :
         {std::string(), std::string(33, 'x'), std::string("a\nb and more"), std::string("a\0b and more", 12),
          std::string("seven 7"), std::string("\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9")})
        EXPECT_NE(file.store(bad), "") << bad;
    EXPECT_NE(PasswordFile(dir / "missing" / "password").store("good enough"), "");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(file.store("eight888"), "");
}

TEST(PasswordTest, WithoutAUsableHashNothingFits) {
    const TempDir dir;
    const PasswordFile file(dir / "password");
    EXPECT_NE(file.check("plain").trouble, "") << "not wrong: there is none";
    for (const char* const content : {"", "\n", "*0\n", "$y$", "plain\n"}) {
        ::writeFile(dir / "password", content);
        for (const char* const password : {"", "plain", "*0", "$y$"})
            EXPECT_FALSE(file.check(password).fits) << content << password;
    }
}

TEST(PasswordTest, EveryPasswordSetHasAMarkOfItsOwn) {
    const TempDir dir;
    PasswordFile file(dir / "password");
    EXPECT_EQ(file.mark(), "");
    ASSERT_EQ(file.store(GOOD), "");
    const std::string first = file.mark();
    EXPECT_EQ(file.check(GOOD).mark, first);
    ASSERT_EQ(PasswordFile(dir / "password").store(GOOD), "") << "by another process, the same one";
    EXPECT_NE(file.mark(), first);
    EXPECT_EQ(file.check(GOOD).mark, file.mark());
}

TEST(LogonGuardTest, GuessingBecomesSlowForOneAddressOnly) {
    TestClock clock;
    LogonGuard guard(clock);
    for (unsigned i = 0; i < LogonGuard::FREE_FAILURES; ++i) EXPECT_EQ(guard.admit("a"), "");
    EXPECT_NE(guard.admit("a"), "") << "counted before anybody has looked at them";
    EXPECT_EQ(guard.admit("b"), "");
    clock.pass(1);
    EXPECT_EQ(guard.admit("a"), "");
    clock.pass(1);
    EXPECT_NE(guard.admit("a"), "") << "the wait doubles";
    clock.pass(1);
    EXPECT_EQ(guard.admit("a"), "");
    clock.pass(LogonGuard::LONGEST_WAIT);
    for (int i = 0; i < 20; ++i, clock.pass(LogonGuard::LONGEST_WAIT)) EXPECT_EQ(guard.admit("a"), "");
}

TEST(LogonGuardTest, ARightPasswordForgivesWhatWasTypedWrongBefore) {
    TestClock clock;
    LogonGuard guard(clock);
    for (int round = 0; round < 3; ++round) {
        for (unsigned i = 0; i < LogonGuard::FREE_FAILURES; ++i) EXPECT_EQ(guard.admit("a"), "") << round;
        guard.succeeded("a");
        EXPECT_TRUE(guard.blocks().empty());
    }
}

TEST(LogonGuardTest, ManyAddressesShareFewCodesAndLockNoPasswordOut) {
    TestClock clock;
    LogonGuard guard(clock, 64);
    guard.know("10.9.9.9");
    std::int64_t looked = 0;
    for (int i = 0; i < 2000; ++i)
        looked += guard.admitCode("10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250)).empty();
    EXPECT_EQ(looked, LogonGuard::SHARED_ATTEMPTS);
    EXPECT_EQ(guard.admitCode("10.9.9.9"), "");
    EXPECT_EQ(guard.admitCode("203.0.113.7"), "") << "other networks do not share with these";
    EXPECT_EQ(guard.admit("192.168.1.7"), "") << "a password is not a code";
    EXPECT_NE(guard.admitCode("192.168.1.7"), "");
    EXPECT_TRUE(guard.lift("192.168.1.7")) << "the owner vouches for it";
    EXPECT_EQ(guard.admitCode("192.168.1.7"), "");
    clock.pass(10);
    for (int i = 0; i < 100; ++i) looked += guard.admitCode("10.1.0." + std::to_string(i)).empty();
    EXPECT_EQ(looked, LogonGuard::SHARED_ATTEMPTS + 10'000 / LogonGuard::SHARED_REFILL);
}

TEST(LogonGuardTest, WhoHasANetworkHasOneAddress) {
    TestClock clock;
    LogonGuard guard(clock);
    for (const char* const address : {"2001:db8:1:2::1", "2001:db8:1:2:ffff::1", "2001:db8:1:2:3:4:5:6"})
        EXPECT_EQ(guard.admit(address), "");
    EXPECT_NE(guard.admit("2001:db8:1:2::99"), "");
    EXPECT_EQ(guard.admit("2001:db8:1:3::99"), "");
    for (const char* const address :
         {"203.0.113.9", "::ffff:203.0.113.9", "203.0.113.9", "::1", "127.0.0.1", "::ffff:127.9.9.9"})
        EXPECT_EQ(guard.admit(address), "");
    EXPECT_NE(guard.admit("127.1.2.3"), "");
    ASSERT_EQ(guard.blocks().size(), 3U);
    EXPECT_EQ(guard.blocks()[1].address, "2001:db8:1:2::/64");
    EXPECT_TRUE(guard.lift("2001:db8:1:2::/64"));
    EXPECT_EQ(guard.admit("2001:db8:1:2::99"), "");
    EXPECT_TRUE(guard.lift("203.0.113.9"));
    EXPECT_FALSE(guard.lift("203.0.113.9"));
}

}  // namespace
}  // namespace keldra
