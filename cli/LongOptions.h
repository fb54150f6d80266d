#pragma once
// The program's long options (--name, --name VALUE, --name=VALUE). They are
// taken out of the argument vector before the classic parser sees it, so that
// neither they nor their values can pass for classic options, and the program
// records them in the library's settings under their own names.

#include <string>
#include <string_view>
#include <vector>

#include "api/CPArgs.h"
#include "api/Vocabulary.h"

namespace kivreg::cli {

struct LongOption {
    std::u16string_view name;
    std::u16string_view value;  // the value's placeholder in the help; empty for a switch
    std::u16string_view help;   // one line
};

inline constexpr std::u16string_view OPT_HELP = u"--help";
inline constexpr std::u16string_view OPT_VERSION = u"--version";
inline constexpr std::u16string_view OPT_PASSWORD_FILE = u"--password-file";

inline constexpr LongOption kLongOptions[] = {
    {OPT_HELP, u"", u"Prints this help information and terminates"},
    {OPT_VERSION, u"", u"Same as -version"},
    {CMDARG_CHECK, u"", u"Checks and renders the document without connecting"},
    {CMDARG_OUTPUT, u"<file>", u"Writes the transfer document to a file (- = stdout)"},
    {CMDARG_RETRY, u"<n>", u"Retries a failed transfer up to n times (0-100, default 0)"},
    {CMDARG_RETRY_MAX_TIME, u"<s>", u"Stops retrying after s seconds (default 600)"},
    {CMDARG_NO_PROGRESS, u"", u"Shows no progress line while the document is sent"},
    {CMDARG_PROXY, u"<url>", u"HTTP proxy to use, \"\" for none (overrides *_proxy)"},
    {CMDARG_NOPROXY, u"<list>", u"Hosts to reach without proxy (overrides no_proxy)"},
    {CMDARG_SPOOL, u"<dir>", u"Keeps failed registrations in dir and delivers them later"},
    {CMDARG_SPOOL_MAX_MB, u"<n>", u"Bounds the spool to n MiB, oldest removed first (1024)"},
    {CMDARG_FLUSH, u"", u"Delivers the spooled registrations, sends no document"},
    {CMDARG_STATUS_FILE, u"<file>", u"Writes the run's outcome for monitoring (Prometheus)"},
    {OPT_PASSWORD_FILE, u"<file>", u"Reads the password from the file's first line (- = stdin)"},
    {CMDARG_IF_CHANGED, u"", u"Sends only what the directory does not hold yet (needs --spool)"},
    {CMDARG_RESEND_AFTER, u"<time>", u"With --if-changed, sends anyway after time (s/m/h/d, 1d)"},
};

// An argument that holds a password: argv[index] from byte `offset` on, the
// whole of it or, for a proxy URL, the URL's password alone.
struct Secret {
    size_t index = 0;
    size_t offset = 0;
    bool proxyUrl = false;
};

struct SplitArgs {
    std::vector<std::u16string> classic;  // the program's name and the classic arguments
    CPArgs longOptions;                   // in the order given, first occurrence first
    std::u16string error;                 // why the command line is refused, if it is
    std::vector<Secret> secrets;          // the arguments that hold a password
};

SplitArgs splitArgs(std::vector<std::u16string> args);

// Overwrites the password in an argument's text with blanks, so that the
// process list (/proc/PID/cmdline) no longer shows it.
void blankSecret(char* text, bool proxyUrl);

// The classic help text, then the long options under "Extensions:".
std::u16string extendedUsage();

}  // namespace kivreg::cli
