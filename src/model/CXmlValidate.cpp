// Reference validation: every reference must name a group, a class in it
// and an instance of that class; the first that does not is reported for
// each instance.

#include <unordered_map>
#include <unordered_set>

#include "model/CXmlFile.h"
#include "model/Utf8Log.h"
#include "support/CLog.h"

namespace kivreg {

bool CXmlFile::validateReferences() const {
    // Resolution tables, built on first need: the first class of each name
    // in a referenced group, and the instance ids of each referenced class.
    // They hash views of the texts the model holds.
    std::vector<std::unordered_map<std::string_view, const CClass*>> classesOf(m_groups.size());
    std::vector<bool> classesBuilt(m_groups.size(), false);
    std::unordered_map<const CClass*, std::unordered_set<std::string_view>> idsOf;

    auto findClass = [&](size_t groupIndex, std::string_view name) -> const CClass* {
        auto& table = classesOf[groupIndex];
        if (!classesBuilt[groupIndex]) {
            for (const CClass& c : m_groups[groupIndex].classes())
                table.try_emplace(c.getName(), &c);
            classesBuilt[groupIndex] = true;
        }
        auto it = table.find(name);
        return it == table.end() ? nullptr : it->second;
    };
    auto hasInstance = [&](const CClass* cls, std::string_view id) {
        auto [it, fresh] = idsOf.try_emplace(cls);
        if (fresh) {
            it->second.reserve(cls->instances().size());
            for (const CInst& i : cls->instances()) it->second.insert(i.getId());
        }
        return it->second.contains(id);
    };

    bool ok = true;
    std::string target;
    for (const CGroup& g : m_groups) {
        for (const CClass& c : g.classes()) {
            for (const CInst& inst : c.instances()) {
                for (const CRef& ref : inst.references()) {
                    const char16_t* kind;
                    auto gi = m_groupsByName.find(ref.getGroupName());
                    if (gi == m_groupsByName.end()) {
                        kind =
                            u"Unknown group referenced (Location: group|assoc_class / Reference: "
                            u"associated group):\n";
                        target = ref.getGroupName();
                    } else {
                        const CGroup& tg = m_groups[gi->second];
                        const CClass* tc = findClass(gi->second, ref.getClassName());
                        if (tc == nullptr) {
                            kind =
                                u"Unknown class referenced (Location: group|assoc_class / "
                                u"Reference: associated group|asscociated class):\n";
                            ((target = tg.getName()) += '|') += ref.getClassName();
                        } else if (!hasInstance(tc, ref.getInstId())) {
                            kind =
                                u"Unknown instance ID specified (Location: group|assoc_class / "
                                u"Reference: associated group|asscociated class|associated inst "
                                u"ID):\n";
                            ((((target = tg.getName()) += '|') += tc->getName()) += '|') +=
                                ref.getInstId();
                        } else {
                            continue;
                        }
                    }
                    *m_log << timestamp << u"On validating associations specified in XML input:\n"
                           << kind << u"(1) Location: " << Utf8(g.getName()) << u"|"
                           << Utf8(c.getName()) << u"\n(2) Reference: " << Utf8(target) << endlog;
                    ok = false;
                    break;  // one report per instance
                }
            }
        }
    }
    return ok;
}

}  // namespace kivreg
