#pragma once
#include <span>
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
    // The row of the code, or the first row (100) for an unknown one: callers
    // see an unknown status as an interim answer, never as success.
    explicit HttpStatus(int code) { setCode(code); }

    int getCode() const override { return table()[m_index].code; }
    const char16_t* getCode2() const override { return table()[m_index].text.data(); }
    std::u16string getMessage() const override { return std::u16string(table()[m_index].reason); }

private:
    static std::span<const Row> table();
    void setCode(int code);  // once, on a fresh object

    size_t m_index = 0;
};

}  // namespace kivreg
