// Symbol substitution on hostile tables over a text at the size bound, next
// to the floor: one replacement of every placeholder in that text, the least
// a pass that changes it can do. Prints milliseconds per case and the ratio.
//
//   kivreg_bench_symbols

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "model/PSymbols.h"
#include "support/CCConv.h"
#include "support/CLog.h"

namespace {

using kivreg::PSymbols;

double millis(const std::function<void()>& work) {
    double best = 1e300;
    for (int run = 0; run < 3; ++run) {
        const auto start = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - start;
        best = std::min(best, took.count());
    }
    return best;
}

std::u16string repeat(std::u16string_view unit, size_t units) {
    std::u16string out;
    while (out.size() + unit.size() <= units) out += unit;
    return out;
}

std::u16string name(const char* prefix, int i) {
    std::u16string out;
    for (const char* p = prefix; *p != '\0'; ++p) out += static_cast<char16_t>(*p);
    for (char c : std::to_string(i)) out += static_cast<char16_t>(c);
    return out;
}

}  // namespace

int main() {
    constexpr size_t kText = PSymbols::MAX_TEXT_UNITS;
    kivreg::CLog log;
    struct Case {
        const char* what;
        std::vector<std::pair<std::u16string, std::u16string>> table;
        std::u16string text;
    };
    std::vector<Case> cases;
    {
        Case c{"2,000 symbols, one of them used once", {}, repeat(u"x", kText - 16)};
        for (int i = 0; i < 2000; ++i) c.table.emplace_back(name("s", i), u"v");
        c.text += u"${s1999}";
        cases.push_back(std::move(c));
    }
    // Each value names the symbol of the next pass: the text changes for all 100.
    {
        Case c{"chain of 100 symbols, one step a pass", {}, repeat(u"${c0}", kText)};
        for (int i = 99; i >= 0; --i)
            c.table.emplace_back(name("c", i),
                                 i == 99 ? u"${end}" : u"${" + name("c", i + 1) + u"}");
        cases.push_back(std::move(c));
    }
    // The text comes back every third pass, for all 100.
    cases.push_back({"cycle of period 3",
                     {{u"b", u"${c}"}, {u"a", u"${b}"}, {u"e", u"${a}"}, {u"c", u"${e}"}},
                     repeat(u"${a}", kText)});
    std::printf("%-40s %12s %12s %8s\n", "case", "substitute", "floor", "ratio");
    for (const Case& c : cases) {
        PSymbols symbols(&log);
        for (const auto& [n, v] : c.table) symbols.addSymbol(n, v);
        std::u16string result;
        // Substitution works on UTF-8, as the model holds its texts.
        const std::string text8 = kivreg::CCConv::toUTF8Str(c.text);
        std::string result8;
        const double took = millis([&] {
            result8 = text8;
            PSymbols::Budget budget;
            symbols.replaceSymbolsInPlace(result8, budget);
        });
        const size_t at = c.text.find(u"${");
        const std::u16string placeholder = c.text.substr(at, c.text.find(u'}', at) + 1 - at);
        const std::u16string same(placeholder.size(), u'_');
        const double floor = millis(
            [&] { result = kivreg::CCConv::stringSubstituteAll(c.text, placeholder, same); });
        std::printf("%-40s %9.1f ms %9.1f ms %8.1f\n", c.what, took, floor, took / floor);
    }
    return 0;
}
