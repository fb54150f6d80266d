#pragma once
// Name-value dictionaries for header text. The text is split into lines, a
// line at the item separator into items, an item at the first name-value
// separator character into name and value ("Content-Type: text/xml;
// charset=utf-8" gives Content-Type -> text/xml and charset -> utf-8).
// White-space characters are removed from both ends of names and values, a
// value in double quotes loses them and separators inside quotes do not
// split, and an item without a separator is kept as a name with an empty value.

#include <memory>
#include <string>
#include <string_view>

#include "support/LowerCase.h"

namespace kivreg {

class IParValMultilineDictionary {
public:
    virtual ~IParValMultilineDictionary() = default;
    // Replaces the content with the parsed lines.
    virtual void parseMultiline(std::u16string_view text) = 0;
    // The value of the first item with that name, compared without regard to
    // case, looking through the lines in order; null if none.
    virtual const char16_t* fetchVal(std::u16string_view name) const = 0;
};

int createIParValMultilineDictionary(std::unique_ptr<IParValMultilineDictionary>& out,
                                     std::u16string_view lineSeparator,
                                     std::u16string_view itemSeparator,
                                     std::u16string_view nameValueSeparators,
                                     std::u16string_view whiteSpace);

}  // namespace kivreg
