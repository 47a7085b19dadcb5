#include "norv/crypto.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/support/scoped_environment.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

class Crypto : public testing::Test {
protected:
    void SetUp() override { writeFile(folder_ / "key", std::string(64, 'a') + "\n"); }

    /// The encrypted text in a buffer of `size` bytes; empty on failure.
    static std::string encrypt(const std::string& text, std::size_t size = 4096) {
        std::vector<char> out(size + 1, '#');
        const int length = dm_encryptString(text.c_str(), out.data(), size);
        EXPECT_EQ('#', out.back()) << "written beyond the buffer";
        return length < 1 ? std::string() : std::string(out.data(), static_cast<std::size_t>(length));
    }

    TempDir folder_;
    ScopedEnvironment keyFile_{"KELDRA_KEY_FILE", (folder_ / "key").string()};
};

TEST_F(Crypto, ABufferTooSmallIsRefused) {
    EXPECT_EQ("", encrypt("", 27));
    EXPECT_EQ(27U, encrypt("", 28).size());
    EXPECT_EQ("", encrypt("", 0));
    EXPECT_EQ(-1, dm_encryptString(nullptr, nullptr, 0));
}

TEST_F(Crypto, TheSamePasswordLooksDifferentEachTime) { EXPECT_NE(encrypt("secret"), encrypt("secret")); }

TEST_F(Crypto, AChangedTextIsNotDecrypted) {
    const std::string encrypted = encrypt("secret");
    for (std::size_t i = 0; i < encrypted.size(); ++i) {
        std::string changed = encrypted;
        changed[i] = changed[i] == 'A' ? 'B' : 'A';
        std::string plain = "untouched";
        EXPECT_FALSE(dm_decryptString(changed, plain)) << "at " << i;
        EXPECT_EQ("untouched", plain);
    }
    std::string plain;
    for (const std::string& text : {std::string(), encrypted + "A", encrypted + "=", encrypted.substr(1),
                                    " " + encrypted, encrypted.substr(0, encrypted.size() - 1), std::string(26, 'A')}) {
        EXPECT_FALSE(dm_decryptString(text, plain)) << text;
    }
}

TEST_F(Crypto, AnotherKeyDoesNotDecrypt) {
    const std::string encrypted = encrypt("secret");
    writeFile(folder_ / "key", std::string(63, 'a') + "B");
    std::string plain;
    EXPECT_FALSE(dm_decryptString(encrypted, plain));
}

TEST_F(Crypto, WithoutAProperKeyNothingIsEncrypted) {
    for (const std::string& key :
         {std::string(), std::string(63, 'a'), std::string(65, 'a'), std::string(63, 'a') + "g",
          std::string(64, 'a') + "\n\n", std::string(64, 'a') + "\r\n", " " + std::string(64, 'a')}) {
        writeFile(folder_ / "key", key);
        EXPECT_EQ("", encrypt("secret")) << key;
    }
    const ScopedEnvironment missing("KELDRA_KEY_FILE", (folder_ / "missing").string());
    EXPECT_EQ("", encrypt("secret"));
}

TEST(RandomBytes, AreAsManyAsAskedForAndNeverTheSame) {
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        std::vector<unsigned char> bytes = {1, 2, 3};
        ASSERT_TRUE(getRandomBytes(16, bytes));
        EXPECT_EQ(16U, bytes.size());
        seen.insert(bin2hex(bytes));
    }
    EXPECT_EQ(100U, seen.size());
}

TEST(RandomBytes, AreWrittenAsTwoDigitsEach) { EXPECT_EQ("000f10ff", bin2hex({0x00, 0x0f, 0x10, 0xff})); }

TEST(ConstantTimeEqual, ComparesWholeTexts) {
    EXPECT_TRUE(constantTimeEqual("", ""));
    EXPECT_TRUE(constantTimeEqual("abc", "abc"));
    EXPECT_FALSE(constantTimeEqual("abc", "abd"));
    EXPECT_FALSE(constantTimeEqual("abc", "ab"));
    EXPECT_FALSE(constantTimeEqual(std::string_view("a\0b", 3), std::string_view("a\0c", 3)));
}

}  // namespace
