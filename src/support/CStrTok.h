#pragma once

#include <string>

namespace kivreg {

// Splits a text at a delimiter; runs of adjacent delimiters count as one.
class CStrTok {
public:
    explicit CStrTok(std::u16string text) : m_text(std::move(text)) {}
    CStrTok(std::u16string text, std::u16string delimiter)
        : m_text(std::move(text)), m_delimiter(std::move(delimiter)) {
        chopit();
    }

    // Collapses every run of adjacent delimiters in the remaining text into one.
    void chopit();
    // Text up to the next delimiter (removed with it), or all that remains.
    std::u16string nextToken();
    bool hasMoreTokens() const { return !m_text.empty(); }
    std::u16string remainingString() const { return m_text; }

private:
    std::u16string m_text;
    std::u16string m_delimiter = u" ";
};

}  // namespace kivreg
