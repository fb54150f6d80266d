#pragma once
// The symbol table: name/value pairs read from symbol files, and the
// replacement of "${name}" placeholders in texts.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/PatternSet.h"

namespace kivreg {

class CLog;

class PSymbols {
public:
    // A symbol's name and value in UTF-8, with the lengths in 16-bit units
    // that the bounds count.
    class PSymbol {
    public:
        PSymbol(std::string name, std::string value);

        const std::string& getName() const { return m_name; }
        const std::string& getValue() const { return m_value; }
        // "${name}", kept so that replacing in many texts builds it once.
        const std::string& getPlaceholder() const { return m_placeholder; }
        size_t valueUnits() const { return m_valueUnits; }
        size_t placeholderUnits() const { return m_placeholderUnits; }

    private:
        std::string m_name;
        std::string m_value;
        std::string m_placeholder;
        size_t m_valueUnits;
        size_t m_placeholderUnits;
    };

    static constexpr std::string_view symbol_start = "${";
    static constexpr std::string_view symbol_end = "}";
    // A value may name other symbols; resolution stops after this many passes.
    static constexpr int MAX_PASSES = 100;
    // Longer lines of a symbol file are taken in pieces of this many units.
    static constexpr size_t MAX_LINE = 65535;
    // A value that names its own symbol twice doubles a text with every pass;
    // these bound what substitution may make of one text and of a document,
    // counted in 16-bit units.
    static constexpr size_t MAX_TEXT_UNITS = size_t{1} << 20;
    static constexpr size_t MAX_DOCUMENT_GROWTH = size_t{1} << 28;

    // What substitution may still add across the texts of one document,
    // which bound, if any, stopped it, and the room its texts share: most
    // texts are short, and allocating anew for each cost more than replacing.
    struct Budget {
        enum class Stop { None, Text, Document };
        size_t growthLeft = MAX_DOCUMENT_GROWTH;
        Stop stopped = Stop::None;
        struct Room {
            std::vector<PatternSet::Match> matches, moved, found;
            std::vector<uint32_t> counts, replacedAt;
            std::string original, next, before;
        } room;
    };

    // Results of addSymbol/addSymbols.
    static constexpr int RC_OK = 1;
    static constexpr int RC_NO_MEMORY = -1;
    static constexpr int RC_SYNTAX = -2;
    static constexpr int RC_OPEN_FAILED = -10;
    static constexpr int RC_READ_FAILED = -11;

    explicit PSymbols(CLog* log) : m_log(log) {}

    // Reads a UTF-8 symbol file: 1, -10 (cannot open), -11 (read error or
    // malformed text), or the first failing line's code.
    int addSymbols(const std::u16string& fileName);
    // One line of a symbol file: 1 (defined or skipped), -1, -2.
    int addSymbol(std::u16string_view line);
    // Replaces every symbol of that name; the new one goes to the end.
    void addSymbol(const std::u16string& name, const std::u16string& value);
    void removeSymbol(const std::u16string& name);

    size_t getSymbolCount() const { return m_symbols.size(); }
    const std::vector<PSymbol>& symbols() const { return m_symbols; }

    static bool checkSymbolFile(const std::u16string& fileName);

    void printSymbols() const;
    // Replaces in the UTF-8 text in place; false when nothing changed. A
    // replacement that would break a bound is not made: substitution stops
    // and budget.stopped says why.
    bool replaceSymbolsInPlace(std::string& text, Budget& budget) const;

private:
    // Built at the first replacement after the table changed.
    const PatternSet& placeholders() const;

    CLog* m_log;
    std::vector<PSymbol> m_symbols;
    mutable std::shared_ptr<const PatternSet> m_placeholders;
};

}  // namespace kivreg
