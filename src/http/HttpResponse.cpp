#include "http/HttpResponse.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <new>

#include "http/IIPConnection.h"
#include "http/ParValDictionary.h"
#include "http/Trace.h"
#include "runtime/NetRc.h"
#include "support/Status.h"

namespace kivreg {

namespace {

constexpr int LEVEL = Trace::TRANSPORT_LEVEL;
constexpr size_t MAX_CHUNK_LINE = 4096;
constexpr size_t MAX_REASON = 120;

// Header bytes are 7-bit ASCII; anything else is shown as '?'.
std::u16string fromAscii(std::string_view bytes) {
    std::u16string out(bytes.size(), u'?');
    for (size_t i = 0; i < bytes.size(); ++i)
        if (static_cast<unsigned char>(bytes[i]) < 0x80) out[i] = static_cast<char16_t>(bytes[i]);
    return out;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// Decimal digits only, at most 2^31-1. Returns -1 when not a number, -2 when too large.
long long parseLength(std::u16string_view text) {
    if (text.empty()) return -1;
    long long n = 0;
    for (char16_t c : text) {
        if (c < u'0' || c > u'9') return -1;
        n = n * 10 + (c - u'0');
        if (n > INT_MAX) return -2;
    }
    return n;
}

// A line of the answer as a failure shows it: quoted, at most 64 characters.
std::string quoted(std::u16string_view text) {
    std::string out = "\"";
    for (char16_t c : text.substr(0, 64)) out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    return out + (text.size() > 64 ? "...\"" : "\"");
}

std::string quoted(std::string_view text) {
    return quoted(std::u16string(text.begin(), text.end()));
}

const char* const headerCap = "header above 262144 bytes";
const char* const bodyCap = "body above 67108864 bytes";

bool startsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

}  // namespace

int createIHttpResponse(IIPConnection& connection, std::unique_ptr<IHttpResponse>& out) {
    out.reset(new (std::nothrow) HttpResponse(&connection));
    return out ? 0 : -1;
}

void HttpResponse::reset() {
    m_rawHeader.clear();
    m_header.clear();
    m_fields.reset();
    std::string().swap(m_body);
    std::string().swap(m_buf);
    m_pos = 0;
    Trace::instance().t(LEVEL, "HttpResponse::reset");
}

std::u16string HttpResponse::getField(std::u16string_view name) const {
    const char16_t* value = m_fields ? m_fields->fetchVal(name) : nullptr;
    return value != nullptr ? value : u"";
}

int HttpResponse::close() {
    Trace::instance().t(LEVEL, "HttpResponse::close");
    return m_connection->close();
}

IHttpStatus* HttpResponse::getIHttpStatus() {
    if (!m_haveStatus) return nullptr;
    m_status = std::make_unique<HttpStatus>(m_statusCode, m_reasonPhrase);
    return m_status.get();
}

int HttpResponse::fail(int* rc, int code, std::string reason) {
    *rc = code;
    m_bodyDone = true;
    Trace::instance().t(LEVEL, "HttpResponse: answer refused:", code, rt::netRcText(code));
    if (code == rt::NET_ERR_LIMIT)
        m_failure = Status::failed(code, Status::Step::Receive, "Answer from", m_connection->peer(),
                                   std::move(reason), "refused");
    else if (code == rt::NET_ERR_PROTOCOL)
        m_failure = Status::failed(code, Status::Step::Receive, "Malformed answer from",
                                   m_connection->peer(), std::move(reason));
    else
        m_failure = m_connection->status();
    return 0;
}

int HttpResponse::lost(int* rc) {
    if (*rc != rt::NET_ERR_PROTOCOL && *rc != rt::NET_ERR_LIMIT) {
        m_failure = m_connection->status();
        m_failure.what = "No answer from";
    }
    return 0;
}

size_t HttpResponse::fill(int* rc) {
    if (m_pos == m_buf.size()) {
        m_buf.clear();
        m_pos = 0;
    } else if (m_pos >= m_readBufferSize) {
        m_buf.erase(0, m_pos);
        m_pos = 0;
    }
    const size_t old = m_buf.size();
    m_buf.resize(old + m_readBufferSize);
    const size_t n = m_connection->read(m_buf.data() + old, m_readBufferSize, rc);
    m_buf.resize(old + n);
    return n;
}

size_t HttpResponse::readInto(std::string& out, size_t want, int* rc, const char* firstTrace,
                              const char* laterTrace) {
    Trace& trace = Trace::instance();
    const size_t start = out.size();
    const size_t take = std::min(available(), want);
    out.append(m_buf, m_pos, take);
    m_pos += take;
    trace.t(LEVEL, firstTrace, *rc, take);
    out.resize(start + want);
    size_t have = take;
    while (have < want && *rc >= 0) {
        const size_t n = m_connection->read(out.data() + start + have, want - have, rc);
        have += n;
        trace.t(LEVEL, laterTrace, *rc, n);
    }
    out.resize(start + have);
    return have;
}

std::optional<std::string> HttpResponse::readLine(int* rc, size_t& budget) {
    size_t scanned = 0;
    for (;;) {
        const size_t nl = m_buf.find('\n', m_pos + scanned);
        if (nl != std::string::npos && nl - m_pos < budget) {
            std::string line(m_buf, m_pos, nl - m_pos);
            budget -= nl + 1 - m_pos;
            m_pos = nl + 1;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            return line;
        }
        if (available() >= budget) {
            *rc = rt::NET_ERR_LIMIT;
            return std::nullopt;
        }
        scanned = available();
        fill(rc);
        if (*rc < 0) return std::nullopt;
    }
}

int HttpResponse::readHeader(int* rc) {
    Trace& trace = Trace::instance();
    *rc = 0;
    m_rawHeader.clear();
    m_header.clear();
    m_fields.reset();
    m_version.clear();
    m_statusCode = 999;
    m_reasonPhrase.clear();
    m_haveStatus = false;
    m_contentLength = 0;
    m_chunked = false;
    m_failure = {};
    // The body's state is first touched after the final header, so interim
    // answers leave nothing of it to reset.

    // The header ends at the first empty line, whether lines end in CR LF or
    // in a bare LF. Only the new bytes are searched on each round.
    size_t scanned = 0;
    for (;;) {
        const size_t from = m_pos + (scanned > 3 ? scanned - 3 : 0);
        const size_t crlf = m_buf.find("\r\n\r\n", from);
        const size_t lf = m_buf.find("\n\n", from);
        if (crlf != std::string::npos || lf != std::string::npos) {
            const bool bareLf = lf < crlf;
            const size_t end = bareLf ? lf + 2 : crlf + 4;
            if (end - m_pos > MAX_HEADER) return fail(rc, rt::NET_ERR_LIMIT, headerCap);
            return parseHeader(end - m_pos, bareLf, rc);
        }
        if (available() > MAX_HEADER) return fail(rc, rt::NET_ERR_LIMIT, headerCap);
        scanned = available();
        fill(rc);
        trace.t(LEVEL, "HttpResponse::readHeader Read returns", *rc, available());
        if (*rc < 0) break;
    }
    // Closed or failed before the header was complete: there is no status.
    std::string().swap(m_buf);
    m_pos = 0;
    return lost(rc);
}

int HttpResponse::parseHeader(size_t length, bool bareLf, int* rc) {
    Trace& trace = Trace::instance();
    m_rawHeader = fromAscii(std::string_view(m_buf).substr(m_pos, length));
    m_pos += length;

    const size_t lineEnd = m_rawHeader.find(u'\n');
    std::u16string_view statusLine = std::u16string_view(m_rawHeader).substr(0, lineEnd);
    if (!statusLine.empty() && statusLine.back() == u'\r') statusLine.remove_suffix(1);
    const size_t blank = statusLine.find(u' ');
    m_version = statusLine.substr(0, blank);
    bool numbered = false;
    if (blank != std::u16string_view::npos) {
        std::u16string_view rest = statusLine.substr(blank + 1);
        const size_t digits = std::min(rest.find_first_not_of(u"0123456789"), rest.size());
        if (digits == 3 && (rest.size() == 3 || rest[3] == u' ')) {
            m_statusCode = static_cast<int>(parseLength(rest.substr(0, digits)));
            numbered = true;
            // Shown in the log: printable 7-bit text of a bounded length.
            m_reasonPhrase = rest.substr(std::min<size_t>(4, rest.size()), MAX_REASON);
            for (char16_t& c : m_reasonPhrase)
                if (c < 0x20 || c >= 0x7F) c = u'?';
        }
    }
    trace.t(LEVEL, "HttpResponse::readHeader", m_version);
    trace.t(LEVEL, "HttpResponse::readHeader Status", m_statusCode);
    if (!numbered) return fail(rc, rt::NET_ERR_PROTOCOL, "no status code in " + quoted(statusLine));
    m_haveStatus = true;

    m_header = m_rawHeader.substr(lineEnd + 1);
    if (createIParValMultilineDictionary(m_fields, bareLf ? u"\n" : u"\r\n", u";", u":=",
                                         u"\t\r\n ") != 0)
        return fail(rc, rt::NET_ERR_INVALID, {});
    m_fields->parseMultiline(m_header);
    if (const char16_t* value = m_fields->fetchVal(u"content-length")) {
        const long long n = parseLength(value);
        if (n < 0) {
            m_haveStatus = false;
            return n == -2 ? fail(rc, rt::NET_ERR_LIMIT, "Content-Length above 2147483647")
                           : fail(rc, rt::NET_ERR_PROTOCOL, "Content-Length is not a number");
        }
        m_contentLength = static_cast<size_t>(n);
        m_chunked = false;
        trace.t(LEVEL, "HttpResponse::readHeader Content-Length", n);
    }
    if (const char16_t* value = m_fields->fetchVal(u"transfer-encoding")) {
        if (equalsIgnoreCase(value, u"chunked")) {
            m_chunked = true;
            trace.t(LEVEL, "HttpResponse::readHeader Response is chunked");
        }
    }
    return static_cast<int>(m_header.size());
}

int HttpResponse::readHeaderSkip100(int* rc) {
    int skipped = 0;
    readHeader(rc);
    while (*rc == 0 && m_haveStatus && m_statusCode == 100) {
        // A server that keeps sending interim answers would hold us forever.
        if (skipped == MAX_INTERIM) {
            m_haveStatus = false;
            fail(rc, rt::NET_ERR_PROTOCOL,
                 "more than " + std::to_string(MAX_INTERIM) + " interim answers");
            break;
        }
        ++skipped;
        readHeader(rc);
    }
    return skipped;
}

size_t HttpResponse::readBody(int* rc) {
    *rc = 0;
    m_body.clear();
    if (!m_haveStatus || m_bodyDone) return 0;
    if (m_chunked) return readChunk(rc);
    if (m_contentLength > MAX_BODY) return fail(rc, rt::NET_ERR_LIMIT, bodyCap);
    m_body.reserve(m_contentLength);
    const size_t n =
        readInto(m_body, m_contentLength, rc, "HttpResponse::readBody Body Read returns",
                 "HttpResponse::readBody Body Completion Read returns");
    m_bodyTotal = n;
    m_bodyDone = true;
    return n;
}

size_t HttpResponse::readChunk(int* rc) {
    Trace& trace = Trace::instance();
    // The chunk's lines count against the body's bound as its bytes do.
    size_t budget = std::min(MAX_CHUNK_LINE, MAX_BODY - m_bodyTotal);
    const size_t before = budget;
    const std::optional<std::string> line = readLine(rc, budget);
    if (!line)
        return *rc == rt::NET_ERR_LIMIT
                   ? fail(rc, *rc,
                          budget < MAX_CHUNK_LINE ? bodyCap : "chunk size line above 4096 bytes")
                   : fail(rc, *rc, {});
    m_bodyTotal += before - budget;
    trace.t(LEVEL, "HttpResponse::readBody Chunk Header is", *line);

    // hex-size [ws] [";" extension]
    size_t i = 0;
    long long size = 0;
    for (; i < line->size(); ++i) {
        const char c = (*line)[i];
        const int d = c >= '0' && c <= '9'                     ? c - '0'
                      : (c | 0x20) >= 'a' && (c | 0x20) <= 'f' ? (c | 0x20) - 'a' + 10
                                                               : -1;
        if (d < 0) break;
        size = size * 16 + d;
        if (size > INT_MAX) return fail(rc, rt::NET_ERR_PROTOCOL, "chunk size above 31 bits");
    }
    while (i > 0 && i < line->size() && isBlank((*line)[i])) ++i;
    if (i == 0 || (i < line->size() && (*line)[i] != ';'))
        return fail(rc, rt::NET_ERR_PROTOCOL, "bad chunk size line " + quoted(*line));
    trace.t(LEVEL, "HttpResponse::readBody Chunk Length is", size);

    if (size == 0) {
        m_lastChunkSeen = true;
        m_bodyDone = true;
        return 0;
    }
    // The chunk and the line end after it: the count never passes the bound.
    if (static_cast<size_t>(size) + 2 > MAX_BODY - m_bodyTotal)
        return fail(rc, rt::NET_ERR_LIMIT, bodyCap);
    const size_t n =
        readInto(m_body, static_cast<size_t>(size), rc, "HttpResponse::readBody Chunk Read returns",
                 "HttpResponse::readBody Chunk Completion Read returns");
    m_bodyTotal += n;
    if (*rc >= 0) {
        // The chunk's own line end must follow at once.
        size_t lineEnd = 2;
        const std::optional<std::string> end = readLine(rc, lineEnd);
        m_bodyTotal += 2 - lineEnd;
        if (end && end->empty()) return n;
        if (end || *rc == rt::NET_ERR_LIMIT) *rc = rt::NET_ERR_PROTOCOL;
    }
    fail(rc, *rc, "chunk not followed by its line end");
    return n;
}

void HttpResponse::readFooter(int* rc) {
    *rc = 0;
    if (!m_lastChunkSeen) return;
    Trace& trace = Trace::instance();
    // Every trailer byte, whatever its lines end in, counts against the header's bound.
    size_t budget = MAX_HEADER;
    for (;;) {
        const std::optional<std::string> line = readLine(rc, budget);
        trace.t(LEVEL, "HttpResponse::readFooter Read returns", *rc, line ? line->size() : 0);
        if (!line) {
            if (*rc == rt::NET_ERR_LIMIT) fail(rc, *rc, "trailer above 262144 bytes");
            break;
        }
        if (line->empty()) break;
        if (startsWithIgnoreCase(*line, "X-Status:")) {
            std::string_view v = std::string_view(*line).substr(9);
            while (!v.empty() && isBlank(v.front())) v.remove_prefix(1);
            const size_t digits = std::min(v.find_first_not_of("0123456789"), v.size());
            if (digits == 3) {
                m_statusCode = std::stoi(std::string(v.substr(0, digits)));
                m_reasonPhrase.clear();  // the status line's phrase was for its own code
                trace.t(LEVEL, "HttpResponse::readFooter X-Status", m_statusCode);
            }
        }
    }
}

}  // namespace kivreg
