#pragma once

#include "support/googletest.h"
#include "support/invocation.h"
#include "support/log_file.h"
#include "support/scripted_device_library.h"
#include "support/scripted_pin_prompt.h"

#include "foundation/live_records.h"
#include "foundation/windows.h"
#include "token/device_monitor.h"
#include "token/device_state.h"

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace veltra::test {

/// What an entry point answered: its result, the thread's last error behind it, and the error lines it wrote.
struct Answer {
    BOOL result = FALSE;
    DWORD lastError = 0;
    std::vector<std::string> errors;

    bool operator==(const Answer&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Answer& answer);

/// FALSE, with this last error and exactly these error lines.
inline Answer refused(DWORD lastError, std::vector<std::string> errors) {
    return {FALSE, lastError, std::move(errors)};
}

/// TRUE with this last error and no error line.
inline Answer accepted(DWORD lastError = kUntouched) {
    return {TRUE, lastError, {}};
}

/// Runs `body` on `count` threads at once and returns when all have ended.
void runOnThreads(int count, const std::function<void()>& body);

/// The container map in the registry: raw values under HKEY_CURRENT_USER "SOFTWARE\Veltra\CSP\Containers".
void writeContainerValue(const std::string& container, const std::string& data, DWORD type = REG_SZ);
/// The value's bytes, its terminating zero included; empty when there is none.
std::string readContainerValue(const std::string& container);

/// Fixture of every test of the provider: the scripted device library with one token, a scripted prompt,
/// debug lines on and captured, an empty container map. What the provider keeps for the whole process cannot
/// be reset, so every test has a token serial and container names of its own.
class ProviderTest : public testing::Test {
protected:
    ProviderTest();
    ~ProviderTest() override;

    /// Stops the device monitor: a Winelib program whose destructors still call the system loses its exit
    /// status.
    static void TearDownTestSuite() { stopDeviceMonitor(); }

    /// Runs one call of an entry point and collects its answer. The debug lines it wrote are in debugLines.
    Answer run(const std::function<BOOL()>& call);
    template <class... Parameters>
    Answer run(BOOL(WINAPI* entryPoint)(Parameters...), std::type_identity_t<Parameters>... arguments) {
        return run([&] { return entryPoint(arguments...); });
    }

    /// The lines written since the last look, without time stamps ("ERROR CPHashData: ..."). Lines of the
    /// device monitor's thread are left out: they come at any time.
    std::vector<std::string> takeLogLines();
    /// The same with nothing cut off or left out.
    std::vector<std::string> takeRawLogLines();

    /// Releases the object of a handle, if it is still there, behind the test.
    std::uintptr_t keep(std::uintptr_t handle) { return handles_.emplace_back(handle); }
    /// A key object of either front end that is made without it.
    template <class Key>
    std::uintptr_t addKey(std::unique_ptr<Key> key) {
        return keep(LiveRecords<Key>::add(std::move(key)));
    }
    /// Makes the PIN of the fixture's token known to the provider, as an earlier login would have.
    void storePinOfToken() { storePin(serial, Pin(token.pin)); }

    /// A name that no other test uses.
    static std::string freshName(const std::string& stem);

    ScriptedDeviceLibrary& library = ScriptedDeviceLibrary::instance();
    ScriptedPinPrompt prompt;
    const std::string serial = freshName("Token");
    ScriptedToken& token;
    std::vector<std::string> debugLines;

private:
    std::size_t logOffset_ = 0;
    std::vector<std::uintptr_t> handles_;
};

} // namespace veltra::test
