#include "norv/au_config.h"
#include "norv/norv_config.h"
#include "norv/scan_config.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

/// A document is read or gives an empty one, and what was changed in it is there after it was written and read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    NORVConfig config(std::vector<char>(data, data + size), 0);
    const NORVManualScanConfig manual(config);
    const NORVAUConfig update(config);
    config.setValue("ManualScan", "scanPaths", "/srv;/home");
    const std::string text = config.toText();
    const NORVConfig again(std::vector<char>(text.begin(), text.end()), 0);
    const bool kept = configValueOr(again, "ManualScan", "scanPaths", std::string()) == "/srv;/home";
    if (again.parsed() && !kept) std::abort();
    return 0;
}
