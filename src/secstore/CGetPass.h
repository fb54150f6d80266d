#pragma once
// Password input from the terminal on descriptor 0: every typed character is
// answered with "*", backspace erases one, Enter ends the input.

#include <string>

namespace kivreg {

class CGetPass {
public:
    CGetPass() = delete;

    static constexpr int MAX_INPUT_LEN = 100;

    // Hidden input, trimmed of blanks at both ends.
    static std::u16string getPasswd();

    // The reading loop alone; `buffer` holds MAX_INPUT_LEN + 1 units and
    // receives a zero-terminated text.
    static void getHiddenInput(char16_t* buffer);
    // Non-canonical mode without echo; false when the terminal could not be
    // switched (the input is then read as the terminal delivers it). Until
    // setTermToOrgMode, SIGINT, SIGTERM, SIGHUP and SIGTSTP put the saved mode
    // back before their default action, and SIGCONT returns to this mode.
    static bool setTermToRawMode();
    // Back to the attributes in force before a successful setTermToRawMode.
    static void setTermToOrgMode();
};

}  // namespace kivreg
