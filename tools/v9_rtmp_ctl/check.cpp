#include <sys/timex.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/check_rules.h"
#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/port_check.h"
#include "tools/v9_rtmp_ctl/rtmp_probe.h"
#include "tools/v9_rtmp_ctl/state_file.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

// A server that takes longer to answer is overloaded.
constexpr std::uint64_t SLOW_ANSWER_US = 1000000;

using Findings = std::vector<Finding>;

std::string milliseconds(std::uint64_t us) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f ms", static_cast<double>(us) / 1000);
    return text.data();
}

Finding time_finding(const std::string& what, const std::string& done, std::uint64_t took_us) {
    const std::string text = done + " in " + milliseconds(took_us);
    return took_us > SLOW_ANSWER_US
               ? Finding{Level::WARNING, what,
                         text + ". Check whether the machine or the log's reader is too slow."}
               : Finding{Level::OK, what, text};
}

Finding failure_finding(const std::string& what, const Failure& failure) {
    const bool is_known = failure.exit_code != ExitCode::PERMISSION && failure.exit_code != ExitCode::USAGE;
    return {is_known ? Level::CRITICAL : Level::UNKNOWN, what, failure.message};
}

// Returns the process that answers. Empty if the server does not answer.
std::optional<Peer> check_control(const Settings& settings, Findings& findings) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Reply reply;
    std::optional<Failure> failure = client.connect();
    std::uint64_t began_us = clock_us();
    if (!failure) {
        failure = client.call({"hello", {}}, reply);
    }
    if (failure) {
        findings.push_back(
            failure_finding("control socket", explain_no_connection(settings.socket_path, *failure)));
        return std::nullopt;
    }
    findings.push_back(time_finding("control socket", "it answered", clock_us() - began_us));
    Listing listing;
    began_us = clock_us();
    failure = take_listing(client, "", listing);
    if (failure) {
        findings.push_back(failure_finding("list", *failure));
    } else {
        findings.push_back(time_finding("list", "listed", clock_us() - began_us));
        findings.push_back(judge_slots(listing.connections.size()));
    }
    return find_peer(client.fd()).value_or(Peer());
}

void check_listeners(const Peer& peer, Findings& findings) {
    const PortCheck port = check_port(peer);
    for (const std::string& warning : port.warnings) {
        findings.push_back({Level::CRITICAL, "port", warning});
    }
    if (!port.gap.empty()) {
        findings.push_back({Level::UNKNOWN, "port", port.gap});
    } else if (port.warnings.empty()) {
        findings.push_back(
            {Level::OK, "port", "only process " + std::to_string(peer.pid) + " listens on it"});
    }
}

Finding probe_finding(const std::string& what, const std::string& done, const std::string& address,
                      const ProbeResult& result) {
    return result.problem ? Finding{Level::CRITICAL, what,
                                    address + ": " + *result.problem +
                                        ". Check the server's log, and whether --rtmp names its address."}
                          : time_finding(what, done, result.took_us);
}

// Whether all slots are used now. False if the server does not answer.
bool is_full(const Settings& settings) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    return !take_listing(client, "", listing) && listing.connections.size() >= SLOT_COUNT;
}

// A full server closes a new client at once, and the last slot may have been taken since the slots were
// judged. If a probe fails at once, judges the slots again; if one is free, repeats the probe.
template <typename Probe>
ProbeResult probe_with_free_slots(const Settings& settings, Findings& findings, const Probe& probe) {
    ProbeResult result = probe();
    if (!result.problem || result.took_us > SLOW_ANSWER_US) {
        return result;
    }
    if (!is_full(settings)) {
        return probe();
    }
    std::erase_if(findings, [](const Finding& finding) { return finding.what == "slots"; });
    findings.push_back(judge_slots(SLOT_COUNT));
    return result;
}

void check_rtmp(const Settings& settings, const CheckOptions& options, const RtmpAddress& address,
                Findings& findings) {
    const std::string place = escape_untrusted(options.rtmp);
    const ProbeResult handshake = probe_with_free_slots(
        settings, findings, [&] { return probe_handshake(address, settings.timeout_us()); });
    findings.push_back(probe_finding("RTMP", "handshake", place, handshake));
    if (options.publish_test) {
        const std::string stream = "check_" + std::to_string(getpid()) + "_" + std::to_string(clock_us());
        const ProbeResult relay = probe_with_free_slots(
            settings, findings, [&] { return probe_stream(address, stream, settings.timeout_us()); });
        findings.push_back(probe_finding("relay", "a message came through", place, relay));
    }
}

std::optional<std::string> find_link(const std::string& path) {
    std::array<char, 4096> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return length < 0 ? std::nullopt
                      : std::optional(std::string(target.data(), static_cast<std::size_t>(length)));
}

// Returns the smallest limit of the server's cgroup and its ancestors, which all apply. Empty if none is set.
std::optional<std::string> find_cgroup_limit(std::string cgroup, const char* name) {
    std::vector<std::string> limits;
    for (;;) {
        limits.push_back(
            read_file("/sys/fs/cgroup" + (cgroup == "/" ? "" : cgroup) + "/" + name).value_or(""));
        if (cgroup.empty() || cgroup == "/") {
            return find_smallest_limit(limits);
        }
        cgroup.resize(cgroup.rfind('/') == std::string::npos ? 0 : cgroup.rfind('/'));
    }
}

void check_process(const Peer& peer, Findings& findings) {
    const std::string process = "/proc/" + std::to_string(peer.pid);
    const std::optional<std::string> limits = peer.pid > 0 ? read_file(process + "/limits") : std::nullopt;
    findings.push_back(judge_descriptor_limit(limits));
    const std::string cgroup = find_cgroup(peer.pid > 0 ? read_file(process + "/cgroup").value_or("") : "");
    findings.push_back(judge_thread_limit(limits, find_cgroup_limit(cgroup, "pids.max")));
    const std::string controllers = read_file("/sys/fs/cgroup/cgroup.controllers").value_or("");
    findings.push_back(judge_memory_limit(!cgroup.empty() && controllers.find("memory") != std::string::npos,
                                          find_cgroup_limit(cgroup, "memory.max")));
    findings.push_back(judge_standard_error(peer.pid > 0 ? find_link(process + "/fd/2") : std::nullopt));
}

std::optional<std::uint64_t> kernel_setting(const std::string& name) {
    std::string text = read_file("/proc/sys/" + name).value_or("");
    std::uint64_t number = 0;
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return parse_number(text, number) ? std::optional(number) : std::nullopt;
}

void check_machine(Findings& findings) {
    timex state{};
    const int result = adjtimex(&state);
    findings.push_back(judge_clock(result >= 0, result != TIME_ERROR && (state.status & STA_UNSYNC) == 0));
    findings.push_back(judge_kernel(kernel_setting("net/core/somaxconn"),
                                    kernel_setting("kernel/threads-max"),
                                    kernel_setting("vm/overcommit_memory")));
}

void print(const Settings& settings, const Findings& findings) {
    if (settings.form == OutputForm::JSON) {
        std::vector<FindingLine> lines;
        for (const Finding& finding : findings) {
            lines.push_back({level_name(finding.level), finding.what, finding.text});
        }
        std::cout << findings_json(lines, level_name(worst_of(findings))) << '\n';
        return;
    }
    const char separator = settings.form == OutputForm::PLAIN ? '\t' : ' ';
    const char* const colon = settings.form == OutputForm::PLAIN ? "" : ":";
    for (const Finding& finding : findings) {
        if (finding.level != Level::OK || !settings.quiet) {
            std::cout << level_name(finding.level) << colon << separator << finding.what << colon << separator
                      << escape_untrusted(finding.text) << '\n';
        }
    }
}

}  // namespace

ExitCode run_check(const Settings& settings, const CheckOptions& options) {
    const std::optional<RtmpAddress> address = parse_rtmp_address(options.rtmp);
    Findings findings;
    const std::optional<Peer> peer = check_control(settings, findings);
    if (peer) {
        check_listeners(*peer, findings);
    }
    if (address) {
        check_rtmp(settings, options, *address, findings);
    }
    if (peer) {
        check_process(*peer, findings);
    }
    check_machine(findings);
    print(settings, findings);
    return static_cast<ExitCode>(worst_of(findings));
}
