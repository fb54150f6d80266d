#pragma once
// Common base of the model elements: the ordered attribute list, and the
// rendering of the element as transfer-document text.

#include <string>
#include <vector>

#include "model/CAttr.h"
#include "model/XmlLength.h"

namespace kivreg {

class CLog;

class CBaseElem {
public:
    using AttrList = std::vector<CAttr>;

    CBaseElem() = default;
    CBaseElem(const CBaseElem&) = default;
    CBaseElem(CBaseElem&&) noexcept = default;
    CBaseElem& operator=(const CBaseElem&) = default;
    CBaseElem& operator=(CBaseElem&&) noexcept = default;
    virtual ~CBaseElem() = default;

    // Appends the element's complete text, children included, to out. Parents
    // render their children into the same buffer, so a whole document is
    // built without intermediate strings.
    virtual void appendXml(std::u16string& out) const = 0;
    // The length, in code units, of what appendXml would append.
    virtual size_t xmlLength() const = 0;
    std::u16string getXml() const {
        std::u16string out;
        out.reserve(xmlLength());
        appendXml(out);
        return out;
    }

    void addAttribute(const CAttr& attr) { m_attributes.push_back(attr); }
    void addAttribute(CAttr&& attr) { m_attributes.push_back(std::move(attr)); }
    void addAttribute(const CAttr* attr) { m_attributes.push_back(*attr); }
    void addAttribute(std::u16string name, std::u16string value) {
        m_attributes.emplace_back(std::move(name), std::move(value));
    }
    void addAttribute(std::u16string name, std::u16string value, std::u16string defaultValue) {
        m_attributes.emplace_back(std::move(name), std::move(value), std::move(defaultValue));
    }

    // First attribute whose name matches ignoring case, or getAttributeEnd().
    AttrList::const_iterator getAttribute(const std::u16string& name) const;
    // Its value (or default); empty when there is no such attribute.
    std::u16string getAttributeValue(const std::u16string& name) const;

    AttrList::const_iterator getAttributeIterator() const { return m_attributes.begin(); }
    AttrList::const_iterator getAttributeEnd() const { return m_attributes.end(); }
    AttrList::iterator getAttributeChangeIterator() { return m_attributes.begin(); }
    AttrList::iterator getAttributeChangeEnd() { return m_attributes.end(); }
    const AttrList& attributes() const { return m_attributes; }
    AttrList& attributes() { return m_attributes; }

    // Logs every attribute that is not valid; true when none failed.
    bool validateAttributes(CLog* log) const;

protected:
    // " name=\"value\"" for every attribute, in list order.
    template <typename Out>
    void renderAttributes(Out& out) const {
        for (const CAttr& a : m_attributes) {
            out += u' ';
            out += a.getName();
            putAttribute(out, u"=\"", a.getValue());
        }
    }

private:
    AttrList m_attributes;
};

// Supplies appendXml and xmlLength from the element's one render template,
// run into the output string or into an XmlLength counter. Each element
// instantiates its render for both in CElements.cpp.
template <typename Elem>
class CXmlElem : public CBaseElem {
public:
    void appendXml(std::u16string& out) const final { self().render(out); }
    size_t xmlLength() const final {
        XmlLength n;
        self().render(n);
        return n.units;
    }

private:
    const Elem& self() const { return static_cast<const Elem&>(*this); }
};

}  // namespace kivreg
