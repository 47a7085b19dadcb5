#include "tests/service/service_test.h"

#include <algorithm>
#include <string>

namespace {

/// Checks each line of standard input. Status 77: there is nothing to check it with.
constexpr const char* VALIDATE = R"(
import json, sys
try:
    import jsonschema
except ImportError:
    sys.exit(77)
schema = json.load(open(sys.argv[1]))
jsonschema.Draft202012Validator.check_schema(schema)
lines = [json.loads(line) for line in sys.stdin]
for status in lines:
    jsonschema.validate(status, schema, jsonschema.Draft202012Validator)
optional = {'running_manual', 'running_scheduled', 'running_path', 'quarantine_room'}
print(len(lines), sorted(set(schema['properties']) - optional - set(lines[0])))
)";

class StatusSchemaTest : public ServiceTest {
protected:
    /// One line.
    std::string status() const {
        std::string text = service_.control({"status", "--json"}).output;
        std::replace(text.begin(), text.end(), '\n', ' ');
        return text + '\n';
    }
};

TEST_F(StatusSchemaTest, WhatStatusPrintsIsWhatItsSchemaPromises) {
    writeFile(service_.file("samples") / "clean", "nothing");
    ASSERT_TRUE(service_.start());
    std::string lines = status();
    service_.control({"scan", service_.file("samples")});
    ask(IPCMessage::START, IPCMessage::MANUAL_SCAN);
    lines += status();
    service_.stop();
    service_.arguments = {"--signatures", service_.file("nowhere")};
    ASSERT_TRUE(service_.start());
    lines += status();
    const std::string schema = std::string(SOURCE_DIR) + "/docs/status.schema.json";
    const ProcessResult checked = runProgram({.argv = {"/usr/bin/python3", "-c", VALIDATE, schema}, .input = lines});
    if (checked.status == 77) GTEST_SKIP() << "there is no validator (package python3-jsonschema)";
    EXPECT_EQ(checked.output, "3 []\n") << checked.errors;
}

}  // namespace
