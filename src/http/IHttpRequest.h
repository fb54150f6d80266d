#pragma once
// One HTTP/1.1 POST request on a connection that carries only it: an 8-bit header
// buffer and a body buffer, written to an IIPConnection. Text lines are converted to 7-bit ASCII
// (other characters become '?') and stored with CR LF; body bytes are stored as given.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kivreg {

class IIPConnection;
class IURL;
struct Status;

class IHttpRequest {
public:
    virtual ~IHttpRequest() = default;

    // Opens the connection to the URL's host (or its proxy) for one request.
    // Returns 10 when connected, -11 when the host is unknown or the open
    // failed (the network code is in *rc).
    virtual int connect(int* rc) = 0;

    // Header (Content-Length = body length) and body. *rc holds the code of
    // the body write; the result is header plus body bytes written.
    virtual size_t sendMessage(int* rc) = 0;
    // Why the last sendMessage failed, with the bytes sent of the request's.
    virtual const Status& failure() const = 0;

    // setHeaderline replaces the whole header with the one line.
    virtual void setHeaderline(std::u16string_view line) = 0;
    virtual void addHeaderline(std::u16string_view line) = 0;
    // The body to send, taken without copying: the bytes prepared for the
    // transfer are sent as they are.
    virtual void setBody(std::string&& bytes) = 0;
    virtual std::string_view body() const = 0;
    // Instead of bytes held whole, a body of `size` bytes that the writer
    // renders as it is sent, handing each piece (PROGRESS_STEP bytes but the
    // last) to the function it is given and stopping when that says false.
    // It is rendered again for each send, and must give the same bytes.
    using Piece = std::function<bool(std::string_view)>;
    using BodyWriter = std::function<void(size_t piece, const Piece& write)>;
    virtual void setBodyWriter(size_t size, BodyWriter writer) = 0;

    // Told the bytes of the body written so far and their total, after each
    // piece of at most PROGRESS_STEP bytes; without it the body goes out in
    // one write.
    using Progress = std::function<void(size_t written, size_t total)>;
    static constexpr size_t PROGRESS_STEP = size_t{1} << 20;
    virtual void setProgress(Progress progress) = 0;
};

// 0 and a request for the URL on the connection, or -1 when the object
// could not be made.
int createIHttpRequest(IIPConnection& connection, IURL& url, std::unique_ptr<IHttpRequest>& out);

}  // namespace kivreg
