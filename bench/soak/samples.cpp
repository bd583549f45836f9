#include "bench/soak/samples.h"

#include <sys/resource.h>

#include <array>
#include <cstdio>

#include "tests/support/test_failure.h"

namespace {

constexpr double KIB_PER_MIB = 1024;

Milliseconds own_cpu_time() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto time = [](const timeval& t) { return Milliseconds{t.tv_sec * 1000 + t.tv_usec / 1000}; };
    return time(usage.ru_utime) + time(usage.ru_stime);
}

double percent_of(Milliseconds cpu, Milliseconds elapsed) {
    return 100 * static_cast<double>(cpu.count()) / static_cast<double>(elapsed.count());
}

}  // namespace

Holdings holdings_of(const ServerProcess& server) {
    return {server.rss_kib(), server.thread_count(), server.fd_count()};
}

nlohmann::json to_json(const Holdings& holdings) {
    return {
        {"rss_kib", holdings.rss_kib}, {"threads", holdings.threads}, {"descriptors", holdings.descriptors}};
}

SampleFile::SampleFile(const std::string& path, const ServerProcess& server, unsigned late_limit_ms)
    : measured(server),
      late_ms(late_limit_ms),
      file(path),
      server_cpu(server.cpu_time()),
      own_cpu(own_cpu_time()) {
    file << "seconds,rss_kib,threads,descriptors,server_cpu_percent,load_cpu_percent,players,bytes,frames,"
            "lost,"
            "damaged,late,median_ms,p99_ms,most_ms,oversleep_ms\n";
}

void SampleFile::add(const FrameTally& tally, std::size_t players, double oversleep_ms) {
    const TimePoint now = SteadyClock::now();
    const auto elapsed = std::chrono::ceil<Milliseconds>(now - last);
    last = now;
    const Holdings holdings = holdings_of(measured);
    const Milliseconds server_cpu_now = measured.cpu_time();
    const Milliseconds own_cpu_now = own_cpu_time();
    const double cpu_percent = percent_of(server_cpu_now - server_cpu, elapsed);
    const double own_percent = percent_of(own_cpu_now - own_cpu, elapsed);
    server_cpu = server_cpu_now;
    own_cpu = own_cpu_now;
    file << static_cast<double>(elapsed_since(begin).count()) / 1000 << ',' << holdings.rss_kib << ','
         << holdings.threads << ',' << holdings.descriptors << ',' << cpu_percent << ',' << own_percent << ','
         << players << ',' << tally.bytes << ',' << tally.frames << ',' << tally.lost << ',' << tally.faults()
         << ',' << tally.lateness.later_than_ms(late_ms) << ',' << tally.lateness.percentile_ms(0.5) << ','
         << tally.lateness.percentile_ms(0.99) << ',' << tally.lateness.most_ms() << ',' << oversleep_ms
         << std::endl;
    if (!file) {
        throw TestFailure("the samples cannot be written");
    }
    sum.merge(tally);
    std::array<char, 200> text{};
    std::snprintf(text.data(), text.size(),
                  "%5.0f s: %zu players; server %.1f MiB, %.0f %% CPU; %llu frames, %lld lost, %llu damaged; "
                  "late %.0f, %.0f, %.0f ms",
                  static_cast<double>(elapsed_since(begin).count()) / 1000, players,
                  static_cast<double>(holdings.rss_kib) / KIB_PER_MIB, cpu_percent,
                  static_cast<unsigned long long>(sum.frames), static_cast<unsigned long long>(sum.lost),
                  static_cast<unsigned long long>(sum.damaged), tally.lateness.percentile_ms(0.5),
                  tally.lateness.percentile_ms(0.99), tally.lateness.most_ms());
    last_progress = text.data();
}

std::string SampleFile::progress() const {
    return last_progress;
}
