#include "http/HttpStatus.h"

#include <array>

namespace kivreg {

namespace {

// The codes of HTTP/1.1 with their reason phrases, then the directory's own.
constexpr std::array<HttpStatus::Row, 58> ROWS{{
    {100, u"100", u"(Continue)"},
    {101, u"101", u"(Switching Protocols)"},
    {200, u"200", u"(OK)"},
    {201, u"201", u"(Created)"},
    {202, u"202", u"(Accepted)"},
    {203, u"203", u"(Non-Authoritative Information)"},
    {204, u"204", u"(No Content)"},
    {205, u"205", u"(Reset Content)"},
    {206, u"206", u"(Partial Content)"},
    {300, u"300", u"(Multiple Choices)"},
    {301, u"301", u"(Moved Permanently)"},
    {302, u"302", u"(Found)"},
    {303, u"303", u"(See Other)"},
    {304, u"304", u"(Not Modified)"},
    {305, u"305", u"(Use Proxy)"},
    {307, u"307", u"(Temporary Redirect)"},
    {400, u"400", u"(Bad Request)"},
    {401, u"401", u"(Unauthorized)"},
    {402, u"402", u"(Payment Required)"},
    {403, u"403", u"(Forbidden)"},
    {404, u"404", u"(Not Found)"},
    {405, u"405", u"(Method Not Allowed)"},
    {406, u"406", u"(Not Acceptable)"},
    {407, u"407", u"(Proxy Authentication Required)"},
    {408, u"408", u"(Request Time-out)"},
    {409, u"409", u"(Conflict)"},
    {410, u"410", u"(Gone)"},
    {411, u"411", u"(Length Required)"},
    {412, u"412", u"(Precondition Failed)"},
    {413, u"413", u"(Request Entity Too Large)"},
    {414, u"414", u"(Request-URI Too Large)"},
    {415, u"415", u"(Unsupported Media Type)"},
    {416, u"416", u"(Requested range not satisfiable)"},
    {417, u"417", u"(Expectation Failed)"},
    {500, u"500", u"(Internal Server Error)"},
    {501, u"501", u"(Not Implemented)"},
    {502, u"502", u"(Bad Gateway)"},
    {503, u"503", u"(Service Unavailable)"},
    {504, u"504", u"(Gateway Time-out)"},
    {505, u"505", u"(HTTP Version not supported)"},
    {250, u"250", u"(ORVELDAN Informative: Missing Documents created)"},
    {260, u"260", u"(ORVELDAN Informative: Empty request was not transferred)"},
    {600, u"600", u"(ORVELDAN Warning: Export/Import URL not found for category)"},
    {601, u"601", u"(ORVELDAN Warning: Category not found in table CATEGORIES)"},
    {602, u"602", u"(ORVELDAN Warning: Could not establish connection to peer)"},
    {603, u"603", u"(ORVELDAN Warning: Nonfatal errors occured, check log tables)"},
    {604, u"604", u"(ORVELDAN Warning: No content found for category in Transport File)"},
    {700, u"700", u"(ORVELDAN Error: Could not create IPConnection)"},
    {701, u"701", u"(ORVELDAN Error: Could not create HttpRequest)"},
    {702, u"702", u"(ORVELDAN Error: Could not create HttpResponse)"},
    {703, u"703", u"(ORVELDAN Error: Could not open Transport File)"},
    {704, u"704", u"(ORVELDAN Error: Could not open Transport File for creation)"},
    {705, u"705", u"(ORVELDAN Error: Could not open Transport File for reading)"},
    {706, u"706", u"(ORVELDAN Error: Transport file was not finalized during Export)"},
    {707, u"707", u"(ORVELDAN Error: No final status code received at end of Export)"},
    {800, u"800", u"(ORVELDAN Error: Null Pointer Exception raised)"},
    {810, u"810", u"(ORVELDAN Error: Connection to peer lost)"},
    {900, u"900", u"(ORVELDAN Error: Unknown HTTP Status or internal DRELL Transport Error)"},
}};

}  // namespace

std::span<const HttpStatus::Row> HttpStatus::table() {
    return ROWS;
}

HttpStatus::HttpStatus(int code, std::u16string_view reasonPhrase) : m_code(code) {
    for (const Row& row : ROWS) {
        if (row.code == code) {
            m_text = row.text;
            m_reason = row.reason;
            return;
        }
    }
    const std::string digits = std::to_string(code);
    m_text.assign(digits.begin(), digits.end());
    m_reason = u"(" + std::u16string(reasonPhrase) + u")";
}

}  // namespace kivreg
