#pragma once
// An instance of a class: its id, its properties by name and its references
// by role, both kept in code-unit order of the key.

#include <algorithm>
#include <string>
#include <vector>

#include "model/CProp.h"
#include "model/CRef.h"

namespace kivreg {

class CInst {
public:
    // Flat and sorted rather than node-based: a large document holds
    // hundreds of thousands of instances with a handful of entries each.
    using PropList = std::vector<CProp>;
    using RefList = std::vector<CRef>;

    CInst() = default;
    explicit CInst(std::u16string id) : m_id(std::move(id)) {}

    const std::u16string& getId() const { return m_id; }

    // A property or reference replaces an earlier one of the same name or role.
    void addProperty(CProp prop) { insertOrAssign(m_properties, std::move(prop)); }
    void addProperty(const CProp* prop) {
        if (prop != nullptr) addProperty(*prop);
    }
    void addReference(CRef ref) { insertOrAssign(m_references, std::move(ref)); }
    void addReference(const CRef* ref) {
        if (ref != nullptr) addReference(*ref);
    }
    // Gives back what the lists hold beyond their size, once the instance is complete.
    void compact() {
        m_properties.shrink_to_fit();
        m_references.shrink_to_fit();
    }

    PropList::const_iterator getProperty(const std::u16string& name) const {
        return find(m_properties, name);
    }
    RefList::const_iterator getReference(const std::u16string& roleName) const {
        return find(m_references, roleName);
    }
    PropList::const_iterator getPropertyIterator() const { return m_properties.begin(); }
    PropList::const_iterator getPropertyEnd() const { return m_properties.end(); }
    // Keys must not be changed through these.
    PropList::iterator getPropertyChangeIterator() { return m_properties.begin(); }
    PropList::iterator getPropertyChangeEnd() { return m_properties.end(); }
    RefList::const_iterator getReferenceIterator() const { return m_references.begin(); }
    RefList::const_iterator getReferenceEnd() const { return m_references.end(); }
    const PropList& properties() const { return m_properties; }
    PropList& properties() { return m_properties; }
    const RefList& references() const { return m_references; }

    // The number of properties.
    size_t getValueCount() const { return m_properties.size(); }
    bool hasReference() const { return !m_references.empty(); }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

private:
    static const std::u16string& keyOf(const CProp& p) { return p.getName(); }
    static const std::u16string& keyOf(const CRef& r) { return r.getRoleName(); }

    struct KeyLess {
        template <typename Elem>
        bool operator()(const Elem& e, const std::u16string& k) const {
            return keyOf(e) < k;
        }
    };

    template <typename List>
    static typename List::const_iterator find(const List& list, const std::u16string& key) {
        auto it = std::lower_bound(list.begin(), list.end(), key, KeyLess());
        return it != list.end() && keyOf(*it) == key ? it : list.end();
    }

    template <typename List, typename Elem>
    static void insertOrAssign(List& list, Elem&& elem) {
        const std::u16string& key = keyOf(elem);
        // Documents mostly list an instance's entries in order: try the end first.
        if (list.empty() || keyOf(list.back()) < key) {
            list.push_back(std::move(elem));
            return;
        }
        auto it = std::lower_bound(list.begin(), list.end(), key, KeyLess());
        if (keyOf(*it) == key)
            *it = std::move(elem);
        else
            list.insert(it, std::move(elem));
    }

    std::u16string m_id;
    PropList m_properties;
    RefList m_references;
};

}  // namespace kivreg
