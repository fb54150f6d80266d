#include "support/CStrTok.h"

namespace kivreg {

void CStrTok::chopit() {
    if (m_delimiter.empty()) return;
    const size_t d = m_delimiter.size();
    std::u16string out;
    out.reserve(m_text.size());
    size_t pos = 0;
    while (pos < m_text.size()) {
        if (m_text.compare(pos, d, m_delimiter) == 0) {
            out += m_delimiter;
            pos += d;
            while (m_text.compare(pos, d, m_delimiter) == 0) pos += d;
        } else {
            out += m_text[pos++];
        }
    }
    m_text.swap(out);
}

std::u16string CStrTok::nextToken() {
    const size_t at = m_delimiter.empty() ? std::u16string::npos : m_text.find(m_delimiter);
    std::u16string token;
    if (at == std::u16string::npos) {
        token.swap(m_text);
    } else {
        token = m_text.substr(0, at);
        m_text.erase(0, at + m_delimiter.size());
    }
    return token;
}

}  // namespace kivreg
