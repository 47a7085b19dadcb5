#include "webui/console/service_text.h"

#include <libintl.h>

namespace {

/// The message catalogues that the process has chosen.
class CatalogueWords : public Words {
public:
    /// The catalogue answers the empty text with its own header.
    std::string text(const std::string& english) const override {
        return english.empty() ? english : gettext(english.c_str());
    }

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
