#include "secstore/CGetPass.h"

#include <openssl/crypto.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "support/CCConv.h"

namespace kivreg {

namespace {

// One terminal per process, so one saved state.
struct TermState {
    termios saved{};
    termios raw{};
};

TermState& term() {
    static TermState state;
    return state;
}

// A signal that ends or stops the process while the terminal reads hidden
// input must not leave it without echo: the handlers put the saved mode back
// and then hand the signal to the host's own handler; where the host has none,
// the signal takes its default course. After a stop, or a host handler that
// returns, the reading mode returns.
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGTSTP};
constexpr int kHandled[] = {SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT};
struct sigaction g_previous[std::size(kHandled)];

void onSignal(int sig, siginfo_t* info, void* context);

void setAction(int sig, void (*handler)(int, siginfo_t*, void*)) {
    struct sigaction action {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    for (const int s : kHandled) sigaddset(&action.sa_mask, s);
    ::sigaction(sig, &action, nullptr);
}

const struct sigaction& previous(int sig) {
    return g_previous[std::find(std::begin(kHandled), std::end(kHandled), sig) -
                      std::begin(kHandled)];
}

// Calls the host's handler for sig; false when the host has none of its own.
bool chain(int sig, siginfo_t* info, void* context) {
    const struct sigaction& host = previous(sig);
    if ((host.sa_flags & SA_SIGINFO) != 0) {
        host.sa_sigaction(sig, info, context);
        return true;
    }
    if (host.sa_handler == SIG_DFL || host.sa_handler == SIG_IGN) return false;
    host.sa_handler(sig);
    return true;
}

// Only async-signal-safe calls from here on.
void onSignal(int sig, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    const TermState& t = term();
    if (sig == SIGCONT) {
        ::tcsetattr(0, TCSANOW, &t.raw);  // a stop from outside may have left any mode
        chain(sig, info, context);
        errno = savedErrno;
        return;
    }
    ::tcsetattr(0, TCSANOW, &t.saved);
    if (chain(sig, info, context)) {
        ::tcsetattr(0, TCSANOW, &t.raw);  // the host's handler let the process go on
    } else if (sig == SIGTSTP) {
        struct sigaction byDefault {};
        byDefault.sa_handler = SIG_DFL;
        ::sigaction(SIGTSTP, &byDefault, nullptr);
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGTSTP);
        ::sigprocmask(SIG_UNBLOCK, &stop, nullptr);
        // Stops here until continued; at once where the stop is not allowed
        // (a process group without a shell), and reading goes on either way.
        ::raise(SIGTSTP);
        ::sigprocmask(SIG_BLOCK, &stop, nullptr);
        setAction(SIGTSTP, onSignal);
        ::tcsetattr(0, TCSANOW, &t.raw);
    } else {
        ::sigaction(sig, &previous(sig), nullptr);
        ::raise(sig);  // delivered with its default action once the handler returns
    }
    errno = savedErrno;
}

void catchSignals() {
    for (size_t i = 0; i < std::size(kHandled); ++i) {
        ::sigaction(kHandled[i], nullptr, &g_previous[i]);
        // A signal the process ignores stays ignored.
        const bool ending = std::find(std::begin(kEndingSignals), std::end(kEndingSignals),
                                      kHandled[i]) != std::end(kEndingSignals);
        if (!ending || g_previous[i].sa_handler != SIG_IGN) setAction(kHandled[i], onSignal);
    }
}

void releaseSignals() {
    for (size_t i = 0; i < std::size(kHandled); ++i)
        ::sigaction(kHandled[i], &g_previous[i], nullptr);
}

// One byte, or -1 at the end of the input.
int byte() {
    for (;;) {
        const int c = std::getc(stdin);
        if (c != EOF) return c;
        if (!std::ferror(stdin) || errno != EINTR) return -1;
        std::clearerr(stdin);
    }
}

void show(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

// Key presses from standard input through stdio, like every other reader of
// it in the process. UTF-8 sequences become one character; a byte that cannot
// start one is taken as a Latin-1 character.
long nextKey() {
    constexpr long REPLACEMENT = 0xFFFD;
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
            if (c >= 0) std::ungetc(c, stdin);  // it starts the next key
            return REPLACEMENT;
        }
        cp = cp << 6 | (c & 0x3F);
    }
    const long least[] = {0, 0x80, 0x800, 0x10000};
    if (cp < least[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return REPLACEMENT;
    return cp;
}

bool isSurrogatePairEnd(const char16_t* text, size_t len) {
    return len >= 2 && text[len - 1] >= 0xDC00 && text[len - 1] <= 0xDFFF &&
           text[len - 2] >= 0xD800 && text[len - 2] <= 0xDBFF;
}

}  // namespace

bool CGetPass::setTermToRawMode() {
    TermState& t = term();
    if (::tcgetattr(0, &t.saved) != 0) return false;
    t.raw = t.saved;
    t.raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    t.raw.c_cc[VMIN] = 1;
    t.raw.c_cc[VTIME] = 0;
    catchSignals();
    if (::tcsetattr(0, TCSANOW, &t.raw) != 0) {
        ::tcsetattr(0, TCSANOW, &t.saved);
        releaseSignals();
        return false;
    }
    return true;
}

void CGetPass::setTermToOrgMode() {
    ::tcsetattr(0, TCSANOW, &term().saved);
    releaseSignals();
}

void CGetPass::getHiddenInput(char16_t* buffer) {
    constexpr size_t limit = MAX_INPUT_LEN;
    size_t len = 0;
    int emptyEnters = 0;
    for (;;) {
        const long c = nextKey();
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
    const bool raw = setTermToRawMode();
    getHiddenInput(buffer.data());
    if (raw) setTermToOrgMode();
    std::u16string out = CCConv::trim(buffer.data());
    OPENSSL_cleanse(buffer.data(), sizeof buffer);
    return out;
}

}  // namespace kivreg
