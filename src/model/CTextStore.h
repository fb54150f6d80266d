#pragma once
// Where a document's texts live. Names it repeats on every instance
// (property names, roles, the groups and classes references point at,
// source formats) are held once; values are copied end to end into large
// blocks. Elements keep references and views into the store, which lives
// as long as the file that filled it.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace kivreg {

class CTextStore {
public:
    // The store's one copy of name; it never moves.
    const std::u16string& intern(std::u16string_view name) {
        auto it = m_names.find(name);
        return it != m_names.end() ? *it : *m_names.emplace(name).first;
    }
    // What an element refers to before it is given a name.
    static const std::u16string& none() {
        static const std::u16string empty;
        return empty;
    }

    // A lasting copy of text.
    std::u16string_view keep(std::u16string_view text) {
        if (text.size() > m_left) {
            // A text larger than a block gets one of its own; the current
            // block stays current, so little is left unused.
            if (text.size() > kBlockUnits / 4)
                return copyTo(m_blocks.emplace_back(new char16_t[text.size()]).get(), text);
            m_free = m_blocks.emplace_back(new char16_t[kBlockUnits]).get();
            m_left = kBlockUnits;
        }
        std::u16string_view copy = copyTo(m_free, text);
        m_free += text.size();
        m_left -= text.size();
        return copy;
    }

private:
    static constexpr size_t kBlockUnits = size_t(1) << 19;

    static std::u16string_view copyTo(char16_t* at, std::u16string_view text) {
        std::char_traits<char16_t>::copy(at, text.data(), text.size());
        return {at, text.size()};
    }

    struct Hash {
        using is_transparent = void;
        size_t operator()(std::u16string_view s) const {
            return std::hash<std::u16string_view>()(s);
        }
    };
    // Node-based, so a name never moves as the table grows.
    std::unordered_set<std::u16string, Hash, std::equal_to<>> m_names;
    std::vector<std::unique_ptr<char16_t[]>> m_blocks;
    char16_t* m_free = nullptr;
    size_t m_left = 0;
};

}  // namespace kivreg
