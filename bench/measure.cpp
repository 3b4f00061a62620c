#include "measure.h"

#include "foundation/windows.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace veltra::bench {

namespace {

/// How an operation is measured in one run.
struct Sampling {
    unsigned repetitions; ///< of the operation in one sample
    unsigned samples;
};

double secondsOfMany(const Operation& operation, unsigned repetitions) {
    return secondsOf([&] {
        for (unsigned i = 0; i < repetitions; ++i)
            operation();
    });
}

// The operation has run a few times when this returns.
Sampling samplingFor(const Operation& operation, double secondsPerRun) {
    constexpr double kSecondsPerSample = 50e-6; // far above the resolution of the clock
    unsigned repetitions = 1;
    double taken = secondsOfMany(operation, repetitions);
    while (taken < kSecondsPerSample) {
        repetitions *= 2;
        taken = secondsOfMany(operation, repetitions);
    }
    return {repetitions, std::max(1u, static_cast<unsigned>(std::lround(secondsPerRun / taken)))};
}

} // namespace

double secondsOf(const Operation& operation) {
    const auto start = std::chrono::steady_clock::now();
    operation();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Times measureInTurn(const std::vector<Operation>& operations, const Effort& effort) {
    std::vector<Sampling> plan;
    unsigned turns = 0;
    for (const Operation& operation : operations) {
        plan.push_back(samplingFor(operation, effort.secondsPerRun));
        turns = std::max(turns, plan.back().samples);
    }
    Times times(operations.size());
    for (unsigned run = 0; run < effort.runs; ++run) {
        std::vector<std::vector<double>> samples(operations.size());
        for (unsigned turn = 0; turn < turns; ++turn) {
            for (std::size_t n = 0; n < operations.size(); ++n) {
                const std::size_t i = turn % 2 == 0 ? n : operations.size() - 1 - n;
                if (turn >= plan[i].samples) continue;
                samples[i].push_back(secondsOfMany(operations[i], plan[i].repetitions) / plan[i].repetitions);
            }
        }
        for (std::size_t i = 0; i < operations.size(); ++i)
            times[i].push_back(median(std::move(samples[i])));
    }
    return times;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double medianRatio(const std::vector<double>& dividend, const std::vector<double>& divisor) {
    std::vector<double> ratios(dividend.size());
    std::ranges::transform(dividend, divisor, ratios.begin(), std::divides<>());
    return median(ratios);
}

std::size_t heapBytes() {
    std::vector<HANDLE> heaps(256);
    heaps.resize(
        std::min<std::size_t>(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()), heaps.size()));
    std::size_t bytes = 0;
    for (HANDLE heap : heaps) {
        HeapLock(heap);
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heap, &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) bytes += entry.cbData;
        }
        HeapUnlock(heap);
    }
    return bytes;
}

} // namespace veltra::bench
