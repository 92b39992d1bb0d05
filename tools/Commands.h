// The sub-commands of the `kestor` tool.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestor::tool {

struct RecordOptions {
    std::string file;  // empty: record into memory
    uint64_t frames = 0;
    double seconds = 0;
    double rate = 0;  // frames per second; 0 records as fast as possible
    uint32_t width = 640, height = 480, bitDepth = 8;
    bool progress = true;
};

struct GrabOptions {
    std::string file;  // empty: record into memory
    std::string driver = "simulated";
    std::string camera;  // the driver's "Camera" setting (a GenICam camera's address)
    std::string company = "Kestor";
    uint64_t frames = 0;  // 0 with seconds = 0: 100 frames
    double seconds = 0;
    uint32_t width = 0, height = 0;  // 0 keeps the driver's
    std::string pixelFormat;
    double rate = 0;  // frames per second; 0 keeps the driver's
    bool freeRun = false;
    unsigned buffers = 32;
    std::vector<std::string> features;  // "Name=value"
    bool reset = false;
    std::string settingsFile;
    bool verify = true;
    bool progress = true;
};

int RunDemo();
int RunErrors(const std::vector<long>& codes);
int RunRecord(const RecordOptions& options);
int RunInfo(const std::string& file);
int RunRecover(const std::string& file);
int RunGrab(const GrabOptions& options);
int RunDrivers();
int RunFeatures(const GrabOptions& options);  // driver, camera, company

}  // namespace kestor::tool
