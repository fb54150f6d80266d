#include "model/PSymbols.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "runtime/textconv.h"
#include "support/CCConv.h"
#include "support/CLog.h"
#include "support/LowerCase.h"

namespace kivreg {

namespace {

bool isLeadingBlank(char16_t c) {
    return c == u' ' || c == u'\t';
}
bool isTrailingBlank(char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r';
}

std::u16string_view trimmed(std::u16string_view s) {
    while (!s.empty() && isTrailingBlank(s.back())) s.remove_suffix(1);
    while (!s.empty() && isLeadingBlank(s.front())) s.remove_prefix(1);
    return s;
}

std::string fileNameBytes(const std::u16string& fileName) {
    std::string out;
    rt::utf16ToUtf8Lenient(fileName, out);
    return out;
}

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct LineBuffer {
    char* data = nullptr;
    size_t capacity = 0;
    ~LineBuffer() { std::free(data); }
};

}  // namespace

void PSymbols::PSymbol::makePlaceholder() {
    m_placeholder.clear();
    m_placeholder.reserve(m_name.size() + 3);
    m_placeholder += symbol_start;
    m_placeholder += m_name;
    m_placeholder += symbol_end;
}

int PSymbols::addSymbols(const std::u16string& fileName) {
    FilePtr file(std::fopen(fileNameBytes(fileName).c_str(), "r"));
    if (!file) {
        *m_log << timestamp << u"Failed to open symbol file \"" << fileName << u"\"." << endlog;
        return RC_OPEN_FAILED;
    }
    auto readError = [&](int linesRead) {
        *m_log << timestamp << u"Read error in symbol file \"" << fileName << u"\", line "
               << linesRead << u"." << endlog;
        return RC_READ_FAILED;
    };
    int rc = RC_OK;
    int lines = 0;
    LineBuffer buf;
    std::u16string text;
    for (;;) {
        const ssize_t n = ::getline(&buf.data, &buf.capacity, file.get());
        if (n < 0) {
            if (std::ferror(file.get())) return readError(lines);
            break;
        }
        text.clear();
        if (rt::utf8ToUtf16({buf.data, static_cast<size_t>(n)}, text) != 0) return readError(lines);
        // Over-long lines are taken in pieces, each piece a line of its own.
        for (size_t pos = 0; pos < text.size() && rc >= 0; pos += MAX_LINE) {
            std::u16string_view piece = std::u16string_view(text).substr(pos, MAX_LINE);
            ++lines;
            // A line ends at a NUL as any C line would.
            piece = piece.substr(0, piece.find(u'\0'));
            rc = addSymbol(piece);
        }
        if (rc < 0) break;
    }
    return rc;
}

int PSymbols::addSymbol(const char16_t* line) {
    return addSymbol(line != nullptr ? std::u16string_view(line) : std::u16string_view());
}

int PSymbols::addSymbol(std::u16string_view line) {
    std::u16string_view text = line;
    while (!text.empty() && isTrailingBlank(text.back())) text.remove_suffix(1);
    if (text.empty() || text.front() == u'#') return RC_OK;
    const size_t start = text.find_first_not_of(u" \t");
    if (start == std::u16string_view::npos) return RC_OK;
    const size_t eq = text.find(u'=');
    if (eq == std::u16string_view::npos) {
        *m_log << timestamp << u"Syntax error in symbol line: \"" << text << u"\"." << endlog;
        return RC_SYNTAX;
    }
    try {
        addSymbol(std::u16string(trimmed(text.substr(0, eq))),
                  std::u16string(trimmed(text.substr(eq + 1))));
    } catch (const std::bad_alloc&) {
        *m_log << timestamp << u"Out of memory when processing symbol line \"" << line << u"\"."
               << endlog;
        return RC_NO_MEMORY;
    }
    return RC_OK;
}

void PSymbols::addSymbol(const std::u16string& name, const std::u16string& value) {
    removeSymbol(name);
    m_symbols.emplace_back(name, value);
}

void PSymbols::removeSymbol(const std::u16string& name) {
    std::erase_if(m_symbols, [&](const PSymbol& s) { return s.getName() == name; });
    m_placeholders.reset();
}

const PatternSet& PSymbols::placeholders() const {
    if (!m_placeholders) {
        std::vector<std::u16string_view> all;
        all.reserve(m_symbols.size());
        for (const PSymbol& s : m_symbols) all.emplace_back(s.getPlaceholder());
        m_placeholders = std::make_shared<const PatternSet>(all);
    }
    return *m_placeholders;
}

std::u16string PSymbols::getSymbolValue(const std::u16string& name) const {
    for (const PSymbol& s : m_symbols)
        if (s.getName() == name) return s.getValue();
    return {};
}

std::u16string PSymbols::getSymbolValueIgnCase(std::u16string name) const {
    auto sameIgnCase = [](const std::u16string& a, const std::u16string& b) {
        return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char16_t x, char16_t y) {
            return convertToLower(x) == convertToLower(y);
        });
    };
    for (const PSymbol& s : m_symbols)
        if (sameIgnCase(s.getName(), name)) return s.getValue();
    return {};
}

bool PSymbols::checkSymbolFile(const std::u16string& fileName) {
    FilePtr file(std::fopen(fileNameBytes(fileName).c_str(), "r"));
    return file != nullptr;
}

const char16_t* PSymbols::maskLeadingBlanks(const char16_t* s) {
    while (*s != u'\0' && isLeadingBlank(*s)) ++s;
    return s;
}

void PSymbols::trimTrailingBlanks(char16_t* s) {
    char16_t* end = s + std::char_traits<char16_t>::length(s);
    while (end > s && isTrailingBlank(end[-1])) --end;
    *end = u'\0';
}

char16_t PSymbols::convertToLower(char16_t c) {
    return toLowerLatin1(c);
}

void PSymbols::printSymbols() const {
    static constexpr const char16_t* kRule = u"########################";
    *m_log << timestamp << kRule << endlog;
    *m_log << timestamp << u"### Table of Symbols ###" << endlog;
    *m_log << timestamp << kRule << endlog;
    for (const PSymbol& s : m_symbols)
        *m_log << timestamp << u"### " << s.getName() << u" = \"" << s.getValue() << u"\""
               << endlog;
    *m_log << timestamp << kRule << endlog;
}

std::u16string PSymbols::replaceSymbols(const std::u16string& text) const {
    std::u16string result = text;
    Budget budget;
    replaceSymbolsInPlace(result, budget);
    return result;
}

bool PSymbols::replaceSymbolsInPlace(std::u16string& text, Budget& budget) const {
    // Every placeholder starts with "${": most texts have none and are done.
    if (text.find(symbol_start) == std::u16string::npos) return false;
    const std::u16string original = text;
    // The size a replacement would give, checked before it is built.
    auto withinBounds = [&](const PSymbol& s) {
        const std::u16string& ph = s.getPlaceholder();
        if (s.getValue().size() <= ph.size()) return true;
        const size_t growth = s.getValue().size() - ph.size();
        auto stop = [&](size_t hits) {
            const size_t size = text.size() + hits * growth;
            if (size > MAX_TEXT_UNITS) return Budget::Stop::Text;
            if (size > original.size() && size - original.size() > budget.growthLeft)
                return Budget::Stop::Document;
            return Budget::Stop::None;
        };
        // Counting is needed only when the most placeholders the text could
        // hold would break a bound.
        if (stop(text.size() / ph.size()) == Budget::Stop::None) return true;
        size_t hits = 0;
        for (size_t at = text.find(ph); at != std::u16string::npos;
             at = text.find(ph, at + ph.size()))
            ++hits;
        budget.stopped = stop(hits);
        return budget.stopped == Budget::Stop::None;
    };
    const PatternSet& index = placeholders();
    std::vector<uint8_t> present;
    bool scanned = false;
    std::u16string before;
    // Each pass is a function of the text alone: once a text comes round
    // again, the passes repeat, and the passes left come down to the rest of
    // a period. Brent's method finds the period keeping one earlier text.
    const std::u16string* earlier = &original;
    std::u16string kept;
    int earlierPass = 0, power = 1;
    bool periodic = false;
    for (int pass = 0; pass < MAX_PASSES && budget.stopped == Budget::Stop::None; ++pass) {
        bool replaced = false;
        // The scan after a pass's last replacement still holds for the text.
        if (!scanned) index.find(text, present);
        for (size_t i = 0; i < m_symbols.size(); ++i) {
            if (!present[i]) continue;
            const PSymbol& s = m_symbols[i];
            if (!withinBounds(s)) break;
            std::u16string next =
                CCConv::stringSubstituteAll(text, s.getPlaceholder(), s.getValue());
            // The first replacement leaves the text as the pass found it:
            // kept, not copied, for the comparison after the pass.
            if (!replaced) before = std::move(text);
            text = std::move(next);
            replaced = true;
            // A replacement can make and unmake placeholders of later symbols.
            scanned = i + 1 < m_symbols.size();
            if (scanned) index.find(text, present);
        }
        // A pass that changes nothing has reached the end; so has a text
        // without any placeholder left.
        if (!replaced || text == before || text.find(symbol_start) == std::u16string::npos) break;
        const int done = pass + 1;
        if (!periodic && text == *earlier) {
            const int left = MAX_PASSES - done;
            pass += left - left % (done - earlierPass);
            periodic = true;
        } else if (done - earlierPass == power) {
            kept = text;
            earlier = &kept;
            earlierPass = done;
            power *= 2;
        }
    }
    if (text.size() > original.size()) budget.growthLeft -= text.size() - original.size();
    return text != original;
}

}  // namespace kivreg
