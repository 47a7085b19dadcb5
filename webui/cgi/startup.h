#pragma once

#include "norv/norv_config.h"
#include "webui/cgi/authenticate.h"
#include "webui/cgi/qs_control.h"

/// Opens the log at the level that the environment names, else the configuration. `program`: the path the program was
/// started by, or null.
void openLog(const NORVConfig& config, const char* program);

/// Fetches the configuration and opens the log at the level it names. `program`: the path the program was started by,
/// or null. Returns whether the configuration could be fetched.
bool loadConfigurationAndOpenLog(NORVConfig& config, const char* program);

/// Reads the request; a refused one is logged. False then.
bool readRequest(CQSControl& request);

/// Checks the session; an invalid one is logged, and the browser has been sent to the log-on page. False then.
bool checkSession(CAuthenticate& session, const CQSControl& request);
