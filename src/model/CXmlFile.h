#pragma once
// The supplier's input document and the root of the model: loading from a
// file, a string or standard input, symbol replacement, reference
// validation, the transfer bodies and the data trace dump.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "model/CGroup.h"
#include "model/CTextStore.h"
#include "model/PSymbols.h"

namespace kivreg {

class CLog;

namespace rt {
class XmlInputStream;
class XmlStartTag;
}  // namespace rt

class CXmlFile {
public:
    using GroupList = std::vector<CGroup>;

    // Element and attribute names of the input vocabulary.
    static constexpr std::string_view ms_tagKivInfo = "kivinfo";
    static constexpr std::string_view ms_tagGroup = "group";
    static constexpr std::string_view ms_tagClass = "class";
    static constexpr std::string_view ms_tagRootClass = "rootclass";
    static constexpr std::string_view ms_tagMemberClass = "memberclass";
    static constexpr std::string_view ms_tagInstance = "instance";
    static constexpr std::string_view ms_tagProperty = "property";
    static constexpr std::string_view ms_tagValue = "value";
    static constexpr std::string_view ms_tagReference = "reference";
    static constexpr std::string_view ms_attrSupplierName = "supplier_name";
    static constexpr std::string_view ms_attrSupplierVersion = "supplier_version";
    static constexpr std::string_view ms_attrSupplierVendor = "supplier_vendor";
    static constexpr std::string_view ms_attrModelVersion = "model_version";
    static constexpr std::string_view ms_attrName = "name";
    static constexpr std::string_view ms_attrDataType = "data_type";
    static constexpr std::string_view ms_attrDataVersion = "data_version";
    static constexpr std::string_view ms_attrGroupType = "group_type";
    static constexpr std::string_view ms_attrSync = "sync";
    static constexpr std::string_view ms_attrMergeProperties = "merge_properties";
    static constexpr std::string_view ms_attrClean = "clean";
    static constexpr std::string_view ms_attrMergeRoots = "merge_roots";
    static constexpr std::string_view ms_attrAssocName = "association_name";
    static constexpr std::string_view ms_attrRootRole = "root_role";
    static constexpr std::string_view ms_attrMemberRole = "member_role";
    static constexpr std::string_view ms_attrMergeMembers = "merge_members";
    static constexpr std::string_view ms_attrOptional = "optional";
    static constexpr std::string_view ms_attrMergeAssocClass = "mergeAssocClass";
    static constexpr std::string_view ms_attrMergeRootClass = "mergeRootClass";
    static constexpr std::string_view ms_attrMergeMemberClass = "mergeMemberClass";
    static constexpr std::string_view ms_attrInstId = "inst_id";
    static constexpr std::string_view ms_attrSourceformat = "sourceformat";
    static constexpr std::string_view ms_attrRoleName = "rolename";
    static constexpr std::string_view ms_attrGroupName = "groupname";
    static constexpr std::string_view ms_attrClassName = "classname";
    static constexpr std::string_view ms_attrTypeId = "typeid";
    static constexpr std::string_view ms_attrVersionId = "versionid";

    static constexpr std::string_view GENERIC_GROUP_TYPE = "GENERIC";
    static constexpr std::string_view SPECIFIC_GROUP_TYPE = "SPECIFIC";
    static constexpr std::string_view TRUE_VALUE = "TRUE";
    static constexpr std::string_view FALSE_VALUE = "FALSE";
    static constexpr std::string_view CLEAN_NONE = "NONE";
    static constexpr std::string_view CLEAN_LONE = "LONE";
    static constexpr std::string_view CLEAN_ALL = "ALL";

    // Reads standard input.
    explicit CXmlFile(CLog* log);
    // Reads the file; an empty name reads standard input.
    CXmlFile(CLog* log, const std::u16string& fileName);
    // Parses the text handed in; the integer only selects this overload.
    CXmlFile(CLog* log, const std::u16string& data, int);

    bool load();
    bool load(const std::u16string& data);

    bool isLoaded() const { return m_loaded; }
    const std::string& getSupplierName() const { return m_supplierName; }
    const std::string& getSupplierVersion() const { return m_supplierVersion; }
    const std::string& getSupplierVendor() const { return m_supplierVendor; }
    const std::string& getModelVersion() const { return m_modelVersion; }
    const std::u16string& getFileName() const { return m_fileName; }

    const GroupList& groups() const { return m_groups; }

    void setSymbols(const PSymbols& symbols) { m_symbols = symbols; }
    const PSymbols& getSymbols() const { return m_symbols; }
    // False when a bound stopped substitution (logged): the document must not be sent.
    bool replaceSymbols();

    bool validateReferences() const;

    void setOldTransferDtd(bool on) { m_oldTransferDtd = on; }
    bool useOldTransferDtd() const { return m_oldTransferDtd; }
    // Appends the transfer body in the chosen format to out, which grows
    // once, to the exact length.
    void appendBody(std::string& out) const;
    // The length of the body appendBody would append; counted once for each
    // format until the model changes.
    size_t bodySize() const;
    // head and then the body, handed to write in pieces of exactly `piece`
    // bytes (the last one shorter) from a buffer of that size; the model does
    // not change after substitution, so every call gives the same bytes.
    // False when write refused a piece: none are handed on after it.
    bool writeBody(std::string_view head, size_t piece,
                   const std::function<bool(std::string_view)>& write) const;

    // Writes the whole model to the log.
    void write2File() const;

private:
    class Builder;
    template <typename Out>
    void render(Out& out) const;
    template <typename Out>
    void renderBody(Out& out) const;
    template <typename Out>
    void renderBodyOld(Out& out) const;
    bool loadStream(rt::XmlInputStream& in);
    bool processGroup(const rt::XmlStartTag& elem, CGroup& group);
    bool processClass(const rt::XmlStartTag& elem, int type, CClass& cls);
    void addGroup(CGroup&& group);

    // The records and texts the elements refer to, shared so that a copy of
    // the file keeps them.
    struct Store {
        CTextStore texts;
        CPool<CProp> properties;
        CPool<CRef> references;
    };
    GroupList m_groups;
    std::shared_ptr<Store> m_store = std::make_shared<Store>();
    struct NameHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
    };
    // Index into m_groups of the last group of each name.
    std::unordered_map<std::string, size_t, NameHash, std::equal_to<>> m_groupsByName;
    CLog* m_log;
    bool m_loaded = false;
    std::u16string m_fileName;
    std::string m_supplierName;
    std::string m_supplierVersion;
    std::string m_supplierVendor;
    std::string m_modelVersion;
    bool m_oldTransferDtd = false;
    static constexpr size_t kUncounted = ~size_t{0};
    mutable size_t m_bodySizes[2] = {kUncounted, kUncounted};  // by m_oldTransferDtd
    void forgetBodySizes() { m_bodySizes[0] = m_bodySizes[1] = kUncounted; }
    PSymbols m_symbols;
};

}  // namespace kivreg
