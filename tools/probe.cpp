#include "probe.h"

#include "error_text.h"
#include "wide_text.h"

#include "foundation/module.h"

#include <charconv>
#include <cstdint>
#include <sstream>
#include <thread>

namespace veltra {
namespace {

constexpr std::size_t kLongestReport = std::size_t{8} * 1024 * 1024;
constexpr const char* kStep = "step";
constexpr const char* kEnd = "end";

struct Pipe {
    UniqueHandle read;
    UniqueHandle write;
};

/// A pipe of which the started process inherits one end alone: the one that it reads or the one that it
/// writes.
Pipe makePipe(bool childReads) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    require(CreatePipe(&read, &write, &inheritable, 0), "could not make a pipe");
    Pipe pipe{UniqueHandle(read), UniqueHandle(write)};
    SetHandleInformation(childReads ? write : read, HANDLE_FLAG_INHERIT, 0);
    return pipe;
}

UniqueHandle openNothing() {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    return ownFile(CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               &inheritable, OPEN_EXISTING, 0, nullptr));
}

/// An argument as CommandLineToArgvW takes it apart again.
std::wstring quoted(const std::wstring& argument) {
    std::wstring text = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t character : argument) {
        if (character == L'"') text.append(backslashes + 1, L'\\');
        backslashes = character == L'\\' ? backslashes + 1 : 0;
        text += character;
    }
    return text.append(backslashes, L'\\') + L'"';
}

std::wstring commandLine(const std::wstring& program, const std::string& probe, HANDLE report,
                         const std::vector<std::wstring>& arguments) {
    const std::string number = std::to_string(reinterpret_cast<std::uintptr_t>(report));
    std::wstring line = quoted(program) + L" doctor --probe " + quoted(toWide(probe + ":" + number));
    for (const std::wstring& argument : arguments) {
        line += L' ' + quoted(argument);
    }
    return line;
}

void writePin(HANDLE pipe, const SharedPin& pin) {
    if (!pin) return;
    DWORD written = 0;
    WriteFile(pipe, pin->data(), static_cast<DWORD>(pin->size()), &written, nullptr);
    WriteFile(pipe, "\n", 1, &written, nullptr);
}

std::string readAll(HANDLE pipe) {
    std::string text;
    std::string piece(4096, '\0');
    DWORD length = 0;
    while (text.size() < kLongestReport &&
           ReadFile(pipe, piece.data(), static_cast<DWORD>(piece.size()), &length, nullptr) && length > 0) {
        text.append(piece, 0, length);
    }
    return text;
}

/// What examined code writes into the pipe by itself, or a line that was cut, is no object and is passed
/// over.
void readReport(const std::string& text, ProbeResult& result) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json object = Json::parse(line, nullptr, false);
        if (!object.is_object() || object.size() != 1) continue;
        if (const auto step = object.find(kStep); step != object.end() && step->is_string()) {
            result.step = step->get<std::string>();
        } else if (object.contains(kEnd)) {
            result.end = ProbeEnd::Finished;
        } else {
            result.facts.push_back(std::move(object));
        }
    }
}

/// No error box and no debugger: the process that waits tells the user.
LONG WINAPI endQuietly(EXCEPTION_POINTERS*) {
    TerminateProcess(GetCurrentProcess(), kExitFailed);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

const Json* ProbeResult::find(const std::string& name) const {
    for (const Json& fact : facts) {
        if (const auto member = fact.find(name); member != fact.end()) return &*member;
    }
    return nullptr;
}

std::vector<Json> ProbeResult::all(const std::string& name) const {
    std::vector<Json> found;
    for (const Json& fact : facts) {
        if (fact.contains(name)) found.push_back(fact.at(name));
    }
    return found;
}

ProbeResult runProbeProcess(const std::string& probe, const std::vector<std::wstring>& arguments,
                            const SharedPin& pin, int timeoutSeconds) {
    Pipe report = makePipe(false);
    Pipe input = makePipe(true);
    const UniqueHandle nothing = openNothing();
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input.read.get();
    startup.hStdOutput = nothing.get();
    startup.hStdError = nothing.get();
    const std::wstring program = moduleFile(nullptr);
    std::wstring line = commandLine(program, probe, report.write.get(), arguments);
    PROCESS_INFORMATION started{};
    ProbeResult result;
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                        nullptr, &startup, &started)) {
        return result;
    }
    const UniqueHandle process(started.hProcess);
    const UniqueHandle thread(started.hThread);
    report.write.reset();
    input.read.reset();
    writePin(input.write.get(), pin);
    input.write.reset();

    std::string text;
    std::thread reader([&] { text = readAll(report.read.get()); });
    const DWORD milliseconds = static_cast<DWORD>(timeoutSeconds) * 1000;
    const bool ended = WaitForSingleObject(process.get(), milliseconds) == WAIT_OBJECT_0;
    if (!ended) {
        TerminateProcess(process.get(), kExitFailed);
        WaitForSingleObject(process.get(), INFINITE);
    }
    reader.join();
    result.end = ended ? ProbeEnd::Crashed : ProbeEnd::TimedOut;
    readReport(text, result);
    return result;
}

ProbeReport::ProbeReport(const std::string& handle) {
    std::uintptr_t number = 0;
    const auto parsed = std::from_chars(handle.data(), handle.data() + handle.size(), number);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): how a process hands an inherited handle on
    auto* const pipe = reinterpret_cast<HANDLE>(number);
    if (parsed.ec != std::errc() || GetFileType(pipe) != FILE_TYPE_PIPE) {
        throw CommandError("--probe is for the program itself; leave it out", kExitUsage);
    }
    pipe_.reset(pipe);
    SetHandleInformation(pipe, HANDLE_FLAG_INHERIT,
                         0); // a process that examined code starts must not hold it
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    SetUnhandledExceptionFilter(endQuietly);
}

void ProbeReport::step(const std::string& what) const {
    write({{kStep, what}});
}

void ProbeReport::fact(const std::string& name, Json value) const {
    write({{name, std::move(value)}});
}

void ProbeReport::finish() const {
    write({{kEnd, true}});
    TerminateProcess(GetCurrentProcess(), kExitOk);
    std::abort(); // not reached: the call above does not come back
}

void ProbeReport::write(const Json& line) const {
    const std::string text = jsonText(line) + '\n';
    DWORD written = 0;
    WriteFile(pipe_.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

} // namespace veltra
