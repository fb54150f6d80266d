// The connect file and its key file: the first byte says whether a key file
// lies beside it and its length comes next; the rest is the connect file.
// Both are read by fetch and by the display command.

#include "FuzzUtil.h"
#include "kivreg.h"
#include "secstore/CSecStore.h"
#include "support/CLog.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Env env;
    static CLog log;
    std::string_view in = fuzz::bytes(data, size);
    if (in.empty()) return 0;
    const bool withKeyFile = in[0] & 1;
    in.remove_prefix(1);
    const std::u16string name = fuzz::text(env.path("conn"));
    std::filesystem::remove(env.path("conn.key"));
    if (withKeyFile && !in.empty()) {
        const size_t keySize = std::min<size_t>(static_cast<unsigned char>(in[0]), in.size() - 1);
        env.file("conn.key", in.substr(1, keySize));
        in.remove_prefix(1 + keySize);
    }
    env.file("conn", in);
    CSecStore store(&log, name);
    if (store.fetch()) store.get(u"pass_param");
    withKeyFile ? KivRegShowConfigWithKeyFile(name.c_str()) : KivRegShowConfig(name.c_str());
    return 0;
}
