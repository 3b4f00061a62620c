#include "measurements.h"
#include "foundation/win_handle.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <thread>

namespace veltra::bench {

namespace {

std::string sizeInWords(std::size_t bytes) {
    return bytes < 1024 ? std::to_string(bytes) + " bytes" : std::to_string(bytes / 1024) + " KiB";
}

/// "veltra_initHash, 2 x veltra_updateHash".
std::string libraryCallsIn(const Trace& trace) {
    Trace calls;
    std::ranges::copy_if(trace, std::back_inserter(calls),
                         [](const char* step) { return step != kLogLevelRead; });
    std::string text;
    for (auto it = calls.begin(); it != calls.end();) {
        const char* const name = *it;
        const auto end = std::find_if(it, calls.end(), [name](const char* other) { return other != name; });
        if (!text.empty()) text += ", ";
        if (end - it > 1) text += std::to_string(end - it) + " x ";
        text += name;
        it = end;
    }
    return text.empty() ? "none" : text;
}

std::vector<std::string> countsRow(const Path& path, const Trace& trace) {
    return {path.name, std::to_string(std::ranges::count(trace, kLogLevelRead)), libraryCallsIn(trace)};
}

} // namespace

void measureHashing(const Effort& effort, Report& report) {
    const RealHashes real;
    const HCRYPTPROV context = acquireContext(CRYPT_VERIFYCONTEXT);
    HCRYPTHASH hash = 0;
    require(CPCreateHash(context, CALG_SHA_256, 0, 0, &hash), "CPCreateHash");
    void* deviceHash = nullptr;
    veltra_initHash(kSerial, kMechanismSha256, &deviceHash, nullptr);
    Table table{.title = "Hashing",
                .note =
                    "SHA-256: one CPHashData call against the same veltra_updateHash call made directly. The "
                    "last column adds the one read of the log level, which is required, to the direct call.",
                .columns = {"block", "direct, us", "CPHashData, us", "throughput of direct", "log level, us",
                            "throughput of direct with the read"},
                .rows = {}};
    const std::vector<BYTE> data(std::size_t{64} * 1024, 0x5A);
    for (const DWORD block : {DWORD{64}, DWORD{4096}, DWORD{65536}}) {
        const Times times = measureInTurn(
            {[&] { veltra_updateHash(deviceHash, data.data(), static_cast<int>(block), nullptr); },
             [&] { require(CPHashData(context, hash, data.data(), block, 0), "CPHashData"); }, readLogLevel},
            effort);
        std::vector<double> directWithRead(effort.runs);
        std::ranges::transform(times[0], times[2], directWithRead.begin(), std::plus<>());
        const double ratio = medianRatio(times[0], times[1]);
        table.rows.push_back({sizeInWords(block), microseconds(median(times[0])),
                              microseconds(median(times[1])), shown(ratio), microseconds(median(times[2])),
                              shown(medianRatio(directWithRead, times[1]))});
        if (block == data.size()) {
            report.add(Target{"(a) hashing 64 KiB blocks, throughput of direct calls", ratio, 0.97, true});
        }
    }
    report.add(std::move(table));
    CPDestroyHash(context, hash);
    releaseContext(context);
}

void measurePaths(const Effort& effort, Report& report) {
    TokenKeys keys(1);
    Application application;
    Table costs{.title = "Own time of the provider",
                .note =
                    "Against the reads of the log level and the library calls of the path, made bare. The "
                    "library answers at once.",
                .columns = {"path", "bare, us", "provider, us", "ratio", "difference, us"},
                .rows = {}};
    Table counts{.title = "Library calls and reads of the log level",
                 .note = "Counted in one run of each path, with one key in the container and its PIN stored.",
                 .columns = {"path", "log level", "library calls"},
                 .rows = {}};
    for (const Path& path : pathsOf(application)) {
        path.run(); // nothing is done for the first time any more
        const Trace trace = traceOf(path.run);
        counts.rows.push_back(countsRow(path, trace));
        const Times times = measureInTurn({bareOf(trace), path.run}, effort);
        const double ratio = medianRatio(times[1], times[0]);
        costs.rows.push_back({path.name, microseconds(median(times[0])), microseconds(median(times[1])),
                              shown(ratio), microseconds(median(times[1]) - median(times[0]))});
        report.add(Target{std::string("(b) ") + path.name + ", time of bare calls", ratio, 1.5, false});
    }
    for (const Path& path : openingPathsOf(application))
        counts.rows.push_back(countsRow(path, traceOf(path.run)));
    report.add(std::move(costs));
    report.add(std::move(counts));
}

void measureKeyCounts(const Effort& effort, std::size_t mostKeys, Report& report) {
    std::vector<std::size_t> counts;
    std::vector<std::unique_ptr<TokenKeys>> tokens;
    for (std::size_t count = 1; count <= mostKeys; count *= 10) {
        counts.push_back(count);
        tokens.push_back(std::make_unique<TokenKeys>(count));
    }
    tokens.front()->use();
    Application application;
    std::vector<HCRYPTPROV> contexts; // each knows the containers of its token
    for (const auto& token : tokens) {
        token->use();
        contexts.push_back(acquireContext());
    }
    const std::vector<std::pair<const char*, std::function<void(std::size_t)>>> paths = {
        {"CryptoAPI: hash and sign", [sign = signPath(application)](std::size_t) { sign(); }},
        {"CNG: sign", [sign = cngSignPath(application)](std::size_t) { sign(); }},
        {"CryptoAPI: acquire and release", [&](std::size_t) { releaseContext(acquireContext()); }},
        {"CryptoAPI: enumerate all containers",
         [&](std::size_t i) {
             require(enumerateContainers(contexts[i]) == tokens[i]->size(), "number of containers");
         }},
        {"CNG: enumerate all keys",
         [&](std::size_t i) {
             require(enumerateCngKeys(application.cngProvider) == tokens[i]->size(), "number of keys");
         }},
    };
    Table table{.title = "Number of keys on the token",
                .note =
                    "Time of one operation in us. The slope is the time of one more key, between the two "
                    "largest numbers of keys; the growth is the time for the most keys in relation to ten "
                    "times that for a tenth of them: linear is 1.",
                .columns = {"operation"},
                .rows = {}};
    for (const std::size_t count : counts)
        table.columns.push_back(std::to_string(count) + (count == 1 ? " key" : " keys"));
    table.columns.insert(table.columns.end(), {"slope, us", "growth"});
    for (const auto& [name, run] : paths) {
        std::vector<Operation> operations;
        for (std::size_t i = 0; i < counts.size(); ++i) {
            operations.emplace_back([&tokens, &run = run, i] {
                tokens[i]->use();
                run(i);
            });
        }
        const Times times = measureInTurn(operations, effort);
        std::vector<std::string> row = {name};
        std::vector<double> medians;
        for (const auto& series : times) {
            medians.push_back(median(series));
            row.push_back(microseconds(medians.back()));
        }
        const std::size_t last = counts.size() - 1;
        const double slope =
            (medians[last] - medians[last - 1]) / static_cast<double>(counts[last] - counts[last - 1]);
        const double growth = medianRatio(times[last], times[last - 1]) / 10;
        row.push_back(microseconds(slope));
        row.push_back(shown(growth));
        report.add(Target{std::string("(c) ") + name + ", " + std::to_string(counts[last]) +
                              " keys against ten times the time of " + std::to_string(counts[last - 1]),
                          growth, 1.1, false});
        table.rows.push_back(std::move(row));
    }
    report.add(std::move(table));
    for (const HCRYPTPROV context : contexts)
        releaseContext(context);
}

namespace {

/// Seconds until each of `threads` threads has run its operation `repetitions` times.
double secondsOnThreads(const std::vector<Operation>& operations, unsigned threads, unsigned repetitions) {
    const UniqueHandle start(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < threads; ++i) {
        workers.emplace_back([&, i] {
            WaitForSingleObject(start.get(), INFINITE);
            for (unsigned n = 0; n < repetitions; ++n)
                operations[i]();
        });
    }
    return secondsOf([&] {
        SetEvent(start.get());
        for (std::thread& worker : workers)
            worker.join();
    });
}

} // namespace

void measureThreads(const Effort& effort, Report& report) {
    constexpr std::array kThreads = {1u, 2u, 4u, 8u, 16u};
    constexpr DWORD kMilliseconds = 5;
    TokenKeys keys(1);
    std::vector<std::unique_ptr<Application>> applications;
    for (unsigned i = 0; i < kThreads.back(); ++i)
        applications.push_back(std::make_unique<Application>());
    struct Series {
        const char* name;
        std::vector<Operation> operations;           ///< by thread
        unsigned calls;                              ///< of the library, in one operation
        std::vector<std::vector<double>> throughput; ///< by number of threads and run
    };
    std::vector<Series> all = {{"CryptoAPI: hash and sign", {}, 0, {}},
                               {"the same calls made bare", {}, 0, {}},
                               {"CNG: sign", {}, 0, {}},
                               {"the same calls made bare", {}, 0, {}}};
    for (const auto& application : applications) {
        all[0].operations.push_back(signPath(*application));
        all[2].operations.push_back(cngSignPath(*application));
    }
    for (const std::size_t i : {std::size_t{0}, std::size_t{2}}) {
        all[i].operations.front()();
        const Trace trace = traceOf(all[i].operations.front());
        all[i + 1].operations.assign(applications.size(), bareOf(trace));
        all[i].calls = all[i + 1].calls = static_cast<unsigned>(trace.size()) -
                                          static_cast<unsigned>(std::ranges::count(trace, kLogLevelRead));
    }
    standIn()->milliseconds = kMilliseconds;
    for (Series& series : all)
        series.throughput.resize(kThreads.size());
    for (unsigned run = 0; run < effort.runs; ++run) {
        for (std::size_t t = 0; t < kThreads.size(); ++t) {
            for (Series& series : all) {
                const auto repetitions = std::max(
                    1u, static_cast<unsigned>(effort.secondsPerRun * 1000 / kMilliseconds) / series.calls);
                const double seconds = secondsOnThreads(series.operations, kThreads[t], repetitions);
                series.throughput[t].push_back(kThreads[t] * repetitions / seconds);
            }
        }
    }
    standIn()->milliseconds = 0;
    Table table{.title = "Threads",
                .note =
                    "Operations per second while every library call takes 5 ms, and in brackets what each "
                    "thread does in relation to one thread alone.",
                .columns = {"operation"},
                .rows = {}};
    for (const unsigned threads : kThreads)
        table.columns.push_back(std::to_string(threads) + (threads == 1 ? " thread" : " threads"));
    const std::size_t most = kThreads.size() - 1;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Series& series = all[i];
        std::vector<std::string> row = {series.name};
        double scaling = 1;
        for (std::size_t t = 0; t <= most; ++t) {
            scaling = medianRatio(series.throughput[t], series.throughput[0]) / kThreads[t];
            row.push_back(shown(median(series.throughput[t])) + " (" + shown(scaling) + ")");
        }
        table.rows.push_back(std::move(row));
        if (i % 2 != 0) continue;
        report.add(Target{std::string("(d) ") + series.name + ", 16 threads, throughput per thread", scaling,
                          0.95, true});
        report.add(Target{std::string("(d) ") + series.name + ", 16 threads, throughput of bare calls",
                          medianRatio(series.throughput[most], all[i + 1].throughput[most]), 0.95, true});
    }
    report.add(std::move(table));
}

} // namespace veltra::bench
