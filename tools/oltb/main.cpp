// oltb: the trace buffer of a laser scan controller card from the command line, through the library's C
// interface only. Each subcommand registers itself and its options from its own file; this parses the arguments,
// runs the one given and turns its failures into exit codes.
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#ifndef OLTB_TOOL_VERSION
#define OLTB_TOOL_VERSION "unknown"
#endif

using namespace oltb::cli;

namespace {

// What the parser refused, and where to look: the help of the command given, or the list of commands.
std::string usageMistake(const CLI::App& app, int argc, char** argv, std::string what) {
    const CLI::App* command = nullptr;
    for (int index = 1; index < argc && command == nullptr; ++index) {
        for (const CLI::App* candidate : app.get_subcommands({})) {
            if (candidate->check_name(argv[index])) {
                command = candidate;
            }
        }
    }
    if (command == nullptr && argc > 1 && argv[1][0] != '-') {
        what = std::string("unknown command '") + argv[1] + "'";
    }
    return what + "\nsee " +
           (command != nullptr ? "oltb " + command->get_name() + " --help" : std::string("oltb --help"));
}

// Every write to standard output counts: when one failed (a full disk, a closed pipe behind it), a command that
// otherwise succeeded ends with the output error code, quietly for a closed pipe.
int checkStandardOutput(int code) {
    std::cout.flush();
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int error = errno;
    if (code != ExitSuccess || (flushed && std::cout && !std::ferror(stdout))) {
        return code;
    }
    if (error != EPIPE) {
        printError(std::string("cannot write to standard output") +
                   (error != 0 ? ": " + std::string(std::strerror(error)) : ""));
    }
    return ExitOutput;
}

int run(int argc, char** argv) {
    CLI::App app{"oltb: trace signals of a laser scan controller card through its trace buffer server (port 9495)",
                 "oltb"};
    app.set_version_flag("--version", std::string("oltb ") + OLTB_TOOL_VERSION);
    app.require_subcommand(1);
    app.footer("Run oltb COMMAND --help for the options of a command.");

    const Command commands[] = {addSignalsCommand(app), addConfigCommand(app),  addCaptureCommand(app),
                                addAcquireCommand(app), addAnalyzeCommand(app), addReportCommand(app),
                                addCompareCommand(app), addConvertCommand(app), addMonitorCommand(app)};

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // --help, --version
            app.exit(error);
            return ExitSuccess;
        }
        printError(usageMistake(app, argc, argv, error.what()));
        return ExitUsage;
    }

    ignoreBrokenPipes();
    installInterruptHandler();
    try {
        for (const Command& command : commands) {
            if (app.got_subcommand(command.parser)) {
                return command.run();
            }
        }
        return ExitUnexpected;  // require_subcommand(1): not reached
    } catch (const UsageError& error) {
        printError(error.what());
        return ExitUsage;
    } catch (const ServerError& error) {
        printError(error.what());
        return ExitServer;
    } catch (const InputError& error) {
        printError(error.what());
        return ExitOutput;
    } catch (const OutputError& error) {
        if (!error.standardOutputClosed()) {
            printError(error.what());
        }
        return ExitOutput;
    } catch (const std::exception& error) {
        printError(std::string("unexpected failure: ") + error.what());
        return ExitUnexpected;
    }
}

}  // namespace

int main(int argc, char** argv) { return checkStandardOutput(run(argc, argv)); }
