#pragma once

#include "commands.h"

#include <CLI.hpp>

#include <functional>
#include <span>
#include <string>

namespace veltra {

/// What the command line gives as UTF-8 text, before the commands see it.
struct CommandLine {
    std::string container;
    std::string usage = "sign";
    std::string subject;
    std::string out;
    std::string file;
    std::string signature;
    std::string certificate;
    std::string hash = "sha256";
    DWORD bits = 2048;
    DWORD length = 0;
    int days = 365;
    bool cms = false;
    bool raw = false;
    std::string oaepHash = "sha1";
    std::string algorithm = "RSA";
    std::string blobType = "PEM";
    std::string peer;
    std::string derivation = "HASH";
    std::string label;
    std::string context;
    std::string process;
    std::string level;
    bool oaep = false;
    bool pss = false;
    bool der = false;
    bool cng = false;
    bool withoutAttributes = false;
    bool confirmed = false;
    bool sign = false;
    bool follow = false;
    bool filesOnly = false;
    std::size_t lines = 20;
    int timeoutSeconds = 10;
    std::string probe;
};

/// The command chosen on the command line, ready to run.
using Action = std::function<int(const ProviderChoice&, Output&)>;

/// A command of the program: what --help says about it, and `configure`, which adds its options and the
/// callback that checks them and chooses the action. `line` and `action` outlive the parsing.
struct CommandSpec {
    const char* group;
    const char* name;
    const char* summary;
    const char* examples; ///< one a line, without the program's name
    void (*configure)(CLI::App& command, CommandLine& line, Action& action);
};

/// All commands, in the order of the help.
std::span<const CommandSpec> commandTable();

/// Refuses an empty text.
const CLI::Validator& notEmpty();

} // namespace veltra
