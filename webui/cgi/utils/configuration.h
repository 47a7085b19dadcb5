#pragma once

#include "norv/norv_config.h"

#include <string>

/// Replaces `config` by the current document, fetched from the service. False, with `config` untouched, when the
/// service does not answer or reports an error.
bool getNORVConfigFromEntity(NORVConfig& config);

/// The directory of the product's variable data. False when the document does not name one and the default is used.
bool ConfigGetVarPath(const NORVConfig& config, std::string& path);

/// The build number of the installed product, the first line of `file`; empty when it cannot be read.
std::string GetBuildNumber(const char* file = "/opt/Halvard/NorvLinux/BUILD");

/// Whether any line of the kernel's module list does not begin with "norvmod"; callers rely on just that.
bool GetNORVRunningOrNot(const char* file = "/proc/modules");

/// Whether there is such a path.
bool Exist(const char* path);

/// The value in `ID="id" Value="value"`, empty when `data` holds none.
std::string ParseData(const std::string& data, const std::string& id);
