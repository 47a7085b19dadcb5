#pragma once

#include "webui/cgi/page_wrapper.h"

#include <string>

/// Answers with a page that is filled by its own script; its texts stand in a table that the settings pages do without.
/// `page`: holds what is filled in already. Returns the program's exit status.
int showConsolePage(const std::string& name, CPageWrapper& page);
int showConsolePage(const std::string& name);
