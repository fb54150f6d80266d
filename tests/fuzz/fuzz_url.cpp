// The URL parser and the header dictionaries: the text up to the first line
// feed is a URL, the rest a header block; the first byte picks the flags.

#include "FuzzUtil.h"
#include "http/IURL.h"
#include "http/ParValDictionary.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t flags = data[0];
    const std::u16string in = fuzz::text(fuzz::bytes(data + 1, size - 1));
    const size_t lf = std::min(in.find(u'\n'), in.size());
    const std::u16string url = in.substr(0, lf);
    const std::u16string_view header = std::u16string_view(in).substr(lf);

    std::unique_ptr<IURL> u;
    if (createIURL(u) != 0) return 0;
    u->setUrl(url.c_str());
    u->getUrl();

    std::unique_ptr<IParValMultilineDictionary> block;
    if (createIParValMultilineDictionary(block, flags & 8 ? u"\n" : u"\r\n", u";", u":=",
                                         u"\t\r\n ") != 0)
        return 0;
    block->parseMultiline(header);
    block->fetchVal(u"content-length");
    return 0;
}
