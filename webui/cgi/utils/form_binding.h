#pragma once

#include "norv/norv_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

#include <string>

// A page template assigns each of its variables a default: `name=""`, `name=0` or `name=false`. These functions add the
// item that replaces such an assignment, as a whole, by the one of the real value.

/// `name=""` becomes `name="value"` with backslash and double quote escaped. Returns 1.
int AddOneItem(CPageWrapper& page, const char* name, const std::string& value);
/// `name=0` becomes `name=value`. Returns 1.
int AddOneItem(CPageWrapper& page, const char* name, int value);

/// The text of a configuration value as page variable `name`. Returns 1, or 0 and adds nothing when it is not there.
int AssignOneItem(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                  const char* name);
/// The text of a request parameter as page variable `name`. Returns 1.
int AssignOneItem(CPageWrapper& page, const CQSControl& request, const char* field, const char* name);

/// A configuration text, else `defaultValue`, as page variable `name`, with line ends, tabs and the like escaped too.
void GetConfigAndSet(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                     const char* name, const char* defaultValue);
/// The same under its older name.
void GetXMLStringAndSet(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                        const char* name, const char* defaultValue);

// Each of these turns `name=false` into `name=true` when its box is checked. They return whether it is, as 1 or 0.

/// Checked when the value is "on" or "1".
int SetCheckbox(CPageWrapper& page, const char* name, const char* value);
/// Checked when the request parameter has two or more characters, whatever they are.
int SetCheckbox(CPageWrapper& page, const CQSControl& request, const char* field, const char* name);
/// Checked when the number is not 0.
int GetCheckbox(CPageWrapper& page, const char* name, int value);
/// Checked when the configuration value is true.
int GetCheckbox(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                const char* name);
