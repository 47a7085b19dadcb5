#include "webui/cgi/service_message.h"

bool exchange(const IPCMessage& request, IPCMessage& reply) { return sendMessage(request, reply, SERVICE_TIMEOUT); }

bool exchangeAccepted(const IPCMessage& request, IPCMessage& reply) {
    return exchange(request, reply) && reply.result == IPCMessage::RESULT_OK;
}
