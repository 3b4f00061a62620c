// veltra-bench: what the provider costs, over a device library that does nothing.

#include "measurements.h"

#include <CLI.hpp>

#include <exception>
#include <iostream>
#include <thread>

namespace veltra::bench {
namespace {

std::string platformInWords() {
    const auto wineVersion = std::bit_cast<const char*(__cdecl*)()>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version"));
    return wineVersion != nullptr ? std::string("Wine ") + wineVersion() : "Windows";
}

void measureAll(bool quick, unsigned runs, Report& report) {
    const ErrorLinesOnly logLevel;
    const Effort effort{.runs = runs, .secondsPerRun = quick ? 0.0002 : 0.02};
    report.setMachine({platformInWords() + ", " + std::to_string(std::thread::hardware_concurrency()) +
                           " processors, " + std::to_string(sizeof(void*) * 8) + "-bit program",
                       "log level 2: error lines only",
                       "medians of " + std::to_string(runs) + " runs, interleaved; of " +
                           std::to_string((runs + 3) / 4) + " for numbers of keys and threads"});
    measureHashing(effort, report);
    measurePaths(effort, report);
    const unsigned fewerRuns = (runs + 3) / 4; // of what takes longer
    measureKeyCounts({.runs = fewerRuns, .secondsPerRun = effort.secondsPerRun}, quick ? 100 : 10000, report);
    measureThreads({.runs = fewerRuns, .secondsPerRun = quick ? 0.025 : 0.25}, report);
    measureSystem(effort, report);
    measureMemory(quick ? 100 : 100000, report);
}

int run(int argc, char** argv) {
    CLI::App app("Measures the provider over a device library that answers at once");
    std::string folder = ".";
    unsigned runs = 36;
    bool quick = false;
    app.add_option("--out", folder, "where report.md and report.json go")->check(CLI::ExistingDirectory);
    app.add_option("--runs", runs,
                   "runs of each measurement, a quarter of them for numbers of keys and threads")
        ->check(CLI::Range(36u, 999u));
    app.add_flag("--quick", quick, "only shows that everything runs; the times mean nothing");
    CLI11_PARSE(app, argc, argv);
    Report report;
    measureAll(quick, quick ? 1 : runs, report);
    report.write(folder);
    std::cout << report.targetsInMarkdown();
    return 0;
}

} // namespace
} // namespace veltra::bench

int main(int argc, char** argv) {
    try {
        return veltra::bench::run(argc, argv);
    } catch (const std::exception& failure) {
        std::cerr << "veltra-bench: " << failure.what() << '\n';
    }
    return 1;
}
