#include "service/ctl/control_client.h"

#include <gtest/gtest.h>

using namespace keldra;

TEST(Printable, AFileNameCannotCommandTheTerminal) {
    EXPECT_EQ(printable("a\x1b[2J\n\x7f"), R"(a\x1b[2J\n\x7f)");
    EXPECT_EQ(printable("a\xc2\x9b"
                        "2J\xc2\x85\xc2\xc2\x80"),
              "a\\xc2\\x9b2J\\xc2\\x85\\xc2\\xc2\\x80");
    // NOLINTNEXTLINE(misc-misleading-bidirectional): what it is about
    EXPECT_EQ(printable("inv\u202Efdp\u200B\uFEFF.exe\u061C\u2069\u2028"),
              "inv\\xe2\\x80\\xaefdp\\xe2\\x80\\x8b\\xef\\xbb\\xbf.exe\\xd8\\x9c\\xe2\\x81\\xa9\\xe2\\x80\\xa8");
    EXPECT_EQ(printable("a\u00ADb\u3164\u2800\U000E0041"),
              "a\\xc2\\xadb\\xe3\\x85\\xa4\\xe2\\xa0\\x80\\xf3\\xa0\\x81\\x81");
    EXPECT_EQ(printable("größe \xc2\xa0 雛 é 🦀 e\u0301"), "größe \xc2\xa0 雛 é 🦀 e\u0301");
}
