// kestor: record, inspect and repair high-speed video sequences from the command line.
#include <unistd.h>

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

    kestor::tool::RecordOptions record;
    bool ram = false;
    auto* recordCommand = app.add_subcommand("record", "Record frames from the synthetic source");
    recordCommand->add_option("file", record.file, "Sequence file to create");
    recordCommand->add_flag("--ram", ram, "Record into memory instead of a file");
    auto* framesOption =
        recordCommand->add_option("-n,--frames", record.frames, "Frames to record");
    auto* secondsOption =
        recordCommand->add_option("-t,--seconds", record.seconds, "Seconds to record");
    framesOption->excludes(secondsOption);
    recordCommand->add_option("-r,--rate", record.rate,
                              "Frames per second (default: as fast as possible)");
    recordCommand->add_option("-W,--width", record.width, "Frame width")
        ->check(CLI::Range(1, 65536));
    recordCommand->add_option("-H,--height", record.height, "Frame height")
        ->check(CLI::Range(1, 65536));
    recordCommand->add_option("-b,--bits", record.bitDepth, "Bits per pixel (8 or 16)")
        ->check(CLI::IsMember({8, 16}));

    std::string file;
    auto* info = app.add_subcommand("info", "Show what a sequence file holds");
    info->add_option("file", file, "Sequence file")->required();
    auto* recover = app.add_subcommand("recover", "Recover the frames of an interrupted recording");
    recover->add_option("file", file, "Sequence file")->required();

    CLI11_PARSE(app, argc, argv);
    if (demo->parsed()) return kestor::tool::RunDemo();
    if (errors->parsed()) return kestor::tool::RunErrors(codes);
    if (recordCommand->parsed()) {
        if (ram)
            record.file.clear();
        else if (record.file.empty()) {
            std::fprintf(stderr, "kestor record: give a file name or --ram\n");
            return 2;
        }
        if (record.frames == 0 && record.seconds <= 0) record.frames = 100;
        record.progress = isatty(STDERR_FILENO) != 0;
        return kestor::tool::RunRecord(record);
    }
    if (info->parsed()) return kestor::tool::RunInfo(file);
    if (recover->parsed()) return kestor::tool::RunRecover(file);
    return 0;
}
