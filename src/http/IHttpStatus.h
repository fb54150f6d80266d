#pragma once
#include <string>

namespace kivreg {

class IHttpStatus {
public:
    virtual ~IHttpStatus() = default;
    // The answer's status code.
    virtual int getCode() const = 0;
    virtual const char16_t* getCode2() const = 0;  // the code as text
    // The table's reason text, e.g. "(OK)"; for a code the table lacks, the
    // answer's own reason phrase in parentheses, e.g. "(Too Many Requests)".
    virtual std::u16string getMessage() const = 0;
};

}  // namespace kivreg
