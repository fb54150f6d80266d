#pragma once
// Which of a fixed set of patterns occur in a text, found in one pass over the
// text whatever the number of patterns (an Aho-Corasick automaton). Symbol
// substitution asks this after every replacement; searching for each
// placeholder in turn made every pass cost symbols times text.

#include <cstdint>
#include <string_view>
#include <vector>

namespace kivreg {

class PatternSet {
public:
    // The patterns must be distinct and not empty; they are not kept.
    explicit PatternSet(const std::vector<std::u16string_view>& patterns);

    // found[i] becomes 1 when pattern i occurs in text, else 0; returns how
    // many patterns occur.
    size_t find(std::u16string_view text, std::vector<uint8_t>& found) const;

private:
    static constexpr uint32_t kNone = UINT32_MAX;
    struct Node {
        uint32_t firstEdge = 0;
        uint32_t edgeCount = 0;
        uint32_t fail = 0;        // longest proper suffix that is also a prefix
        uint32_t output = kNone;  // nearest suffix node that ends a pattern
        uint32_t pattern = kNone;
    };
    struct Edge {
        char16_t c;
        uint32_t to;
    };
    uint32_t child(uint32_t node, char16_t c) const;

    std::vector<Node> m_nodes;
    std::vector<Edge> m_edges;  // each node's edges together, ordered by unit
    size_t m_patterns = 0;
};

}  // namespace kivreg
