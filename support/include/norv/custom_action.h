#pragma once

#include <string>
#include <vector>

/// What to do with a find of one virus type: a first action and a second one for when the first fails, as stored digits
/// (0 pass, 1 delete, 2 quarantine, 3 clean, 4 rename).
struct CustomAction {
    std::string first;
    std::string second;

    /// "first-second", such as "4-1".
    std::string actionString() const;
};

/// What is done with finds of a type unless the settings say otherwise; of an unknown type the same as of "Other".
CustomAction recommendedAction(const std::string& type);

/// Actions by virus type, in the order they were given.
class CustomActionList {
public:
    CustomActionList() = default;
    /// Reads "Type-first-second,Type-first-second,…". The last two fields of a piece are the actions, the rest is the
    /// type. Pieces whose type is not of letters, digits, "_", "-" and blanks or whose actions are not decimal digits
    /// are dropped; the first entry of a type wins.
    explicit CustomActionList(const std::string& text);

    /// The entry of a type, or one of the two given defaults where it has none.
    CustomAction action(const std::string& type, int defaultFirst, int defaultSecond) const;
    void removeCustomAction(const std::string& type);
    /// The text form that the constructor reads.
    std::string toString() const;
    bool empty() const { return entries_.empty(); }

private:
    struct Entry {
        std::string type;
        CustomAction action;
    };
    std::vector<Entry> entries_;
};
