#pragma once

#include "norv/log.h"
#include "norv/mutex.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

/// The configuration document: an XML text `<Document><Group Type="…"><P Name="…" Value="…"/>…` and the time it was
/// last modified. The text is parsed when it is first looked into, which most pages never do. Content that does not
/// parse gives an empty document; `parsed()` tells.
class NORVConfig {
public:
    NORVConfig();
    /// `content`: the XML text. `lastModified`: seconds since the epoch, the document's stamp.
    NORVConfig(std::vector<char> content, long lastModified);
    /// A copy holds the document as it is now; where changes go (`setStore`) and that some are pending stays behind.
    /// The document itself is copied when one of the two is changed.
    NORVConfig(const NORVConfig& other);
    NORVConfig& operator=(const NORVConfig& other);
    NORVConfig& operator=(NORVConfig&& other) noexcept;
    /// Writes pending changes back with `sync()`.
    ~NORVConfig();

    /// The document's stamp, seconds since the epoch; 0 for an empty document.
    long lastModified() const { return lastModified_; }
    /// False when the content was not well-formed; `parseError()` then says what and where.
    bool parsed() const { return parseError().empty(); }
    const std::string& parseError() const;

    /// The document's root and the lock that guards it; the lock is not recursive.
    const tinyxml2::XMLDocument& document() const;
    BaseMutex& mutex() const { return mutex_; }

    /// Reads the attribute "Value" of a "P" element: text as it stands, numbers decimal over the whole text, booleans
    /// "1"/"true" or "0"/"false". False, with `value` untouched, when it is absent or not of that form.
    /// T is std::string, int32_t, uint32_t or bool.
    template <typename T>
    static bool getValue(const tinyxml2::XMLElement& element, T& value);

    /// Sets a value by category and name; group and element are made when missing. Marks the document as changed.
    void setValue(const std::string& category, const std::string& name, const std::string& value);
    /// The document as XML text.
    std::string toText() const;

    /// Where `sync()` sends a changed document; it returns whether the text was stored.
    using Store = std::function<bool(const std::string& text)>;
    void setStore(Store store) { store_ = std::move(store); }
    /// Sends pending changes to the store. True when nothing is pending afterwards; without a store changes stay
    /// pending and are lost with the object.
    bool sync();

    /// The log level for this process: the environment variable KELDRA_CONFIGURATION_USERDEBUGLEVEL (0 when it is not a
    /// number), else ("Configuration", "UserDebugLevel"), else `defaultLevel`.
    NORV_LOG_SEVERITY UserDebugLevel(NORV_LOG_SEVERITY defaultLevel) const;

private:
    struct Document;

    std::shared_ptr<Document> document_;
    mutable bool shared_ = false;  ///< whether a copy may hold the same document
    long lastModified_ = 0;
    bool modified_ = false;
    Store store_;
    mutable Mutex mutex_;
};

/// Looks a value up by category ("Type" of a "Group") and name ("Name" of a "P"), in document order, under the
/// document's lock. The first matching element decides, also when its value cannot be read as a T. A value that is not
/// there is logged. Returns whether `value` was read; it is untouched otherwise.
template <typename T>
bool getConfigValue(const NORVConfig& config, const std::string& category, const std::string& name, T& value);

/// Whether there is such a value at all, whatever its form.
bool hasConfigValue(const NORVConfig& config, const std::string& category, const std::string& name);

/// The same without the log line, for settings that may well be absent: `fallback` then.
template <typename T>
T configValueOr(const NORVConfig& config, const std::string& category, const std::string& name, T fallback);
