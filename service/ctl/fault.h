#pragma once

#include <string>

namespace keldra {

// What a fault may be, for programs; docs/man/keldractl.8 lists them. They never change.
inline constexpr const char* FAULT_UNKNOWN_COMMAND = "unknown_command";
inline constexpr const char* FAULT_UNKNOWN_OPTION = "unknown_option";
inline constexpr const char* FAULT_ARGUMENTS = "wrong_arguments";
inline constexpr const char* FAULT_NO_ANSWER = "no_answer";
inline constexpr const char* FAULT_REFUSED = "refused";
inline constexpr const char* FAULT_UNREADABLE = "unreadable_answer";
inline constexpr const char* FAULT_NOT_FOUND = "not_found";
inline constexpr const char* FAULT_VALUE = "wrong_value";
inline constexpr const char* FAULT_INCOMPLETE = "not_completed";
inline constexpr const char* FAULT_NO_SIGNATURES = "no_signatures";
inline constexpr const char* FAULT_FAILED = "failed";

/// Why something is not done.
struct Fault {
    const char* code = "";
    std::string message;  ///< a sentence; empty: nothing went wrong

    bool empty() const { return message.empty(); }
};

}  // namespace keldra
