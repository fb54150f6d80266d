// UTF-8 <-> UTF-16 over about 100 MB of mixed text (ASCII, Latin, CJK, emoji).
// Run: build/kivreg_bench_textconv
//
// The *Reused cases convert into a buffer kept from the previous round and so
// measure the conversion; the others return a fresh string each round, as the
// library's callers get it, and so include the cost of new memory.

#include <benchmark/benchmark.h>

#include "runtime/textconv.h"
#include "support/CCConv.h"

namespace {

const std::string& mixedUtf8() {
    static const std::string text = [] {
        const std::string pieces[] = {
            "The quick brown fox jumps over the lazy dog. ",
            "Gr\xC3\xBC\xC3\x9F"
            "e aus K\xC3\xB6ln, \xC3\xA9t\xC3\xA9 \xC3\xA0 Paris. ",
            "\xE6\xBC\xA2\xE5\xAD\x97\xE3\x81\x8B\xE3\x81\xAA\xE6\xB7\xB7\xE3\x81\x98\xE3\x82\x8A."
            " ",
            "\xF0\x9F\x98\x80\xF0\x9F\x9A\x80 ok ",
            "<property name=\"Host\"><value>server-01.example.org</value></property>",
        };
        std::string s;
        s.reserve(100u << 20);
        for (size_t i = 0; s.size() < (100u << 20); ++i) s += pieces[(i * 7) % 5];
        return s;
    }();
    return text;
}

void countBytes(benchmark::State& state) {
    // Both directions are counted in MB of UTF-8, so their figures compare.
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * mixedUtf8().size()));
}

void BM_Utf8ToUtf16(benchmark::State& state) {
    for (auto _ : state) {
        std::u16string out = kivreg::CCConv::fromUTF8Str(mixedUtf8());
        benchmark::DoNotOptimize(out.data());
    }
    countBytes(state);
}
BENCHMARK(BM_Utf8ToUtf16)->Unit(benchmark::kMillisecond);

void BM_Utf16ToUtf8(benchmark::State& state) {
    const std::u16string in = kivreg::CCConv::fromUTF8Str(mixedUtf8());
    for (auto _ : state) {
        std::string out = kivreg::CCConv::toUTF8Str(in);
        benchmark::DoNotOptimize(out.data());
    }
    countBytes(state);
}
BENCHMARK(BM_Utf16ToUtf8)->Unit(benchmark::kMillisecond);

void BM_Utf8ToUtf16Reused(benchmark::State& state) {
    std::u16string out;
    kivreg::rt::utf8ToUtf16(mixedUtf8(), out);  // the buffer's pages exist before timing
    for (auto _ : state) {
        out.clear();
        if (kivreg::rt::utf8ToUtf16(mixedUtf8(), out) != 0) state.SkipWithError("conversion");
        benchmark::DoNotOptimize(out.data());
    }
    countBytes(state);
}
BENCHMARK(BM_Utf8ToUtf16Reused)->Unit(benchmark::kMillisecond);

void BM_Utf16ToUtf8Reused(benchmark::State& state) {
    const std::u16string in = kivreg::CCConv::fromUTF8Str(mixedUtf8());
    std::string out;
    kivreg::rt::utf16ToUtf8(in, out);
    for (auto _ : state) {
        out.clear();
        if (kivreg::rt::utf16ToUtf8(in, out) != 0) state.SkipWithError("conversion");
        benchmark::DoNotOptimize(out.data());
    }
    countBytes(state);
}
BENCHMARK(BM_Utf16ToUtf8Reused)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
