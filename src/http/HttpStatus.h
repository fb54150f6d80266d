#pragma once
#include <span>
#include <string>
#include <string_view>

#include "http/IHttpStatus.h"

namespace kivreg {

class HttpStatus final : public IHttpStatus {
public:
    struct Row {
        int code;
        std::u16string_view text;    // the code as text
        std::u16string_view reason;  // in parentheses
    };
    // The row of the code; a code the table lacks stands as it is, with the
    // answer's own reason phrase.
    HttpStatus(int code, std::u16string_view reasonPhrase);

    int getCode() const override { return m_code; }
    const char16_t* getCode2() const override { return m_text.c_str(); }
    std::u16string getMessage() const override { return m_reason; }

private:
    static std::span<const Row> table();

    int m_code;
    std::u16string m_text;
    std::u16string m_reason;
};

}  // namespace kivreg
