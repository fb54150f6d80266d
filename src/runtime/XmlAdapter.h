#pragma once
// A small adapter over libxml2's streaming interface for reading the
// supplier's document: the parser reports start tags, end tags and text to a
// handler as it reads, and collects its own error records. No tree is built.
// The parser never touches the network and never loads external entities or
// DTDs; entities declared in the document itself are expanded.

#include <exception>
#include <string>
#include <string_view>
#include <vector>

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
    // Standard input, read as the parser asks for it; the declaration decides
    // the encoding. The last character read comes out twice.
    static XmlInputStream onStdin();
    // A document file, opened at once; see isOpen().
    static XmlInputStream onFile(const std::string& path);

    // Made in place by the functions above, never moved: it owns a descriptor.
    XmlInputStream(XmlInputStream&&) = delete;
    ~XmlInputStream();

    bool isOpen() const { return m_fd >= 0 || m_inMemory || m_stdin; }

private:
    friend class XmlParser;
    friend struct XmlEvents;
    XmlInputStream(std::string data, bool inMemory, bool fromStdin, std::string path, int fd)
        : m_data(std::move(data)),
          m_path(std::move(path)),
          m_fd(fd),
          m_inMemory(inMemory),
          m_stdin(fromStdin) {}

    std::string m_data;
    std::string m_path;
    int m_fd = -1;
    bool m_inMemory = false;
    bool m_stdin = false;
    // Standard input: its last bytes seen, and whether its end was reached.
    std::string m_tail;
    bool m_ended = false;
};

// Where the character that standard input repeats at its end begins: the
// start of the last UTF-8 sequence, or the last byte when that is no whole
// sequence's end.
size_t lastCharStart(std::string_view bytes);

// An element's start tag as the parser hands it over; valid during the call.
class XmlStartTag {
public:
    // The qualified name ("prefix:local" when a prefix is written).
    std::string name() const;
    // True when the element's qualified name is exactly this.
    bool is(std::string_view qname) const;
    // The attribute's value (UTF-8, entities expanded), empty when absent.
    std::string_view attribute(std::string_view qname) const;

private:
    friend struct XmlEvents;
    const unsigned char* m_local = nullptr;
    const unsigned char* m_prefix = nullptr;
    const unsigned char** m_attributes = nullptr;  // five pointers each
    int m_count = 0;
};

// Receives the document as it is read. Text arrives in pieces: a run of
// calls between two tags belongs together.
class XmlHandler {
public:
    virtual void startElement(const XmlStartTag& tag) = 0;
    virtual void endElement() = 0;
    virtual void text(std::string_view utf8) = 0;

protected:
    ~XmlHandler() = default;
};

class XmlParser {
public:
    XmlParser();
    ~XmlParser();
    XmlParser(const XmlParser&) = delete;
    XmlParser& operator=(const XmlParser&) = delete;

    // Reads an open stream, reporting to the handler; true when the document
    // is well-formed. The errors of the run are available afterwards. What the
    // handler throws stops the parse and is thrown on from here. One parse
    // per parser.
    bool parse(XmlInputStream& in, XmlHandler& handler);
    size_t numErrors(int minSeverity) const;
    const XmlError& getError(size_t index, int minSeverity) const;

private:
    friend struct XmlEvents;
    _xmlParserCtxt* m_ctxt = nullptr;
    XmlHandler* m_handler = nullptr;
    std::vector<XmlError> m_errors;
    std::exception_ptr m_failure;
    size_t m_textRun = 0;  // of the text since the last tag, for the text size limit
};

}  // namespace kivreg::rt
