#include "tests/unit/service/scan_fixture.h"

#include <fcntl.h>

#include <array>
#include <cstdint>
#include <memory>
#include <utility>

namespace keldra {

namespace {

uint32_t crc32Of(const std::string& text) {
    uint32_t crc = ~0U;
    for (const char letter : text) {
        crc ^= static_cast<unsigned char>(letter);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xedb88320U : 0U);
    }
    return ~crc;
}

std::string little(uint64_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> static_cast<unsigned>(8 * i));
    return text;
}

/// What local header and directory entry have in common.
std::string commonHeader(const std::string& name, const std::string& content, bool encrypted) {
    return little(20, 2) + little(encrypted ? 1 : 0, 2) + little(0, 2) + little(0, 4) + little(crc32Of(content), 4) +
           little(content.size(), 4) + little(content.size(), 4) + little(name.size(), 2) + little(0, 2);
}

}  // namespace

std::string testVirus() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS" + "-TEST-FILE!$H+H*";
}

std::string zipOf(const std::vector<std::pair<std::string, std::string>>& members, bool encrypted) {
    std::string body;
    std::string directory;
    for (const auto& [name, content] : members) {
        const std::string common = commonHeader(name, content, encrypted);
        directory += "PK\x01\x02" + little(20, 2) + common + little(0, 2) + little(0, 2) + little(0, 2) + little(0, 4) +
                     little(body.size(), 4) + name;
        body += "PK\x03\x04" + common + name + content;
    }
    return body + directory + "PK\x05\x06" + little(0, 4) + little(members.size(), 2) + little(members.size(), 2) +
           little(directory.size(), 4) + little(body.size(), 4) + little(0, 2);
}

ScannedFile opened(const std::filesystem::path& path) {
    auto folder = std::make_shared<FileDescriptor>(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY));
    std::optional<ScannedFile> file = openInFolder(std::move(folder), path.filename().string(), path.string());
    EXPECT_TRUE(file) << path;
    return file ? std::move(*file) : ScannedFile{};
}

EngineSettings engineSettings(std::vector<std::string> signatureFolders) {
    EngineSettings settings;
    settings.signatureFolders = std::move(signatureFolders);
    settings.scanner = BINARY_DIR "/service/keldra-scanner";
    return settings;
}

ScanEngine& shippedEngine() {
    static const std::unique_ptr<ScanEngine> ENGINE = [] {
        std::unique_ptr<ScanEngine> engine = makeScanEngine(engineSettings({SOURCE_DIR "/deploy/signatures"}));
        EXPECT_TRUE(engine->load());
        return engine;
    }();
    return *ENGINE;
}

std::string signatureLine(const std::string& name, const std::string& content) {
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string line = name + ":0:0:";
    for (const char letter : content) {
        const auto byte = static_cast<unsigned char>(letter);
        line += DIGITS[byte >> 4U];
        line += DIGITS[byte & 15U];
    }
    return line + "\n";
}

}  // namespace keldra
