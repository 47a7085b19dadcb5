#include "service/clients/client_settings.h"

#include "norv/path_list.h"

#include <algorithm>

namespace keldra {

namespace {

constexpr const char* CATEGORY = "Clients";
constexpr std::uint32_t MEBIBYTE = 1U << 20U;

std::uint32_t numberOr(const NORVConfig& config, const char* name, std::uint32_t usual, std::uint32_t most) {
    return std::clamp(configValueOr(config, CATEGORY, name, usual), std::uint32_t{1}, most);
}

}  // namespace

ClientSettings clientSettings(const NORVConfig& config) {
    ClientSettings settings;
    settings.enabled = configValueOr(config, CATEGORY, "Enabled", false);
    settings.socket = configValueOr(config, CATEGORY, "Socket", settings.socket);
    settings.group = configValueOr(config, CATEGORY, "Group", settings.group);
    settings.everyUser = configValueOr(config, CATEGORY, "EveryUser", false);
    settings.refuseIncomplete = configValueOr(config, CATEGORY, "RefuseIncomplete", false);
    settings.addresses = splitPathList(configValueOr(config, CATEGORY, "Addresses", std::string()));
    settings.streamLimit = std::uint64_t{numberOr(config, "StreamLimit", 100, 2047)} * MEBIBYTE;
    settings.streamMemory = std::uint64_t{numberOr(config, "StreamMemory", 512, 1U << 20U)} * MEBIBYTE;
    settings.connections = numberOr(config, "Connections", 200, 4096);
    settings.connectionsEach = numberOr(config, "ConnectionsEach", 100, 4096);
    settings.scansEach = numberOr(config, "ScansEach", 16, 1024);
    settings.commandTime = std::chrono::seconds(numberOr(config, "CommandTime", 30, 3600));
    settings.readTime = std::chrono::seconds(numberOr(config, "ReadTime", 120, 3600));
    return settings;
}

}  // namespace keldra
