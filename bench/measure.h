#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace veltra::bench {

/// One thing to measure. It throws when what it calls fails.
using Operation = std::function<void()>;

/// How much is measured.
struct Effort {
    unsigned runs;        ///< of each operation; at least 9 for numbers that count
    double secondsPerRun; ///< of each operation, roughly; one operation at least
};

/// Times of operations, in seconds for one, by run.
using Times = std::vector<std::vector<double>>;

/// Measures the operations in turn: what else the machine does meets all of them alike. A run is many short
/// samples of each operation, one after the other, and counts as their median, so that a sample during which
/// the system gave the processor to somebody else does not count. Times[i][r] is operation i in run r.
Times measureInTurn(const std::vector<Operation>& operations, const Effort& effort);

double median(std::vector<double> values);

/// The median of dividend / divisor, run by run.
double medianRatio(const std::vector<double>& dividend, const std::vector<double>& divisor);

/// Seconds that `operation` takes.
double secondsOf(const Operation& operation);

/// Bytes in use on all heaps of the process.
std::size_t heapBytes();

} // namespace veltra::bench
