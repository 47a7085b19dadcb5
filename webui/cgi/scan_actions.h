#pragma once

#include <string>

// Actions on finds as pages and forms have them. Pages count actions in digits 1 to 5, records in 0 to 4.

/// What a template has where the inputs with the actions belong.
inline constexpr char ACTION_MARKER[] = "<!--___SCANACTION_SET___-->";

/// The action on all virus types unless another one is set, in form digits.
inline constexpr char DEFAULT_UNIVERSE_ACTION[] = "Universe-5-4";

/// Translates every form digit of a text into the stored one; other characters stay.
void UIToConfig(std::string& psValue);

/// The way back.
void ConfigToUI(std::string& psValue);

/// A virus type with the actions it gets unless others are set, such as "Virus-5-4", in form digits.
std::string defaultAction(const std::string& virusType);

/// The three hidden inputs that carry the actions to the page's script and back. Nothing is escaped.
std::string actionInputs(const std::string& enableKeenAct, const std::string& enableUniAct,
                         const std::string& custAction);
