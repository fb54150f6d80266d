#pragma once
// An instance of a class: its id, its properties by name and its references
// by role, both kept in code-unit order of the key.

#include <map>
#include <string>

#include "model/CBaseElem.h"
#include "model/CProp.h"
#include "model/CRef.h"

namespace kivreg {

class CInst : public CXmlElem<CInst> {
public:
    using PropMap = std::map<std::u16string, CProp>;
    using RefMap = std::map<std::u16string, CRef>;

    CInst() = default;
    explicit CInst(std::u16string id) : m_id(std::move(id)) {}

    const std::u16string& getId() const { return m_id; }

    // A property or reference replaces an earlier one of the same name or role.
    void addProperty(const CProp& prop) { m_properties.insert_or_assign(prop.getName(), prop); }
    void addProperty(CProp&& prop) {
        m_properties.insert_or_assign(prop.getName(), std::move(prop));
    }
    void addProperty(const CProp* prop) {
        if (prop != nullptr) addProperty(*prop);
    }
    void addReference(const CRef& ref) { m_references.insert_or_assign(ref.getRoleName(), ref); }
    void addReference(CRef&& ref) {
        m_references.insert_or_assign(ref.getRoleName(), std::move(ref));
    }
    void addReference(const CRef* ref) {
        if (ref != nullptr) addReference(*ref);
    }

    PropMap::const_iterator getProperty(const std::u16string& name) const {
        return m_properties.find(name);
    }
    RefMap::const_iterator getReference(const std::u16string& roleName) const {
        return m_references.find(roleName);
    }
    PropMap::const_iterator getPropertyIterator() const { return m_properties.begin(); }
    PropMap::const_iterator getPropertyEnd() const { return m_properties.end(); }
    PropMap::iterator getPropertyChangeIterator() { return m_properties.begin(); }
    PropMap::iterator getPropertyChangeEnd() { return m_properties.end(); }
    RefMap::const_iterator getReferenceIterator() const { return m_references.begin(); }
    RefMap::const_iterator getReferenceEnd() const { return m_references.end(); }
    const PropMap& properties() const { return m_properties; }
    PropMap& properties() { return m_properties; }
    const RefMap& references() const { return m_references; }

    // The number of properties.
    size_t getValueCount() const { return m_properties.size(); }
    bool hasReference() const { return !m_references.empty(); }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

private:
    std::u16string m_id;
    PropMap m_properties;
    RefMap m_references;
};

}  // namespace kivreg
