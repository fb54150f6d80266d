#include "E2eFixture.h"

#include <algorithm>
#include <sstream>

namespace kivreg::test {

const char* const kDocument =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<kivinfo supplier_name=\"E2E Supplier\" supplier_version=\"2.1\">\n"
    "  <group name=\"Systems\" group_type=\"SPECIFIC\">\n"
    "    <class name=\"Computer\">\n"
    "      <instance inst_id=\"h1\">\n"
    "        <property name=\"Name\" sourceformat=\"text\"><value>h1 &amp; co "
    "\xC3\xA9t\xC3\xA9</value></property>\n"
    "        <reference rolename=\"Parent\" groupname=\"Systems\" classname=\"Cluster\" "
    "inst_id=\"c1\"/>\n"
    "      </instance>\n"
    "    </class>\n"
    "    <class name=\"Cluster\"><instance inst_id=\"c1\"/></class>\n"
    "  </group>\n"
    "</kivinfo>\n";

DirServer::DirServer(const std::filesystem::path& dir, const ServerOptions& options)
    : m_store(dir / "store") {
    std::vector<std::string> argv = {
        "/usr/bin/env", "python3",        kServerScript, "--quiet",
        "--user",       options.user,     "--password",  options.password,
        "--store",      m_store.string(), "--status",    std::to_string(options.status)};
    if (!options.first.empty()) argv.insert(argv.end(), {"--first", options.first});
    if (!options.retryAfter.empty()) argv.insert(argv.end(), {"--retry-after", options.retryAfter});
    if (!options.delay.empty()) argv.insert(argv.end(), {"--delay", options.delay});
    if (!options.path.empty()) argv.insert(argv.end(), {"--path", options.path});
    if (!options.redirect.empty()) argv.insert(argv.end(), {"--redirect", options.redirect});
    if (options.https)
        argv.insert(argv.end(),
                    {"--cert", testCert("server.pem"), "--key", testCert("server.key")});
    m_child = std::make_unique<Child>(argv);
    const std::string line = m_child->lineAfter("listening on ");
    if (line.empty())
        throw std::runtime_error("directory server did not start: " + m_child->output());
    m_port = std::stoi(line.substr(line.rfind(':') + 1));
}

std::string DirServer::requests() const {
    return std::filesystem::exists(m_store / "requests.log") ? readFile(m_store / "requests.log")
                                                             : std::string();
}

std::vector<std::string> DirServer::stored() const {
    std::vector<std::string> out;
    if (std::filesystem::exists(m_store))
        for (const std::string& file : filesIn(m_store, ".xml")) out.push_back(readFile(file));
    return out;
}

std::vector<std::string> filesIn(const std::filesystem::path& dir, const std::string& extension) {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        if (e.path().extension() == extension) out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

std::string utc(const char* format, std::time_t t) {
    char text[64];
    std::tm tm{};
    std::strftime(text, sizeof text, format, gmtime_r(&t, &tm));
    return text;
}

namespace {

std::vector<std::string> programArgv(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {kProgram};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

RunOptions programOptions(RunOptions options, const std::filesystem::path& dir) {
    if (options.cwd.empty()) options.cwd = dir.string();
    // The proxy settings of whoever runs the tests stay out: empty is unset.
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "http_proxy", "all_proxy", "ALL_PROXY",
                             "no_proxy", "NO_PROXY"})
        options.env.try_emplace(name, "");
    return options;
}

}  // namespace

RunResult E2e::kivreg(const std::vector<std::string>& args, RunOptions options) {
    return run(programArgv(args), programOptions(std::move(options), m_dir.path()));
}

std::unique_ptr<Child> E2e::startKivreg(const std::vector<std::string>& args) {
    return std::make_unique<Child>(programArgv(args), programOptions({}, m_dir.path()));
}

std::vector<std::string> E2e::registering(const std::string& doc, const std::string& user,
                                          const std::string& port,
                                          const std::vector<std::string>& more) {
    std::vector<std::string> args = {"-file",     doc,     "-user",     user,    "-pass",
                                     "s3cret-pw", "-host", "127.0.0.1", "-port", port};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

std::string E2e::document(const std::string& supplier, const std::string& value,
                          const std::string& vendor) {
    std::string xml = kDocument;
    xml.replace(xml.find("E2E Supplier"), 12, supplier);
    if (!vendor.empty())
        xml.insert(xml.find(" supplier_version"), " supplier_vendor=\"" + vendor + "\"");
    xml.replace(xml.find("h1 &amp; co"), 11, value);
    return writeDoc(supplier + "-" + std::to_string(++m_docs) + ".xml", xml);
}

std::map<std::string, double> metrics(const std::string& text) {
    std::map<std::string, double> out;
    std::istringstream in(text);
    for (std::string name, value; in >> name;) {
        if (name == "#") {
            std::getline(in, value);
        } else if (in >> value) {
            out[name] = std::stod(value);
        }
    }
    return out;
}

std::map<std::string, double> checkedMetrics(const std::string& statusFile) {
    const RunOptions in{.input = readFile(statusFile)};
    if (std::filesystem::exists("/usr/bin/promtool")) {
        const RunResult r = run({"/usr/bin/promtool", "check", "metrics"}, in);
        EXPECT_EQ(r.exitCode, 0) << r.out << in.input;
    }
    return metrics(in.input);
}

std::string failureReason(const std::map<std::string, double>& metrics) {
    const std::string prefix = "kivreg_last_run_failure{reason=\"";
    std::string marked;
    size_t reasons = 0;
    for (const auto& [name, value] : metrics) {
        if (!name.starts_with(prefix)) continue;
        ++reasons;
        EXPECT_TRUE(value == 0 || (value == 1 && marked.empty())) << name << " " << value;
        if (value == 1) marked = name.substr(prefix.size(), name.size() - prefix.size() - 2);
    }
    EXPECT_EQ(reasons, 13u);
    return marked;
}

std::string E2e::writeDoc(const std::string& name, const std::string& xml) {
    writeFile(m_dir / name, xml);
    return path(name);
}

}  // namespace kivreg::test
