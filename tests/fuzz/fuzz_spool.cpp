// A spool entry: bytes as an entry file, read alone and by a spool that
// lists it. An entry the reader takes stays where it is, with its body whole;
// one it refuses is moved to damaged/, and nothing else happens to either.

#include <filesystem>

#include "FuzzUtil.h"
#include "api/Spool.h"
#include "support/CLog.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Env env;
    static CLog log;
    namespace fs = std::filesystem;
    fs::remove_all(env.path("spool"));
    fs::create_directory(env.path("spool"));
    const std::string file = env.path("spool/entry.kiv");
    env.file("spool/entry.kiv", fuzz::bytes(data, size));

    api::SpoolEntry alone;
    std::string body;
    const bool whole = api::readEntry(file, alone, &body).empty();
    if (whole && fuzz::bytes(data, size).substr(size - body.size()) != body) std::abort();

    api::Spool spool(log, env.path("spool"), 1 << 20);
    if (!spool.ok()) std::abort();
    for (const api::SpoolEntry& e : spool.pending(alone.destination))
        if (!spool.readBody(e, body)) std::abort();
    if (fs::exists(file) != whole || fs::exists(env.path("spool/damaged/entry.kiv")) == whole)
        std::abort();
    return 0;
}
