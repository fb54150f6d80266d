#pragma once
// The command-line vocabulary shared by the library and the kivreg program:
// option names (the library keeps its settings under the same names), the
// keys of the connection file, the program's title, version line and help.

#include <string_view>

#include "kivreg_version.h"

namespace kivreg {

inline constexpr std::u16string_view CMDARG_FILENAME = u"-file";
inline constexpr std::u16string_view CMDARG_STDIN = u"-stdin";
inline constexpr std::u16string_view CMDARG_OLDTRANSFERDTD = u"-oldtransferdtd";
inline constexpr std::u16string_view CMDARG_CONNECT_FILE = u"-connectfile";
inline constexpr std::u16string_view CMDARG_SYMBOL_FILE = u"-symbolfile";
inline constexpr std::u16string_view CMDARG_CONFIGURE = u"-configure";
inline constexpr std::u16string_view CMDARG_USEKEYFILE = u"-usekeyfile";
inline constexpr std::u16string_view CMDARG_SHOWCONFIG = u"-showconnect";
inline constexpr std::u16string_view CMDARG_LOGFILENAME = u"-logfile";
inline constexpr std::u16string_view CMDARG_DATA_TRACE = u"-datatrace";
inline constexpr std::u16string_view CMDARG_HTTP_USER = u"-user";
inline constexpr std::u16string_view CMDARG_HTTP_PASS = u"-pass";
inline constexpr std::u16string_view CMDARG_HTTP_HOST = u"-host";
inline constexpr std::u16string_view CMDARG_HTTP_PORT = u"-port";
inline constexpr std::u16string_view CMDARG_USEHTTPS = u"-usehttps";
inline constexpr std::u16string_view CMDARG_HTTP_TRACE = u"-httptrace";
inline constexpr std::u16string_view CMDARG_HELP = u"-help";
inline constexpr std::u16string_view CMDARG_VERSION = u"-version";
inline constexpr std::u16string_view CMDARG_CONNECT_TIMEOUT = u"-connecttimeout";
inline constexpr std::u16string_view CMDARG_SEND_TIMEOUT = u"-sendtimeout";
inline constexpr std::u16string_view CMDARG_RECEIVE_TIMEOUT = u"-receivetimeout";
// Long options of the program, kept in the settings under these names.
inline constexpr std::u16string_view CMDARG_PROXY = u"--proxy";
inline constexpr std::u16string_view CMDARG_NOPROXY = u"--noproxy";
inline constexpr std::u16string_view CMDARG_RETRY = u"--retry";
inline constexpr std::u16string_view CMDARG_RETRY_MAX_TIME = u"--retry-max-time";
inline constexpr std::u16string_view CMDARG_CHECK = u"--check";
inline constexpr std::u16string_view CMDARG_OUTPUT = u"--output";
inline constexpr std::u16string_view CMDARG_NO_PROGRESS = u"--no-progress";
inline constexpr std::u16string_view CMDARG_SPOOL = u"--spool";
inline constexpr std::u16string_view CMDARG_SPOOL_MAX_MB = u"--spool-max-mb";
inline constexpr std::u16string_view CMDARG_FLUSH = u"--flush";
inline constexpr std::u16string_view CMDARG_STATUS_FILE = u"--status-file";
inline constexpr std::u16string_view CMDARG_IF_CHANGED = u"--if-changed";
inline constexpr std::u16string_view CMDARG_RESEND_AFTER = u"--resend-after";
inline constexpr int SPOOL_MAX_MB_LIMIT = 1048576;  // 1 TiB
// What library hosts set instead; an option, when given, rules over its variable.
inline constexpr const char* ENV_SPOOL = "KIVREG_SPOOL";
inline constexpr const char* ENV_SPOOL_MAX_MB = "KIVREG_SPOOL_MAX_MB";
inline constexpr const char* ENV_STATUS_FILE = "KIVREG_STATUS_FILE";
inline constexpr const char* ENV_IF_CHANGED = "KIVREG_IF_CHANGED";
inline constexpr const char* ENV_RESEND_AFTER = "KIVREG_RESEND_AFTER";

// Keys of the connection file.
inline constexpr std::u16string_view PARAM_USER = u"user_param";
inline constexpr std::u16string_view PARAM_PASS = u"pass_param";
inline constexpr std::u16string_view PARAM_HOST = u"host_param";
inline constexpr std::u16string_view PARAM_PORT = u"port_param";
inline constexpr std::u16string_view PARAM_HTTPS = u"https_param";

inline constexpr std::u16string_view PROGRAM_TITLE = u"KIV Registration Program";
inline constexpr std::u16string_view PROGRAM_VERSION = u" [" KIVREG_VERSION_STRING "] ";
inline constexpr std::u16string_view PROGRAM_DATE = u"" KIVREG_BUILD_DATE;
inline constexpr std::u16string_view PROGRAM_ID =
    u" [" KIVREG_VERSION_STRING "]  (" KIVREG_BUILD_DATE ") [Unicode]";

inline constexpr std::u16string_view PROGRAM_USAGE =
    u"kivreg <options>\n"
    u"\n"
    u"Option groups:\n"
    u"\n"
    u"(1) Transfer Data Options:\n"
    u"[-file <xml-file>]  : XML file containing data to be transfered.\n"
    u"                      If not specified, the program uses standard input instead\n"
    u"                      (e.g. for pipes).\n"
    u"[-stdin]            : Use 'stdin' for data. Default if no input file is set.\n"
    u"                      Overrides the file setting.\n"
    u"[-oldtransferdtd]   : If specified, an old transfer DTD is used \n"
    u"                      for older KIV bridges.\n"
    u"\n"
    u"(2) HTTP Connect Options:\n"
    u"-connectfile <file> : File containing the encrypted HTTP user/password\n"
    u"                      and host/port information.\n"
    u"-symbolfile <file>  : File containing symbols in the form name=value\n"
    u"                      (property file). Symbols in form ${name} are replaced\n"
    u"                      by their value in attributes and character data\n"
    u"                      of the <value> tag (recursively).\n"
    u"-user <http-user>   : Http user for J2EE engine connect.\n"
    u"[-pass <password>]  : HTTP password for J2EE engine connect\n"
    u"                      (default: no password).\n"
    u"-host <http-host>   : HTTP host.\n"
    u"-port <http-port>   : HTTP port number.\n"
    u"[-usehttps]         : Use HTTPS (Requires additional configuration tasks).\n"
    u"-connecttimeout <n> : Network connect timeout in seconds (0 = infinite).\n"
    u"-sendtimeout    <n> : Message send timeout in seconds (0 = infinite).\n"
    u"-receivetimeout <n> : Message response timeout in seconds (0 = infinite).\n"
    u"\n"
    u"Note: You have to specify either a connect file or a valid\n"
    u"user/password/host/port combination.\n"
    u"If both is specified, the connect file takes precedence.\n"
    u"All timeout parameters are set to 420 sec by default.\n"
    u"\n"
    u"(3) Configuration of connection information stored in an encrypted file:\n"
    u"-configure <file>   : Configuration of connection settings either interactively\n"
    u"                      or from command line parameters. Saved in specified file.\n"
    u"[-usekeyfile]       : If specified, a newly generated encryption key is stored \n"
    u"                      in a '*.key' file.\n"
    u"                      If not specified, a built-in encryption key is used.\n"
    u"-showconnect <file> : Display the connection settings excepting the password.\n"
    u"\n"
    u"(4) Additonal optional Settings:\n"
    u"-help               : Prints this help information and terminates\n"
    u"-version            : Prints the patch version and terminates\n"
    u"-datatrace          : Full data trace, i.e. data parsed by program\n"
    u"-httptrace          : Full HTTP data trace, i.e. data send via HTTP\n"
    u"-logfile <logfile>  : File where the log should be written to (default: stdout)\n"
    u"\n"
    u"(Unknown options are ignored)\n";

}  // namespace kivreg
