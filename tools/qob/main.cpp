// qob: create, inspect and edit image packages from the command line.
#include "cli.hpp"
#include "commands.hpp"
#include "host_platform.hpp"
#include "library_log.hpp"

#include <cstdio>
#include <exception>
#include <string_view>

namespace qobtool {
namespace {

constexpr const char* kCompanionHelp =
    "  --settings FILE   the settings file\n"
    "  --proxy FILE      the proxy preview\n"
    "  --lcc ID=FILE     a lens cast calibration profile with its identifier (repeatable)\n"
    "  --icc ID=FILE     an ICC profile with its identifier (repeatable)\n"
    "  --mask FILE       the mask\n"
    "  --hair FILE       the hair mask\n"
    "  --reserve BYTES   zero space reserved behind each of these files when it is written\n"
    "                    (default: 16384 for the settings file, 0 for the others), so that a\n"
    "                    later, larger version is rewritten in place\n";

struct Command {
    std::string_view name;
    int (*run)(const Args&, bool quiet);
    const char* usage;
    const char* summary;
    const char* details;
};

const Command kCommands[] = {
    {"create", &RunCreate, "create PKG --raw FILE [companion files]",
     "create a new package from a raw image and its companion files",
     "  --raw FILE        the raw image (required)\n"},
    {"update", &RunUpdate, "update PKG [companion files]",
     "put new or changed companion files into a package; new profiles are added",
     "  Files that fit their entry's space are rewritten in place; the raw image stays.\n"},
    {"info", &RunInfo, "info PKG [--json]",
     "the files the manifest names: paths, identifiers, sizes, offsets and times",
     "  --json            one JSON document instead of a table\n"},
    {"ls", &RunList, "ls PKG [--json]",
     "every zip entry with its content size, allocated size and offset",
     "  Read from the zip's central directory, manifests included. The name is the last\n"
     "  column and may contain spaces; --json is the form for scripts.\n"
     "  --json            one JSON document instead of a table\n"},
    {"lcc", &RunLcc, "lcc PKG ID [--json]", "the lens cast calibration profile with identifier ID",
     "  --json            one JSON object instead of text\n"},
    {"check", &RunCheck, "check PKG [--json]",
     "whether PKG is an image package (exit status 0 if so, 3 if not)",
     "  A negative answer goes to standard error; --json prints the answer on standard\n"
     "  output either way.\n"
     "  --json            one JSON object instead of text\n"},
    {"verify", &RunVerify, "verify PKG [--json]",
     "read every entry back and compare manifests and zip (exit status 0 if sound)",
     "  Checks each entry's CRC-32 and zero padding, that every path a manifest names is in\n"
     "  the zip, and that every entry but the manifests is named by a manifest. Problems go\n"
     "  to standard error, one per line; a damaged package exits with status 1.\n"
     "  --json            one JSON document instead of text (problems included)\n"},
    {"extract", &RunExtract, "extract PKG DIR",
     "write every file of the package (not the manifests) under DIR", ""},
    {"cat", &RunCat, "cat PKG ENTRY", "write one entry's content to standard output", ""},
    {"rm", &RunRemove, "rm PKG ENTRY [--force]",
     "remove an entry from the package and its manifests",
     "  The entry name must match exactly. PKG must be an image package.\n"
     "  --force           remove even the raw image or manifest.xml (the package will no\n"
     "                    longer open)\n"},
};

constexpr const char* kExitHelp =
    "exit status:\n"
    "  0  success (check: an image package; verify: sound)\n"
    "  1  failure (verify: a damaged package); one line on standard error says why\n"
    "  2  usage error\n"
    "  3  not an image package\n"
    "  4  not found: the package, a named file, an entry or an LCC identifier\n";

void PrintOverview(std::FILE* out) {
    std::fprintf(out, "usage: qob [-q] [-v|-vv|-vvv] COMMAND [ARGS]\n"
                      "       qob --version | --help\n\ncommands:\n");
    for (const Command& command : kCommands) {
        std::fprintf(out, "  %-8.*s %s\n", static_cast<int>(command.name.size()),
                     command.name.data(), command.summary);
    }
    std::fprintf(out,
                 "\nRun 'qob COMMAND --help' for a command's options.\n"
                 "-q prints nothing on success and hides the library's warnings.\n"
                 "-v shows the library's INFO lines, -vv DEBUG, -vvv TRACE.\n"
                 "Times are ISO 8601 with the local offset.\n\n%s",
                 kExitHelp);
}

void PrintHelp(const Command& command) {
    std::printf("usage: qob %s\n\n%s.\n\n%s", command.usage, command.summary, command.details);
    if (command.name == "create" || command.name == "update") {
        std::printf("%s", kCompanionHelp);
    }
}

// Removes -q/--quiet, -v, -vv, -vvv and --verbose (before any "--") and returns how many
// v's there were.
int TakeVerbosity(Args& args, bool& quiet) {
    int verbosity = 0;
    Args rest;
    bool optionsEnded = false;
    for (const std::string& arg : args) {
        optionsEnded = optionsEnded || arg == "--";
        if (!optionsEnded && (arg == "-q" || arg == "--quiet")) {
            quiet = true;
        } else if (!optionsEnded && arg == "--verbose") {
            ++verbosity;
        } else if (!optionsEnded && arg.size() >= 2 && arg[0] == '-' &&
                   arg.find_first_not_of('v', 1) == std::string::npos) {
            verbosity += static_cast<int>(arg.size() - 1);
        } else {
            rest.push_back(arg);
        }
    }
    args.swap(rest);
    return verbosity;
}

bool WantsHelp(const Args& args) {
    for (const std::string& arg : args) {
        if (arg == "--") {
            return false;
        }
        if (arg == "--help" || arg == "-h") {
            return true;
        }
    }
    return false;
}

int Main(Args args) {
    args.erase(args.begin());
    bool quiet = false;
    const int verbosity = TakeVerbosity(args, quiet);
    if (args.empty()) {
        PrintOverview(stderr);
        return kExitUsage;
    }
    if (args[0] == "--version") {
        std::printf("qob %s\n", QOB_VERSION_TEXT);
        return kExitSuccess;
    }
    if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        PrintOverview(stdout);
        return 0;
    }
    const Command* command = nullptr;
    for (const Command& candidate : kCommands) {
        if (candidate.name == args[0]) {
            command = &candidate;
        }
    }
    if (command == nullptr) {
        std::fprintf(stderr, "qob: unknown command '%s' (see qob --help)\n", args[0].c_str());
        return kExitUsage;
    }
    args.erase(args.begin());
    if (WantsHelp(args)) {
        PrintHelp(*command);
        return 0;
    }
    InstallLogSink(verbosity, quiet);
    const std::string name(command->name);
    try {
        return command->run(args, quiet);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "qob %s: %s (see qob %s --help)\n", name.c_str(), e.what(),
                     name.c_str());
        return kExitUsage;
    } catch (const ToolError& e) {
        std::fprintf(stderr, "qob %s: %s\n", name.c_str(), e.what());
        return e.status();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qob %s: %s\n", name.c_str(), e.what());
        return kExitFailure;
    }
}

} // namespace
} // namespace qobtool

int main(int argc, char** argv) {
    qobtool::PrepareStandardStreams();
    return qobtool::Main(qobtool::Utf8Arguments(argc, argv));
}
