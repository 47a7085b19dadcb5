#include "webui/cgi/utils/cookies.h"

#include "norv/crypto.h"
#include "norv/log.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace {

void storeCookie(std::string_view piece, std::map<std::string, std::string>& cookies) {
    if (piece.find('=') == std::string_view::npos) return;
    piece.remove_prefix(std::min(piece.find_first_not_of(' '), piece.size()));
    const std::size_t equals = piece.find('=');
    const std::string name(piece.substr(0, equals));
    const std::string value(piece.substr(equals + 1));
    NORV_TRACE("Cookie: name=[%s], value=[%s]", name.c_str(), value.c_str());
    cookies.insert_or_assign(name, value);
}

}  // namespace

std::map<std::string, std::string> parseCookie(const std::string& header) {
    NORV_TRACE("ENTER");
    std::map<std::string, std::string> cookies;
    for (std::string_view rest = header; !rest.empty();) {
        const std::size_t end = rest.find(';');
        storeCookie(rest.substr(0, end), cookies);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return cookies;
}

std::string genRandomHex(unsigned long nBytes) {
    std::vector<unsigned char> bytes;
    if (!getRandomBytes(nBytes, bytes)) throw std::runtime_error("Failed to generate random number");
    return bin2hex(bytes);
}
