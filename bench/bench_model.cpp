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

#include "model/CClassicXml.h"
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
    size_t units = 0;
    phase("render", [&] { units = file->getBody().size(); });
    // Again, now that the buffer exists: the pure cost of walking the model.
    phase("render again", [&] { file->createBody(); });
    size_t oldUnits = 0;
    phase("render old", [&] {
        kivreg::CClassicXml classic(file->getSupplierName(), file->getSupplierVersion(),
                                    file.get());
        oldUnits = classic.getXml().size();
    });
    std::fprintf(stderr, "body %zu units, old body %zu units\n", units, oldUnits);
    return 0;
}
