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

std::string_view bytes(const unsigned char* s, size_t n) {
    return {reinterpret_cast<const char*>(s), n};
}

std::string_view cstr(const unsigned char* s) {
    return s ? bytes(s, std::strlen(reinterpret_cast<const char*>(s))) : std::string_view();
}

std::u16string_view ustr(const char16_t* s) {
    return s ? std::u16string_view(s) : std::u16string_view();
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

size_t CCConv::getUtf8Bytes(const unsigned char* s) {
    return cstr(s).size();
}
size_t CCConv::getUtf16Bytes(const char16_t* s) {
    return ustr(s).size() * 2;
}
size_t CCConv::getU4Bytes(const char32_t* s) {
    return s ? std::u32string_view(s).size() * 4 : 0;
}

std::u16string CCConv::convertUTF8toUC(const unsigned char* s) {
    return utf8To16(cstr(s), u"CCConv::convertUTF8toUC: Function 'Utf8nToUcnCP' failed. RC=");
}

std::u16string CCConv::Utf8ToUc(const unsigned char* s, size_t length) {
    // The length only sizes the destination; the text runs to its terminator.
    (void)length;
    return utf8To16(cstr(s), u"CCConv::Utf8ToUc: Function 'Utf8nToUcnCP' failed. RC=");
}

std::u16string CCConv::fromUTF8Str(const unsigned char* s) {
    return fromUTF8Str(cstr(s));
}

std::u16string CCConv::fromUTF8Str(std::string_view s) {
    // Reports with the Utf8ToUc text: callers and their logs know it by that name.
    return utf8To16(s, u"CCConv::Utf8ToUc: Function 'Utf8nToUcnCP' failed. RC=");
}

std::string CCConv::convertUCtoUTF8(const char16_t* s) {
    return utf16To8(ustr(s), u"CCConv::convertUCtoUTF8: Function 'UcnToUtf8nCP' failed. RC=");
}

std::string CCConv::UcToUtf8(const char16_t* s) {
    return utf16To8(ustr(s), u"CCConv::UcToUtf8: Function 'UcnToUtf8nCP' failed. RC=");
}

std::string CCConv::toUTF8Str(std::u16string_view s) {
    return utf16To8(s, u"CCConv::toUTF8Str: Function 'UcnToUtf8nCP' failed. RC=");
}

std::string CCConv::Utf16ToUtf8(const char16_t* s, size_t count) {
    return utf16To8({s, s ? count : 0},
                    u"CCConv::Utf16ToUtf8: Function 'Utf16nToUtf8n' failed. RC=");
}

std::string CCConv::U4ToUtf8(const char32_t* s, size_t count) {
    std::string out;
    check(rt::utf32ToUtf8({s, s ? count : 0}, out),
          u"CCConv::U4ToUtf8: Function 'U4nToUtf8n' failed. RC=");
    return out;
}

std::u32string CCConv::Utf8ToU4(const unsigned char* s, size_t count) {
    std::u32string out;
    check(rt::utf8ToUtf32(bytes(s, s ? count : 0), out),
          u"CCConv::Utf8ToU4: Function 'Utf8nToU4n' failed. RC=");
    return out;
}

std::u16string CCConv::Utf8ToUtf16(const unsigned char* s, size_t count) {
    return utf8To16(bytes(s, s ? count : 0),
                    u"CCConv::Utf8ToUtf16: Function 'Utf8nToUtf16n' failed. RC=");
}

std::u16string CCConv::fromUCS2Str(std::u32string_view s) {
    if (s.empty()) return {};
    const std::string utf8 = U4ToUtf8(s.data(), s.size());
    return Utf8ToUc(reinterpret_cast<const unsigned char*>(utf8.c_str()), s.size());
}

std::u32string CCConv::toUCS2Str(std::u16string_view s) {
    if (s.empty()) return {};
    const std::string utf8 = utf16To8(s, u"CCConv::UcToUtf8: Function 'UcnToUtf8nCP' failed. RC=");
    return Utf8ToU4(reinterpret_cast<const unsigned char*>(utf8.data()), utf8.size());
}

std::u16string CCConv::trim(std::u16string_view s) {
    const size_t first = s.find_first_not_of(u' ');
    if (first == std::u16string_view::npos) return {};
    const size_t last = s.find_last_not_of(u' ');
    return std::u16string(s.substr(first, last - first + 1));
}

std::u16string CCConv::trim(std::u16string_view s, std::u16string_view pattern) {
    if (!pattern.empty() && s.starts_with(pattern)) s.remove_prefix(pattern.size());
    if (!pattern.empty() && s.ends_with(pattern)) s.remove_suffix(pattern.size());
    return std::u16string(s);
}

std::u16string CCConv::condense(std::u16string_view s) {
    std::u16string out;
    out.reserve(s.size());
    for (char16_t c : s) {
        if (c == u' ' && !out.empty() && out.back() == u' ') continue;
        out += c;
    }
    return trim(out);
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
