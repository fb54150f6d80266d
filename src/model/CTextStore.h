#pragma once
// Where a document's texts and small records live. Names it repeats on every
// instance (property names, roles, the groups and classes references point
// at, source formats) are held once; values and ids are copied end to end
// into large blocks, and so are the records of properties, values and
// references. Elements keep views and spans into the store, which lives as
// long as the file that filled it; nothing in it moves or is freed before.

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

namespace kivreg {

// Large blocks of one trivially copyable record type.
template <typename T>
class CPool {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    // A lasting copy of the records.
    std::span<T> keep(std::span<const T> items) {
        if (items.empty()) return {};
        T* at = take(items.size());
        std::memcpy(static_cast<void*>(at), items.data(), items.size() * sizeof(T));
        return {at, items.size()};
    }

private:
    static constexpr size_t kBlock = size_t(1) << 14;

    T* take(size_t n) {
        if (n > m_left) {
            const size_t size = n > kBlock / 4 ? n : kBlock;
            T* block = m_blocks.emplace_back(std::make_unique_for_overwrite<T[]>(size)).get();
            // A large run gets a block of its own; the current block stays current.
            if (size != kBlock) return block;
            m_free = block;
            m_left = kBlock;
        }
        T* at = m_free;
        m_free += n;
        m_left -= n;
        return at;
    }

    std::vector<std::unique_ptr<T[]>> m_blocks;
    T* m_free = nullptr;
    size_t m_left = 0;
};

class CTextStore {
public:
    // The store's one copy of name; it never moves.
    std::string_view intern(std::string_view name) {
        if (name.empty()) return {};
        auto it = m_names.find(name);
        return it != m_names.end() ? *it : *m_names.insert(keep(name)).first;
    }

    // A lasting copy of text.
    std::string_view keep(std::string_view text) {
        if (text.empty()) return {};
        char* at = reserve(text.size());
        std::memcpy(at, text.data(), text.size());
        return commit(text.size());
    }

    // Room for at least n bytes at the end of the store, for a text that is
    // written in place and then committed. Reserving again keeps what was
    // written since the last commit; so a text may be built up in pieces.
    char* reserve(size_t n) {
        if (m_pending + n > m_left) {
            const size_t size = std::max(kBlockBytes, (m_pending + n) * 2);
            char* block = m_blocks.emplace_back(std::make_unique_for_overwrite<char[]>(size)).get();
            if (m_pending != 0) std::memcpy(block, m_free, m_pending);
            m_free = block;
            m_left = size;
        }
        return m_free + m_pending;
    }
    // Marks n more bytes of the reserved room as written.
    void wrote(size_t n) { m_pending += n; }
    // The text written since the last commit, cut to its first `size` bytes.
    std::string_view pending() const { return {m_free, m_pending}; }
    char* pendingData() { return m_free; }
    std::string_view commit(size_t size) {
        std::string_view text(m_free, size);
        m_free += size;
        m_left -= size;
        m_pending = 0;
        return text;
    }

    CPool<std::string_view>& values() { return m_values; }

private:
    static constexpr size_t kBlockBytes = size_t(1) << 20;

    std::unordered_set<std::string_view> m_names;
    std::vector<std::unique_ptr<char[]>> m_blocks;
    char* m_free = nullptr;
    size_t m_left = 0;
    size_t m_pending = 0;
    CPool<std::string_view> m_values;
};

}  // namespace kivreg
