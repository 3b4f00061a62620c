#pragma once

namespace veltra::test {

/// Makes allocations of the calling thread fail. It stands between operator new and whoever calls it from
/// this program, by the linker's --wrap, so that the sanitizers keep their own; allocations inside of a
/// shared C++ library are not seen.
class AllocationFault {
public:
    static constexpr int kAlways = -1;

    /// The n-th operator new of this thread from now on, or all of them, throws std::bad_alloc, or answers
    /// null.
    static void arm(int n);
    static void disarm();

    /// Whether the allocation that was armed last was reached.
    static bool fired();
};

} // namespace veltra::test
