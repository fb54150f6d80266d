#include "api/StatusFile.h"

#include <charconv>
#include <cstdio>
#include <optional>

#include "runtime/FileIo.h"

namespace kivreg::api {
namespace {

constexpr std::string_view kLastSuccess = "kivreg_last_success_timestamp_seconds";
constexpr std::string_view kLastDelivery = "kivreg_last_delivery_timestamp_seconds";

// Written and read without the host's locale, which may use a decimal comma.
std::string number(double value) {
    char text[64];
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 3);
    return std::string(text, end.ptr);
}

// The timestamps carried over from the file a run replaces, read in one pass.
struct Carried {
    double success = 0;
    std::optional<double> delivery;  // absent in files from before deliveries were told apart
};

Carried previous(const std::string& path) {
    Carried carried;
    std::FILE* in = std::fopen(path.c_str(), "re");
    if (in == nullptr) return carried;
    const auto valueOf = [](std::string_view text, std::string_view name) -> std::optional<double> {
        if (!text.starts_with(name) || text.size() <= name.size() || text[name.size()] != ' ')
            return std::nullopt;
        double value = 0;
        std::from_chars(text.data() + name.size() + 1, text.data() + text.size(), value);
        return value;
    };
    char line[256];
    while (std::fgets(line, sizeof line, in) != nullptr) {
        if (const auto v = valueOf(line, kLastSuccess)) carried.success = *v;
        if (const auto v = valueOf(line, kLastDelivery)) carried.delivery = *v;
    }
    std::fclose(in);
    return carried;
}

// The failure reasons as monitoring names them, in the enumeration's order.
constexpr std::string_view kReasons[] = {
    "document", "symbols", "references", "connect_data", "resolve", "connect", "tls",
    "proxy",    "send",    "receive",    "http_status",  "output",  "spool"};
static_assert(std::size(kReasons) == static_cast<size_t>(FailureReason::Spool));

}  // namespace

int writeStatusFile(const std::string& path, const RunStatus& run) {
    const Carried carried = run.success ? Carried{} : previous(path);
    const double lastSuccess = run.success || run.skipped ? run.end : carried.success;
    // A file from before deliveries were told apart: its last success was one.
    const double lastDelivery = run.success ? run.end : carried.delivery.value_or(carried.success);
    const struct {
        std::string_view name, help;
        std::string value;
    } metrics[] = {
        {"kivreg_last_run_timestamp_seconds", "When the last kivreg run ended.", number(run.end)},
        {"kivreg_last_run_exit_status", "Exit status of the last run (0 success).",
         std::to_string(run.exitStatus)},
        {kLastSuccess,
         "When the directory last took or already held this host's current registration (0 never).",
         number(lastSuccess)},
        {kLastDelivery, "When the directory last took a registration (0 never).",
         number(lastDelivery)},
        {"kivreg_last_run_skipped", "1 when the last run found the directory holding its document.",
         std::to_string(run.skipped ? 1 : 0)},
        {"kivreg_last_http_status", "HTTP status of the last run's transfer (0 none).",
         std::to_string(run.httpStatus)},
        {"kivreg_last_body_bytes", "Bytes of the last run's transfer document.",
         std::to_string(run.bodyBytes)},
        {"kivreg_last_duration_seconds", "How long the last run took.",
         number(run.end - run.start)},
        {"kivreg_spool_entries", "Registrations waiting in the spool.",
         std::to_string(run.spoolEntries)},
        {"kivreg_spool_bytes", "Bytes of the registrations waiting in the spool.",
         std::to_string(run.spoolBytes)},
    };
    std::string text;
    for (const auto& m : metrics) {
        const std::string name(m.name);
        text += "# HELP " + name + " " + std::string(m.help) + "\n";
        text += "# TYPE " + name + " gauge\n";
        text += name + " " + m.value + "\n";
    }
    // A state set: every reason always there, so that a query never meets a gap.
    text += "# HELP kivreg_last_run_failure Why the last run failed (all 0 after a success).\n";
    text += "# TYPE kivreg_last_run_failure gauge\n";
    const auto failure =
        static_cast<size_t>(run.exitStatus == 0 ? FailureReason::None : run.failure);
    for (size_t i = 0; i < std::size(kReasons); ++i) {
        text += "kivreg_last_run_failure{reason=\"" + std::string(kReasons[i]) + "\"} ";
        text += i + 1 == failure ? "1\n" : "0\n";
    }
    // Readable by the exporter, which runs as a user of its own.
    return rt::replaceFile(path, text, 0644);
}

}  // namespace kivreg::api
