// Writes a deterministic supplier document of about the requested size,
// together with the symbol file it needs. The same arguments always give
// the same bytes.
//
// Every group has a root class of sites, a class of hosts and a member class
// tying hosts to sites. Hosts carry multi-valued properties, values that need
// escaping, non-ASCII text and ${name} placeholders; every reference resolves
// (within the group, and from each host to a peer in the previous group).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kGroups = 4;
constexpr int kHostsPerSite = 20;

// Small deterministic generator (no dependence on the standard library's engines).
struct Lcg {
    uint64_t state;
    uint32_t next() {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<uint32_t>(state >> 33);
    }
};

const char* const kWords[] = {
    "Köln",   "Düsseldorf", "Straße", "naïve café", "漢字テスト", "Ørsted", "😀 ok",      "plain",
    "server", "rack 7",     "a & b",  "x < y",      "\"quoted\"", "it's",   "R&D > ops",
};
constexpr int kWordCount = sizeof kWords / sizeof kWords[0];

// Escapes the text for use as XML character data or attribute value.
void appendEscaped(std::string& out, const char* s) {
    for (; *s != '\0'; ++s) {
        switch (*s) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += *s;
        }
    }
}

std::string hostUnit(int g, int h, int prevGroupHosts, Lcg& rng) {
    std::string s;
    const std::string id = "host-" + std::to_string(g) + "-" + std::to_string(h);
    s += "      <instance inst_id=\"" + id + "\">\n";
    s += "        <property name=\"Name\" sourceformat=\"text\"><value>" + id +
         ".example.com</value></property>\n";
    s += "        <property name=\"IPAddresses\" sourceformat=\"ipv4\">";
    for (int i = 0; i < 3; ++i)
        s += "<value>10." + std::to_string(g) + "." + std::to_string(h % 250) + "." +
             std::to_string(rng.next() % 250) + "</value>";
    s += "</property>\n";
    s += "        <property name=\"Description\"><value>";
    for (int i = 0; i < 6; ++i) {
        if (i) s += ' ';
        appendEscaped(s, kWords[rng.next() % kWordCount]);
    }
    s += "</value>\n          <value>  multi\n   line\ttext  </value></property>\n";
    s += "        <property name=\"InstallPath\" "
         "sourceformat=\"${path.format}\"><value>${install.dir}/" +
         id + "</value><value>${log.dir}/" + id + ".log</value></property>\n";
    s += "        <property name=\"Owner\"><value>${owner}</value></property>\n";
    s += "        <reference rolename=\"Site\" groupname=\"G" + std::to_string(g) +
         "\" classname=\"Site\" inst_id=\"site-" + std::to_string(g) + "-" +
         std::to_string(h / kHostsPerSite) + "\"/>\n";
    if (g > 0 && prevGroupHosts > 0)
        s += "        <reference rolename=\"Peer\" groupname=\"G" + std::to_string(g - 1) +
             "\" classname=\"Host\" inst_id=\"host-" + std::to_string(g - 1) + "-" +
             std::to_string(h % prevGroupHosts) + "\"/>\n";
    s += "      </instance>\n";
    return s;
}

std::string memberUnit(int g, int h) {
    const std::string host = "host-" + std::to_string(g) + "-" + std::to_string(h);
    const std::string site = "site-" + std::to_string(g) + "-" + std::to_string(h / kHostsPerSite);
    return "      <instance inst_id=\"" + site + "|" + host +
           "\">\n"
           "        <reference rolename=\"Site\" groupname=\"G" +
           std::to_string(g) + "\" classname=\"Site\" inst_id=\"" + site +
           "\"/>\n"
           "        <reference rolename=\"Host\" groupname=\"G" +
           std::to_string(g) + "\" classname=\"Host\" inst_id=\"" + host +
           "\"/>\n      </instance>\n";
}

std::string siteUnit(int g, int s) {
    const std::string id = "site-" + std::to_string(g) + "-" + std::to_string(s);
    return "      <instance inst_id=\"" + id + "\"><property name=\"Name\"><value>Site " + id +
           " Müller &amp; Söhne</value></property><property "
           "name=\"Region\"><value>${region}</value>"
           "</property></instance>\n";
}

bool writeAll(std::FILE* f, const std::string& s) {
    return std::fwrite(s.data(), 1, s.size(), f) == s.size();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <megabytes> <document.xml> <symbols.properties>\n",
                     argv[0]);
        return 2;
    }
    const double megabytes = std::atof(argv[1]);
    std::FILE* doc = std::fopen(argv[2], "wb");
    std::FILE* sym = std::fopen(argv[3], "wb");
    if (doc == nullptr || sym == nullptr || megabytes <= 0) {
        std::fprintf(stderr, "cannot write the output files\n");
        return 1;
    }
    // Size a group from one sample unit: a host, its membership and a share of a site.
    Lcg probe{42};
    const size_t unit = hostUnit(1, 0, 1, probe).size() + memberUnit(1, 0).size() +
                        siteUnit(1, 0).size() / kHostsPerSite;
    const int hosts =
        static_cast<int>(megabytes * 1024 * 1024 / kGroups / static_cast<double>(unit)) + 1;
    const int sites = (hosts + kHostsPerSite - 1) / kHostsPerSite;

    Lcg rng{20240521};
    bool ok =
        writeAll(doc,
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<kivinfo supplier_name=\"Generator ${sid}\" supplier_version=\"${version}\" "
                 "supplier_vendor=\"Bench &amp; Co\" model_version=\"1.5\">\n");
    for (int g = 0; g < kGroups && ok; ++g) {
        const std::string gs = std::to_string(g);
        ok = writeAll(doc, "  <group name=\"G" + gs +
                               "\" data_type=\"inventory\" data_version=\"${version}\"" +
                               (g % 2 ? " group_type=\"SPECIFIC\"" : "") +
                               ">\n    <rootclass name=\"Site\" clean=\"LONE\">\n");
        for (int s = 0; s < sites && ok; ++s) ok = writeAll(doc, siteUnit(g, s));
        ok = ok && writeAll(doc, "    </rootclass>\n    <class name=\"Host\" sync=\"${sync}\">\n");
        for (int h = 0; h < hosts && ok; ++h) ok = writeAll(doc, hostUnit(g, h, hosts, rng));
        ok = ok &&
             writeAll(
                 doc,
                 "    </class>\n    <memberclass name=\"SiteHost\" association_name=\"Contains\" "
                 "root_role=\"Site\" member_role=\"Host\">\n");
        for (int h = 0; h < hosts && ok; ++h) ok = writeAll(doc, memberUnit(g, h));
        ok = ok && writeAll(doc, "    </memberclass>\n  </group>\n");
    }
    ok = ok && writeAll(doc, "</kivinfo>\n");
    ok = ok && writeAll(sym,
                        "# symbols of the generated document\nsid = BEN\nversion = 9.1\n"
                        "sync = TRUE\npath.format = path\nbase.dir = /opt/bench\n"
                        "install.dir = ${base.dir}/${sid}\nlog.dir = ${install.dir}/log\n"
                        "owner = Zoë O'Brien <ops@example.org>\nregion = Nordrhein-Westfalen\n");
    ok = (std::fclose(doc) == 0) && ok;
    ok = (std::fclose(sym) == 0) && ok;
    if (!ok) {
        std::fprintf(stderr, "write failed\n");
        return 1;
    }
    return 0;
}
