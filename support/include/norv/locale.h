#pragma once

#include <string>

/// The language tag of the console for this process, such as "en-US": KELDRA_LOCALE, else the best match of
/// HTTP_ACCEPT_LANGUAGE among the installed languages, else "en-US". Installed are the folders of "../templates/"
/// that are named like a language tag; nothing but such a folder's name is ever returned.
std::string get_norv_locale();

/// Selects that language for the message catalogues (LC_MESSAGES only; LC_CTYPE is always C.UTF-8, so matching and
/// number formats do not depend on the language). Catalogues lie under KELDRA_LOCALE_DIR, "../locale" when unset.
void set_norv_locale();
