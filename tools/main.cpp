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

    kestor::tool::GrabOptions grab;
    bool grabRam = false, noVerify = false;
    auto* grabCommand = app.add_subcommand("grab", "Record from a camera driver into a sequence");
    grabCommand->add_option("file", grab.file, "Sequence file to create");
    grabCommand->add_flag("--ram", grabRam, "Record into memory instead of a file");
    grabCommand->add_option("-d,--driver", grab.driver, "Driver key (see kestor drivers)")
        ->capture_default_str();
    grabCommand->add_option("-c,--camera", grab.camera,
                            "Camera to open: IP address, serial number or device id");
    auto* grabFrames = grabCommand->add_option("-n,--frames", grab.frames, "Frames to record");
    auto* grabSeconds = grabCommand->add_option("-t,--seconds", grab.seconds, "Seconds to record");
    grabFrames->excludes(grabSeconds);
    grabCommand->add_option("-W,--width", grab.width, "Image width")->check(CLI::Range(1, 65536));
    grabCommand->add_option("-H,--height", grab.height, "Image height")
        ->check(CLI::Range(1, 65536));
    grabCommand->add_option("-f,--format", grab.pixelFormat, "Pixel format (driver's name)");
    grabCommand->add_option("-r,--rate", grab.rate, "Frames per second");
    grabCommand->add_flag("--free-run", grab.freeRun,
                          "Simulated camera: deliver as fast as the recording takes frames");
    grabCommand->add_option("-b,--buffers", grab.buffers, "Acquisition buffers")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    grabCommand->add_option("-s,--set", grab.features, "Set a driver feature: Name=value");
    grabCommand->add_option("--company", grab.company, "Settings key company word")
        ->capture_default_str();
    grabCommand->add_flag("--reset", grab.reset, "Start the driver from its default settings");
    grabCommand->add_option("--settings", grab.settingsFile, "Import a grabber settings file");
    grabCommand->add_flag("--no-verify", noVerify,
                          "Skip the check of the simulated camera's frames");

    auto* drivers =
        app.add_subcommand("drivers", "List the drivers and whether they are installed");

    kestor::tool::GrabOptions featureOptions;
    auto* features = app.add_subcommand("features", "List a driver's features and their values");
    features->add_option("-d,--driver", featureOptions.driver, "Driver key")->capture_default_str();
    features->add_option("-c,--camera", featureOptions.camera, "Camera to open");
    features->add_option("--company", featureOptions.company, "Settings key company word")
        ->capture_default_str();

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
    if (grabCommand->parsed()) {
        if (grabRam)
            grab.file.clear();
        else if (grab.file.empty()) {
            std::fprintf(stderr, "kestor grab: give a file name or --ram\n");
            return 2;
        }
        if (grab.frames == 0 && grab.seconds <= 0) grab.frames = 100;
        grab.verify = !noVerify;
        grab.progress = isatty(STDERR_FILENO) != 0;
        return kestor::tool::RunGrab(grab);
    }
    if (drivers->parsed()) return kestor::tool::RunDrivers();
    if (features->parsed()) return kestor::tool::RunFeatures(featureOptions);
    if (info->parsed()) return kestor::tool::RunInfo(file);
    if (recover->parsed()) return kestor::tool::RunRecover(file);
    return 0;
}
