#pragma once

#include "measure.h"
#include "paths.h"
#include "report.h"

namespace veltra::bench {

// Each measures one thing and adds its table, and its targets, to the report.

/// Hashing in blocks of several sizes, against the library alone.
void measureHashing(const Effort& effort, Report& report);

/// Every path of both front ends, against the reads of the log level and the library calls in it. Both are
/// counted first; the counts are a table of their own.
void measurePaths(const Effort& effort, Report& report);

/// Signatures, and enumerations of all keys, on tokens of 1 to `mostKeys` keys.
void measureKeyCounts(const Effort& effort, std::size_t mostKeys, Report& report);

/// Signatures on 1 to 16 threads, with a library that takes 5 ms for every call.
void measureThreads(const Effort& effort, Report& report);

/// Contexts and hashes through the system's CryptoAPI, beside the platform's own provider.
void measureSystem(const Effort& effort, Report& report);

/// Memory of many open handles, and its growth over `signatures` signatures.
void measureMemory(unsigned signatures, Report& report);

} // namespace veltra::bench
