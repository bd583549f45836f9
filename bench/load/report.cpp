#include "bench/load/report.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

constexpr double NS_PER_SECOND = 1e9;
constexpr double KIB_PER_MIB = 1024;
// A thread this busy, or cores this busy, are the bottleneck.
constexpr double FULL_PERCENT = 90;

double seconds_of(std::uint64_t ns) {
    return static_cast<double>(ns) / NS_PER_SECOND;
}

nlohmann::json process_between(const ProcessCosts& before, const ProcessCosts& after, double seconds) {
    const double cpu = seconds_of(after.cpu_ns - before.cpu_ns);
    return {{"cpu_s", cpu},
            {"cpu_percent", 100 * cpu / seconds},
            {"main_cpu_s", seconds_of(after.main_ns - before.main_ns)},
            {"busiest_thread_percent", 100 * seconds_of(busiest_thread_ns(before, after)) / seconds},
            {"voluntary_switches", after.voluntary_switches - before.voluntary_switches},
            {"involuntary_switches", after.involuntary_switches - before.involuntary_switches},
            {"rss_kib", after.rss_kib}};
}

std::string bottleneck_of(const nlohmann::json& costs) {
    const auto is_full = [&costs](const char* process) {
        return costs.contains(process) &&
               costs[process]["busiest_thread_percent"].get<double>() >= FULL_PERCENT;
    };
    if (is_full("load_generator")) {
        return "the load generator";
    }
    if (is_full("server")) {
        return "a thread of the server";
    }
    return costs["machine_busy_percent"].get<double>() >= FULL_PERCENT ? "the machine's cores" : "none";
}

void print_line(const char* name, const std::string& text) {
    std::printf("%-22s%s\n", name, text.c_str());
}

template <typename... Values>
std::string text_of(const char* format, Values... values) {
    std::string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, format, values...)), '\0');
    std::snprintf(text.data(), text.size() + 1, format, values...);
    return text;
}

double number(const nlohmann::json& object, const char* name) {
    return object.value(name, 0.0);
}

void print_lateness(const char* name, const nlohmann::json& figures) {
    if (number(figures, "count") > 0) {
        print_line(name,
                   text_of("median %.1f ms, 90 %% %.1f, 99 %% %.1f, 99.9 %% %.1f, at most %.1f ms",
                           number(figures, "p50_ms"), number(figures, "p90_ms"), number(figures, "p99_ms"),
                           number(figures, "p999_ms"), number(figures, "max_ms")));
    }
}

void print_frames(const nlohmann::json& report) {
    print_line(
        "frames",
        text_of("%.0f; %.0f lost, %.0f duplicated, %.0f reordered, %.0f damaged, %.0f not arrived",
                number(report, "frames"), number(report, "lost"), number(report, "duplicated"),
                number(report, "reordered"), number(report, "damaged"), number(report, "not_arrived")));
    print_line("relayed",
               text_of("%.3f GB in %.1f s", number(report, "bytes") / 1e9, number(report, "seconds")));
    print_lateness("late by", report["lateness"]);
    print_line("late",
               text_of("%.0f frames by more than %.0f ms; publishers up to %.1f ms behind their clock",
                       number(report, "late"), number(report["setup"], "late_ms"),
                       number(report, "publisher_delay_ms")));
    print_lateness("first picture after", report["first_picture"]);
}

void print_process(const char* name, const nlohmann::json& process) {
    print_line(name,
               text_of("%.2f s CPU, %.1f %% of a core, busiest thread %.1f %%; %.0f + %.0f context switches; "
                       "%.1f MiB",
                       number(process, "cpu_s"), number(process, "cpu_percent"),
                       number(process, "busiest_thread_percent"), number(process, "voluntary_switches"),
                       number(process, "involuntary_switches"), number(process, "rss_kib") / KIB_PER_MIB));
}

void print_costs(const nlohmann::json& report) {
    if (report.contains("server")) {
        print_process("server", report["server"]);
    }
    if (report.contains("cpu_s_per_gb")) {
        print_line("CPU per GB",
                   text_of("%.3f s; main thread %.2f us a message and player", number(report, "cpu_s_per_gb"),
                           number(report, "main_us_per_frame")));
    }
    print_process("load generator", report["load_generator"]);
    print_line("machine", text_of("%.0f %% busy", number(report, "machine_busy_percent")));
    print_line("bottleneck", report["bottleneck"]);
}

void print_idle(const nlohmann::json& idle) {
    print_line("memory", text_of("%.0f KiB without connections, %.1f KiB for each", number(idle, "empty_kib"),
                                 number(idle, "kib_each")));
}

void print_stuck(const nlohmann::json& stuck) {
    print_line("stuck players",
               text_of("%.0f: memory %.1f MiB, then %.1f, %.1f when they had gone; the stream %.1f",
                       number(stuck, "players"), number(stuck, "before_kib") / KIB_PER_MIB,
                       number(stuck, "peak_kib") / KIB_PER_MIB, number(stuck, "after_kib") / KIB_PER_MIB,
                       number(stuck, "stream_bytes") / KIB_PER_MIB / KIB_PER_MIB));
}

}  // namespace

Snapshot Snapshot::take(pid_t pid) {
    Snapshot snapshot{SteadyClock::now(), std::nullopt, ProcessCosts::of(getpid()), MachineCosts::now()};
    if (pid != 0) {
        snapshot.server = ProcessCosts::of(pid);
    }
    return snapshot;
}

nlohmann::json setup_of(const LoadOptions& load) {
    return {{"mode", load.mode_name},
            {"publishers", load.publishers},
            {"players_each", load.players},
            {"stuck", load.stuck},
            {"video_kbit", load.shape.video_kbit()},
            {"fps", load.shape.frames_per_second},
            {"key_every", load.shape.frames_per_key_frame},
            {"key_size", load.shape.key_frame_in_means},
            {"audio_kbit", load.shape.audio_kbit_per_second},
            {"player_chunk", load.player_chunk_bytes},
            {"publisher_chunk", load.publisher_chunk_bytes},
            {"late_ms", load.late_ms},
            {"server", load.server_host}};
}

nlohmann::json costs_between(const Snapshot& before, const Snapshot& after) {
    const double seconds = std::chrono::duration<double>(after.when - before.when).count();
    nlohmann::json costs = {
        {"seconds", seconds},
        {"load_generator", process_between(before.own, after.own, seconds)},
        {"machine_busy_percent", MachineCosts::busy_percent(before.machine, after.machine)}};
    if (before.server && after.server) {
        costs["server"] = process_between(*before.server, *after.server, seconds);
    }
    costs["bottleneck"] = bottleneck_of(costs);
    return costs;
}

nlohmann::json figures_of(const Lateness& lateness) {
    return {{"count", lateness.count()},
            {"p50_ms", lateness.percentile_ms(0.5)},
            {"p90_ms", lateness.percentile_ms(0.9)},
            {"p99_ms", lateness.percentile_ms(0.99)},
            {"p999_ms", lateness.percentile_ms(0.999)},
            {"max_ms", lateness.most_ms()},
            {"histogram", lateness.histogram()}};
}

nlohmann::json faults_of(const FrameTally& tally) {
    return {{"lost", tally.lost},
            {"duplicated", tally.duplicated},
            {"reordered", tally.reordered},
            {"damaged", tally.damaged}};
}

void print_report(const nlohmann::json& report) {
    if (report.contains("frames")) {
        print_frames(report);
    }
    if (report.contains("visits")) {
        print_line("visits", text_of("%.0f, %.1f a second; %.0f refused", number(report, "visits"),
                                     number(report, "visits") / number(report, "seconds"),
                                     number(report, "refused_visits")));
    }
    if (report.contains("idle")) {
        print_idle(report["idle"]);
    }
    if (report.contains("stuck")) {
        print_stuck(report["stuck"]);
    }
    if (report.contains("load_generator")) {
        print_costs(report);
    }
    if (report.contains("capacity")) {
        print_line("capacity", text_of("%.0f kbit/s of video a stream, %.3f GB/s in all",
                                       number(report["capacity"], "video_kbit"),
                                       number(report["capacity"], "gb_per_second")));
    }
    for (const auto& failure : report["failures"]) {
        print_line("FAILED", failure);
    }
}
