#pragma once
// A small adapter over libxml2 for reading the supplier's document: a
// parser that collects its own error records, the parsed document, element
// handles, and the input stream (a file, a text, or bytes from standard
// input). The parser never touches the network and never loads external
// entities or DTDs; entity references are neither substituted nor followed.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct _xmlDoc;
struct _xmlNode;
struct _xmlParserCtxt;

namespace kivreg::rt {

// Severity levels as libxml2 numbers them.
enum XmlSeverity : int { XML_SEV_WARNING = 1, XML_SEV_ERROR = 2, XML_SEV_FATAL = 3 };

struct XmlError {
    std::string reason;  // UTF-8, without the trailing line end
    int severity = 0;
    std::string entity;  // the file name; empty for a text
    int line = 0;
    int column = 0;
};

// "Warning", "Error", "Fatal Error".
const char16_t* severityText(int severity);

class XmlInputStream {
public:
    // A document held as text: already Unicode, so an encoding named in its
    // declaration is ignored.
    static XmlInputStream onString(std::string utf8);
    // Raw bytes of a document (standard input); the declaration decides.
    static XmlInputStream onBytes(std::string bytes);
    // A document file, opened at once; see isOpen().
    static XmlInputStream onFile(const std::string& path);

    XmlInputStream(XmlInputStream&& other) noexcept;
    XmlInputStream& operator=(XmlInputStream&&) = delete;
    ~XmlInputStream();

    bool isOpen() const { return m_fd >= 0 || m_inMemory; }

private:
    friend class XmlParser;
    XmlInputStream() = default;

    std::string m_data;
    std::string m_path;
    int m_fd = -1;
    bool m_inMemory = false;
    bool m_ignoreDeclaredEncoding = false;
};

class XmlElement {
public:
    XmlElement() = default;
    explicit XmlElement(_xmlNode* node) : m_node(node) {}

    explicit operator bool() const { return m_node != nullptr; }
    // The qualified name ("prefix:local" when a prefix is written).
    std::string name() const;
    // True when the element's qualified name is exactly this.
    bool is(std::string_view qname) const;
    // Element children only; text, comments and the like are passed over.
    XmlElement firstChild() const;
    XmlElement nextSibling() const;
    // The attribute's value (UTF-8), empty when absent.
    std::string attribute(std::string_view name) const;
    // The text of the element and its descendants, in document order.
    std::string text() const;

private:
    friend class XmlDocument;
    _xmlNode* m_node = nullptr;
};

class XmlDocument {
public:
    XmlDocument();
    ~XmlDocument();
    XmlDocument(const XmlDocument&) = delete;
    XmlDocument& operator=(const XmlDocument&) = delete;

    XmlElement root() const;
    explicit operator bool() const { return m_doc != nullptr; }
    // Frees the tree early, once the model holds everything.
    void release();
    // Removes an element with its subtree from the tree and frees it; the
    // handle is empty afterwards. Freeing what has been read while the model
    // is built keeps the tree and the model from peaking together.
    void discard(XmlElement& elem);

private:
    friend class XmlParser;
    _xmlDoc* m_doc = nullptr;
};

class XmlParser {
public:
    XmlParser();
    ~XmlParser();
    XmlParser(const XmlParser&) = delete;
    XmlParser& operator=(const XmlParser&) = delete;

    // Parses the stream into doc; true on success. The errors of the run are
    // available afterwards, success or not.
    bool parse(XmlInputStream& in, XmlDocument& doc);
    size_t numErrors(int minSeverity) const;
    const XmlError& getError(size_t index, int minSeverity) const;

private:
    _xmlParserCtxt* m_ctxt = nullptr;
    std::vector<XmlError> m_errors;
};

}  // namespace kivreg::rt
