#pragma once

#include "webui/cgi/page_wrapper.h"

#include <string>

/// The page after a save: a success page titled `sFailTitle` when there is no reason, else the failure page. Null
/// pointers are empty texts.
void CommonResponsePage(CPageWrapper& page, const char* sHeader, const char* sFailTitle, const char* sFailReason,
                        const char* sBackURL);

/// The page for settings that were saved without a backup of the configuration. Null pointers are empty texts.
void CommonResponsePageDiskFull(CPageWrapper& page, const char* sHeader, const char* sTitle, const char* sBackURL);

/// The failure page.
void showErrorPage(CPageWrapper& page, const std::string& sHeader, const std::string& sFailTitle,
                   const std::string& sFailReason, const std::string& sBackURL);
/// The failure page without a heading. Always 0.
int showErrorPage(CPageWrapper& page, const std::string& sFailTitle, const std::string& sFailReason,
                  const std::string& sBackURL);

/// The page for a feature that there is not. Always 1.
int NotSupportYet();

/// Escapes a text in place for a double-quoted value of a page script: backslashes, then double quotes.
void processSpecialChars(std::string& s);
