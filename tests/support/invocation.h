#pragma once

#include "foundation/windows.h"

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace veltra::test {

using Values = std::vector<std::uintptr_t>;

/// The last error in front of every call.
constexpr DWORD kUntouched = 0xCAFE;

/// Calls a function with arguments of any type; what it returned.
using Invocation = std::function<DWORD(const Values&)>;

inline std::uintptr_t addressOf(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

template <class Result, class... Parameters>
Invocation invocation(Result(WINAPI* function)(Parameters...)) {
    return [function](const Values& values) {
        return [&]<std::size_t... Index>(std::index_sequence<Index...>) {
            return static_cast<DWORD>(function(Parameters(values.at(Index))...));
        }
        (std::index_sequence_for<Parameters...>());
    };
}

} // namespace veltra::test
