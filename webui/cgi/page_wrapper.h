#pragma once

#include "norv/text_form.h"
#include "webui/cgi/string_mui.h"

#include <cstdint>
#include <map>
#include <string>
#include <type_traits>

/// One response: headers, cookies and the items ("DStrings") that replace their own name in a page template. Nothing is
/// written before `outputPage`.
class CPageWrapper {
public:
    enum ContentType : int32_t { CONTENT_TYPE_NONE = 0, CONTENT_TYPE_HTML = 1, CONTENT_TYPE_PLAIN = 2 };

    /// An empty page that knows the console's language (item "__LOCALE__") and its string table.
    explicit CPageWrapper(ContentType type);
    /// Looks markers up in a further table of that language as well; what it names goes before what was known.
    void addTexts(const std::string& table);

    /// Each replaces an earlier entry of that name. Neither names nor values are escaped or checked.
    void addHeader(const std::string& name, const std::string& value);
    void addCookie(const std::string& name, const std::string& value);

    /// Adds an item: the text `name`, wherever it stands in the template, gives way to the value's translation. The
    /// items are applied in ascending byte order of their names, each on what the earlier ones left. Nothing is
    /// escaped.
    void addDStringItem(const std::string& name, const std::string& value);
    /// The same for anything that has a text form. A null pointer is an empty text.
    template <typename T>
    void addDStringItem(const std::string& name, const T& value) {
        if constexpr (std::is_convertible_v<const T&, const char*>) {
            const char* const text = value;
            addDStringItem(name, text ? std::string(text) : std::string());
        } else {
            addDStringItem(name, textForm(value));
        }
    }

    /// Adds items from a file of lines "name value", words without blanks, not translated; ";" begins a comment line. A
    /// name that stands alone takes the first word of the next line. False when the file cannot be opened.
    bool setDString(const std::string& strDStringFile);

    /// Writes the response with a template under "../templates/", or without a body when the name is empty. A name with
    /// ".." gives "error.html" of the working directory as HTML. False, with nothing written, when there is no such
    /// file.
    bool outputPage(const std::string& strPageName);

    /// The text with every occurrence of an item's name replaced by its value; an unknown item is made, empty.
    std::string replace(const std::string& text, const std::string& name);
    /// Replaces the string table's markers in place. After a replacement the search goes on where the marker would have
    /// ended, so markers inside a longer value are expanded too. Always 1.
    int ReplaceWithMUIString(std::string& text);

private:
    bool loadTemplate(const std::string& strPageName, std::string& body);
    std::string responseHead() const;

    ContentType contentType_;
    std::map<std::string, std::string> cookies_;
    std::map<std::string, std::string> headers_;
    std::map<std::string, std::string> dstrings_;
    CStringMUI strings_;
};

/// Writes bytes to standard output, for the body of a response that has no template.
void writeOut(const std::string& bytes);

/// Writes a response that sends the browser elsewhere with its method kept (status 307). `url` is written as it is.
void redirectTo(const std::string& url);
/// The same with a GET, whatever the method was (status 303).
void goTo(const std::string& url);
