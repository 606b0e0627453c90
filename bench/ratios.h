// Benchmarks whose result is a ratio: this machine's speed changes from minute to minute, but two
// things measured side by side in one run share its mood.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::bench {

// Prints the usual table, then each asked-for quotient of two benchmarks' bytes per second.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    struct Ratio {
        std::string text;
        std::string above, below; // benchmark names
    };

    explicit RatioReporter(std::vector<Ratio> ratios) : m_ratios(std::move(ratios)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const auto speed = run.counters.find("bytes_per_second");
            // Of repeated runs the median speaks; of a single run, that run.
            const bool counts = run.run_type == Run::RT_Iteration || run.aggregate_name == "median";
            if (counts && speed != run.counters.end()) {
                m_speeds[run.run_name.function_name] = speed->second;
            }
        }
    }

    void Finalize() override {
        for (const Ratio& ratio : m_ratios) {
            const auto above = m_speeds.find(ratio.above);
            const auto below = m_speeds.find(ratio.below);
            if (above != m_speeds.end() && below != m_speeds.end()) {
                GetOutputStream() << ratio.text << ": " << above->second / below->second << "\n";
            }
        }
    }

private:
    std::vector<Ratio> m_ratios;
    std::map<std::string, double> m_speeds; // bytes per second
};

// The main function of a program of such benchmarks.
inline int runWithRatios(int argc, char** argv, std::vector<RatioReporter::Ratio> ratios) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    RatioReporter reporter(std::move(ratios));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

} // namespace kelvane::bench
