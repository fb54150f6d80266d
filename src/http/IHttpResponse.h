#pragma once
// One HTTP answer read from an IIPConnection: status line and header, the body
// (by Content-Length or chunked) and the trailer of a chunked body. Failures
// come back as codes of runtime/NetRc.h in *rc.
//
// A server is not trusted to be sane: a header above MAX_HEADER bytes, a
// status line without a three-digit code, a chunk size that is not
// hexadecimal or does not fit in 31 bits, or a Content-Length above 2^31-1 is
// a failed read; a body above MAX_BODY bytes (chunk size lines and line ends
// included) and a trailer above MAX_HEADER bytes are refused rather than
// read.

#include <memory>
#include <string>

namespace kivreg {

class IIPConnection;
class IHttpStatus;
struct Status;

class IHttpResponse {
public:
    static constexpr size_t MAX_HEADER = 256 * 1024;
    static constexpr size_t MAX_BODY = 64 * 1024 * 1024;
    static constexpr int MAX_INTERIM = 64;  // 100-Continue answers skipped at most

    virtual ~IHttpResponse() = default;

    // Clears header, body and unread bytes; the status stays.
    virtual void reset() = 0;
    virtual int close() = 0;
    // The status of the last header read, owned by the response (valid until
    // the next call); null when no status line could be had.
    virtual IHttpStatus* getIHttpStatus() = 0;
    // The number in the status line (or X-Status trailer); 999 before one was read.
    virtual int getStatusCode() const = 0;
    // The status line's text after the number, as sent.
    virtual const std::u16string& getReasonPhrase() const = 0;
    // Why the last read failed: no answer, or one malformed or beyond a bound.
    virtual const Status& failure() const = 0;
    virtual bool isChunked() const = 0;

    // The status line and header, skipping interim answers with status 100;
    // returns how many were skipped.
    virtual int readHeaderSkip100(int* rc) = 0;
    // The whole body of a Content-Length answer, or one chunk of a chunked
    // one; returns the body bytes of this call, 0 once the body has ended.
    virtual size_t readBody(int* rc) = 0;
    // The trailer after the last chunk; an "X-Status:" line replaces the status.
    virtual void readFooter(int* rc) = 0;

    virtual const std::u16string& getHeader() const = 0;  // without status line
    // The value of the header's first field of that name, any case; empty
    // when there is none.
    virtual std::u16string getField(std::u16string_view name) const = 0;
    virtual const std::string& getBody() const = 0;  // bytes of the last body read
};

// 0 and a response reading from the connection, or -1 when the object could
// not be made.
int createIHttpResponse(IIPConnection& connection, std::unique_ptr<IHttpResponse>& out);

}  // namespace kivreg
