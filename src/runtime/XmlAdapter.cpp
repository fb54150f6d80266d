#include "runtime/XmlAdapter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include <libxml/SAX2.h>
#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

namespace kivreg::rt {

namespace {

// Never the network, never an external DTD; the built-in limits (nesting
// depth, entity amplification, name sizes) stay on because XML_PARSE_HUGE is
// not given. External entities stay unread: that needs XML_PARSE_NOENT or
// validation, and neither is asked for.
constexpr int kParseOptions = XML_PARSE_NONET;

const char* cs(const xmlChar* s) {
    return reinterpret_cast<const char*>(s);
}

void errorTo(void* ctx, xmlErrorPtr error);

// Errors that libxml2 raises outside the parser context (input layer) would
// go to its process-wide handler; route them here while a parse runs and put
// the previous handler back afterwards.
class GlobalErrorRoute {
public:
    explicit GlobalErrorRoute(xmlParserCtxtPtr ctxt)
        : m_handler(xmlStructuredError), m_context(xmlStructuredErrorContext) {
        xmlSetStructuredErrorFunc(ctxt, errorTo);
    }
    ~GlobalErrorRoute() { xmlSetStructuredErrorFunc(m_context, m_handler); }
    GlobalErrorRoute(const GlobalErrorRoute&) = delete;
    GlobalErrorRoute& operator=(const GlobalErrorRoute&) = delete;

private:
    xmlStructuredErrorFunc m_handler;
    void* m_context;
};

// True when a name written with this prefix (or none) and this local part
// reads exactly as qname.
// Most names asked for differ from the one written in their first bytes, so
// the comparison stops there instead of measuring the name first.
bool startsWithRest(const xmlChar*& text, std::string_view part) {
    for (const char c : part)
        if (*text++ != static_cast<xmlChar>(c)) return false;
    return true;
}

bool sameQName(const xmlChar* prefixName, const xmlChar* name, std::string_view qname) {
    if (prefixName != nullptr) {
        const size_t colon = qname.find(':');
        if (colon == std::string_view::npos ||
            !startsWithRest(prefixName, qname.substr(0, colon)) || *prefixName != 0)
            return false;
        qname.remove_prefix(colon + 1);
    }
    return startsWithRest(name, qname) && *name == 0;
}

}  // namespace

// The parser's callbacks. The context they receive may be one libxml2 makes
// for the text of an entity; it carries the same _private, so everything is
// reached from there.
struct XmlEvents {
    static XmlParser& parser(void* ctx) {
        return *static_cast<XmlParser*>(static_cast<xmlParserCtxtPtr>(ctx)->_private);
    }

    static void error(void* ctx, xmlErrorPtr error) {
        auto* ctxt = static_cast<xmlParserCtxtPtr>(ctx);
        if (ctxt == nullptr || ctxt->_private == nullptr || error == nullptr) return;
        XmlError e;
        if (error->message != nullptr) {
            e.reason = error->message;
            while (!e.reason.empty() && (e.reason.back() == '\n' || e.reason.back() == '\r'))
                e.reason.pop_back();
        }
        e.severity = static_cast<int>(error->level);
        if (error->file != nullptr) e.entity = error->file;
        e.line = error->line;
        e.column = error->int2;  // libxml2 keeps the column there
        parser(ctx).m_errors.push_back(std::move(e));
    }

    // A failure thrown by the handler must not cross libxml2's frames.
    template <typename Call>
    static void guarded(void* ctx, Call call) {
        XmlParser& p = parser(ctx);
        if (p.m_failure) return;
        try {
            call(p);
        } catch (...) {
            p.m_failure = std::current_exception();
            xmlStopParser(static_cast<xmlParserCtxtPtr>(ctx));
        }
    }

    // Entities declared in the document are expanded into text and
    // attribute values, but only outside the DTD: inside it, expanding would
    // also read external parameter entities. Set from the callbacks because
    // reading applies the options only just before the document starts.
    static void expandEntities(void* ctx, bool on) {
        static_cast<xmlParserCtxtPtr>(ctx)->replaceEntities = on ? 1 : 0;
    }
    static void startDocument(void* ctx) {
        xmlSAX2StartDocument(ctx);
        expandEntities(ctx, true);
    }
    static void internalSubset(void* ctx, const xmlChar* name, const xmlChar* publicId,
                               const xmlChar* systemId) {
        expandEntities(ctx, false);
        xmlSAX2InternalSubset(ctx, name, publicId, systemId);
    }
    static void externalSubset(void* ctx, const xmlChar* name, const xmlChar* publicId,
                               const xmlChar* systemId) {
        xmlSAX2ExternalSubset(ctx, name, publicId, systemId);
        expandEntities(ctx, true);
    }

    static void startElement(void* ctx, const xmlChar* local, const xmlChar* prefix, const xmlChar*,
                             int, const xmlChar**, int count, int defaulted,
                             const xmlChar** attributes) {
        guarded(ctx, [&](XmlParser& p) {
            p.m_textRun = 0;
            XmlStartTag tag;
            tag.m_local = local;
            tag.m_prefix = prefix;
            tag.m_attributes = attributes;
            // Values the DTD supplies by default are not part of the element.
            tag.m_count = count - defaulted;
            p.m_handler->startElement(tag);
        });
    }

    static void endElement(void* ctx, const xmlChar*, const xmlChar*, const xmlChar*) {
        guarded(ctx, [](XmlParser& p) {
            p.m_textRun = 0;
            p.m_handler->endElement();
        });
    }

    static void characters(void* ctx, const xmlChar* text, int len) {
        guarded(ctx, [&](XmlParser& p) {
            // The limit on one run of text that a tree-building reader
            // enforces: its second and later pieces must keep the run within
            // XML_MAX_TEXT_LENGTH. Reaching it stops the parse the same way,
            // so the same error follows.
            const auto n = static_cast<size_t>(len);
            if (p.m_textRun > 0 && p.m_textRun + n > XML_MAX_TEXT_LENGTH) {
                auto* ctxt = static_cast<xmlParserCtxtPtr>(ctx);
                XmlError e{"xmlSAX2Characters: huge text node", XML_SEV_ERROR, {}, 0, 0};
                if (ctxt->input != nullptr) {
                    if (ctxt->input->filename != nullptr) e.entity = ctxt->input->filename;
                    e.line = ctxt->input->line;
                    e.column = ctxt->input->col;
                }
                p.m_errors.push_back(std::move(e));
                ctxt->errNo = XML_ERR_NO_MEMORY;
                ctxt->instate = XML_PARSER_EOF;
                ctxt->disableSAX = 1;
                return;
            }
            p.m_textRun += n;
            p.m_handler->text(std::string_view(cs(text), n));
        });
    }

    // CDATA, comments and processing instructions end a run of text.
    static void cdata(void* ctx, const xmlChar* text, int len) {
        guarded(ctx, [&](XmlParser& p) {
            p.m_textRun = 0;
            p.m_handler->text(std::string_view(cs(text), static_cast<size_t>(len)));
        });
    }
    static void comment(void* ctx, const xmlChar*) { parser(ctx).m_textRun = 0; }
    static void instruction(void* ctx, const xmlChar*, const xmlChar*) {
        parser(ctx).m_textRun = 0;
    }

    static int closeNothing(void*) { return 0; }

    // Standard input for the parser, its last character given once more.
    static int readStdin(void* context, char* buffer, int len) {
        auto& in = *static_cast<XmlInputStream*>(context);
        if (!in.m_ended) {
            const size_t n = std::fread(buffer, 1, static_cast<size_t>(len), stdin);
            if (n > 0) {
                in.m_tail.append(buffer + n - std::min<size_t>(n, 4), std::min<size_t>(n, 4));
                if (in.m_tail.size() > 4) in.m_tail.erase(0, in.m_tail.size() - 4);
                return static_cast<int>(n);
            }
            in.m_ended = true;
            if (!in.m_tail.empty()) in.m_tail.erase(0, lastCharStart(in.m_tail));
        }
        const size_t n = std::min(in.m_tail.size(), static_cast<size_t>(len));
        std::memcpy(buffer, in.m_tail.data(), n);
        in.m_tail.erase(0, n);
        return static_cast<int>(n);
    }
};

const char16_t* severityText(int severity) {
    switch (severity) {
        case XML_SEV_WARNING:
            return u"Warning";
        case XML_SEV_ERROR:
            return u"Error";
        case XML_SEV_FATAL:
            return u"Fatal Error";
        default:
            return u"Unknown";
    }
}

namespace {
void errorTo(void* ctx, xmlErrorPtr error) {
    XmlEvents::error(ctx, error);
}
}  // namespace

size_t lastCharStart(std::string_view bytes) {
    const auto continuation = [&](size_t i) {
        return (static_cast<unsigned char>(bytes[i]) & 0xC0) == 0x80;
    };
    size_t start = bytes.size() - 1;
    while (start > 0 && bytes.size() - start < 4 && continuation(start)) --start;
    return continuation(start) ? bytes.size() - 1 : start;
}

// ---- XmlInputStream

XmlInputStream XmlInputStream::onString(std::string utf8) {
    return XmlInputStream(std::move(utf8), true, false, {}, -1);
}

XmlInputStream XmlInputStream::onStdin() {
    return XmlInputStream({}, false, true, {}, -1);
}

XmlInputStream XmlInputStream::onFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fd >= 0 && (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode))) {
        ::close(fd);
        fd = -1;
    }
    return XmlInputStream({}, false, false, path, fd);
}

XmlInputStream::~XmlInputStream() {
    if (m_fd >= 0) ::close(m_fd);
}

// ---- XmlStartTag

std::string XmlStartTag::name() const {
    std::string n;
    if (m_prefix != nullptr) {
        n = cs(m_prefix);
        n += ':';
    }
    if (m_local != nullptr) n += cs(m_local);
    return n;
}

bool XmlStartTag::is(std::string_view qname) const {
    return m_local != nullptr && sameQName(m_prefix, m_local, qname);
}

std::string_view XmlStartTag::attribute(std::string_view qname) const {
    for (int i = 0; i < m_count; ++i) {
        const xmlChar* const* a = m_attributes + 5 * i;  // local, prefix, URI, value, end
        if (a[0] != nullptr && sameQName(a[1], a[0], qname))
            return {cs(a[3]), static_cast<size_t>(a[4] - a[3])};
    }
    return {};
}

// ---- XmlParser

XmlParser::XmlParser() {
    xmlInitParser();
    m_ctxt = xmlNewParserCtxt();
    if (m_ctxt == nullptr) throw std::bad_alloc();
    m_ctxt->_private = this;
    xmlSAXHandler& sax = *m_ctxt->sax;
    // The DTD's own callbacks stay: they record the entities to expand.
    sax.serror = errorTo;
    sax.startDocument = XmlEvents::startDocument;
    sax.internalSubset = XmlEvents::internalSubset;
    sax.externalSubset = XmlEvents::externalSubset;
    sax.startElementNs = XmlEvents::startElement;
    sax.endElementNs = XmlEvents::endElement;
    sax.characters = XmlEvents::characters;
    // Without a tree libxml2 never finds ignorable blanks; the same callback
    // spares it the search for them in every run of text.
    sax.ignorableWhitespace = XmlEvents::characters;
    sax.cdataBlock = XmlEvents::cdata;
    sax.comment = XmlEvents::comment;
    sax.processingInstruction = XmlEvents::instruction;
    // An entity's text reaches the other callbacks; libxml2's own reference
    // callback would only make and drop a tree node at each use.
    sax.reference = nullptr;
}

XmlParser::~XmlParser() {
    if (m_ctxt != nullptr) xmlFreeParserCtxt(m_ctxt);
}

bool XmlParser::parse(XmlInputStream& in, XmlHandler& handler) {
    m_handler = &handler;
    GlobalErrorRoute route(m_ctxt);
    xmlDocPtr dtdOnly;
    if (in.m_inMemory) {
        if (in.m_data.size() > static_cast<size_t>(INT_MAX)) {
            m_errors.push_back({"Document too large", XML_SEV_FATAL, {}, 0, 0});
            return false;
        }
        // The text is already Unicode; it is handed over as UTF-8.
        dtdOnly = xmlCtxtReadMemory(m_ctxt, in.m_data.data(), static_cast<int>(in.m_data.size()),
                                    nullptr, "UTF-8", kParseOptions | XML_PARSE_IGNORE_ENC);
    } else if (in.m_stdin) {
        dtdOnly = xmlCtxtReadIO(m_ctxt, XmlEvents::readStdin, XmlEvents::closeNothing, &in, nullptr,
                                nullptr, kParseOptions);
    } else {
        dtdOnly = xmlCtxtReadFd(m_ctxt, in.m_fd, in.m_path.c_str(), nullptr, kParseOptions);
    }
    // What is left of the document is its DTD; the handler has the rest.
    const bool wellFormed = dtdOnly != nullptr;
    if (dtdOnly != nullptr) xmlFreeDoc(dtdOnly);
    m_handler = nullptr;
    if (m_failure) std::rethrow_exception(m_failure);
    return wellFormed;
}

size_t XmlParser::numErrors(int minSeverity) const {
    size_t n = 0;
    for (const XmlError& e : m_errors)
        if (e.severity >= minSeverity) ++n;
    return n;
}

const XmlError& XmlParser::getError(size_t index, int minSeverity) const {
    for (const XmlError& e : m_errors) {
        if (e.severity < minSeverity) continue;
        if (index-- == 0) return e;
    }
    static const XmlError none;
    return none;
}

}  // namespace kivreg::rt
