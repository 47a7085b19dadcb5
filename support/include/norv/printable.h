#pragma once

#include <string>
#include <string_view>

/// A text from outside made fit for a terminal and a log: what a terminal would obey, what is not seen or turns the
/// order of letters round, and what is no UTF-8, is shown as \n, \r, \t or \xNN.
std::string printable(std::string_view text);
