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
    class PSymbol {
    public:
        PSymbol(std::u16string name, std::u16string value)
            : m_name(std::move(name)), m_value(std::move(value)) {
            makePlaceholder();
        }
        explicit PSymbol(const PSymbol* other) : PSymbol(*other) {}

        const std::u16string& getName() const { return m_name; }
        const std::u16string& getValue() const { return m_value; }
        // "${name}", kept so that replacing in many texts builds it once.
        const std::u16string& getPlaceholder() const { return m_placeholder; }
        void setName(std::u16string name) {
            m_name = std::move(name);
            makePlaceholder();
        }
        void setValue(std::u16string value) { m_value = std::move(value); }

    private:
        void makePlaceholder();

        std::u16string m_name;
        std::u16string m_value;
        std::u16string m_placeholder;
    };

    static constexpr std::u16string_view symbol_start = u"${";
    static constexpr std::u16string_view symbol_end = u"}";
    // A value may name other symbols; resolution stops after this many passes.
    static constexpr int MAX_PASSES = 100;
    // Longer lines of a symbol file are taken in pieces of this many units.
    static constexpr size_t MAX_LINE = 65535;
    // A value that names its own symbol twice doubles a text with every pass;
    // these bound what substitution may make of one text and of a document.
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
            std::u16string original, next, before;
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
    int addSymbol(const char16_t* line);
    int addSymbol(std::u16string_view line);
    // Replaces every symbol of that name; the new one goes to the end.
    void addSymbol(const std::u16string& name, const std::u16string& value);
    void removeSymbol(const std::u16string& name);

    std::u16string getSymbolValue(const std::u16string& name) const;
    std::u16string getSymbolValueIgnCase(std::u16string name) const;
    size_t getSymbolCount() const { return m_symbols.size(); }
    const std::vector<PSymbol>& symbols() const { return m_symbols; }

    static bool checkSymbolFile(const std::u16string& fileName);
    static const char16_t* maskLeadingBlanks(const char16_t* s);
    static void trimTrailingBlanks(char16_t* s);
    static char16_t convertToLower(char16_t c);

    void printSymbols() const;
    // The text as far as substitution got; a bound stops it unnoticed here.
    std::u16string replaceSymbols(const std::u16string& text) const;
    // Replaces in place; false when nothing changed. A replacement that would
    // break a bound is not made: substitution stops and budget.stopped says why.
    bool replaceSymbolsInPlace(std::u16string& text, Budget& budget) const;

private:
    // Built at the first replacement after the table changed.
    const PatternSet& placeholders() const;

    CLog* m_log;
    std::vector<PSymbol> m_symbols;
    mutable std::shared_ptr<const PatternSet> m_placeholders;
};

}  // namespace kivreg
