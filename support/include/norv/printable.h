#pragma once

#include <string>
#include <string_view>

/// A text from outside made fit for a terminal and a log: what a terminal would obey, what is not seen or turns the
/// order of letters round, and what is no UTF-8, is shown as \n, \r, \t or \xNN.
std::string printable(std::string_view text);

/// The same with each such sign, or byte that is no UTF-8, as `picture` shows it.
std::string withPictures(std::string_view text, std::string (*picture)(std::string_view sign));
