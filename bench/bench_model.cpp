// Loads a supplier document and runs the model's phases one after the
// other, printing wall time and the process's peak resident memory after
// each. Make documents with kivreg_gen_documents.
//
//   kivreg_bench_model <document.xml> <symbols.properties>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "model/CXmlFile.h"
#include "runtime/textconv.h"
#include "support/CLog.h"

namespace {

long peakMiB() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss / 1024;
}

template <typename F>
void phase(const char* name, F&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    std::fprintf(stderr, "%-12s %10.1f ms   peak RSS %6ld MiB\n", name, took.count(), peakMiB());
}

std::u16string u16(const char* s) {
    std::u16string out;
    kivreg::rt::utf8ToUtf16Lenient(s, out);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <document.xml> <symbols.properties>\n", argv[0]);
        return 2;
    }
    kivreg::CLog log;
    std::fprintf(stderr, "%-12s %10s      %s\n", "phase", "time", "memory");
    std::fprintf(stderr, "%-12s %10s   peak RSS %6ld MiB\n", "start", "", peakMiB());
    std::unique_ptr<kivreg::CXmlFile> file;
    phase("load", [&] { file = std::make_unique<kivreg::CXmlFile>(&log, u16(argv[1])); });
    if (!file->isLoaded()) return 1;
    bool valid = false;
    phase("validate", [&] { valid = file->validateReferences(); });
    if (!valid) return 1;
    kivreg::PSymbols symbols(&log);
    if (symbols.addSymbols(u16(argv[2])) != 1) return 1;
    file->setSymbols(symbols);
    phase("substitute", [&] { file->replaceSymbols(); });
    // The body as it is sent: UTF-8 straight from the model, the old format too.
    size_t bytes = 0;
    phase("render", [&] {
        std::string body;
        file->appendBody(body);
        bytes = body.size();
    });
    size_t oldBytes = 0;
    phase("render old", [&] {
        file->setOldTransferDtd(true);
        std::string body;
        file->appendBody(body);
        oldBytes = body.size();
    });
    std::fprintf(stderr, "body %zu bytes, old body %zu bytes\n", bytes, oldBytes);
    return 0;
}
