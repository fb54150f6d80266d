#pragma once
// The library's one exception type: raised only when text cannot be converted.

#include <cstdint>
#include <exception>
#include <string>

namespace kivreg {

enum ERegExceptType : int32_t {
    EREG_NONE = 0,        // default of a bare ERegExcept; never thrown
    EREG_CONVERSION = 4,  // a text conversion met malformed input
};

class ERegExcept : public std::exception {
public:
    ERegExcept() = default;
    explicit ERegExcept(ERegExceptType type) : m_type(type) {}
    ERegExcept(ERegExceptType type, std::u16string msg) : m_type(type), m_msg(std::move(msg)) {}

    ERegExceptType getExceptionType() const noexcept { return m_type; }
    const std::u16string& getExceptionMsg() const noexcept { return m_msg; }

    void setExceptType(ERegExceptType type) noexcept { m_type = type; }
    // The historical name of the message setter is kept.
    void setExpectMsg(const std::u16string& msg) { m_msg = msg; }
    void setExcept(const std::u16string& msg, ERegExceptType type) {
        m_msg = msg;
        m_type = type;
    }

    const char* what() const noexcept override { return "kivreg::ERegExcept"; }

private:
    ERegExceptType m_type = EREG_NONE;
    std::u16string m_msg;
};

}  // namespace kivreg
