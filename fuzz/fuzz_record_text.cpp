#include "norv/au_config.h"
#include "norv/scan_config.h"

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

template <typename Record>
std::string textOf(const Record& record) {
    std::ostringstream out;
    out << record;
    return out.str();
}

/// A text is read whole or changes nothing; what was read is written and read again to the same text.
template <typename Record>
void check(const std::string& text) {
    Record record;
    const std::string before = textOf(record);
    std::istringstream in(text);
    if (!(in >> record)) {
        if (textOf(record) != before) std::abort();
        return;
    }
    std::istringstream written(textOf(record));
    Record again;
    if (!(written >> again) || textOf(again) != textOf(record)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check<NORVManualScanConfig>(text);
    check<NORVRealtimeScanConfig>(text);
    check<NORVScheduledScanConfig>(text);
    check<NORVManualAUConfig>(text);
    check<NORVScheduledAUConfig>(text);
    return 0;
}
