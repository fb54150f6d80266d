#pragma once
// The older transfer document (root "qordata"), which older directory
// bridges still expect: instances listed flatly with their class name, no
// groups, no class kinds, and nothing escaped.

#include <string>

namespace kivreg {

class CClass;
class CInst;
class CXmlFile;

class CClassicXml {
public:
    CClassicXml(std::u16string type, std::u16string version, const CXmlFile* file)
        : m_type(std::move(type)), m_version(std::move(version)), m_file(file) {}

    void reset(std::u16string type, std::u16string version, const CXmlFile* file);
    // Renders the model (nothing is read; the name is the historical one).
    void parse();
    // Renders when nothing is rendered yet.
    const std::u16string& getXml();
    // The rendered text, handed over without a copy.
    std::u16string takeXml() &&;
    // Writes the document into a string, UTF-8 bytes or a counter.
    template <typename Out>
    void render(Out& out) const;

private:
    template <typename Out>
    static void renderInstance(Out& out, const CClass& cls, const CInst& inst);

    std::u16string m_text;
    std::u16string m_type;
    std::u16string m_version;
    const CXmlFile* m_file;
};

}  // namespace kivreg
