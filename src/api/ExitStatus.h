#pragma once
// The program's exit status for a run's result. The library needs it too:
// the status file a library host asks for reports the same number.

namespace kivreg::api {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitNoConnection = 2;
inline constexpr int kExitSymbols = 3;

// fromSymbols: the result is the symbol reader's own code (see ApiState).
inline int exitStatusOf(int result, bool fromSymbols) {
    if (result == 0) return kExitOk;
    if (fromSymbols) return kExitSymbols;
    if (result == -2) return kExitNoConnection;
    if (result == -1) return kExitFailed;
    return kExitSymbols;  // -10, -11: the symbol file could not be read
}

}  // namespace kivreg::api
