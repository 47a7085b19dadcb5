#pragma once

#include "tests/harness/build_paths.h"
#include "tests/harness/keldrad_runner.h"
#include "tests/harness/service_client.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>

/// A real keldrad with a configuration made by keldractl.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() {
        std::filesystem::remove(service_.file("config.xml"));
        const ProcessResult made = service_.control({"init", "--config", service_.file("config.xml"), "--state",
                                                     service_.file("state"), "--key", service_.file("key"), "--var",
                                                     service_.file("var"), "--scan-path", service_.file("samples")});
        EXPECT_EQ(made.status, 0) << made.errors;
        std::filesystem::create_directories(service_.file("samples"));
        service_.arguments = {"--signatures", std::string(SOURCE_DIR) + "/deploy/signatures"};
    }

    /// Asks for something; the empty message (result 0) when no reply came.
    IPCMessage ask(IPCMessage::Operation operation, IPCMessage::CommandID command, const std::string& name = "",
                   const std::string& value = "") const {
        IPCMessage request(operation, command);
        if (!name.empty()) request.addParam(name, value);
        return service_.ask(request).value_or(IPCMessage());
    }
    IPCMessage get(IPCMessage::CommandID command) const { return ask(IPCMessage::GET, command); }
    long stamp() const { return get(IPCMessage::CONFIG_FILE_STATE).value<long>("LastModified"); }

    template <typename Record>
    Record read(IPCMessage::CommandID command, const char* name) const {
        Record record;
        std::istringstream text(get(command).value<std::string>(name));
        EXPECT_TRUE(text >> record) << name;
        return record;
    }
    template <typename Record>
    IPCMessage store(IPCMessage::CommandID command, const char* name, const Record& record) const {
        std::ostringstream text;
        text << record;
        return ask(IPCMessage::SET, command, name, text.str());
    }

    KeldradRunner service_{serviceProgram("keldrad"), serviceProgram("keldractl")};
};
