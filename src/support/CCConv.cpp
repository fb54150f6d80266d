#include "support/CCConv.h"

#include "runtime/textconv.h"
#include "support/CGetStr.h"

namespace kivreg {

namespace {

// Raises the caller's own failure text with the service's code.
void check(int rc, const char16_t* failureText) {
    if (rc != 0) {
        std::u16string msg(failureText);
        msg += CGetStr<int>::get(rc);
        throw ERegExcept(EREG_CONVERSION, std::move(msg));
    }
}

}  // namespace

std::u16string CCConv::fromUTF8Str(std::string_view s) {
    // Reports with the Utf8ToUc text: callers and their logs know it by that name.
    std::u16string out;
    check(rt::utf8ToUtf16(s, out), u"CCConv::Utf8ToUc: Function 'Utf8nToUcnCP' failed. RC=");
    return out;
}

std::string CCConv::toUTF8Str(std::u16string_view s) {
    std::string out;
    check(rt::utf16ToUtf8(s, out), u"CCConv::toUTF8Str: Function 'UcnToUtf8nCP' failed. RC=");
    return out;
}

std::u16string CCConv::trim(std::u16string_view s) {
    const size_t first = s.find_first_not_of(u' ');
    if (first == std::u16string_view::npos) return {};
    const size_t last = s.find_last_not_of(u' ');
    return std::u16string(s.substr(first, last - first + 1));
}

std::u16string CCConv::stringSubstituteAll(std::u16string_view s, std::u16string_view search,
                                           std::u16string_view replacement) {
    if (s == search) return std::u16string(replacement);
    if (search.empty()) return std::u16string(s);
    std::u16string out;
    size_t from = 0;
    for (size_t hit = s.find(search); hit != std::u16string_view::npos;
         hit = s.find(search, from)) {
        if (out.empty()) out.reserve(s.size() + replacement.size());
        out.append(s, from, hit - from);
        out.append(replacement);
        from = hit + search.size();
    }
    out.append(s, from);
    return out;
}

bool CCConv::chop(std::u16string_view s, std::u16string_view delimiter, std::u16string& left,
                  std::u16string& right) {
    if (delimiter.size() > s.size()) return false;
    const size_t at = s.find(delimiter);
    if (at == std::u16string_view::npos) return false;
    left.assign(s.substr(0, at));
    right.assign(s.substr(at + delimiter.size()));
    return true;
}

}  // namespace kivreg
