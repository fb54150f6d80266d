#include "runtime/XmlAdapter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <new>

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

namespace kivreg::rt {

namespace {

// Never the network, never an external DTD, never entity substitution; the
// built-in limits (nesting depth, entity amplification, text size) stay on
// because XML_PARSE_HUGE is not given.
constexpr int kParseOptions = XML_PARSE_NONET;

const char* cs(const xmlChar* s) {
    return reinterpret_cast<const char*>(s);
}

void onError(void* data, xmlErrorPtr error) {
    auto* ctxt = static_cast<xmlParserCtxtPtr>(data);
    if (ctxt == nullptr || ctxt->_private == nullptr || error == nullptr) return;
    auto* sink = static_cast<std::vector<XmlError>*>(ctxt->_private);
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
    sink->push_back(std::move(e));
}

// Errors that libxml2 raises outside the parser context (input layer) would
// go to its process-wide handler; route them here while a parse runs and put
// the previous handler back afterwards.
class GlobalErrorRoute {
public:
    explicit GlobalErrorRoute(xmlParserCtxtPtr ctxt)
        : m_handler(xmlStructuredError), m_context(xmlStructuredErrorContext) {
        xmlSetStructuredErrorFunc(ctxt, onError);
    }
    ~GlobalErrorRoute() { xmlSetStructuredErrorFunc(m_context, m_handler); }
    GlobalErrorRoute(const GlobalErrorRoute&) = delete;
    GlobalErrorRoute& operator=(const GlobalErrorRoute&) = delete;

private:
    xmlStructuredErrorFunc m_handler;
    void* m_context;
};

// True when a name written with this namespace (its prefix, if any) and this
// local part reads exactly as qname.
bool sameQName(const xmlNs* ns, const xmlChar* name, std::string_view qname) {
    std::string_view local = cs(name);
    if (ns == nullptr || ns->prefix == nullptr) return local == qname;
    std::string_view prefix = cs(ns->prefix);
    return qname.size() == prefix.size() + 1 + local.size() && qname.starts_with(prefix) &&
           qname[prefix.size()] == ':' && qname.ends_with(local);
}

// The first element node from node on.
XmlElement elementFrom(xmlNode* node) {
    while (node != nullptr && node->type != XML_ELEMENT_NODE) node = node->next;
    return XmlElement(node);
}

void appendText(const xmlNode* node, std::string& out) {
    for (const xmlNode* c = node->children; c != nullptr; c = c->next) {
        switch (c->type) {
            case XML_TEXT_NODE:
            case XML_CDATA_SECTION_NODE:
                if (c->content != nullptr) out += cs(c->content);
                break;
            case XML_ELEMENT_NODE:
                appendText(c, out);  // depth is bounded by the parser's nesting limit
                break;
            default:  // entity references stay unexpanded; comments and PIs carry no text
                break;
        }
    }
}

}  // namespace

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

// ---- XmlInputStream

XmlInputStream XmlInputStream::onString(std::string utf8) {
    XmlInputStream in;
    in.m_data = std::move(utf8);
    in.m_inMemory = true;
    in.m_ignoreDeclaredEncoding = true;
    return in;
}

XmlInputStream XmlInputStream::onBytes(std::string bytes) {
    XmlInputStream in;
    in.m_data = std::move(bytes);
    in.m_inMemory = true;
    return in;
}

XmlInputStream XmlInputStream::onFile(const std::string& path) {
    XmlInputStream in;
    in.m_path = path;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return in;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        return in;
    }
    in.m_fd = fd;
    return in;
}

XmlInputStream::XmlInputStream(XmlInputStream&& other) noexcept
    : m_data(std::move(other.m_data)),
      m_path(std::move(other.m_path)),
      m_fd(other.m_fd),
      m_inMemory(other.m_inMemory),
      m_ignoreDeclaredEncoding(other.m_ignoreDeclaredEncoding) {
    other.m_fd = -1;
    other.m_inMemory = false;
}

XmlInputStream::~XmlInputStream() {
    if (m_fd >= 0) ::close(m_fd);
}

// ---- XmlElement

std::string XmlElement::name() const {
    if (m_node == nullptr || m_node->name == nullptr) return {};
    std::string n;
    if (m_node->ns != nullptr && m_node->ns->prefix != nullptr) {
        n = cs(m_node->ns->prefix);
        n += ':';
    }
    n += cs(m_node->name);
    return n;
}

bool XmlElement::is(std::string_view qname) const {
    return m_node != nullptr && m_node->name != nullptr &&
           sameQName(m_node->ns, m_node->name, qname);
}

XmlElement XmlElement::firstChild() const {
    return m_node != nullptr ? elementFrom(m_node->children) : XmlElement();
}

XmlElement XmlElement::nextSibling() const {
    return m_node != nullptr ? elementFrom(m_node->next) : XmlElement();
}

std::string XmlElement::attribute(std::string_view name) const {
    if (m_node == nullptr) return {};
    for (const xmlAttr* a = m_node->properties; a != nullptr; a = a->next) {
        if (a->name == nullptr || !sameQName(a->ns, a->name, name)) continue;
        std::string value;
        for (const xmlNode* c = a->children; c != nullptr; c = c->next)
            if (c->type == XML_TEXT_NODE && c->content != nullptr) value += cs(c->content);
        return value;
    }
    return {};
}

std::string XmlElement::text() const {
    std::string out;
    if (m_node != nullptr) appendText(m_node, out);
    return out;
}

// ---- XmlDocument

XmlDocument::XmlDocument() = default;

XmlDocument::~XmlDocument() {
    release();
}

void XmlDocument::release() {
    if (m_doc != nullptr) xmlFreeDoc(m_doc);
    m_doc = nullptr;
}

void XmlDocument::discard(XmlElement& elem) {
    if (elem.m_node == nullptr) return;
    xmlUnlinkNode(elem.m_node);
    xmlFreeNode(elem.m_node);
    elem.m_node = nullptr;
}

XmlElement XmlDocument::root() const {
    return XmlElement(m_doc != nullptr ? xmlDocGetRootElement(m_doc) : nullptr);
}

// ---- XmlParser

XmlParser::XmlParser() {
    xmlInitParser();
    m_ctxt = xmlNewParserCtxt();
    if (m_ctxt == nullptr) throw std::bad_alloc();
    m_ctxt->_private = &m_errors;
    m_ctxt->sax->serror = onError;
}

XmlParser::~XmlParser() {
    if (m_ctxt != nullptr) xmlFreeParserCtxt(m_ctxt);
}

bool XmlParser::parse(XmlInputStream& in, XmlDocument& doc) {
    m_errors.clear();
    doc.release();
    if (!in.isOpen()) return false;
    GlobalErrorRoute route(m_ctxt);
    if (in.m_inMemory) {
        if (in.m_data.size() > static_cast<size_t>(INT_MAX)) {
            m_errors.push_back({"Document too large", XML_SEV_FATAL, {}, 0, 0});
            return false;
        }
        int options = kParseOptions;
        if (in.m_ignoreDeclaredEncoding) options |= XML_PARSE_IGNORE_ENC;
        // The text is already Unicode; it is handed over as UTF-8.
        const char* encoding = in.m_ignoreDeclaredEncoding ? "UTF-8" : nullptr;
        doc.m_doc = xmlCtxtReadMemory(m_ctxt, in.m_data.data(), static_cast<int>(in.m_data.size()),
                                      nullptr, encoding, options);
    } else {
        doc.m_doc = xmlCtxtReadFd(m_ctxt, in.m_fd, in.m_path.c_str(), nullptr, kParseOptions);
    }
    return doc.m_doc != nullptr;
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
