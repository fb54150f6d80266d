#pragma once
// --output: the exact bytes of the transfer document, to a file or standard output.

#include <string_view>

namespace kivreg::api {

struct ApiState;

// True when --output is not set or the bytes were written; the reason is logged otherwise.
bool writeOutput(ApiState& s, std::string_view body);

}  // namespace kivreg::api
