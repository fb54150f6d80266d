#pragma once
#include <string>

namespace kivreg {

class IHttpStatus {
public:
    virtual ~IHttpStatus() = default;
    // The code of the table row; a code missing from the table reports 100.
    virtual int getCode() const = 0;
    virtual const char16_t* getCode2() const = 0;  // the code as text
    // The added message followed by the row's reason text, e.g. "(OK)".
    virtual std::u16string getMessage() const = 0;
};

}  // namespace kivreg
