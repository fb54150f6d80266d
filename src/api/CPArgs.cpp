#include "api/CPArgs.h"

#include <algorithm>
#include <optional>

#include "api/Vocabulary.h"
#include "support/LowerCase.h"

namespace kivreg {
namespace {

constexpr std::u16string_view kValueOptions[] = {
    CMDARG_FILENAME,        CMDARG_CONNECT_FILE, CMDARG_SYMBOL_FILE,     CMDARG_CONFIGURE,
    CMDARG_SHOWCONFIG,      CMDARG_LOGFILENAME,  CMDARG_HTTP_USER,       CMDARG_HTTP_PASS,
    CMDARG_HTTP_HOST,       CMDARG_HTTP_PORT,    CMDARG_CONNECT_TIMEOUT, CMDARG_SEND_TIMEOUT,
    CMDARG_RECEIVE_TIMEOUT,
};

bool isDigit(char16_t c) {
    return c >= u'0' && c <= u'9';
}

}  // namespace

bool CPArgs::takesValue(std::u16string_view name) {
    return std::find(std::begin(kValueOptions), std::end(kValueOptions), name) !=
           std::end(kValueOptions);
}

void CPArgs::addArgs(char16_t** argv) {
    if (argv == nullptr || argv[0] == nullptr) return;
    std::optional<CPArg> pending;
    bool waitsForValue = false;
    auto completeWithValue = [&](std::u16string_view value) {
        pending->setValue(value);
        m_args.push_back(std::move(*pending));
        pending.reset();
    };
    for (char16_t** p = argv + 1; *p != nullptr; ++p) {
        const std::u16string_view arg(*p);
        if (arg.starts_with(u'-')) {
            if (pending && waitsForValue) {
                completeWithValue(arg);
                continue;
            }
            if (pending) m_args.push_back(std::move(*pending));
            pending.emplace(arg);
            waitsForValue = takesValue(arg);
        } else if (pending) {
            completeWithValue(arg);
        } else if (arg.find(u'-') == std::u16string_view::npos) {
            m_args.emplace_back(u"", arg);
        }
        // A stray argument with an inner "-" (such as my-data.xml) is dropped.
    }
    if (pending) m_args.push_back(std::move(*pending));
}

void CPArgs::addSwitch(std::u16string_view name) {
    removeArg(name);
    m_args.emplace_back(name);
}

void CPArgs::addArg(std::u16string_view name, std::u16string_view value) {
    removeArg(name);
    m_args.emplace_back(name, value);
}

void CPArgs::removeArg(std::u16string_view name) {
    // The entry right after a removed one is not compared: of two adjacent
    // entries of the same name one call removes only the first. Callers add
    // through addSwitch/addArg, which never leave duplicates behind.
    for (size_t i = 0; i < m_args.size(); ++i) {
        if (m_args[i] == name) m_args.erase(m_args.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

const CPArgs::CPArg* CPArgs::find(std::u16string_view name, bool ignoreCase) const {
    for (const CPArg& a : m_args) {
        if (ignoreCase ? equalsIgnoreCase(a.getName(), name) : a.getName() == name) return &a;
    }
    return nullptr;
}

std::u16string CPArgs::getArg(std::u16string_view name) const {
    const CPArg* a = find(name, false);
    return a ? a->getValue() : std::u16string();
}

std::u16string CPArgs::getArgIgnCase(std::u16string_view name) const {
    const CPArg* a = find(name, true);
    return a ? a->getValue() : std::u16string();
}

bool CPArgs::isNumeric(std::u16string_view text) {
    if (text.empty()) return false;
    if (text.size() == 1) return isDigit(text[0]);
    if (!isDigit(text[0]) && text[0] != u'+' && text[0] != u'-') return false;
    return std::all_of(text.begin() + 1, text.end(), isDigit);
}

int32_t CPArgs::getNumber(std::u16string_view text) {
    constexpr int64_t kMax = 2147483647;
    if (!isNumeric(text)) return static_cast<int32_t>(kMax);
    const bool negative = text[0] == u'-';
    if (text[0] == u'+' || text[0] == u'-') text.remove_prefix(1);
    int64_t value = 0;
    for (char16_t c : text) {
        value = value * 10 + (c - u'0');
        if (value > kMax + 1) break;  // saturated either way
    }
    if (negative) return static_cast<int32_t>(std::max(-value, -kMax - 1));
    return static_cast<int32_t>(std::min(value, kMax));
}

}  // namespace kivreg
