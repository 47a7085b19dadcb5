#pragma once

#include "norv/norv_config.h"
#include "webui/cgi/qs_control.h"

/// The check that a request belongs to somebody who logged on.
class CAuthenticate {
public:
    /// Keeps a copy of the configuration.
    explicit CAuthenticate(const NORVConfig& config);

    /// Whether the service confirms the session; if not, the browser has been sent to the log-on page.
    bool isValid(const CQSControl& request);
    /// Sends the browser to the log-on page.
    void DisplayLoginPage();

private:
    NORVConfig config_;
};
