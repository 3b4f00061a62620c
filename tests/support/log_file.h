#pragma once

#include "foundation/windows.h"

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

/// The contents of a file; empty when it cannot be read.
std::string readFile(const std::string& path);
std::vector<std::string> linesOf(const std::string& text);

/// "ERROR CPHashData: ..." of a line "15/11::06:57:53:123-> ->ERROR ::=>CPHashData: ...".
std::string withoutTime(const std::string& line);

/// Sets HKEY_LOCAL_MACHINE "Software\Quenmark\Veltra" "logLevel"; the second form removes it.
void setLogLevel(DWORD level);
void removeLogLevel();

} // namespace veltra::test
