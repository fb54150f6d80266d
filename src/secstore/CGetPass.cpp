#include "secstore/CGetPass.h"

#include <openssl/crypto.h>
#include <stdio_ext.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "runtime/textconv.h"
#include "support/CCConv.h"

namespace kivreg {

namespace {

// One terminal per process, so one saved state.
struct TermState {
    termios saved{};
    termios raw{};
    bool savedValid = false;  // saved must be put back
};

TermState& term() {
    static TermState state;
    return state;
}

// Drops what stdio holds of a line read earlier (typically its line end);
// input still queued at the terminal stays for the next read.
void flushStdin() { __fpurge(stdin); }

void show(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

// Key presses straight from descriptor 0, one byte per read, so that nothing
// beyond the last key taken is consumed. UTF-8 sequences become one
// character; a byte that cannot start one is taken as a Latin-1 character.
class KeyReader {
public:
    // The next character, or -1 at the end of the input.
    long next() {
        const int lead = byte();
        if (lead < 0x80) return lead;
        const int extra = lead >= 0xF0 && lead <= 0xF4   ? 3
                          : lead >= 0xE0 && lead <= 0xEF ? 2
                          : lead >= 0xC2 && lead <= 0xDF ? 1
                                                         : 0;
        if (extra == 0) return lead;
        long cp = lead & (0x3F >> extra);
        for (int i = 0; i < extra; ++i) {
            const int c = byte();
            if (c < 0 || (c & 0xC0) != 0x80) {
                m_pending = c;
                return REPLACEMENT;
            }
            cp = cp << 6 | (c & 0x3F);
        }
        const long least[] = {0, 0x80, 0x800, 0x10000};
        if (cp < least[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return REPLACEMENT;
        return cp;
    }

private:
    static constexpr long REPLACEMENT = 0xFFFD;

    int byte() {
        if (m_pending != NONE) {
            const int b = m_pending;
            m_pending = NONE;
            return b;
        }
        unsigned char c;
        for (;;) {
            const ssize_t n = ::read(0, &c, 1);
            if (n == 1) return c;
            if (n < 0 && errno == EINTR) continue;
            return -1;
        }
    }

    static constexpr int NONE = -2;
    int m_pending = NONE;
};

bool isSurrogatePairEnd(const char16_t* text, size_t len) {
    return len >= 2 && text[len - 1] >= 0xDC00 && text[len - 1] <= 0xDFFF &&
           text[len - 2] >= 0xD800 && text[len - 2] <= 0xDBFF;
}

}  // namespace

bool CGetPass::setTermToRawMode() {
    flushStdin();
    TermState& t = term();
    if (::tcgetattr(0, &t.saved) != 0) {
        t.savedValid = false;
        return false;
    }
    t.savedValid = true;
    t.raw = t.saved;
    t.raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    t.raw.c_cc[VMIN] = 1;
    t.raw.c_cc[VTIME] = 0;
    if (::tcsetattr(0, TCSANOW, &t.raw) != 0) {
        ::tcsetattr(0, TCSANOW, &t.saved);
        t.savedValid = false;
        return false;
    }
    return true;
}

void CGetPass::setTermToOrgMode() {
    TermState& t = term();
    if (t.savedValid) {
        ::tcsetattr(0, TCSANOW, &t.saved);
        t.savedValid = false;
    }
    flushStdin();
}

void CGetPass::getHiddenInput(char16_t* buffer) {
    constexpr size_t limit = MAX_INPUT_LEN;
    size_t len = 0;
    int emptyEnters = 0;
    KeyReader keys;
    for (;;) {
        const long c = keys.next();
        if (c < 0) break;
        if (c == '\f') continue;
        if (c == '\b') {
            if (len > 0) {
                len -= isSurrogatePairEnd(buffer, len) ? 2 : 1;
                show("\b \b");
            }
            continue;
        }
        if (c == '\n' || c == '\r') {
            // Line ends left over from earlier input must not end the password
            // at once; the fourth on an empty buffer is taken as meant.
            if (len > 0 || ++emptyEnters == 4) break;
            continue;
        }
        const size_t units = c > 0xFFFF ? 2 : 1;
        if (len + units > limit) break;  // a pair that no longer fits ends the input
        show("*");
        if (units == 2) {
            const long v = c - 0x10000;
            buffer[len++] = static_cast<char16_t>(0xD800 + (v >> 10));
            buffer[len++] = static_cast<char16_t>(0xDC00 + (v & 0x3FF));
        } else {
            buffer[len++] = static_cast<char16_t>(c);
        }
        if (len == limit) break;
    }
    buffer[len] = u'\0';
}

std::u16string CGetPass::getPasswd() {
    std::array<char16_t, MAX_INPUT_LEN + 1> buffer{};
    // When the terminal cannot be switched the loop still runs; the terminal
    // then echoes the keys itself.
    setTermToRawMode();
    getHiddenInput(buffer.data());
    setTermToOrgMode();
    std::u16string out = CCConv::trim(buffer.data());
    OPENSSL_cleanse(buffer.data(), sizeof buffer);
    return out;
}

std::u16string CGetPass::getPasswdEcho() {
    char line[MAX_INPUT_LEN];
    if (std::fgets(line, sizeof line, stdin) == nullptr) return {};
    std::string_view text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    std::u16string out;
    rt::utf8ToUtf16Lenient(text, out);
    return CCConv::trim(out);
}

}  // namespace kivreg
