#pragma once

namespace veltra::test {

/// Tells AddressSanitizer the bounds of the calling thread's stack, which it cannot find by itself under
/// Wine: without them it misjudges the stack after an exception. Call it first on every thread. Does nothing
/// in a build without AddressSanitizer.
void announceStackToSanitizer();

/// Looks for leaks now instead of at the end of the process, where Wine's server kills a program that takes more
/// than a second. Ends the process when there are any. Does nothing in a build without AddressSanitizer.
void lookForLeaks();

} // namespace veltra::test
