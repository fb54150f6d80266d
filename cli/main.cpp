// kivreg: the command-line program over the registration library.

#include <cstdio>
#include <string>
#include <vector>

#include "api/CPArgs.h"
#include "api/Vocabulary.h"
#include "support/CCConv.h"
#include "support/CLog.h"

namespace {

using namespace kivreg;

void print(std::u16string_view text) {
    std::string bytes;
    appendUtf8Lenient(bytes, text);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::u16string> args;
    args.reserve(static_cast<size_t>(argc));
    for (int i = 0; i < argc; ++i) {
        try {
            args.push_back(CCConv::fromUTF8Str(std::string_view(argv[i])));
        } catch (const ERegExcept& e) {
            std::fprintf(stderr, "kivreg: argument %d is not valid UTF-8\n", i);
            return 1;
        }
    }
    std::vector<char16_t*> vec;
    for (auto& a : args) vec.push_back(a.data());
    vec.push_back(nullptr);
    const CPArgs cmd(vec.data());

    if (cmd.isSwitchSet(CMDARG_HELP)) {
        print(PROGRAM_USAGE);
        return 0;
    }
    if (cmd.isSwitchSet(CMDARG_VERSION)) {
        print(std::u16string(PROGRAM_TITLE) + u"\n" + std::u16string(PROGRAM_ID) + u"\n");
        return 0;
    }
    print(PROGRAM_USAGE);
    return 1;
}
