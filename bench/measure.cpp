#include "measure.h"

#include "foundation/windows.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace veltra::bench {

namespace {

// How often the operation fits into `seconds`; it has run a few times when this returns.
unsigned repetitionsFor(const Operation& operation, double seconds) {
    for (unsigned repetitions = 1;; repetitions *= 4) {
        const double taken = secondsOf([&] {
            for (unsigned i = 0; i < repetitions; ++i)
                operation();
        });
        if (taken >= seconds / 4) {
            return std::max(1u, static_cast<unsigned>(std::lround(seconds / taken * repetitions)));
        }
    }
}

} // namespace

double secondsOf(const Operation& operation) {
    const auto start = std::chrono::steady_clock::now();
    operation();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Times measureInTurn(const std::vector<Operation>& operations, const Effort& effort) {
    std::vector<unsigned> repetitions;
    for (const Operation& operation : operations)
        repetitions.push_back(repetitionsFor(operation, effort.secondsPerRun));
    Times times(operations.size(), std::vector<double>(effort.runs));
    for (unsigned run = 0; run < effort.runs; ++run) {
        for (std::size_t turn = 0; turn < operations.size(); ++turn) {
            const std::size_t i = run % 2 == 0 ? turn : operations.size() - 1 - turn;
            const double seconds = secondsOf([&] {
                for (unsigned n = 0; n < repetitions[i]; ++n)
                    operations[i]();
            });
            times[i][run] = seconds / repetitions[i];
        }
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
