// The exported setters: each records one setting in gArgs or loads the document.

#include "api/ApiState.h"
#include "api/Boundary.h"
#include "api/Vocabulary.h"
#include "kivreg.h"
#include "secstore/CSecStore.h"

namespace kivreg::api {

ApiState& state() {
    static ApiState instance;
    return instance;
}

namespace {

// A refused setting; a run that ends before the library's run began reports it.
int refused(FailureReason why) {
    state().failure = why;
    return -1;
}

int recordTimeout(std::u16string_view option, const char16_t* seconds) {
    const std::u16string value = text(seconds);
    if (value.empty()) return -1;
    state().gArgs.addArg(option, value);  // checked by the run, where it is used
    return 1;
}

// The key file is read whenever one lies beside the connect file, whichever
// of the two exported functions named it.
int recordConnectFile(const char16_t* name) {
    ApiState& s = state();
    const std::u16string fileName = text(name);
    if (fileName.empty()) return refused(FailureReason::ConnectData);
    CSecStore store(&s.gLog, fileName);
    if (!store.fetch()) {
        s.gLog << timestamp << u"Failed to read connect file: " << fileName << endlog;
        return refused(FailureReason::ConnectData);
    }
    if (store.get(std::u16string(PARAM_HOST)).empty() ||
        store.get(std::u16string(PARAM_PORT)).empty() ||
        store.get(std::u16string(PARAM_USER)).empty()) {
        s.gLog << timestamp << u"Incomplete HTTP connect information specified in file " << fileName
               << endlog;
        return refused(FailureReason::ConnectData);
    }
    // Only the name is kept: the run reads the file again when it needs it.
    s.gArgs.addArg(CMDARG_CONNECT_FILE, fileName);
    return 1;
}

// Loads a new document, replacing the one held before.
template <typename Make>
int loadDocument(Make&& make) {
    ApiState& s = state();
    s.gpXmlFile.reset();
    s.gpXmlFile = make(&s.gLog);
    if (s.gArgs.isSwitchSet(CMDARG_OLDTRANSFERDTD)) s.gpXmlFile->setOldTransferDtd(true);
    return s.gpXmlFile->isLoaded() ? 1 : refused(FailureReason::Document);
}

}  // namespace
}  // namespace kivreg::api

using namespace kivreg;
using kivreg::api::guarded;
using kivreg::api::state;
using kivreg::api::text;

extern "C" {

void KivRegUseHttps(void) {
    guarded(u"KivRegUseHttps", [] { state().gArgs.addSwitch(CMDARG_USEHTTPS); });
}

void KivRegDoHttpTrace(void) {
    guarded(u"KivRegDoHttpTrace", [] { state().gArgs.addSwitch(CMDARG_HTTP_TRACE); });
}

void KivRegDoDataTrace(void) {
    guarded(u"KivRegDoDataTrace", [] { state().gArgs.addSwitch(CMDARG_DATA_TRACE); });
}

void KivRegSetOldTransferOn(void) {
    guarded(u"KivRegSetOldTransferOn", [] { state().gArgs.addSwitch(CMDARG_OLDTRANSFERDTD); });
}

void KivRegSetNewTransferOn(void) {
    guarded(u"KivRegSetNewTransferOn", [] { state().gArgs.removeArg(CMDARG_OLDTRANSFERDTD); });
}

// The standard-input variant reports under the file variant's name, as it
// always has; scripts that watch the log know that text.
int KivRegSetXMLStdin(void) {
    return guarded(u"KivRegSetXMLFile", -1, [] {
        return api::loadDocument([](CLog* log) { return std::make_unique<CXmlFile>(log); });
    });
}

int KivRegSetXMLFile(const char16_t* fileName) {
    return guarded(u"KivRegSetXMLFile", -1, [&] {
        return api::loadDocument(
            [&](CLog* log) { return std::make_unique<CXmlFile>(log, text(fileName)); });
    });
}

int KivRegSetXML(const char16_t* xmlText) {
    return guarded(u"KivRegSetXML", -1, [&] {
        return api::loadDocument(
            [&](CLog* log) { return std::make_unique<CXmlFile>(log, text(xmlText), 0); });
    });
}

int KivRegSetReceiveTimeout(const char16_t* seconds) {
    return guarded(u"KivRegSetReceiveTimeout", -1,
                   [&] { return api::recordTimeout(CMDARG_RECEIVE_TIMEOUT, seconds); });
}

int KivRegSetSendTimeout(const char16_t* seconds) {
    return guarded(u"KivRegSetSendTimeout", -1,
                   [&] { return api::recordTimeout(CMDARG_SEND_TIMEOUT, seconds); });
}

int KivRegSetConnectTimeout(const char16_t* seconds) {
    return guarded(u"KivRegSetConnectTimeout", -1,
                   [&] { return api::recordTimeout(CMDARG_CONNECT_TIMEOUT, seconds); });
}

int KivRegSetConnectData(const char16_t* host, const char16_t* port, const char16_t* user,
                         const char16_t* password) {
    return guarded(u"KivRegSetConnectData", -1, [&] {
        if (text(host).empty() || text(port).empty() || text(user).empty())
            return api::refused(api::FailureReason::ConnectData);
        CPArgs& args = state().gArgs;
        args.addArg(CMDARG_HTTP_HOST, text(host));
        args.addArg(CMDARG_HTTP_PORT, text(port));
        args.addArg(CMDARG_HTTP_USER, text(user));
        args.addArg(CMDARG_HTTP_PASS, text(password));
        return 1;
    });
}

int KivRegSetConnectFile(const char16_t* fileName) {
    return guarded(u"KivRegSetConnectFile", -1, [&] { return api::recordConnectFile(fileName); });
}

int KivRegSetConnectFileWithKeyFile(const char16_t* fileName) {
    return guarded(u"KivRegSetConnectFileWithKeyFile", -1,
                   [&] { return api::recordConnectFile(fileName); });
}

int KivRegSetSymbolFile(const char16_t* fileName) {
    return guarded(u"KivRegSetSymbolFile", -1, [&] {
        const std::u16string name = text(fileName);
        if (name.empty()) return 1;  // no symbol file is a valid choice
        if (!PSymbols::checkSymbolFile(name)) return api::refused(api::FailureReason::Symbols);
        state().gArgs.addArg(CMDARG_SYMBOL_FILE, name);
        return 1;
    });
}

void KivRegSetLogfile(const char16_t* fileName) {
    guarded(u"KivRegSetLogfile", [&] {
        api::ApiState& s = state();
        const std::u16string name = text(fileName);
        if (name.empty()) {
            s.gLog << timestamp << u"Invalid log file specified." << endlog;
            return;
        }
        // Said at the old destination, so that it shows where the log went.
        s.gLog << timestamp << u"Used logfile: " << name << endlog;
        s.gLog.setFileName(name);
        s.gArgs.addArg(CMDARG_LOGFILENAME, name);
    });
}

int KivRegSendReceiveData(void) {
    return guarded(u"KivRegSendReceiveData", -2, [] { return api::sendReceiveData(); });
}

}  // extern "C"
