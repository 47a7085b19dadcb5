#include "webui/console/service_text.h"

#include "webui/cgi/page_text.h"

#include <libintl.h>

namespace {

/// The message catalogues that the process has chosen.
class CatalogueWords : public Words {
public:
    std::string text(const std::string& english) const override { return translated(english); }

protected:
    std::string form(const char* one, const char* many, std::uint64_t number) const override {
        return ngettext(one, many, number);
    }
};

}  // namespace

const Words& consoleWords() {
    static const CatalogueWords words;
    return words;
}

std::string translateServiceText(const std::string& text) { return serviceText(consoleWords(), text); }
