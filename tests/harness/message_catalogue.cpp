#include "tests/harness/message_catalogue.h"

#include "tests/harness/process.h"
#include "tests/harness/temp_dir.h"

std::string messageCatalogue(const std::map<std::string, std::string>& texts) {
    const TempDir folder;
    std::string source = "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n";
    for (const auto& [original, translation] : texts)
        source += "\nmsgid \"" + original + "\"\nmsgstr \"" + translation + "\"\n";
    writeFile(folder / "po", source);
    runProgram({.argv = {"/usr/bin/msgfmt", "-o", folder / "mo", folder / "po"}});
    return readFile(folder / "mo");
}
