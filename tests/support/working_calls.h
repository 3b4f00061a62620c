#pragma once

#include "support/both_front_ends.h"
#include "support/invocation.h"

#include "foundation/wide_text.h"

#include <string>
#include <utility>
#include <vector>

namespace veltra::test {

/// An argument of a call, as a word. The name of an object or of a place in the world: with "?" behind it, it
/// need not be there, or is not looked at. "text=NAME": this text. "flags", "flags=N". "inOut":
/// the length of the input before and of the output after. "choice": which of several things the function
/// does. "size": of the input. "capacity": of the output. "=N": a number that stays. "out?" stands for "data?
/// capacity length".
struct Argument {
    explicit Argument(std::string word);

    /// What it is in the world, with this choice.
    std::uintptr_t in(BothFrontEnds& world, std::uintptr_t choice) const;
    /// The object that it names; null when it is none.
    ULONG_PTR BothFrontEnds::*object() const;
    /// The address of the place that it names; 0 when it is none.
    std::uintptr_t placeIn(BothFrontEnds& world) const;

    std::string name;
    bool isOptional;
    std::uintptr_t value = 0;
    std::vector<WCHAR> text;
};

/// The arguments that these words, with blanks between them, say.
std::vector<Argument> argumentsOf(std::string_view words);

/// What an invocation answers when the last error behind it is not as promised.
constexpr DWORD kNoReason = 0xFFFFFFFF;

/// The failure of a CP* function that returned this, which the last error tells; 0 for none.
DWORD failureByLastError(DWORD result);

/// What becomes of a call and of the objects in it.
enum class Outcome {
    Served,
    Spends, ///< served, and an object is gone
    NeverServed,
};

/// A call of an entry point that works as it stands, with the first of its choices, in a world that `prepare`
/// has changed and whose user types the PIN.
struct WorkingCall {
    /// Behind the words comes what is not the ordinary: the input, the choices, what changes the world, the
    /// outcome.
    template <class Result, class... Parameters, class... More>
    WorkingCall(const char* called, Result(WINAPI* function)(Parameters...), const char* words, More... more)
        : name(called), call(invocation(function)), arguments(argumentsOf(words)) {
        (set(std::move(more)), ...);
    }

    void prepare(BothFrontEnds& world) const;
    /// Makes the call with kUntouched as the last error. 0 or the failure.
    DWORD invoke(const Values& values) const;
    Values valuesIn(BothFrontEnds& world, std::uintptr_t choice) const;

    const char* name;
    Invocation call;
    DWORD (*failureOf)(DWORD result) = failureByLastError;
    std::vector<Argument> arguments;
    Bytes input{};
    Values choices = {0};
    void (*changeWorld)(BothFrontEnds&) = [](BothFrontEnds&) {};
    Outcome outcome = Outcome::Served;

private:
    void set(Bytes bytes) { input = std::move(bytes); }
    void set(Values values) { choices = std::move(values); }
    void set(void (*change)(BothFrontEnds&)) { changeWorld = change; }
    void set(Outcome other) { outcome = other; }
};

/// Calls of all entry points, in every use that has library calls of its own.
std::vector<WorkingCall> cspCalls();
std::vector<WorkingCall> cngCalls();

/// -1 and every bit alone.
Values bits();

} // namespace veltra::test
