// kivreg: the command-line program over the registration library.
//
// Exit status: 0 success; 1 failure (bad input, refused setting, other HTTP
// status); 2 no connection; 3 the symbol file could not be read.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "LongOptions.h"
#include "Progress.h"
#include "api/ApiState.h"
#include "api/CPArgs.h"
#include "api/ExitStatus.h"
#include "api/Vocabulary.h"
#include "kivreg.h"
#include "support/CCConv.h"
#include "support/CLog.h"

namespace {

using namespace kivreg;

using api::kExitFailed;
using api::kExitOk;

CLog& log() {
    return api::state().gLog;
}

// A setter refused without saying why: name the option and its value.
int refused(std::u16string_view option, const std::u16string& value, std::u16string_view why) {
    log() << timestamp << u"Option " << option << u" " << value << u" refused: " << why << endlog;
    return kExitFailed;
}

int exitStatusOf(int result) {
    return api::exitStatusOf(result, api::state().lastResultFromSymbols);
}

// The longest first line taken from a password file: enough for any
// password, and a bound for a file that is no password file (/dev/zero).
constexpr size_t kMaxPasswordLine = 4096;

// The password: the first line of --password-file (without its line end) when
// that is given, else -pass. False, logged, when the file cannot be read.
// Standard input ("-") is read a byte at a time, so that a document can follow
// the password line there.
bool password(const CPArgs& cmd, std::u16string& out) {
    const CPArgs& settings = api::state().gArgs;
    if (!settings.isSwitchSet(cli::OPT_PASSWORD_FILE)) {
        out = cmd.getArg(CMDARG_HTTP_PASS);
        return true;
    }
    const std::u16string name = settings.getArg(cli::OPT_PASSWORD_FILE);
    const bool fromStdin = name == u"-";
    const int fd =
        fromStdin ? STDIN_FILENO : ::open(CCConv::toUTF8Str(name).c_str(), O_RDONLY | O_CLOEXEC);
    std::string line;
    int error = fd < 0 ? errno : 0;
    char c = 0;
    ssize_t n = 0;
    while (fd >= 0 && line.size() <= kMaxPasswordLine && (n = ::read(fd, &c, 1)) == 1 && c != '\n')
        line += c;
    if (n < 0) error = errno;
    if (fd >= 0 && !fromStdin) ::close(fd);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::u16string why;
    if (error != 0) {
        why = CCConv::fromUTF8Str(std::string_view(std::strerror(error)));
    } else if (line.size() > kMaxPasswordLine) {
        why = u"its first line is too long";
    } else {
        try {
            out = CCConv::fromUTF8Str(std::string_view(line));
            return true;
        } catch (const ERegExcept&) {
            why = u"its first line is not valid UTF-8";
        }
    }
    log() << timestamp << u"Cannot read the password file " << name << u": " << why << endlog;
    return false;
}

int showConnect(const CPArgs& cmd) {
    const std::u16string file = cmd.getArg(CMDARG_SHOWCONFIG);
    const int rc = cmd.isSwitchSet(CMDARG_USEKEYFILE) ? KivRegShowConfigWithKeyFile(file.c_str())
                                                      : KivRegShowConfig(file.c_str());
    return exitStatusOf(rc);
}

int configure(const CPArgs& cmd) {
    const std::u16string file = cmd.getArg(CMDARG_CONFIGURE);
    const bool useKeyFile = cmd.isSwitchSet(CMDARG_USEKEYFILE);
    if (cmd.hasArg(CMDARG_HTTP_USER) && cmd.hasArg(CMDARG_HTTP_HOST) &&
        cmd.hasArg(CMDARG_HTTP_PORT)) {
        const std::u16string user = cmd.getArg(CMDARG_HTTP_USER);
        std::u16string pass;
        if (!password(cmd, pass)) return kExitFailed;
        const std::u16string host = cmd.getArg(CMDARG_HTTP_HOST);
        const std::u16string port = cmd.getArg(CMDARG_HTTP_PORT);
        return exitStatusOf(KivRegPerformConfigWithArguments(
            file.c_str(), useKeyFile, user.c_str(), pass.c_str(), host.c_str(), port.c_str(),
            cmd.isSwitchSet(CMDARG_USEHTTPS)));
    }
    return exitStatusOf(KivRegPerformConfig(file.c_str(), useKeyFile));
}

int registration(const CPArgs& cmd) {
    if (cmd.isSwitchSet(CMDARG_USEHTTPS)) KivRegUseHttps();
    if (cmd.isSwitchSet(CMDARG_HTTP_TRACE)) KivRegDoHttpTrace();
    if (cmd.isSwitchSet(CMDARG_DATA_TRACE)) KivRegDoDataTrace();
    if (cmd.isSwitchSet(CMDARG_OLDTRANSFERDTD)) KivRegSetOldTransferOn();

    struct Timeout {
        std::u16string_view option;
        int (*set)(const char16_t*);
    };
    for (const Timeout& t : {Timeout{CMDARG_CONNECT_TIMEOUT, KivRegSetConnectTimeout},
                             Timeout{CMDARG_SEND_TIMEOUT, KivRegSetSendTimeout},
                             Timeout{CMDARG_RECEIVE_TIMEOUT, KivRegSetReceiveTimeout}}) {
        if (!cmd.hasArg(t.option)) continue;
        const std::u16string value = cmd.getArg(t.option);
        if (t.set(value.c_str()) != 1)
            return refused(t.option, value, u"a number of seconds is needed.");
    }

    struct Bounded {
        std::u16string_view option;
        int low, high;
        std::u16string_view why;
    };
    const CPArgs& settings = api::state().gArgs;
    for (const Bounded& b :
         {Bounded{CMDARG_RETRY, 0, 100, u"a number from 0 to 100 is needed."},
          Bounded{CMDARG_RETRY_MAX_TIME, 0, INT_MAX, u"a number of seconds is needed."},
          Bounded{CMDARG_SPOOL_MAX_MB, 1, SPOOL_MAX_MB_LIMIT,
                  u"a number from 1 to 1048576 is needed."}}) {
        if (!settings.isSwitchSet(b.option)) continue;
        const std::u16string value = settings.getArg(b.option);
        const int n = CPArgs::getNumber(value);
        if (!CPArgs::isNumeric(value) || n < b.low || n > b.high)
            return refused(b.option, value, b.why);
    }

    if (cmd.hasArg(CMDARG_HTTP_USER) || cmd.hasArg(CMDARG_HTTP_PASS) ||
        cmd.hasArg(CMDARG_HTTP_HOST) || cmd.hasArg(CMDARG_HTTP_PORT) ||
        settings.isSwitchSet(cli::OPT_PASSWORD_FILE)) {
        const std::u16string user = cmd.getArg(CMDARG_HTTP_USER);
        std::u16string pass;
        if (!password(cmd, pass)) return kExitFailed;
        const std::u16string host = cmd.getArg(CMDARG_HTTP_HOST);
        const std::u16string port = cmd.getArg(CMDARG_HTTP_PORT);
        if (KivRegSetConnectData(host.c_str(), port.c_str(), user.c_str(), pass.c_str()) != 1) {
            // The password is never repeated, not even in a refusal.
            log() << timestamp << u"Incomplete HTTP connect data: -user, -host and -port need "
                  << u"a value (given: -user " << user << u", -host " << host << u", -port " << port
                  << u")." << endlog;
            return kExitFailed;
        }
    }

    if (cmd.hasArg(CMDARG_CONNECT_FILE)) {
        const std::u16string file = cmd.getArg(CMDARG_CONNECT_FILE);
        const int rc = cmd.isSwitchSet(CMDARG_USEKEYFILE)
                           ? KivRegSetConnectFileWithKeyFile(file.c_str())
                           : KivRegSetConnectFile(file.c_str());
        if (rc != 1) {
            if (file.empty()) return refused(CMDARG_CONNECT_FILE, file, u"a file name is needed.");
            return kExitFailed;  // the library said why
        }
    }
    if (cmd.hasArg(CMDARG_SYMBOL_FILE)) {
        const std::u16string file = cmd.getArg(CMDARG_SYMBOL_FILE);
        if (KivRegSetSymbolFile(file.c_str()) != 1) {
            return refused(CMDARG_SYMBOL_FILE, file, u"the file cannot be opened.");
        }
    }

    // --flush sends what the spool holds, no document.
    if (settings.isSwitchSet(CMDARG_FLUSH)) return exitStatusOf(KivRegSendReceiveData());
    const std::u16string file = cmd.getArg(CMDARG_FILENAME);
    const bool fromStdin = cmd.isSwitchSet(CMDARG_STDIN) || file.empty();
    const int loaded = fromStdin ? KivRegSetXMLStdin() : KivRegSetXMLFile(file.c_str());
    if (loaded != 1) return kExitFailed;  // the loader logged the reason

    return exitStatusOf(KivRegSendReceiveData());
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::u16string> args;
    args.reserve(static_cast<size_t>(argc));
    for (int i = 0; i < argc; ++i) {
        try {
            args.push_back(CCConv::fromUTF8Str(std::string_view(argv[i])));
        } catch (const ERegExcept&) {
            std::fprintf(stderr, "kivreg: argument %d is not valid UTF-8\n", i);
            return kExitFailed;
        }
    }
    cli::SplitArgs split = cli::splitArgs(std::move(args));
    // Copied: from here on the process list shows blanks in their place.
    for (const cli::Secret& s : split.secrets)
        cli::blankSecret(argv[s.index] + s.offset, s.proxyUrl);
    if (!split.error.empty()) {
        writeText(stderr, split.error + u"\n");
        return kExitFailed;
    }
    std::vector<char16_t*> vec;
    vec.reserve(split.classic.size() + 1);
    for (auto& a : split.classic) vec.push_back(a.data());
    vec.push_back(nullptr);
    const CPArgs cmd(vec.data());
    const CPArgs& longOptions = split.longOptions;

    if (longOptions.isSwitchSet(cli::OPT_HELP)) {
        writeText(stdout, cli::extendedUsage());
        return kExitOk;
    }
    if (cmd.isSwitchSet(CMDARG_HELP)) {
        writeText(stdout, PROGRAM_USAGE);
        return kExitOk;
    }
    if (cmd.isSwitchSet(CMDARG_VERSION) || longOptions.isSwitchSet(cli::OPT_VERSION)) {
        writeText(stdout,
                  std::u16string(PROGRAM_TITLE) + u"\n" + std::u16string(PROGRAM_ID) + u"\n");
        return kExitOk;
    }
    // The run reads the long options from the settings, under their own names.
    for (const CPArgs::CPArg& o : longOptions.entries()) {
        if (o.hasValue()) {
            api::state().gArgs.addArg(o.getName(), o.getValue());
        } else {
            api::state().gArgs.addSwitch(o.getName());
        }
    }
    if (longOptions.getArg(CMDARG_OUTPUT) == u"-") {
        // The document alone on standard output: whatever else would go
        // there (log, traces) goes to standard error.
        api::state().outputFd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        if (api::state().outputFd < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
            std::perror("kivreg: standard output");
            return kExitFailed;
        }
    }
    static cli::ProgressLine progress;
    if (::isatty(STDERR_FILENO) && !longOptions.isSwitchSet(CMDARG_NO_PROGRESS))
        api::state().progress = [](size_t sent, size_t total) { progress.update(sent, total); };
    if (cmd.hasArg(CMDARG_LOGFILENAME)) {
        const std::u16string logFile = cmd.getArg(CMDARG_LOGFILENAME);
        KivRegSetLogfile(logFile.c_str());
    }
    if (cmd.hasArg(CMDARG_SHOWCONFIG)) return showConnect(cmd);
    if (cmd.hasArg(CMDARG_CONFIGURE)) return configure(cmd);
    api::state().runStart = api::epochSeconds();
    const int status = registration(cmd);
    // A run that ended before the library's run began is reported here.
    if (api::state().runStart != 0) api::reportRun(status);
    return status;
}
