#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace veltra {

/// Asks on the terminal for a secret, which does not appear while it is typed; what is longer than `capacity`
/// characters may be cut. Nothing when there is no terminal. The caller wipes the text.
std::optional<std::wstring> askForSecret(const std::string& question, std::size_t capacity);

/// A line on the terminal that says what the program is waiting for, and for how long already; it is gone
/// when the object is. When the standard error is no terminal, nothing is shown.
class Progress {
public:
    explicit Progress(std::string what);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

private:
    void show(const std::stop_token& stop);

    std::string what_;
    std::mutex mutex_;
    std::condition_variable_any ended_;
    std::jthread thread_;
};

} // namespace veltra
