#include "model/PatternSet.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace kivreg {

PatternSet::PatternSet(const std::vector<std::string_view>& patterns) : m_lengths(patterns.size()) {
    for (size_t i = 0; i < patterns.size(); ++i) {
        m_lengths[i] = static_cast<uint32_t>(patterns[i].size());
        m_longest = std::max(m_longest, patterns[i].size());
    }
    // The trie is built breadth first from the sorted patterns, so that each
    // node's edges lie together, and a node's failure link, which always
    // leads to a shallower node, can be set as soon as the node is made.
    std::vector<uint32_t> order(patterns.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](uint32_t a, uint32_t b) { return patterns[a] < patterns[b]; });
    struct Pending {
        uint32_t node;
        size_t depth, lo, hi;  // the sorted patterns that pass through the node
    };
    std::vector<Pending> queue{{0, 0, 0, order.size()}};
    m_nodes.emplace_back();
    for (size_t next = 0; next < queue.size(); ++next) {
        auto [node, depth, lo, hi] = queue[next];
        // A pattern that ends here sorts before those that go on.
        if (lo < hi && patterns[order[lo]].size() == depth) m_nodes[node].pattern = order[lo++];
        m_nodes[node].firstEdge = static_cast<uint32_t>(m_edges.size());
        while (lo < hi) {
            const auto c = static_cast<unsigned char>(patterns[order[lo]][depth]);
            size_t end = lo + 1;
            while (end < hi && static_cast<unsigned char>(patterns[order[end]][depth]) == c) ++end;
            const auto made = static_cast<uint32_t>(m_nodes.size());
            Node n;
            if (node != 0) {
                for (uint32_t f = m_nodes[node].fail;; f = m_nodes[f].fail) {
                    if (const uint32_t t = child(f, c); t != kNone) {
                        n.fail = t;
                        break;
                    }
                    if (f == 0) break;
                }
            }
            const Node& fail = m_nodes[n.fail];
            n.output = fail.pattern != kNone ? n.fail : fail.output;
            m_nodes.push_back(n);
            m_edges.push_back({c, made});
            ++m_nodes[node].edgeCount;
            queue.push_back({made, depth + 1, lo, end});
            lo = end;
        }
    }
}

uint32_t PatternSet::child(uint32_t node, unsigned char c) const {
    const Node& n = m_nodes[node];
    const Edge* first = m_edges.data() + n.firstEdge;
    const Edge* last = first + n.edgeCount;
    if (n.edgeCount > 8)
        first = std::lower_bound(first, last, c,
                                 [](const Edge& e, unsigned char u) { return e.c < u; });
    else
        while (first != last && first->c < c) ++first;
    return first != last && first->c == c ? first->to : kNone;
}

void PatternSet::findAll(std::string_view text, size_t offset, std::vector<Match>& out) const {
    const Node* const nodes = m_nodes.data();
    const Edge* const edges = m_edges.data();
    // Outside any partial match only a pattern's first unit matters; when all
    // patterns share it, as placeholders do, the scan jumps from one to the next.
    const bool oneStart = nodes[0].edgeCount == 1;
    const char start = oneStart ? static_cast<char>(edges[nodes[0].firstEdge].c) : '\0';
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    uint32_t state = 0;
    for (const char* p = begin; p != end; ++p) {
        if (state == 0 && oneStart) {
            p = static_cast<const char*>(std::memchr(p, start, static_cast<size_t>(end - p)));
            if (p == nullptr) break;
        }
        const auto c = static_cast<unsigned char>(*p);
        for (;;) {
            if (const uint32_t t = child(state, c); t != kNone) {
                state = t;
                break;
            }
            if (state == 0) break;
            state = nodes[state].fail;
        }
        const Node& at = nodes[state];
        const size_t last = offset + static_cast<size_t>(p - begin);
        for (uint32_t u = at.pattern != kNone ? state : at.output; u != kNone;
             u = nodes[u].output) {
            const uint32_t pattern = nodes[u].pattern;
            out.push_back({static_cast<uint32_t>(last + 1 - m_lengths[pattern]), pattern});
        }
    }
}

}  // namespace kivreg
