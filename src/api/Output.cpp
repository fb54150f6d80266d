#include "api/Output.h"

#include <cerrno>
#include <cstring>

#include "api/ApiState.h"
#include "api/Vocabulary.h"
#include "runtime/FileIo.h"
#include "support/CCConv.h"

namespace kivreg::api {

bool writeOutput(ApiState& s, std::string_view body) {
    if (!s.gArgs.isSwitchSet(CMDARG_OUTPUT)) return true;
    const std::u16string name = s.gArgs.getArg(CMDARG_OUTPUT);
    int error = 0;
    if (name == u"-") {
        if (!rt::writeAll(s.outputFd, body.data(), body.size())) error = errno != 0 ? errno : EIO;
    } else if (!name.empty()) {
        // The mode a file the host creates would get; set on the temporary file.
        error = rt::replaceFile(CCConv::toUTF8Str(name), body, 0666 & ~rt::currentUmask());
    }
    if (error == 0 && !name.empty()) return true;
    s.gLog << timestamp << u"Failed to write the transfer document to " << name << u": "
           << (name.empty() ? "no file name given" : std::strerror(error)) << endlog;
    s.failure = FailureReason::Output;
    return false;
}

}  // namespace kivreg::api
