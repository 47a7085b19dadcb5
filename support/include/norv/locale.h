#pragma once

#include <string>

/// The language tag of the console for this process, such as "en-US": KELDRA_LOCALE, else the best match of
/// HTTP_ACCEPT_LANGUAGE among the installed languages, else "en-US". Installed are the folders of "../templates/"
/// that are named like a language tag; nothing but such a folder's name is ever returned.
std::string get_norv_locale();

/// Selects that language for the message catalogues, which lie under KELDRA_LOCALE_DIR, "../locale" when unset. Only
/// LC_MESSAGES is set: matching without regard to case must not follow the language (in Turkish "I" is no capital "i",
/// and "<SCRIPT" would pass the request filter), nor may number formats.
void set_norv_locale();
