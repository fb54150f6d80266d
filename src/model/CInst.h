#pragma once
// An instance of a class: its id, its properties ordered by name and its
// references ordered by role (16-bit unit order), held in the document's
// store.

#include <span>
#include <string_view>

#include "model/CProp.h"
#include "model/CRef.h"

namespace kivreg {

class CInst {
public:
    CInst() = default;
    CInst(std::string_view id, std::span<CProp> properties, std::span<const CRef> references)
        : m_id(id), m_properties(properties), m_references(references) {}

    std::string_view getId() const { return m_id; }
    std::span<const CProp> properties() const { return m_properties; }
    std::span<CProp> properties() { return m_properties; }
    std::span<const CRef> references() const { return m_references; }

private:
    std::string_view m_id;
    std::span<CProp> m_properties;
    std::span<const CRef> m_references;
};

}  // namespace kivreg
