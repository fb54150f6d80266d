// The input document: bytes loaded as a file, references validated, symbols
// substituted from a fixed table, both transfer bodies rendered and the data
// trace written.

#include "FuzzUtil.h"
#include "model/CXmlFile.h"
#include "support/CLog.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Env env;
    static CLog log;
    static const PSymbols symbols = [] {
        PSymbols s(&log);
        for (const char16_t* line : {u"host=h1", u"chain=${host}-${next}", u"next=n",
                                     u"loop=[${loop}]", u"amp=<&\"'>", u"empty="})
            s.addSymbol(line);
        return s;
    }();
    CXmlFile file(&log, fuzz::text(env.file("doc.xml", fuzz::bytes(data, size))));
    if (!file.isLoaded()) return 0;
    file.validateReferences();
    file.write2File();
    file.setSymbols(symbols);
    file.replaceSymbols();
    file.write2File();
    std::string body;
    file.appendBody(body);
    file.setOldTransferDtd(true);
    file.appendBody(body);
    return 0;
}
