#include "utf8.h"

namespace {

struct LeadByte {
    std::size_t length = 0;
    unsigned char secondMin = 0x80;  ///< what the second byte may be, RFC 3629, section 4
    unsigned char secondMax = 0xbf;
};

LeadByte leadByte(unsigned char lead) {
    if (lead < 0x80) return {1};
    if (lead < 0xc2) return {};
    if (lead < 0xe0) return {2};
    if (lead == 0xe0) return {3, 0xa0, 0xbf};
    if (lead == 0xed) return {3, 0x80, 0x9f};
    if (lead < 0xf0) return {3};
    if (lead == 0xf0) return {4, 0x90, 0xbf};
    if (lead < 0xf4) return {4};
    if (lead == 0xf4) return {4, 0x80, 0x8f};
    return {};
}

}  // namespace

std::size_t utf8SequenceLength(std::string_view text) {
    if (text.empty()) return 0;
    const LeadByte lead = leadByte(static_cast<unsigned char>(text[0]));
    if (lead.length <= 1) return lead.length;
    if (text.size() < lead.length) return 0;
    const auto second = static_cast<unsigned char>(text[1]);
    if (second < lead.secondMin || second > lead.secondMax) return 0;
    for (std::size_t i = 2; i < lead.length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xc0U) != 0x80U) return 0;
    }
    return lead.length;
}
