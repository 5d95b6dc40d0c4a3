// qob: create, inspect and edit image packages from the command line.
#include "commands.hpp"
#include "host_platform.hpp"
#include "library.hpp"

#include <qob/qob_ext.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

namespace qobtool {
namespace {

constexpr const char* kExitHelp =
    "Exit status:\n"
    "  0  success (check: an image package; verify: sound)\n"
    "  1  failure (verify: a damaged package); one line on standard error says why\n"
    "  2  usage error\n"
    "  3  not an image package\n"
    "  4  not found: the package, a named file, an entry or an LCC identifier\n"
    "  5  no space left on the device\n";

struct Command {
    const char* name;
    int (*run)(const Options&);
    const char* summary;
};

const Command kCommands[] = {
    {"create", &RunCreate, "Create a new package from a raw image and its companion files"},
    {"update", &RunUpdate, "Put new or changed companion files into a package"},
    {"info", &RunInfo, "The files the manifest names: paths, sizes, offsets, times"},
    {"ls", &RunList, "Every zip entry with its sizes, offset and time (the name comes last)"},
    {"lcc", &RunLcc, "The lens cast calibration profile with identifier ID"},
    {"check", &RunCheck, "Whether PKG is an image package (exit status 0 if so, 3 if not)"},
    {"verify", &RunVerify, "Read every entry back, compare manifest and zip (1 if damaged)"},
    {"extract", &RunExtract, "Write every file of the package (not the manifests) under DIR"},
    {"cat", &RunCat, "Write one entry's content to standard output"},
    {"rm", &RunRemove, "Remove an entry; the raw image and the manifests need --force"},
};

void AddCompanionOptions(CLI::App& command, Options& options) {
    command.add_option("--settings", options.settings, "The settings file")->type_name("FILE");
    command.add_option("--proxy", options.proxy, "The proxy preview")->type_name("FILE");
    command
        .add_option("--lcc", options.lccs,
                    "A lens cast calibration profile with its identifier (repeatable)")
        ->type_name("ID=FILE")
        ->allow_extra_args(false);
    command.add_option("--icc", options.iccs, "An ICC profile with its identifier (repeatable)")
        ->type_name("ID=FILE")
        ->allow_extra_args(false);
    command.add_option("--mask", options.mask, "The mask")->type_name("FILE");
    command.add_option("--hair", options.hair, "The hair mask")->type_name("FILE");
    command
        .add_option("--reserve", options.reserve,
                    "Zero space kept behind each of these files for later, larger versions "
                    "(default: 16384 behind the settings, 0 elsewhere)")
        ->type_name("BYTES");
}

// Declares each command's arguments and options; all of them fill one Options.
void AddCommand(CLI::App& app, const Command& command, Options& options) {
    const std::string name = command.name;
    CLI::App* sub = app.add_subcommand(name, command.summary);
    sub->fallthrough(); // -q and -v may follow the command
    sub->add_option("PKG", options.package, "The package")->required();
    if (name == "create") {
        sub->add_option("--raw", options.raw, "The raw image")->type_name("FILE")->required();
    }
    if (name == "create" || name == "update") {
        AddCompanionOptions(*sub, options);
    }
    if (name == "lcc") {
        sub->add_option("ID", options.second, "The profile's identifier")->required();
    } else if (name == "extract") {
        sub->add_option("DIR", options.second, "The directory to write under")->required();
    } else if (name == "cat" || name == "rm") {
        sub->add_option("ENTRY", options.second, "The entry's name, exactly as stored")->required();
    }
    if (name == "info" || name == "ls" || name == "lcc" || name == "check" || name == "verify") {
        sub->add_flag("--json", options.json, "One JSON document instead of text");
    }
    if (name == "rm") {
        sub->add_flag("--force", options.force,
                      "Remove even the raw image or a manifest (the package may not open)");
    }
}

// The overview (App::help() would describe the command that was parsed, "help" itself).
std::string Overview(const CLI::App& app) {
    return app.get_formatter()->make_help(&app, "qob", CLI::AppFormatMode::Normal);
}

int Main(std::vector<std::string> args) {
    CLI::App app("Create, inspect and edit image packages.", "qob");
    app.footer(std::string("Run 'qob help COMMAND' for a command's options.\n"
                           "Times are ISO 8601 with the local offset.\n\n") +
               kExitHelp);
    Options options;
    bool version = false;
    app.add_flag("-q,--quiet", options.quiet, "Print nothing on success, and no progress bar");
    app.add_flag("-v,--verbose", options.verbosity,
                 "Show the library's log lines (-v up to INFO, -vv DEBUG, -vvv TRACE)");
    app.add_flag("--version", version, "The tool's and the library's version");
    for (const Command& command : kCommands) {
        AddCommand(app, command, options);
    }
    std::string helpTopic;
    CLI::App* help = app.add_subcommand("help", "A command's options, or this overview");
    help->add_option("COMMAND", helpTopic, "The command");
    app.require_subcommand(0, 1);

    std::reverse(args.begin(), args.end()); // CLI11 takes them last first
    args.pop_back();                        // the program's name
    try {
        app.parse(args);
    } catch (const CLI::CallForHelp&) {
        const auto chosen = app.get_subcommands();
        std::printf("%s", chosen.empty() ? Overview(app).c_str() : chosen[0]->help("qob").c_str());
        return kExitSuccess;
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "qob: %s (see qob --help)\n", e.what());
        return kExitUsage;
    }
    if (version) {
        std::printf("qob %s (library %s)\n", QOB_VERSION_STRING, QOBX_Version());
        return kExitSuccess;
    }
    const auto chosen = app.get_subcommands();
    if (chosen.empty()) {
        std::fprintf(stderr, "%s", Overview(app).c_str());
        return kExitUsage;
    }
    if (chosen[0] == help) {
        if (helpTopic.empty()) {
            std::printf("%s", Overview(app).c_str());
            return kExitSuccess;
        }
        try {
            std::printf("%s", app.get_subcommand(helpTopic)->help("qob").c_str());
            return kExitSuccess;
        } catch (const CLI::OptionNotFound&) {
            std::fprintf(stderr, "qob: unknown command '%s' (see qob --help)\n", helpTopic.c_str());
            return kExitUsage;
        }
    }
    const std::string name = chosen[0]->get_name();
    InstallLogSink(options.verbosity);
    const Command& command = *std::find_if(std::begin(kCommands), std::end(kCommands),
                                           [&](const Command& c) { return name == c.name; });
    try {
        return command.run(options);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "qob %s: %s (see qob help %s)\n", name.c_str(), e.what(),
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
