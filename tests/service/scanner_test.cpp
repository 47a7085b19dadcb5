#include "tests/service/service_test.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr int FILES = 20;

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

/// A service whose scanners do what the first word of a file says.
class ScannerTest : public ServiceTest {
protected:
    ScannerTest() {
        service_.environment["LD_PRELOAD"] = BINARY_DIR "/tests/libmisbehave.so";
        for (int i = 0; i < FILES; ++i) {
            const std::filesystem::path folder = service_.file("samples") / std::to_string(i);
            writeFile(folder / "crash", "MISBEHAVE-CRASH " + std::to_string(i));
            writeFile(folder / "eicar.com", testFile());
            writeFile(folder / "clean", "harmless " + std::to_string(i));
        }
    }

    ProcessResult scan() const { return service_.control({"scan", service_.file("samples")}); }
};

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

TEST_F(ScannerTest, FilesThatEndTheirScannerAreNamedAndAllOthersAreScanned) {
    ASSERT_TRUE(service_.start());
    const pid_t pid = service_.pid();
    const ProcessResult first = scan();
    EXPECT_EQ(countOf(first.output, "eicar.com"), FILES) << first.output;
    EXPECT_EQ(countOf(first.output, "the scanner crashed"), FILES) << first.output;
    EXPECT_EQ(countOf(scan().output, "eicar.com"), FILES);
    EXPECT_TRUE(service_.running());
    EXPECT_EQ(service_.pid(), pid);
}

TEST_F(ScannerTest, AFileThatHangsEndsAtTheLimitOfTheSettings) {
    writeFile(service_.file("samples") / "0" / "hang", "MISBEHAVE-HANG");
    ASSERT_TRUE(service_.start());
    const ProcessResult refused = service_.control({"settings", "set", "limits.seconds", "0"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.errors.find("from 1 to 600"), std::string::npos) << refused.errors;
    ASSERT_EQ(service_.control({"settings", "set", "limits.seconds", "1"}).status, 0);
    const ProcessResult result = scan();
    EXPECT_EQ(countOf(result.output, "the scan took too long"), 1U) << result.output;
    EXPECT_EQ(countOf(result.output, "eicar.com"), FILES);
}

TEST_F(ScannerTest, TheServiceEndsWhileAFileHangs) {
    writeFile(service_.file("samples") / "0" / "hang", "MISBEHAVE-HANG");
    ASSERT_TRUE(service_.start());
    std::jthread scanning([this] { scan(); });
    std::this_thread::sleep_for(1s);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(service_.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

}  // namespace
