#pragma once

#include <string>
#include <vector>

namespace veltra::test {

/// Makes a folder of this process the temporary folder, once, so that its log is apart from every other's.
void useOwnLogFolder();

/// The temporary folder of this process, ending in a backslash.
std::string temporaryFolder();

/// Paths of this process's log files, oldest day first.
std::vector<std::string> logFiles();

/// The text of all of them.
std::string readLog();
void removeLog();

} // namespace veltra::test
