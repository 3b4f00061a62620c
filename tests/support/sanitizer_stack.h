#pragma once

namespace veltra::test {

/// Tells AddressSanitizer the bounds of the calling thread's stack, which it cannot find by itself under
/// Wine: without them it misjudges the stack after an exception. Call it first on every thread. Does nothing
/// in a build without AddressSanitizer.
void announceStackToSanitizer();

} // namespace veltra::test
