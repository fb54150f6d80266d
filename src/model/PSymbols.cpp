#include "model/PSymbols.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "model/Utf8Log.h"
#include "runtime/textconv.h"
#include "support/CLog.h"

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

bool sameText(const std::string& a, const std::string& b) {
    return a == b;
}

std::string utf8(std::u16string_view text) {
    std::string out;
    rt::utf16ToUtf8Lenient(text, out);
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

PSymbols::PSymbol::PSymbol(std::string name, std::string value)
    : m_name(std::move(name)), m_value(std::move(value)) {
    m_placeholder.reserve(m_name.size() + 3);
    m_placeholder += symbol_start;
    m_placeholder += m_name;
    m_placeholder += symbol_end;
    m_valueUnits = rt::utf16Length(m_value);
    m_placeholderUnits = rt::utf16Length(m_placeholder);
}

int PSymbols::addSymbols(const std::u16string& fileName) {
    FilePtr file(std::fopen(fileNameBytes(fileName).c_str(), "re"));
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
    m_symbols.emplace_back(utf8(name), utf8(value));
}

void PSymbols::removeSymbol(const std::u16string& name) {
    const std::string key = utf8(name);
    std::erase_if(m_symbols, [&](const PSymbol& s) { return s.getName() == key; });
    m_placeholders.reset();
}

const PatternSet& PSymbols::placeholders() const {
    if (!m_placeholders) {
        std::vector<std::string_view> all;
        all.reserve(m_symbols.size());
        for (const PSymbol& s : m_symbols) all.emplace_back(s.getPlaceholder());
        m_placeholders = std::make_shared<const PatternSet>(all);
    }
    return *m_placeholders;
}

bool PSymbols::checkSymbolFile(const std::u16string& fileName) {
    FilePtr file(std::fopen(fileNameBytes(fileName).c_str(), "re"));
    return file != nullptr;
}

void PSymbols::printSymbols() const {
    static constexpr const char16_t* kRule = u"########################";
    *m_log << timestamp << kRule << endlog;
    *m_log << timestamp << u"### Table of Symbols ###" << endlog;
    *m_log << timestamp << kRule << endlog;
    for (const PSymbol& s : m_symbols)
        *m_log << timestamp << u"### " << Utf8(s.getName()) << u" = \"" << Utf8(s.getValue())
               << u"\"" << endlog;
    *m_log << timestamp << kRule << endlog;
}

bool PSymbols::replaceSymbolsInPlace(std::string& text, Budget& budget) const {
    // Every placeholder starts with "${": most texts have none and are done.
    if (text.find(symbol_start) == std::string::npos) return false;
    using Match = PatternSet::Match;
    const PatternSet& index = placeholders();
    // Every placeholder of the text, by position. A replacement moves those
    // it leaves and, for new ones, looks only around what it put in.
    auto& [matches, moved, found, counts, replacedAt, original, next, before] = budget.room;
    matches.clear();
    index.findAll(text, 0, matches);
    if (matches.empty()) return false;
    std::sort(matches.begin(), matches.end());
    counts.assign(m_symbols.size(), 0);
    for (const Match& m : matches) ++counts[m.pattern];

    original = text;
    // The bounds count 16-bit units: the text's are counted once and then
    // followed through each replacement.
    const size_t originalUnits = rt::utf16Length(text);
    size_t units = originalUnits;
    // The size a replacement would give, checked before it is built.
    auto withinBounds = [&](size_t size) {
        if (size > MAX_TEXT_UNITS) {
            budget.stopped = Budget::Stop::Text;
        } else if (size > originalUnits && size - originalUnits > budget.growthLeft) {
            budget.stopped = Budget::Stop::Document;
        }
        return budget.stopped == Budget::Stop::None;
    };
    // Replaces every occurrence of placeholder i that does not overlap an
    // earlier one, left to right, into `next`; false when a bound stops it.
    auto replace = [&](uint32_t i) {
        const PSymbol& sym = m_symbols[i];
        const size_t ph = sym.getPlaceholder().size();
        const std::string& value = sym.getValue();
        replacedAt.clear();
        for (const Match& m : matches)
            if (m.pattern == i && (replacedAt.empty() || m.at >= replacedAt.back() + ph))
                replacedAt.push_back(m.at);
        const size_t hits = replacedAt.size();
        // Only growth is bounded: a text read longer than the bound may shrink.
        const size_t newUnits = units - hits * sym.placeholderUnits() + hits * sym.valueUnits();
        if (sym.valueUnits() > sym.placeholderUnits() && !withinBounds(newUnits)) return false;
        units = newUnits;
        next.clear();
        next.reserve(text.size() - hits * ph + hits * value.size());
        // New placeholders can only overlap a value put in, or span the place
        // of one that was removed: the text within a placeholder's length of
        // each value is searched again.
        const size_t reach = index.longest() - 1;
        found.clear();
        size_t from = 0, windowStart = 0, windowEnd = 0;
        auto searchWindow = [&] {
            if (windowEnd > windowStart)
                index.findAll(std::string_view(next).substr(windowStart, windowEnd - windowStart),
                              windowStart, found);
        };
        for (const uint32_t at : replacedAt) {
            next.append(text, from, at - from);
            const size_t start = next.size() > reach ? next.size() - reach : 0;
            if (start > windowEnd) {
                searchWindow();
                windowStart = start;
            }
            next += value;
            windowEnd = next.size() + reach;
            from = at + ph;
        }
        next.append(text, from);
        windowEnd = std::min(windowEnd, next.size());
        searchWindow();
        // The placeholders the replacement left move by what it added before them.
        moved.clear();
        for (const Match& m : matches) {
            if (m.pattern == i) continue;
            const auto upTo = std::upper_bound(replacedAt.begin(), replacedAt.end(),
                                               m.at + index.length(m.pattern) - 1);
            const size_t r = static_cast<size_t>(upTo - replacedAt.begin());
            if (r > 0 && replacedAt[r - 1] + ph > m.at) continue;  // cut by a replacement
            moved.push_back({static_cast<uint32_t>(m.at - r * ph + r * value.size()), m.pattern});
        }
        // Found in the order they end, placeholders mostly are in the order
        // they start.
        if (!std::is_sorted(found.begin(), found.end())) std::sort(found.begin(), found.end());
        matches.clear();
        std::merge(moved.begin(), moved.end(), found.begin(), found.end(),
                   std::back_inserter(matches));
        matches.erase(std::unique(matches.begin(), matches.end()), matches.end());
        std::fill(counts.begin(), counts.end(), 0);
        for (const Match& m : matches) ++counts[m.pattern];
        return true;
    };

    // Each pass is a function of the text alone: once a text comes round
    // again, the passes repeat, and the passes left come down to the rest of
    // a period. Brent's method finds the period keeping one earlier text.
    const std::string* earlier = &original;
    std::string kept;
    int earlierPass = 0, power = 1;
    bool periodic = false;
    for (int pass = 0; pass < MAX_PASSES && budget.stopped == Budget::Stop::None; ++pass) {
        bool replaced = false;
        for (uint32_t i = 0; i < counts.size(); ++i) {
            if (counts[i] == 0) continue;
            if (!replace(i)) break;
            // The text as the pass found it is kept, not copied, for the
            // comparison after the pass.
            if (!replaced) before = std::move(text);
            text.swap(next);
            replaced = true;
        }
        // A pass that changes nothing has reached the end; so has a text
        // without a placeholder of a symbol left.
        if (!replaced || sameText(text, before) || matches.empty()) break;
        const int done = pass + 1;
        if (!periodic && sameText(text, *earlier)) {
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
    if (units > originalUnits) budget.growthLeft -= units - originalUnits;
    return !sameText(text, original);
}

}  // namespace kivreg
