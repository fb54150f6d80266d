// The configuration commands: write the connection settings into an
// encrypted connect file (interactively or from arguments) and show one.

#include <cstdio>
#include <string>

#include "api/ApiState.h"
#include "api/Boundary.h"
#include "api/Vocabulary.h"
#include "kivreg.h"
#include "runtime/textconv.h"
#include "secstore/CGetPass.h"
#include "secstore/CSecStore.h"
#include "support/CCConv.h"
#include "support/CGetStr.h"

namespace kivreg::api {
namespace {

constexpr int kMaxAnswer = 99;  // characters kept of one answer

void say(std::u16string_view text) {
    writeText(stdout, text);
}

void sayLine(std::u16string_view text) {
    say(text);
    say(u"\n");
}

// End of standard input in the middle of the dialogue: nobody is left to answer.
struct EndOfInput {};

// One answer: leading white space (empty lines included) is skipped, then a
// line is read; of a longer line the first 99 characters count.
std::u16string readAnswer() {
    int c;
    do {
        c = std::getc(stdin);
    } while (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f');
    if (c == EOF) throw EndOfInput{};
    std::string bytes;
    while (c != EOF && c != '\n') {
        bytes += static_cast<char>(c);
        c = std::getc(stdin);
    }
    if (!bytes.empty() && bytes.back() == '\r') bytes.pop_back();
    std::u16string answer;
    rt::utf8ToUtf16Lenient(bytes, answer);
    if (answer.size() > kMaxAnswer) {
        size_t keep = kMaxAnswer;
        if (answer[keep - 1] >= 0xD800 && answer[keep - 1] <= 0xDBFF) --keep;  // whole pairs only
        answer.resize(keep);
    }
    return answer;
}

std::u16string ask(std::u16string_view prompt) {
    say(prompt);
    return readAnswer();
}

// 80, 443 or an unprivileged port: other privileged ports are refused on purpose.
bool portAllowed(const std::u16string& port) {
    if (!CPArgs::isNumeric(port)) return false;
    const int n = CPArgs::getNumber(port);
    return n == 80 || n == 443 || (n >= 1024 && n <= 65535);
}

struct Settings {
    std::u16string user, password, host, port, https;
};

// Stores the settings, reads them back and compares; 0 when they survived.
int storeAndVerify(CSecStore& store, const Settings& in, bool logStoreFailure) {
    CLog& log = state().gLog;
    store.add(std::u16string(PARAM_HOST), in.host);
    store.add(std::u16string(PARAM_PORT), in.port);
    store.add(std::u16string(PARAM_USER), in.user);
    store.add(std::u16string(PARAM_PASS), in.password);
    store.add(std::u16string(PARAM_HTTPS), in.https);
    if (!store.store()) {
        if (logStoreFailure) {
            log << timestamp << u"Failed to secure store data in file: " << store.getFileName()
                << endlog;
        }
        return -1;
    }
    if (!store.fetch()) return -1;
    if (store.get(std::u16string(PARAM_HOST)) != in.host ||
        store.get(std::u16string(PARAM_PORT)) != in.port ||
        store.get(std::u16string(PARAM_USER)) != in.user ||
        store.get(std::u16string(PARAM_PASS)) != in.password) {
        log << timestamp << u"Internal error! Failed to store configuration data!" << endlog;
        return -1;
    }
    log << timestamp << u"Configuration data successfully stored in file: " << store.getFileName()
        << endlog;
    if (store.usesKeyFile()) {
        log << timestamp << u"Key file stored in file: " << store.getKeyFileName() << endlog;
    }
    return 0;
}

// Asks until the user confirms (returns the settings) or quits (returns false).
bool dialogue(const std::u16string& fileName, const CSecStore& store, Settings& out) {
    const std::u16string portPrompt =
        u"Port [80,443," + CGetStr<int>::get(1024) + u".." + CGetStr<int>::get(65535) + u"]: ";
    for (;;) {
        Settings in;
        in.user = ask(u"User Name       : ");
        for (;;) {
            say(u"Password        : ");
            in.password = CGetPass::getPasswd();
            say(u"\n");
            say(u"Verify Password : ");
            const std::u16string again = CGetPass::getPasswd();
            say(u"\n");
            if (again == in.password) break;
            sayLine(u"Entered values for the password differ, please try again");
        }
        in.host = ask(u"Server Host     : ");
        for (;;) {
            in.port = CCConv::trim(ask(portPrompt));
            if (portAllowed(in.port)) break;
            sayLine(u"Invalid port specified!");
        }
        const std::u16string https = ask(u"Use HTTPS? (y/n): ");
        in.https = (https[0] == u'y' || https[0] == u'Y') ? u"y" : u"n";

        sayLine(u"===================");
        sayLine(u"Entered Information");
        sayLine(u"===================");
        sayLine(u"User:   " + in.user);
        sayLine(u"Passwd: (secret)");
        sayLine(u"Host:   " + in.host);
        sayLine(u"Port:   " + in.port);
        sayLine(u"HTTPS:  " + in.https);
        sayLine(u"===================");

        std::u16string question = u"Write this information to secure file '" + fileName + u"'";
        if (store.usesKeyFile()) {
            question += u" and generate key file '" + store.getKeyFileName() + u"'";
        }
        question += u"? [y=yes/n=no/q=quit] ";
        const std::u16string answer = ask(question);
        if (answer[0] == u'y' || answer[0] == u'Y') {
            out = std::move(in);
            return true;
        }
        if (answer[0] == u'q' || answer[0] == u'Q') return false;
    }
}

int performConfig(const std::u16string& fileName, bool useKeyFile) {
    if (fileName.empty()) {
        sayLine(u"Please specify a configuration file name.");
        return -1;
    }
    CSecStore store(&state().gLog, fileName, useKeyFile);
    sayLine(u"");
    sayLine(u"Use configuration file '" + fileName + u"' for output!");
    sayLine(
        u"Please specify the HTTP connect information: [User, Password, Host, Port, HTTP/HTTPS]");
    Settings in;
    try {
        if (!dialogue(fileName, store, in)) return -1;
    } catch (const EndOfInput&) {
        sayLine(u"");
        state().gLog << timestamp << u"Configuration ended: no more input." << endlog;
        return -1;
    }
    return storeAndVerify(store, in, true);
}

// As for a run, the key file is read whenever one lies beside the file.
int showConfig(const std::u16string& fileName) {
    if (fileName.empty()) return 0;
    CLog& log = state().gLog;
    log << timestamp << u"Getting connect data from configuration file '" << fileName << u"'"
        << endlog;
    CSecStore store(&log, fileName);
    if (!store.fetch()) {
        log << timestamp << u"Failed to open configuration file '" << fileName << u"'" << endlog;
        return -1;
    }
    const auto& entries = store.getAll();
    if (entries.empty()) {
        log << timestamp << u"There is no data stored in the file '" << fileName << u"'" << endlog;
        return 0;
    }
    log << timestamp << u"This is the secured information stored in file: '" << fileName << u"'"
        << endlog;
    for (const auto& [key, value] : entries) {
        if (key == PARAM_PASS) continue;
        log << timestamp << key << u"=" << value << endlog;
    }
    return 0;
}

}  // namespace
}  // namespace kivreg::api

using namespace kivreg;
using kivreg::api::guarded;
using kivreg::api::text;

extern "C" {

int KivRegPerformConfig(const char16_t* fileName, bool useKeyFile) {
    return guarded(u"KivRegPerformConfig", -1,
                   [&] { return api::performConfig(text(fileName), useKeyFile); });
}

int KivRegPerformConfigWithKeyFile(const char16_t* fileName) {
    return guarded(u"KivRegPerformConfigWithKeyFile", -1,
                   [&] { return api::performConfig(text(fileName), true); });
}

int KivRegPerformConfigWithArguments(const char16_t* fileName, bool useKeyFile,
                                     const char16_t* user, const char16_t* password,
                                     const char16_t* host, const char16_t* port, bool useHttps) {
    return guarded(u"KivRegPerformConfigWithArguments", -1, [&] {
        api::Settings in{text(user), text(password), text(host), text(port),
                         useHttps ? u"y" : u"n"};
        if (!api::portAllowed(in.port)) {
            api::sayLine(u"Invalid port specified!");
            return -1;
        }
        CSecStore store(&api::state().gLog, text(fileName), useKeyFile);
        return api::storeAndVerify(store, in, false);
    });
}

int KivRegShowConfig(const char16_t* fileName) {
    return guarded(u"KivRegShowConfig", -1, [&] { return api::showConfig(text(fileName)); });
}

int KivRegShowConfigWithKeyFile(const char16_t* fileName) {
    return guarded(u"KivRegShowConfigWithKeyFile", -1,
                   [&] { return api::showConfig(text(fileName)); });
}

}  // extern "C"
