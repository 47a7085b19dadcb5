#include "service/access/second_factor.h"

#include "service/access/password.h"
#include "service/access/totp.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string_view>

namespace keldra {
namespace {

std::vector<unsigned char> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

TEST(TotpTest, CodesAreThoseOfEveryAuthenticatorApp) {
    const auto secret = bytesOf("12345678901234567890");
    const std::vector<std::pair<std::int64_t, const char*>> rows{{59, "287082"},         {1111111109, "081804"},
                                                                 {1111111111, "050471"}, {1234567890, "005924"},
                                                                 {2000000000, "279037"}, {20000000000, "353130"}};
    for (const auto& [time, code] : rows) EXPECT_EQ(totpCode(secret, time / TOTP_SECONDS), code);
    for (const auto& [plain, text] : std::vector<std::pair<const char*, const char*>>{
             {"", ""}, {"f", "MY"}, {"fo", "MZXQ"}, {"foo", "MZXW6"}, {"foob", "MZXW6YQ"}, {"foobar", "MZXW6YTBOI"}}) {
        EXPECT_EQ(base32Encode(bytesOf(plain)), text);
        EXPECT_EQ(base32Decode(text), bytesOf(plain));
    }
}

class SecondFactorTest : public testing::Test {
protected:
    std::string code(std::int64_t stepsOff = 0) const {
        return totpCode(base32Decode(secret_), clock_.now() / TOTP_SECONDS + stepsOff);
    }
    void switchOn() {
        secret_ = factor_.begin();
        ASSERT_EQ(factor_.confirm(code(), recovery_), "");
        clock_.pass(TOTP_SECONDS);
    }
    bool check(const std::string& typed) { return factor_.check(typed, trouble_); }

    TempDir dir_;
    TestClock clock_;
    std::filesystem::path file_ = dir_ / "second-factor";
    SecondFactor factor_{file_, clock_};
    std::string secret_;
    std::string trouble_;
    std::vector<std::string> recovery_;
};

TEST_F(SecondFactorTest, NothingIsAskedForUntilAnAppHasShownThatItKnowsTheSecret) {
    EXPECT_FALSE(factor_.status().on);
    EXPECT_NE(factor_.confirm("000000", recovery_), "") << "nothing was begun";
    secret_ = factor_.begin();
    EXPECT_NE(factor_.confirm(code(5), recovery_), "");
    EXPECT_FALSE(factor_.status().on);
    clock_.pass(SecondFactor::PATIENCE + 1);
    EXPECT_NE(factor_.confirm(code(), recovery_), "") << "too late";
    switchOn();
    EXPECT_EQ(factor_.status().recoveryCodes, SecondFactor::RECOVERY_CODES);
    struct stat status {};
    ASSERT_EQ(::stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    for (const std::string& one : recovery_) EXPECT_EQ(::readFile(file_).find(one), std::string::npos);
    EXPECT_EQ(factor_.remove(), "");
    EXPECT_FALSE(factor_.status().on);
}

TEST_F(SecondFactorTest, ACodeIsRightForAMomentAndOnce) {
    switchOn();
    EXPECT_FALSE(check(code(-1))) << "that one switched it on";
    EXPECT_FALSE(check(code(2)));
    EXPECT_FALSE(check(""));
    const std::string right = code();
    EXPECT_TRUE(check(right.substr(0, 3) + " " + right.substr(3)));
    EXPECT_FALSE(check(right));
    EXPECT_FALSE(SecondFactor(file_, clock_).check(right, trouble_)) << "nor after a restart";
    EXPECT_TRUE(check(code(1))) << "an app whose clock is a little ahead";
    EXPECT_FALSE(check(code()));
}

TEST_F(SecondFactorTest, ARecoveryCodeOpensOnceInAnyWriting) {
    switchOn();
    std::string typed = recovery_.front();
    for (char& c : typed) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_TRUE(check(typed));
    EXPECT_FALSE(check(recovery_.front()));
    EXPECT_TRUE(check(recovery_.back()));
    EXPECT_EQ(SecondFactor(file_, clock_).status().recoveryCodes, SecondFactor::RECOVERY_CODES - 2);
}

TEST_F(SecondFactorTest, AFileThatCannotBeReadLetsNobodyIn) {
    switchOn();
    std::ofstream(file_) << "{\"secret\": \"MY\"}";
    EXPECT_NE(factor_.status().trouble, "");
    EXPECT_FALSE(check(code()));
    EXPECT_NE(trouble_, "");
}

TEST(PendingLogonsTest, ATicketCountsForItsAddressForAWhile) {
    TestClock clock;
    PendingLogons pending(clock);
    const std::string ticket = pending.begin({"192.0.2.7", "mark", "admin"});
    ASSERT_TRUE(pending.find(ticket, "192.0.2.7"));
    EXPECT_EQ(pending.find(ticket, "192.0.2.7")->user, "admin");
    EXPECT_FALSE(pending.find(ticket, "192.0.2.8"));
    EXPECT_FALSE(pending.find("", "192.0.2.7"));
    clock.pass(PendingLogons::PATIENCE + 1);
    EXPECT_FALSE(pending.find(ticket, "192.0.2.7"));
    std::string first = pending.begin({"192.0.2.7", "mark", "admin"});
    for (std::size_t i = 0; i < PendingLogons::MOST; ++i) pending.begin({"192.0.2.9", "mark", "admin"});
    EXPECT_FALSE(pending.find(first, "192.0.2.7")) << "nobody fills the memory with them";
}

TEST(PasswordOnceTest, APasswordForOnceIsOneUntilAnotherIsChosen) {
    const TempDir dir;
    PasswordFile file(dir / "password");
    ASSERT_EQ(file.store("one time only", true), "");
    EXPECT_TRUE(file.mustChange());
    EXPECT_TRUE(file.check("one time only").fits);
    const std::string mark = file.mark();
    ASSERT_EQ(file.store("my own words", false), "");
    EXPECT_FALSE(file.mustChange());
    EXPECT_NE(file.mark(), mark);
}

}  // namespace
}  // namespace keldra
