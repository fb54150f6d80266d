// The argument vector: NUL bytes separate the arguments; each is also put
// to the number tests, and the settings are looked up as the run does.

#include <vector>

#include "FuzzUtil.h"
#include "api/CPArgs.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::u16string> args = {u"kivreg"};
    const std::string_view in = fuzz::bytes(data, size);
    for (size_t from = 0; from <= in.size();) {
        const size_t nul = std::min(in.find('\0', from), in.size());
        args.push_back(fuzz::text(in.substr(from, nul - from)));
        from = nul + 1;
    }
    std::vector<char16_t*> argv;
    for (std::u16string& a : args) {
        CPArgs::isNumeric(a);
        CPArgs::getNumber(a);
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    CPArgs parsed;
    parsed.addArgs(argv.data());
    for (const char16_t* name : {u"-host", u"-PORT", u"-usehttps", u"-connecttimeout", u"-"}) {
        parsed.getArg(name);
        CPArgs::isNumeric(parsed.getArgIgnCase(name));
        parsed.isSwitchSetIgnCase(name);
    }
    return 0;
}
