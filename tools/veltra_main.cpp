// veltra: uses the tokens behind the Veltra provider as any application would, through the system's CryptoAPI
// or, as the system's CNG does, through the function table of the key storage provider.

#include "command_line.h"
#include "error_text.h"
#include "wide_text.h"

#include <shellapi.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <limits>
#include <memory>

namespace veltra {
namespace {

constexpr const char* kFooter = R"(
The PIN: the provider asks for it in a window of its own, unless --pin-prompt, --pin-fd, --pin-stdin or the
environment variable VELTRA_PIN gives it, or the token is logged in (the software token: softtoken login SERIAL).

Exit codes:
  0  success; doctor: no problem was found
  1  the operation failed or was refused; doctor: problems were found
  2  wrong usage
  3  the signature does not verify

Examples:
  veltra doctor
  veltra generate-key --container letters
  veltra sign letter.pdf --container letters --raw --out letter.sig

'veltra COMMAND --help' tells a command's options and gives examples.)";

/// The arguments of this process in UTF-8, last first, as CLI::App::parse takes them.
std::vector<std::string> reversedArguments() {
    struct Freer {
        void operator()(wchar_t** block) const { LocalFree(block); }
    };
    int count = 0;
    const std::unique_ptr<wchar_t*[], Freer> arguments(CommandLineToArgvW(GetCommandLineW(), &count));
    std::vector<std::string> reversed;
    for (int index = count - 1; arguments && index > 0; --index) {
        reversed.push_back(toUtf8(arguments[static_cast<std::size_t>(index)]));
    }
    return reversed;
}

/// What is for every command.
struct GlobalOptions {
    std::string provider;
    std::string dll;
    bool silent = false;
    bool json = false;
    bool pinFromInput = false;
    PinSource pin;
};

constexpr const char* kPinGroup = "PIN, from at most one of";

void addPinOptions(CLI::App& app, GlobalOptions& options) {
    const std::array sources = {
        app.add_flag("--pin-prompt", options.pin.terminal, "Ask for the PIN on the terminal"),
        app.add_option("--pin-fd", options.pin.descriptor, "Read the PIN from this file descriptor, one line")
            ->check(CLI::Range(0, std::numeric_limits<int>::max()).description(""))
            ->type_name("N"),
        app.add_flag("--pin-stdin", options.pinFromInput, "Read it from the standard input: --pin-fd 0"),
        app.add_option("--pin-env", options.pin.variable, "Take it from this environment variable")
            ->check(notEmpty())
            ->type_name("NAME"),
        app.add_option("--pin", options.pin.argument, "The PIN itself, for everybody to see; warns")
            ->check(notEmpty())
            ->type_name("PIN")};
    for (CLI::Option* source : sources) {
        source->group(kPinGroup);
    }
}

/// Not by CLI11's means, which would name all the others at each of them in the help.
void requireOnePinSource(const CLI::App& app) {
    const std::vector<const CLI::Option*> given = app.get_options(
        [](const CLI::Option* option) { return option->get_group() == kPinGroup && option->count() > 0; });
    if (given.size() > 1) {
        throw CLI::ValidationError("give the PIN in one way: " + given[0]->get_name() + " or " +
                                   given[1]->get_name());
    }
}

void addGlobalOptions(CLI::App& app, GlobalOptions& options, CommandLine& line) {
    app.set_version_flag("--version", "veltra " VELTRA_VERSION);
    app.add_flag("--json", options.json, "Print the result as one JSON object");
    app.add_flag("--cng", line.cng, "Use the key storage provider instead of CryptoAPI");
    app.add_option("--provider", options.provider, "Name of the provider")
        ->check(notEmpty())
        ->capture_default_str();
    app.add_option(
           "--dll", options.dll,
           "The provider's DLL (--cng, register); default: beside this program, or else in the system's "
           "folder")
        ->check(notEmpty())
        ->type_name("PATH");
    app.add_flag("--silent", options.silent, "Never let the provider show a window");
    addPinOptions(app, options);
}

/// CLI11 prints a footer as it is.
std::string exampleLines(const std::string& examples) {
    std::string text = "\nExamples:\n";
    for (std::size_t start = 0; start < examples.size();) {
        const std::size_t end = std::min(examples.find('\n', start), examples.size());
        text += "  veltra " + examples.substr(start, end - start) + '\n';
        start = end + 1;
    }
    return text + "\n'veltra --help' tells the options that every command has.\n";
}

void addCommands(CLI::App& app, CommandLine& line, Action& action) {
    for (const CommandSpec& spec : commandTable()) {
        CLI::App* command = app.add_subcommand(spec.name, spec.summary)->group(spec.group);
        spec.configure(*command, line, action);
        command->footer(exampleLines(spec.examples));
    }
}

/// The error for people, and with --json for programs too.
int report(const std::string& sentence, int exitCode, DWORD systemCode, Output& out) {
    std::cerr << "veltra: " << printable(sentence) << '\n';
    Json code;
    if (systemCode != 0) code = errorCodeText(systemCode);
    out.set("error", {{"message", sentence}, {"exitCode", exitCode}, {"code", code}});
    return exitCode;
}

int runReporting(const Action& action, GlobalOptions& options, ProviderChoice& provider, Output& out) {
    try {
        provider.pin = readPin(options.pin);
        return action(provider, out);
    } catch (const CommandError& error) {
        return report(error.what(), error.exitCode(), error.systemCode(), out);
    } catch (const std::exception& error) {
        return report(error.what(), kExitFailed, 0, out);
    }
}

/// One line, like every other error.
int reportUsage(const CLI::App& app, const CLI::ParseError& error, Output& out) {
    std::string command = "veltra";
    std::string sentence = error.what();
    for (const CLI::App* used : app.get_subcommands()) {
        command += ' ' + used->get_name();
    }
    if (app.get_subcommands().empty()) {
        const std::vector<std::string> unknown = app.remaining();
        sentence = unknown.empty() ? "no command is given"
                                   : "there is no command or option '" + unknown.front() + "'";
    }
    sentence += "; '" + command + " --help' tells what there is";
    const int exitCode = report(sentence, kExitUsage, 0, out);
    out.finish();
    return exitCode;
}

int run() {
    CommandLine line;
    Action action;
    ProviderChoice provider;
    GlobalOptions options;
    options.provider = toUtf8(provider.name);

    CLI::App app("Signs, verifies and manages keys on tokens through the Veltra provider.", "veltra");
    app.fallthrough();
    app.allow_windows_style_options(false); // "/name" is a path
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    addGlobalOptions(app, options, line);
    addCommands(app, line, action);
    app.footer(kFooter); // after the commands, which would take it over

    const std::vector<std::string> arguments = reversedArguments();
    try {
        app.parse(std::vector(arguments));
        requireOnePinSource(app);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        Output out(std::ranges::find(arguments, "--json") != arguments.end());
        return reportUsage(app, error, out);
    }
    provider.name = toWide(options.provider);
    provider.cng = line.cng;
    provider.dll = toWide(options.dll);
    provider.silent = options.silent;
    if (options.pinFromInput) options.pin.descriptor = 0;
    Output out(options.json);
    const int exitCode = runReporting(action, options, provider, out);
    out.finish();
    // Who closes a pipe has seen enough.
    if (std::cout.fail() && GetFileType(GetStdHandle(STD_OUTPUT_HANDLE)) != FILE_TYPE_PIPE) {
        std::cerr << "veltra: could not write all of the output; check where it goes\n";
        return exitCode == kExitOk ? kExitFailed : exitCode;
    }
    return exitCode;
}

} // namespace
} // namespace veltra

int main() {
    SetConsoleOutputCP(CP_UTF8);
    try {
        return veltra::run();
    } catch (const std::exception& error) {
        std::cerr << "veltra: " << error.what() << '\n';
        return veltra::kExitFailed;
    }
}
