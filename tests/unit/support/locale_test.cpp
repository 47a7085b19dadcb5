#include "norv/locale.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/support/scoped_environment.h"

#include <gtest/gtest.h>
#include <libintl.h>
#include <regex.h>

#include <clocale>
#include <filesystem>
#include <optional>
#include <string>

namespace {

/// Makes a console tree with three languages and stands in its folder of programs.
class Locale : public testing::Test {
protected:
    void SetUp() override {
        for (const char* tag : {"en-US", "de-DE", "ja-JP"}) {
            writeFile(folder_ / "templates" / tag / "string.mui", "KEY=value\n");
        }
        writeFile(folder_ / "templates/ScanOptions/Manual.html", "");
        writeFile(folder_ / "string.mui", "");
        std::filesystem::create_directory(folder_ / "cgi");
        std::filesystem::current_path(folder_ / "cgi");
    }
    void TearDown() override { std::filesystem::current_path(before_); }

    static std::string chosen(const std::optional<std::string>& setting, const std::optional<std::string>& header) {
        const ScopedEnvironment locale("KELDRA_LOCALE", setting);
        const ScopedEnvironment accepted("HTTP_ACCEPT_LANGUAGE", header);
        return get_norv_locale();
    }

    TempDir folder_;
    std::filesystem::path before_ = std::filesystem::current_path();
};

TEST_F(Locale, TheBrowserGetsTheLanguageItLikesBest) {
    const struct {
        std::optional<std::string> header;
        const char* tag;
    } cases[] = {
        {std::nullopt, "en-US"},
        {"", "en-US"},
        {"ja-JP", "ja-JP"},
        {"JA-jp", "ja-JP"},
        {"de", "de-DE"},
        {"de-AT", "de-DE"},
        {"en", "en-US"},
        {"en-GB", "en-US"},
        {"fr, de;q=0.5, ja;q=0.7", "ja-JP"},
        {"fr;q=0.9,de;q=0.8", "de-DE"},
        {"de;q=0.5,ja;q=0.5", "de-DE"},
        {"de;q=0,ja", "ja-JP"},
        {"de;q=0", "en-US"},
        {" de ; q=0.1 ,\tja;q=0.2", "ja-JP"},
        {"de;q=2,ja;q=0.1", "ja-JP"},
        {"de;q=,ja;q=0.1", "ja-JP"},
        {"fr, *;q=0.5, de;q=0.1", "en-US"},
        {"*", "en-US"},
        {"fr", "en-US"},
        {"ScanOptions", "en-US"},
        {"../templates/de-DE", "en-US"},
        {",,;q=1,;;", "en-US"},
        {std::string(100'000, ','), "en-US"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.tag, chosen(std::nullopt, c.header)) << c.header.value_or("unset");
}

TEST_F(Locale, TheAdministratorsSettingComesFirstIfItIsInstalled) {
    EXPECT_EQ("ja-JP", chosen("ja-JP", "de"));
    EXPECT_EQ("de-DE", chosen("", "de"));
    for (const char* name : {"fr-FR", "ja-jp", "..", ".", "ScanOptions", "de-DE/", "../templates/de-DE"}) {
        EXPECT_EQ("en-US", chosen(name, "de")) << name;
    }
}

TEST_F(Locale, WithoutTemplatesItIsEnglish) {
    std::filesystem::current_path("/");
    EXPECT_EQ("en-US", chosen("de-DE", "de"));
}

/// A message catalogue of one text, in the form that the gettext manual gives ("The Format of GNU MO Files").
std::string catalogue(const std::string& text, const std::string& translation) {
    const std::string header = "Content-Type: text/plain; charset=UTF-8\n";
    std::string file;
    const auto number = [&](std::size_t n) {
        for (unsigned shift = 0; shift < 32; shift += 8) file += static_cast<char>(n >> shift & 0xffU);
    };
    const std::size_t strings = 28 + 4 * 8;
    for (const std::size_t n : {std::size_t{0x950412de}, std::size_t{0}, std::size_t{2}, std::size_t{28},
                                std::size_t{44}, std::size_t{0}, strings}) {
        number(n);
    }
    std::size_t at = strings;
    for (const std::string& part : {std::string(), text, header, translation}) {
        number(part.size());
        number(at);
        at += part.size() + 1;
    }
    return file + '\0' + text + '\0' + header + '\0' + translation + '\0';
}

TEST_F(Locale, TextsAreTranslatedOnAHostWithoutGeneratedLocales) {
    writeFile(folder_ / "locale/de/LC_MESSAGES/messages.mo", catalogue("Scan now",
                                                                       "Jetzt pr\xc3\xbc"
                                                                       "fen"));
    const ScopedEnvironment language("LANGUAGE", std::nullopt);
    const ScopedEnvironment locale("KELDRA_LOCALE", "de-DE");
    const ScopedEnvironment catalogues("KELDRA_LOCALE_DIR", (folder_ / "locale").string());
    set_norv_locale();
    EXPECT_STREQ(
        "Jetzt pr\xc3\xbc"
        "fen",
        ::gettext("Scan now"));
    EXPECT_STREQ(
        "Jetzt pr\xc3\xbc"
        "fen",
        ::dgettext("messages", "Scan now"));
    EXPECT_STREQ("not in the catalogue", ::gettext("not in the catalogue"));
    std::setlocale(LC_ALL, "C");
}

/// In a Turkish locale "I" is not the capital of "i", and the filter of requests would miss "<SCRIPT".
TEST_F(Locale, MatchingDoesNotDependOnTheLanguage) {
    writeFile(folder_ / "templates/tr-TR/string.mui", "");
    writeFile(folder_ / "locale/tr/LC_MESSAGES/messages.mo", catalogue("Scan now", "Tara"));
    const ScopedEnvironment language("LANGUAGE", std::nullopt);
    const ScopedEnvironment all("LC_ALL", "tr_TR.UTF-8");
    const ScopedEnvironment locale("KELDRA_LOCALE", "tr-TR");
    set_norv_locale();
    EXPECT_STREQ("Tara", ::gettext("Scan now"));
    EXPECT_STREQ("C", std::setlocale(LC_CTYPE, nullptr));
    EXPECT_STREQ("C", std::setlocale(LC_NUMERIC, nullptr));
    std::setlocale(LC_ALL, "C");
}

}  // namespace
