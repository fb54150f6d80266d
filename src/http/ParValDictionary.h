#pragma once
// Name-value dictionaries for header text. A line is split at the item
// separator into items, an item at the first name-value separator character
// into name and value ("Content-Type: text/xml; charset=utf-8" gives
// Content-Type -> text/xml and charset -> utf-8). The multi-line kind first
// splits the text into lines.
//
// Flags:
//   trim      white-space characters are removed from both ends of names and values
//   unquote   a value in double quotes loses them, and separators inside quotes do not split
//   keepBare  an item without a separator is kept as a name with an empty value

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/LowerCase.h"

namespace kivreg {

struct DicVecLine {
    struct Item {
        std::u16string name;
        std::u16string value;
    };
    std::u16string line;
    std::vector<Item> items;
};

class IParValDictionary {
public:
    virtual ~IParValDictionary() = default;
    virtual void reset() = 0;
    // Replaces the content with one parsed line; returns the number of items.
    virtual int parseLine(std::u16string_view line, bool trim, bool unquote) = 0;
    virtual int parseLine(std::u16string_view line) = 0;
    // The value of the first item with that name (null if none), and the
    // name of the first item with that value.
    virtual const char16_t* fetchVal(std::u16string_view name, bool ignoreCase) const = 0;
    virtual const char16_t* fetchPar(std::u16string_view value, bool ignoreCase) const = 0;
    virtual const DicVecLine& getLine() const = 0;
};

class IParValMultilineDictionary {
public:
    virtual ~IParValMultilineDictionary() = default;
    virtual void reset() = 0;
    // Replaces the content with the parsed lines; returns the number of lines.
    virtual int parseMultiline(std::u16string_view text, bool trim, bool unquote,
                               bool keepBare) = 0;
    virtual int parseMultiline(std::u16string_view text) = 0;
    // Looks through the lines in order.
    virtual const char16_t* fetchVal(std::u16string_view name, bool ignoreCase) const = 0;
    virtual const char16_t* fetchPar(std::u16string_view value, bool ignoreCase) const = 0;
    virtual const std::vector<DicVecLine>& getBlock() const = 0;
};

int createIParValDictionary(std::unique_ptr<IParValDictionary>& out,
                            std::u16string_view itemSeparator,
                            std::u16string_view nameValueSeparators, std::u16string_view whiteSpace,
                            bool trim, bool unquote, bool keepBare);
int createIParValMultilineDictionary(std::unique_ptr<IParValMultilineDictionary>& out,
                                     std::u16string_view lineSeparator,
                                     std::u16string_view itemSeparator,
                                     std::u16string_view nameValueSeparators,
                                     std::u16string_view whiteSpace, bool trim, bool unquote,
                                     bool keepBare);

}  // namespace kivreg
