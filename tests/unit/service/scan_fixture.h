#pragma once

#include "service/engine/scan_engine.h"
#include "service/tree/scanned_file.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace keldra {

/// The harmless text that every engine reports; put together here so that it stands in no file.
std::string testVirus();

/// A ZIP of stored members, each a name and its content; `encrypted` only claims to be.
std::string zipOf(const std::vector<std::pair<std::string, std::string>>& members, bool encrypted = false);

/// Opens a file that must be there.
ScannedFile opened(const std::filesystem::path& path);

/// Settings of an engine whose scanner is the one just built.
EngineSettings engineSettings(std::vector<std::string> signatureFolders);

/// The real engine with the signatures that ship with the service, loaded once for the whole program.
ScanEngine& shippedEngine();

/// A line of a signature file that finds `content` under `name`.
std::string signatureLine(const std::string& name, const std::string& content);

/// Runs `body` as a user without any privilege, as far as the tests have one to give up.
template <typename Body>
void withoutPrivilege(const Body& body) {
    constexpr uid_t NOBODY = 65534;
    const uid_t before = ::geteuid();
    ASSERT_EQ(::seteuid(before == 0 ? NOBODY : before), 0);
    body();
    ASSERT_EQ(::seteuid(before), 0);
}

}  // namespace keldra
