// The symbol file: bytes read as one, printed, and substituted into a fixed
// document that holds placeholders in every kind of text.

#include "FuzzUtil.h"
#include "model/CXmlFile.h"
#include "support/CLog.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Env env;
    static CLog log;
    static const std::u16string document =
        u"<kivinfo supplier_name='${a}' supplier_vendor='${b}${b}' model_version='${c'>"
        u"<group name='G' data_type='${a}'><class name='C' clean='${x}'><instance inst_id='i'>"
        u"<property name='P' sourceformat='${a}'><value>${a}${b}</value><value>$${}${${a}}</value>"
        u"</property></instance></class></group></kivinfo>";
    PSymbols symbols(&log);
    if (symbols.addSymbols(fuzz::text(env.file("s.properties", fuzz::bytes(data, size)))) < 0)
        return 0;
    symbols.printSymbols();
    CXmlFile file(&log, document, 0);
    file.setSymbols(symbols);
    file.replaceSymbols();
    std::string body;
    file.appendBody(body);
    return 0;
}
