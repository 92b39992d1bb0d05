// kestor: record, inspect and repair high-speed video sequences from the command line.
#include <CLI/CLI.hpp>

#include "Commands.h"

int main(int argc, char** argv) {
    CLI::App app{"kestor - high-speed video acquisition and recording"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "kestor 0.1.0");

    auto* demo = app.add_subcommand("demo", "Create images of several formats and show them");

    std::vector<long> codes;
    auto* errors = app.add_subcommand("errors", "Print the text of error codes");
    errors->add_option("codes", codes, "Error codes (all documented codes when none)");

    CLI11_PARSE(app, argc, argv);
    if (demo->parsed()) return kestor::tool::RunDemo();
    if (errors->parsed()) return kestor::tool::RunErrors(codes);
    return 0;
}
