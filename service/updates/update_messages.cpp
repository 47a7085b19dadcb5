#include "service/updates/update_messages.h"

#include "service/updates/contains_word.h"

namespace keldra {

namespace {

/// freshclam's exit codes, from its manual page and libfreshclam.h.
const char* messageOf(int exitStatus) {
    switch (exitStatus) {
        case 2:
        case 9:
        case 16:
            return BAD_SETTINGS;
        case 3:
        case 4:
        case 10:
        case 13:
            return NOT_STORED;
        case 5:
        case 11:
        case 12:
            return UNREACHABLE;
        case 6:
        case 7:
        case 8:
            return DAMAGED;
        case 14:
            return UNREADABLE;
        case 17:
        case 18:
            return REFUSED;
        case 127:
            return NOT_FOUND;
        default:
            return FAILED;
    }
}

}  // namespace

void FailureWatch::line(std::string_view text) {
    for (const std::string_view word : {"permission denied", "can't", "cannot", "failed to open"}) {
        refused_ = refused_ || containsWord(text, word);
    }
}

const char* FailureWatch::messageOf(const ChildResult& result) const {
    const bool confined = result.confinement.ends_with("(enforce)");
    return confined && refused_ ? CONFINED : keldra::messageOf(result.status);
}

}  // namespace keldra
