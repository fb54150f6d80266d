#pragma once
// A property of an instance: a name, a free-text source format and its values.
// The name and the format are references to the text store's names, the
// values views of texts it keeps.

#include <string>
#include <string_view>
#include <vector>

#include "model/CTextStore.h"

namespace kivreg {

class CProp {
public:
    using ValueList = std::vector<std::u16string_view>;

    CProp() = default;
    explicit CProp(const std::u16string* name) : m_name(name) {}
    explicit CProp(const CProp* other) : CProp(*other) {}

    const std::u16string& getName() const { return *m_name; }
    const std::u16string& getSourceformat() const { return *m_sourceformat; }
    void setSourceformat(const std::u16string* format) { m_sourceformat = format; }

    void addValue(std::u16string_view value) { m_values.push_back(value); }
    size_t getValueCount() const { return m_values.size(); }
    ValueList::const_iterator getValueIterator() const { return m_values.begin(); }
    ValueList::const_iterator getValueEnd() const { return m_values.end(); }
    ValueList::iterator getValueChangeIterator() { return m_values.begin(); }
    ValueList::iterator getValueChangeEnd() { return m_values.end(); }
    const ValueList& values() const { return m_values; }

    // True when the property has no name; the values do not count.
    bool isEmpty() const { return m_name->empty(); }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

    // The five markup characters of a value replaced by their entities;
    // everything else, an existing entity included, is copied as it is.
    static std::u16string escapeXML(std::u16string_view value);
    template <typename Out>
    static void appendEscaped(Out& out, std::u16string_view value) {
        size_t start = 0;
        for (size_t i = 0; i < value.size(); ++i) {
            const char16_t* entity;
            switch (value[i]) {
                case u'&':
                    entity = u"&amp;";
                    break;
                case u'<':
                    entity = u"&lt;";
                    break;
                case u'>':
                    entity = u"&gt;";
                    break;
                case u'"':
                    entity = u"&quot;";
                    break;
                case u'\'':
                    entity = u"&apos;";
                    break;
                default:
                    continue;
            }
            out += value.substr(start, i - start);
            out += entity;
            start = i + 1;
        }
        out += value.substr(start);
    }

private:
    const std::u16string* m_name = &CTextStore::none();
    const std::u16string* m_sourceformat = &CTextStore::none();
    ValueList m_values;
};

}  // namespace kivreg
