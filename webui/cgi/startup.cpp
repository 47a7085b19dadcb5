#include "webui/cgi/startup.h"

#include "norv/log.h"
#include "webui/cgi/utils/configuration.h"

#include <syslog.h>

void openLog(const NORVConfig& config, const char* program) {
    initLog(program ? program : "", LOG_LOCAL3, config.UserDebugLevel(NORV_LOG_REFUSED));
}

bool loadConfigurationAndOpenLog(NORVConfig& config, const char* program) {
    const bool loaded = getNORVConfigFromEntity(config);
    openLog(config, program);
    return loaded;
}

bool readRequest(CQSControl& request) {
    if (request.initialize()) return true;
    NORV_LOG(NORV_LOG_ERROR, "Parsing query string failed");
    return false;
}

bool checkSession(CAuthenticate& session, const CQSControl& request) {
    if (session.isValid(request)) return true;
    NORV_LOG(NORV_LOG_WARNING, "Authentication invalid");
    return false;
}
