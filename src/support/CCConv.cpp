#include "support/CCConv.h"

#include <cstring>

#include "runtime/textconv.h"
#include "support/CGetStr.h"

namespace kivreg {

int32_t CCConv::m_qorRc = 0;

namespace {

// Stores the service's code and raises the caller's own failure text.
void check(int rc, const char16_t* failureText) {
    CCConv::m_qorRc = rc;
    if (rc != 0) {
        std::u16string msg(failureText);
        msg += CGetStr<int>::get(rc);
        throw ERegExcept(EREG_CONVERSION, std::move(msg));
    }
}

std::u16string utf8To16(std::string_view in, const char16_t* failureText) {
    std::u16string out;
    check(rt::utf8ToUtf16(in, out), failureText);
    return out;
}

std::string utf16To8(std::u16string_view in, const char16_t* failureText) {
    std::string out;
    check(rt::utf16ToUtf8(in, out), failureText);
    return out;
}

}  // namespace

std::u16string CCConv::fromUTF8Str(std::string_view s) {
    // Reports with the Utf8ToUc text: callers and their logs know it by that name.
    return utf8To16(s, u"CCConv::Utf8ToUc: Function 'Utf8nToUcnCP' failed. RC=");
}

std::string CCConv::toUTF8Str(std::u16string_view s) {
    return utf16To8(s, u"CCConv::toUTF8Str: Function 'UcnToUtf8nCP' failed. RC=");
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
