#pragma once

#include "output.h"
#include "pin_source.h"

#include "foundation/win_handle.h"

#include <string>
#include <vector>

namespace veltra {

// What may hang or crash is examined by a process of its own, a "probe": this program again, which reports in
// lines of JSON through a pipe and is ended when it takes too long. What it reported until then counts.

/// How a probe ended.
enum class ProbeEnd { Finished, TimedOut, Crashed, NotStarted };

struct ProbeResult {
    ProbeEnd end = ProbeEnd::NotStarted;
    std::string step;        ///< what it was doing last
    std::vector<Json> facts; ///< objects with one member each, whose name tells what it is

    /// The first fact of this name; null when there is none.
    [[nodiscard]] const Json* find(const std::string& name) const;

    /// All facts of this name.
    [[nodiscard]] std::vector<Json> all(const std::string& name) const;
};

/// Starts a probe, with these arguments behind "doctor --probe", and waits for its end.
ProbeResult runProbeProcess(const std::string& probe, const std::vector<std::wstring>& arguments,
                            const SharedPin& pin, int timeoutSeconds);

/// The side of the probe: reports to the process that started it.
class ProbeReport {
public:
    /// `handle` is the number behind the probe's name on the command line. A number that is no pipe throws a
    /// CommandError: the probe was started by a person.
    explicit ProbeReport(const std::string& handle);

    /// What comes next, in case it does not come back.
    void step(const std::string& what) const;

    void fact(const std::string& name, Json value) const;

    /// Tells that everything was reported, and ends the process at once: what was examined does not get the
    /// chance to hang while it is unloaded.
    [[noreturn]] void finish() const;

private:
    void write(const Json& line) const;

    UniqueHandle pipe_;
};

} // namespace veltra
