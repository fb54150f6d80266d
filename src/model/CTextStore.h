#pragma once
// Where a document's texts and small records live. Names it repeats on every
// instance (property names, roles, the groups and classes references point
// at, source formats) are held once; values and ids are copied end to end
// into large blocks, and so are the records of properties, values and
// references. Elements keep views and spans into the store, which lives as
// long as the file that filled it; nothing in it moves or is freed before.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
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
        // Open addressing over a table at most half full: the names are few
        // and short, and looked up for nearly every element.
        if (m_namesHeld * 2 >= m_names.size()) growNames();
        const size_t mask = m_names.size() - 1;
        for (size_t i = hashOf(name) & mask;; i = (i + 1) & mask) {
            std::string_view& slot = m_names[i];
            if (slot.data() == nullptr) {
                ++m_namesHeld;
                return slot = keep(name);
            }
            if (slot == name) return slot;
        }
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

    static size_t hashOf(std::string_view s) {
        uint64_t h = 0xcbf29ce484222325u;  // FNV-1a
        for (const char c : s) h = (h ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
        return static_cast<size_t>(h ^ (h >> 29));
    }
    void growNames() {
        std::vector<std::string_view> old(std::max<size_t>(64, m_names.size() * 2));
        old.swap(m_names);
        const size_t mask = m_names.size() - 1;
        for (const std::string_view name : old) {
            if (name.data() == nullptr) continue;
            size_t i = hashOf(name) & mask;
            while (m_names[i].data() != nullptr) i = (i + 1) & mask;
            m_names[i] = name;
        }
    }

    std::vector<std::string_view> m_names;  // empty slots have no data
    size_t m_namesHeld = 0;
    std::vector<std::unique_ptr<char[]>> m_blocks;
    char* m_free = nullptr;
    size_t m_left = 0;
    size_t m_pending = 0;
    CPool<std::string_view> m_values;
};

}  // namespace kivreg
