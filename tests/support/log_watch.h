#pragma once

namespace veltra::test {

/// Runs `look` in front of every log line of any thread, written or not; null ends it. It stands between the
/// log and whoever calls it, by the linker's --wrap.
void lookAtEveryLogLine(void (*look)());

} // namespace veltra::test
