#include "LongOptions.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kivreg::cli {
namespace {

// The classic help's layout: the option in a column of 20, then ": ".
constexpr size_t kColumn = 20;

const LongOption* findLong(std::u16string_view name) {
    const auto* it = std::find_if(std::begin(kLongOptions), std::end(kLongOptions),
                                  [&](const LongOption& o) { return o.name == name; });
    return it == std::end(kLongOptions) ? nullptr : it;
}

// Where the password of a proxy URL lies, as the URL parser finds it: in the
// authority's user information, after its first ':'. Empty when there is none.
std::pair<size_t, size_t> proxyPasswordSpan(std::string_view url) {
    const size_t scheme = url.find("://");
    const size_t start = scheme == std::string_view::npos ? 0 : scheme + 3;
    const std::string_view authority = url.substr(start, url.find_first_of("/?#", start) - start);
    const size_t at = authority.rfind('@');
    if (at == std::string_view::npos) return {0, 0};
    const size_t colon = authority.substr(0, at).find(':');
    if (colon == std::string_view::npos) return {0, 0};
    return {start + colon + 1, start + at};
}

}  // namespace

void blankSecret(char* text, bool proxyUrl) {
    const std::string_view whole(text);
    const auto [from, to] =
        proxyUrl ? proxyPasswordSpan(whole) : std::pair{size_t{0}, whole.size()};
    std::memset(text + from, ' ', to - from);
}

SplitArgs splitArgs(std::vector<std::u16string> args) {
    SplitArgs out;
    out.classic.reserve(args.size());
    // Mirrors the classic parser's one rule that matters here: after a classic
    // value option the next argument is its value, even when it starts with "--".
    bool classicWaits = false;
    bool passWaits = false;
    for (size_t i = 0; i < args.size(); ++i) {
        std::u16string& arg = args[i];
        if (i == 0 || classicWaits || !arg.starts_with(u"--")) {
            if (passWaits) out.secrets.push_back({i});
            classicWaits =
                i > 0 && !classicWaits && arg.starts_with(u'-') && CPArgs::takesValue(arg);
            passWaits = classicWaits && arg == CMDARG_HTTP_PASS;
            out.classic.push_back(std::move(arg));
            continue;
        }
        const size_t eq = arg.find(u'=');
        const std::u16string_view name = std::u16string_view(arg).substr(0, eq);
        const LongOption* option = findLong(name);
        if (option == nullptr) {
            out.error =
                u"Unknown option " + std::u16string(name) + u" (kivreg --help lists the options).";
            return out;
        }
        if (option->value.empty()) {
            if (eq != std::u16string::npos) {
                out.error = u"Option " + std::u16string(name) + u" takes no value.";
                return out;
            }
            if (!out.longOptions.isSwitchSet(name)) out.longOptions.addSwitch(name);
            continue;
        }
        std::u16string value;
        const bool proxy = name == CMDARG_PROXY;
        if (eq != std::u16string::npos) {
            value = arg.substr(eq + 1);
            if (proxy) out.secrets.push_back({i, eq + 1, true});  // "--proxy=" is as many bytes
        } else if (i + 1 < args.size()) {
            value = std::move(args[++i]);
            if (proxy) out.secrets.push_back({i, 0, true});
        } else {
            out.error = u"Option " + std::u16string(name) + u" needs a value " +
                        std::u16string(option->value) + u".";
            return out;
        }
        // Like the classic options: the first occurrence wins.
        if (!out.longOptions.isSwitchSet(name)) out.longOptions.addArg(name, value);
    }
    return out;
}

std::u16string extendedUsage() {
    std::u16string text(PROGRAM_USAGE);
    text += u"\nExtensions:\n";
    for (const LongOption& o : kLongOptions) {
        std::u16string left(o.name);
        if (!o.value.empty()) left += u' ' + std::u16string(o.value);
        left.resize(std::max(kColumn, left.size() + 1), u' ');
        text += left + u": " + std::u16string(o.help) + u'\n';
    }
    return text;
}

}  // namespace kivreg::cli
