#pragma once
// Where a fixed set of patterns occur in a text, found in one pass over the
// text whatever the number of patterns (an Aho-Corasick automaton). Symbol
// substitution finds every placeholder of a text once and afterwards looks
// only around what it replaced; searching for each placeholder in turn made
// every pass cost symbols times text.

#include <cstdint>
#include <string_view>
#include <vector>

namespace kivreg {

class PatternSet {
public:
    // The patterns must be distinct and not empty; they are not kept.
    explicit PatternSet(const std::vector<std::string_view>& patterns);

    struct Match {
        uint32_t at;  // where the pattern starts
        uint32_t pattern;
        friend auto operator<=>(const Match&, const Match&) = default;
    };
    // Appends every occurrence, overlapping ones too, of every pattern in
    // text, which starts at offset `offset` of the whole; in the order the
    // occurrences end.
    void findAll(std::string_view text, size_t offset, std::vector<Match>& out) const;
    size_t length(uint32_t pattern) const { return m_lengths[pattern]; }
    size_t longest() const { return m_longest; }

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
        unsigned char c;
        uint32_t to;
    };
    uint32_t child(uint32_t node, unsigned char c) const;

    std::vector<Node> m_nodes;
    std::vector<Edge> m_edges;  // each node's edges together, ordered by byte
    std::vector<uint32_t> m_lengths;
    size_t m_longest = 0;
};

}  // namespace kivreg
